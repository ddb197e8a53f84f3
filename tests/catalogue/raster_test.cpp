// Contiguous raster reads with their size check, and batch output files.
#include <gtest/gtest.h>

#include <cstdio>

#include "catalogue/raster.h"
#include "support/child.h"

namespace {

using testing_support::read_floats;
using testing_support::TempDir;
using testing_support::write_floats;

TEST(RasterReads, ReadsAStretchInOneGoAndAcceptsALongerFile)
{
    TempDir dir;
    write_floats(dir / "r", {0, 1, 2, 3, 4, 5, 6, 7});
    float out[3] = {};
    com::read_raster((dir / "r").c_str(), 4, 3, out);
    EXPECT_EQ(out[0], 4.0f);
    EXPECT_EQ(out[2], 6.0f);
    com::read_raster((dir / "r").c_str(), 5, 3, out);  // ends exactly at the file's end
    EXPECT_EQ(out[2], 7.0f);
    com::read_raster((dir / "r").c_str(), 0, 2, out);  // the rest of the file is not read
    EXPECT_EQ(out[1], 1.0f);
}

TEST(RasterReads, AShortFileStopsTheRunWithThePositionReached)
{
    TempDir dir;
    write_floats(dir / "r", {0, 1, 2, 3});
    testing_support::write_text(dir / "odd", std::string(15, '\0'));
    const std::string path = dir / "r";
    const std::string odd = dir / "odd";
    struct Case {
        std::string path;
        int64_t first, count;
        std::string message;
    } cases[] = {
        {path, 2, 3, path + " file size wrong 16\n"},
        {path, 9, 1, path + " file size wrong 36\n"},  // a seek beyond the end reads nothing
        {odd, 0, 4, odd + " file size wrong 15\n"},    // one byte short
    };
    for (const auto& c : cases) {
        const auto outcome = testing_support::run_in_child([&] {
            float out[8];
            com::read_raster(c.path.c_str(), c.first, c.count, out);
        });
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.err, c.message);
    }
}

TEST(BatchOutputs, TheFirstBatchCreatesLaterBatchesAppend)
{
    TempDir dir;
    const float a[] = {1, 2};
    const float b[] = {3};
    com::write_batch(dir.path().c_str(), "out", 0, a, 2);
    com::write_batch(dir.path().c_str(), "out", 2, b, 1);
    EXPECT_EQ(read_floats(dir / "out"), (std::vector<float>{1, 2, 3}));
    com::write_batch(dir.path().c_str(), "out", 0, b, 1);  // a new run overwrites
    EXPECT_EQ(read_floats(dir / "out"), (std::vector<float>{3}));
    EXPECT_STREQ(com::batch_mode(0), "wb");
    EXPECT_STREQ(com::batch_mode(7), "ab");
}

TEST(BatchOutputs, AnUnwritableFolderEndsTheRun)
{
    const float a[] = {1};
    const auto outcome = testing_support::run_in_child([&] { com::write_batch("/nonexistent", "out", 0, a, 1); });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "/nonexistent/out not found\nfile not exit\n");
}

TEST(Paths, FolderSlashName)
{
    EXPECT_STREQ(com::join_path("result", "refpoint").c_str(), "result/refpoint");
    const std::string long_folder(2000, 'f');
    EXPECT_EQ(std::string(com::join_path(long_folder.c_str(), "x").c_str()).size(), 999u);
}

}  // namespace
