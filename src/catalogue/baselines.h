// Perpendicular baselines of the interferograms, for the DEM-error term of
// the inversion.
#pragma once

#include <cstdint>

#include "numerics/error.h"

struct CFG;

// The perpendicular baseline of one interferogram.
struct BASELINE {
    int32_t date1;  // first date of the pair, yyyymmdd
    int32_t date2;  // second date of the pair, yyyymmdd
    float bperp;    // perpendicular baseline, in the unit of the file (metres)
};

namespace com {

// One BASELINE per entry of cfg.ifg_names, in list order, from the file named
// by cfg.baselines. The caller releases the block with std::free; it is
// never null, also for an empty list. A pair without a line, or with a
// baseline below -99999 or not finite, is reported as "baseline for %d-%d not found\n"
// on standard error.
lib::Result<BASELINE*> get_baselines(const CFG& cfg);

}  // namespace com
