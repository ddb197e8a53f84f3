// Reference values: window means around a pixel, and scene means.
//
// Window means are worked by hand on rasters small enough that every
// window's samples, mean and population deviation can be read off the grid.
// The per-interferogram functions run in a child process: their report lines
// are checked byte for byte, and their fatal stops must leave a message on
// the right stream, exit with status 0 and never crash.
#include "reference/ref_values.h"

#include <gtest/gtest.h>

#include "app/job.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "config/cfg.h"
#include "support/child.h"
#include "support/errors.h"

namespace {

using testing_support::kReturned;
using testing_support::Outcome;
using testing_support::TinyJob;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();
const std::string kFirst = "a_20200101_20200113.unw";
const std::string kSecond = "b_20200113_20200125.unw";

std::vector<float> counting(int n)
{
    std::vector<float> values(n);
    for (int i = 0; i < n; ++i) values[i] = static_cast<float>(i + 1);
    return values;
}

TEST(RefWindowMean, HandWorkedWindows)
{
    struct Case {
        const char* what;
        std::vector<float> raster;
        int64_t width, length, index;
        int window;
        float mean, spread;  // a NaN mean: no valid sample
    };
    // Most cases use the 5 x 4 grid   1  2  3  4  5
    //                                 6  7  8  9 10
    //                                11 12 13 14 15
    //                                16 17 18 19 20
    const std::vector<float> grid = counting(20);
    const Case cases[] = {
        {"window 1 is the sample itself", grid, 5, 4, 7, 1, 8, 0},
        {"3 x 3, population deviation", grid, 5, 4, 7, 3, 8, std::sqrt(1404.0f) / 9},
        {"even side 2 acts as 3", grid, 5, 4, 7, 2, 8, std::sqrt(1404.0f) / 9},
        {"first corner keeps the 2 x 2 inside", grid, 5, 4, 0, 3, 4, std::sqrt(104.0f) / 4},
        {"last corner keeps the 2 x 2 inside", grid, 5, 4, 19, 3, 17, std::sqrt(104.0f) / 4},
        {"even side 4 acts as 5", grid, 5, 4, 12, 4, 10.5f, std::sqrt(13300.0f) / 20},
        {"a window below 1 is taken as 1", grid, 5, 4, 7, -3, 8, 0},
        {"samples past the end of the file are missing", counting(10), 5, 4, 7, 3, 5.5f, std::sqrt(249.0f) / 6},
        // Only 2, 4 and 6 hold data; the sample deviation would be 2.
        {"invalid samples are skipped", {0, 2, kNaN, kInf, 4, -kInf, 1e-9f, 6, 5e-9f}, 3, 3, 4, 3, 4,
         std::sqrt(8.0f / 3)},
        // 4097.25^2 rounds to 16787458 in single precision; in double the
        // deviation of a lone sample would be 0.
        {"squares are formed in single precision", {4097.25f}, 1, 1, 0, 1, 4097.25f, std::sqrt(0.4375f)},
        {"no valid sample", {1, 0, 0, 0, 0, 0, 0, 0, 0}, 3, 3, 8, 3, kNaN, 0},
        {"empty grid", grid, 0, 4, 0, 3, kNaN, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        testing_support::TempDir dir;
        testing_support::write_floats(dir / "raster", c.raster);
        FILE* file = std::fopen((dir / "raster").c_str(), "rb");
        ASSERT_NE(file, nullptr);
        float spread = -1;
        const float mean = com::read_windowed_point(c.index, c.window, file, &spread, HEADER{c.width, c.length});
        const float again = com::read_windowed_point(c.index, c.window, file, nullptr, HEADER{c.width, c.length});
        std::fclose(file);
        EXPECT_EQ(testing_support::mismatch({mean, again}, {c.mean, c.mean}, 2e-7), "");
        EXPECT_TRUE(std::isnan(c.mean) || std::fabs(spread - c.spread) <= 2e-7 * c.spread) << spread;
    }
}

TEST(RefValues, ValueOfEveryInterferogramOrAStop)
{
    struct Case {
        const char* what;
        int64_t width, length;
        bool global;  // the scene mean, else the window of side 3 at pixel 4
        std::vector<float> first, second;
        int status;
        std::string out, err;  // with the job's folder left out
    };
    const std::string none = "Cannot find a valid reference value for ";
    const Case cases[] = {
        {"window, population deviation", 3, 3, false, counting(9), std::vector<float>(9, -2.5f), kReturned,
         "5\n-2.5\n", kFirst + " refpoint value    5.000  2.582\n" + kSecond + " refpoint value   -2.500  0.000\n"},
        // Valid samples 2, 4 and 6: the population deviation would be 1.633.
        {"scene, sample deviation", 3, 3, true, {0, 2, kNaN, 4, 6, kInf, 0, 0, 0}, std::vector<float>(9, 1), kReturned,
         "4\n1\n", kFirst + " refpoint value    4.000  2.000\n" + kSecond + " refpoint value    1.000  0.000\n"},
        {"empty window", 3, 3, false, counting(9), std::vector<float>(9, 0.0f), 0, "",
         kFirst + " refpoint value    5.000  2.582\nERROR: no valid values around the reference point!\n"},
        // An empty first raster is taken out of the job once configured.
        {"missing raster", 3, 3, false, {}, counting(9), 0, "/ifg/" + kFirst + " not found\nfile not exit\n", ""},
        {"scene without data", 3, 3, true, counting(9), {0, kNaN, kInf, -kInf, 1e-9f, 0, 0, 0, 0}, 0,
         none + kSecond + "\n", kFirst + " refpoint value    5.000  2.739\n"},
        {"empty grid", 0, 3, true, {1, 2}, {1, 2}, 0, none + kFirst + "\n", ""},
        {"short raster", 3, 3, true, {1, 2, 3, 4}, counting(9), 0, "", "/ifg/" + kFirst + " file size wrong 16\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TinyJob job(c.width, c.length);
        job.add_ifg(kFirst, c.first);
        job.add_ifg(kSecond, c.second);
        const CFG cfg = testing_support::must(lib::loadcfg(job.config("ref_window 3\n").c_str()));
        if (c.first.empty()) std::remove(job.path("ifg/" + kFirst).c_str());

        // Both values, one a line.
        const Outcome got = testing_support::run_in_child([&] {
            const HEADER header = testing_support::must(com::readheader(cfg.headerfile));
            float* values = testing_support::or_stop(c.global ? com::get_ref_point_value_global_mean(cfg, header)
                                                              : com::get_ref_point_value(cfg, header, 4));
            std::printf("%g\n%g\n", values[0], values[1]);
            std::free(values);
        });
        const auto local = [&](std::string text) {
            for (size_t at; (at = text.find(job.folder())) != std::string::npos;) text.erase(at, job.folder().size());
            return text;
        };
        EXPECT_TRUE(got.exited && got.status == c.status) << got.signal;
        EXPECT_EQ(local(got.out), c.out);
        EXPECT_EQ(local(got.err), c.err);
    }
}

}  // namespace
