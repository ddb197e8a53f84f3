// Whole runs of the loop-closure check: hand-made jobs whose closures are
// small integers, so every statistic is exact and every line and raster can
// be written down; and a synthetic job with unwrapping errors put into chosen
// interferograms, checked against its truth.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/runs.h"

namespace {

using namespace testing_support;

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const std::string kHeader = "filename  mean_phase_closure_std   number_of_loops if_used\n";

// The check's own part of standard error, banner to closing line.
std::string stage_lines(const std::string& err)
{
    return between(err, "*********************************************************\n*****Checking",
                   "\n****Checking unwrapping error by loop closure finish*****\n");
}

void expect_raster(const std::string& path, const std::vector<float>& want)
{
    EXPECT_EQ(mismatch(read_floats(path), want), "") << path;
}

const std::string kSettings = "ref_row 0\nref_col 1\nref_window 1\nif_check_loop_closure 1\n"
                              "if_use_existing_phasemask 0\nif_inverse_time_series 0\n";

// One interferogram with samples base + e: the reference pixel (1) holds
// e = 0, so after referencing every sample is its e, and e = 0 is no data.
struct ListedIfg {
    const char* name;
    float base;
    std::vector<float> e;
};

// Four dates A < B < C < D and the loops ABC (AB - AC + BC) and BCD
// (BC - BD + CD) on a 5 x 2 grid, pixel 1 the reference:
//   pixel:      0     1     2     3     4     5     6     7     8     9
//   ABC:        -     -     1     -     -     -     0     -     -    -1
//   BCD:        -     -     4     -     4     -     4     -     4     4
// Loop ABC has standard deviation 1 over its three pixels, BCD 0 (every
// closure is 4, above the 3.14 misclosure threshold). Mean deviation per
// interferogram: AB 1, BC 0.5, AC 1, BD 0, CD 0.
const ListedIfg kAB = {"geo_20200101_20200113.unw", 10, {1, 0, 1, 1, 0, 1, 1, 1, 0, 1}};
const ListedIfg kBC = {"geo_20200113_20200125.unw", 20, {0, 0, 1, 0, 1, 0, 1, 0, 1, 1}};
const ListedIfg kAC = {"geo_20200101_20200125.unw", 30, {7, 0, 1, 7, 7, 7, 2, 7, 7, 3}};
const ListedIfg kBD = {"geo_20200113_20200206.unw", 40, {2, 0, 2, 2, 2, 2, 2, 2, 2, 2}};
const ListedIfg kCD = {"geo_20200125_20200206.unw", 50, {5, 0, 5, 5, 5, 5, 5, 5, 5, 5}};

std::unique_ptr<TinyJob> job_of(const std::vector<ListedIfg>& list, int64_t width = 5)
{
    auto job = std::make_unique<TinyJob>(width, 2);
    for (const ListedIfg& ifg : list) {
        std::vector<float> v(ifg.e.size());
        for (size_t p = 0; p < v.size(); ++p) v[p] = ifg.base + ifg.e[p];
        job->add_ifg(ifg.name, v);
    }
    return job;
}

std::unique_ptr<TinyJob> two_loop_job() { return job_of({kAB, kBC, kAC, kBD, kCD}); }

TEST(LoopClosure, EveryLineAndFileOfACheckThatRejects)
{
    auto job = two_loop_job();
    // Without deletion every interferogram is used and no list is written.
    const Outcome all =
        run_program({job->config(kSettings + "whole_ifg_closure_std_threshold 0.1\nif_delete_bad_ifgs 0\n")});
    expect_finished(all);
    EXPECT_FALSE(contains(all.err, "Deleting bad ifgs"));
    EXPECT_EQ(read_text(job->result("filelist_statistics")),
              kHeader + "geo_20200101_20200113.unw    1.00    1 YES\ngeo_20200113_20200125.unw    0.50    2 YES\n"
                        "geo_20200101_20200125.unw    1.00    1 YES\ngeo_20200113_20200206.unw    0.00    1 YES\n"
                        "geo_20200125_20200206.unw    0.00    1 YES\n");
    EXPECT_FALSE(file_exists(job->result("filelist_used")) || file_exists(job->result("filelist_deleted")));

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
              kHeader + "geo_20200101_20200113.unw    1.00    1 NO\ngeo_20200113_20200125.unw    0.50    2 YES\n"
                        "geo_20200101_20200125.unw    1.00    1 NO\ngeo_20200113_20200206.unw    0.00    1 YES\n"
                        "geo_20200125_20200206.unw    0.00    1 YES\n");
    EXPECT_EQ(read_text(job->result("filelist_used")),
              "geo_20200113_20200125.unw\ngeo_20200113_20200206.unw\ngeo_20200125_20200206.unw\n");
    EXPECT_EQ(read_text(job->result("filelist_deleted")), "geo_20200101_20200113.unw\ngeo_20200101_20200125.unw\n");
    expect_raster(job->result("phase_loop_closure_std"),
                  {0, 0, std::sqrt(4.5f), 0, 0, 0, std::sqrt(8.0f), 0, 0, std::sqrt(12.5f)});
    expect_raster(job->result("phase_loop_closure_failed_ratio"),
                  {kNaN, kNaN, 0.5f, kNaN, 1, kNaN, 0.5f, kNaN, 1, 0.5f});
    // Pixel 9: deviation 3.54 above 3.14. Pixels 4 and 8: every loop failed.
    expect_raster(job->result("phase_loop_closure_mask"), {0, 0, 0, 0, 1, 0, 0, 0, 1, 1});

    // A threshold just above keeps them.
    const Outcome kept = run_program({job->config(kSettings + "whole_ifg_closure_std_threshold 1.0001\n")});
    EXPECT_FALSE(contains(kept.err, "deleting"));
    EXPECT_EQ(read_text(job->result("filelist_deleted")), "");
}

// The later stages see the kept interferograms with their own reference
// values, exactly as if the dropped ones had never been listed; the mask of
// the check is read back by the second run.
TEST(LoopClosure, DroppedInterferogramsAreAsIfNeverListed)
{
    auto checked = two_loop_job();
    expect_finished(
        run_program({checked->config(kSettings + "whole_ifg_closure_std_threshold 1\nif_inverse_time_series 1\n")}));
    auto kept = job_of({kBC, kBD, kCD});
    write_text(kept->result("phase_loop_closure_mask"), read_text(checked->result("phase_loop_closure_mask")));
    const Outcome o =
        run_program({kept->config(kSettings + "if_use_existing_phasemask 1\nif_inverse_time_series 1\n")});
    expect_finished(o);
    EXPECT_TRUE(contains(o.err, "Use existing phase closure mask\n"));
    for (const char* name : {"culmap-20200125-20200113.disp", "culmap-20200206-20200113.disp", "linear_mean_velocity",
                             "least_square_sigma"}) {
        EXPECT_EQ(read_text(checked->result(name)).size(), 40u) << name;
        EXPECT_TRUE(read_text(checked->result(name)) == read_text(kept->result(name))) << name;
    }
}

TEST(LoopClosure, UnderLoopedPixelsCarryTheScratchValue)
{
    auto job = two_loop_job();
    const std::string under_looped = kSettings + "minimun_loop_num 1\n";
    // Each pixel without a loop repeats the mask value before it; pixel 0
    // takes the last failed ratio written (pixel 9's, 0.5).
    run_program({job->config(under_looped + "if_allow_unlooped_pixel 1\n")});
    expect_raster(job->result("phase_loop_closure_mask"), {0.5f, 0.5f, 0, 0, 1, 1, 0, 0, 1, 1});
    run_program({job->config(under_looped + "if_allow_unlooped_pixel 0\n")});
    expect_raster(job->result("phase_loop_closure_mask"), {1, 1, 0, 1, 1, 1, 0, 1, 1, 1});
}

TEST(LoopClosure, ATriangleIsFoundOnceAndMustBeWrittenEarlierDateFirst)
{
    // Closure AB - AC + BC = e - 2e + e = 0 at every pixel but the reference.
    const std::vector<float> e = {1, 0, 1, 2, 1, 3, 1, 1}, twice = {2, 0, 2, 4, 2, 6, 2, 2};
    for (const bool reversed : {false, true}) {
        SCOPED_TRACE(reversed ? "reversed" : "in order");
        auto job = job_of({{"geo_20200101_20200113.unw", 10, e},
                           {"geo_20200101_20200125.unw", 20, twice},
                           {reversed ? "geo_20200125_20200113.unw" : "geo_20200113_20200125.unw", 30, e}},
                          4);
        const Outcome o = run_program({job->config(kSettings)});
        if (reversed) {
            expect_stop(o, "file format error, cannot form loop closure", true);
            continue;
        }
        expect_finished(o);
        EXPECT_EQ(read_text(job->result("filelist_statistics")),
                  kHeader + "geo_20200101_20200113.unw    0.00    1 YES\ngeo_20200101_20200125.unw    0.00    1 YES\n"
                            "geo_20200113_20200125.unw    0.00    1 YES\n");
        EXPECT_EQ(o.err.find("Connecting loop 20200101-20200113-20200125, std= 0.000\n"),
                  o.err.rfind("Connecting loop"));
    }
}

TEST(LoopClosure, WithoutLoopsBothThresholdsFallBackTo628)
{
    const std::vector<float> e = {1, 0, 1, 1, 1, 1, 1, 1};
    auto job = job_of({{"geo_20200101_20200113.unw", 10, e},
                       {"geo_20200113_20200125.unw", 20, e},
                       {"geo_20200125_20200206.unw", 30, e}},
                      4);
    Outcome o = run_program({job->config(kSettings + "whole_ifg_closure_std_threshold 0.5\n")});
    expect_finished(o);
    EXPECT_FALSE(contains(o.err, "Progress") || contains(o.err, "Connecting loop"));
    EXPECT_TRUE(contains(o.err, "\n=>Deleting bad ifgs based on averaged phase closure std\n"
                                "Whole_ifg_closure_std_threshod : 6.280\n\n****Checking"));
    EXPECT_EQ(read_text(job->result("filelist_statistics")),
              kHeader + "geo_20200101_20200113.unw 9999.00    0 YES\ngeo_20200113_20200125.unw 9999.00    0 YES\n"
                        "geo_20200125_20200206.unw 9999.00    0 YES\n");
    expect_raster(job->result("phase_loop_closure_failed_ratio"), std::vector<float>(8, kNaN));
    expect_raster(job->result("phase_loop_closure_std"), std::vector<float>(8, 0.0f));

    o = run_program({job->config(kSettings + "if_allow_unlooped_ifgs 0\n")});
    EXPECT_TRUE(contains(o.err, "deleting geo_20200113_20200125.unw, std = 9999.00, number of loops =    0\n"));
    EXPECT_TRUE(
        contains(read_text(job->result("filelist_statistics")), "\ngeo_20200125_20200206.unw 9999.0    0 NO\n"));
    EXPECT_EQ(read_text(job->result("filelist_used")), "");
}

int ifg_of(const synth::Job& job, int early, int late)
{
    for (size_t k = 0; k < job.pairs.size(); ++k)
        if (job.pairs[k] == std::make_pair(early, late)) return static_cast<int>(k);
    ADD_FAILURE() << "no interferogram " << early << "-" << late;
    return 0;
}

TEST(LoopClosure, UnwrappingErrorsAreFoundAndTheirInterferogramsDropped)
{
    synth::Options o{.width = 64, .length = 48, .dates = 20, .spacing = 24, .neighbours = 3, .ifg_noise = 0.2};
    const SynthJob clean(o);
    // Three interferograms that share no loop, each with a slipped disc away
    // from the reference window (centre 24, 32).
    const auto& j = clean.job;
    o.unwrap_error_patches = {
        {ifg_of(j, 4, 5), 1, 12, 12, 9}, {ifg_of(j, 9, 11), -1, 36, 48, 10}, {ifg_of(j, 14, 17), 2, 10, 48, 8}};
    const SynthJob slipped(o);
    std::vector<bool> on_slip(64 * 48);
    for (int p = 0; p < 64 * 48; ++p)
        for (const auto& e : o.unwrap_error_patches)
            on_slip[p] = on_slip[p] || std::pow(p / 64 - e.row, 2) + std::pow(p % 64 - e.col, 2) <= e.radius * e.radius;
    // RMS velocity error over the estimated pixels, all or on the discs.
    const auto rms = [&](const SynthJob& s, bool discs) {
        const std::vector<double> error = velocity_error(s);
        double sum = 0;
        size_t n = 0;
        for (size_t p = 0; p < error.size(); ++p)
            if (!std::isnan(error[p]) && (on_slip[p] || !discs)) sum += error[p] * error[p], ++n;
        return std::sqrt(sum / n);
    };
    expect_finished(clean.run());
    expect_finished(slipped.run());
    const double clean_all = rms(clean, false), clean_discs = rms(clean, true);
    const double unchecked_all = rms(slipped, false), unchecked_discs = rms(slipped, true);
    // Automatic threshold for the interferograms; the pixel tests are loose
    // so that every pixel is still estimated and the velocities compare.
    expect_finished(slipped.run("if_check_loop_closure 1\nwhole_ifg_closure_std_threshold -1\n"
                                "loop_closure_mean_std_threshold 100\n"));
    const double checked_all = rms(slipped, false), checked_discs = rms(slipped, true);

    // Exactly the slipped ones, in list order (the slips are listed so), and
    // failed loops exactly on the slipped discs.
    std::string expected;
    for (const auto& e : o.unwrap_error_patches) expected += j.ifgs[e.ifg] + "\n";
    EXPECT_EQ(read_text(slipped.result("filelist_deleted")), expected);
    const auto ratio = slipped.raster(slipped.result("phase_loop_closure_failed_ratio"));
    for (int p = 0; p < 64 * 48; ++p) EXPECT_EQ(ratio[p] > 0.0f, on_slip[p]) << p / 64 << "," << p % 64;
    std::printf("velocity RMS error, rad/yr (all pixels / slipped discs): no slips %.4f / %.4f, "
                "slipped %.4f / %.4f, slipped and checked %.4f / %.4f\n",
                clean_all, clean_discs, unchecked_all, unchecked_discs, checked_all, checked_discs);
    EXPECT_LT(checked_all, unchecked_all / 2);
    EXPECT_LT(checked_discs, unchecked_discs / 4);
    EXPECT_LT(checked_all, clean_all * 1.1);
}

// The statistics are running updates in pixel order: batches of one pixel,
// of seven, or the whole grid, and one or two loader threads, write the same
// bytes. The reference is searched for, so that with the grid in one batch
// the check refers the interferograms the search read instead of reading
// them again.
TEST(LoopClosure, OutputsDoNotDependOnTheBatchSizeOrTheThreads)
{
    synth::Options o{.width = 24, .length = 16, .dates = 10, .ifg_noise = 0.3, .nodata_fraction = 0.5,
                     .nodata_size = 0.3};
    o.unwrap_error_patches = {{4, 1, 4, 4, 3}};
    const SynthJob s(o);
    std::map<std::string, std::string> first;
    for (const auto& [maxcap, threads] : {std::pair{1, 1}, {7, 2}, {24 * 16, 2}}) {
        SCOPED_TRACE("maxcap " + std::to_string(maxcap) + ", threads " + std::to_string(threads));
        const Outcome run = s.run("ref_row 0\nref_col 0\nif_check_loop_closure 1\nif_use_existing_phasemask 0\n"
                                  "whole_ifg_closure_std_threshold -1\nloop_closure_mean_std_threshold -1\n"
                                  "minimun_loop_num 4\nif_allow_unlooped_pixel 1\nmaxcap " + std::to_string(maxcap) +
                                  "\nmax_parallel_threads " + std::to_string(threads) + "\n");
        expect_finished(run);
        EXPECT_NE(run.err.find("Looking for a stable reference point"), std::string::npos);
        std::map<std::string, std::string> got = files_under(s.job.result_folder);
        got["report"] = between(run.err, "Connecting loop", "finish*****\n");
        if (first.empty()) first = got;
        EXPECT_TRUE(got == first);
    }
    EXPECT_NE(first["filelist_deleted"], "");
}

}  // namespace
