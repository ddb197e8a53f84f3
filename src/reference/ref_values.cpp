// Reference values: the number subtracted from every sample of an
// interferogram so that all interferograms share one datum.
//
// With a reference pixel the value is the mean of the valid samples in a
// small square window around it, read sample by sample with one seek each:
// a window touches a few dozen samples, so reading whole rasters would be
// waste. The spread reported next to it is the population deviation of the
// same samples, from sums whose squares are formed in single precision, as
// the values themselves are single precision.
//
// Without a reference pixel the value is the mean of every valid sample of
// the interferogram, accumulated with the running mean and sample variance
// so that a whole scene never has to be summed in one pass of squares;
// interferograms are taken on max_parallel_threads threads, one raster each.
//
// Both forms stop the run when an interferogram has nothing to offer: a
// reference of no data would shift that interferogram by an arbitrary
// amount and poison every later estimate.
#include "reference/ref_values.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "catalogue/raster.h"
#include "config/fatal.h"
#include "numerics/arrays.h"
#include "numerics/parallel.h"
#include "numerics/stats.h"
#include "numerics/validity.h"

namespace com {
namespace {

// Byte offsets beyond this cannot be formed without overflow; no real file
// reaches them, so such a sample is read as missing.
constexpr int64_t kLastAddressable = std::numeric_limits<int64_t>::max() / 4;

}  // namespace

float read_windowed_point(int64_t index, int window, FILE* raster, float* std_out, const HEADER& header)
{
    // A window below one pixel makes no sense; the reference sample alone is
    // the closest meaning.
    if (window < 1) window = 1;
    const int64_t half = static_cast<int64_t>(std::ceil((window - 1) * 0.5));

    int64_t n = 0;
    double sum = 0.0;
    double sumsq = 0.0;
    if (pixel_count(header) > 0) {
        const double row_d = std::floor(static_cast<double>(index) / static_cast<double>(header.WIDTH));
        const auto row = static_cast<int64_t>(row_d);
        const auto col = static_cast<int64_t>(static_cast<double>(index) - row_d * static_cast<double>(header.WIDTH));
        // Only the part of the window inside the grid is visited; the rest
        // would be skipped sample by sample anyway.
        const int64_t r_first = std::max<int64_t>(row - half, 0);
        const int64_t r_last = std::min<int64_t>(row + half, header.FILE_LENGTH - 1);
        const int64_t c_first = std::max<int64_t>(col - half, 0);
        const int64_t c_last = std::min<int64_t>(col + half, header.WIDTH - 1);
        for (int64_t r = r_first; r <= r_last; ++r) {
            for (int64_t c = c_first; c <= c_last; ++c) {
                if (r * header.WIDTH + c > kLastAddressable) continue;
                // A sample that cannot be read comes back as 0, i.e. no data.
                const float v = readonerecord(raster, r, c, header);
                if (!lib::isvalid(v)) continue;
                ++n;
                sum += v;
                const float square = v * v;
                sumsq += square;
            }
        }
    }
    const double count = static_cast<double>(n);
    if (std_out) *std_out = static_cast<float>(std::sqrt(count * sumsq - sum * sum) / count);
    return static_cast<float>(sum / count);  // NaN when nothing was valid
}

lib::Result<float*> get_ref_point_value(const CFG& cfg, const HEADER& header, int64_t index)
{
    auto values = lib::Owned<float>::adopt(lib::per_interferogram(cfg.ifg_names.size()));
    for (size_t k = 0; k < cfg.ifg_names.size(); ++k) {
        const char* name = cfg.ifg_names[k].c_str();
        const Path path = join_path(cfg.datafolder, name);
        SBAS_TAKE(const lib::File raster, lib::fopen_zq(path.c_str(), "rb"));
        float spread = 0;
        values[k] = read_windowed_point(index, cfg.ref_window, raster.get(), &spread, header);
        if (!lib::isvalid(values[k]))
            return lib::error(lib::Fault::data, name, lib::Stream::err,
                              "ERROR: no valid values around the reference point!\n");
        std::fprintf(stderr, "%s refpoint value %8.3f %6.3f\n", name, values[k], spread);
    }
    return values.release();
}

lib::Result<float*> get_ref_point_value_global_mean(const CFG& cfg, const HEADER& header)
{
    const int64_t pixels = pixel_count(header);
    const int64_t n = static_cast<int64_t>(cfg.ifg_names.size());
    auto values = lib::Owned<float>::adopt(lib::per_interferogram(cfg.ifg_names.size()));
    const lib::Owned<double> spreads(std::max<int64_t>(n, 1));
    // Interferograms are independent: each thread takes a block of them with
    // a raster of its own. The lines are printed afterwards in list order,
    // up to the first interferogram in the list that failed, whose error is
    // the one returned, as when they are taken one after another.
    lib::FirstError failure;
#pragma omp parallel num_threads(lib::region_threads(cfg.max_parallel_threads))
    {
        const lib::Block block = lib::block_of(n, omp_get_num_threads(), omp_get_thread_num());
        lib::Owned<float> samples(block.end > block.first ? pixels : 0);
        for (int64_t k = block.first; k < block.end && !failure.past(k); ++k) {
            const char* name = cfg.ifg_names[k].c_str();
            lib::Status read = read_raster(join_path(cfg.datafolder, name).c_str(), 0, pixels, samples.get());
            if (!read.ok()) {
                failure.record(k, std::move(read).error());
                break;
            }
            lib::RunningMoments moments;
            for (int64_t p = 0; p < pixels; ++p)
                if (lib::isvalid(samples[p])) moments.add(samples[p]);
            if (moments.count < 0.5 || std::isnan(static_cast<float>(moments.variance))) {
                failure.record(k, lib::error(lib::Fault::data, name, lib::Stream::out,
                                             "Cannot find a valid reference value for %s\n", name));
                break;
            }
            values[k] = static_cast<float>(moments.mean);
            spreads[k] = std::sqrt(moments.variance);
        }
    }
    const int64_t reported = std::min(failure.index, n);
    for (int64_t k = 0; k < reported; ++k)
        std::fprintf(stderr, "%s refpoint value %8.3f %6.3f\n", cfg.ifg_names[k].c_str(), values[k], spreads[k]);
    SBAS_TRY(failure.status());
    return values.release();
}

}  // namespace com
