// Whole runs of the filters after the inversion of a small synthetic job with
// gaps and an odd grid: which filters each if_apply_filter value runs, in
// which order, on which files, and that the temporal filter's outputs do not
// depend on maxcap. The expected maps are made in this process from the
// run's own unfiltered maps with the filter kernels.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "filter/spatial.h"
#include "filter/temporal.h"
#include "numerics/validity.h"
#include "support/runs.h"

namespace {

using namespace testing_support;
using Maps = std::vector<std::vector<float>>;

constexpr double kSpatialSigma = 3.0;
constexpr double kTemporalSigma = 2.0;
const std::string kSigmas = "spatial_filter_sigma 3\ntemporal_filter_sigma 2\n";

// 15 x 11 pixels (both odd) with no-data patches, and the names of its maps.
struct FilterJob : SynthJob {
    explicit FilterJob(int dates)
        : SynthJob({.width = 15, .length = 11, .dates = dates, .neighbours = dates > 2 ? 2 : 1, .seed = 4,
                    .noise = 0.3, .nodata_fraction = 0.4, .ref_window = 3})
    {
        for (size_t k = 1; k < job.dates.size(); ++k) maps.push_back(synth::culmap_name(job.dates[k], job.dates[0]));
    }
    // A run on a cleared result folder, to a clean finish.
    Outcome fresh_run(const std::string& extra) const
    {
        clear_results();
        const Outcome o = run(extra);
        expect_finished(o);
        return o;
    }
    Maps read(const std::string& suffix) const
    {
        Maps out;
        for (const auto& name : maps) out.push_back(read_floats(result(name + suffix)));
        return out;
    }
    std::vector<std::string> maps;  // culmap names, date order
};

// What the spatial stage does to one raster: no-data to 0, then the kernel.
std::vector<float> spatially(std::vector<float> map)
{
    for (float& x : map)
        if (!lib::isvalid(x)) x = 0.0f;
    com::fftw_filter_2d(11, 15, map.data(), kSpatialSigma, kSpatialSigma, 1);
    return map;
}

Maps spatially(Maps maps)
{
    for (auto& map : maps) map = spatially(map);
    return maps;
}

// What the temporal stage does to a stack of maps.
Maps temporally(Maps maps)
{
    std::vector<double> series(maps.size());
    for (size_t p = 0; p < maps[0].size(); ++p) {
        for (size_t k = 0; k < maps.size(); ++k) series[k] = lib::isvalid(maps[k][p]) ? maps[k][p] : 0.0f;
        float* filtered = com::fftw_1d_filter2(static_cast<int64_t>(maps.size()), series.data(), kTemporalSigma);
        for (size_t k = 0; k < maps.size(); ++k) maps[k][p] = filtered[k];
        std::free(filtered);
    }
    return maps;
}

TEST(FilterRuns, EachValueRunsItsFiltersInOrderOnTheRightFiles)
{
    const FilterJob job(6);  // 5 maps: an odd series length
    job.fresh_run("if_apply_filter 0\n");
    const Maps disp = job.read("");
    const std::string spatial = "Time series spatial filter start", temporal = "Time series temporal filter start",
                      both = "Time series 3D filter start";
    const struct {
        int value;
        std::vector<std::string> banners;  // in order
        std::function<Maps()> expected;    // the filtered maps, where worked out here
    } cases[] = {
        {0, {}, nullptr},
        {1, {spatial}, [&] { return spatially(disp); }},
        {2, {temporal}, [&] { return temporally(disp); }},
        // Temporal, then spatial over the temporal outputs in place.
        {3, {temporal, spatial}, [&] { return spatially(temporally(disp)); }},
        // Spatial into intermediates, temporal from them, intermediates removed.
        {4, {spatial, temporal}, [&] { return temporally(spatially(disp)); }},
        {5, {both}, nullptr},
        {7, {}, nullptr},
        {-1, {}, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        const Outcome o = job.fresh_run("if_apply_filter " + std::to_string(c.value) + "\n" + kSigmas);
        size_t at = 0;
        for (const auto& banner : c.banners) EXPECT_NE(at = o.err.find(banner, at), std::string::npos) << banner;
        EXPECT_EQ(contains(o.err, spatial) + contains(o.err, temporal) + contains(o.err, both), c.banners.size());
        EXPECT_FALSE(contains(o.err, "illegal parameters"));
        EXPECT_EQ(file_exists(job.result(job.maps[0] + ".filtered")), !c.banners.empty());
        EXPECT_FALSE(file_exists(job.result(job.maps[0] + ".sfilter")));
        EXPECT_EQ(job.read(""), disp);
        EXPECT_TRUE(!c.expected || job.read(".filtered") == c.expected());
    }
    // The spatial filter alone takes the velocity too; there is no stacking
    // velocity to filter.
    const Outcome o = job.fresh_run("if_apply_filter 1\n" + kSigmas);
    EXPECT_TRUE(contains(o.err, "spatially fitering " + job.maps[0] + "\n"));
    EXPECT_FALSE(contains(o.err, "linear_stacking_mean_velocity"));
    EXPECT_EQ(read_floats(job.result("linear_mean_velocity.filtered")),
              spatially(read_floats(job.result("linear_mean_velocity"))));

    // The temporal filter's outputs, on the maps of that run, do not depend
    // on maxcap.
    for (int maxcap : {1, 7}) {
        const std::string batches = std::to_string((165 + maxcap - 1) / maxcap);
        const Outcome o =
            job.run("if_inverse_time_series 0\nif_apply_filter 2\nmaxcap " + std::to_string(maxcap) + "\n" + kSigmas);
        expect_finished(o);
        EXPECT_TRUE(contains(o.err, "\n=> Filtering batch " + batches + " / " + batches +
                                        "\nNumber of dispalcement maps     : 5\n"
                                        "Guassian kernal sigma           : 2.00 days\n"))
            << maxcap;
        EXPECT_EQ(job.read(".filtered"), temporally(disp)) << maxcap;
    }
}

TEST(FilterRuns, OneMap)
{
    const FilterJob job(2);  // one interferogram, one map
    const Outcome o = job.fresh_run("if_apply_filter 5\n");
    EXPECT_TRUE(contains(o.err, "Number of dispalcement maps     : 2\nTemporal filter sigma           : 12.000 \n"
                                "Spatial filter sigma            : 3.900 \n"));
    const auto disp = read_floats(job.result(job.maps[0]));
    const auto both = read_floats(job.result(job.maps[0] + ".filtered"));
    ASSERT_EQ(both.size(), disp.size());
    for (size_t p = 0; p < disp.size(); ++p) EXPECT_EQ(both[p] == 0.0f, !lib::isvalid(disp[p])) << p;

    // A series of one sample comes back as it was, up to rounding.
    job.fresh_run("if_apply_filter 2\n");
    const auto series = read_floats(job.result(job.maps[0] + ".filtered"));
    for (size_t p = 0; p < disp.size(); ++p)
        EXPECT_NEAR(series[p], lib::isvalid(disp[p]) ? disp[p] : 0.0f, 1e-6f * std::abs(disp[p]) + 1e-7f) << p;
}

// The maps of an earlier run, one of them cut short: every filter stops
// with the size message instead of reading past the end of the file.
TEST(FilterRuns, AShortMapStopsTheRun)
{
    const FilterJob job(4);
    job.fresh_run("if_apply_filter 0\n");
    const std::string map = job.result(job.maps[1]);
    std::filesystem::resize_file(map, 40);
    for (int value : {1, 2, 5})
        expect_stop(job.run("if_inverse_time_series 0\nif_apply_filter " + std::to_string(value) + "\n"),
                    map + " file size wrong 40\n", false);
}

}  // namespace
