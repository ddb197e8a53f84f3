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
// Any other pixel solves its own reduced system from its valid
// interferograms. In the full network the constraint rows weigh
// temporal_strength, in a reduced system 1/sqrt(temporal_strength): results
// of earlier versions depend on that difference, so it stays.
//
// The weights are diagonal and the design matrix sparse, so a reduced system
// is solved by the diagonal path of the least-squares kit, which gives the
// dense solver's values bit for bit; a pixel whose system holds a non-finite
// number is solved densely instead.
//
// Cumulative displacement is rounded to float at each date, sigma is the
// RMS of the interferogram residuals accumulated in float, and the mean
// velocity is the last cumulative value over the time span in years.
#include "inversion/network.h"

#include <omp.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <new>
#include <string>

#include "catalogue/filelist.h"
#include "catalogue/raster.h"
#include "config/fatal.h"
#include "numerics/arrays.h"
#include "numerics/least_squares.h"
#include "numerics/linalg.h"
#include "numerics/parallel.h"
#include "numerics/validity.h"

namespace {

constexpr double kFourPi = 12.566370614359172;

// The shape of the systems of one batch.
struct Network {
    int64_t N = 0;             // interferograms
    int64_t D = 0;             // dates
    int64_t M = 0;             // unknowns per pixel
    int64_t L = 0;             // rows of the full network
    bool constrained = false;  // temporal model rows present
    bool dem_error = false;    // DEM-error unknown present (last)
    int64_t model_column = 0;  // column of the temporal model's coefficient
    double K = 0;              // DEM-error coefficient
    std::vector<double> model_terms;  // model column entry of constraint row k
};

Network describe(const CFG& cfg, const std::vector<DATEORDER>& dates)
{
    Network net;
    net.N = static_cast<int64_t>(cfg.ifg_names.size());
    net.D = static_cast<int64_t>(dates.size());
    net.constrained = cfg.temporal_constraint == 1 || cfg.temporal_constraint == 2;
    net.dem_error = cfg.if_est_hgt != 0;
    net.M = net.D - 1 + (net.constrained ? 1 : 0) + (net.dem_error ? 1 : 0);
    net.L = net.N + (net.constrained ? net.D - 1 : 0);
    net.model_column = net.dem_error ? net.M - 2 : net.M - 1;
    net.K = kFourPi / (static_cast<double>(cfg.wavelength) * static_cast<double>(cfg.orbit_altitude) *
                       std::sin(static_cast<double>(cfg.incidence) * M_PI / 180.0));
    if (net.constrained) {
        const double t0 = cfg.simple_log_origin_mjd;
        for (int64_t k = 0; k + 1 < net.D; ++k) {
            const double a = dates[k].mjd;
            const double b = dates[k + 1].mjd;
            net.model_terms.push_back(cfg.temporal_constraint == 1 ? -(b - a) / 365.25
                                                                   : -(std::log(b - t0) - std::log(a - t0)));
        }
    }
    return net;
}

// Sets the ones of an interferogram spanning dates j1 < j2 in row `row` of a
// column-major design matrix with leading dimension ld.
void set_span(double* A, int64_t ld, int64_t row, int64_t j1, int64_t j2, int64_t increments)
{
    for (int64_t j = std::max<int64_t>(j1, 0); j < j2 && j < increments; ++j) A[j * ld + row] = 1.0;
}

// Fills the reduced system of `pixel` into zeroed A (rows x M) and the
// diagonal weights w (rows).
void fill_pixel_system(const CFG& cfg, const Network& net, float* const* stack, const BASELINE* baselines,
                       int64_t pixel, double* y, double* A, double* w, int64_t rows)
{
    const int64_t constraint_rows = net.constrained ? net.D - 1 : 0;
    const int64_t observations = rows - constraint_rows;
    int64_t r = 0;
    for (int64_t k = 0; k < net.N && r < observations; ++k) {
        const float sample = stack[k][pixel];
        if (!lib::isvalid(sample)) continue;
        y[r] = sample;
        set_span(A, rows, r, cfg.ifg_date1_index[k], cfg.ifg_date2_index[k], net.D - 1);
        if (net.dem_error) A[(net.M - 1) * rows + r] = baselines[k].bperp * net.K;
        w[r] = 1.0;
        ++r;
    }
    const double constraint_weight = 1.0 / std::sqrt(static_cast<double>(cfg.temporal_strength));
    for (int64_t k = 0; k < constraint_rows; ++k) {
        const int64_t row = observations + k;
        A[k * rows + row] = 1.0;
        A[net.model_column * rows + row] = net.model_terms[k];
        w[row] = constraint_weight;
    }
}

// The full network's design matrix A (L x M) and weights W (L x L), and its
// estimator E = (A^T W A)^-1 A^T W (M x L). A singular normal matrix is used
// as it is.
struct FullNetwork {
    std::vector<double> A, W, E;
};

FullNetwork full_network(const CFG& cfg, const Network& net, const std::vector<DATEORDER>& dates,
                         const BASELINE* baselines)
{
    FullNetwork full;
    const int64_t L = net.L, M = net.M;
    full.A.assign(L * M, 0.0);
    full.W.assign(L * L, 0.0);
    full.E.assign(M * L, 0.0);
    for (int64_t i = 0; i < net.N; ++i) {
        const char* name = cfg.ifg_names[i].c_str();
        const int j1 = com::findorder(dates, com::phsfilename2date(name, 1));
        const int j2 = com::findorder(dates, com::phsfilename2date(name, 2));
        set_span(full.A.data(), L, i, j1, j2, net.D - 1);
        if (cfg.if_est_hgt == 1) full.A[(M - 1) * L + i] = baselines[i].bperp * net.K;
        full.W[i * L + i] = 1.0;
    }
    for (int64_t k = 0; net.constrained && k < net.D - 1; ++k) {
        const int64_t r = net.N + k;
        full.A[k * L + r] = 1.0;
        full.W[r * L + r] = cfg.temporal_strength;
        full.A[net.model_column * L + r] = net.model_terms[k];
    }
    std::vector<double> T(M * L), S(M * M);
    lib::matmul("TN", M, L, L, 1.0, full.A.data(), full.W.data(), 0.0, T.data());
    lib::matmul("NN", M, M, L, 1.0, T.data(), full.A.data(), 0.0, S.data());
    lib::matinv(S.data(), M);
    lib::matmul("NT", M, L, M, 1.0, S.data(), full.A.data(), 0.0, T.data());
    lib::matmul("NN", M, L, L, 1.0, T.data(), full.W.data(), 0.0, full.E.data());
    return full;
}

// Work storage of one thread, chosen by thread number.
struct Scratch {
    std::vector<double> A, W, w, y, fitted, S, LU, T, E;
    std::vector<int> pivots;
    lib::DiagonalScratch diagonal;
};

std::vector<Scratch> make_scratch(int threads, const Network& net)
{
    try {
        std::vector<Scratch> all(static_cast<size_t>(threads));
        for (Scratch& s : all) {
            s.A.resize(net.L * net.M);
            s.W.resize(net.L * net.L);
            s.w.resize(net.L);
            s.y.resize(net.L);
            s.fitted.resize(net.L);
            s.S.resize(net.M * net.M);
            s.LU.resize(net.M * net.M);
            s.T.resize(net.M * net.L);
            s.E.resize(net.M * net.L);
            s.pivots.resize(net.M);
        }
        return all;
    } catch (const std::bad_alloc&) {
        lib::out_of_memory();
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

// The outputs of one batch, one value per pixel.
struct Maps {
    float** cumulative = nullptr;  // D - 1 rows
    float* sigma = nullptr;
    float* dem = nullptr;
};

// Solves pixel p into the maps; returns without writing when the pixel has
// fewer observations than unknowns.
void invert_pixel(const CFG& cfg, const Network& net, const FullNetwork& full, float* const* stack,
                  const int* count, const BASELINE* baselines, int64_t p, Scratch& s, Maps& maps)
{
    const int64_t n = count[p];
    const int64_t rows = n + (net.constrained ? net.D - 1 : 0);
    if (net.M > rows) return;
    const int64_t M = net.M;
    double* y = s.y.data();
    const double* x;
    const double* A;
    int64_t fitted_rows;
    if (n == cfg.n_ifg) {
        for (int64_t k = 0; k < net.N; ++k) y[k] = stack[k][p];
        for (int64_t k = net.N; k < net.L; ++k) y[k] = 0.0;
        lib::matmul("NN", M, 1, net.L, 1.0, full.E.data(), y, 0.0, s.T.data());
        x = s.T.data();
        A = full.A.data();
        fitted_rows = net.L;
    } else {
        std::fill(s.A.begin(), s.A.begin() + rows * M, 0.0);
        std::fill(y + n, y + rows, 0.0);
        std::fill(s.w.begin(), s.w.begin() + rows, 0.0);
        fill_pixel_system(cfg, net, stack, baselines, p, y, s.A.data(), s.w.data(), rows);
        if (!lib::weighted_linear_function_diagonal(s.A.data(), s.w.data(), rows, M, y, s.S.data(), s.T.data(),
                                                    s.E.data(), s.LU.data(), s.pivots.data(), s.diagonal)) {
            std::fill(s.W.begin(), s.W.begin() + rows * rows, 0.0);
            for (int64_t r = 0; r < rows; ++r) s.W[r * rows + r] = s.w[r];
            lib::weighted_linear_function_nonewmatrix(s.A.data(), s.W.data(), rows, M, y, s.S.data(), s.T.data(),
                                                      s.E.data(), s.LU.data(), s.pivots.data());
        }
        x = s.T.data();
        A = s.A.data();
        fitted_rows = rows;
    }
    lib::matmul("NN", fitted_rows, 1, M, 1.0, A, x, 0.0, s.fitted.data());

    float sum = 0.0f;
    for (int64_t k = 0; k < n; ++k) {
        const double residual = y[k] - s.fitted[k];
        sum += residual * residual;
    }
    maps.sigma[p] = std::sqrt(sum / static_cast<float>(n));
    maps.cumulative[0][p] = static_cast<float>(x[0]);
    for (int64_t j = 1; j < net.D - 1; ++j) maps.cumulative[j][p] = maps.cumulative[j - 1][p] + x[j];
    if (net.dem_error) maps.dem[p] = static_cast<float>(x[M - 1]);
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

    std::vector<float> velocity(static_cast<size_t>(P > 0 ? P : 0), 0.0f);
    if (net.D >= 2) {
        const double years = (dates[net.D - 1].mjd - dates[0].mjd) / 365.25;
        for (int64_t p = 0; p < P; ++p) velocity[p] = static_cast<float>(maps.cumulative[net.D - 2][p] / years);
    }
    com::write_batch(cfg.resultfolder, "linear_mean_velocity", start, velocity.data(), P);
    if (cfg.if_est_hgt == 1) com::write_batch(cfg.resultfolder, "baseline_dependent_dem_error", start, maps.dem, P);
}

}  // namespace

namespace com {

void readoneunwseries3(const CFG& cfg, float** stack, const int* /*count*/, int64_t M,
                       const std::vector<DATEORDER>& dateorder, const BASELINE* baselines, int64_t pixel,
                       double K, double* y, double* A, double* W, int64_t rows)
{
    Network net = describe(cfg, dateorder);
    net.M = M;
    net.model_column = net.dem_error ? M - 2 : M - 1;
    net.K = K;
    std::vector<double> w(static_cast<size_t>(rows > 0 ? rows : 0), 0.0);
    fill_pixel_system(cfg, net, stack, baselines, pixel, y, A, w.data(), rows);
    for (int64_t r = 0; r < rows; ++r) W[r * rows + r] = w[r];
}

}  // namespace com

namespace sbas {

void sbas_step2_sbas_linear_new(CFG cfg, std::vector<DATEORDER> dateorder, const BASELINE* baselines,
                                float** stack, const int* count, int64_t start, int64_t end)
{
    const Network net = describe(cfg, dateorder);
    const int64_t P = end > start ? end - start : 0;

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
    if (net.D >= 2) {
        const FullNetwork full = full_network(cfg, net, dateorder, baselines);
        const int threads = lib::region_threads(cfg.max_parallel_threads);
        std::vector<Scratch> scratch = make_scratch(threads, net);
#pragma omp parallel num_threads(threads)
        {
            const lib::Block pixels = lib::block_of(P, omp_get_num_threads(), omp_get_thread_num());
            Scratch& own = scratch[static_cast<size_t>(omp_get_thread_num())];
            for (int64_t p = pixels.first; p < pixels.end; ++p)
                invert_pixel(cfg, net, full, stack, count, baselines, p, own, maps);
        }
    }

    write_maps(cfg, net, dateorder, maps, start, P);
    lib::free2d_float(maps.cumulative, static_cast<int>(increments));
    std::free(maps.sigma);
    std::free(maps.dem);
}

}  // namespace sbas
