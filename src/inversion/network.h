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
// fewer observations than unknowns are 0 in every output. cfg.n_ifg must be
// the number of names of cfg.ifg_names.
void sbas_step2_sbas_linear_new(CFG cfg, std::vector<DATEORDER> dateorder, const BASELINE* baselines,
                                float** stack, const int* count, int64_t start, int64_t end);

// What one or more batches of the inversion did, for the benchmark: pixel
// and pattern counts, and the seconds spent in each stage, summed over the
// threads (writing runs on one thread).
struct InversionProfile {
    int64_t complete = 0;    // pixels valid in every interferogram
    int64_t incomplete = 0;  // other pixels with enough observations
    int64_t patterns = 0;    // distinct validity patterns of those, per thread
    int64_t single = 0;      // patterns of one pixel
    double grouping = 0, factorising = 0, products = 0, writing = 0;
};

// sbas_step2_sbas_linear_new, adding to *profile when it is not null
// (measuring costs a little time).
void invert_batch(const CFG& cfg, const std::vector<DATEORDER>& dateorder, const BASELINE* baselines,
                  float* const* stack, const int* count, int64_t start, int64_t end, InversionProfile* profile);

}  // namespace sbas

namespace com {

// Builds the reduced system of one pixel into storage the caller has zeroed:
// one row per interferogram valid at `pixel`, in list order and at most as
// many as the rows leave before the constraint rows (y = the sample, ones
// over the increments it spans, Bperp*K in the last column when if_est_hgt is
// set, weight 1), then D - 1 constraint rows when temporal_constraint is 1 or
// 2 (weight 1/sqrt(temporal_strength)). A is rows x M with leading dimension
// rows. The weights are diagonal and are given as their diagonal: w holds
// rows entries, not a rows x rows matrix. K is the DEM-error coefficient.
// Every pixel with the same valid interferograms gets the same A and w.
void readoneunwseries3(const CFG& cfg, float* const* stack, const int* count, int64_t M,
                       const std::vector<DATEORDER>& dateorder, const BASELINE* baselines, int64_t pixel,
                       double K, double* y, double* A, double* w, int64_t rows);

}  // namespace com
