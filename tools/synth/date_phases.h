// The per-date step of a job: truth displacement maps and date phases.
#pragma once

#include <vector>

#include "synth/fields.h"
#include "synth/plan.h"

namespace synth {

// Writes truth/disp-<date> for every date and truth/velocity, and returns
// each date's phase (rad, one value per pixel): deformation, correlated noise
// and the elevation term. Throws Error when a file can't be written.
std::vector<std::vector<double>> write_date_phases(const Options& options, const Plan& plan,
                                                   const StaticFields& fields);

}  // namespace synth
