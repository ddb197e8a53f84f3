// The two passes of the loop-closure check over a batch of pixels: every
// pixel's closures through the loops, and every loop's closures through the
// pixels. The passes are independent of each other and each one splits its
// own way over threads, so both run on all threads; each running update
// still takes its values in the order of a single pass (a pixel its loops in
// enumeration order, a loop its pixels in pixel order).
#pragma once

#include <cstdint>

#include "numerics/stats.h"
#include "quality/loop_closure.h"

namespace quality {

// A pixel's closures so far: count of loops with a valid closure, their
// running mean and variance, and how many of them failed.
struct PixelClosure {
    lib::RunningMoments closure;
    double failed;
};

// Pixels [first, end) of a batch (stack: one row per interferogram, column
// j = the batch's pixel j): every loop in order adds its closure, where all
// three samples are valid, to pixels[j], and counts it failed when its
// magnitude is above `threshold`.
void add_pixel_closures(const LOOPORDER* loops, int64_t loop_count, float* const* stack, int64_t first, int64_t end,
                        float threshold, PixelClosure* pixels);

// Loops [0, loop_count): every pixel [first, end) of the batch in order
// adds its valid closure to the loop's moments (moments[l] for loops[l]).
void add_loop_closures(const LOOPORDER* loops, int64_t loop_count, float* const* stack, int64_t first, int64_t end,
                       lib::RunningMoments* moments);

}  // namespace quality
