// Whole runs of sbas-ts on small hand-made jobs: what the program prints,
// the batches it cuts, and headers without a grid (the other bad inputs are
// in hostile_test.cpp).
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "support/runs.h"

namespace {

using namespace testing_support;

const std::string kRule(45, '=');
const std::string kTime = "Total time: 0 days 0 hours 0 minutes 0.00 seconds\nfinish!\n";

// A 6 x 4 grid, three dates and three interferograms, every sample valid.
// Displacement grows by 0.1 per pixel index and date.
std::unique_ptr<TinyJob> three_date_job()
{
    auto job = std::make_unique<TinyJob>(6, 4);
    auto ifg = [&](double span) {
        std::vector<float> v(24);
        for (int p = 0; p < 24; ++p) v[p] = static_cast<float>(span * (1.0 + 0.1 * p));
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
    return outcome.err.ends_with(kTime) ? outcome : run_program(args);
}

TEST(CommandLine, LicenceUsageAndLookalikes)
{
    const Outcome licence = run_program({"license"});
    EXPECT_EQ(licence.status, 0);
    EXPECT_TRUE(licence.err.starts_with("\n\n") && contains(licence.err, "License of FFTW \n"));
    EXPECT_FALSE(contains(licence.err, kRule + "\n  InSAR"));
    const Outcome usage = run_program({});
    EXPECT_TRUE(usage.exited && usage.status == 0 && contains(usage.err, "usage: sbas-ts")) << usage.err;
    const Outcome help = run_program({"--help"});
    EXPECT_TRUE(help.status == 0 && contains(help.out, "usage: sbas-ts") && contains(help.out, "README.md"))
        << help.out;
    const Outcome version = run_program({"--version"});
    EXPECT_TRUE(version.status == 0 && version.out.starts_with("sbas-ts ")) << version.out;
    for (const std::string word : {"License", "license "}) {
        const Outcome o = run_program({word});
        EXPECT_TRUE(contains(o.err, "  InSAR displacement time-series inversion\n")) << word;
        expect_stop(o, word + " not found\nfile not exit\n", true);
    }
}

// --error-status changes the status of a run that stops, and nothing else;
// --stage-report adds the costs of the stages before the last lines.
TEST(CommandLine, ErrorStatusGivesOneToARunThatStops)
{
    const Outcome plain = run_program({"missing.txt"});
    const Outcome flagged = run_program({"--error-status", "missing.txt"});
    EXPECT_TRUE(flagged.exited && flagged.status == 1);
    EXPECT_EQ(plain.status, 0);
    EXPECT_EQ(flagged.out, plain.out);
    EXPECT_EQ(flagged.err, plain.err);
    EXPECT_EQ(flagged.out, "missing.txt not found\nfile not exit\n");
    const auto job = three_date_job();
    const Outcome finished = run_program({"--error-status", job->config()});
    EXPECT_TRUE(finished.status == 0 && finished.err.ends_with("finish!\n")) << finished.err;
    EXPECT_EQ(run_program({"--error-status"}).status, 1);  // no configuration: the usage
    const Outcome report = run_program({"--stage-report", "--error-status", job->config()});
    EXPECT_TRUE(contains(report.err, "\nStage report (wall seconds / MiB read, per rank)\n") &&
                contains(report.err, "\ninversion    ") &&
                report.err.ends_with("finish!\n"))
        << report.err;
}

// The banner, the batches of the inversion (24 pixels in batches of 5: the
// last one holds 4), the total time; with nothing to consume them the
// reference values are not even looked for.
TEST(Run, TheBannerTheBatchesAndTheTotalTime)
{
    auto job = three_date_job();
    Outcome o = run_quick({job->config("if_inverse_time_series 0\n")});
    EXPECT_TRUE(o.err.ends_with(kRule + "\n" + kTime)) << o.err;
    EXPECT_FALSE(file_exists(job->result("refpoint")));

    o = run_quick({job->config("maxcap 5\n")});
    expect_finished(o);
    EXPECT_TRUE(o.err.starts_with(kRule + "\n  InSAR displacement time-series inversion\n"));
    EXPECT_TRUE(contains(o.err, "\n*************Time series inversion start*****************\n\n"
                                "=> Inversing batch 1 / 5\n"));
    EXPECT_TRUE(contains(o.err, "\n=> Inversing batch 5 / 5\nNumber of interferograms        : 3\n"
                                "Number of pixels to estimate    : 4\n"));
    EXPECT_TRUE(o.err.ends_with("\n*************Time series inversion finish****************\n" + kTime));
    EXPECT_EQ(read_floats(job->result("least_square_sigma")).size(), 24u);
}

// 6,000 interferograms of the same two dates: the full network has 6,000
// rows, and a weight matrix held whole would ask for 288 MB. The run must
// finish within an address space of 256 MB (left unlimited under the
// address sanitizer, which reserves far more for itself).
TEST(Run, AListOfManyInterferogramsNeedsNoSquareOfItsLength)
{
    TinyJob job(2, 1);
    for (int k = 0; k < 6000; ++k) {
        std::string name = "i";
        name += std::to_string(k);
        name += "_20200101_20200113.unw";
        job.add_ifg(name, {1.0f, 2.0f + 1e-3f * static_cast<float>(k % 97)});
    }
    const std::string config = job.config("ref_row 0\nref_col 0\nref_window 1\nmax_parallel_threads 2\n");
    const Outcome o = run_in_child([&] {
#if !defined(__SANITIZE_ADDRESS__)
        const rlimit limit{256L << 20, 256L << 20};
        setrlimit(RLIMIT_AS, &limit);
#endif
        std::string program = SBAS_TS_BIN, argument = config;
        char* argv[] = {program.data(), argument.data(), nullptr};
        execv(program.c_str(), argv);
    });
    expect_finished(o);
    EXPECT_FALSE(contains(o.err, "Could not allocate memory!"));
    EXPECT_EQ(read_floats(job.result("least_square_sigma")).size(), 2u);
}

TEST(BadInput, HeadersWithoutAGridDoNotCrash)
{
    for (const char* header : {"WIDTH -6\nFILE_LENGTH 4\n", "WIDTH -6\nFILE_LENGTH -4\n", "garbage\x01\x02\n"}) {
        SCOPED_TRACE(header);
        auto job = three_date_job();
        const std::string config = job->config("if_inverse_time_series 2\n");
        write_text(job->path("header.txt"), header);
        const Outcome o = run_program({config});
        EXPECT_TRUE(o.exited && o.status == 0) << o.signal;
        // With the reference stage on the same header stops at the search.
        expect_stop(run_program({job->config()}),
                    "Cannot find a stable reference point!\n"
                    "There are interferograms that may contain too many invalid pixels!\n",
                    false);
    }
}

}  // namespace
