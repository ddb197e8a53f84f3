// The no-data rule, the allocation helpers, the batches and the running
// moments.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <tuple>

#include "numerics/arrays.h"
#include "numerics/parallel.h"
#include "numerics/stats.h"
#include "numerics/validity.h"
#include "support/child.h"

namespace {

TEST(NoDataRule, TableOfSamples)
{
    const float inf = std::numeric_limits<float>::infinity();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const std::pair<float, bool> cases[] = {
        {0.0f, false}, {-0.0f, false}, {5e-9f, false}, {nan, false}, {inf, false}, {-inf, false}, {1e-9f, false},
        // A float holding 1e-8 is 9.99999994e-9 once widened: below the threshold.
        {1e-8f, false}, {-2e-8f, true}, {1.0000001e-8f, true}, {1.0f, true}, {-3.5f, true}, {3.4e38f, true},
    };
    for (const auto& [x, valid] : cases) {
        EXPECT_EQ(lib::isvalid(x), valid) << x;
        EXPECT_EQ(lib::isnan_zq(x), valid ? 0 : 1) << x;
    }
    EXPECT_TRUE(lib::isvalid_double(1e-8));  // the same threshold, exactly representable in double
    EXPECT_FALSE(lib::isvalid_double(9.9e-9) || lib::isvalid_double(std::nan("")));
}

// The running moments every stage shares, with the previous mean kept in
// double or rounded to float.
TEST(RunningMoments, HandValuesAndTheRoundedPreviousMean)
{
    lib::RunningMoments m, exact, rounded;
    for (double x : {1.0, 2.0, 4.0}) m.add(x);
    EXPECT_EQ(m.count, 3);
    EXPECT_DOUBLE_EQ(m.mean, 7.0 / 3.0);
    EXPECT_DOUBLE_EQ(m.variance, 7.0 / 3.0);  // sample variance: 42/9 over 2
    for (double x : {0.1, 0.2}) {
        exact.add(x);
        rounded.add(x, lib::PreviousMean::rounded_to_float);
    }
    EXPECT_EQ(exact.mean, (0.1 + 0.2) / 2);
    EXPECT_EQ(rounded.mean, (static_cast<double>(0.1f) + 0.2) / 2);
}

TEST(Batches, CutAtMaxcapWithTheSinglePrecisionTotal)
{
    using Stretches = std::vector<std::pair<int64_t, int64_t>>;
    const std::tuple<int64_t, int64_t, Stretches> cases[] = {
        {10, 4, {{0, 4}, {4, 8}, {8, 10}}}, {8, 4, {{0, 4}, {4, 8}}}, {3, 1, {{0, 1}, {1, 2}, {2, 3}}},
        {5, 10, {{0, 5}}}, {0, 5, {{0, 0}}},  // a grid without pixels still has its one batch
    };
    for (const auto& [pixels, maxcap, batches] : cases) {
        Stretches seen;
        EXPECT_TRUE(lib::for_each_batch(pixels, maxcap, [&](const lib::Batch& b) {
                        EXPECT_EQ(b.number, static_cast<int>(seen.size()) + 1);
                        seen.emplace_back(b.first, b.end);
                    }).ok());
        EXPECT_EQ(seen, batches) << pixels << " / " << maxcap;
    }
    EXPECT_EQ(lib::batch_total(3, 7, 5), 5.0f);
    EXPECT_EQ(lib::batch_total(16777217, 1, 1), 16777216.0f);  // the float total, not the count
}

// Zero-filled blocks; empty sizes give no block and no message; failures are
// printed and not fatal.
TEST(Allocation, ZeroFilledBlocksEmptySizesAndFailures)
{
    float* f = lib::zeros_float(3, 4);
    ASSERT_NE(f, nullptr);
    for (int i = 0; i < 12; ++i) EXPECT_EQ(f[i], 0.0f);
    std::free(f);
    float** rows = lib::create_2d_array_float(2, 3);
    ASSERT_TRUE(lib::complete(rows, 2, 3));
    EXPECT_EQ(rows[1][2], 0.0f);
    lib::free2d_float(rows, 2);
    const auto outcome = testing_support::run_in_child([] {
        const int64_t huge = int64_t{1} << 40;
        if (lib::zeros(0, 5) || lib::mat(-1, 2) || lib::imat(2, 0)) std::abort();
        if (lib::zeros(3, huge) || lib::mat(huge, huge) || lib::imat(huge, 2)) std::abort();
        lib::free2d_float(lib::create_2d_array_float(2, huge), 2);
    });
    EXPECT_EQ(outcome.status, testing_support::kReturned);
    EXPECT_EQ(outcome.out,
              "Memory allocation error: n=1099511627776,m=3\n"  // the second argument printed as n, in full
              "matrix memory allocation error: n=1099511627776,m=1099511627776\n"
              "integer matrix memory allocation error: n=1099511627776,m=2\n"
              "Allocating memory wrong, no enough memory!Allocating memory wrong, no enough memory!");
}

}  // namespace
