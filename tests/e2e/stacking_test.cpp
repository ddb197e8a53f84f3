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

#include "support/runs.h"

namespace {

using namespace testing_support;

const char* const kVelocity = "linear_stacking_mean_velocity";
const char* const kResidual = "linear_stacking_mean_velocity_residual";

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
    expect_finished(o);
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
    EXPECT_EQ(between(o.err, "\n*************Simple linear stacking start", "stacking finish***************\n"),
              expected);

    // Referred to pixel 1, pixel p moves at 36.525 (p - 1) rad/yr; pixel 1
    // itself holds no data and gets 0.
    const auto velocity = read_floats(with->result(kVelocity));
    ASSERT_EQ(velocity.size(), 24u);
    for (int p = 0; p < 24; ++p) EXPECT_NEAR(velocity[p], 36.525 * (p - 1), 1e-3) << p;
    EXPECT_EQ(velocity[1], 0.0f);

    // The zero-span interferogram adds nothing to the rate, only to the
    // scatter: without it the rate is the same to the last bit. Here the
    // inversion runs too, after the stacking.
    auto without = moving_job(false);
    const Outcome o2 = run_program({without->config(settings + "if_inverse_time_series 1\n")});
    expect_finished(o2);
    EXPECT_LT(o2.err.find("Simple linear stacking finish"), o2.err.find("Time series inversion start"));
    EXPECT_EQ(read_text(without->result(kVelocity)), read_text(with->result(kVelocity)));
    EXPECT_NE(read_text(without->result(kResidual)), read_text(with->result(kResidual)));
}

TEST(Stacking, RecoversTheTrueVelocityOfANoiseFreeJob)
{
    const SynthJob s({.jitter = 4, .long_links = 3, .ref_window = 1});
    expect_finished(s.run("if_stacking 1\nif_inverse_time_series 0\n"));
    double worst = 0;
    size_t zero = 0;  // the reference pixel's, alone
    for (double e : velocity_error(s, kVelocity)) {
        if (std::isnan(e)) ++zero;
        else worst = std::max(worst, std::fabs(e));
    }
    EXPECT_LT(worst, 1e-4);
    EXPECT_EQ(zero, 1u);
    char text[32];
    std::snprintf(text, sizeof text, "%.3g", worst);
    RecordProperty("worst_velocity_error_rad_per_yr", text);
}

TEST(Stacking, BatchSizesAndThreadCountsChangeNoOutputByte)
{
    // More pixels than a thread solves at once; pixels seen once get NaN
    // residual and sigma.
    const SynthJob s({.width = 37, .length = 29, .dates = 10, .long_links = 2, .deformation = synth::Deformation::mixed,
                      .noise = 0.3, .nodata_fraction = 0.8, .nodata_size = 0.5, .minimum_temporal_ifg_ratio = 0.0});
    const int pixels = 37 * 29;
    std::map<std::string, std::string> reference;
    for (const auto& [maxcap, threads] : {std::pair{pixels, 1}, {1, 1}, {7, 2}, {600, 3}}) {
        SCOPED_TRACE("maxcap " + std::to_string(maxcap) + ", threads " + std::to_string(threads));
        expect_finished(s.run("if_stacking 1\nif_inverse_time_series 0\nmaxcap " + std::to_string(maxcap) +
                              "\nmax_parallel_threads " + std::to_string(threads) + "\n"));
        const auto files = files_under(s.job.result_folder);
        EXPECT_EQ(files.at(kResidual).size(), size_t(pixels) * 4);
        if (reference.empty()) reference = files;
        EXPECT_TRUE(files == reference);
    }
}

}  // namespace
