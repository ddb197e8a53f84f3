// Linear rate stacking: for every pixel, the rate of a straight line through
// the origin fitted to each interferogram's referenced phase against its time
// span in years, with the scatter of the fit and the rate's standard error.
#pragma once

#include <cstdint>
#include <vector>

#include "catalogue/header.h"
#include "catalogue/stack.h"
#include "config/cfg.h"
#include "numerics/error.h"

// The time span of one interferogram, from the two dates in its file name.
struct DATEINTERVAL {
    int64_t first = 0;   // Modified Julian Day of the first date (whole days)
    int64_t second = 0;  // Modified Julian Day of the second date
    int64_t days = 0;    // second - first
    double years = 0;    // days / 365.25
};

namespace rstacking {

// Runs the stage over the grid of cfg.headerfile in batches of cfg.maxcap
// pixels: each batch is loaded with com::readallfile (closure_mask: one value
// per pixel of the grid; reference_values: one per interferogram, list order)
// and solved by stacking(). Writes "linear_stacking_mean_velocity",
// "linear_stacking_mean_velocity_residual" and
// "linear_stacking_mean_velocity_sigma" into cfg.resultfolder, and its
// banner, interval lines and batch lines to standard error. With `held` not
// null and the grid one batch, the loaded batch is left in *held (rows and
// counts as com::readallfile gives them) for the next stage instead of freed;
// when *held already holds that batch it is taken instead of loading it.
lib::Status start_rstacking(CFG cfg, const HEADER& header, const float* closure_mask, const float* reference_values,
                            com::HeldBatch* held = nullptr);

// Solves pixels [start, end) of a loaded batch: rows[k] holds interferogram
// k's end - start referenced samples (0 or any no-data value: not observed),
// intervals one span per row. A pixel observed by n interferograms gets
// rate v = sum(d T) / sum(T^2), residual sqrt(S / (n - 1)) and sigma
// sqrt(S / (sum(T^2) (n - 1))) with S = sum((d - v T)^2), in rad/yr for the
// rate; 0 in all three when N * minimum_temporal_ifg_ratio >= n (N: rows).
// The pixels are appended to the three rasters (created when start is 0).
lib::Status stacking(CFG cfg, float** rows, std::vector<DATEINTERVAL> intervals, int64_t start, int64_t end);

}  // namespace rstacking
