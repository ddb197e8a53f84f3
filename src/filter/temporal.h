// The temporal filter: a Gaussian low-pass along every pixel's displacement
// history, in the frequency domain, batch by batch of maxcap pixels.
#pragma once

#include <fftw3.h>

#include <cstdint>
#include <vector>

#include "catalogue/dates.h"
#include <vector>

#include "catalogue/dates.h"
#include "catalogue/header.h"
#include "config/cfg.h"
#include "numerics/error.h"
#include "filter/shared.h"

namespace sbas {

// Filters the M = D - 1 displacement maps of the run in resultfolder along
// time, maxcap pixels at a time: reads culmap-D-F.disp (culmap-D-F.disp.sfilter
// when if_apply_filter is 4, then removes those) and writes
// culmap-D-F.disp.filtered. Sigma is temporal_filter_sigma in frequency bins,
// or the mean date spacing in days when negative. A missing or short map
// is reported. `dates` are the run's dates, `header` its grid.
lib::Status temporal_filter(CFG cfg, const HEADER& header, const std::vector<DATEORDER>& dates);

}  // namespace sbas

namespace com {

// Pixels [start, end) of the M displacement maps of `dates` (inputs chosen
// by cfg.if_apply_filter as in sbas::temporal_filter): M rows of end - start
// floats (lib::free2d_float), row k holding map k + 1, no-data samples set
// to 0. A missing or short map is reported. Null when there are fewer than
// two dates.
lib::Result<float**> readreftimeseries(const CFG& cfg, const std::vector<DATEORDER>& dates, int64_t start,
                                       int64_t end);

// The filter of series of n samples (n >= 1) with one sigma, planned once and
// applied to any number of series: the series is padded by repeating its
// edges to an even length L, multiplied by (-1)^i, transformed, weighted by
// the Gaussian gain of each frequency bin, transformed back and cut out.
// Applying it to a series gives the bytes of fftw_1d_filter2 on that series.
struct SeriesFilter {
    int64_t n = 0;             // samples of a series
    int64_t pad = 0;           // samples repeated before the first
    int64_t length = 0;        // L, the transformed length
    FftBuffers fft;            // the signal and spectrum arrays, L each
    fftw_plan forward = nullptr;
    fftw_plan backward = nullptr;
    std::vector<float> gain;   // per frequency bin, L entries
};

// Plans the filter of series of n >= 1 samples with `sigma` (frequency bins;
// 0 divides by zero, as the formula does, and every output is NaN). Release with
// destroy_series_filter. A failed allocation ends the run with "Could not
// allocate memory!\n".
SeriesFilter plan_series_filter(int64_t n, double sigma);

// Filters the n samples of `series` into `filtered` (n floats) with the
// filter's plans on its own arrays.
void filter_series(const SeriesFilter& filter, const double* series, float* filtered);
// The same in `fft` (two arrays of filter.length from fft_buffers), so that
// threads filter series side by side with the one plan.
void filter_series(const SeriesFilter& filter, FftBuffers& fft, const double* series, float* filtered);

void destroy_series_filter(SeriesFilter& filter);

// One series of n >= 1 samples filtered with a fresh plan pair: a new array
// of n floats (std::free).
float* fftw_1d_filter2(int64_t n, const double* series, double sigma);

}  // namespace com
