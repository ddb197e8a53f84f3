// What the three filters share: the complex buffers of their transforms, the
// sizes they transform, one term of their Gaussian gains, and the names of
// the displacement maps they read and write.
#pragma once

#include <fftw3.h>

#include <cstdint>
#include <vector>

#include "catalogue/dates.h"
#include "catalogue/raster.h"
#include "config/cfg.h"

namespace com {

// The two complex arrays of a transform pair: `a` holds the signal, `b` its
// spectrum. Both come from fftw_malloc, so they share FFTW's alignment.
struct FftBuffers {
    fftw_complex* a = nullptr;
    fftw_complex* b = nullptr;
};

// Two arrays of n complex doubles (uninitialised), or the end of the run
// with "Could not allocate memory!\n" when memory fails (also when n bytes
// cannot be counted). n < 1 gives two null pointers.
FftBuffers fft_buffers(int64_t n);

// Releases both arrays (fftw_free); null pointers are ignored.
void free_fft_buffers(FftBuffers& buffers);

// A size as FFTW's planner takes it (int); a size it cannot take ends the
// run as a failed allocation would.
int fft_size(int64_t n);

// A grid size cut to even: n less 1 when n is odd; 0 for n < 1. The filters
// never pad in space, so the last row or column of an odd grid stays out.
int64_t even_cut(int64_t n);

// Padding of a series of n samples by repeating its edges: p = floor(n / 2)
// samples on each side, plus one at the end when n + 2p is odd.
struct SeriesPadding {
    int64_t pad = 0;     // p, samples repeated before the first one
    int64_t length = 0;  // n + 2p, rounded up to even
};
SeriesPadding pad_series(int64_t n);

// (k - size/2)^2 / (2 sigma^2) in double, size/2 in integers: the exponent
// of the Gaussian gain at bin k of an axis of `size` bins whose zero
// frequency has been moved to bin size/2.
double gauss_exponent(int64_t k, int64_t size, double sigma);

// The default temporal sigma: the mean spacing of the dates in days, the
// span from the first to the last date over the number of maps (NaN with
// one date or none).
double mean_date_spacing(const std::vector<DATEORDER>& dates);

// The displacement map of the date at position k (k >= 1) of `dates`:
// resultfolder "/" "culmap-DATE-FIRSTDATE.disp" followed by `suffix`
// ("" for the inversion's map, ".filtered", ".sfilter").
Path map_path(const CFG& cfg, const std::vector<DATEORDER>& dates, size_t k, const char* suffix);

}  // namespace com
