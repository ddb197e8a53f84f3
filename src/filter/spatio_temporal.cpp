// The spatio-temporal filter treats the stack of displacement maps as one
// block of time x rows x columns and weights its three-dimensional spectrum
// with a Gaussian centred on zero frequency, with its own width (in
// frequency bins) along time and along space.
//
// In time the stack is padded as the temporal filter pads a series: floor(M/2)
// copies of the first map before it and of the last map after it (one more
// after it when the length would be odd). In space the grid is cut to even
// sizes as the spatial filter cuts it, so the last row or column of an odd
// grid is written as read. The sign (-1)^(t + r + c) moves zero frequency to
// the centre bin; after the backward transform it is undone and the result
// divided by the number of transformed samples. No-data samples enter as 0
// and stay 0.
//
// The whole stack is in memory at once (there is no batching here): the
// float block and the two complex arrays of the padded size.
#include "filter/spatio_temporal.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <vector>

#include "catalogue/dates.h"
#include "catalogue/header.h"
#include "catalogue/raster.h"
#include "filter/shared.h"
#include "numerics/arrays.h"
#include "numerics/sink.h"
#include "numerics/validity.h"

namespace sbas {

lib::Status spatial_temporal_filter(CFG cfg, const HEADER& header, const std::vector<DATEORDER>& dates)
{
    const int64_t date_count = static_cast<int64_t>(dates.size());
    const int64_t maps = date_count > 1 ? date_count - 1 : 0;

    double sigma_t = cfg.temporal_filter_sigma;
    if (sigma_t < 0) sigma_t = com::mean_date_spacing(dates);
    double sigma_s = cfg.spatial_filter_sigma;
    if (sigma_s < 0) sigma_s = static_cast<double>(header.FILE_LENGTH + header.WIDTH) * 0.3 * 0.5;

    std::fputs("\n*************Time series 3D filter start*****************\n", stderr);
    // The date count, one more than the number of maps, is what this banner
    // shows (the temporal filter shows the maps).
    std::fprintf(stderr, "Number of dispalcement maps     : %d\n", static_cast<int>(date_count));
    std::fprintf(stderr, "Temporal filter sigma           : %.3f \n", sigma_t);
    std::fprintf(stderr, "Spatial filter sigma            : %.3f \n", sigma_s);

    const int64_t pixels = com::pixel_count(header);
    if (maps > 0 && pixels > std::numeric_limits<int64_t>::max() / maps) lib::out_of_memory();
    const lib::Owned<float> cube(maps * pixels);
    float* block = cube.get();
    for (int64_t k = 0; k < maps; ++k) {
        float* map = block + k * pixels;
        SBAS_TRY(com::read_raster(com::map_path(cfg, dates, static_cast<size_t>(k + 1), "").c_str(), 0, pixels, map));
        for (int64_t i = 0; i < pixels; ++i)
            if (!lib::isvalid(map[i])) map[i] = 0.0f;
    }
    if (maps > 0 && pixels > 0)
        com::spatial_temporal_3d_filter2(maps, header.FILE_LENGTH, header.WIDTH, block, sigma_t, sigma_s, sigma_s);
    for (int64_t k = 0; k < maps; ++k)
        SBAS_TRY(com::write_samples(com::map_path(cfg, dates, static_cast<size_t>(k + 1), ".filtered").c_str(), "wb",
                                    block + k * pixels, pixels));
    std::fputs("\n*************Time series 3D filter finish****************\n", stderr);
    return {};
}

}  // namespace sbas

namespace com {

void spatial_temporal_3d_filter2(int64_t maps, int64_t rows, int64_t cols, float* data, double sigma_t,
                                 double sigma_r, double sigma_c)
{
    const SeriesPadding padding = pad_series(maps);
    const int64_t p = padding.pad, T = padding.length;
    const int64_t R = even_cut(rows), K = even_cut(cols);
    if (T < 1 || R < 1 || K < 1) return;  // nothing inside the even cut
    const int n0 = fft_size(T), n1 = fft_size(R), n2 = fft_size(K);
    if (T > std::numeric_limits<int64_t>::max() / R / K) lib::out_of_memory();
    FftBuffers fft = fft_buffers(T * R * K);
    const fftw_plan forward = fftw_plan_dft_3d(n0, n1, n2, fft.a, fft.b, FFTW_FORWARD, FFTW_ESTIMATE);
    const fftw_plan backward = fftw_plan_dft_3d(n0, n1, n2, fft.b, fft.a, FFTW_BACKWARD, FFTW_ESTIMATE);

    const int64_t map_stride = rows * cols;
    for (int64_t t = 0; t < T; ++t) {
        const int64_t s = t < p ? 0 : t < p + maps ? t - p : maps - 1;
        for (int64_t r = 0; r < R; ++r) {
            const float* in = data + s * map_stride + r * cols;
            fftw_complex* out = fft.a + (t * R + r) * K;
            for (int64_t c = 0; c < K; ++c) {
                const double value = in[c];
                out[c][0] = (t + r + c) % 2 != 0 ? -value : value;
                out[c][1] = 0.0;
            }
        }
    }
    fftw_execute(forward);

    std::vector<double> row_exponent(static_cast<size_t>(R)), column_exponent(static_cast<size_t>(K));
    for (int64_t r = 0; r < R; ++r) row_exponent[r] = gauss_exponent(r, R, sigma_r);
    for (int64_t c = 0; c < K; ++c) column_exponent[c] = gauss_exponent(c, K, sigma_c);
    for (int64_t t = 0; t < T; ++t) {
        const double time_exponent = gauss_exponent(t, T, sigma_t);
        for (int64_t r = 0; r < R; ++r) {
            const double head = -time_exponent - row_exponent[r];
            fftw_complex* spectrum = fft.b + (t * R + r) * K;
            for (int64_t c = 0; c < K; ++c) {
                const float gain = static_cast<float>(std::exp(head - column_exponent[c]));
                spectrum[c][0] *= gain;
                spectrum[c][1] *= gain;
            }
        }
    }
    fftw_execute(backward);

    const float samples = static_cast<float>(R * T * K);
    for (int64_t t = p; t < p + maps; ++t)
        for (int64_t r = 0; r < R; ++r) {
            float* sample = data + (t - p) * map_stride + r * cols;
            const fftw_complex* in = fft.a + (t * R + r) * K;
            for (int64_t c = 0; c < K; ++c) {
                if (!lib::isvalid(sample[c])) continue;  // the mask
                float value = static_cast<float>(in[c][0]);
                if ((t + r + c) % 2 != 0) value = -value;
                sample[c] = value / samples;
            }
        }

    fftw_destroy_plan(forward);
    fftw_destroy_plan(backward);
    free_fft_buffers(fft);
}

}  // namespace com
