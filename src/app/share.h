// In an MPI run, the stages that one rank runs for all: it runs them, and
// every rank receives their result (status, what they changed in the run
// record, the reference values) as if it had run them itself. In a run of
// one process these are the stage itself.
#pragma once

#include <functional>

#include "config/cfg.h"
#include "numerics/arrays.h"
#include "numerics/error.h"

namespace sbas {

// Runs `stage` on rank 0 only; every rank returns its status, and the
// fields of `cfg` a stage may change (the reference pixel, the automatic
// closure thresholds, the list and its file, the data folder) and the
// `count` floats of `values` (when not null) are rank 0's afterwards.
lib::Status on_first_rank(CFG& cfg, lib::Owned<float>* values, const std::function<lib::Status()>& stage);

// The same hand-over after a stage that every rank ran and rank 0 finished
// alone (`status` is each rank's own outcome; rank 0's is every rank's).
lib::Status share_from_first_rank(CFG& cfg, lib::Owned<float>* values, lib::Status status);

}  // namespace sbas
