// The spatial filter: a two-dimensional Gaussian low-pass in the frequency
// domain over whole rasters, for the displacement maps and the two mean
// velocity rasters.
#pragma once

#include <cstdint>

#include <vector>

#include "catalogue/dates.h"
#include "catalogue/header.h"
#include "config/cfg.h"
#include "filter/shared.h"
#include "numerics/error.h"

namespace sbas {

// Filters, by cfg.if_apply_filter, every displacement map of the run in
// resultfolder:
//   1: culmap-D-F.disp to culmap-D-F.disp.filtered;
//   3: culmap-D-F.disp.filtered in place (after the temporal filter);
//   4: culmap-D-F.disp to culmap-D-F.disp.sfilter (read by the temporal
//      filter, which then removes them);
//   2, 5: no map;
// then linear_mean_velocity and linear_stacking_mean_velocity to their
// ".filtered" files. Missing inputs are skipped without a word. A value
// outside 1..5 is reported as "illegal parameters if_apply_filter = %d\n"
// after the start banner. `dates` are the run's dates, `header` its grid.
lib::Status spatial_filter(CFG cfg, const HEADER& header, const std::vector<DATEORDER>& dates);

}  // namespace sbas

namespace com {

// Reads the raster `input` whole (a missing or short file is reported),
// sets its no-data samples to 0, filters it with fftw_filter_2d and writes
// it to `output` (mode "wb"; may be `input`). Sigma is spatial_filter_sigma
// in frequency bins, or (WIDTH + FILE_LENGTH) * 0.3 * 0.5 when negative.
lib::Status spatial_filter(const CFG& cfg, const HEADER& header, const char* input, const char* output);

// Filters `data` (rows x cols float32, row-major) in place with the
// Gaussian gain exp(-(r - R/2)^2 / (2 sigma_rows^2) - (c - K/2)^2 /
// (2 sigma_cols^2)) over the frequency bins of the grid cut to even sizes
// R x K. Samples that are exactly 0 stay 0 (they are the mask), and the
// last row or column of an odd grid is left as it was. `flag` has no
// effect. Returns 0.
// The transforms and the gain of one grid, made once and applied to any
// number of rasters of it (plans made on one thread, executed on any).
struct PlaneFilter {
    int64_t rows = 0;  // the even cut
    int64_t cols = 0;
    fftw_plan forward = nullptr;
    fftw_plan backward = nullptr;
    std::vector<float> gain;  // rows x cols, row-major
};
PlaneFilter plan_plane_filter(int64_t rows, int64_t cols, double sigma_rows, double sigma_cols);
// Filters data (rows x cols) in place as fftw_filter_2d does, in `fft`
// (two arrays of the cut's size from fft_buffers).
void filter_plane(const PlaneFilter& filter, FftBuffers& fft, int64_t rows, int64_t cols, float* data);
void destroy_plane_filter(PlaneFilter& filter);

int fftw_filter_2d(int64_t rows, int64_t cols, float* data, double sigma_rows, double sigma_cols, int flag);

}  // namespace com
