// The numerics of the two corrections: the line fit, the block grid and the
// block fits, the interpolation (side by side against IDW_COFFS pixel by
// pixel, byte for byte), the DEM resampling, and rasters the corrections must
// reduce to 0: a quadratic surface of the pixel indices for the orbital one,
// a line in height for the elevation one.
#include "quality/corrections.h"

#include <gtest/gtest.h>

#include "support/errors.h"

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "numerics/validity.h"
#include "support/child.h"
#include "synth/raster.h"

namespace {

using testing_support::read_floats;
using testing_support::write_floats;
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// A north-up grid of steps exact in binary: with eds_block_size 25 (B = 0.25,
// h = 0.125 = 4 pixels) the centre of block (k, m) is pixel (4k, 4m).
HEADER binary_grid(int64_t width, int64_t length) { return {width, length, 100.0, 30.0, 1.0 / 32, -1.0 / 32}; }

void write_header(const std::string& path, const HEADER& h)
{
    synth::write_header(path, {static_cast<int>(h.WIDTH), static_cast<int>(h.FILE_LENGTH), h.X_FIRST, h.Y_FIRST,
                               h.X_STEP, h.Y_STEP});
}

struct Blocks {
    HEADER grid, block_grid;
    std::vector<EXPCOFF> fits;
};

Blocks fit_blocks(const HEADER& grid, int eds_block_size, const std::vector<float>& phase,
                  const std::vector<float>& height, int64_t K = 0)
{
    Blocks b{grid, com::eds_block_grid(grid, eds_block_size), {}};
    if (K == 0) K = com::eds_sample_cap(grid, b.block_grid);
    std::vector<float> sp(K), sh(K);
    b.fits.resize(com::block_count(b.block_grid));
    com::estimate_blocks(grid, b.block_grid, K, phase.data(), height.data(), sp.data(), sh.data(), b.fits.data());
    return b;
}

// The correction pixel by pixel with IDW_COFFS.
std::vector<float> pixel_by_pixel(const Blocks& b, const std::vector<float>& height, std::vector<float> phase)
{
    std::vector<float> weights(b.fits.size());
    for (int64_t p = 0; p < b.grid.WIDTH * b.grid.FILE_LENGTH; ++p) {
        if (!lib::isvalid(phase[p])) continue;
        const float y = static_cast<float>(p / b.grid.WIDTH * b.grid.Y_STEP + b.grid.Y_FIRST);
        const float x = static_cast<float>(p % b.grid.WIDTH * b.grid.X_STEP + b.grid.X_FIRST);
        const com::LineFit f = com::IDW_COFFS(b.fits.data(), b.block_grid, y, x, 1.0, weights.data());
        if (lib::isvalid(f.a) && lib::isvalid(f.b)) phase[p] = (phase[p] - f.a) - f.b * height[p];
    }
    return phase;
}

TEST(Corrections, LineFitsAndTheBlockGrid)
{
    // An exact line; (0, 1), (1, 2), (2, 2), (3, 4): slope and intercept 0.9;
    // no line without samples or without spread in x.
    const std::vector<std::vector<float>> cases[] = {{{2, 5, 8, 11}, {0, 1, 2, 3}, {2, 3}},
                                                     {{1, 2, 2, 4}, {0, 1, 2, 3}, {0.9f, 0.9f}},
                                                     {{}, {}, {kNaN, kNaN}},
                                                     {{1, 2}, {0.5f, 0.5f}, {kNaN, kNaN}}};
    auto same = [](float got, float expected) {
        return std::isnan(expected) ? std::isnan(got) : std::fabs(got - expected) < 1e-6f;
    };
    for (const auto& c : cases) {
        const com::LineFit f = com::linear_fit(static_cast<int64_t>(c[0].size()), c[0].data(), c[1].data());
        EXPECT_TRUE(same(f.a, c[2][0]) && same(f.b, c[2][1])) << f.a << " " << f.b;
    }
    // 17 x 13 pixels of 1/32 degree: W X_STEP / h = 4.25 and 3.25, so 5 x 4
    // blocks; K = ceil((8 + 3)(8 + 3)) + 1. The ENVISAT example's 0.02-degree
    // blocks on 1000 x 1000 pixels of 0.000833333: K = ceil(27.00001^2) + 1.
    const HEADER blocks = com::eds_block_grid(binary_grid(17, 13), 25);
    EXPECT_TRUE(blocks.WIDTH == 5 && blocks.FILE_LENGTH == 4 && blocks.Y_STEP == -0.125);
    EXPECT_EQ(com::eds_sample_cap(binary_grid(17, 13), blocks), 122);
    const HEADER envisat{1000, 1000, 150.91, -34.17, 0.000833333, -0.000833333};
    EXPECT_EQ(com::eds_block_grid(envisat, 2).WIDTH, 84);
    EXPECT_EQ(com::eds_sample_cap(envisat, com::eds_block_grid(envisat, 2)), 731);
}

TEST(Corrections, BlockFitsNeedTenSamplesAndStopAtTheCap)
{
    // Block (0, 0) covers rows and columns 0-4. With nine usable pixels it
    // has no line (and no block of the grid has one); with ten it has one; a
    // cap of K = 11 keeps the first ten in row order, so an eleventh off the
    // line changes nothing.
    const HEADER grid = binary_grid(17, 13);
    std::vector<float> height(17 * 13), phase(17 * 13, 0.0f);
    for (int64_t p = 0; p < 17 * 13; ++p) height[p] = 0.1f + 0.01f * static_cast<float>(p % 7);
    for (int64_t p : {0, 1, 2, 17, 18, 19, 34, 35, 36}) phase[p] = 1.0f + 2.0f * height[p];
    const Blocks nine = fit_blocks(grid, 25, phase, height);
    EXPECT_TRUE(std::isnan(nine.fits[0].a) && std::isnan(nine.fits[0].b));
    EXPECT_TRUE(std::isnan(com::IDW_COFFS(nine.fits.data(), nine.block_grid, 30.0, 100.0, 1.0, nullptr).a));

    phase[51] = 1.0f + 2.0f * height[51];
    const Blocks ten = fit_blocks(grid, 25, phase, height);
    EXPECT_NEAR(ten.fits[0].a, 1.0f, 1e-4);
    EXPECT_NEAR(ten.fits[0].b, 2.0f, 1e-3);
    phase[4 * 17 + 4] = 50.0f;
    const Blocks capped = fit_blocks(grid, 25, phase, height, 11);
    EXPECT_TRUE(capped.fits[0].a == ten.fits[0].a && capped.fits[0].b == ten.fits[0].b);
    EXPECT_NE(fit_blocks(grid, 25, phase, height).fits[0].a, ten.fits[0].a);
}

TEST(Corrections, SideBySideInterpolationIsPixelByPixelToTheBit)
{
    // Random phase, heights and holes; block centres on pixels (binary grid)
    // and off them (ENVISAT spacing); some blocks without a line. The pixel
    // on the centre of block (1, 1) takes that block's line unweighted.
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> uniform(-3.0f, 3.0f);
    for (const HEADER& grid : {binary_grid(45, 38), HEADER{61, 37, 150.91, -34.17, 0.000833333, -0.000833333}}) {
        const bool binary = grid.X_STEP == 1.0 / 32;
        std::vector<float> phase(grid.WIDTH * grid.FILE_LENGTH), height(phase.size());
        for (size_t p = 0; p < phase.size(); ++p) {
            height[p] = 0.3f + 0.1f * uniform(rng);
            phase[p] = rng() % 9 == 0 ? (rng() % 2 ? 0.0f : kNaN) : uniform(rng) + 0.5f * height[p];
        }
        Blocks b = fit_blocks(grid, binary ? 25 : 1, phase, height);
        ASSERT_GT(b.fits.size(), 20u);
        for (size_t i = 0; i < b.fits.size(); i += 5) b.fits[i].a = kNaN;
        std::vector<float> out = phase;
        com::IdwScratch scratch;
        com::alloc_scratch(scratch, grid, b.block_grid);
        com::subtract_elevation_signal(grid, b.block_grid, b.fits.data(), height.data(), out.data(), scratch);
        com::free_scratch(scratch);
        EXPECT_EQ(std::memcmp(out.data(), pixel_by_pixel(b, height, phase).data(), out.size() * 4), 0);
        if (!binary) continue;
        const EXPCOFF& centre = b.fits[b.block_grid.WIDTH + 1];
        const int64_t p = 4 * grid.WIDTH + 4;
        ASSERT_TRUE(!std::isnan(centre.a) && lib::isvalid(phase[p]));
        EXPECT_EQ(out[p], (phase[p] - centre.a) - centre.b * height[p]);
    }
}

TEST(Corrections, TheDemIsResampledByNearestPixelLaterSamplesWinning)
{
    // A DEM twice as fine on the same origin: DEM rows 2i - 1 and 2i (and
    // columns alike) land on pixel i, 2i last.
    testing_support::TempDir dir;
    HEADER dem = binary_grid(10, 8);
    dem.X_STEP /= 2;
    dem.Y_STEP /= 2;
    std::vector<float> heights(80);
    for (int p = 0; p < 80; ++p) heights[p] = 100.0f + static_cast<float>(p);
    write_floats(dir / "dem", heights);
    write_header(dir / "dem.txt", dem);
    CFG cfg;
    std::snprintf(cfg.demfile, sizeof cfg.demfile, "%s", (dir / "dem").c_str());
    std::snprintf(cfg.demfile_header, sizeof cfg.demfile_header, "%s", (dir / "dem.txt").c_str());
    const lib::Owned<float> height = testing_support::must(com::resample_dem(cfg, binary_grid(5, 4)));
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 5; ++j) EXPECT_EQ(height[i * 5 + j], heights[20 * i + 2 * j] / 1000.0f) << i << "," << j;
}

TEST(Corrections, WhatEachCorrectionModelsComesOutAsZero)
{
    // A quadratic surface of the pixel indices through the orbital correction
    // with every pixel and every third one in the fit; a line in height
    // through the elevation correction. A masked pixel is 0 in the orbital
    // copy and NaN in the elevation one; an invalid one is 0 in the orbital copy.
    testing_support::TempDir dir;
    const HEADER grid = binary_grid(23, 19);
    write_header(dir / "header.txt", grid);
    const int64_t pixels = 23 * 19;
    std::vector<float> ramp(pixels), line(pixels), height(pixels), mask(pixels, 0.0f);
    for (int64_t p = 0; p < pixels; ++p) {
        const double x = static_cast<double>(p % 23), y = static_cast<double>(p / 23);
        ramp[p] = static_cast<float>(3.0 + 0.2 * x - 0.3 * y + 0.01 * x * y - 0.004 * x * x + 0.006 * y * y);
        height[p] = static_cast<float>(0.2 + 0.3 * std::sin(0.3 * x) * std::cos(0.2 * y));
        line[p] = 1.5f - 4.0f * height[p];
    }
    ramp[7] = 0.0f;
    mask[30] = 1.0f;
    write_floats(dir / "ramp", ramp);
    write_floats(dir / "line", line);
    CFG cfg;
    std::snprintf(cfg.headerfile, sizeof cfg.headerfile, "%s", (dir / "header.txt").c_str());
    for (int sampling : {1, 3}) {
        cfg.orbit_quad_fit_sampling = sampling;
        testing_support::must(com::remove_orbit(cfg, grid, (dir / "ramp").c_str(), (dir / "out").c_str(), mask.data()));
        const auto out = read_floats(dir / "out");
        ASSERT_EQ(out.size(), static_cast<size_t>(pixels));
        for (int64_t p = 0; p < pixels; ++p) EXPECT_NEAR(out[p], 0.0f, 2e-5) << sampling << " " << p;
        EXPECT_TRUE(out[7] == 0.0f && out[30] == 0.0f);
    }
    testing_support::must(com::remove_heigh_dependent(cfg, grid, com::eds_block_grid(grid, 25), (dir / "line").c_str(),
                                                      (dir / "out").c_str(), height.data(), mask.data()));
    const auto out = read_floats(dir / "out");
    for (int64_t p = 0; p < pixels; ++p) EXPECT_TRUE(p == 30 ? std::isnan(out[p]) : std::fabs(out[p]) < 2e-5) << p;
}

}  // namespace
