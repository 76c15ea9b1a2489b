#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "kelma/sampling/ResamplingMap.h"
#include "kelma/sampling/ZKCSpectralSampling.h"
#include "kelma/sampling/ZKCSpectralSampling_Thread.h"
#include "tests/sampling/DenseSplineOracle.h"
#include "tests/support/TestSupport.h"

using namespace kelma;

namespace {

std::vector<double> Grid(double first, double last, double step) {
    std::vector<double> w;
    for (double v = first; v <= last + 1e-9; v += step) w.push_back(v);
    return w;
}

double Lambda(unsigned int i) { return 400.0 + 10.0 * i; }

// count spectra of n values in [0.02, 0.98], exactly sized so that a read past
// a spectrum's end lands in the next one or (for the last) outside the vector.
std::vector<float> RandomInput(std::size_t count, std::size_t n, std::uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> value(0.02f, 0.98f);
    std::vector<float> in(count * n);
    for (float& v : in) v = value(rng);
    return in;
}

constexpr float kSentinel = -7.25f;

// Output records with slot 31 preset to a sentinel (the resampler must leave it).
AlignedBuffer<float> Output(std::size_t count) {
    AlignedBuffer<float> out(count * kSpectrumStride);
    for (std::size_t s = 0; s < count; ++s) out[s * kSpectrumStride + 31] = kSentinel;
    return out;
}

AlignedBuffer<float> RunDriver(const std::vector<double>& w, SPECTRALSAMPLING_METHOD method,
                               const std::vector<float>& in, std::size_t count) {
    ZKCSpectralSampling_Thread driver(w, method);
    AlignedBuffer<float> out = Output(count);
    driver.Init(in.data(), out.data(), count);
    driver.Calculate();
    return out;
}

template <class Worker>
AlignedBuffer<float> RunWorker(Worker& worker, const std::vector<float>& in, std::size_t count) {
    AlignedBuffer<float> out = Output(count);
    worker.Init(in.data(), out.data(), count);
    worker.Calculate();
    return out;
}

// Independent clamped cubic spline in double: second derivatives M_j from the
// classic tridiagonal system in local coordinates (Thomas algorithm), zero
// end slopes; beyond the knots the first/last piece is continued.
class ClampedSplineOracle {
public:
    ClampedSplineOracle(const std::vector<double>& x, const std::vector<double>& y) : x_(x), y_(y) {
        const std::size_t n = x.size();
        std::vector<double> h(n - 1), sub(n), diag(n), sup(n), rhs(n);
        for (std::size_t j = 0; j + 1 < n; ++j) h[j] = x[j + 1] - x[j];
        diag[0] = 2.0 * h[0];
        sup[0] = h[0];
        rhs[0] = 6.0 * ((y[1] - y[0]) / h[0]);
        for (std::size_t j = 1; j + 1 < n; ++j) {
            sub[j] = h[j - 1];
            diag[j] = 2.0 * (h[j - 1] + h[j]);
            sup[j] = h[j];
            rhs[j] = 6.0 * ((y[j + 1] - y[j]) / h[j] - (y[j] - y[j - 1]) / h[j - 1]);
        }
        sub[n - 1] = h[n - 2];
        diag[n - 1] = 2.0 * h[n - 2];
        rhs[n - 1] = -6.0 * ((y[n - 1] - y[n - 2]) / h[n - 2]);
        for (std::size_t j = 1; j < n; ++j) {
            double f = sub[j] / diag[j - 1];
            diag[j] -= f * sup[j - 1];
            rhs[j] -= f * rhs[j - 1];
        }
        m_.assign(n, 0.0);
        m_[n - 1] = rhs[n - 1] / diag[n - 1];
        for (std::size_t j = n - 1; j-- > 0;) m_[j] = (rhs[j] - sup[j] * m_[j + 1]) / diag[j];
    }

    double operator()(double v) const {
        std::size_t k = std::upper_bound(x_.begin(), x_.end(), v) - x_.begin();
        k = k == 0 ? 0 : std::min(k - 1, x_.size() - 2);
        double h = x_[k + 1] - x_[k];
        double a = x_[k + 1] - v, b = v - x_[k];
        return m_[k] * a * a * a / (6.0 * h) + m_[k + 1] * b * b * b / (6.0 * h) +
               (y_[k] / h - m_[k] * h / 6.0) * a + (y_[k + 1] / h - m_[k + 1] * h / 6.0) * b;
    }

private:
    std::vector<double> x_, y_, m_;
};

}  // namespace

TEST(SpectralSamplingValidation, RejectsShortListsAndRangesInsideTheGrid) {
    for (auto method : {SPECTRALSAMPLING_LINEAR, SPECTRALSAMPLING_CUBICSPLINE}) {
        EXPECT_EQ(kelma_test::ThrownText([&] { ZKCSpectralSampling_Thread d({550.0}, method); }),
                  "Wavelength-list has less than 2 elements");
        EXPECT_EQ(kelma_test::ThrownText([&] { ZKCSpectralSampling_Thread d({}, method); }),
                  "Wavelength-list has less than 2 elements");
        EXPECT_EQ(kelma_test::ThrownText([&] { ZKCSpectralSampling_Thread d(Grid(410, 690, 10), method); }),
                  "Invalid wavelength range");
        EXPECT_EQ(kelma_test::ThrownText([&] { ZKCSpectralSampling_Thread d({380.0, NAN, 730.0}, method); }),
                  "Invalid wavelength range");
        // The range test is a conjunction: one good end is enough.
        EXPECT_EQ(kelma_test::ThrownText([&] { ZKCSpectralSampling_Thread d(Grid(410, 720, 10), method); }), "");
        EXPECT_EQ(kelma_test::ThrownText([&] { ZKCSpectralSampling_Thread d(Grid(380, 690, 10), method); }), "");
        EXPECT_EQ(kelma_test::ThrownText([&] { ZKCSpectralSampling_Thread d({400.0, 700.0}, method); }), "");
    }
    EXPECT_EQ(kelma_test::ThrownText([] { ZKCSpectralSampling_Linear w({500.0}); }), "Wavelength-list has less than 2 elements");
    EXPECT_EQ(kelma_test::ThrownText([] { ZKCSpectralSampling_CubicSpline w({401.0, 699.0}); }), "Invalid wavelength range");
}

TEST(SpectralSamplingValidation, UnknownMethodIsDefaultCase) {
    EXPECT_EQ(kelma_test::ThrownText([] { ZKCSpectralSampling_Thread d(Grid(380, 730, 10), static_cast<SPECTRALSAMPLING_METHOD>(2)); }),
              "DefaultCase");
}

TEST(SpectralSamplingIntervals, KnotsStartTheirIntervalAndEndsExtrapolateInsideTheList) {
    {
        ZKCSpectralSampling_Linear w(Grid(380, 730, 10));
        for (unsigned int i = 0; i < kSpectralValues; ++i) {
            EXPECT_EQ(w.Lower(i), i + 2);
            EXPECT_EQ(w.Upper(i), i + 3);
        }
    }
    {
        // Starts above 400: 400 and 410 both use the first interval.
        ZKCSpectralSampling_Linear w(Grid(410, 720, 10));
        EXPECT_EQ(w.Lower(0), 0u);
        EXPECT_EQ(w.Lower(1), 0u);
        EXPECT_EQ(w.Lower(2), 1u);
        EXPECT_EQ(w.Lower(30), 29u);
    }
    for (const auto& list : {Grid(380, 690, 10), Grid(400, 700, 10), Grid(300, 400, 50)}) {
        // Ends at or below 700: the last interval is reused, never a knot past the end.
        ZKCSpectralSampling_Linear w(list);
        for (unsigned int i = 0; i < kSpectralValues; ++i) {
            EXPECT_LT(w.Upper(i), list.size());
            EXPECT_EQ(w.Upper(i), w.Lower(i) + 1);
            if (Lambda(i) >= list.back()) {
                EXPECT_EQ(w.Lower(i), list.size() - 2);
            }
        }
    }
    {
        // Irregular list: each output's interval brackets it.
        std::vector<double> list = {380, 392.5, 417, 455, 460, 530.25, 600, 641, 702, 744};
        ZKCSpectralSampling_Linear w(list);
        for (unsigned int i = 0; i < kSpectralValues; ++i) {
            EXPECT_LE(list[w.Lower(i)], Lambda(i));
            EXPECT_GT(list[w.Upper(i)], Lambda(i));
        }
    }
}

TEST(SpectralSamplingLinear, SpectrumLinearInWavelengthIsReproducedIncludingExtrapolation) {
    auto line = [](double lambda) { return 0.15 + 0.0011 * (lambda - 380.0); };
    for (const auto& list : {Grid(380, 730, 10), Grid(410, 720, 10), Grid(380, 690, 10), Grid(385, 725, 10),
                             std::vector<double>{395, 411.5, 460, 555, 612, 688, 705}}) {
        std::vector<float> in;
        for (double w : list) in.push_back(static_cast<float>(line(w)));
        AlignedBuffer<float> out = RunDriver(list, SPECTRALSAMPLING_LINEAR, in, 1);
        for (unsigned int i = 0; i < kSpectralValues; ++i) {
            // Knot values carry float rounding (about 3e-8); nothing else may differ.
            EXPECT_NEAR(out[i], line(Lambda(i)), 2e-7) << "list starting " << list.front() << ", i " << i;
        }
        EXPECT_EQ(out[31], kSentinel);
    }
}

TEST(SpectralSamplingCubicSpline, LinearSpectrumIsBentOnlyNearTheClampedEnds) {
    // Knots between the grid wavelengths, so the outputs test the curve, not the knots.
    auto line = [](double lambda) { return 0.2 + 0.001 * (lambda - 380.0); };
    std::vector<double> list = Grid(385, 725, 10);
    std::vector<float> in;
    for (double w : list) in.push_back(static_cast<float>(line(w)));
    AlignedBuffer<float> out = RunDriver(list, SPECTRALSAMPLING_CUBICSPLINE, in, 1);
    for (unsigned int i = 0; i < kSpectralValues; ++i) {
        double err = out[i] - line(Lambda(i));
        EXPECT_LT(std::fabs(err), 5e-4) << i;
        if (i >= 4 && i <= 26) {
            EXPECT_LT(std::fabs(err), 3e-6) << i;
        }
    }
    // Zero end slopes pull the first output off the line (a natural spline would not).
    EXPECT_GT(std::fabs(out[0] - line(400.0)), 3e-4);
}

TEST(SpectralSampling, ResamplingFrom380To730ReproducesTheValuesAt400To700) {
    const std::vector<double> list = Grid(380, 730, 10);
    const std::size_t count = 64;
    std::vector<float> in = RandomInput(count, list.size(), 11);
    AlignedBuffer<float> linear = RunDriver(list, SPECTRALSAMPLING_LINEAR, in, count);
    AlignedBuffer<float> spline = RunDriver(list, SPECTRALSAMPLING_CUBICSPLINE, in, count);
    for (std::size_t s = 0; s < count; ++s) {
        for (unsigned int i = 0; i < kSpectralValues; ++i) {
            float knot = in[s * list.size() + i + 2];
            // The neighbours' difference is rounded to float first: up to half
            // an ulp of a value below 1 (3e-8), plus the final rounding.
            EXPECT_NEAR(linear[s * kSpectrumStride + i], knot, 6e-8);
            EXPECT_NEAR(spline[s * kSpectrumStride + i], knot, 2e-7);
        }
        EXPECT_EQ(linear[s * kSpectrumStride + 31], kSentinel);
        EXPECT_EQ(spline[s * kSpectrumStride + 31], kSentinel);
    }
}

TEST(SpectralSamplingCubicSpline, MatchesAnIndependentDoublePrecisionClampedSpline) {
    const std::vector<std::vector<double>> lists = {
        Grid(380, 730, 10), Grid(400, 700, 10), Grid(380, 780, 5), Grid(410, 720, 10), Grid(380, 690, 10),
        Grid(340, 830, 20), {390.0, 710.0}, {395.0, 550.0, 705.0},
        {380, 392.5, 417, 455, 460, 530.25, 600, 641, 702, 744}};
    for (const auto& list : lists) {
        const std::size_t count = 40;
        std::vector<float> in = RandomInput(count, list.size(), 23);
        AlignedBuffer<float> out = RunDriver(list, SPECTRALSAMPLING_CUBICSPLINE, in, count);
        double worst = 0.0;
        for (std::size_t s = 0; s < count; ++s) {
            std::vector<double> y(in.begin() + s * list.size(), in.begin() + (s + 1) * list.size());
            ClampedSplineOracle oracle(list, y);
            for (unsigned int i = 0; i < kSpectralValues; ++i)
                worst = std::max(worst, std::fabs(out[s * kSpectrumStride + i] - oracle(Lambda(i))));
        }
        // One rounding to float (half an ulp, 6e-8 below 1) and the map's double arithmetic.
        EXPECT_LT(worst, 1.2e-7) << list.size() << " knots from " << list.front();
    }
}

// The map against the spline solved the long way (a dense system of
// absolute-wavelength cubics, inverted by LU): within 1e-5 (relative to the
// value where extrapolation makes it large) on lists of every kind.
TEST(SpectralSamplingCubicSpline, MapMatchesTheDenseSplineSystemOnManyLists) {
    std::vector<std::vector<double>> lists = {
        Grid(380, 730, 10), Grid(400, 700, 10), Grid(380, 780, 5), Grid(400, 700, 2.5), Grid(410, 720, 10),
        Grid(380, 690, 10), Grid(300, 400, 50), Grid(340, 830, 20), Grid(395, 405, 1), {390.0, 710.0},
        {395.0, 550.0, 705.0}, {380, 392.5, 417, 455, 460, 530.25, 600, 641, 702, 744},
        // Ends below 700 nm: the last interval's cubic is continued.
        {360, 371, 389, 402, 433, 470, 512, 530, 561, 600, 622, 640, 651}};
    std::mt19937 rng(77);
    for (int r = 0; r < 40; ++r) {
        // Uneven spacing, 2 to 60 knots, starting at or below 400 or ending at or above 700.
        std::uniform_real_distribution<double> step(0.5, r % 2 ? 8.0 : 30.0);
        const std::size_t n = 2 + rng() % 59;
        std::vector<double> list;
        double w = r % 3 == 0 ? 700.0 + step(rng) - step(rng) * (n - 1) : 330.0 + 70.0 * (rng() % 1000) / 1000.0;
        for (std::size_t j = 0; j < n; ++j, w += step(rng)) list.push_back(w);
        if (list.front() > 400.0 && list.back() < 700.0) list.back() = 700.0 + step(rng);
        lists.push_back(list);
    }
    for (const auto& list : lists) {
        const std::size_t count = 12;
        std::vector<float> in = RandomInput(count, list.size(), 31);
        for (std::size_t j = 0; j < list.size(); ++j) in[j] = static_cast<float>(0.5 + 0.4 * std::sin(0.05 * list[j]));
        ZKCSpectralSampling_CubicSpline worker(list);
        AlignedBuffer<float> out = RunWorker(worker, in, count);
        sampling_test::DenseSplineOracle dense(list);
        for (std::size_t s = 0; s < count; ++s) {
            std::vector<float> expected = dense.Resample(&in[s * list.size()]);
            for (unsigned int i = 0; i < kSpectralValues; ++i) {
                const double e = expected[i], got = out[s * kSpectrumStride + i];
                ASSERT_LE(std::fabs(got - e), 1e-5 * std::max(1.0, std::fabs(e)))
                    << list.size() << " knots " << list.front() << ".." << list.back() << ", spectrum " << s
                    << ", output " << i;
            }
        }
    }
}

// Lists far longer than the dense system could take (O(n^3)) resample
// through the same map, checked against the independent double spline.
TEST(SpectralSamplingCubicSpline, ThousandsOfWavelengthsResampleThroughTheMap) {
    for (const auto& list : {Grid(380, 780, 0.25), Grid(400, 700, 0.1), Grid(200, 1000, 0.5)}) {
        const std::size_t count = 6;
        std::vector<float> in(count * list.size());
        for (std::size_t s = 0; s < count; ++s)
            for (std::size_t j = 0; j < list.size(); ++j)
                in[s * list.size() + j] = static_cast<float>(0.5 + 0.3 * std::sin(0.01 * (s + 1) * list[j]));
        AlignedBuffer<float> out = RunDriver(list, SPECTRALSAMPLING_CUBICSPLINE, in, count);
        for (std::size_t s = 0; s < count; ++s) {
            std::vector<double> y(in.begin() + s * list.size(), in.begin() + (s + 1) * list.size());
            ClampedSplineOracle oracle(list, y);
            for (unsigned int i = 0; i < kSpectralValues; ++i)
                ASSERT_NEAR(out[s * kSpectrumStride + i], oracle(Lambda(i)), 2e-7) << list.size() << " knots, " << i;
            EXPECT_EQ(out[s * kSpectrumStride + 31], kSentinel);
        }
    }
}

// Each output is the fixed combination of the knot values given by the map:
// a single knot value of 1 gives that knot's weights; the weights of an
// output sum to 1 (a constant spectrum is reproduced) and vanish for knots a
// clamped spline cannot reach in one step only when the spacing is regular.
TEST(SpectralSamplingCubicSpline, MapColumnsAreTheResponsesToSingleKnots) {
    const std::vector<double> list = {380, 392.5, 417, 455, 460, 530.25, 600, 641, 702, 744};
    ZKCSpectralSampling_CubicSpline worker(list);
    for (unsigned int i = 0; i < kSpectralValues; ++i) {
        double sum = 0.0;
        for (std::size_t j = 0; j < list.size(); ++j) sum += worker.Weight(i, j);
        EXPECT_NEAR(sum, 1.0, 1e-12) << i;
    }
    for (std::size_t j = 0; j < list.size(); ++j) {
        std::vector<float> in(list.size(), 0.0f);
        in[j] = 1.0f;
        AlignedBuffer<float> out = RunWorker(worker, in, 1);
        std::vector<double> y(list.size(), 0.0);
        y[j] = 1.0;
        ClampedSplineOracle oracle(list, y);
        for (unsigned int i = 0; i < kSpectralValues; ++i) {
            EXPECT_EQ(out[i], static_cast<float>(worker.Weight(i, j))) << i << " " << j;
            EXPECT_NEAR(worker.Weight(i, j), oracle(Lambda(i)), 1e-13) << i << " " << j;
        }
    }
}

// The kernel of the variant under test (the suite runs once per variant)
// gives the scalar twin's bits.
TEST(SpectralSamplingCubicSpline, KernelOfTheActiveVariantMatchesTheScalarTwinBitForBit) {
    const KERNEL_VARIANT variant = ActiveKernelVariant();
    if (ResamplingMapVariant(variant) == KERNEL_REFERENCE)
        GTEST_SKIP() << "the " << KernelVariantName(variant)
                     << " variant runs the scalar loop itself (no resampling kernel of its own to compare)";
    const std::vector<std::vector<double>> lists = {Grid(380, 730, 10), Grid(380, 780, 5), {390.0, 710.0},
                                                    {380, 392.5, 417, 455, 460, 530.25, 600, 702}, Grid(360, 780, 0.5)};
    for (const auto& list : lists) {
        const std::size_t count = 57;
        std::vector<float> in = RandomInput(count, list.size(), 5);
        // An all-zero spectrum, one of values far apart in magnitude, and a negative one.
        std::fill(in.begin(), in.begin() + list.size(), 0.0f);
        for (std::size_t j = 0; j < list.size(); ++j) in[list.size() + j] = (j % 2) ? 1e-6f : 3.5e4f;
        for (std::size_t j = 0; j < list.size(); ++j) in[2 * list.size() + j] = -in[3 * list.size() + j];
        ZKCSpectralSampling_CubicSpline worker(list);
        ASSERT_EQ(worker.Variant(), variant);
        AlignedBuffer<float> fast = RunWorker(worker, in, count);
        AlignedBuffer<float> reference = Output(count);
        worker.Init(in.data(), reference.data(), count);
        worker.CalculateWith(KERNEL_REFERENCE);
        for (std::size_t k = 0; k < count * kSpectrumStride; ++k)
            ASSERT_TRUE(kelma_test::SameBits(fast[k], reference[k])) << list.size() << " knots, slot " << k;
        for (unsigned int i = 0; i < kSpectralValues; ++i) EXPECT_EQ(fast[i], 0.0f);
        for (std::size_t s = 0; s < count; ++s) EXPECT_EQ(fast[s * kSpectrumStride + 31], kSentinel);
    }
}

TEST(SpectralSampling, NaNInputPropagatesLinearlyToNeighboursAndSplineToAll) {
    std::vector<double> list = Grid(380, 730, 10);
    std::vector<float> in = RandomInput(1, list.size(), 3);
    in[12] = std::numeric_limits<float>::quiet_NaN();  // 500 nm
    AlignedBuffer<float> linear = RunDriver(list, SPECTRALSAMPLING_LINEAR, in, 1);
    for (unsigned int i = 0; i < kSpectralValues; ++i) {
        // 490 nm uses [490, 500], 500 nm uses [500, 510].
        bool touches = Lambda(i) == 490.0 || Lambda(i) == 500.0;
        EXPECT_EQ(std::isnan(linear[i]), touches) << i;
    }
    AlignedBuffer<float> spline = RunDriver(list, SPECTRALSAMPLING_CUBICSPLINE, in, 1);
    for (unsigned int i = 0; i < kSpectralValues; ++i) EXPECT_TRUE(std::isnan(spline[i])) << i;
}

TEST(SpectralSampling, RepeatedWavelengthIsNotRejectedButSpoilsTheSpline) {
    // Not validated: the linear tables step over an interior zero-width
    // interval, the spline system becomes singular.
    std::vector<double> list = {380, 450, 500, 500, 600, 730};
    std::vector<float> in = {0.1f, 0.2f, 0.3f, 0.3f, 0.5f, 0.6f};
    AlignedBuffer<float> linear = RunDriver(list, SPECTRALSAMPLING_LINEAR, in, 1);
    for (unsigned int i = 0; i < kSpectralValues; ++i) EXPECT_TRUE(std::isfinite(linear[i])) << i;
    EXPECT_NEAR(linear[10], 0.3f, 1e-7);  // 500 nm
    AlignedBuffer<float> spline = RunDriver(list, SPECTRALSAMPLING_CUBICSPLINE, in, 1);
    bool anyNonFinite = false;
    for (unsigned int i = 0; i < kSpectralValues; ++i) anyNonFinite = anyNonFinite || !std::isfinite(spline[i]);
    EXPECT_TRUE(anyNonFinite);
}

TEST(SpectralSamplingThread, TenSpectraOnFourProcessorsSplitTwoTwoTwoFour) {
    kelma_test::ScopedCPUCount forced(4);
    std::vector<double> list = Grid(380, 730, 10);
    std::vector<float> in = RandomInput(10, list.size(), 7);
    ZKCSpectralSampling_Thread driver(list, SPECTRALSAMPLING_LINEAR);
    EXPECT_EQ(driver.WorkerCount(), 4u);
    AlignedBuffer<float> out = Output(10);
    driver.Init(in.data(), out.data(), 10);
    ASSERT_EQ(driver.ThreadsInUse(), 4u);
    std::vector<unsigned long> counts, starts;
    for (const auto& s : driver.Shares()) {
        counts.push_back(s.count);
        starts.push_back(s.start);
    }
    EXPECT_EQ(counts, (std::vector<unsigned long>{2, 2, 2, 4}));
    EXPECT_EQ(starts, (std::vector<unsigned long>{0, 2, 4, 6}));
    driver.Calculate();
    // Every worker wrote its own records from its own inputs.
    ZKCSpectralSampling_Linear single(list);
    AlignedBuffer<float> expected = RunWorker(single, in, 10);
    for (std::size_t k = 0; k < 10 * kSpectrumStride; ++k) ASSERT_TRUE(kelma_test::SameBits(out[k], expected[k])) << k;

    // Fewer spectra than workers: one each; none: no thread, nothing written.
    driver.Init(in.data(), out.data(), 3);
    EXPECT_EQ(driver.ThreadsInUse(), 3u);
    AlignedBuffer<float> untouched = Output(1);
    driver.Init(in.data(), untouched.data(), 0);
    EXPECT_EQ(driver.ThreadsInUse(), 0u);
    driver.Calculate();
    for (unsigned int i = 0; i < kSpectralValues; ++i) EXPECT_EQ(untouched[i], 0.0f);
}

TEST(SpectralSamplingThread, OutputIsBitIdenticalForOneToFourThreads) {
    const std::size_t count = 1001;
    for (auto method : {SPECTRALSAMPLING_LINEAR, SPECTRALSAMPLING_CUBICSPLINE}) {
        for (const auto& list : {Grid(380, 730, 10), Grid(380, 780, 5)}) {
            std::vector<float> in = RandomInput(count, list.size(), 99);
            AlignedBuffer<float> one;
            {
                kelma_test::ScopedCPUCount forced(1);
                one = RunDriver(list, method, in, count);
            }
            for (unsigned int threads = 2; threads <= 4; ++threads) {
                kelma_test::ScopedCPUCount forced(threads);
                AlignedBuffer<float> many = RunDriver(list, method, in, count);
                for (std::size_t k = 0; k < count * kSpectrumStride; ++k)
                    ASSERT_TRUE(kelma_test::SameBits(one[k], many[k]))
                        << "method " << method << ", " << threads << " threads, slot " << k;
            }
        }
    }
}

TEST(SpectralSamplingThread, InitCanBeRepeatedWithNewBuffers) {
    kelma_test::ScopedCPUCount forced(3);
    std::vector<double> list = Grid(380, 730, 10);
    ZKCSpectralSampling_Thread driver(list, SPECTRALSAMPLING_CUBICSPLINE);
    std::vector<float> a = RandomInput(17, list.size(), 1), b = RandomInput(5, list.size(), 2);
    AlignedBuffer<float> outA = Output(17), outB = Output(5);
    driver.Init(a.data(), outA.data(), 17);
    driver.Calculate();
    driver.Init(b.data(), outB.data(), 5);
    driver.Calculate();
    AlignedBuffer<float> expectedB = RunDriver(list, SPECTRALSAMPLING_CUBICSPLINE, b, 5);
    AlignedBuffer<float> expectedA = RunDriver(list, SPECTRALSAMPLING_CUBICSPLINE, a, 17);
    EXPECT_EQ(std::memcmp(outA.data(), expectedA.data(), outA.size() * sizeof(float)), 0);
    EXPECT_EQ(std::memcmp(outB.data(), expectedB.data(), outB.size() * sizeof(float)), 0);
}

// The calling-thread entry: the driver's bits, the slot-31 pad untouched, the
// constructor's refusals, and the small/large boundary of WorthThreads.
TEST(SpectralSamplingThread, CallingThreadGivesTheDriversBitsAndRefusals) {
    kelma_test::ScopedCPUCount forced(3);
    for (auto method : {SPECTRALSAMPLING_LINEAR, SPECTRALSAMPLING_CUBICSPLINE}) {
        for (const auto& list : {Grid(380, 730, 10), Grid(404, 760, 8)}) {
            for (std::size_t count : {std::size_t{0}, std::size_t{1}, std::size_t{7}, std::size_t{1025}}) {
                std::vector<float> in = RandomInput(std::max<std::size_t>(count, 1), list.size(), 7 + count);
                // No spectra: the one record given must stay as it was.
                AlignedBuffer<float> expected = count ? RunDriver(list, method, in, count) : Output(1);
                AlignedBuffer<float> out = Output(std::max<std::size_t>(count, 1));
                ZKCSpectralSampling_Thread::CalculateOnCallingThread(list, method, in.data(), out.data(), count);
                ASSERT_EQ(std::memcmp(out.data(), expected.data(), out.size() * sizeof(float)), 0)
                    << "method " << method << ", " << count << " spectra";
            }
        }
        float none[32];
        EXPECT_EQ(kelma_test::ThrownText([&] {
                      ZKCSpectralSampling_Thread::CalculateOnCallingThread(Grid(410, 690, 10), method, none, none, 0);
                  }),
                  "Invalid wavelength range");
        EXPECT_EQ(kelma_test::ThrownText([&] {
                      ZKCSpectralSampling_Thread::CalculateOnCallingThread({550.0}, method, none, none, 0);
                  }),
                  "Wavelength-list has less than 2 elements");
    }
    EXPECT_EQ(kelma_test::ThrownText([] {
                  float none[32];
                  ZKCSpectralSampling_Thread::CalculateOnCallingThread(
                      Grid(380, 730, 10), static_cast<SPECTRALSAMPLING_METHOD>(2), none, none, 0);
              }),
              "DefaultCase");
    EXPECT_FALSE(ZKCSpectralSampling_Thread::WorthThreads(1024));
    EXPECT_TRUE(ZKCSpectralSampling_Thread::WorthThreads(1025));
    kelma_test::ScopedCPUCount one(1);
    EXPECT_FALSE(ZKCSpectralSampling_Thread::WorthThreads(1u << 30));
}
