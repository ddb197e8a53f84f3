// Raster headers and single-sample reads.
#include <gtest/gtest.h>

#include <cstdio>

#include "catalogue/header.h"
#include "support/child.h"

namespace {

using testing_support::TempDir;
using testing_support::write_text;

HEADER header_of(const std::string& text)
{
    TempDir dir;
    write_text(dir / "h", text);
    return com::readheader((dir / "h").c_str());
}

TEST(RasterHeader, ReadsEveryKeyWithSpacesOrTabs)
{
    const HEADER h = header_of("WIDTH 100\nFILE_LENGTH\t60\nX_FIRST -99.1910697816367417\n"
                               "Y_FIRST 19.4512926234517565\nX_STEP 1.3888889e-3\nY_STEP -0.0013888889\n"
                               "DATUM WGS84\n# comment\n\n");
    EXPECT_EQ(h.WIDTH, 100);
    EXPECT_EQ(h.FILE_LENGTH, 60);
    EXPECT_DOUBLE_EQ(h.X_FIRST, -99.1910697816367417);
    EXPECT_DOUBLE_EQ(h.Y_FIRST, 19.4512926234517565);
    EXPECT_DOUBLE_EQ(h.X_STEP, 1.3888889e-3);
    EXPECT_DOUBLE_EQ(h.Y_STEP, -0.0013888889);
}

TEST(RasterHeader, SizesTakeTheIntegerPrefixAndLaterLinesWin)
{
    const HEADER h = header_of("WIDTH 1000.9\nFILE_LENGTH 5\nFILE_LENGTH 7\r\n");
    EXPECT_EQ(h.WIDTH, 1000);
    EXPECT_EQ(h.FILE_LENGTH, 7);
}

TEST(RasterHeader, MissingKeysGiveAnEmptyGridAndCaseMatters)
{
    const HEADER h = header_of("width 10\nFILE_LENGTH -4\n  \tX_STEP 2\n");
    EXPECT_EQ(h.WIDTH, 0);
    EXPECT_EQ(h.FILE_LENGTH, -4);  // not range-checked
    EXPECT_DOUBLE_EQ(h.X_STEP, 2.0);  // the splitter skips the tab before the key
    EXPECT_DOUBLE_EQ(h.Y_STEP, 0.0);
}

TEST(RasterHeader, AValueNamingALaterKeySetsItToo)
{
    const HEADER h = header_of("WIDTH X_FIRST\n");
    EXPECT_EQ(h.WIDTH, 0);
    EXPECT_DOUBLE_EQ(h.X_FIRST, 0.0);
}

TEST(RasterHeader, AMissingFileEndsTheRun)
{
    const auto outcome = testing_support::run_in_child([] { com::readheader("/nonexistent/h"); });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "/nonexistent/h not found\nfile not exit\n");
}

TEST(SingleSample, ReadsInsideTheGridAndZeroOutside)
{
    TempDir dir;
    testing_support::write_floats(dir / "r", {1, 2, 3, 4, 5, 6});
    HEADER h;
    h.WIDTH = 3;
    h.FILE_LENGTH = 2;
    FILE* f = std::fopen((dir / "r").c_str(), "rb");
    EXPECT_EQ(com::readonerecord(f, 0, 0, h), 1.0f);
    EXPECT_EQ(com::readonerecord(f, 1, 2, h), 6.0f);
    EXPECT_EQ(com::readonerecord(f, 1, 0, h), 4.0f);
    EXPECT_EQ(com::readonerecord(f, 2, 0, h), 0.0f);
    EXPECT_EQ(com::readonerecord(f, 0, -1, h), 0.0f);
    EXPECT_EQ(com::readonerecord(f, 0, 3, h), 0.0f);
    h.FILE_LENGTH = 3;  // a row the file does not hold
    EXPECT_EQ(com::readonerecord(f, 2, 1, h), 0.0f);
    std::fclose(f);
}

}  // namespace
