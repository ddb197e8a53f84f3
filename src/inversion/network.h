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
#include "numerics/error.h"

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
lib::Status sbas_step2_sbas_linear_new(CFG cfg, std::vector<DATEORDER> dateorder, const BASELINE* baselines,
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
lib::Status invert_batch(const CFG& cfg, const std::vector<DATEORDER>& dateorder, const BASELINE* baselines,
                         float* const* stack, const int* count, int64_t start, int64_t end, InversionProfile* profile);

}  // namespace sbas
