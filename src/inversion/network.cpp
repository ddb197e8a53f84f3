// Per-pixel small-baseline network inversion.
//
// Unknown j (j = 0 .. D-2) is the displacement increment from date j to date
// j+1. An interferogram spanning dates j1 < j2 observes the sum of the
// increments j1 .. j2-1, plus Bperp*K*dz when a DEM error dz is estimated
// (K = 4*pi / (wavelength * altitude * sin(incidence))). A temporal model adds
// one unknown (a rate per year, or the coefficient of ln(t - t0) in days) and
// one constraint row per increment that pulls it toward the model:
// increment_k - model * (term(k+1) - term(k)) = 0, observed as 0.
//
// A pixel valid in every interferogram shares the full network's estimator
// E = (A^T W A)^-1 A^T W, formed once per batch, and costs one product E*y.
// Any other pixel is solved through its reduced system, built by
// com::readoneunwseries3 from its valid interferograms. In the full network
// the constraint rows weigh temporal_strength, in a reduced system
// 1/sqrt(temporal_strength); the difference is kept on purpose
// (ThreeDates.ReducedSystemWeighsConstraintsByOneOverRootStrength pins it).
// The weights are diagonal and are held as a vector throughout.
//
// A reduced system depends only on which interferograms are valid at the
// pixel, its pattern, not on their values: every pixel of a pattern has the
// same design matrix and weights and so the same estimator. Each thread
// sorts the pixels of its block (inversion/patterns.h). A pattern's system
// is the rows of its interferograms, which readoneunwseries3 builds once
// per batch for all of them (a row depends on its interferogram alone), and
// its estimator is formed once with the arithmetic the dense routines use
// for one pixel (the diagonal-weight halves of numerics/least_squares.h,
// which give the dense chain's bits, around an inversion); where those
// decline, readoneunwseries3 builds the pattern's system whole for the
// dense chain. Patterns go eight at a time so that their normal
// matrices are inverted side by side in vector lanes; then every pixel of a
// pattern gets x = E y, its fitted values and sigma, chunk by chunk with the
// pixels or the rows of E in the lanes (numerics/lockstep.h). Patterns of
// one pixel, the rule under scattered no-data, skip the estimator: eight of
// them go through every row of the full network side by side, a row a pixel
// lacks weighing 0.0 there (lib::solve_side_by_side). None of this
// changes a sum, so a pixel's outputs are the bits solving it alone gives,
// whatever the batch, the thread count or the other pixels of its pattern
// (Grouping.EveryPixelGetsTheBitsOfItsOwnSolution compares the two). Where
// the zero terms of a sum can be left out (factors finite) they are; a
// system whose estimator holds an infinity or a NaN has its pixels solved
// one by one with the dense products themselves.
//
// Cumulative displacement is rounded to float at each date, sigma is the
// RMS of the interferogram residuals accumulated in float, and the mean
// velocity is the last cumulative value over the time span in years.
//
// This file runs a batch; the systems are assembled in system.cpp, solved in
// solve.cpp, and reported and written in outputs.cpp.
#include "inversion/network.h"

#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <vector>

#include "inversion/outputs.h"
#include "inversion/solve.h"
#include "numerics/arrays.h"
#include "numerics/parallel.h"
#include "numerics/progress.h"

namespace sbas {

lib::Status invert_batch(const CFG& cfg, const std::vector<DATEORDER>& dateorder, const BASELINE* baselines,
                         float* const* stack, const int* count, int64_t start, int64_t end, InversionProfile* profile)
{
    Network net = describe(cfg, dateorder);
    const int64_t P = end > start ? end - start : 0;
    // A count above the number of interferograms (not one the loader gives)
    // still has its rows.
    net.most_rows = net.L;
    for (int64_t p = 0; p < P; ++p) net.most_rows = std::max<int64_t>(net.most_rows, count[p] + net.constraints);

    Maps maps;
    const int64_t increments = net.D > 1 ? net.D - 1 : 0;
    maps.cumulative = lib::need_rows(increments, P);
    maps.sigma = lib::need<float>(P);
    maps.dem = lib::need<float>(P);

    report(cfg, net, P);

    // With fewer than two dates there is no increment to estimate: every
    // pixel stays 0 (no data).
    if (net.D >= 2 && P > 0) {
        const FullNetwork full = full_network(cfg, net, dateorder, baselines);
        const RowTemplate rows_all = row_template(cfg, net, dateorder, baselines);
        const int threads = lib::region_threads(cfg.max_parallel_threads);
        std::vector<InversionProfile> profiles(static_cast<size_t>(threads));
        lib::progress_begin("Inverting", P, "pixels");
#pragma omp parallel num_threads(threads)
        {
            const int thread = omp_get_thread_num();
            const lib::Block pixels = lib::block_of(P, omp_get_num_threads(), thread);
            Scratch own(net);
            invert_block(cfg, net, dateorder, baselines, full, rows_all, stack, count, pixels, own, maps,
                         profile != nullptr);
            profiles[static_cast<size_t>(thread)] = own.profile;
        }
        lib::progress_end();
        if (profile)
            for (const InversionProfile& p : profiles) {
                profile->complete += p.complete;
                profile->incomplete += p.incomplete;
                profile->patterns += p.patterns;
                profile->single += p.single;
                profile->grouping += p.grouping;
                profile->factorising += p.factorising;
                profile->products += p.products;
            }
    }

    const auto written = std::chrono::steady_clock::now();
    const lib::Status wrote = write_maps(cfg, net, dateorder, maps, start, P);
    if (profile) profile->writing += std::chrono::duration<double>(std::chrono::steady_clock::now() - written).count();
    lib::free2d_float(maps.cumulative, static_cast<int>(increments));
    std::free(maps.sigma);
    std::free(maps.dem);
    return wrote;
}

lib::Status sbas_step2_sbas_linear_new(CFG cfg, std::vector<DATEORDER> dateorder, const BASELINE* baselines,
                                       float** stack, const int* count, int64_t start, int64_t end)
{
    return invert_batch(cfg, dateorder, baselines, stack, count, start, end, nullptr);
}

}  // namespace sbas

