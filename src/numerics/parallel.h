// Contiguous work blocks for the OpenMP regions of the stages.
//
// A region of T threads splits `count` items (interferograms, or pixels of a
// batch) into blocks of ceil(count / T); thread t takes items
// [t*b, min((t+1)*b, count)). Threads write disjoint items and pick their
// scratch by thread number, so nothing is locked, and a result never depends
// on the number of threads.
#pragma once

#include <algorithm>
#include <cstdint>

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

// Threads for a parallel region from the max_parallel_threads setting: the
// setting itself, at least 1 (a region cannot run on fewer).
inline int region_threads(int configured) { return std::max(configured, 1); }

}  // namespace lib
