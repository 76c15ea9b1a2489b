// main() of the benchmarks that run Google Benchmark's own flow. Like every
// benchmark binary, it takes KELMA_KERNELS=reference|sse2|ssse3|avx2|avx512
// to cap the kernel variant of every dispatch (a name that is no variant is
// an error, exit status 2), and records the variant in the report's context.
#include <benchmark/benchmark.h>

#include "kelma/common/KernelVariant.h"
#include "tests/support/TestSupport.h"

int main(int argc, char** argv) {
    if (!kelma_test::CapKernelVariantFromEnvironment()) return 2;
    benchmark::AddCustomContext("kelma_kernels", kelma::KernelVariantName(kelma::ActiveKernelVariant()));
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
