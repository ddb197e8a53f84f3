// The temporal filter smooths every pixel's displacement history with a
// Gaussian over its frequency bins. The M samples of a history are treated
// as evenly spaced whatever the dates, and gaps (no-data) enter as 0.
//
// A history is padded on both sides by repeating its first and last values,
// floor(M/2) samples each (one more at the end if the length would be odd),
// so that the circular transform does not wrap the last value onto the first.
// Multiplying by (-1)^i moves zero frequency to bin L/2, where the gain
// exp(-(j - L/2)^2 / (2 sigma^2)) is 1; both the exponent and the gain are
// rounded to single precision, and the result, undone by the same sign and
// divided by L for FFTW's unscaled inverse, is single precision too.
//
// Every history of a run has the same length, so the transforms are planned
// once and executed on each series in the plan's own arrays; FFTW gives the
// same bytes for the same plan, size and alignment, which is what a fresh plan
// per series (fftw_1d_filter2) would give. The gain is the same for every
// series and is computed once as well.
//
// The maps are read and written maxcap pixels at a time, so one batch of the
// whole history is in memory; outputs are appended batch after batch.
#include "filter/temporal.h"

#include <omp.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "catalogue/header.h"
#include "catalogue/raster.h"
#include "numerics/arrays.h"
#include "numerics/parallel.h"
#include "numerics/ranks.h"
#include "numerics/spread.h"
#include "numerics/validity.h"

namespace sbas {
lib::Status temporal_filter(CFG cfg, const HEADER& header, const std::vector<DATEORDER>& dates)
{
    const int64_t maps = dates.size() > 1 ? static_cast<int64_t>(dates.size()) - 1 : 0;
    double sigma = cfg.temporal_filter_sigma;
    if (sigma < 0) sigma = com::mean_date_spacing(dates);
    std::fputs("\n**********Time series temporal filter start**************\n", stderr);

    const int64_t pixels = com::pixel_count(header);
    const float total = lib::batch_total(header.WIDTH, header.FILE_LENGTH, cfg.maxcap);
    com::SeriesFilter filter;
    if (maps > 0) filter = com::plan_series_filter(maps, sigma);

    const lib::Status filtered_all = lib::for_each_batch_spread(pixels, cfg.maxcap, [&](const lib::Batch& batch) -> lib::Status {
        std::fprintf(stderr, "\n=> Filtering batch %d / %.0f\n", batch.number, total);
        SBAS_TAKE(float** history, com::readreftimeseries(cfg, dates, batch.first, batch.end));
        std::fprintf(stderr, "Number of dispalcement maps     : %d\n", static_cast<int>(maps));
        std::fprintf(stderr, "Guassian kernal sigma           : %.2f days\n", sigma);
        const int64_t count = batch.end - batch.first;
        // Pixels in contiguous blocks, each thread with its own arrays.
#pragma omp parallel num_threads(lib::region_threads(cfg.max_parallel_threads))
        if (maps > 0) {
            const lib::Block own = lib::block_of(count, omp_get_num_threads(), omp_get_thread_num());
            std::vector<double> series(static_cast<size_t>(maps));
            std::vector<float> filtered(static_cast<size_t>(maps));
            com::FftBuffers fft = com::fft_buffers(filter.length);
            for (int64_t j = own.first; j < own.end; ++j) {
                for (int64_t k = 0; k < maps; ++k) series[k] = history[k][j];
                com::filter_series(filter, fft, series.data(), filtered.data());
                for (int64_t k = 0; k < maps; ++k) history[k][j] = filtered[k];
            }
            com::free_fft_buffers(fft);
        }
        lib::Status written;
        for (int64_t k = 0; k < maps && written.ok(); ++k) {
            const com::Path output = com::map_path(cfg, dates, static_cast<size_t>(k + 1), ".filtered");
            written = com::write_batch_at(output.c_str(), batch.first, history[k], count);
        }
        lib::free2d_float(history, static_cast<int>(maps));
        return written;
    });
    if (maps > 0) com::destroy_series_filter(filter);
    SBAS_TRY(filtered_all);

    // The spatially filtered maps were only the way in; they go once read.
    if (cfg.if_apply_filter == 4 && lib::ranks().rank == 0)
        for (size_t k = 1; k < dates.size(); ++k) std::remove(com::map_path(cfg, dates, k, ".sfilter").c_str());
    std::fputs("\n***********Time series temporal filter finish************\n", stderr);
    return {};
}

}  // namespace sbas

namespace com {

lib::Result<float**> readreftimeseries(const CFG& cfg, const std::vector<DATEORDER>& dates, int64_t start,
                                       int64_t end)
{
    if (dates.size() < 2) return static_cast<float**>(nullptr);
    const int64_t maps = static_cast<int64_t>(dates.size()) - 1;
    const int64_t count = end - start;
    float** history = lib::need_rows(maps, count);
    const char* suffix = cfg.if_apply_filter == 4 ? ".sfilter" : "";
    for (int64_t k = 0; k < maps; ++k) {
        const Path input = map_path(cfg, dates, static_cast<size_t>(k + 1), suffix);
        const lib::Status read = read_raster(input.c_str(), start, count, history[k]);
        if (!read.ok()) {
            lib::free2d_float(history, static_cast<int>(maps));
            return read.error();
        }
        for (int64_t j = 0; j < count; ++j)
            if (!lib::isvalid(history[k][j])) history[k][j] = 0.0f;
    }
    return history;
}

SeriesFilter plan_series_filter(int64_t n, double sigma)
{
    SeriesFilter filter;
    const SeriesPadding padding = pad_series(n);
    filter.n = n;
    filter.pad = padding.pad;
    filter.length = padding.length;
    const int length = fft_size(filter.length);
    filter.fft = fft_buffers(filter.length);
    filter.forward = fftw_plan_dft_1d(length, filter.fft.a, filter.fft.b, FFTW_FORWARD, FFTW_ESTIMATE);
    filter.backward = fftw_plan_dft_1d(length, filter.fft.b, filter.fft.a, FFTW_BACKWARD, FFTW_ESTIMATE);
    filter.gain.resize(static_cast<size_t>(filter.length));
    for (int64_t j = 0; j < filter.length; ++j) {
        const float exponent = static_cast<float>(gauss_exponent(j, filter.length, sigma));
        filter.gain[j] = static_cast<float>(std::exp(-static_cast<double>(exponent)));
    }
    return filter;
}

void filter_series(const SeriesFilter& filter, const double* series, float* filtered)
{
    FftBuffers own = filter.fft;
    filter_series(filter, own, series, filtered);
}

void filter_series(const SeriesFilter& filter, FftBuffers& fft, const double* series, float* filtered)
{
    const int64_t n = filter.n, pad = filter.pad, L = filter.length;
    fftw_complex* a = fft.a;
    fftw_complex* b = fft.b;
    for (int64_t i = 0; i < L; ++i) {
        const double value = i < pad ? series[0] : i < pad + n ? series[i - pad] : series[n - 1];
        a[i][0] = i % 2 != 0 ? -value : value;
        a[i][1] = 0.0;
    }
    fftw_execute_dft(filter.forward, a, b);
    for (int64_t j = 0; j < L; ++j) {
        b[j][0] *= filter.gain[j];
        b[j][1] *= filter.gain[j];
    }
    fftw_execute_dft(filter.backward, b, a);
    const float length = static_cast<float>(L);
    for (int64_t i = pad; i < pad + n; ++i) {
        float value = static_cast<float>(a[i][0]);
        if (i % 2 != 0) value = -value;
        filtered[i - pad] = value / length;
    }
}

void destroy_series_filter(SeriesFilter& filter)
{
    if (filter.forward) fftw_destroy_plan(filter.forward);
    if (filter.backward) fftw_destroy_plan(filter.backward);
    free_fft_buffers(filter.fft);
    filter = {};
}

float* fftw_1d_filter2(int64_t n, const double* series, double sigma)
{
    float* filtered = lib::need<float>(n);
    SeriesFilter filter = plan_series_filter(n, sigma);
    filter_series(filter, series, filtered);
    destroy_series_filter(filter);
    return filtered;
}

}  // namespace com
