// Whole runs with the interferogram corrections: a synthetic job with orbital
// ramps and an elevation-correlated term is estimated better with them than
// without; copies and outputs are the same for any number of threads; the
// job's own files are never touched; the copies go or stay as the settings
// say; existing copies are reused; a short interferogram stops the run from
// inside a worker thread.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <map>
#include <string>

#include "support/runs.h"

namespace {

namespace fs = std::filesystem;
using namespace testing_support;

struct RampedJob : SynthJob {
    RampedJob(int dates, int width, int length)
        : SynthJob({.width = width, .length = length, .dates = dates, .noise = 0.1, .ramps = true,
                    .elevation_term = true, .dem_oversample = 2,
                    .settings = {{"eds_block_size", "2"}, {"orbit_quad_fit_sampling", "2"},
                                 {"if_use_existing_corrected_ifg", "0"}}})
    {
    }
    // The job's own files, outputs left out.
    std::map<std::string, std::string> inputs() const
    {
        auto files = files_under(job.folder);
        std::erase_if(files, [](const auto& f) { return f.first.starts_with("result/"); });
        return files;
    }
};

// RMS of the velocity error over the estimated pixels.
double velocity_rms(const SynthJob& s)
{
    double sum = 0;
    size_t n = 0;
    for (double e : velocity_error(s))
        if (!std::isnan(e)) sum += e * e, ++n;
    return std::sqrt(sum / n);
}

const std::string kBoth = "if_remove_eds 1\nif_remove_orbit 1\n";

TEST(CorrectedRuns, CloserToTheTruthTheSameForAnyThreadsAndTheJobLeftAlone)
{
    const RampedJob s(15, 60, 50);
    const auto inputs = s.inputs();
    expect_finished(s.run());
    const double uncorrected = velocity_rms(s);

    std::map<std::string, std::string> first;
    for (int threads : {1, 2, 3}) {
        s.clear_results();
        const Outcome o =
            s.run(kBoth + "if_keep_corrected_ifg 1\nmax_parallel_threads " + std::to_string(threads) + "\n");
        EXPECT_TRUE(contains(o.err, "finish************\n*********************************************************\n\n"
                                    "*************Updating reference point values*************\n"));
        const auto results = files_under(s.job.result_folder);
        for (const auto& name : s.job.ifgs) {
            EXPECT_EQ(results.count(name + ".remove_hgt.remove_orbit"), 1u) << name;
            EXPECT_EQ(results.count(name + ".remove_hgt"), 0u) << name;  // the intermediate went
        }
        if (first.empty()) first = results;
        EXPECT_TRUE(results == first) << threads << " threads";
    }
    const double corrected = velocity_rms(s);
    std::printf("velocity RMS error: %.4f rad/yr uncorrected, %.4f rad/yr corrected\n", uncorrected, corrected);
    EXPECT_LT(corrected, uncorrected / 4);

    // Without if_keep_corrected_ifg the copies go after the inversion; the
    // outputs stay the same.
    s.clear_results();
    s.run(kBoth + "if_keep_corrected_ifg 0\n");
    std::erase_if(first, [](const auto& f) { return contains(f.first, ".remove_"); });
    EXPECT_TRUE(files_under(s.job.result_folder) == first);
    EXPECT_TRUE(s.inputs() == inputs);
}

TEST(CorrectedRuns, BannersMaskAndTheReuseOfExistingCopies)
{
    const RampedJob s(4, 24, 20);
    const auto inputs = s.inputs();
    const std::string only = "if_inverse_time_series 0\nmax_parallel_threads 2\n";
    const std::string a = s.result(s.job.ifgs[0]), b = s.result(s.job.ifgs[1]);

    // With a closure mask, a masked pixel is NaN in the elevation copy and 0
    // in the final one. With no stage after them the copies stay.
    std::vector<float> mask(24 * 20, 0.0f);
    mask[5] = 1.0f;
    write_floats(s.result("phase_loop_closure_mask"), mask);
    const std::string masked = "if_check_loop_closure 1\nif_use_existing_phasemask 1\n";
    const std::string n = "Number of interferograms          : " + std::to_string(s.job.ifgs.size()) + " \n";
    const std::string stars = "*********************************************************\n";
    const std::string dem = "DEM file used                     : " + s.job.dem;
    EXPECT_TRUE(contains(s.run(only + masked + kBoth).err,
                         stars + "********Removing elevation dependent signal start********\n" + n +
                             "Block size to estimate parameters : 2 \n" + dem +
                             " \nIf keep the corrected files       : 0 \nNumber of threads                 : 2 \n"
                             "********Removing elevation dependent signal finish*******\n" + stars + stars +
                             "****************Removing orbital ramps start*************\n" + n +
                             "Samppling rate                    : 2 \nIf keep the corrected files       : 0 \n"
                             "Number of threads                 : 2\n****************Removing orbital ramps finish"
                             "************\n" + stars));
    for (const auto& name : s.job.ifgs) {
        EXPECT_EQ(read_floats(s.result(name + ".remove_hgt.remove_orbit"))[5], 0.0f);
        EXPECT_FALSE(fs::exists(s.result(name + ".remove_hgt")));
    }
    s.run(only + masked + "if_remove_eds 1\n");
    EXPECT_TRUE(std::isnan(read_floats(a + ".remove_hgt")[5]));

    // A final copy spares both corrections, even without the elevation copy.
    fs::remove(a + ".remove_hgt");
    write_text(a + ".remove_hgt.remove_orbit", "kept");
    s.run(only + kBoth + "if_use_existing_corrected_ifg 1\n");
    EXPECT_EQ(read_text(a + ".remove_hgt.remove_orbit"), "kept");
    EXPECT_FALSE(fs::exists(a + ".remove_hgt"));
    // An elevation copy is reused; missing ones are made.
    write_text(a + ".remove_hgt", "kept");
    fs::remove(b + ".remove_hgt");
    s.run(only + "if_remove_eds 1\nif_use_existing_corrected_ifg 1\n");
    EXPECT_EQ(read_text(a + ".remove_hgt"), "kept");
    EXPECT_EQ(read_text(b + ".remove_hgt").size(), 24u * 20 * 4);
    // Without reuse every copy is made afresh.
    s.run(only + kBoth);
    EXPECT_EQ(read_text(a + ".remove_hgt.remove_orbit").size(), 24u * 20 * 4);
    EXPECT_TRUE(s.inputs() == inputs);
}

// Interferogram 4 is short and a later one, which another thread reaches
// first, is missing: the run reports the first in list order, once,
// whatever the thread count.
TEST(CorrectedRuns, TheFirstBadInterferogramInListOrderStopsTheRunFromAWorkerThread)
{
    const RampedJob s(7, 24, 20);
    ASSERT_GE(s.job.ifgs.size(), 10u);
    const std::string short_one = s.job.ifg_folder + "/" + s.job.ifgs[4];
    write_text(short_one, std::string(100, 'x'));
    std::remove((s.job.ifg_folder + "/" + s.job.ifgs[9]).c_str());
    for (const std::string stage : {"if_remove_eds", "if_remove_orbit"})
        for (const char* threads : {"1", "3"}) {
            const Outcome o =
                s.run("if_inverse_time_series 0\nmax_parallel_threads " + std::string(threads) + "\n" + stage + " 1\n");
            expect_stop(o, short_one + " file size wrong 100\n", false);
            EXPECT_EQ(o.err.find("file size wrong"), o.err.rfind("file size wrong"));  // one message
        }
}

}  // namespace
