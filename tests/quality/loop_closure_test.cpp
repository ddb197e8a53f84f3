// Whole runs of the loop-closure check: hand-made jobs whose closures are
// small integers, so every statistic is exact and every line and raster can
// be written down; and a synthetic job with unwrapping errors put into chosen
// interferograms, checked against its truth.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/tiny_job.h"
#include "synth/synth.h"

namespace {

using testing_support::file_exists;
using testing_support::Outcome;
using testing_support::read_floats;
using testing_support::read_text;
using testing_support::run_program;
using testing_support::TempDir;
using testing_support::TinyJob;

const float kNaN = std::numeric_limits<float>::quiet_NaN();

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// The check's own part of standard error, banner to closing line.
std::string stage_lines(const std::string& err)
{
    const std::string first = "*********************************************************\n*****Checking";
    const std::string last = "\n****Checking unwrapping error by loop closure finish*****\n";
    const size_t from = err.find(first);
    const size_t to = err.find(last);
    if (from == std::string::npos || to == std::string::npos) return "(no loop-closure stage in)\n" + err;
    return err.substr(from, to + last.size() - from);
}

void expect_finished(const Outcome& o)
{
    EXPECT_TRUE(o.exited) << "signal " << o.signal;
    EXPECT_EQ(o.status, 0);
    EXPECT_TRUE(contains(o.err, "finish!\n")) << o.err;
    EXPECT_EQ(o.out, "");
}

// Compares rasters sample by sample, NaN equal to NaN.
void expect_raster(const std::vector<float>& got, const std::vector<float>& want, const char* what)
{
    ASSERT_EQ(got.size(), want.size()) << what;
    for (size_t p = 0; p < want.size(); ++p) {
        if (std::isnan(want[p])) EXPECT_TRUE(std::isnan(got[p])) << what << " pixel " << p;
        else EXPECT_EQ(got[p], want[p]) << what << " pixel " << p;
    }
}

// Samples base + e for one interferogram: the reference pixel (1) holds e = 0,
// so after referencing every sample is its e, and e = 0 is no data.
std::vector<float> samples(float base, const std::vector<float>& e)
{
    std::vector<float> v(e.size());
    for (size_t p = 0; p < e.size(); ++p) v[p] = base + e[p];
    return v;
}

const std::string kSettings = "ref_row 0\nref_col 1\nref_window 1\nif_check_loop_closure 1\n"
                              "if_use_existing_phasemask 0\nif_inverse_time_series 0\n";

// Four dates A < B < C < D and the loops ABC (AB - AC + BC) and BCD
// (BC - BD + CD) on a 5 x 2 grid, pixel 1 the reference:
//   pixel:      0     1     2     3     4     5     6     7     8     9
//   ABC:        -     -     1     -     -     -     0     -     -    -1
//   BCD:        -     -     4     -     4     -     4     -     4     4
// Loop ABC has standard deviation 1 over its three pixels, BCD 0 (every
// closure is 4, above the 3.14 misclosure threshold). Mean deviation per
// interferogram: AB 1, BC 0.5, AC 1, BD 0, CD 0.
struct ListedIfg {
    const char* name;
    float base;
    std::vector<float> e;
};

//                               pixel:  0  1  2  3  4  5  6  7  8  9
const ListedIfg kAB = {"geo_20200101_20200113.unw", 10, {1, 0, 1, 1, 0, 1, 1, 1, 0, 1}};
const ListedIfg kBC = {"geo_20200113_20200125.unw", 20, {0, 0, 1, 0, 1, 0, 1, 0, 1, 1}};
const ListedIfg kAC = {"geo_20200101_20200125.unw", 30, {7, 0, 1, 7, 7, 7, 2, 7, 7, 3}};
const ListedIfg kBD = {"geo_20200113_20200206.unw", 40, {2, 0, 2, 2, 2, 2, 2, 2, 2, 2}};
const ListedIfg kCD = {"geo_20200125_20200206.unw", 50, {5, 0, 5, 5, 5, 5, 5, 5, 5, 5}};

std::unique_ptr<TinyJob> job_of(const std::vector<ListedIfg>& list)
{
    auto job = std::make_unique<TinyJob>(5, 2);
    for (const ListedIfg& ifg : list) job->add_ifg(ifg.name, samples(ifg.base, ifg.e));
    return job;
}

std::unique_ptr<TinyJob> two_loop_job() { return job_of({kAB, kBC, kAC, kBD, kCD}); }

TEST(LoopClosure, EveryLineAndFileOfACheckThatRejects)
{
    auto job = two_loop_job();
    // The AB and AC mean deviations equal the threshold: both are rejected.
    const Outcome o = run_program({job->config(kSettings + "whole_ifg_closure_std_threshold 1\nmaxcap 7\n")});
    expect_finished(o);
    // Two loops: the 20 % mark is lround(0.4) = 0, the 80 % mark lround(1.6) = 2,
    // which no loop reaches.
    const std::string progress =
        "  Progress   0%\n  Progress  20%\n  Progress  40%\n  Progress  60%\n  Progress 100%\n";
    EXPECT_EQ(stage_lines(o.err),
              "*********************************************************\n"
              "*****Checking unwrapping error by loop closure start*****\n"
              "******************Pixel by pixel checking****************\n"
              "Loop_misclosure_threshod       : 3.14\n"
              "Loop_misclosure_ratio_threshod : 0.50\n"
              "Minimun_loop_num               : 0\n"
              "If_allow_unlooped_pixel        : 0\n"
              "If_allow_unlooped_ifgs         : 1\n"
              "Whole_ifg_closure_std_threshod : 1.000\n"
              "Loop_closure_mean_std_threshold: 3.140\n"
              "\n=>Caculating phase closure maps batch 1 / 2\n" +
                  progress + "\n=>Caculating phase closure maps batch 2 / 2\n" + progress +
                  "Connecting loop 20200101-20200113-20200125, std= 1.000\n"
                  "Connecting loop 20200113-20200125-20200206, std= 0.000\n"
                  "\n=>Deleting bad ifgs based on averaged phase closure std\n"
                  "Whole_ifg_closure_std_threshod : 1.000\n"
                  "deleting geo_20200101_20200113.unw, std =    1.00, number of loops =    1\n"
                  "deleting geo_20200101_20200125.unw, std =    1.00, number of loops =    1\n"
                  "\n****Checking unwrapping error by loop closure finish*****\n");
    EXPECT_EQ(read_text(job->result("filelist_statistics")),
              "filename  mean_phase_closure_std   number_of_loops if_used\n"
              "geo_20200101_20200113.unw    1.00    1 NO\n"
              "geo_20200113_20200125.unw    0.50    2 YES\n"
              "geo_20200101_20200125.unw    1.00    1 NO\n"
              "geo_20200113_20200206.unw    0.00    1 YES\n"
              "geo_20200125_20200206.unw    0.00    1 YES\n");
    EXPECT_EQ(read_text(job->result("filelist_used")),
              "geo_20200113_20200125.unw\ngeo_20200113_20200206.unw\ngeo_20200125_20200206.unw\n");
    EXPECT_EQ(read_text(job->result("filelist_deleted")), "geo_20200101_20200113.unw\ngeo_20200101_20200125.unw\n");

    expect_raster(read_floats(job->result("phase_loop_closure_std")),
                  {0, 0, std::sqrt(4.5f), 0, 0, 0, std::sqrt(8.0f), 0, 0, std::sqrt(12.5f)}, "std");
    expect_raster(read_floats(job->result("phase_loop_closure_failed_ratio")),
                  {kNaN, kNaN, 0.5f, kNaN, 1, kNaN, 0.5f, kNaN, 1, 0.5f}, "failed ratio");
    // Pixel 9: deviation 3.54 above 3.14. Pixels 4 and 8: every loop failed.
    expect_raster(read_floats(job->result("phase_loop_closure_mask")), {0, 0, 0, 0, 1, 0, 0, 0, 1, 1}, "mask");

    // A threshold just above keeps them.
    const Outcome kept = run_program({job->config(kSettings + "whole_ifg_closure_std_threshold 1.0001\n")});
    EXPECT_FALSE(contains(kept.err, "deleting"));
    EXPECT_EQ(read_text(job->result("filelist_deleted")), "");
}

// The later stages see the kept interferograms with their own reference
// values, exactly as if the dropped ones had never been listed.
TEST(LoopClosure, DroppedInterferogramsAreAsIfNeverListed)
{
    const std::vector<std::string> outputs = {"culmap-20200125-20200113.disp", "culmap-20200206-20200113.disp",
                                              "linear_mean_velocity", "least_square_sigma"};
    auto checked = two_loop_job();
    expect_finished(
        run_program({checked->config(kSettings + "whole_ifg_closure_std_threshold 1\nif_inverse_time_series 1\n")}));
    auto kept = job_of({kBC, kBD, kCD});
    testing_support::write_text(kept->result("phase_loop_closure_mask"),
                                read_text(checked->result("phase_loop_closure_mask")));
    const Outcome o =
        run_program({kept->config(kSettings + "if_use_existing_phasemask 1\nif_inverse_time_series 1\n")});
    expect_finished(o);
    EXPECT_TRUE(contains(o.err, "Use existing phase closure mask\n"));
    for (const std::string& name : outputs) {
        const std::string bytes = read_text(checked->result(name));
        EXPECT_EQ(bytes.size(), 40u) << name;
        EXPECT_TRUE(bytes == read_text(kept->result(name))) << name;
    }
}

TEST(LoopClosure, UnderLoopedPixelsCarryTheScratchValue)
{
    auto job = two_loop_job();
    const std::string under_looped = kSettings + "minimun_loop_num 1\n";
    // Each pixel without a loop repeats the mask value before it; pixel 0
    // takes the last failed ratio written (pixel 9's, 0.5).
    run_program({job->config(under_looped + "if_allow_unlooped_pixel 1\n")});
    expect_raster(read_floats(job->result("phase_loop_closure_mask")), {0.5f, 0.5f, 0, 0, 1, 1, 0, 0, 1, 1},
                  "carried");
    run_program({job->config(under_looped + "if_allow_unlooped_pixel 0\n")});
    expect_raster(read_floats(job->result("phase_loop_closure_mask")), {1, 1, 0, 1, 1, 1, 0, 1, 1, 1}, "masked");
}

TEST(LoopClosure, WithoutDeletionEveryInterferogramIsUsedAndNoListIsWritten)
{
    auto job = two_loop_job();
    const Outcome o =
        run_program({job->config(kSettings + "whole_ifg_closure_std_threshold 0.1\nif_delete_bad_ifgs 0\n")});
    expect_finished(o);
    EXPECT_FALSE(contains(o.err, "Deleting bad ifgs"));
    EXPECT_EQ(read_text(job->result("filelist_statistics")),
              "filename  mean_phase_closure_std   number_of_loops if_used\n"
              "geo_20200101_20200113.unw    1.00    1 YES\n"
              "geo_20200113_20200125.unw    0.50    2 YES\n"
              "geo_20200101_20200125.unw    1.00    1 YES\n"
              "geo_20200113_20200206.unw    0.00    1 YES\n"
              "geo_20200125_20200206.unw    0.00    1 YES\n");
    EXPECT_FALSE(file_exists(job->result("filelist_used")));
    EXPECT_FALSE(file_exists(job->result("filelist_deleted")));
}

TEST(LoopClosure, ATriangleIsFoundOnceAndMustBeWrittenEarlierDateFirst)
{
    // Closure AB - AC + BC = e - 2e + e = 0 at every pixel but the reference.
    const std::vector<float> e = {1, 0, 1, 2, 1, 3, 1, 1};
    std::vector<float> twice(e.size());
    for (size_t p = 0; p < e.size(); ++p) twice[p] = 2 * e[p];
    for (const bool reversed : {false, true}) {
        SCOPED_TRACE(reversed ? "reversed" : "in order");
        TinyJob job(4, 2);
        job.add_ifg("geo_20200101_20200113.unw", samples(10, e));
        job.add_ifg("geo_20200101_20200125.unw", samples(20, twice));
        job.add_ifg(reversed ? "geo_20200125_20200113.unw" : "geo_20200113_20200125.unw", samples(30, e));
        const Outcome o = run_program({job.config(kSettings)});
        EXPECT_TRUE(o.exited);
        EXPECT_EQ(o.status, 0);
        if (reversed) {
            EXPECT_EQ(o.out, "file format error, cannot form loop closure");
            EXPECT_FALSE(contains(o.err, "finish!"));
        } else {
            expect_finished(o);
            EXPECT_EQ(read_text(job.result("filelist_statistics")),
                      "filename  mean_phase_closure_std   number_of_loops if_used\n"
                      "geo_20200101_20200113.unw    0.00    1 YES\n"
                      "geo_20200101_20200125.unw    0.00    1 YES\n"
                      "geo_20200113_20200125.unw    0.00    1 YES\n");
            EXPECT_EQ(o.err.find("Connecting loop 20200101-20200113-20200125, std= 0.000\n"),
                      o.err.rfind("Connecting loop"));
        }
    }
}

TEST(LoopClosure, WithoutLoopsBothThresholdsFallBackTo628)
{
    TinyJob job(4, 2);
    const std::vector<float> e = {1, 0, 1, 1, 1, 1, 1, 1};
    job.add_ifg("geo_20200101_20200113.unw", samples(10, e));
    job.add_ifg("geo_20200113_20200125.unw", samples(20, e));
    job.add_ifg("geo_20200125_20200206.unw", samples(30, e));
    Outcome o = run_program({job.config(kSettings + "whole_ifg_closure_std_threshold 0.5\n")});
    expect_finished(o);
    EXPECT_FALSE(contains(o.err, "Progress"));
    EXPECT_FALSE(contains(o.err, "Connecting loop"));
    EXPECT_TRUE(contains(o.err, "\n=>Deleting bad ifgs based on averaged phase closure std\n"
                                "Whole_ifg_closure_std_threshod : 6.280\n\n****Checking"));
    EXPECT_EQ(read_text(job.result("filelist_statistics")),
              "filename  mean_phase_closure_std   number_of_loops if_used\n"
              "geo_20200101_20200113.unw 9999.00    0 YES\n"
              "geo_20200113_20200125.unw 9999.00    0 YES\n"
              "geo_20200125_20200206.unw 9999.00    0 YES\n");
    expect_raster(read_floats(job.result("phase_loop_closure_failed_ratio")), std::vector<float>(8, kNaN), "ratio");
    expect_raster(read_floats(job.result("phase_loop_closure_std")), std::vector<float>(8, 0.0f), "std");

    o = run_program({job.config(kSettings + "if_allow_unlooped_ifgs 0\n")});
    EXPECT_TRUE(contains(o.err, "deleting geo_20200113_20200125.unw, std = 9999.00, number of loops =    0\n"));
    EXPECT_TRUE(contains(read_text(job.result("filelist_statistics")), "\ngeo_20200125_20200206.unw 9999.0    0 NO\n"));
    EXPECT_EQ(read_text(job.result("filelist_used")), "");
}

// --- A synthetic job with unwrapping errors ------------------------------

// A disc of `radius` pixels around (row, col) of interferogram `ifg` that an
// unwrapper slipped by `cycles` cycles.
struct Slip {
    int ifg, cycles, row, col, radius;
    bool covers(int r, int c) const { return (r - row) * (r - row) + (c - col) * (c - col) <= radius * radius; }
};

void add_slip(const synth::Job& job, const Slip& slip)
{
    const std::string path = job.ifg_folder + "/" + job.ifgs[slip.ifg];
    std::vector<float> v = synth::read_raster(path, job.grid);
    const float shift = static_cast<float>(2 * std::numbers::pi * slip.cycles);
    for (int r = 0; r < job.grid.length; ++r)
        for (int c = 0; c < job.grid.width; ++c)
            if (slip.covers(r, c)) v[static_cast<size_t>(r) * job.grid.width + c] += shift;
    synth::write_raster(path, v.data(), v.size());
}

int ifg_of(const synth::Job& job, int early, int late)
{
    for (size_t k = 0; k < job.pairs.size(); ++k)
        if (job.pairs[k] == std::make_pair(early, late)) return static_cast<int>(k);
    ADD_FAILURE() << "no interferogram " << early << "-" << late;
    return 0;
}

// RMS of velocity - truth over the estimated pixels that `take` accepts, the
// truth referred to its mean over the reference window as the run refers
// every interferogram.
template <typename Take>
double velocity_rms(const synth::Job& job, Take take)
{
    const auto estimate = synth::read_raster(job.result_folder + "/" + synth::velocity_name, job.grid);
    const auto truth = synth::read_raster(job.truth_folder + "/" + synth::truth_velocity_name, job.grid);
    const int h = job.ref_window / 2;
    double reference = 0;
    int n = 0;
    for (int r = job.ref_row - h; r <= job.ref_row + h; ++r)
        for (int c = job.ref_col - h; c <= job.ref_col + h; ++c, ++n)
            reference += truth[static_cast<size_t>(r) * job.grid.width + c];
    reference /= n;
    double sum = 0;
    size_t count = 0;
    for (int r = 0; r < job.grid.length; ++r) {
        for (int c = 0; c < job.grid.width; ++c) {
            const size_t p = static_cast<size_t>(r) * job.grid.width + c;
            if (estimate[p] == 0.0f || !take(r, c)) continue;
            sum += (estimate[p] - (truth[p] - reference)) * (estimate[p] - (truth[p] - reference));
            ++count;
        }
    }
    return std::sqrt(sum / count);
}

// The job's configuration with `lines` appended, as `name` in the job folder.
std::string with_lines(const synth::Job& job, const std::string& name, const std::string& lines)
{
    const std::string path = job.folder + "/" + name;
    testing_support::write_text(path, read_text(job.config) + lines);
    return path;
}

TEST(LoopClosure, UnwrappingErrorsAreFoundAndTheirInterferogramsDropped)
{
    TempDir dir;
    synth::Options o;
    o.width = 64;
    o.length = 48;
    o.dates = 20;
    o.spacing = 24;
    o.neighbours = 3;
    o.ifg_noise = 0.2;
    o.threads = 1;
    const synth::Job job = synth::write_job(o, dir / "job");
    // Three interferograms that share no loop, each with a slipped disc away
    // from the reference window (centre 24, 32).
    const Slip slips[] = {{ifg_of(job, 4, 5), 1, 12, 12, 9},
                          {ifg_of(job, 9, 11), -1, 36, 48, 10},
                          {ifg_of(job, 14, 17), 2, 10, 48, 8}};
    const auto everywhere = [](int, int) { return true; };
    const auto slipped = [&](int r, int c) {
        bool in = false;
        for (const Slip& s : slips) in |= s.covers(r, c);
        return in;
    };
    struct Errors {
        double all, on_slips;
    };
    const auto errors = [&] { return Errors{velocity_rms(job, everywhere), velocity_rms(job, slipped)}; };

    expect_finished(run_program({job.config}));
    const Errors clean = errors();
    for (const Slip& s : slips) add_slip(job, s);
    expect_finished(run_program({job.config}));
    const Errors unchecked = errors();
    // Automatic threshold for the interferograms; the pixel tests are loose
    // so that every pixel is still estimated and the velocities compare.
    const Outcome checked = run_program({with_lines(job, "checked.txt",
                                                    "if_check_loop_closure 1\nwhole_ifg_closure_std_threshold -1\n"
                                                    "loop_closure_mean_std_threshold 100\n")});
    expect_finished(checked);
    const Errors dropped = errors();

    // Exactly the slipped ones, in list order (the slips are listed so).
    std::string expected;
    for (const Slip& s : slips) expected += job.ifgs[s.ifg] + "\n";
    EXPECT_EQ(read_text(job.result_folder + "/filelist_deleted"), expected);

    // Failed loops exactly on the slipped discs.
    const auto ratio = synth::read_raster(job.result_folder + "/phase_loop_closure_failed_ratio", job.grid);
    for (int r = 0; r < job.grid.length; ++r) {
        for (int c = 0; c < job.grid.width; ++c) {
            const float value = ratio[static_cast<size_t>(r) * job.grid.width + c];
            if (slipped(r, c)) EXPECT_GT(value, 0.0f) << r << "," << c;
            else EXPECT_EQ(value, 0.0f) << r << "," << c;
        }
    }

    std::printf("velocity RMS error, rad/yr (all pixels / slipped discs): no slips %.4f / %.4f, "
                "slipped %.4f / %.4f, slipped and checked %.4f / %.4f\n",
                clean.all, clean.on_slips, unchecked.all, unchecked.on_slips, dropped.all, dropped.on_slips);
    EXPECT_LT(dropped.all, unchecked.all / 2);
    EXPECT_LT(dropped.on_slips, unchecked.on_slips / 4);
    EXPECT_LT(dropped.all, clean.all * 1.1);
}

// The statistics are running updates in pixel order: batches of one pixel,
// of seven, or the whole grid, and one or two loader threads, write the same
// bytes.
TEST(LoopClosure, OutputsDoNotDependOnTheBatchSizeOrTheThreads)
{
    TempDir dir;
    synth::Options o;
    o.width = 24;
    o.length = 16;
    o.dates = 10;
    o.ifg_noise = 0.3;
    o.nodata_fraction = 0.5;
    o.nodata_size = 0.3;
    o.threads = 1;
    const synth::Job job = synth::write_job(o, dir / "job");
    add_slip(job, {ifg_of(job, 3, 5), 1, 4, 6, 3});
    const std::vector<std::string> outputs = {"phase_loop_closure_std", "phase_loop_closure_failed_ratio",
                                              "phase_loop_closure_mask", "filelist_statistics", "filelist_used",
                                              "filelist_deleted"};
    std::map<std::string, std::string> first;
    for (const auto& [maxcap, threads] : {std::pair{1, 1}, {7, 2}, {24 * 16, 2}}) {
        SCOPED_TRACE("maxcap " + std::to_string(maxcap) + ", threads " + std::to_string(threads));
        const Outcome run = run_program({with_lines(
            job, "run.txt",
            "if_check_loop_closure 1\nif_use_existing_phasemask 0\nif_inverse_time_series 0\n"
            "whole_ifg_closure_std_threshold -1\n"
            "loop_closure_mean_std_threshold -1\nminimun_loop_num 4\nif_allow_unlooped_pixel 1\nmaxcap " +
                std::to_string(maxcap) + "\nmax_parallel_threads " + std::to_string(threads) + "\n")});
        expect_finished(run);
        std::map<std::string, std::string> got;
        for (const auto& name : outputs) got[name] = read_text(job.result_folder + "/" + name);
        const std::string lines = stage_lines(run.err);
        got["report"] = lines.substr(lines.find("Connecting loop"));
        if (first.empty()) first = got;
        for (const auto& [name, bytes] : got) EXPECT_TRUE(bytes == first[name]) << name;
    }
    EXPECT_NE(first["filelist_deleted"], "");
}

}  // namespace
