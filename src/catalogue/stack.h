// Loading one batch of pixels of the interferogram stack: the stretch
// [start, end) of every interferogram of the run, referenced and masked.
//
// Every stage that works on the stack in pixel batches (the loop-closure
// check, stacking, the inversion) reads it through here. It lives with the
// other raster readers of the catalogue, below all of those stages, so that
// none of them depends on another stage to get its data.
#pragma once

#include <cstdint>

#include "config/cfg.h"
#include "numerics/error.h"

namespace com {

// Reads pixels [start, end) of every interferogram of cfg.ifg_names (one row
// per interferogram, list order; rows of end - start floats) in a parallel
// region of max_parallel_threads threads, one seek and one read per file.
// A valid sample outside the closure mask (mask[pixel] < 0.5) has its
// interferogram's reference value subtracted; every other sample becomes 0.
// count[j] (zeroed by the caller, end - start entries) receives the number of
// interferograms valid at pixel j; pixels observed by fewer than
// minimum_temporal_ifg_ratio of the interferograms are zeroed and get count 0.
// The caller frees the stack with lib::free2d_float. A missing or short file
// is reported: the error of the first such interferogram in list order,
// whatever the thread count.
lib::Result<float**> readallfile(const CFG& cfg, int64_t start, int64_t end, const float* reference_values,
                    const float* closure_mask, int* count);

// The same reading and referencing without the mask, the count and the ratio
// test (for the loop-closure check).
lib::Result<float**> readallfile_nomask(const CFG& cfg, int64_t start, int64_t end, const float* reference_values);

}  // namespace com
