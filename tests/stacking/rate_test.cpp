// The per-pixel fit of the stacking solver against values worked by hand.
//
// Four interferograms spanning 0.5, 1, 2 and 0 years; each pixel of the
// batch is one case. With v = sum(dT) / sum(T^2) and S = sum((d - vT)^2):
//   A  d = 1, 2, 5, -    n = 3  v = 12.5/5.25 = 50/21  S = 5/21
//   B  d = 1, 2, 5, 0.5  n = 4  v = 50/21 (T = 0 adds to n and S only)  S = 5/21 + 1/4 = 41/84
//   C  d = -, 3, -, -    n = 1  v = 3  S = 0, n - 1 = 0: residual and sigma NaN
//   D  nothing observed  n = 0
//   E  d = 1, NaN, 5, -  n = 2  v = 10.5/4.25 = 42/17  S = 1/17
// and residual = sqrt(S / (n - 1)), sigma = sqrt(S / (sum(T^2) (n - 1))).
// A pixel is estimated only when N * ratio < n (N = 4).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <vector>

#include "config/cfg.h"
#include "stacking/stacking.h"
#include "support/child.h"
#include "support/errors.h"

namespace {

using namespace testing_support;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

TEST(StackingFit, HandWorkedPixelsAndTheRejectionTest)
{
    // Velocity, residual and sigma of each pixel, or 0 where it is rejected.
    const std::vector<float> A = {50.0f / 21, std::sqrt(5.0f / 42), std::sqrt(10.0f) / 21},
                             B = {50.0f / 21, std::sqrt(41.0f / 252), std::sqrt(41.0f / 1323)},
                             C = {3.0f, kNaN, kNaN}, E = {42.0f / 17, std::sqrt(1.0f / 17), 1.0f / 8.5f}, _ = {0, 0, 0};
    const std::pair<float, std::vector<std::vector<float>>> cases[] = {
        {0.0f, {A, B, C, _, E}},  // n = 0 is still rejected: 0 >= 0
        {0.5f, {A, B, _, _, _}},  // E: 2 >= 2 rejects
        {0.75f, {_, B, _, _, _}},
        {1.0f, {_, _, _, _, _}},  // even the complete pixel B
    };
    std::vector<std::vector<float>> rows = {{1, 1, 0, 0, 1}, {2, 2, 3, 0, kNaN}, {5, 5, 0, 0, 5}, {0, 0.5f, 0, 0, 0}};
    std::vector<float*> row_pointers;
    for (auto& row : rows) row_pointers.push_back(row.data());
    std::vector<DATEINTERVAL> intervals(4);
    const double years[] = {0.5, 1.0, 2.0, 0.0};
    for (int k = 0; k < 4; ++k) intervals[k].years = years[k];

    for (const auto& [ratio, pixels] : cases) {
        TempDir dir;
        CFG cfg;
        lib::cfg_init(&cfg);
        std::snprintf(cfg.resultfolder, sizeof cfg.resultfolder, "%s", dir.path().c_str());
        cfg.minimum_temporal_ifg_ratio = ratio;
        cfg.max_parallel_threads = 2;
        testing_support::must(rstacking::stacking(cfg, row_pointers.data(), intervals, 0, 5));
        const char* outputs[] = {"", "_residual", "_sigma"};
        for (int q = 0; q < 3; ++q) {
            std::vector<float> expected;
            for (const auto& pixel : pixels) expected.push_back(pixel[q]);
            EXPECT_EQ(mismatch(read_floats(dir / ("linear_stacking_mean_velocity" + std::string(outputs[q]))), expected,
                               1e-6),
                      "")
                << "ratio " << ratio << ", " << outputs[q];
        }
    }
}

}  // namespace
