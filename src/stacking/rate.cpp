// The per-batch solver of linear rate stacking.
//
// At a pixel moving at a constant rate v, interferogram k observes
// d_k = v T_k, with T_k its time span in years. The least-squares line through
// the origin over the n interferograms observed at the pixel has the rate
//   v = sum(d_k T_k) / sum(T_k^2),
// the residual scatter sqrt(S / (n - 1)) with S = sum((d_k - v T_k)^2), and
// the rate's standard error sqrt(S / (sum(T_k^2) (n - 1))). The sums run in
// interferogram order in double precision, and each result is rounded to
// float once.
//
// A pixel is estimated only when more than N * minimum_temporal_ifg_ratio of
// the N interferograms observe it: equality rejects, so a ratio of 1 rejects
// even a pixel observed everywhere. A single observation with a ratio of 0
// leaves n - 1 = 0, and the scatter and the error come out as NaN, as the
// formulas give them. An interferogram whose two dates are equal (T = 0)
// counts in n and in S but adds nothing to the sums of the rate.
//
// Every pixel's result depends on its own column of the batch alone, so the
// threads take contiguous blocks of pixels and the files do not depend on the
// batch size or the number of threads. Within its block a thread solves tiles
// of pixels, running through the interferograms row by row over contiguous
// samples with the tile's sums in cache; each pixel's sums still run in
// interferogram order. A sample without data adds an exact zero to them,
// which leaves every sum as it was.
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "catalogue/raster.h"
#include "numerics/arrays.h"
#include "numerics/parallel.h"
#include "numerics/validity.h"
#include "stacking/stacking.h"

namespace rstacking {
namespace {

// Pixels solved together (five sums of kTile entries on the thread's stack).
constexpr int64_t kTile = 512;

struct Outputs {
    float* velocity;  // rad/yr
    float* residual;  // rad
    float* sigma;     // rad/yr
};

// Pixels [first, end) of the batch, at most kTile of them; `least` is
// N * minimum_temporal_ifg_ratio.
void fit_tile(float* const* rows, const std::vector<DATEINTERVAL>& intervals, int64_t first, int64_t end,
              double least, const Outputs& out)
{
    const size_t N = intervals.size();
    const int64_t width = end - first;
    int64_t n[kTile] = {};
    double sum_dT[kTile] = {};
    double sum_T2[kTile] = {};
    double v[kTile];
    double S[kTile] = {};
    for (size_t k = 0; k < N; ++k) {
        const float* d = rows[k] + first;
        const double T = intervals[k].years;
        for (int64_t j = 0; j < width; ++j) {
            const bool valid = lib::isvalid(d[j]);
            n[j] += valid;
            sum_dT[j] += valid ? d[j] * T : 0.0;
            sum_T2[j] += valid ? T * T : 0.0;
        }
    }
    for (int64_t j = 0; j < width; ++j) v[j] = sum_dT[j] / sum_T2[j];
    for (size_t k = 0; k < N; ++k) {
        const float* d = rows[k] + first;
        const double T = intervals[k].years;
        for (int64_t j = 0; j < width; ++j) {
            const double r = d[j] - v[j] * T;
            S[j] += lib::isvalid(d[j]) ? r * r : 0.0;
        }
    }
    for (int64_t j = 0; j < width; ++j) {
        const int64_t p = first + j;
        if (least >= static_cast<double>(n[j])) {
            out.velocity[p] = out.residual[p] = out.sigma[p] = 0.0f;
            continue;
        }
        const double dof = static_cast<double>(n[j] - 1);
        out.velocity[p] = static_cast<float>(v[j]);
        out.residual[p] = static_cast<float>(std::sqrt(S[j] / dof));
        out.sigma[p] = static_cast<float>(std::sqrt(S[j] / (sum_T2[j] * dof)));
    }
}

}  // namespace

lib::Status stacking(CFG cfg, float** rows, std::vector<DATEINTERVAL> intervals, int64_t start, int64_t end)
{
    const int64_t P = end > start ? end - start : 0;
    const lib::Owned<float> velocities(P);
    const lib::Owned<float> residuals(P);
    const lib::Owned<float> sigmas(P);
    float* velocity = velocities.get();
    float* residual = residuals.get();
    float* sigma = sigmas.get();
    const double least =
        static_cast<double>(intervals.size()) * static_cast<double>(cfg.minimum_temporal_ifg_ratio);

#pragma omp parallel num_threads(lib::region_threads(cfg.max_parallel_threads))
    {
        const lib::Block pixels = lib::block_of(P, omp_get_num_threads(), omp_get_thread_num());
        for (int64_t first = pixels.first; first < pixels.end; first += kTile)
            fit_tile(rows, intervals, first, std::min(first + kTile, pixels.end), least,
                     {velocity, residual, sigma});
    }

    SBAS_TRY(com::write_batch(cfg.resultfolder, "linear_stacking_mean_velocity", start, velocity, P));
    SBAS_TRY(com::write_batch(cfg.resultfolder, "linear_stacking_mean_velocity_residual", start, residual, P));
    return com::write_batch(cfg.resultfolder, "linear_stacking_mean_velocity_sigma", start, sigma, P);
}

}  // namespace rstacking
