// Which estimates of a run the interferograms do not determine.
//
// Without a temporal constraint a pixel's unknowns are the displacement
// steps between consecutive dates, and only the interferograms valid at the
// pixel tie them. When those interferograms do not connect every date of the
// run (a date, or a group of dates, seen by none of them), the pixel's
// normal matrix is singular; sbas-ts still writes what its solver returns,
// and those values mean nothing. Such a pixel is undetermined. With a
// temporal constraint (linear or logarithmic) the constraint rows tie every
// step to the model, so every estimated pixel is determined.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "view/job.h"

namespace view {

struct Determination {
    int64_t first_row = 0;              // the rows looked at: [first_row, end_row)
    int64_t end_row = 0;
    std::vector<uint8_t> undetermined;  // per pixel of those rows: 1 undetermined, 0 otherwise
    int64_t undetermined_count = 0;
    int64_t no_estimate_count = 0;  // pixels the inversion leaves without estimate; -1 when bridged
    bool bridged = false;           // a temporal constraint: nothing is undetermined, nothing was read

    bool at(int64_t row, int64_t col, int64_t width) const
    {
        return undetermined[static_cast<size_t>((row - first_row) * width + col)] != 0;
    }
};

// Decides, for the rows [first_row, end_row) of the grid, which pixels are
// undetermined, from the job's own files as the inversion's loader sees them:
// the list the run ended with (result/filelist_used when present), the
// original interferograms of datafolder (the corrections do not change which
// samples are valid), the closure mask result/phase_loop_closure_mask when
// the run used one, and the minimum_temporal_ifg_ratio rule. A pixel without
// estimate (too few valid interferograms, or masked) is counted apart and is
// not undetermined; neither is the reference pixel, whose history is zero by
// definition. Rows are read in blocks, so memory stays bounded whatever the
// size of the stack. A missing or short interferogram ends the process with a
// message.
Determination find_undetermined(const Job& job, const std::string& result_dir, int64_t first_row, int64_t end_row);

// The same over the whole grid.
Determination find_undetermined(const Job& job, const std::string& result_dir);

}  // namespace view
