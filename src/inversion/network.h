// The per-pixel network inversion: every pixel's small-baseline network is
// solved by weighted least squares for the displacement increments between
// consecutive dates, optionally tied by a linear or logarithmic temporal model
// and with a baseline-dependent DEM-error term.
#pragma once

#include <cstdint>
#include <vector>

#include "catalogue/baselines.h"
#include "catalogue/dates.h"
#include "config/cfg.h"

namespace sbas {

// Inverts the batch [start, end) loaded by com::readallfile (stack: one row
// per interferogram of end - start floats; count: valid interferograms per
// pixel) and writes its pixels of culmap-DATE-FIRSTDATE.disp for every date
// after the first, least_square_sigma, linear_mean_velocity and, with
// if_est_hgt 1, baseline_dependent_dem_error into resultfolder (created by the
// batch at pixel 0, appended to by later batches). baselines holds one record
// per interferogram when if_est_hgt is 1 and is not read otherwise. Pixels with
// fewer observations than unknowns are 0 in every output.
void sbas_step2_sbas_linear_new(CFG cfg, std::vector<DATEORDER> dateorder, const BASELINE* baselines,
                                float** stack, const int* count, int64_t start, int64_t end);

}  // namespace sbas

namespace com {

// Builds the reduced system of one pixel into zeroed storage: one row per
// interferogram valid at `pixel` (y = the sample, ones over the increments it
// spans, Bperp*K in the last column when if_est_hgt is set, weight 1), then
// D - 1 constraint rows when temporal_constraint is 1 or 2 (weight
// 1/sqrt(temporal_strength)). A is rows x M with leading dimension rows, W is
// rows x rows. K is the DEM-error coefficient.
void readoneunwseries3(const CFG& cfg, float** stack, const int* count, int64_t M,
                       const std::vector<DATEORDER>& dateorder, const BASELINE* baselines, int64_t pixel,
                       double K, double* y, double* A, double* W, int64_t rows);

}  // namespace com
