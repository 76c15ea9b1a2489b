// CIELAB -> LAB2000HL through the published tables (linear in L*, bilinear
// in a*, b*), the library's 8-bit colour encoding, and a threaded driver.
#pragma once

#include <memory>
#include <vector>

#include "kelma/common/Types.h"
#include "kelma/threading/Threading.h"

namespace KELMA_NAMESPACE {

// Worker over a range of triples (CIELAB in, LAB2000HL out, doubles).
// LAB2000HL bytes: 3.3931 L_HL (the largest L_HL, 75.1531864183417 at
// L* = 100, onto 255), 2.6771 a_HL + 128 and 2.6771 b_HL + 128.
constexpr double kLab2000hlByteScaleL = 3.3931;
constexpr double kLab2000hlByteScaleAB = 2.6771;
constexpr double kLab2000hlByteOffsetAB = 128.0;

class KELMA_API ZKCColorSpaceTransformationLUT_Base {
public:
    virtual ~ZKCColorSpaceTransformationLUT_Base();
    virtual COLORSPACETRANSFORMATION GetColorSpaceTransformation() const;
    virtual void TransformToByte(const double* in, unsigned char* out, unsigned long count) const;
    virtual void Calculate() const = 0;

    void Init(const double* in, double* out, unsigned long count);
    // Thread body.
    void operator()() const { Calculate(); }

protected:
    ZKCColorSpaceTransformationLUT_Base() = default;

    const double* input_ = nullptr;
    double* output_ = nullptr;
    unsigned int count_ = 0;
};

class KELMA_API ZKCColorSpaceTransformationLUT_LAB2LAB2000HL : public ZKCColorSpaceTransformationLUT_Base {
public:
    ZKCColorSpaceTransformationLUT_LAB2LAB2000HL() = default;

    COLORSPACETRANSFORMATION GetColorSpaceTransformation() const override;
    // Unclamped, unrounded array encoding: trunc(3.3931 L), trunc(2.6771 a + 128),
    // trunc(2.6771 b + 128), low 8 bits kept. Inputs must be inside the
    // encodable range (finite, |v| < 2^31); for clamped bytes use LAB2000HL_BYTE.
    void TransformToByte(const double* in, unsigned char* out, unsigned long count) const override;
    // Applies LAB2LAB2000HL to each assigned triple.
    void Calculate() const override;

    // One triple, all double. L* is clamped to [0, 100], a* and b* to
    // [-128, 128]; NaN is taken as the lower bound. Output L_HL in
    // [0, 75.1531864183417]; a_HL, b_HL about -44 .. 48.
    static void LAB2LAB2000HL(double* out, const double* lab);
    // Bytes 3.3931 L_HL, 2.6771 a_HL + 128, 2.6771 b_HL + 128, each clamped
    // to [0, 255] (NaN -> 0) and rounded half up.
    static void LAB2000HL_BYTE(const double* lhl, unsigned char* out);
};

// Splits an array of CIELAB triples over one worker per processor.
class KELMA_API ZKCColorSpaceTransformationLUT_Thread {
public:
    // Only COLORSPACETRANSFORMATION_LAB2LAB2000HL (1); anything else throws "DefaultCase".
    explicit ZKCColorSpaceTransformationLUT_Thread(COLORSPACETRANSFORMATION type);
    ZKCColorSpaceTransformationLUT_Thread(const ZKCColorSpaceTransformationLUT_Thread&) = delete;
    ZKCColorSpaceTransformationLUT_Thread& operator=(const ZKCColorSpaceTransformationLUT_Thread&) = delete;
    virtual ~ZKCColorSpaceTransformationLUT_Thread();

    // `lab` and `lhl` hold count triples; they must stay valid until Calculate returns.
    void Init(const double* lab, double* lhl, unsigned long count);
    void Calculate();
    void TransformToByte(const double* lhl, unsigned char* out, unsigned long count) const;

    unsigned int ThreadsInUse() const { return used_; }

protected:
    void ThreadDistribution(COLORSPACETRANSFORMATION type);
    static unsigned int CPUCount();

private:
    std::vector<std::unique_ptr<ZKCColorSpaceTransformationLUT_Base>> workers_;
    ZKCWorkerThreads threads_;
    unsigned int used_ = 0;
};

}  // namespace KELMA_NAMESPACE
