// The per-pixel inversion on networks small enough to check by hand, and
// the grouped inversion against each pixel solved alone.
#include <gtest/gtest.h>

#include "app/job.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "catalogue/dates.h"
#include "config/cfg.h"
#include "catalogue/design_rows.h"
#include "inversion/network.h"
#include "numerics/arrays.h"
#include "numerics/least_squares.h"
#include "numerics/linalg.h"
#include "numerics/validity.h"
#include "support/child.h"
#include "support/errors.h"

namespace {

using testing_support::must;
using testing_support::read_floats;
using testing_support::TinyJob;

// The configuration of `job` with `extra`, its dates and design order, as the
// run prepares them for the inversion.
std::pair<CFG, std::vector<DATEORDER>> prepared(const TinyJob& job, const std::string& extra)
{
    CFG cfg = must(lib::loadcfg(job.config(extra).c_str()));
    auto dates = must(com::getdateorder(cfg));
    must(com::readdesignmatrixorder(&cfg, dates));
    cfg.n_ifg = static_cast<int>(cfg.ifg_names.size());
    cfg.n_date = static_cast<int>(dates.size());
    cfg.simple_log_origin_mjd = must(lib::date2mjd(cfg.simple_log_origin));
    return {cfg, dates};
}

// Three dates twelve days apart and three interferograms: 0-1, 1-2, 0-2.
class ThreeDates : public ::testing::Test {
protected:
    TinyJob job{4, 1};
    const std::vector<std::string> names = {"i_20200101_20200113", "i_20200113_20200125", "i_20200101_20200125"};

    void SetUp() override
    {
        for (const auto& name : names) job.add_ifg(name, {1, 1, 1, 1});
    }

    // Inverts one batch [start, start + stack columns) of the given samples
    // (rows: interferograms) and returns nothing; outputs land in result/.
    void invert(const std::string& extra, const std::vector<std::vector<float>>& samples, int64_t start,
                const BASELINE* baselines = nullptr)
    {
        const auto [cfg, dates] = prepared(job, extra);
        const int64_t P = static_cast<int64_t>(samples[0].size());
        float** stack = lib::create_2d_array_float(3, P);
        std::vector<int> count(static_cast<size_t>(P), 0);
        for (int k = 0; k < 3; ++k)
            for (int64_t p = 0; p < P; ++p) {
                stack[k][p] = samples[k][p];
                count[p] += samples[k][p] != 0.0f;
            }
        must(sbas::sbas_step2_sbas_linear_new(cfg, dates, baselines, stack, count.data(), start, start + P));
        lib::free2d_float(stack, 3);
    }
};

TEST_F(ThreeDates, ConsistentObservationsAreRecoveredExactly)
{
    // Pixel 0 complete, pixel 1 without the 1-2 interferogram, pixel 2 seen
    // once (fewer observations than unknowns), pixel 3 complete but noisy.
    invert("", {{1.5f, 1.5f, 0.0f, 1.0f}, {-0.5f, 0.0f, 2.0f, 1.0f}, {1.0f, 1.0f, 0.0f, 3.0f}}, 0);
    const auto first = read_floats(job.result("culmap-20200113-20200101.disp"));
    const auto second = read_floats(job.result("culmap-20200125-20200101.disp"));
    const auto sigma = read_floats(job.result("least_square_sigma"));
    const auto velocity = read_floats(job.result("linear_mean_velocity"));
    ASSERT_EQ(first.size(), 4u);
    EXPECT_NEAR(first[0], 1.5f, 1e-6);
    EXPECT_NEAR(second[0], 1.0f, 1e-6);
    EXPECT_NEAR(sigma[0], 0.0f, 1e-6);
    EXPECT_NEAR(velocity[0], 1.0 / (24 / 365.25), 1e-4);
    EXPECT_NEAR(first[1], 1.5f, 1e-6);
    EXPECT_NEAR(second[1], 1.0f, 1e-6);
    EXPECT_EQ(first[2], 0.0f);
    EXPECT_EQ(second[2], 0.0f);
    EXPECT_EQ(sigma[2], 0.0f);
    EXPECT_EQ(velocity[2], 0.0f);
    // Misclosure 1 + 1 - 3 = -1 spread evenly: each residual is 1/3.
    EXPECT_NEAR(first[3], 1.0f + 1.0f / 3, 1e-6);
    EXPECT_NEAR(second[3], 3.0f - 1.0f / 3, 1e-6);
    EXPECT_NEAR(sigma[3], 1.0f / 3, 1e-6);
    EXPECT_FALSE(testing_support::file_exists(job.result("baseline_dependent_dem_error")));
}

TEST_F(ThreeDates, ReportsTheSystemAndItsMemory)
{
    const std::string err = testing_support::capture_stderr(
        [&] { invert("max_parallel_threads 2\ntemporal_constraint 1\n", {{1}, {1}, {2}}, 0); });
    // N = 3, M = 3, L = 5, P = 1, two threads.
    const std::string expected_head =
        "Number of interferograms        : 3\n"
        "Number of pixels to estimate    : 1\n"
        "Number of threads               : 2\n"
        "Number of parameters            : 3\n"
        "Design matrix size              : 30\n"
        "Weight matrix size              : 50\n"
        "Parameter matrix size           : 6\n"
        "Observation error matrix size   : 10\n"
        "Total memory requirement        : 0.00 Mb\n\n"
        "Started on UTC -> ";
    EXPECT_EQ(err.substr(0, expected_head.size()), expected_head);
    EXPECT_EQ(err.substr(expected_head.size() + 24, 1), "\n");  // the time, 24 characters
    EXPECT_NE(err.find("\nPlease wait ...            \n"), std::string::npos);
}

TEST_F(ThreeDates, ReducedSystemWeighsConstraintsByOneOverRootStrength)
{
    const auto [cfg, dates] = prepared(job, "temporal_constraint 1\ntemporal_strength 0.25\nif_est_hgt 1\n");
    float** stack = lib::create_2d_array_float(3, 1);
    stack[0][0] = 2.0f;  // the 1-2 interferogram is missing at this pixel
    stack[2][0] = 5.0f;
    const BASELINE baselines[] = {{20200101, 20200113, 10.0f}, {20200113, 20200125, 20.0f}, {20200101, 20200125, 30.0f}};
    const int64_t M = 4, rows = 4;  // two increments, a rate, a DEM error; 2 observations + 2 constraints
    std::vector<double> y(rows, 0.0), A(rows * M, 0.0), w(rows, 0.0);
    const int count[] = {2};
    const double K = 0.5;
    com::readoneunwseries3(cfg, stack, count, M, dates, baselines, 0, K, y.data(), A.data(), w.data(), rows);
    lib::free2d_float(stack, 3);
    const double dt = -12.0 / 365.25;
    // Column-major rows x M: columns increment 0, increment 1, rate, DEM error.
    const std::vector<double> expected_A = {1, 1, 1, 0, 0, 1, 0, 1, 0, 0, dt, dt, 10.0 * K, 30.0 * K, 0, 0};
    for (size_t i = 0; i < A.size(); ++i) EXPECT_DOUBLE_EQ(A[i], expected_A[i]) << i;
    EXPECT_EQ(y, (std::vector<double>{2, 5, 0, 0}));
    EXPECT_EQ(w, (std::vector<double>{1, 1, 2, 2}));  // 2 = 1 / sqrt(0.25)
}

// The per-pixel inversion as first written, densely: the full
// network's estimator from A and W with lib::matmul and lib::matinv, a
// reduced system from com::readoneunwseries3 solved with
// lib::weighted_linear_function_nonewmatrix and its W stored whole.
struct PerPixel {
    std::vector<std::vector<float>> cumulative;
    std::vector<float> sigma, dem;
};

PerPixel per_pixel(const CFG& cfg, const std::vector<DATEORDER>& dates, const BASELINE* baselines,
                   float** stack, const std::vector<int>& count)
{
    const int64_t N = cfg.n_ifg, D = static_cast<int64_t>(dates.size()), P = static_cast<int64_t>(count.size());
    const bool tc = cfg.temporal_constraint != 0, h = cfg.if_est_hgt == 1;
    const int64_t M = D - 1 + tc + h, C = tc ? D - 1 : 0, L = N + C, model = h ? M - 2 : M - 1;
    const double K = 12.566370614359172 / (static_cast<double>(cfg.wavelength) * cfg.orbit_altitude *
                                          std::sin(static_cast<double>(cfg.incidence) * M_PI / 180.0));
    auto term = [&](int64_t k) {
        const double a = dates[k].mjd, b = dates[k + 1].mjd, t0 = cfg.simple_log_origin_mjd;
        return cfg.temporal_constraint == 1 ? -(b - a) / 365.25 : -(std::log(b - t0) - std::log(a - t0));
    };
    std::vector<double> A(L * M, 0.0), W(L * L, 0.0), E(M * L), T(M * L), S(M * M);
    for (int64_t i = 0; i < N; ++i) {
        for (int64_t j = cfg.ifg_date1_index[i]; j < cfg.ifg_date2_index[i]; ++j) A[j * L + i] = 1.0;
        if (h) A[(M - 1) * L + i] = baselines[i].bperp * K;
        W[i * L + i] = 1.0;
    }
    for (int64_t k = 0; k < C; ++k) {
        A[k * L + N + k] = 1.0;
        A[model * L + N + k] = term(k);
        W[(N + k) * L + N + k] = cfg.temporal_strength;
    }
    lib::matmul("TN", M, L, L, 1.0, A.data(), W.data(), 0.0, T.data());
    lib::matmul("NN", M, M, L, 1.0, T.data(), A.data(), 0.0, S.data());
    lib::matinv(S.data(), M);
    lib::matmul("NT", M, L, M, 1.0, S.data(), A.data(), 0.0, T.data());
    lib::matmul("NN", M, L, L, 1.0, T.data(), W.data(), 0.0, E.data());

    PerPixel out{std::vector<std::vector<float>>(D - 1, std::vector<float>(P, 0.0f)), std::vector<float>(P, 0.0f),
                 std::vector<float>(P, 0.0f)};
    for (int64_t p = 0; p < P; ++p) {
        const int64_t n = count[p], rows = n + C;
        if (M > rows) continue;
        std::vector<double> y(std::max(L, rows), 0.0), x(M), fitted(std::max(L, rows)), Ap(rows * M, 0.0), w(rows, 0.0), Wp(rows * rows, 0.0);
        std::vector<double> Sp(M * M), Tp(M * rows), Ep(M * rows), LU(M * M);
        std::vector<int> pivots(M);
        const double* system = A.data();
        int64_t fitted_rows = L;
        if (n == N) {
            for (int64_t k = 0; k < N; ++k) y[k] = stack[k][p];
            lib::matmul("NN", M, 1, L, 1.0, E.data(), y.data(), 0.0, x.data());
        } else {
            com::readoneunwseries3(cfg, stack, count.data(), M, dates, baselines, p, K, y.data(), Ap.data(),
                                   w.data(), rows);
            for (int64_t r = 0; r < rows; ++r) Wp[r * rows + r] = w[r];
            lib::weighted_linear_function_nonewmatrix(Ap.data(), Wp.data(), rows, M, y.data(), Sp.data(),
                                                      Tp.data(), Ep.data(), LU.data(), pivots.data());
            std::copy(Tp.begin(), Tp.begin() + M, x.begin());
            system = Ap.data();
            fitted_rows = rows;
        }
        lib::matmul("NN", fitted_rows, 1, M, 1.0, system, x.data(), 0.0, fitted.data());
        float sum = 0.0f;
        for (int64_t k = 0; k < n; ++k) sum += (y[k] - fitted[k]) * (y[k] - fitted[k]);
        out.sigma[p] = std::sqrt(sum / static_cast<float>(n));
        out.cumulative[0][p] = static_cast<float>(x[0]);
        for (int64_t j = 1; j < D - 1; ++j) out.cumulative[j][p] = out.cumulative[j - 1][p] + x[j];
        if (h) out.dem[p] = static_cast<float>(x[M - 1]);
    }
    return out;
}

bool same_bits(const std::vector<float>& a, const std::vector<float>& b)
{
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0);
}

struct GroupingCase {
    const char* what;
    std::string settings;
    float odd_baseline;  // the first interferogram's baseline
};

TEST(Grouping, EveryPixelGetsTheBitsOfItsOwnSolution)
{
    // Nine dates, each linked to the next three: 21 interferograms. The
    // pixels are complete, share one of four patterns, or have a random
    // pattern of their own (some too sparse to estimate, some with a
    // network cut in two: a singular normal matrix, used uninverted); no-data
    // is 0, NaN, an infinity or 1e-9. A few counts disagree with the stack.
    // The cases cover the temporal models, the DEM error, and systems that
    // hold an infinity (an infinite baseline, a zero temporal strength)
    // where the estimators are formed by the dense chain.
    const GroupingCase cases[] = {
        {"no model", "", 10.0f},
        {"linear model and DEM error", "temporal_constraint 1\nif_est_hgt 1\n", 10.0f},
        {"logarithmic model", "temporal_constraint 2\nsimple_log_origin 20191201\n", 10.0f},
        {"infinite baseline", "if_est_hgt 1\n", INFINITY},
        {"zero temporal strength", "temporal_constraint 1\ntemporal_strength 0\n", 10.0f},
        {"NaN temporal strength", "temporal_constraint 1\ntemporal_strength nan\n", 10.0f},
    };
    const int64_t P = 400;
    TinyJob job(P, 1);
    std::vector<int> d;
    for (int k = 0; k < 9; ++k) d.push_back(static_cast<int>(must(lib::mjd2date(must(lib::date2mjd(20200101)) + 12 * k))));
    std::vector<BASELINE> baselines;
    for (int a = 0; a < 9; ++a)
        for (int b = a + 1; b <= a + 3 && b < 9; ++b) {
            job.add_ifg("i_" + std::to_string(d[a]) + "_" + std::to_string(d[b]), std::vector<float>(P, 1.0f));
            baselines.push_back({d[a], d[b], static_cast<float>((a * 37 + b * 11) % 50) - 25.0f});
        }
    const int64_t N = static_cast<int64_t>(baselines.size());
    std::mt19937_64 rng(5);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    float** stack = lib::create_2d_array_float(N, P);
    std::vector<int> count(P, 0);
    std::vector<std::vector<bool>> shared(4, std::vector<bool>(N));
    for (auto& pattern : shared)
        for (int64_t k = 0; k < N; ++k) pattern[k] = k > 0 && u(rng) < 0.8;
    const float nodata[] = {0.0f, NAN, -INFINITY, 1e-9f};
    for (int64_t p = 0; p < P; ++p) {
        // The odd counts below go with a shared pattern.
        const bool odd = p % 50 == 7;
        const double kind = odd ? 0.5 : u(rng);
        for (int64_t k = 0; k < N; ++k) {
            const bool valid = kind < 0.2 ? true : kind < 0.6 ? shared[odd ? 0 : p % 4][k] : u(rng) < 0.7;
            stack[k][p] = valid ? static_cast<float>(u(rng) * 4 - 2) : nodata[(p + k) % 4];
            count[p] += lib::isvalid(stack[k][p]);
        }
        if (odd) count[p] += p % 100 == 7 ? 1 : -1;
    }
    for (const GroupingCase& c : cases) {
        SCOPED_TRACE(c.what);
        baselines[0].bperp = c.odd_baseline;
        std::vector<PerPixel> runs;
        for (int threads : {1, 2, 3}) {
            const auto [cfg, dates] = prepared(job, c.settings + "max_parallel_threads " + std::to_string(threads) + "\n");
            must(sbas::sbas_step2_sbas_linear_new(cfg, dates, baselines.data(), stack, count.data(), 0, P));
            PerPixel run;
            for (size_t j = 1; j < dates.size(); ++j)
                run.cumulative.push_back(read_floats(job.result("culmap-" + std::to_string(dates[j].date) + "-" +
                                                                std::to_string(dates[0].date) + ".disp")));
            run.sigma = read_floats(job.result("least_square_sigma"));
            if (cfg.if_est_hgt == 1) run.dem = read_floats(job.result("baseline_dependent_dem_error"));
            if (threads == 1) {
                const PerPixel expected = per_pixel(cfg, dates, baselines.data(), stack, count);
                for (size_t j = 0; j < run.cumulative.size(); ++j)
                    EXPECT_TRUE(same_bits(run.cumulative[j], expected.cumulative[j])) << "date " << j + 1;
                EXPECT_TRUE(same_bits(run.sigma, expected.sigma));
                EXPECT_TRUE(cfg.if_est_hgt != 1 || same_bits(run.dem, expected.dem));
            }
            runs.push_back(run);
        }
        for (size_t r = 1; r < runs.size(); ++r) {
            for (size_t j = 0; j < runs[0].cumulative.size(); ++j)
                EXPECT_TRUE(same_bits(runs[r].cumulative[j], runs[0].cumulative[j]));
            EXPECT_TRUE(same_bits(runs[r].sigma, runs[0].sigma));
            EXPECT_TRUE(same_bits(runs[r].dem, runs[0].dem));
        }
    }
    lib::free2d_float(stack, static_cast<int>(N));
}

}  // namespace
