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

#include "support/child.h"
#include "synth/synth.h"

namespace {

namespace fs = std::filesystem;
using testing_support::Outcome;
using testing_support::read_floats;
using testing_support::read_text;
using testing_support::write_text;

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Every file under `folder` but run-* configurations, by relative path, with
// its bytes; `result/` left out unless asked for.
std::map<std::string, std::string> files_under(const std::string& folder, bool results = true)
{
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        const std::string name = fs::relative(entry.path(), folder).string();
        if (entry.is_regular_file() && name.rfind("run-", 0) != 0 && (results || name.rfind("result/", 0) != 0))
            files[name] = read_text(entry.path().string());
    }
    return files;
}

// Runs the job's configuration followed by `lines`.
Outcome run(const synth::Job& job, const std::string& lines, bool fresh_results = false)
{
    if (fresh_results) {
        fs::remove_all(job.result_folder);
        fs::create_directory(job.result_folder);
    }
    const std::string config = job.folder + "/run-" + std::to_string(std::hash<std::string>{}(lines));
    write_text(config, read_text(job.config) + lines);
    Outcome o = testing_support::run_program({config});
    EXPECT_TRUE(o.exited) << "signal " << o.signal;
    EXPECT_EQ(o.status, 0);
    return o;
}

// RMS of the velocity error after removing the mean difference (the run
// refers the map to its reference window).
double velocity_rms(const synth::Job& job)
{
    const auto estimate = read_floats(job.result_folder + "/" + synth::velocity_name);
    const auto truth = read_floats(job.truth_folder + "/" + synth::truth_velocity_name);
    double sum = 0, squares = 0;
    for (size_t p = 0; p < estimate.size(); ++p) sum += estimate[p] - truth[p];
    for (size_t p = 0; p < estimate.size(); ++p) squares += std::pow(estimate[p] - truth[p] - sum / estimate.size(), 2);
    return std::sqrt(squares / estimate.size());
}

synth::Job ramped_job(const std::string& folder, int dates, int width, int length)
{
    synth::Options o;
    o.width = width;
    o.length = length;
    o.dates = dates;
    o.ramps = o.elevation_term = true;
    o.dem_oversample = 2;
    o.noise = 0.1;
    o.threads = 1;
    o.settings = {{"eds_block_size", "2"}, {"orbit_quad_fit_sampling", "2"}, {"if_use_existing_corrected_ifg", "0"}};
    return synth::write_job(o, folder);
}

const std::string kBoth = "if_remove_eds 1\nif_remove_orbit 1\n";

TEST(CorrectedRuns, CloserToTheTruthTheSameForAnyThreadsAndTheJobLeftAlone)
{
    testing_support::TempDir dir;
    const synth::Job job = ramped_job(dir / "job", 15, 60, 50);
    const auto inputs = files_under(job.folder, false);
    EXPECT_TRUE(contains(run(job, "").err, "finish!\n"));
    const double uncorrected = velocity_rms(job);

    std::map<std::string, std::string> first;
    for (int threads : {1, 2, 3}) {
        const Outcome o = run(job, kBoth + "if_keep_corrected_ifg 1\nmax_parallel_threads " + std::to_string(threads) + "\n", true);
        EXPECT_TRUE(contains(o.err, "finish************\n*********************************************************\n\n"
                                    "*************Updating reference point values*************\n"));
        const auto results = files_under(job.result_folder);
        for (const auto& name : job.ifgs) {
            EXPECT_EQ(results.count(name + ".remove_hgt.remove_orbit"), 1u) << name;
            EXPECT_EQ(results.count(name + ".remove_hgt"), 0u) << name;  // the intermediate went
        }
        if (first.empty()) first = results;
        EXPECT_TRUE(results == first) << threads << " threads";
    }
    const double corrected = velocity_rms(job);
    std::printf("velocity RMS error: %.4f rad/yr uncorrected, %.4f rad/yr corrected\n", uncorrected, corrected);
    EXPECT_LT(corrected, uncorrected / 4);

    // Without if_keep_corrected_ifg the copies go after the inversion; the
    // outputs stay the same.
    run(job, kBoth + "if_keep_corrected_ifg 0\n", true);
    std::erase_if(first, [](const auto& f) { return contains(f.first, ".remove_"); });
    EXPECT_TRUE(files_under(job.result_folder) == first);
    EXPECT_TRUE(files_under(job.folder, false) == inputs);
}

TEST(CorrectedRuns, BannersMaskAndTheReuseOfExistingCopies)
{
    testing_support::TempDir dir;
    const synth::Job job = ramped_job(dir / "job", 4, 24, 20);
    const auto inputs = files_under(job.folder, false);
    const std::string only = "if_inverse_time_series 0\nmax_parallel_threads 2\n";
    auto result = [&](const std::string& name) { return job.result_folder + "/" + name; };
    const std::string a = job.ifgs[0], b = job.ifgs[1];

    // With a closure mask, a masked pixel is NaN in the elevation copy and 0
    // in the final one. With no stage after them the copies stay.
    std::vector<float> mask(24 * 20, 0.0f);
    mask[5] = 1.0f;
    testing_support::write_floats(result("phase_loop_closure_mask"), mask);
    const std::string masked = "if_check_loop_closure 1\nif_use_existing_phasemask 1\n";
    const std::string n = "Number of interferograms          : " + std::to_string(job.ifgs.size()) + " \n";
    const std::string stars = "*********************************************************\n";
    EXPECT_TRUE(contains(run(job, only + masked + kBoth).err,
                         stars + "********Removing elevation dependent signal start********\n" + n +
                             "Block size to estimate parameters : 2 \nDEM file used                     : " + job.dem +
                             " \nIf keep the corrected files       : 0 \nNumber of threads                 : 2 \n"
                             "********Removing elevation dependent signal finish*******\n" + stars + stars +
                             "****************Removing orbital ramps start*************\n" + n +
                             "Samppling rate                    : 2 \nIf keep the corrected files       : 0 \n"
                             "Number of threads                 : 2\n****************Removing orbital ramps finish"
                             "************\n" + stars));
    for (const auto& name : job.ifgs) {
        EXPECT_EQ(read_floats(result(name + ".remove_hgt.remove_orbit"))[5], 0.0f);
        EXPECT_FALSE(fs::exists(result(name + ".remove_hgt")));
    }
    run(job, only + masked + "if_remove_eds 1\n");
    EXPECT_TRUE(std::isnan(read_floats(result(a + ".remove_hgt"))[5]));

    // A final copy spares both corrections, even without the elevation copy.
    fs::remove(result(a + ".remove_hgt"));
    write_text(result(a + ".remove_hgt.remove_orbit"), "kept");
    run(job, only + kBoth + "if_use_existing_corrected_ifg 1\n");
    EXPECT_EQ(read_text(result(a + ".remove_hgt.remove_orbit")), "kept");
    EXPECT_FALSE(fs::exists(result(a + ".remove_hgt")));
    // An elevation copy is reused; missing ones are made.
    write_text(result(a + ".remove_hgt"), "kept");
    fs::remove(result(b + ".remove_hgt"));
    run(job, only + "if_remove_eds 1\nif_use_existing_corrected_ifg 1\n");
    EXPECT_EQ(read_text(result(a + ".remove_hgt")), "kept");
    EXPECT_EQ(read_text(result(b + ".remove_hgt")).size(), 24u * 20 * 4);
    // Without reuse every copy is made afresh.
    run(job, only + kBoth);
    EXPECT_EQ(read_text(result(a + ".remove_hgt.remove_orbit")).size(), 24u * 20 * 4);
    EXPECT_TRUE(files_under(job.folder, false) == inputs);
}

TEST(CorrectedRuns, AShortInterferogramStopsTheRunFromAWorkerThread)
{
    testing_support::TempDir dir;
    const synth::Job job = ramped_job(dir / "job", 7, 24, 20);
    const std::string short_one = job.ifg_folder + "/" + job.ifgs[4];
    write_text(short_one, std::string(100, 'x'));
    const std::string message = short_one + " file size wrong 100\n";
    for (const std::string stage : {"if_remove_eds", "if_remove_orbit"}) {
        const Outcome o = run(job, "if_inverse_time_series 0\nmax_parallel_threads 3\n" + stage + " 1\n");
        ASSERT_GE(o.err.size(), message.size()) << o.err;
        EXPECT_EQ(o.err.substr(o.err.size() - message.size()), message) << o.err;
        EXPECT_EQ(o.err.find("file size wrong"), o.err.size() - message.size() + short_one.size() + 1);
    }
}

}  // namespace
