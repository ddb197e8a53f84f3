// The progress indicator: drawn on a terminal, erased before the program's
// next line, and absent when standard error is a file.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "support/child.h"
#include "support/terminal.h"
#include "synth/synth.h"

namespace {

// Standard error without the lines that change from run to run.
std::string steady(const std::string& err)
{
    static const std::regex varying("(Total time|Started on UTC)[^\n]*\n");
    return std::regex_replace(err, varying, "");
}

TEST(Progress, OnlyATerminalSeesItAndItLeavesNoTrace)
{
    testing_support::TempDir dir;
    synth::Options o;
    o.dates = 6;
    o.threads = 1;
    o.settings = {{"if_check_loop_closure", "1"}, {"if_use_existing_phasemask", "0"}, {"if_apply_filter", "0"}, {"maxcap", "500"}};
    const synth::Job job = synth::write_job(o, dir / "job");

    const testing_support::Outcome logged = testing_support::run_program({job.config});
    ASSERT_TRUE(logged.exited);
    ASSERT_NE(logged.err.find("finish!\n"), std::string::npos) << logged.err;
    EXPECT_EQ(logged.err.find('\r'), std::string::npos);

    const testing_support::Outcome seen = testing_support::run_program_on_terminal({job.config});
    ASSERT_TRUE(seen.exited);
    // Every drawing starts with a carriage return and the erasing ends with
    // one; no line feed comes in between.
    EXPECT_NE(seen.err.find("\r  "), std::string::npos) << "no indicator was drawn";
    static const std::regex indicator("\r[^\n]*\r");
    EXPECT_EQ(steady(std::regex_replace(seen.err, indicator, "")), steady(logged.err));
    EXPECT_EQ(seen.out, logged.out);
}

}  // namespace
