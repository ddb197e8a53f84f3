// Reference values: window means around a pixel, and scene means.
//
// Window means are worked by hand on a 5 x 4 raster holding 1..20 in raster
// order, so that every window's samples, mean and population deviation can
// be read off the grid. The per-interferogram functions run in a child
// process: their report lines are checked byte for byte, and their fatal
// stops must leave a message on the right stream, exit with status 0 and
// never crash.
#include "reference/ref_values.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "config/cfg.h"
#include "support/child.h"
#include "support/tiny_job.h"

namespace {

using testing_support::kReturned;
using testing_support::Outcome;
using testing_support::run_in_child;
using testing_support::TempDir;
using testing_support::TinyJob;
using testing_support::write_floats;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

HEADER grid(int64_t width, int64_t length)
{
    HEADER header;
    header.WIDTH = width;
    header.FILE_LENGTH = length;
    return header;
}

std::vector<float> counting(int n)
{
    std::vector<float> values(n);
    for (int i = 0; i < n; ++i) values[i] = static_cast<float>(i + 1);
    return values;
}

struct WindowResult {
    float mean;
    float spread;
};

// The window mean of a raster file holding `samples`, on `header`'s grid.
WindowResult window_of(const std::vector<float>& samples, const HEADER& header, int64_t index, int window)
{
    TempDir dir;
    write_floats(dir / "raster", samples);
    FILE* file = std::fopen((dir / "raster").c_str(), "rb");
    EXPECT_NE(file, nullptr);
    WindowResult result{};
    result.mean = com::read_windowed_point(index, window, file, &result.spread, header);
    std::fclose(file);
    return result;
}

// What a value-returning call leaves behind when run in a child: its
// streams, its status and the n values it returned.
struct ValuesRun {
    Outcome run;
    std::vector<float> values;
};

ValuesRun values_in_child(const std::function<float*()>& compute, size_t n)
{
    ValuesRun result;
    std::ostringstream printed;
    result.run = run_in_child([&] {
        float* values = compute();
        for (size_t k = 0; k < n; ++k) std::printf("%.9g\n", values[k]);
        std::free(values);
    });
    if (result.run.exited && result.run.status == kReturned) {
        std::istringstream lines(result.run.out);
        std::string line;
        while (std::getline(lines, line)) result.values.push_back(std::strtof(line.c_str(), nullptr));
    }
    return result;
}

void expect_returned(const Outcome& run)
{
    EXPECT_TRUE(run.exited);
    EXPECT_EQ(run.signal, 0);
    EXPECT_EQ(run.status, kReturned) << run.out << run.err;
}

// A fatal stop: one message, status 0, no signal.
void expect_stopped(const Outcome& run)
{
    EXPECT_TRUE(run.exited);
    EXPECT_EQ(run.signal, 0);
    EXPECT_EQ(run.status, 0) << run.out << run.err;
}

const char* const kFirst = "a_20200101_20200113.unw";
const char* const kSecond = "b_20200113_20200125.unw";

// ---------------------------------------------------------------------------
// The window mean of one raster.

struct WindowCase {
    const char* what;
    int64_t index;
    int window;
    float mean;
    float spread;
};

TEST(RefWindowMean, HandWorkedWindowsOnCountingRaster)
{
    // Grid of 5 columns, 4 rows:   1  2  3  4  5
    //                              6  7  8  9 10
    //                             11 12 13 14 15
    //                             16 17 18 19 20
    const WindowCase cases[] = {
        {"window 1 is the single sample, spread 0", 7, 1, 8.0f, 0.0f},
        {"3 x 3 inside the grid", 7, 3, 8.0f, static_cast<float>(std::sqrt(1404.0) / 9)},
        {"even side 2 acts as 3", 7, 2, 8.0f, static_cast<float>(std::sqrt(1404.0) / 9)},
        {"first corner keeps the 2 x 2 inside", 0, 3, 4.0f, static_cast<float>(std::sqrt(104.0) / 4)},
        {"last corner keeps the 2 x 2 inside", 19, 3, 17.0f, static_cast<float>(std::sqrt(104.0) / 4)},
        {"even side 4 acts as 5 and covers the grid", 12, 4, 10.5f, static_cast<float>(std::sqrt(13300.0) / 20)},
        {"side 5 covers the grid", 12, 5, 10.5f, static_cast<float>(std::sqrt(13300.0) / 20)},
        {"side 3 at the same pixel is smaller", 12, 3, 13.0f, static_cast<float>(std::sqrt(1404.0) / 9)},
        {"window 0 is taken as 1", 7, 0, 8.0f, 0.0f},
        {"negative window is taken as 1", 7, -3, 8.0f, 0.0f},
        {"pixel past the last row keeps what overlaps", 20, 3, 16.5f, 0.5f},
    };
    const std::vector<float> raster = counting(20);
    for (const WindowCase& c : cases) {
        SCOPED_TRACE(c.what);
        const WindowResult got = window_of(raster, grid(5, 4), c.index, c.window);
        EXPECT_FLOAT_EQ(got.mean, c.mean);
        EXPECT_FLOAT_EQ(got.spread, c.spread);
    }
}

TEST(RefWindowMean, InvalidSamplesAreSkippedAndSpreadIsPopulation)
{
    // Around the centre of a 3 x 3 grid only 2, 4 and 6 hold data: mean 4,
    // population deviation sqrt(8/3) (the sample form would give 2).
    const std::vector<float> raster = {0.0f, 2.0f, kNaN, kInf, 4.0f, -kInf, 1e-9f, 6.0f, 5e-9f};
    const WindowResult got = window_of(raster, grid(3, 3), 4, 3);
    EXPECT_FLOAT_EQ(got.mean, 4.0f);
    EXPECT_FLOAT_EQ(got.spread, static_cast<float>(std::sqrt(8.0 / 3.0)));
}

TEST(RefWindowMean, WindowWithoutDataIsNaN)
{
    const std::vector<float> raster = {1.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f};
    EXPECT_TRUE(std::isnan(window_of(raster, grid(3, 3), 8, 3).mean));
    EXPECT_FLOAT_EQ(window_of(raster, grid(3, 3), 4, 3).mean, 1.0f);
}

TEST(RefWindowMean, SamplesBeyondTheEndOfFileCountAsMissing)
{
    // Only the first 10 samples exist: of the window around 8 (row 1, col 2)
    // the row below is unreadable, leaving 2 3 4 / 7 8 9.
    const WindowResult got = window_of(counting(10), grid(5, 4), 7, 3);
    EXPECT_FLOAT_EQ(got.mean, 5.5f);
}

TEST(RefWindowMean, SquaresAreFormedInSinglePrecision)
{
    // 4097.25^2 = 16787457.5625 rounds to 16787458 in single precision, so a
    // lone sample reports sqrt(0.4375) rather than 0.
    const WindowResult got = window_of({4097.25f}, grid(1, 1), 0, 1);
    EXPECT_FLOAT_EQ(got.mean, 4097.25f);
    EXPECT_FLOAT_EQ(got.spread, static_cast<float>(std::sqrt(0.4375)));
}

TEST(RefWindowMean, GridWithoutSamplesGivesNaN)
{
    const HEADER empty[] = {grid(0, 4), grid(5, 0), grid(-5, -4), grid(-1, 3)};
    for (const HEADER& header : empty) {
        SCOPED_TRACE(std::to_string(header.WIDTH) + " x " + std::to_string(header.FILE_LENGTH));
        EXPECT_TRUE(std::isnan(window_of(counting(20), header, 0, 3).mean));
    }
}

TEST(RefWindowMean, SpreadMayBeOmitted)
{
    TempDir dir;
    write_floats(dir / "raster", counting(20));
    FILE* file = std::fopen((dir / "raster").c_str(), "rb");
    ASSERT_NE(file, nullptr);
    EXPECT_FLOAT_EQ(com::read_windowed_point(7, 1, file, nullptr, grid(5, 4)), 8.0f);
    std::fclose(file);
}

// ---------------------------------------------------------------------------
// Window means of every interferogram.

TEST(RefValues, OneWindowMeanPerInterferogramInListOrder)
{
    TinyJob job(3, 3);
    job.add_ifg(kFirst, counting(9));
    job.add_ifg(kSecond, std::vector<float>(9, -2.5f));
    const CFG cfg = lib::loadcfg(job.config("ref_window 3\n").c_str());

    const ValuesRun got = values_in_child([&] { return com::get_ref_point_value(cfg, 4); }, 2);
    expect_returned(got.run);
    EXPECT_EQ(got.values, (std::vector<float>{5.0f, -2.5f}));
    EXPECT_EQ(got.run.err, std::string(kFirst) + " refpoint value    5.000  2.582\n" + kSecond +
                               " refpoint value   -2.500  0.000\n");
}

TEST(RefValues, WindowOneTakesTheReferenceSampleItself)
{
    TinyJob job(3, 3);
    job.add_ifg(kFirst, counting(9));
    job.add_ifg(kSecond, {0, 0, 0, 0, -1234.5f, 0, 0, 0, 0});
    const CFG cfg = lib::loadcfg(job.config("ref_window 1\n").c_str());

    const ValuesRun got = values_in_child([&] { return com::get_ref_point_value(cfg, 4); }, 2);
    expect_returned(got.run);
    EXPECT_EQ(got.values, (std::vector<float>{5.0f, -1234.5f}));
    EXPECT_EQ(got.run.err, std::string(kFirst) + " refpoint value    5.000  0.000\n" + kSecond +
                               " refpoint value -1234.500  0.000\n");
}

TEST(RefValues, OneEmptyWindowStopsTheRun)
{
    TinyJob job(3, 3);
    job.add_ifg(kFirst, counting(9));
    job.add_ifg(kSecond, {5, 5, 5, 0, 0, 0, 0, 0, 0});
    const CFG cfg = lib::loadcfg(job.config("ref_window 1\n").c_str());

    const ValuesRun got = values_in_child([&] { return com::get_ref_point_value(cfg, 4); }, 2);
    expect_stopped(got.run);
    EXPECT_EQ(got.run.out, "");
    EXPECT_EQ(got.run.err, std::string(kFirst) + " refpoint value    5.000  0.000\n" +
                               "ERROR: no valid values around the reference point!\n");
}

TEST(RefValues, MissingInterferogramStopsTheRun)
{
    TinyJob job(3, 3);
    job.add_ifg(kFirst, counting(9));
    const CFG cfg = lib::loadcfg(job.config().c_str());
    std::remove(job.path(std::string("ifg/") + kFirst).c_str());

    const ValuesRun got = values_in_child([&] { return com::get_ref_point_value(cfg, 4); }, 1);
    expect_stopped(got.run);
    EXPECT_EQ(got.run.out, job.path(std::string("ifg/") + kFirst) + " not found\nfile not exit\n");
    EXPECT_EQ(got.run.err, "");
}

// ---------------------------------------------------------------------------
// Scene means.

TEST(RefGlobalMean, MeanOfValidSamplesWithSampleDeviation)
{
    // Valid samples 2, 4, 6: mean 4 and sample deviation 2 (the population
    // form would give 1.633).
    TinyJob job(3, 2);
    job.add_ifg(kFirst, {0.0f, 2.0f, kNaN, 4.0f, 6.0f, kInf});
    job.add_ifg(kSecond, std::vector<float>(6, 1.0f));
    const CFG cfg = lib::loadcfg(job.config().c_str());

    const ValuesRun got = values_in_child([&] { return com::get_ref_point_value_global_mean(cfg); }, 2);
    expect_returned(got.run);
    EXPECT_EQ(got.values, (std::vector<float>{4.0f, 1.0f}));
    EXPECT_EQ(got.run.err, std::string(kFirst) + " refpoint value    4.000  2.000\n" + kSecond +
                               " refpoint value    1.000  0.000\n");
}

TEST(RefGlobalMean, RunningMeanOfManySamplesStaysExact)
{
    // 1..1000 in a 40 x 25 grid: mean 500.5, sample deviation
    // sqrt(1000 * 1001 / 12) = 288.819.
    TinyJob job(40, 25);
    job.add_ifg(kFirst, counting(1000));
    const CFG cfg = lib::loadcfg(job.config().c_str());

    const ValuesRun got = values_in_child([&] { return com::get_ref_point_value_global_mean(cfg); }, 1);
    expect_returned(got.run);
    EXPECT_EQ(got.values, (std::vector<float>{500.5f}));
    EXPECT_EQ(got.run.err, std::string(kFirst) + " refpoint value  500.500 288.819\n");
}

TEST(RefGlobalMean, InterferogramWithoutDataStopsOnStandardOutput)
{
    TinyJob job(3, 2);
    job.add_ifg(kFirst, std::vector<float>(6, 1.0f));
    job.add_ifg(kSecond, {0.0f, kNaN, kInf, -kInf, 1e-9f, 0.0f});
    const CFG cfg = lib::loadcfg(job.config().c_str());

    const ValuesRun got = values_in_child([&] { return com::get_ref_point_value_global_mean(cfg); }, 2);
    expect_stopped(got.run);
    EXPECT_EQ(got.run.out, std::string("Cannot find a valid reference value for ") + kSecond + "\n");
    EXPECT_EQ(got.run.err, std::string(kFirst) + " refpoint value    1.000  0.000\n");
}

TEST(RefGlobalMean, GridWithoutSamplesStopsAtFirstInterferogram)
{
    for (const auto& size : {std::pair<int64_t, int64_t>{0, 3}, {3, 0}, {-3, -2}}) {
        SCOPED_TRACE(std::to_string(size.first) + " x " + std::to_string(size.second));
        TinyJob job(size.first, size.second);
        job.add_ifg(kFirst, {1.0f, 2.0f});
        job.add_ifg(kSecond, {1.0f, 2.0f});
        const CFG cfg = lib::loadcfg(job.config().c_str());

        const ValuesRun got = values_in_child([&] { return com::get_ref_point_value_global_mean(cfg); }, 2);
        expect_stopped(got.run);
        EXPECT_EQ(got.run.out, std::string("Cannot find a valid reference value for ") + kFirst + "\n");
        EXPECT_EQ(got.run.err, "");
    }
}

TEST(RefGlobalMean, ShortRasterStopsTheRun)
{
    TinyJob job(3, 2);
    job.add_ifg(kFirst, {1.0f, 2.0f, 3.0f, 4.0f});
    const CFG cfg = lib::loadcfg(job.config().c_str());

    const ValuesRun got = values_in_child([&] { return com::get_ref_point_value_global_mean(cfg); }, 1);
    expect_stopped(got.run);
    EXPECT_EQ(got.run.out, "");
    EXPECT_EQ(got.run.err, job.path(std::string("ifg/") + kFirst) + " file size wrong 16\n");
}

}  // namespace
