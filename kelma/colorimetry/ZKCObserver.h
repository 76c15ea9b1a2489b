// CIE standard colorimetric observers on the 31-point grid (400-700 nm, 10 nm).
#pragma once

#include <memory>
#include <vector>

#include "kelma/common/Types.h"

namespace KELMA_NAMESPACE {

// Colour-matching table of 93 doubles: x-bar at 0-30, y-bar at 31-61, z-bar at 62-92.
class KELMA_API ZKCObserver_Base {
public:
    virtual ~ZKCObserver_Base();
    const std::vector<double>& Observer() const { return table_; }

protected:
    explicit ZKCObserver_Base(std::vector<double> table) : table_(std::move(table)) {}

private:
    std::vector<double> table_;
};

// CIE 1931 2 degree functions, every value rounded to two decimals (as the
// library's colorimetry is defined on; block sums 10.64, 10.67, 10.66).
class KELMA_API ZKCObserver_CIE2 : public ZKCObserver_Base {
public:
    ZKCObserver_CIE2();

private:
    static std::vector<double> GetObserver_CIE2();
};

// CIE 1964 10 degree functions, rounded to two decimals (sums 11.65, 11.68, 11.65).
class KELMA_API ZKCObserver_CIE10 : public ZKCObserver_Base {
public:
    ZKCObserver_CIE10();

private:
    static std::vector<double> GetObserver_CIE10();
};

// Facade passed around by const reference. Copies and assignment share the
// held table (the table is immutable, so sharing is safe).
class KELMA_API ZKCObserver {
public:
    // 2 -> CIE 1931 2 degree, 10 -> CIE 1964 10 degree; anything else throws "DefaultCase".
    explicit ZKCObserver(OBSERVER_TYPE type);
    virtual ~ZKCObserver();

    const std::vector<double>& Observer() const { return observer_->Observer(); }

private:
    std::shared_ptr<const ZKCObserver_Base> observer_;
};

}  // namespace KELMA_NAMESPACE
