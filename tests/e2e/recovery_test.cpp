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

#include "support/runs.h"

namespace {

using namespace testing_support;

constexpr double kTolerance = 1e-4;  // radians (metres for the DEM error)

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

// Checks every output map against the referred truth on the pixels
// `estimated` says (the misfit against 0: the data are noise-free), and that
// every other pixel is 0 in every output.
void expect_recovered(const SynthJob& s, const std::vector<bool>& estimated, bool dem_error)
{
    const synth::Job& job = s.job;
    std::vector<std::pair<std::string, std::string>> maps = {{synth::velocity_name, synth::truth_velocity_name},
                                                             {"least_square_sigma", ""}};
    for (size_t k = 1; k < job.dates.size(); ++k)
        maps.emplace_back(synth::culmap_name(job.dates[k], job.dates[0]), synth::truth_disp_name(job.dates[k]));
    if (dem_error) maps.emplace_back(synth::dem_error_name, synth::truth_dem_error_name);
    for (const auto& [out_name, truth_name] : maps) {
        const auto estimate = s.raster(s.result(out_name));
        const auto expected = truth_name.empty() ? std::vector<double>(estimate.size()) : referred_truth(job, truth_name);
        double worst = 0;
        size_t skipped_nonzero = 0;
        for (size_t p = 0; p < estimate.size(); ++p) {
            if (estimated[p]) worst = std::max(worst, std::fabs(estimate[p] - expected[p]));
            else skipped_nonzero += estimate[p] != 0.0f;
        }
        EXPECT_LT(worst, kTolerance) << out_name;
        EXPECT_EQ(skipped_nonzero, 0u) << out_name;
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
        synth::Options o;
        c.shape(o);
        o.minimum_temporal_ifg_ratio = c.minimum_ratio;
        const SynthJob s(o);
        expect_finished(s.run());
        // A pixel is estimated when it is observed at all and by at least the
        // minimum share (the setting held as a float, as the run holds it).
        const double interferograms = static_cast<double>(s.job.ifgs.size());
        const double ratio = static_cast<float>(c.minimum_ratio);
        std::vector<bool> estimated;
        for (int count : observations(s.job)) estimated.push_back(count > 0 && !(ratio > count / interferograms));
        if (c.minimum_ratio > 0.5) {  // the job does exercise the gaps
            EXPECT_NE(std::count(estimated.begin(), estimated.end(), false), 0);
        }
        expect_recovered(s, estimated, c.dem_error);
    }
}

// Pixels with fewer observations than unknowns are left at 0: pinned by
// ThreeDates.ConsistentObservationsAreRecoveredExactly and by
// Grouping.EveryPixelGetsTheBitsOfItsOwnSolution.

TEST(Reproducibility, BatchSizesAndThreadCountsChangeNoOutputByte)
{
    const SynthJob s({.width = 13, .length = 9, .dates = 10, .long_links = 2, .deformation = synth::Deformation::mixed,
                      .noise = 0.3, .nodata_fraction = 0.5, .dem_error = true, .minimum_temporal_ifg_ratio = 0.2,
                      .settings = {{"if_est_hgt", "1"}, {"temporal_constraint", "1"}}});
    const int pixels = 13 * 9;
    // Besides the patches, one sample in eight is no-data at random: most
    // pixels then have a validity pattern of their own, others share one.
    std::mt19937 rng(3);
    for (const auto& name : s.job.ifgs) {
        std::vector<float> samples = read_floats(s.job.ifg_folder + "/" + name);
        for (float& v : samples)
            if (rng() % 8 == 0) v = 0.0f;
        write_floats(s.job.ifg_folder + "/" + name, samples);
    }
    std::map<std::string, std::string> reference;
    for (const auto& [maxcap, threads] :
         {std::pair{pixels, 1}, {1, 1}, {7, 2}, {pixels, 2}, {pixels + 50, 4}, {pixels - 1, 3}, {40, 4}}) {
        SCOPED_TRACE("maxcap " + std::to_string(maxcap) + ", threads " + std::to_string(threads));
        expect_finished(s.run("maxcap " + std::to_string(maxcap) + "\nmax_parallel_threads " + std::to_string(threads) + "\n"));
        const auto files = files_under(s.job.result_folder);
        EXPECT_EQ(files.at("baseline_dependent_dem_error").size(), static_cast<size_t>(pixels) * 4);
        if (reference.empty()) reference = files;
        EXPECT_TRUE(files == reference);
    }
}

}  // namespace
