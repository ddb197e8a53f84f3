// Whole runs of the filters after the inversion of a small synthetic job with
// gaps and an odd grid: which filters each if_apply_filter value runs, which
// files they read, write and remove, and that the temporal filter's outputs
// do not depend on maxcap. The expected maps are made in this process from
// the run's own unfiltered maps with the filter kernels.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "filter/spatial.h"
#include "filter/temporal.h"
#include "numerics/validity.h"
#include "support/child.h"
#include "synth/synth.h"

namespace {

using testing_support::file_exists;
using testing_support::read_floats;
using testing_support::run_program;

constexpr double kSpatialSigma = 3.0;
constexpr double kTemporalSigma = 2.0;

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

struct Job {
    testing_support::TempDir dir;
    synth::Job job;
    std::vector<std::string> maps;  // culmap names, date order

    std::string result(const std::string& name) const { return job.result_folder + "/" + name; }

    // Runs with the job's settings and `extra` lines on what the result
    // folder holds.
    testing_support::Outcome run_on(const std::string& extra)
    {
        testing_support::write_text(dir / "run.txt", testing_support::read_text(job.config) + extra);
        auto outcome = run_program({dir / "run.txt"});
        EXPECT_TRUE(outcome.exited) << "signal " << outcome.signal;
        EXPECT_EQ(outcome.status, 0);
        return outcome;
    }

    // The same on a cleared result folder, to a clean finish.
    testing_support::Outcome run(const std::string& extra)
    {
        std::filesystem::remove_all(job.result_folder);
        std::filesystem::create_directory(job.result_folder);
        auto outcome = run_on(extra);
        EXPECT_TRUE(contains(outcome.err, "finish!\n")) << outcome.err;
        return outcome;
    }
};

// 15 x 11 pixels (both odd) with no-data patches; `dates` dates.
std::unique_ptr<Job> make_job(int dates)
{
    auto job = std::make_unique<Job>();
    synth::Options o;
    o.width = 15;
    o.length = 11;
    o.dates = dates;
    o.neighbours = dates > 2 ? 2 : 1;
    o.noise = 0.3;
    o.nodata_fraction = 0.4;
    o.ref_window = 3;
    o.threads = 1;
    o.seed = 4;
    job->job = synth::write_job(o, job->dir / "job");
    for (size_t k = 1; k < job->job.dates.size(); ++k)
        job->maps.push_back(synth::culmap_name(job->job.dates[k], job->job.dates[0]));
    return job;
}

const std::string kSigmas = "spatial_filter_sigma " + std::to_string(kSpatialSigma) + "\ntemporal_filter_sigma " +
                            std::to_string(kTemporalSigma) + "\n";

// What the spatial stage does to one raster: no-data to 0, then the kernel.
std::vector<float> spatially(std::vector<float> map, int64_t width, int64_t length)
{
    for (float& x : map)
        if (!lib::isvalid(x)) x = 0.0f;
    com::fftw_filter_2d(length, width, map.data(), kSpatialSigma, kSpatialSigma, 1);
    return map;
}

// What the temporal stage does to a stack of maps.
std::vector<std::vector<float>> temporally(std::vector<std::vector<float>> maps)
{
    const size_t n = maps.size();
    std::vector<double> series(n);
    for (size_t p = 0; p < maps[0].size(); ++p) {
        for (size_t k = 0; k < n; ++k) series[k] = lib::isvalid(maps[k][p]) ? maps[k][p] : 0.0f;
        float* filtered = com::fftw_1d_filter2(static_cast<int64_t>(n), series.data(), kTemporalSigma);
        for (size_t k = 0; k < n; ++k) maps[k][p] = filtered[k];
        std::free(filtered);
    }
    return maps;
}

TEST(FilterRuns, EachValueRunsItsFilters)
{
    auto job = make_job(6);
    const std::string spatial = "Time series spatial filter start", temporal = "Time series temporal filter start",
                      both = "Time series 3D filter start";
    struct Case {
        int value;
        std::vector<std::string> banners;  // in order
    };
    const Case cases[] = {
        {0, {}},          {1, {spatial}}, {2, {temporal}}, {3, {temporal, spatial}}, {4, {spatial, temporal}},
        {5, {both}},      {7, {}},        {-1, {}},
    };
    for (const auto& c : cases) {
        const auto o = job->run("if_apply_filter " + std::to_string(c.value) + "\n");
        size_t at = 0;
        for (const auto& banner : c.banners) {
            at = o.err.find(banner, at);
            EXPECT_NE(at, std::string::npos) << c.value << ": " << banner;
        }
        for (const auto& banner : {spatial, temporal, both}) {
            const bool expected = std::count(c.banners.begin(), c.banners.end(), banner) > 0;
            EXPECT_EQ(contains(o.err, banner), expected) << c.value << ": " << banner;
        }
        EXPECT_FALSE(contains(o.err, "illegal parameters")) << c.value;
        EXPECT_EQ(file_exists(job->result(job->maps[0] + ".filtered")), !c.banners.empty()) << c.value;
        EXPECT_FALSE(file_exists(job->result(job->maps[0] + ".sfilter"))) << c.value;
        EXPECT_TRUE(file_exists(job->result(job->maps[0]))) << c.value;
    }
}

TEST(FilterRuns, TheFilesOfEachOrder)
{
    auto job = make_job(6);  // 5 maps: an odd series length
    const int64_t width = job->job.grid.width, length = job->job.grid.length;
    auto read_maps = [&](const std::string& suffix) {
        std::vector<std::vector<float>> maps;
        for (const auto& name : job->maps) maps.push_back(read_floats(job->result(name + suffix)));
        return maps;
    };

    // Spatial only: every map and the velocity; no stacking velocity to filter.
    auto o = job->run("if_apply_filter 1\n" + kSigmas);
    EXPECT_TRUE(contains(o.err, "spatially fitering " + job->maps[0] + "\n"));
    EXPECT_TRUE(contains(o.err, "spatially fitering linear_mean_velocity\n"));
    EXPECT_FALSE(contains(o.err, "linear_stacking_mean_velocity"));
    const auto disp = read_maps("");
    auto filtered = read_maps(".filtered");
    for (size_t k = 0; k < disp.size(); ++k) EXPECT_EQ(filtered[k], spatially(disp[k], width, length)) << k;
    EXPECT_EQ(read_floats(job->result("linear_mean_velocity.filtered")),
              spatially(read_floats(job->result("linear_mean_velocity")), width, length));

    // Temporal, then spatial over the temporal outputs in place.
    job->run("if_apply_filter 3\n" + kSigmas);
    auto expected = temporally(disp);
    for (auto& map : expected) map = spatially(map, width, length);
    EXPECT_EQ(read_maps(".filtered"), expected);

    // Spatial into the intermediates, temporal from them, intermediates removed.
    o = job->run("if_apply_filter 4\n" + kSigmas);
    std::vector<std::vector<float>> spatial_first;
    for (const auto& map : disp) spatial_first.push_back(spatially(map, width, length));
    EXPECT_EQ(read_maps(".filtered"), temporally(spatial_first));
    for (const auto& name : job->maps) EXPECT_FALSE(file_exists(job->result(name + ".sfilter"))) << name;
    EXPECT_EQ(read_maps(""), disp);
}

TEST(FilterRuns, TemporalOutputsDoNotDependOnMaxcap)
{
    auto job = make_job(5);
    const int64_t pixels = job->job.grid.width * job->job.grid.length;
    std::vector<std::vector<float>> reference;
    for (int64_t maxcap : {pixels, int64_t{1}, int64_t{7}}) {
        const auto o = job->run("if_apply_filter 2\nmaxcap " + std::to_string(maxcap) + "\n");
        const int batches = static_cast<int>((pixels + maxcap - 1) / maxcap);
        EXPECT_TRUE(contains(o.err, "\n=> Filtering batch " + std::to_string(batches) + " / " +
                                        std::to_string(batches) + "\nNumber of dispalcement maps     : 4\n"
                                        "Guassian kernal sigma           : 12.00 days\n"))
            << maxcap;
        std::vector<std::vector<float>> maps;
        for (const auto& name : job->maps) maps.push_back(read_floats(job->result(name + ".filtered")));
        if (reference.empty()) {
            reference = maps;
        } else {
            EXPECT_EQ(maps, reference) << maxcap;  // byte for byte: no NaN in these maps
        }
    }
}

TEST(FilterRuns, OneMap)
{
    auto job = make_job(2);  // one interferogram, one map
    const auto o = job->run("if_apply_filter 5\n");
    EXPECT_TRUE(contains(o.err, "Number of dispalcement maps     : 2\nTemporal filter sigma           : 12.000 \n"
                                "Spatial filter sigma            : 3.900 \n"));
    const auto disp = read_floats(job->result(job->maps[0]));
    const auto both = read_floats(job->result(job->maps[0] + ".filtered"));
    ASSERT_EQ(both.size(), disp.size());
    for (size_t p = 0; p < disp.size(); ++p) EXPECT_EQ(both[p] == 0.0f, !lib::isvalid(disp[p])) << p;

    // A series of one sample comes back as it was, up to rounding.
    job->run("if_apply_filter 2\n");
    const auto series = read_floats(job->result(job->maps[0] + ".filtered"));
    for (size_t p = 0; p < disp.size(); ++p)
        EXPECT_NEAR(series[p], lib::isvalid(disp[p]) ? disp[p] : 0.0f, 1e-6f * std::abs(disp[p]) + 1e-7f) << p;
}

// The maps of an earlier run, one of them cut short: every filter stops
// with the size message instead of reading past the end of the file.
TEST(FilterRuns, AShortMapStopsTheRun)
{
    auto job = make_job(4);
    job->run("if_apply_filter 0\n");
    const std::string map = job->result(job->maps[1]);
    std::filesystem::resize_file(map, 40);
    for (int value : {1, 2, 5}) {
        const auto o = job->run_on("if_inverse_time_series 0\nif_apply_filter " + std::to_string(value) + "\n");
        EXPECT_TRUE(contains(o.err, map + " file size wrong 40\n")) << value << o.err;
        EXPECT_FALSE(contains(o.err, "finish!")) << value;
    }
}

}  // namespace
