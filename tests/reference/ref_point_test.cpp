// Choice of the reference: the least-variance pixel, the most stable cell,
// and the stage that takes a given pixel, searches, or falls back to the
// scene mean.
//
// Each search gets a small grid whose pixels (or cells) are built to fail in
// one particular way — missing in one interferogram, constant, tied with an
// earlier one, too unsteady — so that a search which handles one of these
// wrongly picks a different index. Everything runs in a child process, as
// the searches end the run when nothing qualifies.
#include "reference/ref_point.h"

#include <gtest/gtest.h>

#include "app/job.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "config/cfg.h"
#include "support/child.h"
#include "support/errors.h"

namespace {

namespace ts = testing_support;
using Stack = std::vector<std::vector<float>>;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
const std::string kOutOfCoverage = "ERROR: Rereference point out of coverage!\n";
const std::string kNoStablePoint =
    "Cannot find a stable reference point!\nThere are interferograms that may contain too many invalid pixels!\n";
// The banner of each search, then the stop when nothing qualifies.
const std::string kNoPixel = "\n*********Looking for an arbitrary reference point********\n" + kNoStablePoint;
const std::string kNoCell = "\n***********Looking for a stable reference point**********\n" + kNoStablePoint;

// Six pixels over three interferograms, each disqualified differently
// except pixel 4; pixel 5 ties with it and comes later.
//   0: missing in the last, 1: missing in the first (variances of the rest
//   0.005), 2: constant, 3: variance 100, 4: variance 1, 5: variance 1.
const Stack kSixPixels = {{1, 0, 2, 10, 1, 5}, {1.1f, 1, 2, 20, 2, 6}, {kNaN, 1.1f, 2, 30, 3, 7}};

// 4 x 3 grid: 1..12 in the first interferogram, ten times that in the second.
const Stack kCounting = {{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12},
                         {10, 20, 30, 40, 50, 60, 70, 80, 90, 100, 110, 120}};

// Two pixels near 1.5 and 3 whose variances (about 1e-6) differ in the last
// digits only: carried in double precision the earlier pixel keeps the lead,
// but with the previous mean rounded to single precision at each step, as
// both searches do, pixel 1 comes out smaller.
const Stack kRounding = {
    {0x1.7ffffap+0f, 0x1.7ffff8p+1f}, {0x1.7fap+0f, 0x1.7fd006p+1f}, {0x1.809p+0f, 0x1.804806p+1f}};

// A job with one interferogram per entry of `stack`, named with the two
// dates the list reader needs.
CFG job_config(ts::TinyJob& job, const Stack& stack, const std::string& settings)
{
    for (size_t k = 0; k < stack.size(); ++k) {
        char name[96];
        std::snprintf(name, sizeof name, "i%zu_2020011%zu_2020021%zu.unw", k, k, k);
        job.add_ifg(name, stack[k]);
    }
    return testing_support::must(lib::loadcfg(job.config(settings).c_str()));
}

// A raster whose pixels hold the value of their cell of side `side`, cells
// numbered row by row as the stable-window search lays them out.
std::vector<float> cells(int64_t width, int64_t length, int64_t side, const std::vector<float>& values)
{
    std::vector<float> raster(width * length);
    for (int64_t p = 0; p < width * length; ++p)
        raster[p] = values[p / width / side * (width / side + 1) + p % width / side];
    return raster;
}

// A job and what it should give: its standard output, and a second text
// that each test names (standard error, or the "refpoint" file).
struct Case {
    const char* what;
    int64_t width, length;
    Stack stack;
    const char* settings;
    std::string out{}, text{};
};

// Each search prints the index it picks and says nothing else.
TEST(RefSearches, PickTheLeastVariancePixelOrTheCentreOfTheMostStableCell)
{
    // 8 x 2 in cells of 2. Means over the three interferograms: A 1, 1.5,
    // 2.05 (deviation 0.525); B 1, 1.5, 2 (0.5) where 1.5 is the mean of 1, 2
    // and 1.5 around a missing sample; C missing in the last; D missing in
    // the first. Counting the missing sample as 0 would make A win.
    const Stack missing = {{1, 1, 1, 1, 1, 1, 0, 0, 1, 1, 1, 1, 1, 1, 0, 0},
                           {1.5f, 1.5f, 1, 2, 1.001f, 1.001f, 1, 1, 1.5f, 1.5f, 0, 1.5f, 1.001f, 1.001f, 1, 1},
                           {2.05f, 2.05f, 2, 2, 0, 0, 1.001f, 1.001f, 2.05f, 2.05f, 2, 2, 0, 0, 1.001f, 1.001f}};
    const Stack partial_row = {cells(8, 6, 4, {1, 1, 0, 1, 1, 0}), cells(8, 6, 4, {3, 3, 0, 1.5f, 3, 0})};
    const Stack tie = {cells(4, 2, 2, {1, 5}), cells(4, 2, 2, {2, 6}), cells(4, 2, 2, {3, 7})};
    const Stack single = {{0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0, 0, 9, 0, 0, 0}};
    const char* const cells2 = "ref_method 2\nref_window 2\n";
    const Case cases[] = {
        {"least variance: missing, constant, unsteady lose; a tie keeps the earlier", 3, 2, kSixPixels,
         "ref_method 0\n", "4"},
        // Pixel 0 reads 1, -1, 1: its running mean passes through 0, which
        // holds no data, and it stays out although its variance is smaller.
        {"least variance: mean through zero", 2, 1, {{1, 10}, {-1, 20}, {1, 30}}, "ref_method 0\n", "1"},
        {"least variance: previous mean in single precision", 2, 1, kRounding, "ref_method 0\n", "1"},
        {"centre of B: row 1, column 3", 8, 2, missing, cells2, "11"},
        {"a tie keeps the earlier", 4, 2, tie, cells2, "5"},
        {"one interferogram: the first cell with data, row 1, column 3", 4, 4, single, cells2, "7"},
        {"window 1: the constant pixel qualifies", 3, 2, kSixPixels, "ref_method 2\nref_window 1\n", "2"},
        {"a window below 1 acts as 1", 3, 2, kSixPixels, "ref_method 2\nref_window -4\n", "2"},
        {"centre row 6 pulled back to 5", 8, 6, partial_row, "ref_method 2\nref_window 4\n", "42"},
        {"previous mean in single precision", 2, 1, kRounding, "ref_method 2\nref_window 1\n", "1"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ts::TinyJob job(c.width, c.length);
        const CFG cfg = job_config(job, c.stack, c.settings);
        const ts::Outcome got = ts::run_in_child([&] {
            const HEADER header = ts::must(com::readheader(cfg.headerfile));
            std::printf("%" PRId64, ts::or_stop(cfg.ref_method == 0 ? com::find_ref_point(cfg, header)
                                                                      : com::find_ref_grid(cfg, header)));
        });
        EXPECT_EQ(got.status, ts::kReturned) << got.err;
        EXPECT_EQ(got.out + got.err, c.out);
    }
}

TEST(RefStep1, ChoosesTheReferenceAndWritesItBack)
{
    // Columns 8 and 9 form the steadiest cell of side 4; its centre column
    // 10 = WIDTH names the first pixel of the next row.
    const Stack partial_column = {cells(10, 4, 4, {1, 1, 1}), cells(10, 4, 4, {3, 3, 1.5f})};
    // Printed per call: the values / row, column, latitude, longitude. Then
    // the "refpoint" file of the first call, if any.
    const Case cases[] = {
        {"given pixel, row 0", 4, 3, kCounting, "ref_window 1\nref_row 0\nref_col 3\n", "4 40 / 0 3 -9999 -9999\n"},
        {"given pixel, column 0", 4, 3, kCounting, "ref_window 1\nref_row 2\nref_col 0\n", "9 90 / 2 0 -9999 -9999\n"},
        {"least variance", 3, 2, kSixPixels, "ref_method 0\nref_window 1\n", "1 2 3 / 1 1 29.99 100.01\n",
         "refpoint position: 4\nrefpoint row: 1\nrefpoint col: 1\nrefpoint lat: 29.990000\nrefpoint lon: 100.010000"},
        {"stable window", 10, 4, partial_column, "ref_method 2\nref_window 4\n", "1 3 / 3 0 29.97 100\n",
         "refpoint position: 30\nrefpoint row: 3\nrefpoint col: 0\nrefpoint lat: 29.970000\nrefpoint lon: 100.000000"},
        {"global mean", 4, 3, kCounting, "ref_method 1\n", "6.5 65 / 0 0 -9999 -9999\n"},
        {"unknown method", 4, 3, kCounting, "ref_method 3\n", "0 0 / 0 0 -9999 -9999\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ts::TinyJob job(c.width, c.length);
        CFG cfg = job_config(job, c.stack, c.settings);
        // The report is moved aside after each call: the second call must
        // take the pixel written back and not search again.
        const std::string report = job.result("refpoint");
        const HEADER header = ts::must(com::readheader(cfg.headerfile));
        const ts::Outcome got = ts::run_in_child([&] {
            for (int call = 0; call < 2; ++call) {
                float* values = ts::or_stop(sbas::sbas_step1(&cfg, header));
                for (size_t k = 0; k < cfg.ifg_names.size(); ++k) std::printf("%g ", values[k]);
                std::printf("/ %" PRId64 " %" PRId64 " %g %g\n", cfg.ref_row, cfg.ref_col, cfg.ref_lat, cfg.ref_lon);
                std::free(values);
                std::rename(report.c_str(), (report + ".first").c_str());
            }
        });
        EXPECT_EQ(got.status, ts::kReturned) << got.err;
        EXPECT_EQ(got.out, c.out + c.out);
        EXPECT_EQ(ts::file_exists(report + ".first") ? ts::read_text(report + ".first") : "", c.text);
        EXPECT_FALSE(ts::file_exists(report));
    }
}

TEST(RefStep1, StopsCleanlyWithoutAReference)
{
    // Standard output, then standard error.
    const int64_t huge = 2147483647;
    const char* const method0 = "ref_method 0\n";
    const char* const cells2 = "ref_method 2\nref_window 2\n";
    const Case cases[] = {
        {"one interferogram", 3, 2, {kSixPixels[0]}, method0, "", kNoPixel},
        {"every pixel missing once", 2, 1, {{1, 0}, {kNaN, 2}, {3, 4}}, method0, "", kNoPixel},
        {"every pixel constant", 2, 1, {{1, 2}, {1, 2}}, method0, "", kNoPixel},
        {"variances above the starting least", 2, 1, {{1000, 1000}, {3000, 3000}, {5000, 2000}}, method0, "", kNoPixel},
        {"every cell missing once", 4, 2, {cells(4, 2, 2, {1, 0}), cells(4, 2, 2, {0, 2})}, cells2, "", kNoCell},
        {"no data", 4, 2, {std::vector<float>(8, 0), std::vector<float>(8, kNaN)}, cells2, "", kNoCell},
        {"empty grid, least variance", 0, 3, kCounting, method0, "", kNoPixel},
        {"empty grid, stable window", -3, -2, kCounting, cells2, "", kNoCell},
        {"empty grid, global mean", 0, 3, kCounting, "ref_method 1\n",
         "Cannot find a valid reference value for i0_20200110_20200210.unw\n",
         "\n***********Using global mean as reference point**********\n"},
        {"negative column, row 0", 4, 3, kCounting, "ref_row 0\nref_col -1\n", "", kOutOfCoverage},
        {"column = WIDTH", 4, 3, kCounting, "ref_row 1\nref_col 4\n", "", kOutOfCoverage},
        {"row = FILE_LENGTH", 4, 3, kCounting, "ref_row 3\nref_col 1\n", "", kOutOfCoverage},
        {"negative row", 4, 3, kCounting, "ref_row -1\nref_col 1\n", "", kOutOfCoverage},
        {"huge grid, pixel beyond the file", huge, huge, kCounting, "ref_row 1000\nref_col 1000\n", "",
         "ERROR: no valid values around the reference point!\n"},
        // The failed allocation is reported first, on standard output.
        {"huge grid, least variance", huge, huge, kCounting, method0, "Memory allocation error: n=1,m=4611686014132420609\n",
         "\n*********Looking for an arbitrary reference point********\nCould not allocate memory!\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ts::TinyJob job(c.width, c.length);
        CFG cfg = job_config(job, c.stack, c.settings);
        const HEADER header = ts::must(com::readheader(cfg.headerfile));
        const ts::Outcome got = ts::run_in_child([&] { std::free(ts::or_stop(sbas::sbas_step1(&cfg, header))); });
        EXPECT_TRUE(got.exited && got.status == 0) << got.signal;
        EXPECT_EQ(got.out, c.out);
        EXPECT_EQ(got.err, c.text);
        EXPECT_FALSE(ts::file_exists(job.result("refpoint")));
    }
}

}  // namespace

namespace {

TEST(RefThreads, EveryThreadCountChoosesAndReportsTheSame)
{
    // A 37 x 23 grid of noisy samples with holes, nine interferograms: the
    // pixels, rows of cells and interferograms shared out over 1 to 7
    // threads must give the same choice, values and lines. Interferograms 3
    // and 6 without data stop the global mean at the first of them, after
    // the lines of 0 to 2.
    const int64_t width = 37, length = 23;
    uint64_t seed = 12345;
    auto next = [&seed] {
        seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
        return static_cast<double>(seed >> 11) * 0x1.0p-53;
    };
    Stack stack(9, std::vector<float>(width * length));
    for (auto& raster : stack)
        for (float& v : raster) v = next() < 0.04 ? kNaN : static_cast<float>(5.0 * next() - 2.0);
    Stack empty = stack;
    empty[3].assign(width * length, 0.0f);
    empty[6].assign(width * length, kNaN);
    struct Run {
        const char* what;
        const Stack* stack;
        const char* settings;
    };
    const Run runs[] = {{"least variance", &stack, "ref_method 0\n"},
                        {"stable window 3", &stack, "ref_method 2\nref_window 3\n"},
                        {"stable window 6", &stack, "ref_method 2\nref_window 6\n"},
                        {"global mean", &stack, "ref_method 1\n"},
                        {"global mean, two interferograms without data", &empty, "ref_method 1\n"}};
    for (const Run& r : runs) {
        SCOPED_TRACE(r.what);
        std::string first;
        for (const int threads : {1, 2, 3, 7}) {
            ts::TinyJob job(width, length);
            CFG cfg = job_config(job, *r.stack, r.settings + std::string("max_parallel_threads ") +
                                                    std::to_string(threads) + "\n");
            const HEADER header = ts::must(com::readheader(cfg.headerfile));
            const ts::Outcome got = ts::run_in_child([&] {
                float* values = ts::or_stop(sbas::sbas_step1(&cfg, header));
                for (size_t k = 0; k < cfg.ifg_names.size(); ++k) std::printf("%a ", values[k]);
                std::printf("/ %" PRId64 " %" PRId64 "\n", cfg.ref_row, cfg.ref_col);
                std::free(values);
            });
            EXPECT_EQ(got.status, r.stack == &empty ? 0 : ts::kReturned);
            const std::string text = got.out + "|" + got.err;
            if (threads == 1) first = text;
            EXPECT_EQ(text, first) << threads << " threads";
        }
        if (r.stack == &empty) {
            EXPECT_NE(first.find("Cannot find a valid reference value for i3_"), std::string::npos) << first;
            EXPECT_NE(first.find("i2_20200112_20200212.unw refpoint value"), std::string::npos) << first;
            EXPECT_EQ(first.find("i4_"), std::string::npos) << first;
        }
        else
            EXPECT_NE(first.find("refpoint value"), std::string::npos) << first;
    }
}

}  // namespace
