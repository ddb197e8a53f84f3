// The vector kernels of the loop-closure check against the running update
// written out plainly: every lane, tile edge and partial group of loops
// must keep exactly the scalar bits, and a sample is valid exactly when
// lib::isvalid says so, also at the edges of that test.
#include "quality/closure_kernels.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "numerics/stats.h"
#include "numerics/validity.h"

namespace {

bool same_bits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

TEST(ClosureKernels, EveryLaneKeepsTheScalarBits)
{
    // Around 1e-8 (the smallest valid magnitude) and the top of the floats.
    const float edges[] = {0.0f, -0.0f, 0x1.5798eep-27f, 0x1.5798fp-27f, -0x1.5798fp-27f, 1e-30f, FLT_MAX,
                           -FLT_MAX, std::numeric_limits<float>::infinity(), std::nanf(""), 3.0f, -2.5f};
    const int n_ifg = 7;
    const int64_t width = 1100;  // past two tiles of pixels
    std::mt19937 random(7);
    std::uniform_real_distribution<float> phase(-4.0f, 4.0f);
    std::uniform_int_distribution<int> pick(0, 4 * static_cast<int>(std::size(edges)));
    std::vector<std::vector<float>> rows(n_ifg, std::vector<float>(width));
    std::vector<float*> stack;
    for (auto& row : rows) {
        for (float& x : row) {
            const int e = pick(random);
            x = e < static_cast<int>(std::size(edges)) ? edges[e] : phase(random);
        }
        stack.push_back(row.data());
    }
    // 11 loops: a whole group of eight and a partial one on wide vectors.
    std::vector<LOOPORDER> loops;
    for (int l = 0; l < 11; ++l) loops.push_back({0, 0, 0, l % n_ifg, (l * 3 + 1) % n_ifg, (l * 5 + 2) % n_ifg});
    const float threshold = 2.0f;

    std::vector<lib::RunningMoments> pixel_ref(width), loop_ref(loops.size());
    std::vector<double> failed_ref(width, 0.0);
    for (size_t l = 0; l < loops.size(); ++l)
        for (int64_t j = 0; j < width; ++j) {
            const float a = stack[loops[l].ifg01][j], b = stack[loops[l].ifg02][j], c = stack[loops[l].ifg12][j];
            if (!lib::isvalid(a) || !lib::isvalid(b) || !lib::isvalid(c)) continue;
            const float closure = a - b + c;
            pixel_ref[j].add(closure);
            if (std::fabs(closure) > threshold) failed_ref[j] += 1;
        }
    for (size_t l = 0; l < loops.size(); ++l)
        for (int64_t j = 0; j < width; ++j) {
            const float a = stack[loops[l].ifg01][j], b = stack[loops[l].ifg02][j], c = stack[loops[l].ifg12][j];
            if (lib::isvalid(a) && lib::isvalid(b) && lib::isvalid(c)) loop_ref[l].add(a - b + c);
        }

    // Pixels in two uneven stretches and loops over three, as threads and
    // batches cut them.
    std::vector<quality::PixelClosure> pixels(width);
    quality::add_pixel_closures(loops.data(), 11, stack.data(), 0, 613, threshold, pixels.data());
    quality::add_pixel_closures(loops.data(), 11, stack.data(), 613, width, threshold, pixels.data());
    std::vector<lib::RunningMoments> moments(loops.size());
    for (auto [from, to] : {std::pair<int64_t, int64_t>{0, 5}, {5, 517}, {517, width}}) {
        quality::add_loop_closures(loops.data(), 3, stack.data(), from, to, moments.data());
        quality::add_loop_closures(loops.data() + 3, 8, stack.data(), from, to, moments.data() + 3);
    }

    for (int64_t j = 0; j < width; ++j) {
        SCOPED_TRACE("pixel " + std::to_string(j));
        EXPECT_TRUE(same_bits(pixels[j].closure.count, pixel_ref[j].count));
        EXPECT_TRUE(same_bits(pixels[j].closure.mean, pixel_ref[j].mean));
        EXPECT_TRUE(same_bits(pixels[j].closure.variance, pixel_ref[j].variance));
        EXPECT_TRUE(same_bits(pixels[j].failed, failed_ref[j]));
    }
    for (size_t l = 0; l < loops.size(); ++l) {
        SCOPED_TRACE("loop " + std::to_string(l));
        EXPECT_TRUE(same_bits(moments[l].count, loop_ref[l].count));
        EXPECT_TRUE(same_bits(moments[l].mean, loop_ref[l].mean));
        EXPECT_TRUE(same_bits(moments[l].variance, loop_ref[l].variance));
    }
}

}  // namespace
