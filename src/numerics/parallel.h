// How the work of a run is cut: contiguous blocks of items for the threads
// of a parallel region, and batches of pixels for the stages that hold only
// part of the grid in memory.
//
// A region of T threads splits `count` items (interferograms, or pixels of a
// batch) into blocks of ceil(count / T); thread t takes items
// [t*b, min((t+1)*b, count)). Threads write disjoint items and pick their
// scratch by thread number, so nothing is locked, and a result never depends
// on the number of threads.
//
// A batch is a half-open range [first, end) of flat pixel indices, at most
// maxcap long; batches may cut rows. Kernels see only [first, end); this is
// the one place that knows how the grid is cut.
#pragma once

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>

#include <type_traits>

#include "numerics/error.h"

namespace lib {

struct Block {
    int64_t first;  // first item of the block
    int64_t end;    // one past the last item (first == end: empty block)
};

// The block of thread `index` of `parts` threads over `count` items.
inline Block block_of(int64_t count, int64_t parts, int64_t index)
{
    if (count < 1 || parts < 1) return {0, 0};
    const int64_t size = (count + parts - 1) / parts;
    const int64_t first = std::min(index * size, count);
    return {first, std::min(first + size, count)};
}

// The most threads a region may have: four for every processor this process
// may run on, and never fewer than 8. Outputs do not depend on the thread
// count, so threads beyond the processors only cost memory (each holds its
// own scratch and stack); a count such as 100000 would exhaust the OpenMP
// runtime and end the run with a signal. Four per processor leaves room for
// users who oversubscribe on purpose; the floor of 8 keeps the byte-identity
// tests across 1, 2 and 3 threads meaningful on a machine of 1 or 2 cores.
inline int thread_limit() { return std::max(8, 4 * omp_get_num_procs()); }

// Threads for a parallel region from the max_parallel_threads setting: the
// setting itself, at least 1 (a region cannot run on fewer) and at most
// thread_limit().
inline int region_threads(int configured) { return std::clamp(configured, 1, thread_limit()); }

// The max_parallel_threads setting as a run uses it: lowered to
// thread_limit() when it is above, with one line on standard error to say
// so; otherwise unchanged. The driver calls it once, so that the stages'
// reports print the count their regions run with.
inline int usable_threads(int configured)
{
    const int limit = thread_limit();
    if (configured <= limit) return configured;
    std::fprintf(stderr, "max_parallel_threads %d is more than this machine can run; using %d\n", configured, limit);
    return limit;
}

struct Batch {
    int64_t first;  // first pixel
    int64_t end;    // one past the last pixel
    int number;     // counted from 1
};

// The number of batches as the progress lines print it: ceil(length x width /
// maxcap) in single precision, whatever the exact count.
inline float batch_total(int64_t width, int64_t length, int64_t maxcap)
{
    return std::ceil(static_cast<float>(length) * static_cast<float>(width) / static_cast<float>(maxcap));
}

// Calls visit(const Batch&) for the batches of maxcap pixels over
// [0, pixels), in order: the first is [0, min(maxcap, pixels)), each next one
// moves both bounds by maxcap and cuts the end at `pixels`, and the last is
// the one that ends at `pixels`. A grid without pixels still has one (empty)
// batch. A maxcap below 1 would never get through the grid: it is reported
// before any batch. `visit` may return a Status; its first error ends the
// walk and is returned.
template <typename Visit>
Status for_each_batch(int64_t pixels, int64_t maxcap, Visit visit)
{
    if (maxcap < 1)
        return error(Fault::setting, "maxcap", Stream::err, "maxcap must be a positive number of pixels (it is %lld)\n",
                     static_cast<long long>(maxcap));
    Batch batch{0, std::min(maxcap, pixels), 1};
    for (;;) {
        if constexpr (std::is_same_v<std::invoke_result_t<Visit&, const Batch&>, Status>)
            SBAS_TRY(visit(static_cast<const Batch&>(batch)));
        else
            visit(static_cast<const Batch&>(batch));
        if (batch.end >= pixels) return {};
        batch.first += maxcap;
        batch.end = std::min(batch.end + maxcap, pixels);
        ++batch.number;
    }
}

}  // namespace lib
