// The pixels of a batch sorted by how the inversion solves them: the pixels
// valid in every interferogram, which share the full network's estimator,
// and the others grouped by validity pattern, the rows of their reduced
// systems, which every pixel of a pattern shares.
#pragma once

#include <cstdint>

#include "numerics/arrays.h"
#include "numerics/parallel.h"

namespace sbas {

struct PixelGroups {
    int64_t complete_count = 0;
    lib::Owned<int64_t> complete;  // the complete pixels, in increasing order
    int64_t pattern_count = 0;
    lib::Owned<int64_t> start;     // pattern q's pixels: members[start[q] .. start[q + 1])
    lib::Owned<int64_t> members;   // in increasing order within a pattern
    lib::Owned<int64_t> n;         // interferogram rows of pattern q (its count)
    int64_t words = 0;             // 64-bit words of a pattern's interferogram bits
    lib::Owned<uint64_t> bits;     // pattern q's at [q * words, (q + 1) * words)

    // Writes the interferograms of pattern q's rows, in list order, to
    // `ifgs` (room for the `total` interferograms of the list); returns
    // their number.
    int64_t interferograms(int64_t q, int64_t total, int64_t* ifgs) const;
};

// Sorts the pixels [block.first, block.end) of a batch: stack holds one row
// per interferogram (`interferograms` of them), count the valid
// interferograms per pixel. A pixel whose count plus `constraint_rows` is
// below `unknowns` is left out (it is not estimated); one whose count is
// `complete` is complete; any other belongs to the pattern of its reduced
// system's rows: the interferograms valid there (lib::isvalid), the first
// count of them where there are more, together with count. Patterns are
// numbered in the order of their first pixel. Memory is proportional to
// the block.
PixelGroups group_pixels(float* const* stack, const int* count, int64_t interferograms, int64_t complete,
                         int64_t unknowns, int64_t constraint_rows, lib::Block block);

}  // namespace sbas
