// The per-pixel inversion on networks small enough to check by hand.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "catalogue/dates.h"
#include "config/cfg.h"
#include "inversion/network.h"
#include "numerics/arrays.h"
#include "support/child.h"
#include "support/tiny_job.h"

namespace {

using testing_support::read_floats;
using testing_support::TinyJob;

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
        CFG cfg = lib::loadcfg(job.config(extra).c_str());
        const auto dates = com::getdateorder(cfg);
        com::readdesignmatrixorder(&cfg, dates);
        cfg.n_ifg = static_cast<int>(cfg.ifg_names.size());
        cfg.n_date = static_cast<int>(dates.size());
        cfg.simple_log_origin_mjd = lib::date2mjd(cfg.simple_log_origin);
        const int64_t P = static_cast<int64_t>(samples[0].size());
        float** stack = lib::create_2d_array_float(3, P);
        std::vector<int> count(static_cast<size_t>(P), 0);
        for (int k = 0; k < 3; ++k)
            for (int64_t p = 0; p < P; ++p) {
                stack[k][p] = samples[k][p];
                count[p] += samples[k][p] != 0.0f;
            }
        sbas::sbas_step2_sbas_linear_new(cfg, dates, baselines, stack, count.data(), start, start + P);
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
    const size_t started = err.find("Started on UTC -> ");
    const std::string when = err.substr(started + 18, 25);
    EXPECT_EQ(when.size(), 25u);
    EXPECT_EQ(when.back(), '\n');
    EXPECT_NE(err.find("\nPlease wait ...            \n"), std::string::npos);
}

TEST_F(ThreeDates, TheReducedSystemWeighsConstraintsByOneOverRootStrength)
{
    CFG cfg = lib::loadcfg(job.config("temporal_constraint 1\ntemporal_strength 0.25\nif_est_hgt 1\n").c_str());
    const auto dates = com::getdateorder(cfg);
    com::readdesignmatrixorder(&cfg, dates);
    cfg.n_ifg = 3;
    float** stack = lib::create_2d_array_float(3, 1);
    stack[0][0] = 2.0f;  // the 1-2 interferogram is missing at this pixel
    stack[2][0] = 5.0f;
    const BASELINE baselines[] = {{20200101, 20200113, 10.0f}, {20200113, 20200125, 20.0f}, {20200101, 20200125, 30.0f}};
    const int64_t M = 4, rows = 4;  // two increments, a rate, a DEM error; 2 observations + 2 constraints
    std::vector<double> y(rows, 0.0), A(rows * M, 0.0), W(rows * rows, 0.0);
    const int count[] = {2};
    const double K = 0.5;
    com::readoneunwseries3(cfg, stack, count, M, dates, baselines, 0, K, y.data(), A.data(), W.data(), rows);
    lib::free2d_float(stack, 3);
    const double dt = -12.0 / 365.25;
    // Column-major rows x M: columns increment 0, increment 1, rate, DEM error.
    const std::vector<double> expected_A = {1, 1, 1, 0, 0, 1, 0, 1, 0, 0, dt, dt, 10.0 * K, 30.0 * K, 0, 0};
    for (size_t i = 0; i < A.size(); ++i) EXPECT_DOUBLE_EQ(A[i], expected_A[i]) << i;
    EXPECT_EQ(y, (std::vector<double>{2, 5, 0, 0}));
    EXPECT_EQ(W[0], 1.0);
    EXPECT_EQ(W[5], 1.0);
    EXPECT_EQ(W[10], 2.0);  // 1 / sqrt(0.25)
    EXPECT_EQ(W[15], 2.0);
    EXPECT_EQ(W[1], 0.0);
}

}  // namespace
