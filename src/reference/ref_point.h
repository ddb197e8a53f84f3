// Choice of the reference: a given pixel, the pixel of least temporal
// variance, the most stable window, or the global mean.
#pragma once

#include <cstdint>

#include "catalogue/header.h"
#include "catalogue/stack.h"
#include "config/cfg.h"
#include "numerics/error.h"

namespace sbas {

// The reference stage of the driver: chooses the reference by ref_row/ref_col
// or ref_method, writes an automatically chosen pixel back into *cfg
// (ref_row, ref_col, ref_lat, ref_lon) and returns the reference values, one
// float per interferogram (std::free; never null, one zero for an empty
// list). A ref_method other than 0, 1 or 2 with no pixel given returns zeros.
// `header` is the job's grid. With `keep`, a search that reads every
// interferogram whole (ref_method 0 or 2) leaves what it read in *keep: one
// row per interferogram over the whole grid, as the files hold it.
lib::Result<float*> sbas_step1(CFG* cfg, const HEADER& header, com::HeldBatch* keep = nullptr);

}  // namespace sbas

namespace com {

// Flat index of the pixel of least temporal variance; writes "refpoint".
// Reports when no pixel qualifies. With `keep` (a run of one process), the
// interferograms read are left in *keep as sbas_step1 says.
lib::Result<int64_t> find_ref_point(CFG cfg, const HEADER& header, HeldBatch* keep = nullptr);

// Flat index of the centre of the most stable ref_window cell (a window
// below 1 is taken as 1); writes "refpoint". Reports when no cell
// qualifies. `keep` as for find_ref_point.
lib::Result<int64_t> find_ref_grid(CFG cfg, const HEADER& header, HeldBatch* keep = nullptr);

}  // namespace com
