// The spatial filter smooths a raster by multiplying its two-dimensional
// spectrum with a Gaussian centred on zero frequency. Before the forward
// transform every sample is multiplied by (-1)^(row + col), which moves zero
// frequency from the corner to the centre bin (R/2, K/2) of the grid, so the
// gain is a plain Gaussian of the bin offsets from the centre; the same sign
// undoes the shift after the backward transform, and the division by K then
// by R normalises FFTW's unscaled inverse. Sigma is a width in frequency
// bins: the larger it is, the more detail passes.
//
// The transform works on the grid cut to even sizes; the last row or column
// of an odd grid is never touched. No-data samples enter the transform as 0
// and are written back as 0: the filter spreads values into the
// neighbourhood of a gap but never fills the gap.
#include "filter/spatial.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "catalogue/dates.h"
#include "catalogue/header.h"
#include "catalogue/raster.h"
#include "config/fatal.h"
#include "filter/shared.h"
#include "numerics/arrays.h"
#include "numerics/sink.h"
#include "numerics/validity.h"

namespace sbas {
namespace {

// The map suffixes of each value of if_apply_filter; null: no map.
struct MapFiles {
    const char* input;
    const char* output;
};

MapFiles map_files(int if_apply_filter)
{
    switch (if_apply_filter) {
    case 1: return {"", ".filtered"};
    case 3: return {".filtered", ".filtered"};
    case 4: return {"", ".sfilter"};
    default: return {nullptr, nullptr};
    }
}

// Filters folder/name to folder/name.filtered when the input exists.
lib::Status filter_velocity(const CFG& cfg, const HEADER& header, const char* name, const char* line)
{
    const com::Path input = com::join_path(cfg.resultfolder, name);
    if (!lib::opens_for_reading(input.c_str())) return {};
    const com::Path output = com::join_path(cfg.resultfolder, (std::string(name) + ".filtered").c_str());
    std::fputs(line, stderr);
    return com::spatial_filter(cfg, header, input.c_str(), output.c_str());
}

}  // namespace

lib::Status spatial_filter(CFG cfg, const HEADER& header, const std::vector<DATEORDER>& dates)
{
    std::fputs("\n***********Time series spatial filter start**************\n", stderr);
    if (cfg.if_apply_filter < 1 || cfg.if_apply_filter > 5)
        return lib::error(lib::Fault::setting, "if_apply_filter", lib::Stream::err,
                          "illegal parameters if_apply_filter = %d\n", cfg.if_apply_filter);

    const MapFiles files = map_files(cfg.if_apply_filter);
    for (size_t k = 1; files.input && k < dates.size(); ++k) {
        const com::Path input = com::map_path(cfg, dates, k, files.input);
        if (!lib::opens_for_reading(input.c_str())) continue;
        const com::Path output = com::map_path(cfg, dates, k, files.output);
        std::fprintf(stderr, "spatially fitering culmap-%d-%d.disp\n", static_cast<int>(dates[k].date),
                     static_cast<int>(dates[0].date));
        SBAS_TRY(com::spatial_filter(cfg, header, input.c_str(), output.c_str()));
    }
    SBAS_TRY(filter_velocity(cfg, header, "linear_mean_velocity", "spatially fitering linear_mean_velocity\n"));
    SBAS_TRY(filter_velocity(cfg, header, "linear_stacking_mean_velocity",
                             "spatially fitering linear_stacking_mean_velocity\n"));
    std::fputs("\n***********Time series spatial filter finish*************\n", stderr);
    return {};
}

}  // namespace sbas

namespace com {

lib::Status spatial_filter(const CFG& cfg, const HEADER& header, const char* input, const char* output)
{
    const int64_t pixels = pixel_count(header);
    const lib::Owned<float> raster(pixels);
    float* data = raster.get();
    // The whole raster with the size check: a short file is reported
    // rather than leaving part of the buffer unread.
    SBAS_TRY(read_raster(input, 0, pixels, data));
    for (int64_t i = 0; i < pixels; ++i)
        if (!lib::isvalid(data[i])) data[i] = 0.0f;

    double sigma = cfg.spatial_filter_sigma;
    if (sigma < 0) sigma = static_cast<double>(header.WIDTH + header.FILE_LENGTH) * 0.3 * 0.5;
    if (pixels > 0) fftw_filter_2d(header.FILE_LENGTH, header.WIDTH, data, sigma, sigma, 1);
    return write_samples(output, "wb", data, pixels);
}

int fftw_filter_2d(int64_t rows, int64_t cols, float* data, double sigma_rows, double sigma_cols, int /*flag*/)
{
    const int64_t R = even_cut(rows);
    const int64_t K = even_cut(cols);
    if (R < 1 || K < 1) return 0;  // nothing inside the even cut
    const int n0 = fft_size(R);
    const int n1 = fft_size(K);
    FftBuffers fft = fft_buffers(R * K);
    const fftw_plan forward = fftw_plan_dft_2d(n0, n1, fft.a, fft.b, FFTW_FORWARD, FFTW_ESTIMATE);
    const fftw_plan backward = fftw_plan_dft_2d(n0, n1, fft.b, fft.a, FFTW_BACKWARD, FFTW_ESTIMATE);

    for (int64_t r = 0; r < R; ++r)
        for (int64_t c = 0; c < K; ++c) {
            const double value = data[r * cols + c];
            fft.a[r * K + c][0] = (r + c) % 2 != 0 ? -value : value;
            fft.a[r * K + c][1] = 0.0;
        }
    fftw_execute(forward);

    std::vector<double> column_exponent(static_cast<size_t>(K));
    for (int64_t c = 0; c < K; ++c) column_exponent[c] = gauss_exponent(c, K, sigma_cols);
    for (int64_t r = 0; r < R; ++r) {
        const double row_exponent = gauss_exponent(r, R, sigma_rows);
        for (int64_t c = 0; c < K; ++c) {
            const float gain = static_cast<float>(std::exp(-row_exponent - column_exponent[c]));
            fft.b[r * K + c][0] *= gain;
            fft.b[r * K + c][1] *= gain;
        }
    }
    fftw_execute(backward);

    const float columns = static_cast<float>(K);
    const float rows_cut = static_cast<float>(R);
    for (int64_t r = 0; r < R; ++r)
        for (int64_t c = 0; c < K; ++c) {
            float& sample = data[r * cols + c];
            if (sample == 0.0f) continue;  // the mask
            float value = static_cast<float>(fft.a[r * K + c][0]);
            if ((r + c) % 2 != 0) value = -value;
            value = value / columns;
            sample = value / rows_cut;
        }

    fftw_destroy_plan(forward);
    fftw_destroy_plan(backward);
    free_fft_buffers(fft);
    return 0;
}

}  // namespace com
