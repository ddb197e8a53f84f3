// Contiguous raster reads with their size check, and batch output files.
#include <gtest/gtest.h>

#include <cstdio>
#include <tuple>

#include "catalogue/raster.h"
#include "support/child.h"
#include "support/errors.h"

namespace {

using namespace testing_support;

// A stretch is read in one go; a longer file is fine, a short one stops the
// run with the position reached (a seek beyond the end reads nothing).
TEST(RasterReads, AStretchOrTheSizeMessage)
{
    TempDir dir;
    write_floats(dir / "r", {0, 1, 2, 3, 4, 5, 6, 7});
    write_text(dir / "odd", std::string(15, '\0'));
    const std::string r = dir / "r", odd = dir / "odd";
    const std::tuple<std::string, int64_t, int64_t, std::string> cases[] = {
        {r, 4, 3, "4 5 6 "},
        {r, 5, 3, "5 6 7 "},  // ends exactly at the file's end
        {r, 0, 2, "0 1 "},
        {r, 6, 3, r + " file size wrong 32\n"},
        {r, 17, 1, r + " file size wrong 68\n"},
        {odd, 0, 4, odd + " file size wrong 15\n"},  // one byte short
    };
    for (const auto& [path, first, count, expected] : cases) {
        float out[8];
        const lib::Status read = com::read_raster(path.c_str(), first, count, out);
        std::string got = read.ok() ? "" : read.error().message;
        for (int64_t i = 0; read.ok() && i < count; ++i) got += std::to_string(static_cast<int>(out[i])) + " ";
        EXPECT_EQ(got, expected);
    }
}

// That the first batch creates an output and later ones append is shown by
// the whole-run byte comparisons across maxcap; here the error of a folder
// that cannot be written, and a path cut to its buffer.
TEST(BatchOutputs, AnUnwritableFolderIsReportedAndLongPathsAreCut)
{
    const float a[] = {1};
    EXPECT_EQ(reported(com::write_batch("/nonexistent", "out", 0, a, 1)),
              "out: /nonexistent/out not found\nfile not exit\n");
    EXPECT_STREQ(com::join_path("result", "refpoint").c_str(), "result/refpoint");
    EXPECT_EQ(std::string(com::join_path(std::string(2000, 'f').c_str(), "x").c_str()).size(), 999u);
}

}  // namespace
