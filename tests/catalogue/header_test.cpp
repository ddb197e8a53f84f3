// Raster headers. Single-sample reads are seen through their one caller,
// the window means of ref_values_test.cpp.
#include <gtest/gtest.h>

#include "catalogue/header.h"
#include "support/child.h"
#include "support/errors.h"

namespace {

using namespace testing_support;

TEST(RasterHeader, TableOfHeaders)
{
    const std::pair<const char*, HEADER> cases[] = {
        {"WIDTH 100\nFILE_LENGTH\t60\nX_FIRST -99.1910697816367417\nY_FIRST 19.4512926234517565\n"
         "X_STEP 1.3888889e-3\nY_STEP -0.0013888889\nDATUM WGS84\n# comment\n\n",
         {100, 60, -99.1910697816367417, 19.4512926234517565, 1.3888889e-3, -0.0013888889}},
        {"WIDTH 1000.9\nFILE_LENGTH 5\nFILE_LENGTH 7\r\n", {1000, 7, 0, 0, 0, 0}},  // prefix; later lines win
        {"width 10\nFILE_LENGTH -4\n  \tX_STEP 2\n", {0, -4, 0, 0, 2, 0}},  // case matters; a tab is skipped
        {"WIDTH X_FIRST\n", {0, 0, 0, 0, 0, 0}},  // the value stands in the key's place
        {"", {0, 0, 0, 0, 0, 0}},
    };
    TempDir dir;
    for (const auto& [text, e] : cases) {
        write_text(dir / "h", text);
        const HEADER h = must(com::readheader((dir / "h").c_str()));
        EXPECT_TRUE(h.WIDTH == e.WIDTH && h.FILE_LENGTH == e.FILE_LENGTH && h.X_FIRST == e.X_FIRST &&
                    h.Y_FIRST == e.Y_FIRST && h.X_STEP == e.X_STEP && h.Y_STEP == e.Y_STEP)
            << text;
    }
    EXPECT_EQ(com::pixel_count(HEADER{-6, -4}), 0);
    EXPECT_EQ(reported(com::readheader("/nonexistent/h")), "out: /nonexistent/h not found\nfile not exit\n");
}

}  // namespace
