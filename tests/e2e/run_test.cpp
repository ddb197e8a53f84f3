// Whole runs of sbas-ts on small hand-made jobs: what the program prints,
// the stages it walks, the batches it cuts, and how it stops on bad input.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/tiny_job.h"
#include "synth/synth.h"

namespace {

using testing_support::file_exists;
using testing_support::Outcome;
using testing_support::read_text;
using testing_support::run_program;
using testing_support::TinyJob;
using testing_support::write_text;

const std::string kRule(45, '=');

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// A 6 x 4 grid, three dates and three interferograms, every sample valid.
// Displacement grows by 0.1 per pixel index and date.
std::unique_ptr<TinyJob> three_date_job(int64_t width = 6, int64_t length = 4)
{
    auto job = std::make_unique<TinyJob>(width, length);
    const int64_t pixels = width * length;
    auto ifg = [&](double span) {
        std::vector<float> v(static_cast<size_t>(pixels));
        for (int64_t p = 0; p < pixels; ++p) v[p] = static_cast<float>(span * (1.0 + 0.1 * p));
        return v;
    };
    job->add_ifg("geo_20200101_20200113.unw", ifg(1));
    job->add_ifg("geo_20200113_20200125.unw", ifg(1));
    job->add_ifg("geo_20200101_20200125.unw", ifg(2));
    return job;
}

// A sub-second run reads 0.00 seconds unless it straddles a tick of the
// clock, which a second attempt cannot also do.
Outcome run_quick(const std::vector<std::string>& args)
{
    Outcome outcome = run_program(args);
    if (!contains(outcome.err, "Total time: 0 days 0 hours 0 minutes 0.00 seconds\n")) outcome = run_program(args);
    return outcome;
}

void expect_clean_finish(const Outcome& o)
{
    EXPECT_TRUE(o.exited) << "signal " << o.signal;
    EXPECT_EQ(o.status, 0);
    EXPECT_TRUE(contains(o.err, "Total time: 0 days 0 hours 0 minutes 0.00 seconds\nfinish!\n")) << o.err;
}

// A run that stops on bad input: one message, status 0, no "finish!".
void expect_stop(const Outcome& o, const std::string& message, bool on_stdout)
{
    EXPECT_TRUE(o.exited) << "signal " << o.signal;
    EXPECT_EQ(o.status, 0);
    EXPECT_FALSE(contains(o.err, "finish!"));
    if (on_stdout) {
        EXPECT_EQ(o.out, message);
    } else {
        ASSERT_GE(o.err.size(), message.size()) << o.err;
        EXPECT_EQ(o.err.substr(o.err.size() - message.size()), message) << o.err;
        EXPECT_EQ(o.out, "");
    }
}

TEST(CommandLine, ARunIsFramedByTheBannerAndTheTotalTime)
{
    auto job = three_date_job();
    const Outcome o = run_quick({job->config()});
    expect_clean_finish(o);
    EXPECT_EQ(o.err.rfind(kRule + "\n  InSAR displacement time-series inversion\n", 0), 0u);
    EXPECT_EQ(o.out, "");
    EXPECT_TRUE(file_exists(job->result("culmap-20200125-20200101.disp")));
}

TEST(CommandLine, LicenceUsageAndLookalikes)
{
    const Outcome licence = run_program({"license"});
    EXPECT_EQ(licence.status, 0);
    EXPECT_EQ(licence.err.rfind("\n\n", 0), 0u);
    EXPECT_TRUE(contains(licence.err, "License of FFTW \n"));
    EXPECT_FALSE(contains(licence.err, kRule + "\n  InSAR"));

    const Outcome usage = run_program({});
    EXPECT_TRUE(usage.exited);
    EXPECT_EQ(usage.status, 0);
    EXPECT_TRUE(contains(usage.err, "usage: sbas-ts"));
    const Outcome help = run_program({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(contains(help.out, "usage: sbas-ts") && contains(help.out, "README.md")) << help.out;
    const Outcome version = run_program({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out.rfind("sbas-ts ", 0), 0u);

    for (const std::string word : {"License", "license "}) {
        const Outcome o = run_program({word});
        EXPECT_TRUE(contains(o.err, "  InSAR displacement time-series inversion\n")) << word;
        expect_stop(o, word + " not found\nfile not exit\n", true);
    }
}

TEST(Stages, EveryStageRunsAndTheInputsStay)
{
    testing_support::TempDir dir;
    synth::Options options;
    options.ramps = true;
    options.threads = 1;
    options.settings = {{"if_check_loop_closure", "1"}, {"if_remove_orbit", "1"}, {"if_stacking", "1"},
                        {"if_apply_filter", "3"}};
    const synth::Job job = synth::write_job(options, dir / "job");
    const std::string before = read_text(job.ifg_folder + "/" + job.ifgs[0]);
    const Outcome o = run_quick({job.config});
    expect_clean_finish(o);
    EXPECT_FALSE(contains(o.err, "not available")) << o.err;
    EXPECT_TRUE(contains(o.err, "Updating reference point values"));
    // Only the corrected copies are deleted: the inputs stay as they were.
    EXPECT_EQ(read_text(job.ifg_folder + "/" + job.ifgs[0]), before);
    EXPECT_FALSE(file_exists(job.result_folder + "/" + job.ifgs[0] + ".remove_orbit"));
}

TEST(Stages, AnExistingClosureMaskIsReusedAndMasksPixels)
{
    auto job = three_date_job();
    std::vector<float> mask(24, 0.0f);
    mask[23] = 1.0f;
    testing_support::write_floats(job->result("phase_loop_closure_mask"), mask);
    const Outcome o = run_quick({job->config("if_check_loop_closure 1\nref_row 1\nref_col 1\nref_window 1\n")});
    expect_clean_finish(o);
    EXPECT_TRUE(contains(o.err, "Use existing phase closure mask\n"));
    const auto disp = testing_support::read_floats(job->result("culmap-20200113-20200101.disp"));
    ASSERT_EQ(disp.size(), 24u);
    EXPECT_EQ(disp[23], 0.0f);
    EXPECT_NE(disp[22], 0.0f);

    // Asked not to reuse it, the run checks again: every loop closes, so the
    // new mask keeps every pixel.
    const Outcome fresh =
        run_quick({job->config("if_check_loop_closure 1\nif_use_existing_phasemask 0\nref_row 1\nref_col 1\n")});
    EXPECT_FALSE(contains(fresh.err, "Use existing phase closure mask"));
    EXPECT_TRUE(contains(fresh.err, "*****Checking unwrapping error by loop closure start*****\n"));
    EXPECT_EQ(testing_support::read_floats(job->result("phase_loop_closure_mask")), std::vector<float>(24, 0.0f));
    EXPECT_NE(testing_support::read_floats(job->result("culmap-20200113-20200101.disp"))[23], 0.0f);
}

TEST(Stages, WithNoConsumerTheReferenceStageDoesNotRun)
{
    auto job = three_date_job();
    const Outcome o = run_quick({job->config("if_inverse_time_series 0\n")});
    expect_clean_finish(o);
    EXPECT_FALSE(contains(o.err, "refpoint value"));
    EXPECT_FALSE(contains(o.err, "Time series inversion start"));
    EXPECT_FALSE(file_exists(job->result("refpoint")));
}

TEST(Batches, TheBatchTotalAndTheLastBatch)
{
    auto job = three_date_job();  // 24 pixels
    Outcome o = run_quick({job->config("maxcap 24\n")});
    expect_clean_finish(o);
    EXPECT_TRUE(contains(o.err, "\n*************Time series inversion start*****************\n\n=> Inversing batch 1 / 1\n"));
    EXPECT_FALSE(contains(o.err, "batch 2"));
    EXPECT_TRUE(contains(o.err, "\n*************Time series inversion finish****************\n"));

    o = run_quick({job->config("maxcap 23\n")});
    EXPECT_TRUE(contains(o.err, "\n=> Inversing batch 1 / 2\n"));
    EXPECT_TRUE(contains(o.err, "\n=> Inversing batch 2 / 2\n"));
    EXPECT_TRUE(contains(o.err, "Number of pixels to estimate    : 1\n"));

    o = run_quick({job->config("maxcap 5\n")});
    EXPECT_TRUE(contains(o.err, "\n=> Inversing batch 5 / 5\nNumber of interferograms        : 3\n"
                                "Number of pixels to estimate    : 4\n"));
    expect_clean_finish(o);
    EXPECT_EQ(testing_support::read_floats(job->result("least_square_sigma")).size(), 24u);
}

TEST(Batches, ANonPositiveBatchSizeStopsTheRun)
{
    auto job = three_date_job();
    for (const char* maxcap : {"0", "-5"}) {
        const Outcome o = run_program({job->config(std::string("maxcap ") + maxcap + "\n")});
        expect_stop(o, std::string("maxcap must be a positive number of pixels (it is ") + maxcap + ")\n", false);
    }
}

TEST(Batches, TheReferencePointReportIsWritten)
{
    auto job = three_date_job();
    const Outcome o = run_quick({job->config("ref_method 2\nref_window 2\n")});
    expect_clean_finish(o);
    // Every cell is equally stable; the first wins. Its centre is row 1, col 1.
    EXPECT_EQ(read_text(job->result("refpoint")),
              "refpoint position: 7\nrefpoint row: 1\nrefpoint col: 1\nrefpoint lat: 29.990000\n"
              "refpoint lon: 100.010000");
    EXPECT_TRUE(contains(o.err, "geo_20200101_20200113.unw refpoint value "));
}

struct StopCase {
    const char* what;
    std::string extra;      // configuration lines
    std::string message;    // what the run ends with
    bool on_stdout;
};

TEST(BadInput, EachStopsWithItsMessageAndStatusZero)
{
    const StopCase cases[] = {
        {"log origin at the first date", "temporal_constraint 2\nsimple_log_origin 20200101\n",
         "simple_log_origin is should be earlier than the first observation date!\n", false},
        {"reference pixel off the grid", "ref_row 4\nref_col 0\n", "ERROR: Rereference point out of coverage!\n",
         false},
        {"negative reference column", "ref_row 1\nref_col -1\n", "ERROR: Rereference point out of coverage!\n",
         false},
        {"missing baselines", "if_est_hgt 1\nbaselines /nonexistent/b.txt\n",
         "/nonexistent/b.txt not found\nfile not exit\n", true},
    };
    for (const auto& c : cases) {
        auto job = three_date_job();
        expect_stop(run_program({job->config(c.extra)}), c.message, c.on_stdout);
    }
}

TEST(BadInput, BrokenInterferogramsStopTheRun)
{
    {
        auto job = three_date_job();
        const std::string config = job->config("ref_row 1\nref_col 1\n");
        // One byte short; the samples the reference window reads are valid.
        testing_support::write_floats(job->path("ifg/geo_20200113_20200125.unw"), std::vector<float>(24, 1.0f));
        std::filesystem::resize_file(job->path("ifg/geo_20200113_20200125.unw"), 95);
        expect_stop(run_program({config}), job->path("ifg") + "/geo_20200113_20200125.unw file size wrong 95\n",
                    false);
    }
    {
        auto job = three_date_job();
        const std::string config = job->config("ref_row 1\nref_col 1\n");
        std::remove(job->path("ifg/geo_20200113_20200125.unw").c_str());
        expect_stop(run_program({config}), job->path("ifg") + "/geo_20200113_20200125.unw not found\nfile not exit\n",
                    true);
    }
    {
        auto job = three_date_job();
        job->add_ifg("geo_20200125_20200229.unw", std::vector<float>(24, 0.0f));  // no valid sample at all
        expect_stop(run_program({job->config("ref_method 1\n")}),
                    "Cannot find a valid reference value for geo_20200125_20200229.unw\n", true);
        expect_stop(run_program({job->config("ref_row 1\nref_col 1\n")}),
                    "ERROR: no valid values around the reference point!\n", false);
    }
    {
        auto job = three_date_job();
        job->add_ifg("geo_20180229_20200101.unw", std::vector<float>(24, 1.0f));
        expect_stop(run_program({job->config("ref_row 1\nref_col 1\n")}), "ERROR: Day out of range\n", true);
    }
}

TEST(BadInput, HeadersWithoutAGridDoNotCrash)
{
    for (const char* header : {"WIDTH 0\nFILE_LENGTH 4\n", "WIDTH -6\nFILE_LENGTH 4\n", "FILE_LENGTH -4\n",
                               "WIDTH -6\nFILE_LENGTH -4\n", "garbage\x01\x02\n"}) {
        auto job = three_date_job();
        const std::string config = job->config("if_inverse_time_series 2\n");
        write_text(job->path("header.txt"), header);
        const Outcome o = run_program({config});
        EXPECT_TRUE(o.exited) << header << " signal " << o.signal;
        EXPECT_EQ(o.status, 0) << header;
        // With the reference stage on the same header stops at the search.
        const Outcome searched = run_program({job->config()});
        EXPECT_TRUE(searched.exited) << header;
        EXPECT_TRUE(contains(searched.err, "Cannot find a stable reference point!\n"
                                           "There are interferograms that may contain too many invalid pixels!\n"))
            << header;
    }
}

TEST(BadInput, AnEarlierRunsListOfKeptInterferogramsIsReadAgain)
{
    auto job = three_date_job();
    write_text(job->result("filelist_used"), "geo_20200101_20200113.unw\n\n");
    const Outcome o = run_program({job->config("ref_row 1\nref_col 1\n")});
    // The list is re-read after the inversion, so the outputs exist and the
    // blank line stops the run there.
    expect_stop(o, "  format error\n", false);
    EXPECT_TRUE(contains(o.err, "Time series inversion finish"));
}

}  // namespace
