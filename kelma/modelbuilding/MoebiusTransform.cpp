#include "kelma/modelbuilding/MoebiusTransform.h"

namespace KELMA_NAMESPACE {
namespace modelbuilding {

void MoebiusInvert(double* corners, unsigned int inks) {
    const unsigned int count = 1u << inks;
    for (unsigned int i = 0; i < inks; ++i)
        for (unsigned int j = 0; j < count; ++j)
            if (j & (1u << i)) corners[j] -= corners[j ^ (1u << i)];
}

}  // namespace modelbuilding
}  // namespace KELMA_NAMESPACE
