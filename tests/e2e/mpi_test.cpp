// One job over several ranks of an MPI launch: every output file and the
// log are those of a single process, whatever the number of ranks, and a
// fault in one rank is reported once, where a single process reports it.
// MPI's own allocations trip the leak checker, so these runs are left to the
// optimised build.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/runs.h"

namespace {

using namespace testing_support;

#if defined(SBAS_MPIEXEC) && !defined(SBAS_SANITIZED)
// The log without the two lines that hold the time of day.
std::string timeless(const std::string& log)
{
    std::string kept;
    size_t at = 0;
    while (at < log.size()) {
        size_t end = log.find('\n', at);
        end = end == std::string::npos ? log.size() : end + 1;
        const std::string line = log.substr(at, end - at);
        if (!line.starts_with("Started on UTC") && !line.starts_with("Total time")) kept += line;
        at = end;
    }
    return kept;
}

Outcome run_ranks(const SynthJob& s, int ranks, const std::string& extra, bool error_status = false)
{
    setenv("OMPI_ALLOW_RUN_AS_ROOT", "1", 1);
    setenv("OMPI_ALLOW_RUN_AS_ROOT_CONFIRM", "1", 1);
    // Containers often forbid the cross-memory attach of shared-memory transfers.
    setenv("OMPI_MCA_btl_vader_single_copy_mechanism", "none", 0);
    write_text(s.dir / "run.txt", read_text(s.job.config) + extra);
    // -q: mpirun says nothing of its own about a rank that ends with status 1.
    std::vector<std::string> args = {"-q", "--oversubscribe", "-n", std::to_string(ranks), SBAS_TS_BIN};
    if (error_status) args.push_back("--error-status");
    args.push_back(s.dir / "run.txt");
    return run_program(args, ".", 300, SBAS_MPIEXEC);
}
#endif

TEST(MpiRuns, EveryStageGivesTheBytesAndTheLogOfOneProcessAndAFaultStopsEveryRank)
{
#if !defined(SBAS_MPIEXEC) || defined(SBAS_SANITIZED)
    GTEST_SKIP() << "needs an MPI build outside the sanitizers";
#else
    const SynthJob s({.width = 36, .length = 30, .dates = 8, .noise = 0.1, .unwrap_errors = 1, .ramps = true,
                      .elevation_term = true, .dem_oversample = 2,
                      .settings = {{"eds_block_size", "2"}, {"orbit_quad_fit_sampling", "2"},
                                   {"if_use_existing_corrected_ifg", "0"}}});
    const std::string every_stage =
        "if_check_loop_closure 1\nif_use_existing_phasemask 0\nwhole_ifg_closure_std_threshold -1\n"
        "if_remove_eds 1\nif_remove_orbit 1\nif_stacking 1\nif_est_hgt 1\ntemporal_constraint 1\n"
        "if_apply_filter 3\nmaxcap 150\nmax_parallel_threads 2\n";
    const Outcome one = s.run(every_stage);
    ASSERT_TRUE(one.err.ends_with("finish!\n")) << one.err;
    const auto expected = files_under(s.job.result_folder);
    for (int ranks : {2, 3}) {
        s.clear_results();
        const Outcome spread = run_ranks(s, ranks, every_stage);
        EXPECT_EQ(spread.status, 0) << ranks;
        EXPECT_EQ(timeless(spread.err), timeless(one.err)) << ranks;
        EXPECT_EQ(spread.out, one.out) << ranks;
        EXPECT_TRUE(files_under(s.job.result_folder) == expected) << ranks;
    }

    // A short interferogram, met in a batch of the last rank.
    write_text(s.job.ifg_folder + "/" + s.job.ifgs[2], std::string(4 * 36 * 29, 'x'));
    const std::string plain = "if_check_loop_closure 0\nmaxcap 150\nref_row 3\nref_col 3\n";
    s.clear_results();
    const Outcome stop = s.run(plain);
    ASSERT_TRUE(contains(stop.err, "file size wrong")) << stop.err;
    for (bool error_status : {false, true}) {
        s.clear_results();
        const Outcome spread = run_ranks(s, 3, plain, error_status);
        EXPECT_TRUE(spread.exited && spread.status == (error_status ? 1 : 0)) << spread.status;
        EXPECT_EQ(timeless(spread.err), timeless(stop.err));
        EXPECT_FALSE(contains(spread.err, "MPI_ABORT"));
    }
#endif
}

}  // namespace
