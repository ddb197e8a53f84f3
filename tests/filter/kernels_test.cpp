// The filter kernels on synthetic signals: a constant passes unchanged, zeros
// (gaps) and the odd edge are left alone, white noise keeps a share of its
// variance that grows with sigma as the Gaussian's area does, and a plan made
// once gives the bytes of a fresh plan per series.
#include <gtest/gtest.h>

#include "support/errors.h"

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

// The spatial kernel (maps = 0) and the spatio-temporal one on stacks of
// maps: a constant stays that constant, the odd last row and column (holding
// distinct values) are copied through, and zeros in noise stay the only
// zeros.
TEST(SpatialKernels, ConstantsStayAndGapsAndTheOddEdgeAreLeftAlone)
{
    struct Case {
        int64_t maps, rows, cols;
        double sigma;
    };
    const Case cases[] = {{0, 8, 8, 1.0}, {0, 9, 8, 3.0}, {0, 8, 11, 0.5}, {0, 15, 9, 20.0}, {0, 1, 9, 2.0},
                          {1, 6, 8, 2.0}, {3, 7, 6, 2.0}, {4, 6, 9, 2.0}, {2, 1, 9, 2.0}};
    for (const Case c : cases) {
        SCOPED_TRACE(testing::Message() << c.maps << " maps of " << c.rows << "x" << c.cols);
        const int64_t pixels = c.rows * c.cols;
        const auto filter = [&](std::vector<float>& data) {
            if (c.maps == 0) EXPECT_EQ(com::fftw_filter_2d(c.rows, c.cols, data.data(), c.sigma, c.sigma, 1), 0);
            else com::spatial_temporal_3d_filter2(c.maps, c.rows, c.cols, data.data(), 1.5, c.sigma, c.sigma);
        };
        const auto edge = [&](size_t i) {
            const int64_t r = static_cast<int64_t>(i) % pixels / c.cols, col = static_cast<int64_t>(i) % c.cols;
            return (c.rows % 2 && r == c.rows - 1) || (c.cols % 2 && col == c.cols - 1);
        };
        std::vector<float> data(static_cast<size_t>(std::max<int64_t>(c.maps, 1) * pixels), 2.5f);
        for (size_t i = 0; i < data.size(); ++i)
            if (edge(i)) data[i] = static_cast<float>(100 + i);
        const std::vector<float> before = data;
        filter(data);
        for (size_t i = 0; i < data.size(); ++i) {
            if (edge(i)) EXPECT_EQ(data[i], before[i]) << i;
            else EXPECT_NEAR(data[i], 2.5f, 1e-5f) << i;
        }
        std::vector<float> gaps = noise(data.size(), 3);
        for (size_t i = 0; i < gaps.size(); i += 7) gaps[i] = 0.0f;
        filter(gaps);
        for (size_t i = 0; i < gaps.size(); ++i) EXPECT_EQ(gaps[i] == 0.0f, i % 7 == 0) << i;
    }
    // One map and a wide time gain: the spatial filter.
    const std::vector<float> input = noise(10 * 12, 9);
    std::vector<float> block = input, map = input;
    com::spatial_temporal_3d_filter2(1, 10, 12, block.data(), 1.0, 3.0, 3.0);
    com::fftw_filter_2d(10, 12, map.data(), 3.0, 3.0, 1);
    for (size_t i = 0; i < map.size(); ++i) EXPECT_NEAR(block[i], map[i], 1e-5f) << i;
}

// White noise keeps the share sum(g^2) / N of its variance (Parseval), which
// for a Gaussian of sigma bins per axis is about pi sigma^2 / N.
TEST(SpatialKernels, WhiteNoiseLosesVarianceInProportionToSigma)
{
    const int64_t side = 128;
    const std::vector<float> input = noise(side * side, 11);
    double previous = 0;
    for (double sigma : {4.0, 8.0, 16.0, 32.0}) {
        std::vector<float> data = input;
        com::fftw_filter_2d(side, side, data.data(), sigma, sigma, 1);
        const double kept = mean_square(data) / mean_square(input);
        EXPECT_NEAR(kept / (M_PI * sigma * sigma / static_cast<double>(side * side)), 1.0, 0.15) << sigma;
        EXPECT_GT(kept, previous) << sigma;
        previous = kept;
    }
}

// A constant series stays that constant (odd lengths take one more sample of
// padding at the end); one plan for every series, as the temporal filter
// runs, gives the bytes of a fresh plan per series, for even and odd lengths;
// on white noise a larger sigma keeps more of the variance.
TEST(TemporalKernel, APlanMadeOnceGivesTheBytesOfAFreshPlan)
{
    for (int64_t n : {1, 2, 7, 8, 59, 60}) {
        const double sigma = 0.37 * static_cast<double>(n) + 0.5;
        com::SeriesFilter filter = com::plan_series_filter(n, sigma);
        std::vector<float> reused(static_cast<size_t>(n));
        std::vector<double> x(static_cast<size_t>(n), -7.25);
        com::filter_series(filter, x.data(), reused.data());
        for (int64_t i = 0; i < n; ++i) EXPECT_NEAR(reused[i], -7.25f, 2e-5f) << n << " " << i;
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
    const int64_t n = 64;
    const std::vector<float> input = noise(static_cast<size_t>(n * 200), 5);
    double previous = 0;
    for (double sigma : {2.0, 4.0, 8.0, 16.0}) {
        com::SeriesFilter filter = com::plan_series_filter(n, sigma);
        std::vector<float> output(input.size());
        std::vector<double> x(static_cast<size_t>(n));
        for (size_t s = 0; s < input.size(); s += n) {
            std::copy(input.begin() + s, input.begin() + s + n, x.begin());
            com::filter_series(filter, x.data(), output.data() + s);
        }
        com::destroy_series_filter(filter);
        const double kept = mean_square(output) / mean_square(input);
        EXPECT_TRUE(kept > previous && kept < 1.0) << sigma << ": " << kept;
        previous = kept;
    }
}

TEST(SpatialFilterStage, IllegalValuesAreReportedAfterTheBanner)
{
    testing_support::TempDir dir;
    testing_support::write_text(dir / "header.txt", "WIDTH 4\nFILE_LENGTH 4\n");
    for (int value : {0, 6, -1}) {
        CFG cfg;
        lib::cfg_init(&cfg);
        std::snprintf(cfg.headerfile, sizeof cfg.headerfile, "%s", (dir / "header.txt").c_str());
        std::snprintf(cfg.resultfolder, sizeof cfg.resultfolder, "%s", dir.path().c_str());
        cfg.if_apply_filter = value;
        lib::Status filtered;
        const std::string banner = testing_support::capture_stderr(
            [&] { filtered = sbas::spatial_filter(cfg, HEADER{4, 4, 0, 0, 1, -1}, {}); });
        EXPECT_EQ(banner, "\n***********Time series spatial filter start**************\n");
        EXPECT_EQ(testing_support::reported(filtered),
                  "err: illegal parameters if_apply_filter = " + std::to_string(value) + "\n");
    }
}

}  // namespace
