// The filter kernels on synthetic signals: a constant passes unchanged, white
// noise keeps a share of its variance that grows with sigma as the Gaussian's
// area does, gaps and the odd edge are left alone, and a plan made once gives
// the bytes of a fresh plan per series.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "config/cfg.h"
#include "filter/spatial.h"
#include "filter/spatio_temporal.h"
#include "filter/temporal.h"
#include "support/child.h"

namespace {

std::vector<float> noise(size_t n, unsigned seed)
{
    std::mt19937 engine(seed);
    std::normal_distribution<float> draw(0.0f, 1.0f);
    std::vector<float> v(n);
    for (float& x : v) x = draw(engine);
    return v;
}

double mean_square(const std::vector<float>& v)
{
    double sum = 0;
    for (float x : v) sum += static_cast<double>(x) * x;
    return sum / static_cast<double>(v.size());
}

TEST(SpatialKernel, AConstantStaysConstantAndTheOddEdgeIsCopied)
{
    struct Case {
        int64_t rows, cols;
        double sigma;
    };
    for (const Case c : {Case{8, 8, 1.0}, Case{9, 8, 3.0}, Case{8, 11, 0.5}, Case{15, 9, 20.0}, Case{1, 9, 2.0}}) {
        std::vector<float> data(static_cast<size_t>(c.rows * c.cols), 2.5f);
        const int64_t last_row = c.rows - 1, last_col = c.cols - 1;
        // Distinct values on the odd edges show that they are copied through.
        for (int64_t r = 0; r < c.rows; ++r)
            for (int64_t col = 0; col < c.cols; ++col)
                if ((c.rows % 2 && r == last_row) || (c.cols % 2 && col == last_col))
                    data[r * c.cols + col] = static_cast<float>(100 + r * c.cols + col);
        const std::vector<float> before = data;
        EXPECT_EQ(com::fftw_filter_2d(c.rows, c.cols, data.data(), c.sigma, c.sigma, 1), 0);
        for (int64_t r = 0; r < c.rows; ++r)
            for (int64_t col = 0; col < c.cols; ++col) {
                const size_t i = static_cast<size_t>(r * c.cols + col);
                if (before[i] != 2.5f) EXPECT_EQ(data[i], before[i]) << c.rows << "x" << c.cols;
                else EXPECT_NEAR(data[i], 2.5f, 1e-5f) << c.rows << "x" << c.cols << " at " << r << "," << col;
            }
    }
}

TEST(SpatialKernel, ZerosAreAMask)
{
    std::vector<float> data = noise(16 * 16, 3);
    for (size_t i = 0; i < data.size(); i += 7) data[i] = 0.0f;
    com::fftw_filter_2d(16, 16, data.data(), 2.0, 2.0, 1);
    for (size_t i = 0; i < data.size(); ++i) EXPECT_EQ(data[i] == 0.0f, i % 7 == 0) << i;
}

// White noise keeps the share sum(g^2) / N of its variance (Parseval), which
// for a Gaussian of sigma bins per axis is about pi sigma^2 / N.
TEST(SpatialKernel, WhiteNoiseLosesVarianceInProportionToSigma)
{
    const int64_t side = 128;
    const std::vector<float> input = noise(side * side, 11);
    double previous = 0;
    for (double sigma : {4.0, 8.0, 16.0, 32.0}) {
        std::vector<float> data = input;
        com::fftw_filter_2d(side, side, data.data(), sigma, sigma, 1);
        const double kept = mean_square(data) / mean_square(input);
        const double expected = M_PI * sigma * sigma / static_cast<double>(side * side);
        EXPECT_NEAR(kept / expected, 1.0, 0.15) << sigma;
        EXPECT_GT(kept, previous) << sigma;
        previous = kept;
    }
}

TEST(TemporalKernel, AConstantSeriesStaysThatConstant)
{
    // n = 1 (p = 0, L = 2), odd lengths (one more sample of padding at the end).
    for (int64_t n : {1, 2, 3, 8, 59}) {
        for (double sigma : {0.5, 2.0, 12.0}) {
            const std::vector<double> series(static_cast<size_t>(n), -7.25);
            float* filtered = com::fftw_1d_filter2(n, series.data(), sigma);
            for (int64_t i = 0; i < n; ++i) EXPECT_NEAR(filtered[i], -7.25f, 2e-5f) << n << " " << sigma << " " << i;
            std::free(filtered);
        }
    }
}

TEST(TemporalKernel, WhiteNoiseLosesMoreVarianceWithASmallerSigma)
{
    const int64_t n = 64, series = 200;
    const std::vector<float> input = noise(static_cast<size_t>(n * series), 5);
    double previous = 0;
    for (double sigma : {2.0, 4.0, 8.0, 16.0}) {
        com::SeriesFilter filter = com::plan_series_filter(n, sigma);
        std::vector<float> output(input.size());
        std::vector<double> x(static_cast<size_t>(n));
        for (int64_t s = 0; s < series; ++s) {
            for (int64_t i = 0; i < n; ++i) x[i] = input[s * n + i];
            com::filter_series(filter, x.data(), output.data() + s * n);
        }
        com::destroy_series_filter(filter);
        const double kept = mean_square(output) / mean_square(input);
        EXPECT_GT(kept, previous) << sigma;
        EXPECT_LT(kept, 1.0) << sigma;
        previous = kept;
    }
}

// One plan for every series, as the temporal filter runs, against a fresh
// plan per series: the bytes must agree, for even and odd lengths.
TEST(TemporalKernel, APlanMadeOnceGivesTheBytesOfAFreshPlan)
{
    for (int64_t n : {1, 2, 7, 8, 59, 60}) {
        const double sigma = 0.37 * static_cast<double>(n) + 0.5;
        com::SeriesFilter filter = com::plan_series_filter(n, sigma);
        std::vector<float> reused(static_cast<size_t>(n));
        std::vector<double> x(static_cast<size_t>(n));
        for (unsigned s = 0; s < 40; ++s) {
            const std::vector<float> values = noise(static_cast<size_t>(n), 100 + s);
            for (int64_t i = 0; i < n; ++i) x[i] = values[i] * 1000.0;
            com::filter_series(filter, x.data(), reused.data());
            float* fresh = com::fftw_1d_filter2(n, x.data(), sigma);
            EXPECT_EQ(std::memcmp(fresh, reused.data(), sizeof(float) * n), 0) << n << " series " << s;
            std::free(fresh);
        }
        com::destroy_series_filter(filter);
    }
}

TEST(SpatioTemporalKernel, AConstantStackStaysConstantAndTheOddEdgeIsCopied)
{
    struct Case {
        int64_t maps, rows, cols;
    };
    for (const Case c : {Case{1, 6, 8}, Case{3, 7, 6}, Case{4, 6, 9}, Case{2, 1, 9}}) {
        const int64_t pixels = c.rows * c.cols;
        std::vector<float> data(static_cast<size_t>(c.maps * pixels), 4.0f);
        auto edge = [&](size_t i) {
            const int64_t r = static_cast<int64_t>(i) % pixels / c.cols, col = static_cast<int64_t>(i) % c.cols;
            return (c.rows % 2 && r == c.rows - 1) || (c.cols % 2 && col == c.cols - 1);
        };
        for (size_t i = 0; i < data.size(); ++i)
            if (edge(i)) data[i] = static_cast<float>(10 + i);
        const std::vector<float> before = data;
        com::spatial_temporal_3d_filter2(c.maps, c.rows, c.cols, data.data(), 1.5, 2.0, 2.0);
        for (size_t i = 0; i < data.size(); ++i) {
            if (edge(i)) EXPECT_EQ(data[i], before[i]) << i;
            else EXPECT_NEAR(data[i], 4.0f, 1e-5f) << c.maps << " maps, sample " << i;
        }
    }
}

TEST(SpatioTemporalKernel, GapsStayEmpty)
{
    std::vector<float> data = noise(3 * 8 * 6, 13);
    for (size_t i = 0; i < data.size(); i += 5) data[i] = 0.0f;
    com::spatial_temporal_3d_filter2(3, 8, 6, data.data(), 1.0, 2.0, 2.0);
    for (size_t i = 0; i < data.size(); ++i) EXPECT_EQ(data[i] == 0.0f, i % 5 == 0) << i;
}

TEST(SpatioTemporalKernel, OneMapAndAWideTimeGainIsTheSpatialFilter)
{
    const std::vector<float> input = noise(10 * 12, 9);
    std::vector<float> block = input, map = input;
    com::spatial_temporal_3d_filter2(1, 10, 12, block.data(), 1.0, 3.0, 3.0);
    com::fftw_filter_2d(10, 12, map.data(), 3.0, 3.0, 1);
    for (size_t i = 0; i < map.size(); ++i) EXPECT_NEAR(block[i], map[i], 1e-5f) << i;
}

TEST(SpatialFilterStage, IllegalValuesStopAfterTheBanner)
{
    testing_support::TempDir dir;
    testing_support::write_text(dir / "header.txt", "WIDTH 4\nFILE_LENGTH 4\n");
    for (int value : {0, 6, -1}) {
        CFG cfg;
        lib::cfg_init(&cfg);
        std::snprintf(cfg.headerfile, sizeof cfg.headerfile, "%s", (dir / "header.txt").c_str());
        std::snprintf(cfg.resultfolder, sizeof cfg.resultfolder, "%s", dir.path().c_str());
        cfg.if_apply_filter = value;
        const auto o = testing_support::run_in_child([&] { sbas::spatial_filter(cfg); });
        EXPECT_TRUE(o.exited);
        EXPECT_EQ(o.status, 0);
        EXPECT_EQ(o.err, "\n***********Time series spatial filter start**************\n"
                         "illegal parameters if_apply_filter = " + std::to_string(value) + "\n");
    }
}

}  // namespace
