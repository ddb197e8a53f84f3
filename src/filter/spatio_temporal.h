// The spatio-temporal filter: one three-dimensional Gaussian low-pass over
// the whole stack of displacement maps (time x rows x columns).
#pragma once

#include <cstdint>

#include <vector>

#include "catalogue/dates.h"
#include "catalogue/header.h"
#include "config/cfg.h"
#include "numerics/error.h"

namespace sbas {

// Reads every displacement map culmap-D-F.disp of resultfolder whole into
// one block (no-data as 0), filters the block with
// spatial_temporal_3d_filter2 and writes each map to culmap-D-F.disp.filtered.
// Sigmas in frequency bins: temporal_filter_sigma, or the mean date spacing
// in days when negative; spatial_filter_sigma, or (FILE_LENGTH + WIDTH) *
// 0.3 * 0.5 when negative. Memory: the block (maps x pixels floats) and two
// complex double arrays of about twice that many samples. A missing or short
// map is reported.
lib::Status spatial_temporal_filter(CFG cfg, const HEADER& header, const std::vector<DATEORDER>& dates);

}  // namespace sbas

namespace com {

// Filters `data` (maps x rows x cols float32, map after map, each row-major)
// in place: the stack is padded in time by repeating its first and last
// maps, cut to even rows and columns, multiplied by (-1)^(t + r + c), and
// its spectrum weighted by exp(-(t - T/2)^2 / (2 sigma_t^2) - (r - R/2)^2 /
// (2 sigma_r^2) - (c - K/2)^2 / (2 sigma_c^2)). Samples that are no-data
// (lib::isvalid) and the last row or column of an odd grid are left as
// they were.
void spatial_temporal_3d_filter2(int64_t maps, int64_t rows, int64_t cols, float* data, double sigma_t,
                                 double sigma_r, double sigma_c);

}  // namespace com
