// The per-interferogram step of a job.
#pragma once

#include <vector>

#include "synth/fields.h"
#include "synth/plan.h"

namespace synth {

// Writes ifg/<name> for every interferogram of the plan from the date phases
// of write_date_phases. Throws Error when a file can't be written.
void write_interferograms(const Options& options, const Plan& plan, const StaticFields& fields,
                          const std::vector<std::vector<double>>& phase);

}  // namespace synth
