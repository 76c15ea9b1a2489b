#include "kelma/colorspace/ZKCColorSpaceTransformationLUT.h"

#include <cstdint>

#include "kelma/colorspace/Lab2000hlTables.h"
#include "kelma/common/LibraryErrors.h"

namespace KELMA_NAMESPACE {

namespace {

// Clamp to [lo, hi]; NaN fails the first comparison and becomes lo, which
// keeps every table index in range.
inline double Clamp(double v, double lo, double hi) { return v >= lo ? (v > hi ? hi : v) : lo; }

inline unsigned char EncodeClamped(double v) {
    double c = v > 255.0 ? 255.0 : (v >= 0.0 ? v : 0.0);
    return static_cast<unsigned char>(static_cast<int>(c + 0.5));
}

inline unsigned char LowByteOfTruncation(double v) {
    return static_cast<unsigned char>(static_cast<std::uint32_t>(static_cast<std::int64_t>(v)));
}

}  // namespace

ZKCColorSpaceTransformationLUT_Base::~ZKCColorSpaceTransformationLUT_Base() = default;

COLORSPACETRANSFORMATION ZKCColorSpaceTransformationLUT_Base::GetColorSpaceTransformation() const {
    return COLORSPACETRANSFORMATION_NONE;
}

void ZKCColorSpaceTransformationLUT_Base::TransformToByte(const double*, unsigned char*, unsigned long) const {}

void ZKCColorSpaceTransformationLUT_Base::Init(const double* in, double* out, unsigned long count) {
    input_ = in;
    output_ = out;
    count_ = static_cast<unsigned int>(count);
}

COLORSPACETRANSFORMATION ZKCColorSpaceTransformationLUT_LAB2LAB2000HL::GetColorSpaceTransformation() const {
    return COLORSPACETRANSFORMATION_LAB2LAB2000HL;
}

void ZKCColorSpaceTransformationLUT_LAB2LAB2000HL::LAB2LAB2000HL(double* out, const double* lab) {
    const double* lutL = Lab2000hlLutL();
    const double* lutA = Lab2000hlLutA();
    const double* lutB = Lab2000hlLutB();

    double L = Clamp(lab[0], 0.0, 100.0);
    double a = Clamp(lab[1], -128.0, 128.0);
    double b = Clamp(lab[2], -128.0, 128.0);

    // L: linear between the 0.01 steps; at L* = 100 the neighbour is the zero pad with weight 0.
    double u = L / 100.0 * 10000.0;
    int i = static_cast<int>(u);
    double f = u - i;
    double lhl = (1.0 - f) * lutL[i] + f * lutL[i + 1];

    // a, b: bilinear on the unit grid; at +128 the far neighbours get weight 0.
    double p = a + 128.0;
    double q = b + 128.0;
    int ia = static_cast<int>(p);
    double fa = p - ia;
    int ib = static_cast<int>(q);
    double fb = q - ib;
    int k = ia + 257 * ib;
    double w00 = (1.0 - fa) * (1.0 - fb);
    double w10 = fa * (1.0 - fb);
    double w01 = (1.0 - fa) * fb;
    double w11 = fa * fb;

    out[0] = lhl;
    out[1] = w00 * lutA[k] + w10 * lutA[k + 1] + w01 * lutA[k + 257] + w11 * lutA[k + 258];
    out[2] = w00 * lutB[k] + w10 * lutB[k + 1] + w01 * lutB[k + 257] + w11 * lutB[k + 258];
}

void ZKCColorSpaceTransformationLUT_LAB2LAB2000HL::LAB2000HL_BYTE(const double* lhl, unsigned char* out) {
    out[0] = EncodeClamped(kLab2000hlByteScaleL * lhl[0]);
    out[1] = EncodeClamped(kLab2000hlByteScaleAB * lhl[1] + kLab2000hlByteOffsetAB);
    out[2] = EncodeClamped(kLab2000hlByteScaleAB * lhl[2] + kLab2000hlByteOffsetAB);
}

void ZKCColorSpaceTransformationLUT_LAB2LAB2000HL::TransformToByte(const double* in, unsigned char* out,
                                                                    unsigned long count) const {
    for (unsigned long i = 0; i < count; ++i, in += 3, out += 3) {
        out[0] = LowByteOfTruncation(kLab2000hlByteScaleL * in[0]);
        out[1] = LowByteOfTruncation(kLab2000hlByteScaleAB * in[1] + kLab2000hlByteOffsetAB);
        out[2] = LowByteOfTruncation(kLab2000hlByteScaleAB * in[2] + kLab2000hlByteOffsetAB);
    }
}

void ZKCColorSpaceTransformationLUT_LAB2LAB2000HL::Calculate() const {
    const double* in = input_;
    double* out = output_;
    for (unsigned int i = 0; i < count_; ++i, in += 3, out += 3) LAB2LAB2000HL(out, in);
}

ZKCColorSpaceTransformationLUT_Thread::ZKCColorSpaceTransformationLUT_Thread(COLORSPACETRANSFORMATION type) {
    ThreadDistribution(type);
}

ZKCColorSpaceTransformationLUT_Thread::~ZKCColorSpaceTransformationLUT_Thread() { threads_.JoinAllNoThrow(); }

unsigned int ZKCColorSpaceTransformationLUT_Thread::CPUCount() { return KELMA_NAMESPACE::CPUCount(); }

void ZKCColorSpaceTransformationLUT_Thread::ThreadDistribution(COLORSPACETRANSFORMATION type) {
    unsigned int n = CPUCount();
    workers_.clear();
    workers_.resize(n);
    threads_.Resize(n);
    if (type != COLORSPACETRANSFORMATION_LAB2LAB2000HL) throw kErrorDefaultCase;
    for (auto& w : workers_) w.reset(new ZKCColorSpaceTransformationLUT_LAB2LAB2000HL());
}

void ZKCColorSpaceTransformationLUT_Thread::Init(const double* lab, double* lhl, unsigned long count) {
    std::vector<ZKSWorkShare> shares = SplitWork(count, workers_.size());
    used_ = static_cast<unsigned int>(shares.size());
    for (std::size_t j = 0; j < shares.size(); ++j)
        workers_[j]->Init(lab + 3 * shares[j].start, lhl + 3 * shares[j].start, shares[j].count);
}

void ZKCColorSpaceTransformationLUT_Thread::Calculate() {
    for (unsigned int j = 0; j < used_; ++j) {
        if (workers_[0]->GetColorSpaceTransformation() != COLORSPACETRANSFORMATION_LAB2LAB2000HL)
            throw kErrorDefaultCase;
        threads_.Start(j, *workers_[j]);
    }
    threads_.JoinAll(used_);
}

void ZKCColorSpaceTransformationLUT_Thread::TransformToByte(const double* lhl, unsigned char* out,
                                                            unsigned long count) const {
    workers_[0]->TransformToByte(lhl, out, count);
}

}  // namespace KELMA_NAMESPACE
