// A host program built against the installed package: it only sees the
// exported surface through the umbrella header.
#include <kelma/kelma.h>

#include <cmath>
#include <cstdio>

int main() {
    kelma::ZKCObserver observer(kelma::OBSERVER_CIE1931_2);
    kelma::ZKCIlluminant_CIED50 d50;
    kelma::ZKCLighting_Matrix matrix(observer, &d50);
    kelma::ZKCWhitePoint white(matrix);
    double y = white.Values().at(1);
    std::printf("D50/2 white Y = %.7f\n", y);
    return std::fabs(y - 1.0) < 1e-6 ? 0 : 1;
}
