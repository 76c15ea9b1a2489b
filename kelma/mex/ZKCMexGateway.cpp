#include "kelma/mex/ZKCMexGateway.h"

#include <cstdint>

#include "kelma/colorimetry/ZKCIlluminant.h"
#include "kelma/colorimetry/ZKCLighting_Matrix.h"
#include "kelma/colorimetry/ZKCObserver.h"
#include "kelma/model/ZKCSSE_KELMA_Data.h"
#include "kelma/prediction/ZKCSSE_KELMA_Thread.h"

namespace KELMA_NAMESPACE {

ZKCMexHost::~ZKCMexHost() = default;

namespace {

// The gateway reads dimensions as unsigned 32-bit values.
inline std::uint32_t Low32(std::size_t v) { return static_cast<std::uint32_t>(v); }

// Built first and destroyed last so that construction and destruction keep
// the order of a host call; the observer table itself is not used.
ZKCLighting_Matrix D50LightingMatrix() {
    ZKCObserver observer(OBSERVER_CIE1931_2);
    ZKCIlluminant_CIED50 d50;
    return ZKCLighting_Matrix(observer, &d50);
}

}  // namespace

void MexGatewayBody(ZKCMexHost& host, void** plhs, const void* const* prhs) {
    const float* gridPoints = static_cast<const float*>(host.GetPr(prhs[0]));
    const float* effectiveRamps = static_cast<const float*>(host.GetPr(prhs[1]));
    const float* matrixScheme = static_cast<const float*>(host.GetPr(prhs[2]));
    const float* n = static_cast<const float*>(host.GetPr(prhs[3]));
    unsigned char* inks = static_cast<unsigned char*>(host.GetPr(prhs[4]));

    const std::size_t* gridDims = host.GetDimensions(prhs[0]);
    const std::uint32_t G = Low32(gridDims[0]);
    const std::uint32_t N = Low32(gridDims[1]);
    const std::uint32_t count = Low32(host.GetDimensions(prhs[4])[1]);

    ZKCObserver_CIE2 unusedObserver;
    ZKCLighting_Matrix lightingMatrix = D50LightingMatrix();
    ZKCSSE_KELMA_Data model(N, G, gridPoints, effectiveRamps, matrixScheme, *n, lightingMatrix,
                            INK_SET_SEVEN_INKS, true, true, kSpectralValues);

    plhs[0] = host.CreateSingleMatrix(kSpectrumStride, count);
    float* output = static_cast<float*>(host.GetPr(plhs[0]));
    ZKCSSE_KELMA_Thread driver(model, count, inks, output);
    driver.Wait();
}

}  // namespace KELMA_NAMESPACE
