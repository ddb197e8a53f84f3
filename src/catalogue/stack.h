// Loading one batch of pixels of the interferogram stack: the stretch
// [start, end) of every interferogram of the run, referenced and masked.
//
// Every stage that works on the stack in pixel batches (the loop-closure
// check, stacking, the inversion) reads it through here. It lives with the
// other raster readers of the catalogue, below all of those stages, so that
// none of them depends on another stage to get its data.
#pragma once

#include <cstdint>
#include <utility>

#include "config/cfg.h"
#include "numerics/arrays.h"
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

// One batch of the stack held from one stage to the next, when the grid is a
// single batch and two stages would load the same stretch: the rows (one per
// interferogram, as the loader returns them), the per-pixel counts (null for
// a stack loaded without the mask) and the batch [first, end) they cover.
// Moving it hands the rows on; the last holder frees them.
struct HeldBatch {
    float** rows = nullptr;
    int64_t n_rows = 0;
    int64_t first = 0;
    int64_t end = 0;
    lib::Owned<int> count;

    HeldBatch() = default;
    HeldBatch(const HeldBatch&) = delete;
    HeldBatch& operator=(const HeldBatch&) = delete;
    HeldBatch(HeldBatch&& other) noexcept { *this = std::move(other); }
    HeldBatch& operator=(HeldBatch&& other) noexcept;
    ~HeldBatch() { release(); }
    void release();
    bool holds(int64_t batch_first, int64_t batch_end) const
    {
        return rows != nullptr && first == batch_first && end == batch_end;
    }
};

// Turns a batch loaded by readallfile_nomask into what readallfile gives for
// the same batch, reference values and closure mask, in place: samples of
// masked pixels become 0, count[j] (zeroed by the caller) receives the
// pixel's valid interferograms, and pixels below minimum_temporal_ifg_ratio
// are dropped, exactly as the loader does. `keep[k]` is the row of `stack`
// that becomes row k (the interferograms still listed, in list order); the
// other rows are freed. Returns the stack of cfg.ifg_names.size() rows.
float** mask_loaded_stack(const CFG& cfg, float** stack, int64_t n_loaded, const int64_t* keep, int64_t start,
                          int64_t end, const float* closure_mask, int* count);

// Takes the rows of `read` (every interferogram of cfg.ifg_names as its file
// holds it, over the batch read.first..read.end) and turns them in place
// into what readallfile_nomask loads for that batch; `read` is left empty.
float** refer_read_stack(const CFG& cfg, HeldBatch& read, const float* reference_values);

}  // namespace com
