// Removal of orbital ramps.
//
// Errors in the satellite orbits leave a smooth ramp across an interferogram.
// The correction models it as a quadratic surface of the pixel position,
//   c0 + c1 x + c2 y + c3 x y + c4 x^2 + c5 y^2   (x column, y row, pixels),
// fitted by ordinary least squares to the valid pixels of every s-th row and
// column (s = orbit_quad_fit_sampling), and subtracts it in double from every
// valid pixel, storing float. Pixels that failed the loop-closure check stay
// out of the fit and, like every invalid pixel, are 0 in the copy. The
// surface is evaluated on the same column values the fit used (x y, x^2, y^2
// are exact products of integers).
//
// With fewer valid samples than the six unknowns there is nothing to fit:
// the surface is 0 and the copy keeps the valid pixels as they are (an
// underdetermined fit would put ramps of 1e9 rad and more into the copy).
// Six or more samples that still cannot tell the six terms apart (on one or
// two rows or columns, on a line or another conic) give a singular normal
// matrix; the estimate the least-squares kit gives then is kept. Both cases
// are counted and the stage says so in one line each, after the
// interferograms, naming the first in list order.
//
// Interferograms are independent: they go through quality::correct_each,
// each thread with its own raster and design matrix.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "catalogue/raster.h"
#include "config/fatal.h"
#include "numerics/arrays.h"
#include "numerics/least_squares.h"
#include "numerics/validity.h"
#include "numerics/ranks.h"
#include "quality/correct_each.h"
#include "quality/corrections.h"

namespace com {
namespace {

// Working storage of one thread.
struct OrbitScratch {
    lib::Owned<float> phase;    // the interferogram, then its correction
    lib::Owned<double> design;  // samples x 6, one sample's row after another
    lib::Owned<double> observed;
};

// Samples along one axis of n pixels taken every s-th: ceil(n / s).
int64_t sampled(int64_t n, int64_t s) { return n > 0 ? (n + s - 1) / s : 0; }

OrbitScratch alloc_orbit(const HEADER& grid, int64_t step)
{
    // The products saturate: a count beyond int64 is beyond memory too.
    int64_t samples = 0, design = 0;
    if (__builtin_mul_overflow(sampled(grid.WIDTH, step), sampled(grid.FILE_LENGTH, step), &samples))
        samples = std::numeric_limits<int64_t>::max();
    if (__builtin_mul_overflow(samples, int64_t{6}, &design)) design = std::numeric_limits<int64_t>::max();
    return OrbitScratch{lib::Owned<float>(pixel_count(grid)), lib::Owned<double>(design),
                        lib::Owned<double>(samples)};
}

constexpr int64_t kUnknowns = 6;

// How a ramp fit went.
enum class Fit : unsigned char { fitted, too_few, singular };

// True when the n samples of `design` (rows 1, x, y, xy, x^2, y^2) cannot
// tell the six terms apart. The test works on coordinates centred and
// scaled to [-1, 1], where a well-spread sampling gives a well-conditioned
// normal matrix whatever the grid's size: a Cholesky factorisation of that
// matrix scaled to a unit diagonal meets a pivot near 0 exactly when one
// term is (up to rounding) a combination of the others.
bool degenerate(const double* design, int64_t n)
{
    double lo[2] = {design[1], design[2]};
    double hi[2] = {design[1], design[2]};
    for (int64_t k = 0; k < n; ++k)
        for (int a = 0; a < 2; ++a) {
            lo[a] = std::fmin(lo[a], design[6 * k + 1 + a]);
            hi[a] = std::fmax(hi[a], design[6 * k + 1 + a]);
        }
    double centre[2], scale[2];
    for (int a = 0; a < 2; ++a) {
        centre[a] = 0.5 * (lo[a] + hi[a]);
        scale[a] = hi[a] > lo[a] ? 2.0 / (hi[a] - lo[a]) : 1.0;
    }
    double N[kUnknowns][kUnknowns] = {};
    for (int64_t k = 0; k < n; ++k) {
        const double u = (design[6 * k + 1] - centre[0]) * scale[0];
        const double v = (design[6 * k + 2] - centre[1]) * scale[1];
        const double t[kUnknowns] = {1.0, u, v, u * v, u * u, v * v};
        for (int r = 0; r < kUnknowns; ++r)
            for (int c = 0; c <= r; ++c) N[r][c] += t[r] * t[c];
    }
    double d[kUnknowns];
    for (int r = 0; r < kUnknowns; ++r) {
        if (!(N[r][r] > 0.0)) return true;
        d[r] = 1.0 / std::sqrt(N[r][r]);
    }
    for (int r = 0; r < kUnknowns; ++r)
        for (int c = 0; c <= r; ++c) N[r][c] *= d[r] * d[c];
    for (int j = 0; j < kUnknowns; ++j) {
        double pivot = N[j][j];
        for (int k = 0; k < j; ++k) pivot -= N[j][k] * N[j][k];
        if (!(pivot > 1e-9)) return true;
        const double root = std::sqrt(pivot);
        N[j][j] = root;
        for (int r = j + 1; r < kUnknowns; ++r) {
            double sum = N[r][j];
            for (int k = 0; k < j; ++k) sum -= N[r][k] * N[j][k];
            N[r][j] = sum / root;
        }
    }
    return false;
}

lib::Status correct(const HEADER& grid, int64_t step, const char* in, const char* out, const float* mask,
             OrbitScratch& s, Fit* fit_seen = nullptr)
{
    const int64_t W = grid.WIDTH;
    const int64_t L = grid.FILE_LENGTH;
    const int64_t pixels = pixel_count(grid);
    float* phase = s.phase.get();
    SBAS_TRY(read_raster(in, 0, pixels, phase));
    for (int64_t p = 0; p < pixels; ++p)
        if (mask[p] > 0.5) phase[p] = std::numeric_limits<float>::quiet_NaN();

    int64_t n = 0;
    for (int64_t y = 0; pixels > 0 && y < L; y += step) {
        for (int64_t x = 0; x < W; x += step) {
            if (!lib::isvalid(phase[y * W + x])) continue;
            double* row = s.design.get() + 6 * n;
            const double xd = static_cast<double>(x);
            const double yd = static_cast<double>(y);
            row[0] = 1.0;
            row[1] = xd;
            row[2] = yd;
            row[3] = xd * yd;
            row[4] = xd * xd;
            row[5] = yd * yd;
            s.observed[n] = phase[y * W + x];
            ++n;
        }
    }
    double c[6] = {0, 0, 0, 0, 0, 0};
    Fit how = Fit::too_few;
    if (n >= kUnknowns) {
        double* fit = lib::linear_function(s.design.get(), n, 6, s.observed.get());
        if (!fit) lib::out_of_memory();
        std::memcpy(c, fit, sizeof c);
        std::free(fit);
        how = fit_seen && degenerate(s.design.get(), n) ? Fit::singular : Fit::fitted;
    }
    if (fit_seen) *fit_seen = how;

    for (int64_t y = 0; pixels > 0 && y < L; ++y) {
        const double yd = static_cast<double>(y);
        for (int64_t x = 0; x < W; ++x) {
            float& value = phase[y * W + x];
            if (!lib::isvalid(value)) {
                value = 0.0f;
                continue;
            }
            const double xd = static_cast<double>(x);
            const double ramp = c[0] + c[1] * xd + c[2] * yd + c[3] * (xd * yd) + c[4] * (xd * xd) + c[5] * (yd * yd);
            value = static_cast<float>(value - ramp);
        }
    }
    return write_samples(out, "wb", phase, pixels);
}

}  // namespace

lib::Status remove_orbit(CFG cfg, const HEADER& grid, const char* in, const char* out, const float* mask)
{
    const int64_t step = cfg.orbit_quad_fit_sampling > 0 ? cfg.orbit_quad_fit_sampling : 1;
    OrbitScratch scratch = alloc_orbit(grid, step);
    return correct(grid, step, in, out, mask, scratch);
}

}  // namespace com

namespace quality {
namespace {

constexpr const char* kHeightSuffix = ".remove_hgt";

bool ends_with(const std::string& text, const char* end)
{
    const size_t n = std::strlen(end);
    return text.size() >= n && text.compare(text.size() - n, n, end) == 0;
}

// One line for each kind of ill-posed fit, naming the first interferogram
// of that kind in list order.
void warn_ramp_fits(const CFG& cfg, const std::string& folder, const std::vector<std::string>& names,
                    const std::vector<com::Fit>& fits)
{
    for (const com::Fit kind : {com::Fit::too_few, com::Fit::singular}) {
        size_t count = 0, first = 0;
        for (size_t k = fits.size(); k-- > 0;)
            if (fits[k] == kind) {
                ++count;
                first = k;
            }
        if (count == 0) continue;
        const com::Path path = com::join_path(folder.c_str(), names[first].c_str());
        if (kind == com::Fit::too_few)
            std::fprintf(stderr,
                         "warning: %zu of the %zu interferograms have fewer than 6 valid samples at "
                         "orbit_quad_fit_sampling %d, the first %s; no ramp is removed from them\n",
                         count, names.size(), cfg.orbit_quad_fit_sampling, path.c_str());
        else
            std::fprintf(stderr,
                         "warning: the ramp fit of %zu of the %zu interferograms is singular (their valid samples at "
                         "orbit_quad_fit_sampling %d lie on one or two lines or another conic), the first %s; the "
                         "ramp removed from them means nothing\n",
                         count, names.size(), cfg.orbit_quad_fit_sampling, path.c_str());
    }
}

}  // namespace

lib::Status bach_removel_orbit(CFG* cfg, const HEADER& grid)
{
    const int64_t n = static_cast<int64_t>(cfg->ifg_names.size());
    SBAS_TAKE(const lib::Owned<float> mask, correction_mask(*cfg, grid));

    std::fputs("*********************************************************\n", stderr);
    std::fputs("****************Removing orbital ramps start*************\n", stderr);
    std::fprintf(stderr, "Number of interferograms          : %d \n", static_cast<int>(n));
    std::fprintf(stderr, "Samppling rate                    : %d \n", cfg->orbit_quad_fit_sampling);
    std::fprintf(stderr, "If keep the corrected files       : %d \n", cfg->if_keep_corrected_ifg);
    std::fprintf(stderr, "Number of threads                 : %d\n", cfg->max_parallel_threads);
    // A step of 0 would never get past the first sample.
    if (cfg->orbit_quad_fit_sampling < 1)
        return lib::error(lib::Fault::setting, "orbit_quad_fit_sampling", lib::Stream::err,
                          "orbit_quad_fit_sampling must be a positive number of pixels (it is %d)\n",
                          cfg->orbit_quad_fit_sampling);
    const int64_t step = cfg->orbit_quad_fit_sampling;
    // The elevation-corrected copies this stage reads are intermediates of
    // the run, deleted once read; only they, never an input of the job.
    const bool delete_inputs = cfg->if_remove_eds == 1 && std::strcmp(cfg->datafolder, cfg->resultfolder) == 0;

    const bool reuse_existing = cfg->if_use_existing_corrected_ifg == 1;
    const std::vector<std::string> names = cfg->ifg_names;
    const std::string folder = cfg->datafolder;
    std::vector<com::Fit> fits(names.size(), com::Fit::fitted);
    SBAS_TRY(correct_each(
        cfg, "Removing orbital ramps", ".remove_orbit", [&] { return com::alloc_orbit(grid, step); },
        [&](int64_t i, const std::string& name, const com::Path& in, const com::Path& out,
            com::OrbitScratch& scratch) -> lib::Status {
            if (!(reuse_existing && lib::opens_for_reading(out.c_str())))
                SBAS_TRY(com::correct(grid, step, in.c_str(), out.c_str(), mask.get(), scratch,
                                      &fits[static_cast<size_t>(i)]));
            if (delete_inputs && ends_with(name, kHeightSuffix) && lib::opens_for_reading(in.c_str()))
                std::remove(in.c_str());
            return {};
        }));
    // In an MPI run each rank knows the fits of its own interferograms.
    if (lib::spread()) {
        std::vector<int64_t> kinds(fits.size());
        for (size_t k = 0; k < fits.size(); ++k) kinds[k] = static_cast<int64_t>(fits[k]);
        lib::sum_over_ranks(kinds.data(), static_cast<int64_t>(kinds.size()));
        for (size_t k = 0; k < fits.size(); ++k) fits[k] = static_cast<com::Fit>(kinds[k]);
    }
    warn_ramp_fits(*cfg, folder, names, fits);

    std::fputs("****************Removing orbital ramps finish************\n", stderr);
    std::fputs("*********************************************************\n", stderr);
    return {};
}

}  // namespace quality
