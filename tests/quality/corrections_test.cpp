// The numerics of the two corrections: the line fit, the block grid and the
// block fits, the interpolation (side by side against IDW_COFFS pixel by
// pixel, byte for byte), the DEM resampling, and rasters the corrections must
// reduce to 0: a quadratic surface of the pixel indices for the orbital one,
// a line in height for the elevation one.
#include "quality/corrections.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "catalogue/raster.h"
#include "numerics/validity.h"
#include "support/child.h"

namespace {

using testing_support::read_floats;
using testing_support::TempDir;
using testing_support::write_floats;
using testing_support::write_text;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// A north-up grid whose steps are exact in binary: with eds_block_size 25
// (B = 0.25, h = 0.125 = 4 pixels) every block centre is a pixel, (4k, 4m).
HEADER binary_grid(int64_t width, int64_t length)
{
    return {width, length, 100.0, 30.0, 1.0 / 32, -1.0 / 32};
}

std::string header_text(const HEADER& h)
{
    char text[300];
    std::snprintf(text, sizeof text, "WIDTH %lld\nFILE_LENGTH %lld\nX_FIRST %.17g\nY_FIRST %.17g\nX_STEP %.17g\nY_STEP %.17g\n",
                  static_cast<long long>(h.WIDTH), static_cast<long long>(h.FILE_LENGTH), h.X_FIRST, h.Y_FIRST,
                  h.X_STEP, h.Y_STEP);
    return text;
}

struct Blocks {
    HEADER grid;
    HEADER block_grid;
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

// The correction pixel by pixel with IDW_COFFS: the straightforward form.
std::vector<float> pixel_by_pixel(const Blocks& b, const std::vector<float>& height, std::vector<float> phase)
{
    std::vector<float> weights(b.fits.size());
    for (int64_t r = 0; r < b.grid.FILE_LENGTH; ++r)
        for (int64_t q = 0; q < b.grid.WIDTH; ++q) {
            float& v = phase[r * b.grid.WIDTH + q];
            if (!lib::isvalid(v)) continue;
            const float y = static_cast<float>(r * b.grid.Y_STEP + b.grid.Y_FIRST);
            const float x = static_cast<float>(q * b.grid.X_STEP + b.grid.X_FIRST);
            const com::LineFit f = com::IDW_COFFS(b.fits.data(), b.block_grid, y, x, 1.0, weights.data());
            if (lib::isvalid(f.a) && lib::isvalid(f.b)) v = (v - f.a) - f.b * height[r * b.grid.WIDTH + q];
        }
    return phase;
}

std::vector<float> side_by_side(const Blocks& b, const std::vector<float>& height, std::vector<float> phase)
{
    com::IdwScratch scratch;
    com::alloc_scratch(scratch, b.grid, b.block_grid);
    com::subtract_elevation_signal(b.grid, b.block_grid, b.fits.data(), height.data(), phase.data(), scratch);
    com::free_scratch(scratch);
    return phase;
}

bool same_bytes(const std::vector<float>& a, const std::vector<float>& b)
{
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

TEST(Corrections, LineFitsByHand)
{
    // (n, y, x, a, b): an exact line, a least-squares line through
    // (0, 1), (1, 2), (2, 2), (3, 4) (slope and intercept 0.9), and no line
    // without samples or without spread in x.
    struct Case {
        std::vector<float> y, x;
        float a, b;
    };
    const Case cases[] = {
        {{2, 5, 8, 11}, {0, 1, 2, 3}, 2.0f, 3.0f},
        {{1, 2, 2, 4}, {0, 1, 2, 3}, 0.9f, 0.9f},
        {{}, {}, kNaN, kNaN},
        {{1, 2}, {0.5f, 0.5f}, kNaN, kNaN},
    };
    for (const Case& c : cases) {
        const com::LineFit f = com::linear_fit(static_cast<int64_t>(c.y.size()), c.y.data(), c.x.data());
        if (std::isnan(c.a)) {
            EXPECT_TRUE(std::isnan(f.a) && std::isnan(f.b));
        } else {
            EXPECT_FLOAT_EQ(f.a, c.a);
            EXPECT_FLOAT_EQ(f.b, c.b);
        }
    }
}

TEST(Corrections, BlockGridAndSampleCap)
{
    // 17 x 13 pixels of 1/32: W X_STEP / h = 4.25 and 3.25, so 5 x 4 blocks.
    const HEADER grid = binary_grid(17, 13);
    const HEADER blocks = com::eds_block_grid(grid, 25);
    EXPECT_EQ(blocks.WIDTH, 5);
    EXPECT_EQ(blocks.FILE_LENGTH, 4);
    EXPECT_EQ(blocks.X_STEP, 0.125);
    EXPECT_EQ(blocks.Y_STEP, -0.125);
    EXPECT_EQ(blocks.X_FIRST, 100.0);
    EXPECT_EQ(com::block_count(blocks), 20);
    // K = ceil((8 + 3)(8 + 3)) + 1.
    EXPECT_EQ(com::eds_sample_cap(grid, blocks), 122);
    // The ENVISAT example: 0.02-degree blocks on 0.000833333-degree pixels,
    // 1000 x 1000 of them; K = ceil(27.00001^2) + 1.
    const HEADER envisat{1000, 1000, 150.91, -34.17, 0.000833333, -0.000833333};
    EXPECT_EQ(com::eds_block_grid(envisat, 2).WIDTH, 84);
    EXPECT_EQ(com::eds_sample_cap(envisat, com::eds_block_grid(envisat, 2)), 731);
}

TEST(Corrections, BlockFitsNeedTenSamplesAndStopAtTheCap)
{
    // Block (0, 0) covers rows 0-4 and columns 0-4. With nine usable pixels
    // it has no line and stays out of the interpolation; with ten it has one.
    const HEADER grid = binary_grid(17, 13);
    std::vector<float> height(17 * 13, 0.0f), phase(17 * 13, 0.0f);
    for (int64_t p = 0; p < 17 * 13; ++p) height[p] = 0.1f + 0.01f * static_cast<float>(p % 7);
    for (int i = 0; i < 9; ++i) phase[(i / 3) * 17 + i % 3] = 1.0f + 2.0f * height[(i / 3) * 17 + i % 3];
    Blocks nine = fit_blocks(grid, 25, phase, height);
    EXPECT_TRUE(std::isnan(nine.fits[0].a) && std::isnan(nine.fits[0].b));
    EXPECT_EQ(nine.fits[0].y, 30.0f);
    EXPECT_EQ(nine.fits[0].x, 100.0f);
    const com::LineFit without = com::IDW_COFFS(nine.fits.data(), nine.block_grid, 30.0, 100.0, 1.0, nullptr);
    EXPECT_TRUE(std::isnan(without.a));  // no usable block at all: 0 / 0

    phase[3 * 17] = 1.0f + 2.0f * height[3 * 17];
    Blocks ten = fit_blocks(grid, 25, phase, height);
    EXPECT_NEAR(ten.fits[0].a, 1.0f, 1e-4);
    EXPECT_NEAR(ten.fits[0].b, 2.0f, 1e-3);

    // A cap of K = 11 keeps the first ten usable pixels in row order: the
    // eleventh, off the line, changes nothing.
    phase[4 * 17 + 4] = 50.0f;
    const Blocks capped = fit_blocks(grid, 25, phase, height, 11);
    EXPECT_EQ(capped.fits[0].a, ten.fits[0].a);
    EXPECT_EQ(capped.fits[0].b, ten.fits[0].b);
    EXPECT_NE(fit_blocks(grid, 25, phase, height).fits[0].a, ten.fits[0].a);
}

TEST(Corrections, SideBySideInterpolationIsPixelByPixelToTheBit)
{
    // Random phase, heights and holes; blocks on pixel centres (binary grid)
    // and off them (the ENVISAT spacing); some blocks without a line. A
    // centre pixel takes its block unweighted.
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> uniform(-3.0f, 3.0f);
    for (const HEADER& grid : {binary_grid(45, 38), HEADER{61, 37, 150.91, -34.17, 0.000833333, -0.000833333}}) {
        const int64_t pixels = grid.WIDTH * grid.FILE_LENGTH;
        std::vector<float> phase(pixels), height(pixels);
        for (int64_t p = 0; p < pixels; ++p) {
            height[p] = 0.3f + 0.1f * uniform(rng);
            phase[p] = uniform(rng) + 0.5f * height[p];
            if (rng() % 9 == 0) phase[p] = rng() % 2 ? 0.0f : kNaN;
        }
        Blocks b = fit_blocks(grid, grid.X_STEP == 1.0 / 32 ? 25 : 1, phase, height);
        ASSERT_GT(b.fits.size(), 20u);
        for (size_t i = 0; i < b.fits.size(); i += 5) b.fits[i].a = kNaN;
        EXPECT_TRUE(same_bytes(side_by_side(b, height, phase), pixel_by_pixel(b, height, phase)));
        if (grid.X_STEP != 1.0 / 32) continue;
        const EXPCOFF& centre = b.fits[1 * b.block_grid.WIDTH + 1];  // pixel (4, 4)
        ASSERT_FALSE(std::isnan(centre.a));
        const float v = phase[4 * grid.WIDTH + 4];
        ASSERT_TRUE(lib::isvalid(v));
        EXPECT_EQ(side_by_side(b, height, phase)[4 * grid.WIDTH + 4], (v - centre.a) - centre.b * height[4 * grid.WIDTH + 4]);
    }
}

TEST(Corrections, TheDemIsResampledByNearestPixelLaterSamplesWinning)
{
    // A DEM twice as fine on the same origin: DEM rows 2i - 1 and 2i (and
    // columns alike) land on pixel i, 2i last; a 5 x 4 grid gets DEM (2i, 2j).
    TempDir dir;
    const HEADER grid = binary_grid(5, 4);
    HEADER dem = binary_grid(10, 8);
    dem.X_STEP /= 2;
    dem.Y_STEP /= 2;
    std::vector<float> heights(80);
    for (int p = 0; p < 80; ++p) heights[p] = 100.0f + static_cast<float>(p);
    write_floats(dir / "dem", heights);
    write_text(dir / "dem.txt", header_text(dem));
    CFG cfg;
    std::snprintf(cfg.demfile, sizeof cfg.demfile, "%s", (dir / "dem").c_str());
    std::snprintf(cfg.demfile_header, sizeof cfg.demfile_header, "%s", (dir / "dem.txt").c_str());
    float* height = com::resample_dem(cfg, grid);
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 5; ++j) EXPECT_EQ(height[i * 5 + j], heights[2 * i * 10 + 2 * j] / 1000.0f) << i << "," << j;
    std::free(height);
}

TEST(Corrections, WhatEachCorrectionModelsComesOutAsZero)
{
    // A quadratic surface of the pixel indices through the orbital
    // correction, with every pixel (sampling 1) and every third one in the
    // fit; a line in height through the elevation correction. A masked pixel
    // is 0 in the orbital copy and NaN in the elevation one; an invalid one
    // is 0 in the orbital copy.
    TempDir dir;
    const HEADER grid = binary_grid(23, 19);
    write_text(dir / "header.txt", header_text(grid));
    const int64_t pixels = 23 * 19;
    std::vector<float> ramp(pixels), line(pixels), height(pixels), mask(pixels, 0.0f);
    for (int64_t y = 0; y < 19; ++y)
        for (int64_t x = 0; x < 23; ++x) {
            const int64_t p = y * 23 + x;
            ramp[p] = static_cast<float>(3.0 + 0.2 * x - 0.3 * y + 0.01 * x * y - 0.004 * x * x + 0.006 * y * y);
            height[p] = 0.2f + 0.3f * std::sin(0.3f * static_cast<float>(x)) * std::cos(0.2f * static_cast<float>(y));
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
        com::remove_orbit(cfg, (dir / "ramp").c_str(), (dir / "ramp.remove_orbit").c_str(), mask.data());
        const auto out = read_floats(dir / "ramp.remove_orbit");
        ASSERT_EQ(out.size(), static_cast<size_t>(pixels));
        for (int64_t p = 0; p < pixels; ++p) EXPECT_NEAR(out[p], 0.0f, 2e-5) << sampling << " " << p;
        EXPECT_EQ(out[7], 0.0f);
        EXPECT_EQ(out[30], 0.0f);
    }
    const HEADER blocks = com::eds_block_grid(grid, 25);
    com::remove_heigh_dependent(cfg, blocks, (dir / "line").c_str(), (dir / "line.remove_hgt").c_str(), height.data(),
                                mask.data());
    const auto out = read_floats(dir / "line.remove_hgt");
    for (int64_t p = 0; p < pixels; ++p) {
        if (p == 30) continue;
        EXPECT_NEAR(out[p], 0.0f, 2e-5) << p;
    }
    EXPECT_TRUE(std::isnan(out[30]));
}

}  // namespace
