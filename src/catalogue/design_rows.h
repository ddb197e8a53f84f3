// The rows of a pixel's small-baseline system: what an interferogram and the
// temporal model contribute to the design matrix, and the reduced system of
// one pixel built from its valid interferograms.
//
// Unknown j (j = 0 .. D-2) is the displacement increment from date j to date
// j+1. An interferogram spanning dates j1 < j2 observes the sum of the
// increments j1 .. j2-1, plus Bperp*K*dz when a DEM error dz is estimated. A
// temporal model adds one unknown and one constraint row per increment:
// increment_k - model * (term(k+1) - term(k)) = 0, observed as 0.
#pragma once

#include <cstdint>
#include <vector>

#include "catalogue/baselines.h"
#include "catalogue/dates.h"
#include "config/cfg.h"

namespace com {

// Sets the ones of an interferogram spanning dates j1 < j2 in row `row` of a
// column-major design matrix with leading dimension ld (columns below 0 or
// from `increments` on are left out).
void set_span(double* A, int64_t ld, int64_t row, int64_t j1, int64_t j2, int64_t increments);

// The terms of the temporal model's column in the constraint rows:
// -(t[k+1] - t[k]) / 365.25 for the linear model, -(ln(t[k+1] - t0) -
// ln(t[k] - t0)) for the logarithmic one (t in MJD, t0 simple_log_origin_mjd).
double model_term(const CFG& cfg, const std::vector<DATEORDER>& dates, int64_t k);

// Builds the reduced system of one pixel into storage the caller has zeroed:
// one row per interferogram valid at `pixel`, in list order and at most as
// many as the rows leave before the constraint rows (y = the sample, ones
// over the increments it spans, Bperp*K in the last column when if_est_hgt is
// set, weight 1), then D - 1 constraint rows when temporal_constraint is 1 or
// 2 (weight 1/sqrt(temporal_strength); the full network's rows weigh
// temporal_strength, a difference kept on purpose and pinned by
// ThreeDates.ReducedSystemWeighsConstraintsByOneOverRootStrength). A is rows x M with leading dimension
// rows. The weights are diagonal and are given as their diagonal: w holds
// rows entries, not a rows x rows matrix. K is the DEM-error coefficient.
// Every pixel with the same valid interferograms gets the same A and w.
void readoneunwseries3(const CFG& cfg, float* const* stack, const int* count, int64_t M,
                       const std::vector<DATEORDER>& dateorder, const BASELINE* baselines, int64_t pixel,
                       double K, double* y, double* A, double* w, int64_t rows);

}  // namespace com
