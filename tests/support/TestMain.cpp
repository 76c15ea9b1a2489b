// main() of every C++ test binary: runs the suite with the kernel variant
// named by --kelma_kernels=NAME or, without that argument, by the environment
// variable KELMA_KERNELS (reference, sse2, ssse3, avx2, avx512). Every
// dispatch made by the tests then takes at most that variant, so the whole
// suite checks each path. CTest runs every test binary once per variant
// through the argument (tests/CMakeLists.txt).
//
// An unknown name is an error (exit status 2). A variant this processor
// cannot run lists no tests and skips every one of them when run, with the
// reason ("this processor cannot run the NAME kernels").
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kelma/common/KernelVariant.h"
#include "tests/support/TestSupport.h"

namespace {

class UnsupportedVariant : public ::testing::Environment {
public:
    explicit UnsupportedVariant(std::string reason) : reason_(std::move(reason)) {}
    void SetUp() override { GTEST_SKIP() << reason_; }

private:
    std::string reason_;
};

bool ListingOnly(int argc, char** argv) {
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--gtest_list_tests") == 0) return true;
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    const bool listing = ListingOnly(argc, argv);
    // Our own argument first, before gtest sees (and rejects) it.
    const char* name = std::getenv("KELMA_KERNELS");
    const char* source = "KELMA_KERNELS";
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        static const char kFlag[] = "--kelma_kernels=";
        if (std::strncmp(argv[i], kFlag, sizeof(kFlag) - 1) == 0) {
            name = argv[i] + sizeof(kFlag) - 1;
            source = "--kelma_kernels";
        } else {
            argv[kept++] = argv[i];
        }
    }
    argc = kept;
    ::testing::InitGoogleTest(&argc, argv);

    if (name != nullptr && *name != '\0') {
        if (!kelma_test::CapKernelVariant(source, name)) return 2;
        const kelma::KERNEL_VARIANT variant = kelma::KernelVariantCap();
        if (!kelma::KernelVariantSupported(variant)) {
            if (listing) return 0;  // nothing to register for this processor
            ::testing::AddGlobalTestEnvironment(new UnsupportedVariant(kelma_test::UnsupportedVariant(variant)));
        }
    }
    return RUN_ALL_TESTS();
}
