// The main sequence of a run.
#pragma once

#include <vector>

#include "numerics/accounting.h"
#include "numerics/error.h"

namespace sbas {

// Loads the job from the configuration file at `config_path` and runs the
// enabled stages one after another: reference values, loop-closure check,
// corrections, date order, stacking, the network inversion in pixel batches
// of maxcap pixels, and the filters chosen by if_apply_filter. Returns the
// first error a stage reports, after which nothing else has run. When
// `costs` is not null, each stage's wall time and bytes read are appended.
lib::Status sbas_allocate_area(const char* config_path, std::vector<lib::StageCost>* costs = nullptr);

}  // namespace sbas
