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
#include <algorithm>
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
#include "numerics/parallel.h"
#include "numerics/sink.h"
#include "numerics/ranks.h"
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

// One raster to filter: where it is read, where it goes, and the line that
// announces it.
struct Raster {
    com::Path input;
    com::Path output;
    std::string line;
};

// Filters the rasters that exist, in order, a round of one per thread at a
// time: each round announces and reads its rasters in order, filters them
// side by side, each thread in its own buffers with the plans made once,
// and writes them in order. A raster's bytes are those of filtering it
// alone (FFTW gives the same bytes for one plan, size and alignment).
lib::Status filter_rasters(const CFG& cfg, const HEADER& header, const std::vector<Raster>& rasters)
{
    const int64_t pixels = com::pixel_count(header);
    if (pixels < 1) {
        for (const Raster& r : rasters) {
            if (!lib::opens_for_reading(r.input.c_str())) continue;
            std::fputs(r.line.c_str(), stderr);
            SBAS_TRY(com::spatial_filter(cfg, header, r.input.c_str(), r.output.c_str()));
        }
        return {};
    }
    double sigma = cfg.spatial_filter_sigma;
    if (sigma < 0) sigma = static_cast<double>(header.WIDTH + header.FILE_LENGTH) * 0.3 * 0.5;
    const int threads = lib::region_threads(cfg.max_parallel_threads);
    // The rasters there are, in order, in rounds of one per thread; in an MPI
    // run round c is rank c mod R's, and rank 0 writes the announcements of
    // every round in order.
    std::vector<const Raster*> present;
    for (const Raster& r : rasters)
        if (lib::opens_for_reading(r.input.c_str())) present.push_back(&r);
    const size_t rounds = (present.size() + static_cast<size_t>(threads) - 1) / static_cast<size_t>(threads);
    const lib::Ranks place = lib::ranks();
    std::vector<std::vector<float>> data;
    std::vector<const Raster*> round;
    com::PlaneFilter filter;
    bool planned = false;
    std::vector<com::FftBuffers> buffers;
    lib::Status status;
    for (size_t first_round = 0; first_round < rounds; first_round += static_cast<size_t>(place.size)) {
        lib::begin_round();
        const size_t mine = first_round + static_cast<size_t>(place.rank);
        round.clear();
        for (size_t k = mine * static_cast<size_t>(threads);
             mine < rounds && k < std::min(present.size(), (mine + 1) * static_cast<size_t>(threads)); ++k) {
            const Raster& r = *present[k];
            std::fputs(r.line.c_str(), stderr);
            if (data.size() < round.size() + 1) data.emplace_back(static_cast<size_t>(pixels));
            status = com::read_raster(r.input.c_str(), 0, pixels, data[round.size()].data());
            if (!status.ok()) break;
            round.push_back(&r);
        }
        if (status.ok() && !round.empty()) {
            if (!planned) {
                filter = com::plan_plane_filter(header.FILE_LENGTH, header.WIDTH, sigma, sigma);
                planned = true;
            }
            while (buffers.size() < round.size()) buffers.push_back(com::fft_buffers(filter.rows * filter.cols));
            const int64_t count = static_cast<int64_t>(round.size());
#pragma omp parallel for num_threads(static_cast<int>(count)) schedule(static, 1)
            for (int64_t i = 0; i < count; ++i) {
                float* samples = data[static_cast<size_t>(i)].data();
                for (int64_t p = 0; p < pixels; ++p)
                    if (!lib::isvalid(samples[p])) samples[p] = 0.0f;
                com::filter_plane(filter, buffers[static_cast<size_t>(i)], header.FILE_LENGTH, header.WIDTH, samples);
            }
            for (int64_t i = 0; i < count && status.ok(); ++i)
                status = com::write_samples(round[static_cast<size_t>(i)]->output.c_str(), "wb",
                                            data[static_cast<size_t>(i)].data(), pixels);
        }
        status = lib::end_round(std::move(status));
        if (!status.ok()) break;
    }
    for (com::FftBuffers& b : buffers) com::free_fft_buffers(b);
    if (planned) com::destroy_plane_filter(filter);
    return status;
}

}  // namespace

lib::Status spatial_filter(CFG cfg, const HEADER& header, const std::vector<DATEORDER>& dates)
{
    std::fputs("\n***********Time series spatial filter start**************\n", stderr);
    if (cfg.if_apply_filter < 1 || cfg.if_apply_filter > 5)
        return lib::error(lib::Fault::setting, "if_apply_filter", lib::Stream::err,
                          "illegal parameters if_apply_filter = %d\n", cfg.if_apply_filter);

    const MapFiles files = map_files(cfg.if_apply_filter);
    // The rasters in the order they are filtered: the maps, then the two
    // velocities; each is looked for when its turn comes.
    std::vector<Raster> rasters;
    for (size_t k = 1; files.input && k < dates.size(); ++k) {
        char line[96];
        std::snprintf(line, sizeof line, "spatially fitering culmap-%d-%d.disp\n", static_cast<int>(dates[k].date),
                      static_cast<int>(dates[0].date));
        rasters.push_back({com::map_path(cfg, dates, k, files.input), com::map_path(cfg, dates, k, files.output), line});
    }
    for (const char* name : {"linear_mean_velocity", "linear_stacking_mean_velocity"})
        rasters.push_back({com::join_path(cfg.resultfolder, name),
                           com::join_path(cfg.resultfolder, (std::string(name) + ".filtered").c_str()),
                           std::string("spatially fitering ") + name + "\n"});
    SBAS_TRY(filter_rasters(cfg, header, rasters));
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

PlaneFilter plan_plane_filter(int64_t rows, int64_t cols, double sigma_rows, double sigma_cols)
{
    PlaneFilter filter;
    filter.rows = even_cut(rows);
    filter.cols = even_cut(cols);
    const int64_t R = filter.rows, K = filter.cols;
    if (R < 1 || K < 1) return filter;  // nothing inside the even cut
    FftBuffers fft = fft_buffers(R * K);
    filter.forward = fftw_plan_dft_2d(fft_size(R), fft_size(K), fft.a, fft.b, FFTW_FORWARD, FFTW_ESTIMATE);
    filter.backward = fftw_plan_dft_2d(fft_size(R), fft_size(K), fft.b, fft.a, FFTW_BACKWARD, FFTW_ESTIMATE);
    free_fft_buffers(fft);
    filter.gain.resize(static_cast<size_t>(R * K));
    std::vector<double> column_exponent(static_cast<size_t>(K));
    for (int64_t c = 0; c < K; ++c) column_exponent[c] = gauss_exponent(c, K, sigma_cols);
    for (int64_t r = 0; r < R; ++r) {
        const double row_exponent = gauss_exponent(r, R, sigma_rows);
        for (int64_t c = 0; c < K; ++c)
            filter.gain[static_cast<size_t>(r * K + c)] = static_cast<float>(std::exp(-row_exponent - column_exponent[c]));
    }
    return filter;
}

void filter_plane(const PlaneFilter& filter, FftBuffers& fft, int64_t rows, int64_t cols, float* data)
{
    (void)rows;
    const int64_t R = filter.rows, K = filter.cols;
    if (R < 1 || K < 1) return;
    for (int64_t r = 0; r < R; ++r)
        for (int64_t c = 0; c < K; ++c) {
            const double value = data[r * cols + c];
            fft.a[r * K + c][0] = (r + c) % 2 != 0 ? -value : value;
            fft.a[r * K + c][1] = 0.0;
        }
    fftw_execute_dft(filter.forward, fft.a, fft.b);
    const float* gain = filter.gain.data();
    for (int64_t i = 0; i < R * K; ++i) {
        fft.b[i][0] *= gain[i];
        fft.b[i][1] *= gain[i];
    }
    fftw_execute_dft(filter.backward, fft.b, fft.a);

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
}

void destroy_plane_filter(PlaneFilter& filter)
{
    if (filter.forward) fftw_destroy_plan(filter.forward);
    if (filter.backward) fftw_destroy_plan(filter.backward);
    filter = {};
}

int fftw_filter_2d(int64_t rows, int64_t cols, float* data, double sigma_rows, double sigma_cols, int /*flag*/)
{
    PlaneFilter filter = plan_plane_filter(rows, cols, sigma_rows, sigma_cols);
    if (filter.rows < 1 || filter.cols < 1) return 0;
    FftBuffers fft = fft_buffers(filter.rows * filter.cols);
    filter_plane(filter, fft, rows, cols, data);
    free_fft_buffers(fft);
    destroy_plane_filter(filter);
    return 0;
}

}  // namespace com
