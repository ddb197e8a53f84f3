// Loading a batch of the interferogram stack.
//
// The interferograms are split over the threads in contiguous blocks; each
// thread opens its files one after another and reads the batch's stretch of
// pixels with one seek and one read, straight into the interferogram's row.
// A valid sample outside the closure mask is referred to the reference by
// subtracting the interferogram's reference value; anything else becomes 0,
// the no-data value. A sample that equals its reference value therefore
// becomes 0 as well and no longer counts.
//
// Pixels observed by too small a share of the interferograms are dropped
// whole: the ratio setting is held as a float and compared, widened, with the
// double share, so 0.3 (0.30000001...) drops a pixel seen 3 times in 10.
//
// After the reading, the same threads count and test pixels in contiguous
// blocks of the batch; every pixel's result is independent of the split, so
// the stack is the same for any number of threads.
#include "catalogue/stack.h"

#include <omp.h>

#include <cstdlib>
#include <vector>

#include "catalogue/raster.h"
#include "config/fatal.h"
#include "numerics/arrays.h"
#include "numerics/parallel.h"
#include "numerics/validity.h"

namespace com {
namespace {

void refer_row(int64_t start, int64_t width, float reference, const float* mask, float* row)
{
    for (int64_t j = 0; j < width; ++j) {
        const bool keep = lib::isvalid(row[j]) && (!mask || mask[start + j] < 0.5);
        row[j] = keep ? row[j] - reference : 0.0f;
    }
}

lib::Status read_referenced_row(const CFG& cfg, int64_t k, int64_t start, int64_t width, float reference,
                                const float* mask, float* row)
{
    const Path path = join_path(cfg.datafolder, cfg.ifg_names[static_cast<size_t>(k)].c_str());
    SBAS_TRY(read_raster(path.c_str(), start, width, row));
    refer_row(start, width, reference, mask, row);
    return {};
}

// Counts the valid interferograms of pixels [first, end) of the batch and
// drops the pixels seen by too few of them.
void count_and_drop(float** stack, int64_t n, int64_t first, int64_t end, float minimum_ratio, int* count)
{
    if (n < 1) return;
    for (int64_t k = 0; k < n; ++k)
        for (int64_t j = first; j < end; ++j) count[j] += lib::isvalid(stack[k][j]) ? 1 : 0;
    const double ratio = minimum_ratio;
    for (int64_t j = first; j < end; ++j) {
        if (!(ratio > static_cast<double>(count[j]) / static_cast<double>(n))) continue;
        for (int64_t k = 0; k < n; ++k) stack[k][j] = 0.0f;
        count[j] = 0;
    }
}

lib::Result<float**> load(const CFG& cfg, int64_t start, int64_t end, const float* reference_values,
                          const float* mask, int* count)
{
    const int64_t n = static_cast<int64_t>(cfg.ifg_names.size());
    const int64_t width = end > start ? end - start : 0;
    float** stack = lib::need_rows_to_fill(n, width);
    lib::FirstError failure;

#pragma omp parallel num_threads(lib::region_threads(cfg.max_parallel_threads))
    {
        const int threads = omp_get_num_threads();
        const int thread = omp_get_thread_num();
        const lib::Block files = lib::block_of(n, threads, thread);
        for (int64_t k = files.first; k < files.end && !failure.past(k); ++k) {
            lib::Status read = read_referenced_row(cfg, k, start, width, reference_values[k], mask, stack[k]);
            if (!read.ok()) {
                failure.record(k, std::move(read).error());
                break;
            }
        }
        if (count) {
#pragma omp barrier
            const lib::Block pixels = lib::block_of(width, threads, thread);
            count_and_drop(stack, n, pixels.first, pixels.end, cfg.minimum_temporal_ifg_ratio, count);
        }
    }
    lib::Status loaded = failure.status();
    if (!loaded.ok()) {
        lib::free2d_float(stack, static_cast<int>(n));
        return std::move(loaded).error();
    }
    return stack;
}

}  // namespace

HeldBatch& HeldBatch::operator=(HeldBatch&& other) noexcept
{
    release();
    rows = other.rows;
    n_rows = other.n_rows;
    first = other.first;
    end = other.end;
    count = std::move(other.count);
    other.rows = nullptr;
    other.n_rows = 0;
    other.count = lib::Owned<int>();
    return *this;
}

void HeldBatch::release()
{
    if (rows) lib::free2d_float(rows, static_cast<int>(n_rows));
    rows = nullptr;
    n_rows = 0;
    count = lib::Owned<int>();
}

float** mask_loaded_stack(const CFG& cfg, float** loaded, int64_t n_loaded, const int64_t* keep, int64_t start,
                          int64_t end, const float* closure_mask, int* count)
{
    const int64_t n = static_cast<int64_t>(cfg.ifg_names.size());
    const int64_t width = end > start ? end - start : 0;
    float** stack = n > 0 ? lib::need<float*>(n) : nullptr;
    std::vector<char> kept(static_cast<size_t>(n_loaded), 0);
    for (int64_t k = 0; k < n; ++k) {
        stack[k] = loaded[keep[k]];
        kept[static_cast<size_t>(keep[k])] = 1;
    }
    for (int64_t k = 0; k < n_loaded; ++k)
        if (!kept[static_cast<size_t>(k)]) std::free(loaded[k]);
    std::free(loaded);

    // A row without the mask holds the referenced sample where it is valid
    // and 0 elsewhere, so the masked row is the same row with the masked
    // pixels set to 0.
#pragma omp parallel num_threads(lib::region_threads(cfg.max_parallel_threads))
    {
        const lib::Block pixels = lib::block_of(width, omp_get_num_threads(), omp_get_thread_num());
        for (int64_t k = 0; k < n; ++k) {
            float* row = stack[k];
            for (int64_t j = pixels.first; j < pixels.end; ++j)
                if (!(closure_mask[start + j] < 0.5)) row[j] = 0.0f;
        }
        count_and_drop(stack, n, pixels.first, pixels.end, cfg.minimum_temporal_ifg_ratio, count);
    }
    return stack;
}

float** refer_read_stack(const CFG& cfg, HeldBatch& read, const float* reference_values)
{
    float** rows = read.rows;
    const int64_t n = read.n_rows;
    const int64_t width = read.end - read.first;
    read.rows = nullptr;
    read.release();
#pragma omp parallel for num_threads(lib::region_threads(cfg.max_parallel_threads)) schedule(static)
    for (int64_t k = 0; k < n; ++k) refer_row(0, width, reference_values[k], nullptr, rows[k]);
    return rows;
}

lib::Result<float**> readallfile(const CFG& cfg, int64_t start, int64_t end, const float* reference_values,
                    const float* closure_mask, int* count)
{
    return load(cfg, start, end, reference_values, closure_mask, count);
}

lib::Result<float**> readallfile_nomask(const CFG& cfg, int64_t start, int64_t end, const float* reference_values)
{
    return load(cfg, start, end, reference_values, nullptr, nullptr);
}

}  // namespace com
