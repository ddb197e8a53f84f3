// Contiguous raster reads with their size check, and batch output files.
#include <gtest/gtest.h>

#include <cstdio>
#include <tuple>

#include "catalogue/raster.h"
#include "support/child.h"

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
        const auto o = run_in_child([&] {
            float out[8];
            com::read_raster(path.c_str(), first, count, out);
            for (int64_t i = 0; i < count; ++i) std::printf("%g ", out[i]);
        });
        EXPECT_EQ(o.status, o.err.empty() ? kReturned : 0) << expected;
        EXPECT_EQ(o.out + o.err, expected);
    }
}

// That the first batch creates an output and later ones append is shown by
// the whole-run byte comparisons across maxcap; here the stop on a folder
// that cannot be written, and a path cut to its buffer.
TEST(BatchOutputs, AnUnwritableFolderEndsTheRunAndLongPathsAreCut)
{
    const float a[] = {1};
    const auto outcome = run_in_child([&] { com::write_batch("/nonexistent", "out", 0, a, 1); });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "/nonexistent/out not found\nfile not exit\n");
    EXPECT_STREQ(com::join_path("result", "refpoint").c_str(), "result/refpoint");
    EXPECT_EQ(std::string(com::join_path(std::string(2000, 'f').c_str(), "x").c_str()).size(), 999u);
}

}  // namespace
