#include "kelma/colorimetry/ZKCObserver.h"
#include "kelma/common/LibraryErrors.h"

namespace KELMA_NAMESPACE {

ZKCObserver_Base::~ZKCObserver_Base() = default;

ZKCObserver_CIE2::ZKCObserver_CIE2() : ZKCObserver_Base(GetObserver_CIE2()) {}

std::vector<double> ZKCObserver_CIE2::GetObserver_CIE2() {
    return {
        // x-bar, 400..700 nm
        0.01, 0.04, 0.13, 0.28, 0.35, 0.34, 0.29, 0.2, 0.1, 0.03, 0, 0.01, 0.06, 0.17, 0.29, 0.43,
        0.59, 0.76, 0.92, 1.03, 1.06, 1, 0.85, 0.64, 0.45, 0.28, 0.16, 0.09, 0.05, 0.02, 0.01,
        // y-bar
        0, 0, 0, 0.01, 0.02, 0.04, 0.06, 0.09, 0.14, 0.21, 0.32, 0.5, 0.71, 0.86, 0.95, 0.99,
        1, 0.95, 0.87, 0.76, 0.63, 0.5, 0.38, 0.27, 0.18, 0.11, 0.06, 0.03, 0.02, 0.01, 0,
        // z-bar
        0.07, 0.21, 0.65, 1.39, 1.75, 1.77, 1.67, 1.29, 0.81, 0.47, 0.27, 0.16, 0.08, 0.04, 0.02, 0.01,
        0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    };
}

ZKCObserver_CIE10::ZKCObserver_CIE10() : ZKCObserver_Base(GetObserver_CIE10()) {}

std::vector<double> ZKCObserver_CIE10::GetObserver_CIE10() {
    return {
        // x-bar
        0.02, 0.08, 0.2, 0.31, 0.38, 0.37, 0.3, 0.2, 0.08, 0.02, 0, 0.04, 0.12, 0.24, 0.38, 0.53,
        0.71, 0.88, 1.01, 1.12, 1.12, 1.03, 0.86, 0.65, 0.43, 0.27, 0.15, 0.08, 0.04, 0.02, 0.01,
        // y-bar
        0, 0.01, 0.02, 0.04, 0.06, 0.09, 0.13, 0.19, 0.25, 0.34, 0.46, 0.61, 0.76, 0.88, 0.96, 0.99,
        1, 0.96, 0.87, 0.78, 0.66, 0.53, 0.4, 0.28, 0.18, 0.11, 0.06, 0.03, 0.02, 0.01, 0,
        // z-bar
        0.09, 0.39, 0.97, 1.55, 1.97, 1.99, 1.75, 1.32, 0.77, 0.42, 0.22, 0.11, 0.06, 0.03, 0.01, 0,
        0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    };
}

ZKCObserver::ZKCObserver(OBSERVER_TYPE type) {
    switch (type) {
        case OBSERVER_CIE1931_2:
            observer_ = std::make_shared<ZKCObserver_CIE2>();
            break;
        case OBSERVER_CIE1964_10:
            observer_ = std::make_shared<ZKCObserver_CIE10>();
            break;
        default:
            throw kErrorDefaultCase;
    }
}

ZKCObserver::~ZKCObserver() = default;

}  // namespace KELMA_NAMESPACE
