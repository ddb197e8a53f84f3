// A run of every stage on a small synthetic job with orbital ramps: it
// finishes, leaves the inputs as they were, and draws its progress indicator
// only on a terminal, erased before the program's next line.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "support/runs.h"

namespace {

using namespace testing_support;

// Standard error without the lines that change from run to run.
std::string steady(const std::string& err)
{
    static const std::regex varying("(Total time|Started on UTC)[^\n]*\n");
    return std::regex_replace(err, varying, "");
}

TEST(Progress, EveryStageRunsAndOnlyATerminalSeesTheIndicator)
{
    const SynthJob s({.dates = 6, .ramps = true, .maxcap = 500,
                      .settings = {{"if_check_loop_closure", "1"}, {"if_use_existing_phasemask", "0"},
                                   {"if_remove_orbit", "1"}, {"if_stacking", "1"}, {"if_apply_filter", "3"}}});
    const auto inputs = files_under(s.job.ifg_folder);
    const Outcome logged = run_program({s.job.config});
    expect_finished(logged);
    for (const char* stage : {"loop closure finish", "Updating reference point values", "orbital ramps finish",
                              "stacking finish", "inversion finish", "temporal filter start", "spatial filter start"})
        EXPECT_TRUE(contains(logged.err, stage)) << stage;
    EXPECT_FALSE(contains(logged.err, "not available") || contains(logged.err, "\r"));
    // Only the corrected copies are deleted: the inputs stay as they were.
    EXPECT_TRUE(files_under(s.job.ifg_folder) == inputs);
    EXPECT_FALSE(file_exists(s.result(s.job.ifgs[0] + ".remove_orbit")));

    const Outcome seen = run_program_on_terminal({s.job.config});
    ASSERT_TRUE(seen.exited);
    // Every drawing starts with a carriage return and the erasing ends with
    // one; no line feed comes in between.
    EXPECT_TRUE(contains(seen.err, "\r  ")) << "no indicator was drawn";
    static const std::regex indicator("\r[^\n]*\r");
    EXPECT_EQ(steady(std::regex_replace(seen.err, indicator, "")), steady(logged.err));
    EXPECT_EQ(seen.out, logged.out);
}

}  // namespace
