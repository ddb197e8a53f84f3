// The closure loops of an interferogram list.
#pragma once

#include <cstdint>
#include <vector>

#include "numerics/error.h"
#include "quality/loop_closure.h"

namespace quality {

// The loops of a list whose entry k joins dates first[k] and second[k]
// (yyyymmdd, as its name writes them), in the order of this rule: for each
// pair i < j whose dates number at most three, the first k > j whose two
// dates both lie among them closes the loop (d0 < d1 < d2; the entries
// (d0,d1), (d0,d2), (d1,d2) taken among i, j, k, a later one overriding an
// earlier). A k found for a pair that does not make a triangle of three
// dates written earlier date first is the error "file format error, cannot
// form loop closure" (standard output). The third entry is looked up by its
// dates, so a dense network costs the pairs that share a date, not a search
// along the list for each of them.
lib::Result<std::vector<LOOPORDER>> find_loops(const std::vector<int64_t>& first, const std::vector<int64_t>& second);

}  // namespace quality
