// The banner's shape, the licence notices and the run time line.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "app/banner.h"
#include "support/child.h"

namespace {

std::vector<std::string> lines_of(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

TEST(RunTime, SplitsSecondsIntoDaysHoursMinutes)
{
    const std::pair<double, const char*> cases[] = {
        {0, "Total time: 0 days 0 hours 0 minutes 0.00 seconds\n"},
        {59, "Total time: 0 days 0 hours 0 minutes 59.00 seconds\n"},
        {3600, "Total time: 0 days 1 hours 0 minutes 0.00 seconds\n"},
        {90061, "Total time: 1 days 1 hours 1 minutes 1.00 seconds\n"},
        {2 * 86400 + 59 * 60 + 7, "Total time: 2 days 0 hours 59 minutes 7.00 seconds\n"},
    };
    for (const auto& [seconds, text] : cases) EXPECT_EQ(app::format_total_time(seconds), text);
}

TEST(Banner, LinesHaveTheirPlaceAndShape)
{
    const auto outcome = testing_support::run_in_child([] { app::print_banner(stderr); });
    const auto lines = lines_of(outcome.err);
    ASSERT_GE(lines.size(), 16u);
    const std::string rule(45, '=');
    EXPECT_EQ(lines[0], rule);
    EXPECT_EQ(lines[1], "  InSAR displacement time-series inversion");
    EXPECT_EQ(lines[2].size(), 42u);
    EXPECT_EQ(lines[3].size(), 42u);
    EXPECT_EQ(lines[4], "Referecens:");
    EXPECT_EQ(lines[5].rfind("   (1) ", 0), 0u);
    EXPECT_EQ(lines[6].rfind("   (2) ", 0), 0u);
    EXPECT_EQ(lines[7].rfind("   (3) ", 0), 0u);
    EXPECT_EQ(lines[8], "");
    EXPECT_EQ(lines[9], "");
    EXPECT_EQ(lines[10], "Dependencies:\t");
    EXPECT_EQ(lines[11], "   (1) Openmp is enabled. ");
    EXPECT_EQ(lines[12], "   (2) FFTW is enabled.");
    EXPECT_EQ(lines[13], "");
    EXPECT_EQ(lines[14], "User manual: ");
    EXPECT_EQ(lines[15].rfind("     ", 0), 0u);
    EXPECT_EQ(lines.back(), rule);
    EXPECT_EQ(outcome.out, "");
}

TEST(Licence, HoldsTheQuotedLinesAndNoLongLines)
{
    const auto outcome = testing_support::run_in_child([] { print_license(); });
    const std::string& text = outcome.err;
    for (const std::string& line : std::vector<std::string>{
             "Redistribution and use in source and binary forms, with or without modification, \n",
             "are permitted provided that the following conditions are met:\n",
             "this list of conditions and the following disclaimer.\n",
             "and/or other materials provided with the distribution.\n",
             "without specific prior written permission.\n",
             "\nOF THIS SOFTWARE, EVEN IF ADVISED OF THE POSSIBILITY OF SUCH DAMAGE.\n\n\n\n" + std::string(82, '=') +
                 "\nLicense of FFTW \n",
             "\nFFTW is free software; you can redistribute it and/or modify it under the terms of \n",
             "\nSee the GNU General Public License for more details.\n\n",
             "\nYou should have received a copy of the GNU General Public License along with this program; \n",
             "for more information.\n" + std::string(82, '=') + "\n\n",
         }) {
        EXPECT_NE(text.find(line), std::string::npos) << line;
    }
    EXPECT_EQ(text.rfind("\n\n", 0), 0u);
    for (const auto& line : lines_of(text)) EXPECT_LE(line.size(), 95u) << line;
}

}  // namespace
