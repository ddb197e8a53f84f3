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

TEST(RasterHeader, TableOfHeaders)
{
    struct Case {
        const char* text;
        HEADER expected;
    } cases[] = {
        {"WIDTH 100\nFILE_LENGTH\t60\nX_FIRST -99.1910697816367417\nY_FIRST 19.4512926234517565\n"
         "X_STEP 1.3888889e-3\nY_STEP -0.0013888889\nDATUM WGS84\n# comment\n\n",
         {100, 60, -99.1910697816367417, 19.4512926234517565, 1.3888889e-3, -0.0013888889}},
        {"WIDTH 1000.9\nFILE_LENGTH 5\nFILE_LENGTH 7\r\n", {1000, 7, 0, 0, 0, 0}},  // prefix; later lines win
        {"width 10\nFILE_LENGTH -4\n  \tX_STEP 2\n", {0, -4, 0, 0, 2, 0}},  // case matters; a tab is skipped
        {"WIDTH X_FIRST\n", {0, 0, 0, 0, 0, 0}},  // the value stands in the key's place
        {"", {0, 0, 0, 0, 0, 0}},
    };
    for (const auto& c : cases) {
        const HEADER h = header_of(c.text);
        EXPECT_EQ(h.WIDTH, c.expected.WIDTH) << c.text;
        EXPECT_EQ(h.FILE_LENGTH, c.expected.FILE_LENGTH) << c.text;
        EXPECT_DOUBLE_EQ(h.X_FIRST, c.expected.X_FIRST) << c.text;
        EXPECT_DOUBLE_EQ(h.Y_FIRST, c.expected.Y_FIRST) << c.text;
        EXPECT_DOUBLE_EQ(h.X_STEP, c.expected.X_STEP) << c.text;
        EXPECT_DOUBLE_EQ(h.Y_STEP, c.expected.Y_STEP) << c.text;
    }
    HEADER negative;
    negative.WIDTH = -6;
    negative.FILE_LENGTH = -4;
    EXPECT_EQ(com::pixel_count(negative), 0);
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
