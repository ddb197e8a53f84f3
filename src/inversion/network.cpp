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
// 1/sqrt(temporal_strength); the contract fixes that difference
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
// pixels or the rows of E in the lanes (numerics/lockstep.h). None of this
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
#include "inversion/network.h"

#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <utility>

#include "catalogue/filelist.h"
#include "catalogue/raster.h"
#include "inversion/patterns.h"
#include "numerics/progress.h"
#include "numerics/arrays.h"
#include "numerics/lanes.h"
#include "numerics/least_squares.h"
#include "numerics/linalg.h"
#include "numerics/lockstep.h"
#include "numerics/parallel.h"
#include "numerics/validity.h"

namespace {

constexpr double kFourPi = 12.566370614359172;
// Pixels whose observations are gathered and multiplied together.
constexpr int64_t kChunk = 32;
// Patterns formed together, their normal matrices inverted side by side.
constexpr int kLanes = lib::kLockstepLanes;

// The terms of the temporal model's column in the constraint rows:
// -(t[k+1] - t[k]) / 365.25 for the linear model, -(ln(t[k+1] - t0) -
// ln(t[k] - t0)) for the logarithmic one (t in MJD).
double model_term(const CFG& cfg, const std::vector<DATEORDER>& dates, int64_t k)
{
    const double a = dates[k].mjd;
    const double b = dates[k + 1].mjd;
    if (cfg.temporal_constraint == 1) return -(b - a) / 365.25;
    const double t0 = cfg.simple_log_origin_mjd;
    return -(std::log(b - t0) - std::log(a - t0));
}

// The shape of the systems of one batch.
struct Network {
    int64_t N = 0;             // interferograms
    int64_t D = 0;             // dates
    int64_t M = 0;             // unknowns per pixel
    int64_t L = 0;             // rows of the full network
    int64_t constraints = 0;   // temporal model rows (D - 1 or none)
    bool dem_error = false;    // DEM-error unknown present (last)
    int64_t model_column = 0;  // column of the temporal model's coefficient
    double K = 0;              // DEM-error coefficient
    int64_t ldE = 0;           // M rounded up to 8: the column stride of estimators
    int64_t most_rows = 0;     // rows of the largest system of the batch
};

Network describe(const CFG& cfg, const std::vector<DATEORDER>& dates)
{
    Network net;
    net.N = static_cast<int64_t>(cfg.ifg_names.size());
    net.D = static_cast<int64_t>(dates.size());
    const bool constrained = cfg.temporal_constraint == 1 || cfg.temporal_constraint == 2;
    // D - 1 even for a list without dates: the report prints what follows.
    net.constraints = constrained ? net.D - 1 : 0;
    net.dem_error = cfg.if_est_hgt != 0;
    net.M = net.D - 1 + (constrained ? 1 : 0) + (net.dem_error ? 1 : 0);
    net.L = net.N + net.constraints;
    net.model_column = net.dem_error ? net.M - 2 : net.M - 1;
    net.K = kFourPi / (static_cast<double>(cfg.wavelength) * static_cast<double>(cfg.orbit_altitude) *
                       std::sin(static_cast<double>(cfg.incidence) * M_PI / 180.0));
    net.ldE = (net.M + 7) / 8 * 8;
    return net;
}

// Sets the ones of an interferogram spanning dates j1 < j2 in row `row` of a
// column-major design matrix with leading dimension ld.
void set_span(double* A, int64_t ld, int64_t row, int64_t j1, int64_t j2, int64_t increments)
{
    for (int64_t j = std::max<int64_t>(j1, 0); j < j2 && j < increments; ++j) A[j * ld + row] = 1.0;
}

// What the pixels of a pattern (or the complete pixels) share: the
// estimator E (ldE x rows), the nonzero entries of the design matrix (and
// the whole matrix, rows x M, where E is not all finite), and the
// interferograms observed by rows 0 .. observed-1.
struct System {
    const double* E = nullptr;
    const lib::SparseDesign* design = nullptr;
    const double* A = nullptr;
    const int64_t* ifgs = nullptr;
    int64_t observed = 0;  // rows holding a sample
    int64_t n = 0;         // interferogram rows (observed, then zero rows)
    int64_t rows = 0;      // n + constraint rows
    bool finite = true;    // E holds no infinity or NaN
};

// The full network's estimator and design, shared read-only by the threads.
struct FullNetwork {
    lib::Owned<double> E;
    lib::SparseDesign design;
    lib::Owned<double> A;      // kept only where E is not all finite
    lib::Owned<int64_t> ifgs;  // 0 .. N-1
};

// True when the M rows of the estimator E (ldE x rows) are all finite.
SBAS_VECTOR_CLONES
bool estimator_finite(const Network& net, const double* E, int64_t rows)
{
    for (int64_t l = 0; l < rows; ++l)
        if (!lib::all_finite(E + l * net.ldE, net.M)) return false;
    return true;
}

FullNetwork full_network(const CFG& cfg, const Network& net, const std::vector<DATEORDER>& dates,
                         const BASELINE* baselines)
{
    const int64_t L = net.L, M = net.M;
    lib::Owned<double> A(L * M), w(L);
    for (int64_t i = 0; i < net.N; ++i) {
        const char* name = cfg.ifg_names[i].c_str();
        const int j1 = com::findorder(dates, com::phsfilename2date(name, 1));
        const int j2 = com::findorder(dates, com::phsfilename2date(name, 2));
        set_span(A.get(), L, i, j1, j2, net.D - 1);
        if (cfg.if_est_hgt == 1) A[(M - 1) * L + i] = baselines[i].bperp * net.K;
        w[i] = 1.0;
    }
    for (int64_t k = 0; k < net.constraints; ++k) {
        const int64_t r = net.N + k;
        A[k * L + r] = 1.0;
        w[r] = cfg.temporal_strength;
        A[net.model_column * L + r] = model_term(cfg, dates, k);
    }
    FullNetwork full;
    full.E = lib::Owned<double>(net.ldE * L);
    lib::EstimatorScratch scratch;
    lib::weighted_estimator(A.get(), w.get(), L, M, full.E.get(), net.ldE, scratch);
    lib::index_design(A.get(), L, M, full.design);
    if (!estimator_finite(net, full.E.get(), L)) full.A = std::move(A);
    full.ifgs = lib::Owned<int64_t>(net.N);
    for (int64_t k = 0; k < net.N; ++k) full.ifgs[k] = k;
    return full;
}

// Every row a reduced system can have, as com::readoneunwseries3 builds
// them for a pixel valid in every interferogram: the row of interferogram k
// is row k, the constraint rows follow. A row depends on its interferogram
// alone, so the system readoneunwseries3 builds for any pixel is the rows of
// its valid interferograms, in list order, then the constraint rows: the
// patterns take their systems from here instead of building one each.
struct RowTemplate {
    lib::SparseDesign design;
    lib::Owned<double> w;
};

RowTemplate row_template(const CFG& cfg, const Network& net, const std::vector<DATEORDER>& dates,
                         const BASELINE* baselines)
{
    const int64_t rows = net.N + net.constraints;
    lib::Owned<float> samples(net.N);
    lib::Owned<float*> stack(net.N);
    for (int64_t k = 0; k < net.N; ++k) {
        samples[k] = 1.0f;
        stack[k] = samples.get() + k;
    }
    const int count[] = {static_cast<int>(net.N)};
    lib::Owned<double> A(rows * net.M), y(rows);
    RowTemplate t;
    t.w = lib::Owned<double>(rows);
    com::readoneunwseries3(cfg, stack.get(), count, net.M, dates, baselines, 0, net.K, y.get(), A.get(), t.w.get(),
                           rows);
    lib::index_design(A.get(), rows, net.M, t.design);
    return t;
}

// The system of a pattern from the template: the rows of its `observed`
// interferograms, zero rows (weight 0) up to n where a count exceeds the
// valid interferograms, and the constraint rows; design and weights w.
void select_rows(const RowTemplate& t, const Network& net, const int64_t* ifgs, int64_t observed, int64_t n,
                 lib::SparseDesign& design, double* w)
{
    const int64_t rows = n + net.constraints;
    design.row_start.resize(static_cast<size_t>(rows + 1));
    design.columns.clear();
    design.values.clear();
    auto copy = [&](int64_t r, int64_t from) {
        design.row_start[r] = static_cast<int64_t>(design.columns.size());
        for (int64_t p = t.design.row_start[from]; p < t.design.row_start[from + 1]; ++p) {
            design.columns.push_back(t.design.columns[p]);
            design.values.push_back(t.design.values[p]);
        }
        w[r] = t.w[from];
    };
    for (int64_t r = 0; r < observed; ++r) copy(r, ifgs[r]);
    for (int64_t r = observed; r < n; ++r) {
        design.row_start[r] = static_cast<int64_t>(design.columns.size());
        w[r] = 0.0;
    }
    for (int64_t c = 0; c < net.constraints; ++c) copy(n + c, net.N + c);
    design.row_start[rows] = static_cast<int64_t>(design.columns.size());
}

// The outputs of one batch, one value per pixel.
struct Maps {
    float** cumulative = nullptr;  // D - 1 rows
    float* sigma = nullptr;
    float* dem = nullptr;
};

// Where the time of a thread goes, for the benchmark.
struct Clock {
    using Steady = std::chrono::steady_clock;
    bool on = false;
    Steady::time_point last;
    explicit Clock(bool enabled) : on(enabled)
    {
        if (on) last = Steady::now();
    }
    // Adds the time since the last lap to `stage`.
    void lap(double& stage)
    {
        if (!on) return;
        const auto now = Steady::now();
        stage += std::chrono::duration<double>(now - last).count();
        last = now;
    }
};

// Work storage of one thread, chosen by thread number.
struct Scratch {
    lib::Owned<double> y;  // one pixel's observations (most_rows)
    lib::Owned<double> E;  // a pattern's estimator (ldE x most_rows)
    lib::Owned<double> Y;  // a chunk's observations (most_rows x kChunk)
    lib::Owned<double> X;  // a chunk's solutions (M x kChunk)
    lib::Owned<double> S;  // the normal matrices of a lockstep group (kLanes x M x M)
    lib::Owned<double> w;  // their weights (kLanes x most_rows)
    lib::Owned<int64_t> ifgs;  // their interferograms (kLanes x N)
    lib::SparseDesign designs[kLanes];
    lib::LockstepScratch lockstep;
    lib::EstimatorScratch estimator;
    // Only for systems the dense routines solve: a whole design matrix
    // (most_rows x M), an estimator without padding (M x most_rows) and
    // fitted values (most_rows); allocated on first use.
    lib::Owned<double> A, compact, fitted;
    sbas::InversionProfile profile;

    explicit Scratch(const Network& net)
        : y(net.most_rows), E(net.ldE * net.most_rows), Y(kChunk * net.most_rows), X(kChunk * net.M),
          S(kLanes * net.M * net.M), w(kLanes * net.most_rows), ifgs(kLanes * net.N)
    {
    }

    void dense(const Network& net)
    {
        if (A.get()) return;
        A = lib::Owned<double>(net.most_rows * net.M);
        compact = lib::Owned<double>(net.M * net.most_rows);
        fitted = lib::Owned<double>(net.most_rows);
    }
};

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
        for (int64_t r = 0; r < sys.observed; ++r) {
            const float* row = stack[sys.ifgs[r]];
            for (int64_t c = 0; c < chunk; ++c) Y[r * kChunk + c] = row[members[c]];
        }
        for (int64_t r = sys.observed; r < sys.n; ++r)
            for (int64_t c = 0; c < chunk; ++c) Y[r * kChunk + c] = 0.0;
        lib::products(sys.E, net.ldE, net.M, sys.n, Y, kChunk, chunk, s.X.get(), kChunk);
        finish_chunk(net, sys, s.X.get(), Y, members, chunk, maps);
    }
}

// Forms the estimators of patterns [first, first + count) (count at most
// kLanes), inverting their normal matrices side by side, and solves their
// pixels.
void solve_patterns(const CFG& cfg, const Network& net, const std::vector<DATEORDER>& dates,
                    const BASELINE* baselines, const RowTemplate& rows_all, float* const* stack, const int* count,
                    const sbas::PixelGroups& g, int64_t first, int count_patterns, Scratch& s, Maps& maps,
                    Clock& clock)
{
    const int64_t M = net.M;
    bool halves[kLanes] = {};
    double* normal[kLanes];
    int64_t observed[kLanes];
    int inverted = 0;
    for (int lane = 0; lane < count_patterns; ++lane) {
        const int64_t q = first + lane;
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
        const int64_t q = first + lane;
        const int64_t rows = g.n[q] + net.constraints;
        double* w = s.w.get() + lane * net.most_rows;
        const double* S = s.S.get() + lane * M * M;
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
        const int64_t* ifgs = s.ifgs.get() + lane * net.N;
        const System sys{s.E.get(), &s.designs[lane], s.A.get(), ifgs, observed[lane], g.n[q], rows, finite};
        solve_pixels(net, sys, stack, g.members.get() + g.start[q], g.start[q + 1] - g.start[q], s, maps);
        clock.lap(s.profile.products);
    }
}

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
    for (int64_t q = 0; q < g.pattern_count; q += kLanes) {
        const int lanes = static_cast<int>(std::min<int64_t>(kLanes, g.pattern_count - q));
        solve_patterns(cfg, net, dates, baselines, rows_all, stack, count, g, q, lanes, s, maps, clock);
        lib::progress_add(g.start[q + lanes] - g.start[q]);
    }
}

void report(const CFG& cfg, const Network& net, int64_t P)
{
    const int64_t threads = cfg.max_parallel_threads;
    const int64_t L = net.L, M = net.M;
    const double memory =
        static_cast<float>(net.N) * (static_cast<float>(P) * 4.0f) / 1048576.0f +
        static_cast<double>(net.N) * 12.0 / 1048576.0 +
        static_cast<float>(threads) * 8.0f * static_cast<float>(L * (L + M) + (L + 2) * M + L + M) / 1048576.0f;
    std::fprintf(stderr, "Number of interferograms        : %d\n", static_cast<int>(net.N));
    std::fprintf(stderr, "Number of pixels to estimate    : %d\n", static_cast<int>(P));
    std::fprintf(stderr, "Number of threads               : %d\n", cfg.max_parallel_threads);
    std::fprintf(stderr, "Number of parameters            : %d\n", static_cast<int>(M));
    std::fprintf(stderr, "Design matrix size              : %d\n", static_cast<int>(threads * M * L));
    std::fprintf(stderr, "Weight matrix size              : %d\n", static_cast<int>(threads * L * L));
    std::fprintf(stderr, "Parameter matrix size           : %d\n", static_cast<int>(threads * M));
    std::fprintf(stderr, "Observation error matrix size   : %d\n", static_cast<int>(threads * L));
    std::fprintf(stderr, "Total memory requirement        : %.2f Mb\n\n", memory);
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    char when[64] = "unknown\n";
    if (gmtime_r(&now, &utc)) asctime_r(&utc, when);
    std::fprintf(stderr, "Started on UTC -> %s", when);
    std::fputs("Please wait ...            \n", stderr);
}

void write_maps(const CFG& cfg, const Network& net, const std::vector<DATEORDER>& dates, const Maps& maps,
                int64_t start, int64_t P)
{
    for (int64_t j = 0; j + 1 < net.D; ++j) {
        const std::string name = "culmap-" + std::to_string(static_cast<int>(dates[j + 1].date)) + "-" +
                                 std::to_string(static_cast<int>(dates[0].date)) + ".disp";
        com::write_batch(cfg.resultfolder, name.c_str(), start, maps.cumulative[j], P);
    }
    com::write_batch(cfg.resultfolder, "least_square_sigma", start, maps.sigma, P);

    float* velocity = lib::need<float>(P);
    if (net.D >= 2) {
        const double years = (dates[net.D - 1].mjd - dates[0].mjd) / 365.25;
        for (int64_t p = 0; p < P; ++p) velocity[p] = static_cast<float>(maps.cumulative[net.D - 2][p] / years);
    }
    com::write_batch(cfg.resultfolder, "linear_mean_velocity", start, velocity, P);
    std::free(velocity);
    if (cfg.if_est_hgt == 1) com::write_batch(cfg.resultfolder, "baseline_dependent_dem_error", start, maps.dem, P);
}

}  // namespace

namespace com {

void readoneunwseries3(const CFG& cfg, float* const* stack, const int* /*count*/, int64_t M,
                       const std::vector<DATEORDER>& dateorder, const BASELINE* baselines, int64_t pixel,
                       double K, double* y, double* A, double* w, int64_t rows)
{
    const int64_t N = static_cast<int64_t>(cfg.ifg_names.size());
    const int64_t D = static_cast<int64_t>(dateorder.size());
    const bool constrained = cfg.temporal_constraint == 1 || cfg.temporal_constraint == 2;
    const int64_t constraint_rows = constrained && D > 1 ? D - 1 : 0;
    const int64_t observations = rows - constraint_rows;
    const bool dem_error = cfg.if_est_hgt != 0;
    int64_t r = 0;
    for (int64_t k = 0; k < N && r < observations; ++k) {
        const float sample = stack[k][pixel];
        if (!lib::isvalid(sample)) continue;
        y[r] = sample;
        set_span(A, rows, r, cfg.ifg_date1_index[k], cfg.ifg_date2_index[k], D - 1);
        if (dem_error) A[(M - 1) * rows + r] = baselines[k].bperp * K;
        w[r] = 1.0;
        ++r;
    }
    const double constraint_weight = 1.0 / std::sqrt(static_cast<double>(cfg.temporal_strength));
    const int64_t model_column = dem_error ? M - 2 : M - 1;
    for (int64_t k = 0; k < constraint_rows; ++k) {
        const int64_t row = observations + k;
        A[k * rows + row] = 1.0;
        A[model_column * rows + row] = model_term(cfg, dateorder, k);
        w[row] = constraint_weight;
    }
}

}  // namespace com

namespace sbas {

void invert_batch(const CFG& cfg, const std::vector<DATEORDER>& dateorder, const BASELINE* baselines,
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
    maps.cumulative = lib::create_2d_array_float(increments, P);
    maps.sigma = lib::zeros_float(P, 1);
    maps.dem = lib::zeros_float(P, 1);
    if (P > 0 && (!lib::complete(maps.cumulative, increments, P) || !maps.sigma || !maps.dem))
        lib::out_of_memory();

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
    write_maps(cfg, net, dateorder, maps, start, P);
    if (profile) profile->writing += std::chrono::duration<double>(std::chrono::steady_clock::now() - written).count();
    lib::free2d_float(maps.cumulative, static_cast<int>(increments));
    std::free(maps.sigma);
    std::free(maps.dem);
}

void sbas_step2_sbas_linear_new(CFG cfg, std::vector<DATEORDER> dateorder, const BASELINE* baselines,
                                float** stack, const int* count, int64_t start, int64_t end)
{
    invert_batch(cfg, dateorder, baselines, stack, count, start, end, nullptr);
}

}  // namespace sbas
