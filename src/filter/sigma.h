// The widths of the filters' Gaussians, checked before any stage runs.
#pragma once

#include "config/cfg.h"
#include "numerics/error.h"

namespace sbas {

// For each sigma the filters chosen by if_apply_filter use
// (spatial_filter_sigma with 1, 3, 4, 5; temporal_filter_sigma with 2 to 5):
// a NaN is refused, "%s is nan: give a Gaussian width in frequency bins
// (larger smooths less), or a negative value for the default\n" (standard
// error); 0 (a width that makes every filtered map NaN, as the filters
// define it) and +inf (a filter that keeps every frequency) each get one
// "warning: ..." line on standard error and the run goes on unchanged.
// Negative values choose the default widths and pass.
lib::Status check_filter_sigmas(const CFG& cfg);

}  // namespace sbas
