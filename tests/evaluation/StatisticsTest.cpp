// Summary statistics against numpy's definitions (np.mean, np.median,
// np.percentile(..., 95) with the default linear method), values computed
// with numpy 1.24.
#include <gtest/gtest.h>

#include <cmath>

#include "kelma/evaluation/Statistics.h"

using namespace kelma;

TEST(Statistics, MatchNumpy) {
    const ZKSStatistics s = Summarize({3, 1, 4, 1, 5, 9, 2, 6});
    EXPECT_EQ(s.count, 8u);
    EXPECT_DOUBLE_EQ(s.mean, 3.875);
    EXPECT_DOUBLE_EQ(s.median, 3.5);
    EXPECT_DOUBLE_EQ(s.p95, 7.949999999999998);
    EXPECT_EQ(s.max, 9.0);
    const ZKSStatistics odd = Summarize({0.5, 0.25, 2.0});
    EXPECT_DOUBLE_EQ(odd.median, 0.5);
    EXPECT_DOUBLE_EQ(odd.p95, 1.85);
    EXPECT_EQ(Percentile({2.0}, 0.95), 2.0);
    EXPECT_EQ(Percentile({}, 0.95), 0.0);
    EXPECT_EQ(Percentile({4, 1, 3}, 0.0), 1.0);
    EXPECT_EQ(Percentile({4, 1, 3}, 1.0), 4.0);
}

TEST(Statistics, EmptyGivesZerosAndNaNIsNeverHidden) {
    const ZKSStatistics none = Summarize({});
    EXPECT_EQ(none.count, 0u);
    EXPECT_EQ(none.mean, 0.0);
    EXPECT_EQ(none.max, 0.0);
    const ZKSStatistics nan = Summarize({1.0, std::nan(""), 2.0});
    EXPECT_EQ(nan.count, 3u);
    EXPECT_TRUE(std::isnan(nan.mean) && std::isnan(nan.median) && std::isnan(nan.p95) && std::isnan(nan.max));
    EXPECT_TRUE(std::isnan(Percentile({1.0, std::nan("")}, 0.5)));
}
