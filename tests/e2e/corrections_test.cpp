// Whole runs with the interferogram corrections: a synthetic job with orbital
// ramps and an elevation-correlated term is estimated better with them than
// without; the corrected copies and every output are the same for any number
// of threads; the job's own files are never touched; the copies go or stay
// as the run's settings say; existing copies are reused by the skip rules;
// and a short interferogram stops the run from inside a worker thread.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "support/child.h"
#include "synth/synth.h"

namespace {

namespace fs = std::filesystem;
using testing_support::Outcome;
using testing_support::read_text;
using testing_support::run_program;
using testing_support::TempDir;
using testing_support::write_text;

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Every file under `folder`, by path relative to it, with its bytes.
std::map<std::string, std::string> files_under(const std::string& folder)
{
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(folder))
        if (entry.is_regular_file())
            files[fs::relative(entry.path(), folder).string()] = read_text(entry.path().string());
    return files;
}

// The job's inputs: everything but the result folder.
std::map<std::string, std::string> inputs_of(const synth::Job& job)
{
    auto files = files_under(job.folder);
    std::erase_if(files, [](const auto& f) { return f.first.rfind("result/", 0) == 0 || f.first.rfind("run-", 0) == 0; });
    return files;
}

std::string with_settings(const synth::Job& job, const std::string& name, const std::string& lines)
{
    const std::string path = job.folder + "/run-" + name;
    write_text(path, read_text(job.config) + lines);
    return path;
}

Outcome run(const std::string& config)
{
    Outcome o = run_program({config});
    EXPECT_TRUE(o.exited) << "signal " << o.signal;
    EXPECT_EQ(o.status, 0);
    EXPECT_TRUE(contains(o.err, "finish!\n")) << o.err;
    return o;
}

void clear_results(const synth::Job& job)
{
    fs::remove_all(job.result_folder);
    fs::create_directory(job.result_folder);
}

// RMS of the velocity error over estimated pixels, after removing the mean
// difference (the run refers the map to its reference window).
double velocity_rms(const synth::Job& job)
{
    const auto estimate = synth::read_raster(job.result_folder + "/" + synth::velocity_name, job.grid);
    const auto truth = synth::read_raster(job.truth_folder + "/" + synth::truth_velocity_name, job.grid);
    double sum = 0, squares = 0;
    int n = 0;
    for (size_t p = 0; p < estimate.size(); ++p)
        if (synth::is_data(estimate[p])) {
            sum += estimate[p] - truth[p];
            ++n;
        }
    for (size_t p = 0; p < estimate.size(); ++p)
        if (synth::is_data(estimate[p])) {
            const double e = estimate[p] - truth[p] - sum / n;
            squares += e * e;
        }
    return n ? std::sqrt(squares / n) : INFINITY;
}

synth::Job ramped_job(const std::string& folder, int dates, int width, int length)
{
    synth::Options o;
    o.width = width;
    o.length = length;
    o.dates = dates;
    o.ramps = true;
    o.elevation_term = true;
    o.dem_oversample = 2;
    o.noise = 0.1;
    o.threads = 1;
    o.settings = {{"eds_block_size", "2"}, {"orbit_quad_fit_sampling", "2"}, {"if_use_existing_corrected_ifg", "0"}};
    return synth::write_job(o, folder);
}

TEST(CorrectedRuns, ACorrectedRunIsCloserToTheTruthTheSameForAnyThreadsAndLeavesTheJobAlone)
{
    TempDir dir;
    const synth::Job job = ramped_job(dir / "job", 15, 60, 50);
    const auto inputs = inputs_of(job);

    run(with_settings(job, "plain", ""));
    const double uncorrected = velocity_rms(job);

    std::map<std::string, std::string> reference;
    for (int threads : {1, 2, 3}) {
        clear_results(job);
        const Outcome o = run(with_settings(job, std::to_string(threads) + "-threads",
                                            "if_remove_eds 1\nif_remove_orbit 1\nif_keep_corrected_ifg 1\n"
                                            "max_parallel_threads " + std::to_string(threads) + "\n"));
        EXPECT_TRUE(contains(o.err, "********Removing orbital ramps finish************\n*****************************"
                                    "****************************\n\n*************Updating reference point values"));
        const auto results = files_under(job.result_folder);
        for (const auto& name : job.ifgs) {
            EXPECT_EQ(results.count(name + ".remove_hgt.remove_orbit"), 1u) << name;
            EXPECT_EQ(results.count(name + ".remove_hgt"), 0u) << name;  // the intermediate went
        }
        if (reference.empty()) reference = results;
        else EXPECT_TRUE(results == reference) << threads << " threads";
    }
    const double corrected = velocity_rms(job);
    std::printf("velocity RMS error: %.4f rad/yr uncorrected, %.4f rad/yr corrected\n", uncorrected, corrected);
    EXPECT_LT(corrected, uncorrected / 4);

    // Without if_keep_corrected_ifg the copies go once the inversion is done;
    // every output stays the same.
    clear_results(job);
    run(with_settings(job, "drop", "if_remove_eds 1\nif_remove_orbit 1\nif_keep_corrected_ifg 0\n"));
    auto kept = reference;
    std::erase_if(kept, [](const auto& f) { return f.first.find(".remove_") != std::string::npos; });
    EXPECT_TRUE(files_under(job.result_folder) == kept);

    EXPECT_TRUE(inputs_of(job) == inputs);
}

// The lines of the two banners, as a run with both corrections and two
// threads prints them.
std::string banners(const synth::Job& job, int n)
{
    const std::string count = "Number of interferograms          : " + std::to_string(n) + " \n";
    const std::string stars = "*********************************************************\n";
    return stars + "********Removing elevation dependent signal start********\n" + count +
           "Block size to estimate parameters : 2 \nDEM file used                     : " + job.dem +
           " \nIf keep the corrected files       : 0 \nNumber of threads                 : 2 \n"
           "********Removing elevation dependent signal finish*******\n" + stars + stars +
           "****************Removing orbital ramps start*************\n" + count +
           "Samppling rate                    : 2 \nIf keep the corrected files       : 0 \n"
           "Number of threads                 : 2\n****************Removing orbital ramps finish************\n" +
           stars;
}

TEST(CorrectedRuns, BannersMaskAndTheReuseOfExistingCopies)
{
    TempDir dir;
    const synth::Job job = ramped_job(dir / "job", 4, 24, 20);
    const auto inputs = inputs_of(job);
    const std::string only_corrections = "if_inverse_time_series 0\nmax_parallel_threads 2\n";
    const std::string first = job.ifgs[0], second = job.ifgs[1];
    auto result = [&](const std::string& name) { return job.result_folder + "/" + name; };
    const size_t raster_bytes = 24 * 20 * 4;

    // Both corrections with a closure mask: a masked pixel is NaN in the
    // elevation copy and 0 in the final one. With no stage after them the
    // copies stay, whatever if_keep_corrected_ifg says.
    std::vector<float> mask(24 * 20, 0.0f);
    mask[5] = 1.0f;
    testing_support::write_floats(result("phase_loop_closure_mask"), mask);
    const std::string masked = "if_check_loop_closure 1\nif_use_existing_phasemask 1\n";
    Outcome o = run(with_settings(job, "both", only_corrections + masked + "if_remove_eds 1\nif_remove_orbit 1\n"));
    EXPECT_TRUE(contains(o.err, banners(job, static_cast<int>(job.ifgs.size())))) << o.err;
    for (const auto& name : job.ifgs) {
        EXPECT_EQ(testing_support::read_floats(result(name + ".remove_hgt.remove_orbit"))[5], 0.0f);
        EXPECT_FALSE(fs::exists(result(name + ".remove_hgt")));
    }
    run(with_settings(job, "eds", only_corrections + masked + "if_remove_eds 1\n"));
    EXPECT_TRUE(std::isnan(testing_support::read_floats(result(first + ".remove_hgt"))[5]));

    // An existing final copy spares both corrections even without the
    // elevation copy; each is left untouched.
    fs::remove(result(first + ".remove_hgt"));
    write_text(result(first + ".remove_hgt.remove_orbit"), "kept");
    run(with_settings(job, "reuse-both", only_corrections + "if_remove_eds 1\nif_remove_orbit 1\n"
                                                            "if_use_existing_corrected_ifg 1\n"));
    EXPECT_EQ(read_text(result(first + ".remove_hgt.remove_orbit")), "kept");
    EXPECT_FALSE(fs::exists(result(first + ".remove_hgt")));

    // An existing elevation copy is reused; the others are made.
    write_text(result(first + ".remove_hgt"), "kept");
    fs::remove(result(second + ".remove_hgt"));
    run(with_settings(job, "reuse-eds", only_corrections + "if_remove_eds 1\nif_use_existing_corrected_ifg 1\n"));
    EXPECT_EQ(read_text(result(first + ".remove_hgt")), "kept");
    EXPECT_EQ(read_text(result(second + ".remove_hgt")).size(), raster_bytes);

    // Without reuse every copy is made afresh.
    run(with_settings(job, "fresh", only_corrections + "if_remove_eds 1\nif_remove_orbit 1\n"));
    EXPECT_EQ(read_text(result(first + ".remove_hgt.remove_orbit")).size(), raster_bytes);
    EXPECT_TRUE(inputs_of(job) == inputs);
}

TEST(CorrectedRuns, AShortInterferogramStopsTheRunFromAWorkerThread)
{
    TempDir dir;
    const synth::Job job = ramped_job(dir / "job", 7, 24, 20);
    const std::string short_one = job.ifg_folder + "/" + job.ifgs[4];
    write_text(short_one, std::string(100, 'x'));
    const std::string message = short_one + " file size wrong 100\n";
    for (const std::string stage : {"if_remove_eds", "if_remove_orbit"}) {
        const Outcome o = run_program(
            {with_settings(job, stage, "if_inverse_time_series 0\nmax_parallel_threads 3\n" + stage + " 1\n")});
        EXPECT_TRUE(o.exited) << "signal " << o.signal;
        EXPECT_EQ(o.status, 0);
        ASSERT_GE(o.err.size(), message.size()) << o.err;
        EXPECT_EQ(o.err.substr(o.err.size() - message.size()), message) << o.err;
        EXPECT_EQ(o.err.find("file size wrong"), o.err.size() - message.size() + short_one.size() + 1) << o.err;
        EXPECT_FALSE(contains(o.err, "finish"));
    }
}

}  // namespace
