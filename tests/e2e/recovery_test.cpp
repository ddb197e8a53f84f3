// Whole runs on noise-free synthetic jobs whose true displacement is known:
// the outputs must recover it, relative to the reference window as the run
// refers every interferogram to it, and cutting the grid into batches or
// spreading it over threads must not change a single output byte.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "support/child.h"
#include "synth/synth.h"

namespace {

using testing_support::read_text;
using testing_support::run_program;
using testing_support::TempDir;

constexpr double kTolerance = 1e-4;  // radians (metres for the DEM error)

struct SyntheticRun {
    synth::Job job;
    testing_support::Outcome outcome;
};

SyntheticRun generate_and_run(synth::Options options, const std::string& folder)
{
    options.threads = 1;
    SyntheticRun run{synth::write_job(options, folder), {}};
    run.outcome = run_program({run.job.config});
    EXPECT_TRUE(run.outcome.exited) << "signal " << run.outcome.signal;
    EXPECT_EQ(run.outcome.status, 0);
    EXPECT_NE(run.outcome.err.find("finish!\n"), std::string::npos) << run.outcome.err;
    return run;
}

std::vector<float> output(const synth::Job& job, const std::string& name)
{
    return synth::read_raster(job.result_folder + "/" + name, job.grid);
}

std::vector<float> truth(const synth::Job& job, const std::string& name)
{
    return synth::read_raster(job.truth_folder + "/" + name, job.grid);
}

// The truth as the run sees it: minus its mean over the reference window.
std::vector<double> referred(const synth::Job& job, const std::vector<float>& map)
{
    const int h = job.ref_window / 2;  // ceil((w - 1) / 2): an even window grows to the next odd size
    double sum = 0;
    int n = 0;
    for (int r = job.ref_row - h; r <= job.ref_row + h; ++r)
        for (int c = job.ref_col - h; c <= job.ref_col + h; ++c)
            if (r >= 0 && r < job.grid.length && c >= 0 && c < job.grid.width) {
                sum += map[static_cast<size_t>(r) * job.grid.width + c];
                ++n;
            }
    std::vector<double> out(map.begin(), map.end());
    for (double& v : out) v -= sum / n;
    return out;
}

// Valid interferograms per pixel, from the input rasters.
std::vector<int> observations(const synth::Job& job)
{
    std::vector<int> count(static_cast<size_t>(job.grid.width) * job.grid.length, 0);
    for (const auto& name : job.ifgs) {
        const auto ifg = synth::read_raster(job.ifg_folder + "/" + name, job.grid);
        for (size_t p = 0; p < count.size(); ++p) count[p] += synth::is_data(ifg[p]);
    }
    return count;
}

// Pixels whose number of valid interferograms passes `keep`.
template <typename Keep>
std::vector<bool> pixels_where(const synth::Job& job, Keep keep)
{
    const auto count = observations(job);
    std::vector<bool> chosen(count.size());
    for (size_t p = 0; p < count.size(); ++p) chosen[p] = keep(count[p]);
    return chosen;
}

// Checks every output map against the truth on the pixels `estimated`
// says, and that every other pixel is 0 in every output.
void expect_recovered(const synth::Job& job, const std::vector<bool>& estimated, bool dem_error)
{
    std::vector<std::pair<std::string, std::string>> maps;  // output, truth
    for (size_t k = 1; k < job.dates.size(); ++k)
        maps.emplace_back(synth::culmap_name(job.dates[k], job.dates[0]), synth::truth_disp_name(job.dates[k]));
    maps.emplace_back(synth::velocity_name, synth::truth_velocity_name);
    if (dem_error) maps.emplace_back(synth::dem_error_name, synth::truth_dem_error_name);
    for (const auto& [out_name, truth_name] : maps) {
        const auto estimate = output(job, out_name);
        const auto expected = referred(job, truth(job, truth_name));
        double worst = 0;
        size_t skipped_nonzero = 0;
        for (size_t p = 0; p < estimate.size(); ++p) {
            if (estimated[p]) worst = std::max(worst, std::fabs(estimate[p] - expected[p]));
            else skipped_nonzero += estimate[p] != 0.0f;
        }
        EXPECT_LT(worst, kTolerance) << out_name;
        EXPECT_EQ(skipped_nonzero, 0u) << out_name;
    }
    const auto sigma = output(job, "least_square_sigma");
    for (size_t p = 0; p < sigma.size(); ++p) {
        if (!estimated[p]) {
            EXPECT_EQ(sigma[p], 0.0f);
        }
    }
}

struct RecoveryCase {
    const char* what;
    void (*shape)(synth::Options&);  // the job's deformation, gaps and settings
    double minimum_ratio;             // minimum_temporal_ifg_ratio of the run
    bool dem_error;
};

// The models the inversion offers, each on a job it must recover exactly:
// any deformation without a temporal model, a linear one with the linear
// model (whose constraint rows keep even a disconnected network solvable), a
// logarithmic one with the logarithmic model, and a DEM error with the linear
// model. Baselines that are exact differences of per-date baselines make the
// DEM-error column a combination of the increment columns; the temporal model
// is what separates the two.
const RecoveryCase kRecoveryCases[] = {
    {"linear, no model", [](synth::Options& o) { o.long_links = 3; o.jitter = 4; }, 0.5, false},
    {"mixed, no model", [](synth::Options& o) { o.deformation = synth::Deformation::mixed; o.long_links = 3; },
     0.5, false},
    {"linear, linear model, gaps",
     [](synth::Options& o) {
         o.nodata_fraction = 1.0;
         o.nodata_size = 0.7;
         o.settings = {{"temporal_constraint", "1"}};
     },
     0.7, false},
    {"logarithmic, logarithmic model",
     [](synth::Options& o) {
         o.deformation = synth::Deformation::log;
         o.log_origin = 20161201;
         o.nodata_fraction = 0.3;
         o.settings = {{"temporal_constraint", "2"}};
     },
     0.0, false},
    {"DEM error, linear model",
     [](synth::Options& o) {
         o.dem_error = true;
         o.nodata_fraction = 0.3;
         o.settings = {{"if_est_hgt", "1"}, {"temporal_constraint", "1"}};
     },
     0.0, true},
};

TEST(Recovery, EachModelRecoversItsDeformation)
{
    for (const auto& c : kRecoveryCases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        synth::Options o;
        c.shape(o);
        o.minimum_temporal_ifg_ratio = c.minimum_ratio;
        const SyntheticRun run = generate_and_run(o, dir / "job");
        // A pixel is estimated when it is observed at all and by at least the
        // minimum share (the setting held as a float, as the run holds it).
        const double interferograms = static_cast<double>(run.job.ifgs.size());
        const double ratio = static_cast<float>(c.minimum_ratio);
        const auto estimated = pixels_where(
            run.job, [&](int count) { return count > 0 && !(ratio > count / interferograms); });
        if (c.minimum_ratio > 0.5) {  // the job does exercise the gaps
            EXPECT_NE(std::count(estimated.begin(), estimated.end(), false), 0);
        }
        expect_recovered(run.job, estimated, c.dem_error);
    }
}

TEST(Recovery, PixelsWithFewerObservationsThanUnknownsAreZero)
{
    TempDir dir;
    synth::Options o;
    o.dates = 8;
    o.neighbours = 2;
    o.nodata_fraction = 0.9;
    o.nodata_size = 0.6;
    o.settings = {{"minimum_temporal_ifg_ratio", "0"}};
    const SyntheticRun run = generate_and_run(o, dir / "job");
    const auto count = observations(run.job);
    const int unknowns = static_cast<int>(run.job.dates.size()) - 1;
    size_t skipped = 0;
    for (size_t p = 0; p < count.size(); ++p) {
        if (count[p] >= unknowns) continue;
        ++skipped;
        for (size_t k = 1; k < run.job.dates.size(); ++k)
            EXPECT_EQ(output(run.job, synth::culmap_name(run.job.dates[k], run.job.dates[0]))[p], 0.0f);
        EXPECT_EQ(output(run.job, "least_square_sigma")[p], 0.0f);
        EXPECT_EQ(output(run.job, "linear_mean_velocity")[p], 0.0f);
    }
    EXPECT_GT(skipped, 0u);
}

// All output files of a run, by name.
std::map<std::string, std::string> outputs_of(const synth::Job& job)
{
    std::map<std::string, std::string> files;
    for (size_t k = 1; k < job.dates.size(); ++k) {
        const std::string name = synth::culmap_name(job.dates[k], job.dates[0]);
        files[name] = read_text(job.result_folder + "/" + name);
    }
    for (const char* name : {"least_square_sigma", "linear_mean_velocity", "baseline_dependent_dem_error"})
        files[name] = read_text(job.result_folder + "/" + name);
    return files;
}

TEST(Reproducibility, BatchSizesAndThreadCountsChangeNoOutputByte)
{
    TempDir dir;
    synth::Options o;
    o.width = 13;
    o.length = 9;
    o.dates = 10;
    o.deformation = synth::Deformation::mixed;
    o.noise = 0.3;
    o.nodata_fraction = 0.5;
    o.dem_error = true;
    o.long_links = 2;
    o.settings = {{"if_est_hgt", "1"}, {"temporal_constraint", "1"}, {"minimum_temporal_ifg_ratio", "0.2"}};
    const synth::Job job = synth::write_job(o, dir / "job");
    const int pixels = job.grid.width * job.grid.length;
    // Besides the patches, one sample in eight is no-data at random: most
    // pixels then have a validity pattern of their own, others share one.
    std::mt19937 rng(3);
    for (const auto& name : job.ifgs) {
        const std::string path = job.ifg_folder + "/" + name;
        std::vector<float> samples = testing_support::read_floats(path);
        for (float& v : samples)
            if (rng() % 8 == 0) v = 0.0f;
        testing_support::write_floats(path, samples);
    }

    std::map<std::string, std::string> reference;
    const std::vector<std::pair<int, int>> runs = {
        {pixels, 1}, {1, 1}, {7, 2}, {pixels, 2}, {pixels + 50, 4}, {pixels - 1, 3}, {40, 4}};
    for (const auto& [maxcap, threads] : runs) {
        const std::string config = dir / ("config-" + std::to_string(maxcap) + "-" + std::to_string(threads));
        testing_support::write_text(config, read_text(job.config) + "maxcap " + std::to_string(maxcap) +
                                                "\nmax_parallel_threads " + std::to_string(threads) + "\n");
        const auto outcome = run_program({config});
        ASSERT_NE(outcome.err.find("finish!\n"), std::string::npos) << outcome.err;
        const auto files = outputs_of(job);
        EXPECT_EQ(files.at("least_square_sigma").size(), static_cast<size_t>(pixels) * 4);
        if (reference.empty()) {
            reference = files;
            continue;
        }
        for (const auto& [name, bytes] : files)
            EXPECT_TRUE(bytes == reference.at(name)) << name << " differs with maxcap " << maxcap << ", threads "
                                                     << threads;
    }
}

}  // namespace
