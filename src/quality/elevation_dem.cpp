// The DEM of the elevation correction, resampled onto the job's grid, and
// what it tells about itself.
//
// Every DEM value is a height and every DEM sample goes to its nearest grid
// pixel; a DEM that misses the grid, or that holds no usable height there,
// leaves the correction with nothing to fit, and the copies come out as the
// interferograms went in. So the stage says so, one line for each kind of
// trouble, before any interferogram is corrected: a file shorter than its
// header, grid pixels no DEM sample reaches (and why, as far as the two
// headers tell: no overlap, rows or columns the other way, part of the grid
// only, or samples too far apart), no usable height at all, and the void
// code -32768 used as a height. The heights themselves are what they always
// were.
#include <cmath>
#include <cstdio>
#include <string>

#include "catalogue/raster.h"
#include "config/fatal.h"
#include "numerics/arrays.h"
#include "numerics/validity.h"
#include "quality/corrections.h"

namespace com {
namespace {

// The height the usual void code of DEM products becomes (metres to km as
// the resampling computes it).
constexpr float kVoidHeight = -32768.0f / 1000.0f;

bool usable_step(double step) { return std::isfinite(step) && step != 0.0; }

// "longitude A to B, latitude C to D" of a header's samples.
std::string extent(const HEADER& h)
{
    char text[200];
    std::snprintf(text, sizeof text, "longitude %g to %g, latitude %g to %g", h.X_FIRST,
                  h.X_FIRST + static_cast<double>(h.WIDTH - 1) * h.X_STEP, h.Y_FIRST,
                  h.Y_FIRST + static_cast<double>(h.FILE_LENGTH - 1) * h.Y_STEP);
    return text;
}

// True when the samples of `outer` span those of `inner` along one axis, to
// half a step of `inner`.
bool spans(double outer_first, double outer_step, int64_t outer_n, double inner_first, double inner_step,
           int64_t inner_n)
{
    const double outer_last = outer_first + static_cast<double>(outer_n - 1) * outer_step;
    const double inner_last = inner_first + static_cast<double>(inner_n - 1) * inner_step;
    const double slack = 0.5 * std::fabs(inner_step);
    return std::fmin(outer_first, outer_last) <= std::fmin(inner_first, inner_last) + slack &&
           std::fmax(outer_first, outer_last) >= std::fmax(inner_first, inner_last) - slack;
}

bool covers(const HEADER& dem, const HEADER& grid)
{
    return spans(dem.X_FIRST, dem.X_STEP, dem.WIDTH, grid.X_FIRST, grid.X_STEP, grid.WIDTH) &&
           spans(dem.Y_FIRST, dem.Y_STEP, dem.FILE_LENGTH, grid.Y_FIRST, grid.Y_STEP, grid.FILE_LENGTH);
}

// Why the DEM reaches fewer pixels than the grid has, as far as the headers
// tell.
std::string why_not_reached(const CFG& cfg, const HEADER& grid, const Dem& dem)
{
    const HEADER& d = dem.header;
    char text[1200];
    if (!usable_step(grid.X_STEP) || !usable_step(grid.Y_STEP))
        std::snprintf(text, sizeof text, "headerfile %s has X_STEP %g and Y_STEP %g", cfg.headerfile, grid.X_STEP,
                      grid.Y_STEP);
    else if (!usable_step(d.X_STEP) || !usable_step(d.Y_STEP))
        std::snprintf(text, sizeof text, "demfile_header %s has X_STEP %g and Y_STEP %g", cfg.demfile_header,
                      d.X_STEP, d.Y_STEP);
    else if (dem.coverage.reached == 0)
        std::snprintf(text, sizeof text, "the DEM, %s, does not overlap the grid, %s", extent(d).c_str(),
                      extent(grid).c_str());
    else if ((d.Y_STEP > 0) != (grid.Y_STEP > 0) || (d.X_STEP > 0) != (grid.X_STEP > 0))
        std::snprintf(text, sizeof text,
                      "the DEM's rows or columns run the other way (its X_STEP %g, Y_STEP %g; the grid's %g, %g)",
                      d.X_STEP, d.Y_STEP, grid.X_STEP, grid.Y_STEP);
    else if (!covers(d, grid))
        std::snprintf(text, sizeof text, "the DEM, %s, covers only part of the grid, %s", extent(d).c_str(),
                      extent(grid).c_str());
    else
        std::snprintf(text, sizeof text,
                      "the DEM's samples, %g and %g apart, leave gaps between them on the grid's, %g and %g apart",
                      d.X_STEP, d.Y_STEP, grid.X_STEP, grid.Y_STEP);
    return text;
}

}  // namespace

lib::Result<Dem> read_dem(const CFG& cfg, const HEADER& grid)
{
    Dem dem;
    SBAS_TAKE(dem.header, readheader(cfg.demfile_header));
    const HEADER& d = dem.header;
    DemCoverage& seen = dem.coverage;
    seen.claimed = pixel_count(d);
    // A header may claim more samples than memory holds (its sizes are read
    // as 32-bit integers, their product needs 64 bits): say which header.
    lib::Owned<float> dem_samples = lib::Owned<float>::adopt(static_cast<float*>(lib::try_zeros_bytes(seen.claimed, sizeof(float))));
    if (seen.claimed > 0 && !dem_samples.get())
        return lib::error(lib::Fault::setting, cfg.demfile_header, lib::Stream::err,
                          "demfile_header %s describes a DEM of %lld x %lld samples, more than memory holds\n",
                          cfg.demfile_header, static_cast<long long>(d.WIDTH), static_cast<long long>(d.FILE_LENGTH));
    float* samples = dem_samples.get();
    SBAS_TAKE(const lib::File file, lib::fopen_zq(cfg.demfile, "rb"));
    if (seen.claimed > 0)  // a short DEM leaves the rest at 0
        seen.held = static_cast<int64_t>(std::fread(samples, sizeof(float), static_cast<size_t>(seen.claimed), file.get()));

    const int64_t W = grid.WIDTH;
    const int64_t L = grid.FILE_LENGTH;
    const int64_t pixels = pixel_count(grid);
    dem.height = lib::Owned<float>(pixels);
    const lib::Owned<unsigned char> reached(pixels);
    float* height = dem.height.get();
    for (int64_t u = 0; u < (seen.claimed > 0 ? d.FILE_LENGTH : 0); ++u) {
        const float y = static_cast<float>(u * d.Y_STEP + d.Y_FIRST);
        const int64_t i = std::lround((y - grid.Y_FIRST) / grid.Y_STEP);
        if (i < 0 || i >= L) continue;
        for (int64_t v = 0; v < d.WIDTH; ++v) {
            const float x = static_cast<float>(v * d.X_STEP + d.X_FIRST);
            const int64_t j = std::lround((x - grid.X_FIRST) / grid.X_STEP);
            if (j >= 0 && j < W) {
                height[i * W + j] = samples[u * d.WIDTH + v] / 1000.0f;
                reached[i * W + j] = 1;
            }
        }
    }
    for (int64_t p = 0; p < pixels; ++p) {
        seen.reached += reached[p];
        seen.usable += lib::isvalid(height[p]) ? 1 : 0;
        seen.void_code += height[p] == kVoidHeight ? 1 : 0;
        seen.not_finite += std::isfinite(height[p]) ? 0 : 1;
    }
    return dem;
}

lib::Result<lib::Owned<float>> resample_dem(const CFG& cfg, const HEADER& grid)
{
    SBAS_TAKE(Dem dem, read_dem(cfg, grid));
    return std::move(dem.height);
}

void warn_dem(const CFG& cfg, const HEADER& grid, const Dem& dem)
{
    const DemCoverage& seen = dem.coverage;
    const long long pixels = pixel_count(grid);
    if (seen.held < seen.claimed)
        std::fprintf(stderr,
                     "warning: demfile %s holds %lld of the %lld samples its header %s describes; the missing ones "
                     "are read as height 0\n",
                     cfg.demfile, static_cast<long long>(seen.held), static_cast<long long>(seen.claimed),
                     cfg.demfile_header);
    if (pixels > 0 && seen.usable == 0)
        std::fprintf(stderr,
                     "warning: demfile %s gives no pixel of the grid a usable height (%s); the elevation correction "
                     "changes nothing\n",
                     cfg.demfile,
                     seen.reached == 0 ? why_not_reached(cfg, grid, dem).c_str()
                                       : "every height it gives is 0, NaN or infinite");
    else if (seen.reached < pixels)
        std::fprintf(stderr,
                     "warning: demfile %s reaches %lld of the %lld pixels of the grid (%s); the others are corrected "
                     "as if at height 0\n",
                     cfg.demfile, static_cast<long long>(seen.reached), pixels,
                     why_not_reached(cfg, grid, dem).c_str());
    if (seen.void_code > 0)
        std::fprintf(stderr,
                     "warning: demfile %s gives %lld pixels of the grid the height -32768 m, the usual void code, "
                     "which is used as a height (mark voids as NaN; %lld pixels have a NaN or infinite height)\n",
                     cfg.demfile, static_cast<long long>(seen.void_code), static_cast<long long>(seen.not_finite));
}

}  // namespace com
