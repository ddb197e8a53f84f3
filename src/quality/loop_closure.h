// Loop-closure quality control: finds unwrapping errors by the phase closure
// of interferogram triangles, masks the pixels that fail it and drops the
// interferograms whose loops scatter too much, before the corrections and the
// inversion see them.
#pragma once

#include <cstdint>

#include "catalogue/header.h"
#include "catalogue/stack.h"
#include "config/cfg.h"
#include "numerics/error.h"

// One closure loop: three acquisition dates d0 < d1 < d2 (yyyymmdd) and the
// list indices of the interferograms (d0,d1), (d0,d2) and (d1,d2).
struct LOOPORDER {
    int64_t date0;
    int64_t date1;
    int64_t date2;
    int64_t ifg01;
    int64_t ifg02;
    int64_t ifg12;
};

namespace quality {

// The loop-closure check of a run. reference_values holds one value per entry
// of cfg->ifg_names (list order), subtracted from every valid sample.
//
// Reads every interferogram in batches of maxcap pixels (one batch in memory
// at a time) and writes "phase_loop_closure_std",
// "phase_loop_closure_failed_ratio", "filelist_statistics" and
// "phase_loop_closure_mask" into the result folder. May change the record:
// negative (automatic) closure thresholds are replaced by their computed
// values, or by 6.28 when nothing forms a loop; with if_delete_bad_ifgs the
// kept and rejected interferograms are written to "filelist_used" and
// "filelist_deleted", filelist points at "filelist_used" and the lists are
// reloaded from it. A triangle whose interferograms are not all written
// (earlier date, later date) is reported as "file format error, cannot form
// loop closure" on standard output. `header` is the job's grid. The loader and the closures run
// on max_parallel_threads threads; no output depends on their number.
// With `held` not null, a single process and the grid in one batch, the
// loaded stack (com::readallfile_nomask, the list as it was on entry) is left
// in *held (no counts) instead of freed. With `read` holding the
// interferograms of the list as their files hold them, over the whole grid
// (what the reference search read), those rows are referred in place
// instead of reading the files again; `read` is left empty either way.
lib::Status remove_ifg_by_loop_closure_with_reference(CFG* cfg, const HEADER& header, const float* reference_values,
                                                      com::HeldBatch* held = nullptr, com::HeldBatch* read = nullptr);

}  // namespace quality
