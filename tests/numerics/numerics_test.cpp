// The no-data rule, the allocation helpers and the basic statistics.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>

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
        {0.0f, false}, {-0.0f, false}, {5e-9f, false}, {nan, false}, {inf, false}, {-inf, false},
        {1e-9f, false},
        // A float holding 1e-8 is 9.99999994e-9 once widened: below the threshold.
        {1e-8f, false},
        {-2e-8f, true}, {1.0000001e-8f, true}, {1.0f, true}, {-3.5f, true}, {3.4e38f, true},
    };
    for (const auto& [x, valid] : cases) {
        EXPECT_EQ(lib::isvalid(x), valid) << x;
        EXPECT_EQ(lib::isnan_zq(x), valid ? 0 : 1) << x;
    }
    EXPECT_TRUE(lib::isvalid_double(1e-8));  // the same threshold, exactly representable in double
    EXPECT_FALSE(lib::isvalid_double(9.9e-9));
    EXPECT_FALSE(lib::isvalid_double(std::nan("")));
    EXPECT_TRUE(lib::iszero(5e-11f));
    EXPECT_FALSE(lib::iszero(1e-9f));
    EXPECT_EQ(lib::ffabs(-2.0f), 2.0f);
}

TEST(Statistics, HandValues)
{
    const double nan = std::nan("");
    const double x[] = {1, 3, nan, 0};
    EXPECT_NEAR(lib::std_double(4, x), std::sqrt(40.0 - 16.0) / 4.0, 1e-15);  // invalid samples still count in n
    EXPECT_DOUBLE_EQ(lib::mean({1, 2, 3, 6}), 3.0);
    EXPECT_TRUE(std::isnan(lib::mean({})));
    EXPECT_DOUBLE_EQ(lib::std({1, 3}), 1.0);  // population form
    EXPECT_EQ(com::cal_median({3, 1, 2, 4}), 2.5f);
    EXPECT_EQ(com::cal_median({5, 1, 3}), 3.0f);
    EXPECT_TRUE(std::isnan(com::cal_median({})));
    std::vector<float> data = {3, 1, 2};
    com::cal_median(data);
    EXPECT_EQ(data, (std::vector<float>{3, 1, 2}));  // the caller's order is kept
}

TEST(RunningMoments, HandValuesAndTheRoundedPreviousMean)
{
    lib::RunningMoments m;
    for (double x : {1.0, 2.0, 4.0}) m.add(x);
    EXPECT_EQ(m.count, 3);
    EXPECT_DOUBLE_EQ(m.mean, 7.0 / 3.0);
    EXPECT_DOUBLE_EQ(m.variance, 7.0 / 3.0);  // sample variance: 42/9 over 2

    lib::RunningMoments exact, rounded;
    for (double x : {0.1, 0.2}) {
        exact.add(x);
        rounded.add(x, lib::PreviousMean::rounded_to_float);
    }
    EXPECT_EQ(exact.mean, (0.1 + 0.2) / 2);
    EXPECT_EQ(rounded.mean, (static_cast<double>(0.1f) + 0.2) / 2);
}

TEST(Batches, CutAtMaxcapWithTheSinglePrecisionTotal)
{
    struct Case {
        int64_t pixels, maxcap;
        std::vector<std::pair<int64_t, int64_t>> batches;
    };
    const Case cases[] = {
        {10, 4, {{0, 4}, {4, 8}, {8, 10}}},
        {8, 4, {{0, 4}, {4, 8}}},
        {3, 1, {{0, 1}, {1, 2}, {2, 3}}},
        {5, 10, {{0, 5}}},
        {0, 5, {{0, 0}}},  // a grid without pixels still has its one batch
    };
    for (const Case& c : cases) {
        std::vector<std::pair<int64_t, int64_t>> seen;
        lib::for_each_batch(c.pixels, c.maxcap, [&](const lib::Batch& b) {
            EXPECT_EQ(b.number, static_cast<int>(seen.size()) + 1);
            seen.emplace_back(b.first, b.end);
        });
        EXPECT_EQ(seen, c.batches) << c.pixels << " / " << c.maxcap;
    }
    EXPECT_EQ(lib::batch_total(3, 7, 5), 5.0f);
    EXPECT_EQ(lib::batch_total(16777217, 1, 1), 16777216.0f);  // the float total, not the count
}

TEST(Allocation, ZeroFilledBlocksAndEmptySizes)
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
        if (lib::zeros(0, 5) || lib::zeros_int(5, 0) || lib::mat(-1, 2) || lib::imat(2, 0)) std::abort();
    });
    EXPECT_EQ(outcome.status, testing_support::kReturned);
    EXPECT_EQ(outcome.out, "");
}

TEST(Allocation, FailuresArePrintedAndNotFatal)
{
    const auto outcome = testing_support::run_in_child([] {
        const int64_t huge = int64_t{1} << 40;
        if (lib::zeros(3, huge) || lib::mat(huge, huge) || lib::imat(huge, 2)) std::abort();
        float** rows = lib::create_2d_array_float(2, huge);
        lib::free2d_float(rows, 2);
    });
    EXPECT_EQ(outcome.status, testing_support::kReturned);
    EXPECT_EQ(outcome.out,
              "Memory allocation error: n=0,m=3\n"  // the second argument printed as n
              "matrix memory allocation error: n=0,m=0\n"
              "integer matrix memory allocation error: n=0,m=2\n"
              "Allocating memory wrong, no enough memory!Allocating memory wrong, no enough memory!");
}

}  // namespace
