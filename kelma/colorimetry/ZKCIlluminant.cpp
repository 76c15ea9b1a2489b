#include "kelma/colorimetry/ZKCIlluminant.h"

#include <algorithm>

namespace KELMA_NAMESPACE {

namespace {
// A vector of 31 zeros with all entries then set, as every getter builds it.
std::vector<double> Table(const double (&values)[kSpectralValues]) {
    std::vector<double> spd(kSpectralValues, 0.0);
    std::copy(values, values + kSpectralValues, spd.begin());
    return spd;
}
}  // namespace

ZKCIlluminant_Base::~ZKCIlluminant_Base() = default;

ZKCIlluminant_CIEA::ZKCIlluminant_CIEA() : ZKCIlluminant_Base(GetIlluminant_CIEA()) {}
std::vector<double> ZKCIlluminant_CIEA::GetIlluminant_CIEA() {
    static const double v[kSpectralValues] = {
        0.14708, 0.176753, 0.20995, 0.246709, 0.287027, 0.330859, 0.378121, 0.428693,
        0.482423, 0.539132, 0.598611, 0.660635, 0.724959, 0.791326, 0.85947, 0.92912,
        1, 1.07184, 1.14436, 1.21731, 1.29043, 1.36346, 1.43618, 1.50836,
        1.57979, 1.65028, 1.71963, 1.78769, 1.85429, 1.91931, 1.98261};
    return Table(v);
}

ZKCIlluminant_CIED50::ZKCIlluminant_CIED50() : ZKCIlluminant_Base(GetIlluminant_CIED50()) {}
std::vector<double> ZKCIlluminant_CIED50::GetIlluminant_CIED50() {
    static const double v[kSpectralValues] = {
        0.4931, 0.5651, 0.6003, 0.5782, 0.7482, 0.8725, 0.9061, 0.9137, 0.9511, 0.9196, 0.9572,
        0.9661, 0.9713, 1.021, 1.0075, 1.0232, 1, 0.9774, 0.9892, 0.935, 0.9769, 0.9927,
        0.9904, 0.9572, 0.9886, 0.9567, 0.9819, 1.03, 0.9913, 0.8738, 0.916};
    return Table(v);
}

ZKCIlluminant_CIED65::ZKCIlluminant_CIED65() : ZKCIlluminant_Base(GetIlluminant_CIED65()) {}
std::vector<double> ZKCIlluminant_CIED65::GetIlluminant_CIED65() {
    static const double v[kSpectralValues] = {
        0.827549, 0.91486, 0.934318, 0.866823, 1.04865, 1.17008, 1.17812, 1.14861,
        1.15923, 1.08811, 1.09354, 1.07802, 1.0479, 1.07689, 1.04405, 1.04046,
        1, 0.963342, 0.95788, 0.886856, 0.900062, 0.895991, 0.876987, 0.832886,
        0.836992, 0.800268, 0.802146, 0.822778, 0.782842, 0.697213, 0.716091};
    return Table(v);
}

ZKCIlluminant_CIEE::ZKCIlluminant_CIEE() : ZKCIlluminant_Base(GetIlluminant_CIEE()) {}
std::vector<double> ZKCIlluminant_CIEE::GetIlluminant_CIEE() {
    std::vector<double> spd(kSpectralValues, 0.0);
    std::fill(spd.begin(), spd.end(), 1.0);
    return spd;
}

ZKCIlluminant_CIEF1::ZKCIlluminant_CIEF1() : ZKCIlluminant_Base(GetIlluminant_CIEF1()) {}
std::vector<double> ZKCIlluminant_CIEF1::GetIlluminant_CIEF1() {
    static const double v[kSpectralValues] = {
        0.0517, 0.0613, 0.0701, 0.0856, 0.1694, 0.1135, 0.1237, 0.13, 0.1323, 0.1313, 0.1252,
        0.1183, 0.1122, 0.1103, 0.1153, 0.1705, 0.1433, 0.1552, 0.1955, 0.1491, 0.1322, 0.1112,
        0.0895, 0.0702, 0.0542, 0.0415, 0.032, 0.0247, 0.0193, 0.0167, 0.0129};
    return Table(v);
}

ZKCIlluminant_CIEF2::ZKCIlluminant_CIEF2() : ZKCIlluminant_Base(GetIlluminant_CIEF2()) {}
std::vector<double> ZKCIlluminant_CIEF2::GetIlluminant_CIEF2() {
    static const double v[kSpectralValues] = {
        0.0344, 0.0385, 0.0419, 0.0506, 0.1181, 0.0663, 0.0719, 0.0754, 0.0765, 0.0762, 0.0728,
        0.0705, 0.0716, 0.0804, 0.1001, 0.1664, 0.1616, 0.1862, 0.2279, 0.1866, 0.1654, 0.138,
        0.1095, 0.084, 0.0631, 0.0468, 0.0345, 0.0255, 0.0189, 0.0153, 0.011};
    return Table(v);
}

ZKCIlluminant_CIEF11::ZKCIlluminant_CIEF11() : ZKCIlluminant_Base(GetIlluminant_CIEF11()) {}
std::vector<double> ZKCIlluminant_CIEF11::GetIlluminant_CIEF11() {
    static const double v[kSpectralValues] = {
        0.0129, 0.0159, 0.0246, 0.0449, 0.1213, 0.0719, 0.0672, 0.0546, 0.0566, 0.1496, 0.0472,
        0.0147, 0.0089, 0.0118, 0.3959, 0.3261, 0.0283, 0.0167, 0.1128, 0.1273, 0.0733, 0.5527,
        0.1318, 0.1226, 0.0207, 0.0358, 0.0248, 0.0154, 0.0146, 0.02, 0.0135};
    return Table(v);
}

ZKCIlluminant_Measure::ZKCIlluminant_Measure(const std::vector<double>& spd) : ZKCIlluminant_Base(spd) {}
ZKCIlluminant_Measure::ZKCIlluminant_Measure(const double* spd) : ZKCIlluminant_Base(SetIlluminantVector(spd)) {}

std::vector<double> ZKCIlluminant_Measure::SetIlluminantVector(const double* spd) {
    std::vector<double> v(kSpectralValues, 1.0);
    for (unsigned int i = 0; i < kSpectralValues; ++i) v[i] = spd[i];
    return v;
}

}  // namespace KELMA_NAMESPACE
