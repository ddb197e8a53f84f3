// Whole runs with linear rate stacking: what the stage prints, the velocity
// it recovers on a synthetic job with known truth, and output bytes that do
// not depend on the batch size or the number of threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/tiny_job.h"
#include "synth/synth.h"

namespace {

using testing_support::Outcome;
using testing_support::read_text;
using testing_support::run_program;
using testing_support::TempDir;
using testing_support::TinyJob;
using testing_support::write_text;

const char* const kOutputs[] = {"linear_stacking_mean_velocity", "linear_stacking_mean_velocity_residual",
                                "linear_stacking_mean_velocity_sigma"};

bool finished(const Outcome& o) { return o.exited && o.status == 0 && o.err.find("finish!\n") != std::string::npos; }

// The stage's own lines: from its start banner to its finish banner.
std::string stage_text(const std::string& err)
{
    const std::string start = "\n*************Simple linear stacking start";
    const std::string finish = "\n*************Simple linear stacking finish***************\n";
    const size_t from = err.find(start);
    const size_t to = err.find(finish);
    if (from == std::string::npos || to == std::string::npos) return "";
    return err.substr(from, to + finish.size() - from);
}

// A 6 x 4 grid moving at 36.525 p rad/yr at pixel p (0.1 p rad a day),
// with a zero-span interferogram that carries only a small offset.
std::unique_ptr<TinyJob> moving_job(bool zero_span)
{
    auto job = std::make_unique<TinyJob>(6, 4);
    auto ifg = [](double days, double offset) {
        std::vector<float> v(24);
        for (int p = 0; p < 24; ++p) v[p] = static_cast<float>(1.0 + 0.1 * p * days + offset * p);
        return v;
    };
    job->add_ifg("geo_20200101_20200113.unw", ifg(12, 0));
    job->add_ifg("geo_20200113_20200125.unw", ifg(12, 0));
    job->add_ifg("geo_20200101_20200125.unw", ifg(24, 0));
    if (zero_span) job->add_ifg("geo_20200125_20200125.unw", ifg(0, 0.01));
    return job;
}

TEST(Stacking, LinesOfTheStageAndAZeroSpanInterferogram)
{
    const std::string settings = "if_stacking 1\nref_row 0\nref_col 1\nref_window 1\nmaxcap 5\n"
                                 "max_parallel_threads 3\nminimum_temporal_ifg_ratio 0\n";
    auto with = moving_job(true);
    const Outcome o = run_program({with->config(settings + "if_inverse_time_series 0\n")});
    ASSERT_TRUE(finished(o)) << o.err;

    std::string expected =
        "\n*************Simple linear stacking start****************\n"
        "geo_20200101_20200113.unw    12  0.03285 \n"
        "geo_20200113_20200125.unw    12  0.03285 \n"
        "geo_20200101_20200125.unw    24  0.06571 \n"
        "geo_20200125_20200125.unw     0  0.00000 \n";
    for (int batch = 1; batch <= 5; ++batch)
        expected += "\n=> Stacking batch " + std::to_string(batch) +
                    " / 5\nNumber of interferograms        : 4\nNumber of pixels to estimate    : " +
                    (batch < 5 ? "5" : "4") + "\nNumber of threads               : 3\nPlease wait ...            \n";
    expected += "\n*************Simple linear stacking finish***************\n";
    EXPECT_EQ(stage_text(o.err), expected);

    // Referred to pixel 1, pixel p moves at 36.525 (p - 1) rad/yr; pixel 1
    // itself holds no data and gets 0.
    const auto velocity = testing_support::read_floats(with->result(kOutputs[0]));
    ASSERT_EQ(velocity.size(), 24u);
    for (int p = 0; p < 24; ++p) EXPECT_NEAR(velocity[p], 36.525 * (p - 1), 1e-3) << p;
    EXPECT_EQ(velocity[1], 0.0f);

    // The zero-span interferogram adds nothing to the rate, only to the
    // scatter: without it the rate is the same to the last bit. Here the
    // inversion runs too, after the stacking.
    auto without = moving_job(false);
    const Outcome o2 = run_program({without->config(settings + "if_inverse_time_series 1\n")});
    ASSERT_TRUE(finished(o2)) << o2.err;
    EXPECT_LT(o2.err.find("Simple linear stacking finish"), o2.err.find("Time series inversion start"));
    EXPECT_EQ(read_text(without->result(kOutputs[0])), read_text(with->result(kOutputs[0])));
    EXPECT_NE(read_text(without->result(kOutputs[1])), read_text(with->result(kOutputs[1])));
}

// Writes the job's configuration with `extra` appended under a new name.
std::string config_with(const synth::Job& job, const std::string& name, const std::string& extra)
{
    const std::string path = job.folder + "/" + name;
    write_text(path, read_text(job.config) + extra);
    return path;
}

TEST(Stacking, RecoversTheTrueVelocityOfANoiseFreeJob)
{
    TempDir dir;
    synth::Options o;
    o.threads = 1;
    o.jitter = 4;
    o.long_links = 3;
    o.ref_window = 1;
    const synth::Job job = synth::write_job(o, dir / "job");
    const Outcome run =
        run_program({config_with(job, "stacking.txt", "if_stacking 1\nif_inverse_time_series 0\n")});
    ASSERT_TRUE(finished(run)) << run.err;

    const auto estimate = synth::read_raster(job.result_folder + "/" + kOutputs[0], job.grid);
    const auto truth = synth::read_raster(job.truth_folder + "/" + synth::truth_velocity_name, job.grid);
    const double reference = truth[static_cast<size_t>(job.ref_row) * job.grid.width + job.ref_col];
    double worst = 0;
    for (size_t p = 0; p < truth.size(); ++p) worst = std::max(worst, std::fabs(estimate[p] - (truth[p] - reference)));
    EXPECT_LT(worst, 1e-4);
    char text[32];
    std::snprintf(text, sizeof text, "%.3g", worst);
    RecordProperty("worst_velocity_error_rad_per_yr", text);
}

TEST(Stacking, BatchSizesAndThreadCountsChangeNoOutputByte)
{
    TempDir dir;
    synth::Options o;
    o.threads = 1;
    o.width = 37;  // more pixels than a thread solves at once
    o.length = 29;
    o.dates = 10;
    o.deformation = synth::Deformation::mixed;
    o.noise = 0.3;
    o.nodata_fraction = 0.8;
    o.nodata_size = 0.5;
    o.long_links = 2;
    o.minimum_temporal_ifg_ratio = 0.0;  // pixels seen once get NaN residual and sigma
    const synth::Job job = synth::write_job(o, dir / "job");
    const int pixels = job.grid.width * job.grid.length;

    std::map<std::string, std::string> reference;
    const std::vector<std::pair<int, int>> runs = {{pixels, 1}, {1, 1}, {7, 2}, {pixels, 3}, {600, 2}, {7, 3}};
    for (const auto& [maxcap, threads] : runs) {
        SCOPED_TRACE("maxcap " + std::to_string(maxcap) + ", threads " + std::to_string(threads));
        const Outcome run = run_program({config_with(
            job, "config-" + std::to_string(maxcap) + "-" + std::to_string(threads),
            "if_stacking 1\nif_inverse_time_series 0\nmaxcap " + std::to_string(maxcap) +
                "\nmax_parallel_threads " + std::to_string(threads) + "\n")});
        ASSERT_TRUE(finished(run)) << run.err;
        for (const char* name : kOutputs) {
            const std::string bytes = read_text(job.result_folder + "/" + name);
            EXPECT_EQ(bytes.size(), static_cast<size_t>(pixels) * 4) << name;
            if (reference.count(name) == 0) reference[name] = bytes;
            EXPECT_TRUE(bytes == reference[name]) << name;
        }
    }
}

}  // namespace
