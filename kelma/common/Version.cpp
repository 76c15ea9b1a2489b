#include "kelma/common/Version.h"

namespace KELMA_NAMESPACE {

const char* LibraryVersion() { return KELMA_VERSION; }

}  // namespace KELMA_NAMESPACE
