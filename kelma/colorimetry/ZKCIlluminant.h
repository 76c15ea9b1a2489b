// Illuminant spectral power distributions on the 31-point grid, relative
// (CIE tables divided by 100; A, D50, D65 and E read 1.0 at 560 nm).
#pragma once

#include <vector>

#include "kelma/common/Types.h"

namespace KELMA_NAMESPACE {

class KELMA_API ZKCIlluminant_Base {
public:
    virtual ~ZKCIlluminant_Base();
    ZKCIlluminant_Base(const ZKCIlluminant_Base&) = default;
    const std::vector<double>& Illuminant() const { return spd_; }

protected:
    // Takes the vector as it is; the lighting matrix reads 31 values from it.
    explicit ZKCIlluminant_Base(const std::vector<double>& spd) : spd_(spd) {}

private:
    std::vector<double> spd_;
};

class KELMA_API ZKCIlluminant_CIEA : public ZKCIlluminant_Base {
public:
    ZKCIlluminant_CIEA();
private:
    static std::vector<double> GetIlluminant_CIEA();
};

// D50 with the four digits of the CIE table.
class KELMA_API ZKCIlluminant_CIED50 : public ZKCIlluminant_Base {
public:
    ZKCIlluminant_CIED50();
private:
    static std::vector<double> GetIlluminant_CIED50();
};

class KELMA_API ZKCIlluminant_CIED65 : public ZKCIlluminant_Base {
public:
    ZKCIlluminant_CIED65();
private:
    static std::vector<double> GetIlluminant_CIED65();
};

// Equal-energy illuminant: 31 ones.
class KELMA_API ZKCIlluminant_CIEE : public ZKCIlluminant_Base {
public:
    ZKCIlluminant_CIEE();
private:
    static std::vector<double> GetIlluminant_CIEE();
};

// Fluorescent tables are point samples of the CIE 5 nm tables at the 10 nm
// grid (the 5 nm mercury lines are not folded in) and are not renormalised.
class KELMA_API ZKCIlluminant_CIEF1 : public ZKCIlluminant_Base {
public:
    ZKCIlluminant_CIEF1();
private:
    static std::vector<double> GetIlluminant_CIEF1();
};

class KELMA_API ZKCIlluminant_CIEF2 : public ZKCIlluminant_Base {
public:
    ZKCIlluminant_CIEF2();
private:
    static std::vector<double> GetIlluminant_CIEF2();
};

class KELMA_API ZKCIlluminant_CIEF11 : public ZKCIlluminant_Base {
public:
    ZKCIlluminant_CIEF11();
private:
    static std::vector<double> GetIlluminant_CIEF11();
};

// A measured or user-supplied illuminant on the same grid.
class KELMA_API ZKCIlluminant_Measure : public ZKCIlluminant_Base {
public:
    // Taken as it is, any length: callers must pass 31 values.
    explicit ZKCIlluminant_Measure(const std::vector<double>& spd);
    // Reads exactly spd[0..30].
    explicit ZKCIlluminant_Measure(const double* spd);

private:
    static std::vector<double> SetIlluminantVector(const double* spd);
};

}  // namespace KELMA_NAMESPACE
