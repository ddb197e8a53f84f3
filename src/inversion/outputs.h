// What the inversion tells the user and writes: the report of a batch and
// the batch's pixels of every output raster.
#pragma once

#include <cstdint>
#include <vector>

#include "inversion/solve.h"
#include "numerics/error.h"

namespace sbas {

// The settings and sizes of a batch of P pixels, and the time it starts.
void report(const CFG& cfg, const Network& net, int64_t P);

// The batch's pixels of culmap-DATE-FIRSTDATE.disp for every date after the
// first, least_square_sigma, linear_mean_velocity (the last cumulative value
// over the span in years) and, with if_est_hgt 1,
// baseline_dependent_dem_error.
lib::Status write_maps(const CFG& cfg, const Network& net, const std::vector<DATEORDER>& dates, const Maps& maps,
                       int64_t start, int64_t P);

}  // namespace sbas
