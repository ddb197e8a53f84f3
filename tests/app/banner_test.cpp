// The banner's shape, the licence notices and the run time line.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "app/banner.h"
#include "support/child.h"

namespace {

using testing_support::contains;

TEST(RunTime, SplitsSecondsIntoDaysHoursMinutes)
{
    const std::pair<double, const char*> cases[] = {
        {0, "0 days 0 hours 0 minutes 0.00"},     {59, "0 days 0 hours 0 minutes 59.00"},
        {3600, "0 days 1 hours 0 minutes 0.00"},  {90061, "1 days 1 hours 1 minutes 1.00"},
        {2 * 86400 + 59 * 60 + 7, "2 days 0 hours 59 minutes 7.00"},
    };
    for (const auto& [seconds, text] : cases)
        EXPECT_EQ(app::format_total_time(seconds), "Total time: " + std::string(text) + " seconds\n");
}

TEST(Banner, LinesHaveTheirPlaceAndShapeAndTheLicenceItsQuotedLines)
{
    const auto banner = testing_support::run_in_child([] { app::print_banner(stderr); });
    std::vector<std::string> lines;
    std::istringstream in(banner.err);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    ASSERT_GE(lines.size(), 16u);
    const std::string rule(45, '=');
    EXPECT_EQ(lines[0] + "\n" + lines[1], rule + "\n  InSAR displacement time-series inversion");
    EXPECT_TRUE(lines[2].size() == 42u && lines[3].size() == 42u);
    for (int k = 1; k <= 3; ++k) EXPECT_TRUE(lines[4 + k].starts_with("   (" + std::to_string(k) + ") ")) << k;
    EXPECT_TRUE(contains(banner.err, "\nReferecens:\n   (1) "));
    EXPECT_TRUE(contains(banner.err, "\n\n\nDependencies:\t\n   (1) Openmp is enabled. \n   (2) FFTW is enabled.\n\n"
                                     "User manual: \n     "));
    EXPECT_TRUE(banner.err.ends_with("\n" + rule + "\n"));
    EXPECT_EQ(banner.out, "");

    const std::string licence = testing_support::run_in_child([] { print_license(); }).err;
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
         })
        EXPECT_TRUE(contains(licence, line)) << line;
    EXPECT_TRUE(licence.starts_with("\n\n"));
    std::istringstream text(licence);
    for (std::string line; std::getline(text, line);) EXPECT_LE(line.size(), 95u) << line;
}

}  // namespace
