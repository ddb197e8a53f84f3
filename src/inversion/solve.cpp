// Where the arithmetic goes: a pixel valid in every interferogram costs one
// product E*y with the full network's estimator. Every other pixel belongs
// to a pattern (the interferograms valid at it); patterns go eight at a time
// so that their normal matrices are inverted side by side in vector lanes,
// then every pixel of a pattern gets x = E y, its fitted values and sigma,
// chunk by chunk with the pixels or the rows of E in the lanes
// (numerics/lockstep.h). Patterns of one pixel (scattered no-data) are
// taken first, eight at a time through the template's rows side by side, a
// row a pixel lacks weighing 0.0 there (lib::solve_side_by_side): no system
// is formed and no E stored, which on large stacks no longer fits the
// caches; a group the lanes cannot vouch for goes the way of the other
// patterns. None of this changes a sum, so a
// pixel's outputs are the bits solving it alone gives, whatever the batch,
// the thread count or the other pixels of its pattern
// (Grouping.EveryPixelGetsTheBitsOfItsOwnSolution compares the two).
#include "inversion/solve.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "catalogue/design_rows.h"
#include "inversion/patterns.h"
#include "numerics/lanes.h"
#include "numerics/linalg.h"
#include "numerics/progress.h"

namespace sbas {
namespace {

// Fitted value of row k of the design at solution c of a chunk (entry j at
// x[j * kChunk + c]), summed over every entry of the row, zeros included:
// the way when the solution holds an infinity or NaN, which a zero times it
// turns into NaN.
double dense_fitted(const lib::SparseDesign& design, int64_t k, int64_t M, const double* x, int64_t c)
{
    const int64_t end = design.row_start[k + 1];
    int64_t p = design.row_start[k];
    double sum = 0.0;
    for (int64_t j = 0; j < M; ++j) {
        const bool nonzero = p < end && design.columns[p] == j;
        sum += (nonzero ? design.values[p++] : 0.0) * x[j * kChunk + c];
    }
    return sum;
}

// The sum of squared residuals of one pixel over the interferogram rows,
// in float, from its solution x and observations y (entries kChunk apart),
// x finite. Every row is taken as `widest` terms, the missing ones as 0.0
// times the row's last term, which adds nothing to a finite sum: the loop
// runs the same length for every row and its end is predicted.
float residual_sum(const lib::SparseDesign& design, int64_t n, const double* x, const double* y)
{
    int64_t widest = 0;
    for (int64_t k = 0; k < n; ++k) widest = std::max(widest, design.row_start[k + 1] - design.row_start[k]);
    float sum = 0.0f;
    for (int64_t k = 0; k < n; ++k) {
        const int64_t first = design.row_start[k], end = design.row_start[k + 1];
        double fitted = 0.0;
        for (int64_t t = 0; first < end && t < widest; ++t) {
            const int64_t p = first + t;
            const int64_t at = p < end ? p : end - 1;
            fitted += design.values[at] * static_cast<double>(p < end) * x[design.columns[at] * kChunk];
        }
        const double residual = y[k * kChunk] - fitted;
        sum += residual * residual;
    }
    return sum;
}

// The outputs of a chunk of pixels from their solutions X and observations
// Y (entry j of pixel c at X[j * kChunk + c], Y[k * kChunk + c]). A fitted
// value sums A[k, j] x[j] over j from 0.0 in increasing j; with x finite the
// zero entries of A add nothing and only the nonzero ones are taken.
SBAS_VECTOR_CLONES
void finish_chunk(const Network& net, const System& sys, const double* X, const double* Y, const int64_t* pixels,
                  int64_t chunk, Maps& maps)
{
    const lib::SparseDesign& design = *sys.design;
    const int64_t M = net.M;
    bool finite[kChunk];
    for (int64_t c = 0; c < chunk; ++c) finite[c] = true;
    for (int64_t j = 0; j < M; ++j)
        for (int64_t c = 0; c < chunk; ++c) finite[c] &= std::fabs(X[j * kChunk + c]) <= DBL_MAX;
    float sum[kChunk] = {};
    if (chunk == 1 && finite[0]) sum[0] = residual_sum(design, sys.n, X, Y);
    for (int64_t k = 0; chunk > 1 && k < sys.n; ++k) {
        double fitted[kChunk] = {};
        for (int64_t p = design.row_start[k]; p < design.row_start[k + 1]; ++p) {
            const double a = design.values[p];
            const double* x = X + design.columns[p] * kChunk;
            for (int64_t c = 0; c < chunk; ++c) fitted[c] += a * x[c];
        }
        const double* y = Y + k * kChunk;
        for (int64_t c = 0; c < chunk; ++c) {
            const double residual = y[c] - fitted[c];
            sum[c] += residual * residual;
        }
    }
    for (int64_t c = 0; c < chunk; ++c) {
        if (finite[c]) continue;
        sum[c] = 0.0f;
        for (int64_t k = 0; k < sys.n; ++k) {
            const double residual = Y[k * kChunk + c] - dense_fitted(design, k, M, X, c);
            sum[c] += residual * residual;
        }
    }
    const float n = static_cast<float>(sys.n);
    for (int64_t c = 0; c < chunk; ++c) maps.sigma[pixels[c]] = std::sqrt(sum[c] / n);
    float cumulative[kChunk];
    for (int64_t c = 0; c < chunk; ++c) cumulative[c] = static_cast<float>(X[c]);
    for (int64_t j = 0;;) {
        float* out = maps.cumulative[j];
        for (int64_t c = 0; c < chunk; ++c) out[pixels[c]] = cumulative[c];
        if (++j >= net.D - 1) break;
        for (int64_t c = 0; c < chunk; ++c) cumulative[c] = cumulative[c] + X[j * kChunk + c];
    }
    if (net.dem_error)
        for (int64_t c = 0; c < chunk; ++c) maps.dem[pixels[c]] = static_cast<float>(X[(M - 1) * kChunk + c]);
}

// The outputs of one pixel from its solution x (entry j at x[j * ldx]) and
// its sum of squared residuals over n rows, as finish_chunk stores them.
void store_pixel(const Network& net, const double* x, int64_t ldx, float sum, int64_t n, int64_t pixel, Maps& maps)
{
    maps.sigma[pixel] = std::sqrt(sum / static_cast<float>(n));
    float cumulative = static_cast<float>(x[0]);
    maps.cumulative[0][pixel] = cumulative;
    for (int64_t j = 1; j < net.D - 1; ++j) {
        cumulative = cumulative + x[j * ldx];
        maps.cumulative[j][pixel] = cumulative;
    }
    if (net.dem_error) maps.dem[pixel] = static_cast<float>(x[(net.M - 1) * ldx]);
}

// The sums of squared residuals of kLanes pixels side by side, as
// residual_sum forms each over its rows: the template's rows l < N in
// increasing order, those a pixel lacks (weight 0.0) left out. x, y and w
// hold entry l of lane k at [l * kLanes + k].
SBAS_VECTOR_CLONES
void lane_residuals(const lib::SparseDesign& design, int64_t N, const double* x, const double* y, const double* w,
                    float* sums)
{
    float sum[kLanes] = {};
    for (int64_t l = 0; l < N; ++l) {
        double fitted[kLanes] = {};
        for (int64_t p = design.row_start[l]; p < design.row_start[l + 1]; ++p) {
            const double a = design.values[p];
            const double* at = x + design.columns[p] * kLanes;
            for (int k = 0; k < kLanes; ++k) fitted[k] += a * at[k];
        }
        for (int k = 0; k < kLanes; ++k) {
            const double residual = y[l * kLanes + k] - fitted[k];
            const float next = sum[k] + residual * residual;
            sum[k] = w[l * kLanes + k] != 0.0 ? next : sum[k];
        }
    }
    for (int k = 0; k < kLanes; ++k) sums[k] = sum[k];
}

// Patterns of one pixel (scattered no-data), kLanes at a time side by side
// over the template's rows, a row a pixel lacks weighing 0.0 there
// (lib::solve_side_by_side): the bits each pixel gets solved alone, without
// forming its system. Returns false, nothing stored, where the group must
// go the way of the other patterns: a count that disagrees with the valid
// interferograms, or what the lanes cannot vouch for.
bool solve_single_pixels(const Network& net, const RowTemplate& rows_all, float* const* stack,
                         const sbas::PixelGroups& g, const int64_t* patterns, int count, Scratch& s, Maps& maps)
{
    const int64_t N = net.N, M = net.M;
    double* w = s.lane_w.get();
    double* y = s.lane_y.get();
    int64_t observed[kLanes];
    for (int lane = 0; lane < kLanes; ++lane) {
        // Lanes past count repeat the first pixel.
        const int k = lane < count ? lane : 0;
        const int64_t q = patterns[k];
        int64_t* ifgs = s.ifgs.get() + k * N;
        if (lane < count) {
            observed[lane] = g.interferograms(q, N, ifgs);
            if (observed[lane] != g.n[q]) return false;
        }
        for (int64_t l = 0; l < N; ++l) w[l * kLanes + lane] = y[l * kLanes + lane] = 0.0;
        const int64_t pixel = g.members[g.start[q]];
        for (int64_t r = 0; r < observed[k]; ++r) {
            const int64_t l = ifgs[r];
            w[l * kLanes + lane] = rows_all.w[l];
            y[l * kLanes + lane] = stack[l][pixel];
        }
        for (int64_t l = N; l < net.L; ++l) w[l * kLanes + lane] = rows_all.w[l];
    }
    double* x = s.lane_x.get();
    if (!lib::solve_side_by_side(rows_all.design, rows_all.skip.get(), net.L, N, M, w, y, count, x, s.lockstep))
        return false;
    float sums[kLanes];
    lane_residuals(rows_all.design, N, x, y, w, sums);
    for (int lane = 0; lane < count; ++lane) {
        const int64_t q = patterns[lane];
        store_pixel(net, x + lane, kLanes, sums[lane], g.n[q], g.members[g.start[q]], maps);
    }
    return true;
}

// Solves the pixels of a system whose estimator holds an infinity or a NaN
// one at a time, as the dense routines solve a pixel: x = E y and the fitted
// values A x by lib::matmul itself. A sum that meets two different NaNs
// keeps one of them by an operand order the compiler chooses; this way it is
// matmul's choice, as for a pixel solved alone.
void solve_one_by_one(const Network& net, const System& sys, float* const* stack, const int64_t* pixels,
                      int64_t count, Scratch& s, Maps& maps)
{
    const int64_t M = net.M;
    s.dense(net);
    double* compact = s.compact.get();
    for (int64_t l = 0; l < sys.rows; ++l)
        for (int64_t i = 0; i < M; ++i) compact[l * M + i] = sys.E[l * net.ldE + i];
    double* y = s.y.get();
    double* x = s.X.get();
    double* fitted = s.fitted.get();
    for (int64_t c = 0; c < count; ++c) {
        const int64_t p = pixels[c];
        for (int64_t r = 0; r < sys.observed; ++r) y[r] = stack[sys.ifgs[r]][p];
        for (int64_t r = sys.observed; r < sys.rows; ++r) y[r] = 0.0;
        lib::matmul("NN", M, 1, sys.rows, 1.0, compact, y, 0.0, x);
        lib::matmul("NN", sys.rows, 1, M, 1.0, sys.A, x, 0.0, fitted);
        float sum = 0.0f;
        for (int64_t k = 0; k < sys.n; ++k) {
            const double residual = y[k] - fitted[k];
            sum += residual * residual;
        }
        maps.sigma[p] = std::sqrt(sum / static_cast<float>(sys.n));
        maps.cumulative[0][p] = static_cast<float>(x[0]);
        for (int64_t j = 1; j < net.D - 1; ++j) maps.cumulative[j][p] = maps.cumulative[j - 1][p] + x[j];
        if (net.dem_error) maps.dem[p] = static_cast<float>(x[M - 1]);
    }
}

// The observations of a chunk of pixels (Y[r * kChunk + c]): the samples of
// the system's interferograms, 0 on its other rows up to n.
void gather(const System& sys, float* const* stack, const int64_t* members, int64_t chunk, double* Y)
{
    for (int64_t r = 0; r < sys.observed; ++r) {
        const float* row = stack[sys.ifgs[r]];
        for (int64_t c = 0; c < chunk; ++c) Y[r * kChunk + c] = row[members[c]];
    }
    for (int64_t r = sys.observed; r < sys.n; ++r)
        for (int64_t c = 0; c < chunk; ++c) Y[r * kChunk + c] = 0.0;
}

// Solves the pixels of one system: x = E y for each (y: the samples of the
// system's interferograms, 0 on the other rows), then its outputs. With E
// finite the rows past n, which observe 0, add nothing to x and are left
// out.
void solve_pixels(const Network& net, const System& sys, float* const* stack, const int64_t* pixels,
                  int64_t count, Scratch& s, Maps& maps)
{
    if (!sys.finite) {
        solve_one_by_one(net, sys, stack, pixels, count, s, maps);
        return;
    }
    double* Y = s.Y.get();
    for (int64_t first = 0; first < count; first += kChunk) {
        const int64_t chunk = std::min(kChunk, count - first);
        const int64_t* members = pixels + first;
        gather(sys, stack, members, chunk, Y);
        lib::products(sys.E, net.ldE, net.M, sys.n, Y, kChunk, chunk, s.X.get(), kChunk);
        finish_chunk(net, sys, s.X.get(), Y, members, chunk, maps);
    }
}

// Forms the estimators of the `count_patterns` patterns listed (at most
// kLanes), inverting their normal matrices side by side, and solves their
// pixels.
void solve_patterns(const CFG& cfg, const Network& net, const std::vector<DATEORDER>& dates,
                    const BASELINE* baselines, const RowTemplate& rows_all, float* const* stack, const int* count,
                    const sbas::PixelGroups& g, const int64_t* patterns, int count_patterns, Scratch& s, Maps& maps,
                    Clock& clock)
{
    const int64_t M = net.M;
    bool halves[kLanes] = {};
    double* normal[kLanes];
    int64_t observed[kLanes];
    int inverted = 0;
    for (int lane = 0; lane < count_patterns; ++lane) {
        const int64_t q = patterns[lane];
        const int64_t rows = g.n[q] + net.constraints;
        double* w = s.w.get() + lane * net.most_rows;
        int64_t* ifgs = s.ifgs.get() + lane * net.N;
        observed[lane] = g.interferograms(q, net.N, ifgs);
        select_rows(rows_all, net, ifgs, observed[lane], g.n[q], s.designs[lane], w);
        double* S = s.S.get() + lane * M * M;
        halves[lane] = lib::diagonal_normal_matrix(s.designs[lane], w, rows, M, S);
        if (halves[lane]) normal[inverted++] = S;
    }
    lib::matinv_lockstep(normal, inverted, M, s.lockstep);
    for (int lane = 0; lane < count_patterns; ++lane) {
        const int64_t q = patterns[lane];
        const int64_t rows = g.n[q] + net.constraints;
        double* w = s.w.get() + lane * net.most_rows;
        const double* S = s.S.get() + lane * M * M;
        const int64_t* ifgs = s.ifgs.get() + lane * net.N;
        const int64_t* members = g.members.get() + g.start[q];
        const int64_t pixels = g.start[q + 1] - g.start[q];
        bool finite = halves[lane] && lib::diagonal_estimator(s.designs[lane], w, rows, M, S, s.E.get(), net.ldE,
                                                              s.estimator.work);
        if (!finite) {
            // The dense chain needs the system whole: readoneunwseries3
            // builds it from the pattern's first pixel, into zeros. It stays
            // in s.A for the pixels that are then solved one at a time.
            s.dense(net);
            std::fill(s.A.get(), s.A.get() + rows * M, 0.0);
            std::fill(s.y.get(), s.y.get() + rows, 0.0);
            std::fill(w, w + rows, 0.0);
            com::readoneunwseries3(cfg, stack, count, M, dates, baselines, g.members[g.start[q]], net.K,
                                   s.y.get(), s.A.get(), w, rows);
            auto& e = s.estimator;
            e.S.resize(static_cast<size_t>(M * M));
            e.LU.resize(static_cast<size_t>(M * M));
            e.T.resize(static_cast<size_t>(M * rows));
            e.pivots.resize(static_cast<size_t>(M));
            lib::dense_diagonal_estimator(s.A.get(), w, rows, M, e.S.data(), e.T.data(), e.LU.data(),
                                          e.pivots.data(), s.E.get(), net.ldE);
            finite = estimator_finite(net, s.E.get(), rows);
        }
        clock.lap(s.profile.factorising);
        const System sys{s.E.get(), &s.designs[lane], s.A.get(), ifgs, observed[lane], g.n[q], rows, finite};
        solve_pixels(net, sys, stack, members, pixels, s, maps);
        clock.lap(s.profile.products);
    }
}

}  // namespace

// Inverts the pixels of `block` into the maps.
void invert_block(const CFG& cfg, const Network& net, const std::vector<DATEORDER>& dates,
                  const BASELINE* baselines, const FullNetwork& full, const RowTemplate& rows_all,
                  float* const* stack, const int* count, lib::Block block, Scratch& s, Maps& maps, bool timed)
{
    Clock clock(timed);
    const sbas::PixelGroups g =
        sbas::group_pixels(stack, count, net.N, cfg.n_ifg, net.M, net.constraints, block);
    sbas::InversionProfile& profile = s.profile;
    profile.complete += g.complete_count;
    profile.patterns += g.pattern_count;
    int64_t grouped = 0;  // pixels in patterns
    for (int64_t q = 0; q < g.pattern_count; ++q) {
        const int64_t members = g.start[q + 1] - g.start[q];
        grouped += members;
        profile.incomplete += members;
        profile.single += members == 1;
    }
    clock.lap(profile.grouping);

    if (g.complete_count > 0) {
        const bool finite = full.A.get() == nullptr;
        const System sys{full.E.get(), &full.design, full.A.get(), full.ifgs.get(), net.N, net.N, net.L, finite};
        solve_pixels(net, sys, stack, g.complete.get(), g.complete_count, s, maps);
    }
    lib::progress_add(block.end - block.first - grouped);
    clock.lap(profile.products);
    // The patterns of one pixel first, kLanes at a time side by side; the
    // others, and a group of those the lanes decline, kLanes at a time
    // through their estimators. The order changes no output.
    lib::Owned<int64_t> order(g.pattern_count);
    int64_t singles = 0;
    for (int64_t q = 0; q < g.pattern_count; ++q)
        if (g.start[q + 1] - g.start[q] == 1) order[singles++] = q;
    for (int64_t q = 0, at = singles; q < g.pattern_count; ++q)
        if (g.start[q + 1] - g.start[q] != 1) order[at++] = q;
    for (int64_t first = 0; first < g.pattern_count;) {
        const int64_t end = first < singles ? singles : g.pattern_count;
        const int lanes = static_cast<int>(std::min<int64_t>(kLanes, end - first));
        const int64_t* patterns = order.get() + first;
        if (first >= singles || !solve_single_pixels(net, rows_all, stack, g, patterns, lanes, s, maps))
            solve_patterns(cfg, net, dates, baselines, rows_all, stack, count, g, patterns, lanes, s, maps, clock);
        clock.lap(first < singles ? s.profile.factorising : s.profile.products);
        int64_t pixels = 0;
        for (int k = 0; k < lanes; ++k) pixels += g.start[patterns[k] + 1] - g.start[patterns[k]];
        lib::progress_add(pixels);
        first += lanes;
    }
}

}  // namespace sbas
