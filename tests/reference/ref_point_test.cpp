// Choice of the reference: the least-variance pixel, the most stable cell,
// and the dispatch that takes a given pixel, searches, or falls back to the
// scene mean.
//
// Each search gets a small grid whose pixels (or cells) are built to fail in
// one particular way — missing in one interferogram, constant, tied with an
// earlier one, too unsteady — so that a search which handles one of these
// wrongly picks a different index. Everything runs in a child process: the
// searches report on the standard streams and end the run when nothing
// qualifies, and the record they update is printed back for inspection.
#include "reference/ref_point.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "config/cfg.h"
#include "support/child.h"
#include "support/tiny_job.h"

namespace {

using testing_support::file_exists;
using testing_support::kReturned;
using testing_support::Outcome;
using testing_support::read_text;
using testing_support::run_in_child;
using testing_support::TinyJob;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

const char* const kNoStablePoint =
    "Cannot find a stable reference point!\n"
    "There are interferograms that may contain too many invalid pixels!\n";
const char* const kOutOfCoverage = "ERROR: Rereference point out of coverage!\n";
const char* const kArbitraryBanner = "\n*********Looking for an arbitrary reference point********\n";
const char* const kGlobalBanner = "\n***********Using global mean as reference point**********\n";
const char* const kStableBanner = "\n***********Looking for a stable reference point**********\n";

// Interferogram names with the two dates the list reader needs.
std::string ifg_name(int k)
{
    return "ifg" + std::to_string(k) + "_202001" + std::to_string(10 + k) + "_202002" + std::to_string(10 + k) +
           ".unw";
}

// A job whose k-th interferogram holds stack[k].
void add_stack(TinyJob& job, const std::vector<std::vector<float>>& stack)
{
    for (size_t k = 0; k < stack.size(); ++k) job.add_ifg(ifg_name(static_cast<int>(k)), stack[k]);
}

// Rasters of `width` x `length` where every pixel of a cell of side `side`
// holds that cell's value for the interferogram; cell_values[k][cell] with
// cells numbered row by row, `across` per row.
std::vector<std::vector<float>> cell_stack(int64_t width, int64_t length, int64_t side, int64_t across,
                                           const std::vector<std::vector<float>>& cell_values)
{
    std::vector<std::vector<float>> stack;
    for (const auto& values : cell_values) {
        std::vector<float> raster(width * length);
        for (int64_t i = 0; i < length; ++i)
            for (int64_t j = 0; j < width; ++j) raster[i * width + j] = values[(i / side) * across + j / side];
        stack.push_back(raster);
    }
    return stack;
}

struct SearchRun {
    Outcome run;
    long long index = -1;
};

SearchRun search_in_child(const std::function<int64_t()>& search)
{
    SearchRun result;
    result.run = run_in_child([&] { std::printf("%lld\n", static_cast<long long>(search())); });
    if (result.run.exited && result.run.status == kReturned) result.index = std::atoll(result.run.out.c_str());
    return result;
}

// sbas_step1 run `calls` times on one record; after each call the values
// and the record's reference fields are printed, one line each.
struct StepRun {
    Outcome run;
    std::vector<std::vector<float>> values;  // per call
    std::vector<std::string> fields;         // per call: "row col lat lon"
};

StepRun step_in_child(CFG cfg, int calls = 1, const std::function<void()>& between = [] {})
{
    StepRun result;
    const size_t n = cfg.ifg_names.size();
    result.run = run_in_child([&] {
        for (int call = 0; call < calls; ++call) {
            if (call > 0) between();
            float* values = sbas::sbas_step1(&cfg);
            for (size_t k = 0; k < n; ++k) std::printf("%.9g ", values[k]);
            std::printf("\n%lld %lld %.9g %.9g\n", static_cast<long long>(cfg.ref_row),
                        static_cast<long long>(cfg.ref_col), cfg.ref_lat, cfg.ref_lon);
            std::free(values);
            std::fflush(stdout);
            std::fprintf(stderr, "|");
        }
    });
    if (!(result.run.exited && result.run.status == kReturned)) return result;
    std::istringstream lines(result.run.out);
    std::string values_line;
    std::string fields_line;
    while (std::getline(lines, values_line) && std::getline(lines, fields_line)) {
        std::istringstream numbers(values_line);
        std::vector<float> values;
        float v = 0;
        while (numbers >> v) values.push_back(v);
        result.values.push_back(values);
        result.fields.push_back(fields_line);
    }
    return result;
}

std::string fields(long long row, long long col, float lat, float lon)
{
    char text[200];
    std::snprintf(text, sizeof text, "%lld %lld %.9g %.9g", row, col, lat, lon);
    return text;
}

void expect_returned(const Outcome& run)
{
    EXPECT_TRUE(run.exited);
    EXPECT_EQ(run.signal, 0);
    EXPECT_EQ(run.status, kReturned) << run.out << run.err;
}

void expect_stopped(const Outcome& run)
{
    EXPECT_TRUE(run.exited);
    EXPECT_EQ(run.signal, 0);
    EXPECT_EQ(run.status, 0) << run.out << run.err;
}

// The report of the pixel at `index`, on TinyJob's frame (corner 100 E,
// 30 N, steps 0.01 and -0.01 degrees).
std::string report(int index, int row, int col, const char* lat, const char* lon)
{
    return "refpoint position: " + std::to_string(index) + "\nrefpoint row: " + std::to_string(row) +
           "\nrefpoint col: " + std::to_string(col) + "\nrefpoint lat: " + lat + "\nrefpoint lon: " + lon;
}

// ---------------------------------------------------------------------------
// The least-variance pixel.

// Six pixels over three interferograms, each disqualified differently
// except pixel 4; pixel 5 ties with it and comes later.
//   0: 1, 1.1, NaN    missing in the last  (variance of the rest 0.005)
//   1: 0, 1, 1.1      missing in the first (variance of the rest 0.005)
//   2: 2, 2, 2        constant, variance 0
//   3: 10, 20, 30     variance 100
//   4: 1, 2, 3        variance 1
//   5: 5, 6, 7        variance 1, tie
const std::vector<std::vector<float>> kSixPixels = {
    {1.0f, 0.0f, 2.0f, 10.0f, 1.0f, 5.0f},
    {1.1f, 1.0f, 2.0f, 20.0f, 2.0f, 6.0f},
    {kNaN, 1.1f, 2.0f, 30.0f, 3.0f, 7.0f},
};

TEST(RefPointSearch, LeastVariancePixelPresentInEveryInterferogram)
{
    TinyJob job(3, 2);
    add_stack(job, kSixPixels);
    const CFG cfg = lib::loadcfg(job.config("ref_method 0\n").c_str());

    const SearchRun got = search_in_child([&] { return com::find_ref_point(cfg); });
    expect_returned(got.run);
    EXPECT_EQ(got.index, 4);
    EXPECT_EQ(got.run.err, "");
    EXPECT_EQ(read_text(job.result("refpoint")), report(4, 1, 1, "29.990000", "100.010000"));
}

TEST(RefPointSearch, PixelWhoseRunningMeanPassesThroughZeroIsDropped)
{
    // Pixel 0 reads 1, -1, 1: after two interferograms its mean is 0, which
    // holds no data, and it stays out although its variance is the smaller.
    TinyJob job(2, 1);
    add_stack(job, {{1.0f, 10.0f}, {-1.0f, 20.0f}, {1.0f, 30.0f}});
    const CFG cfg = lib::loadcfg(job.config("ref_method 0\n").c_str());

    const SearchRun got = search_in_child([&] { return com::find_ref_point(cfg); });
    expect_returned(got.run);
    EXPECT_EQ(got.index, 1);
}

TEST(RefPointSearch, PreviousMeanEntersTheUpdateInSinglePrecision)
{
    // Two pixels near 1.5 and 3 whose variances (about 1e-6) differ in the
    // last digits only: carried in double precision the earlier pixel keeps
    // the lead, but with the previous mean rounded to single precision at
    // each step, as both searches do, pixel 1 comes out smaller.
    const std::vector<std::vector<float>> stack = {
        {0x1.7ffffap+0f, 0x1.7ffff8p+1f},
        {0x1.7fap+0f, 0x1.7fd006p+1f},
        {0x1.809p+0f, 0x1.804806p+1f},
    };
    for (const char* method : {"ref_method 0\n", "ref_method 2\nref_window 1\n"}) {
        SCOPED_TRACE(method);
        TinyJob job(2, 1);
        add_stack(job, stack);
        const CFG cfg = lib::loadcfg(job.config(method).c_str());

        const SearchRun got = search_in_child([&] {
            return cfg.ref_method == 0 ? com::find_ref_point(cfg) : com::find_ref_grid(cfg);
        });
        expect_returned(got.run);
        EXPECT_EQ(got.index, 1);
    }
}

struct FailureCase {
    const char* what;
    int64_t width;
    int64_t length;
    std::vector<std::vector<float>> stack;
};

TEST(RefPointSearch, FailsWhenNoPixelQualifies)
{
    const FailureCase cases[] = {
        {"a single interferogram", 3, 2, {kSixPixels[0]}},
        {"every pixel missing somewhere", 2, 1, {{1.0f, 0.0f}, {kNaN, 2.0f}, {3.0f, 4.0f}}},
        {"every pixel constant", 2, 1, {{1.0f, 2.0f}, {1.0f, 2.0f}}},
        {"variances above the starting minimum", 2, 1, {{1000.0f, 1000.0f}, {3000.0f, 3000.0f}, {5000.0f, 2000.0f}}},
        {"no interferogram", 2, 1, {}},
        {"no grid", 0, 2, {{}, {}}},
    };
    for (const FailureCase& c : cases) {
        SCOPED_TRACE(c.what);
        TinyJob job(c.width, c.length);
        add_stack(job, c.stack);
        const CFG cfg = lib::loadcfg(job.config("ref_method 0\n").c_str());

        const SearchRun got = search_in_child([&] { return com::find_ref_point(cfg); });
        expect_stopped(got.run);
        EXPECT_EQ(got.run.out, "");
        EXPECT_EQ(got.run.err, kNoStablePoint);
        EXPECT_FALSE(file_exists(job.result("refpoint")));
    }
}

// ---------------------------------------------------------------------------
// The most stable cell.

TEST(RefGridSearch, MostStableCellGivesItsCentre)
{
    // 6 x 4 grid in 2 x 2 cells, three real cells across and two down:
    //   (0,0) means 1, 3, 5         deviation 2
    //   (0,1) means 1, 1.5, 2       deviation 0.5 — in the second
    //         interferogram its samples are 1, 2, (no data), 1.5
    //   (0,2) no data, 1, 1.001     missing in the first
    //   (1,0) 1, 1.001, no data     missing in the last
    //   (1,1) 1, 1.5, 2.05          deviation 0.525
    //   (1,2) 10, 20, 40            deviation 15.3
    // Counting the missing sample as 0 would make (0,1) lose to (1,1).
    // Cell values listed four to a row of cells (the fourth, past the last
    // column, holds no pixel).
    std::vector<std::vector<float>> stack = cell_stack(6, 4, 2, 4,
                                                       {{1, 1, 0, 0, /**/ 1, 1, 10, 0},
                                                        {3, 1.5f, 1, 0, /**/ 1.001f, 1.5f, 20, 0},
                                                        {5, 2, 1.001f, 0, /**/ 0, 2.05f, 40, 0}});
    // Cell (0,1) covers rows 0-1, columns 2-3.
    stack[1][0 * 6 + 2] = 1.0f;
    stack[1][0 * 6 + 3] = 2.0f;
    stack[1][1 * 6 + 2] = 0.0f;
    stack[1][1 * 6 + 3] = 1.5f;
    TinyJob job(6, 4);
    add_stack(job, stack);
    const CFG cfg = lib::loadcfg(job.config("ref_method 2\nref_window 2\n").c_str());

    const SearchRun got = search_in_child([&] { return com::find_ref_grid(cfg); });
    expect_returned(got.run);
    // Centre of (0,1): half width ceil(0.5) = 1, so row 1, column 3.
    EXPECT_EQ(got.index, 1 * 6 + 3);
    EXPECT_EQ(got.run.err, "");
    EXPECT_EQ(read_text(job.result("refpoint")), report(9, 1, 3, "29.990000", "100.030000"));
}

TEST(RefGridSearch, ConstantCellQualifies)
{
    // Unlike the pixel search, a deviation of 0 is a valid (and unbeatable)
    // candidate.
    TinyJob job(4, 2);
    add_stack(job, cell_stack(4, 2, 2, 3, {{1, 5, 0, 0, 0, 0}, {2, 5, 0, 0, 0, 0}, {3, 5, 0, 0, 0, 0}}));
    const CFG cfg = lib::loadcfg(job.config("ref_method 2\nref_window 2\n").c_str());

    const SearchRun got = search_in_child([&] { return com::find_ref_grid(cfg); });
    expect_returned(got.run);
    EXPECT_EQ(got.index, 1 * 4 + 3);
}

TEST(RefGridSearch, TiesKeepTheEarlierCell)
{
    // Means 1, 2, 3 and 5, 6, 7: both deviations are exactly 1.
    TinyJob job(4, 2);
    add_stack(job, cell_stack(4, 2, 2, 3, {{1, 5, 0, 0, 0, 0}, {2, 6, 0, 0, 0, 0}, {3, 7, 0, 0, 0, 0}}));
    const CFG cfg = lib::loadcfg(job.config("ref_method 2\nref_window 2\n").c_str());

    const SearchRun got = search_in_child([&] { return com::find_ref_grid(cfg); });
    expect_returned(got.run);
    EXPECT_EQ(got.index, 1 * 4 + 1);
}

TEST(RefGridSearch, WindowOneMakesEveryPixelACell)
{
    // The six pixels of the pixel search: missing pixels stay out, and the
    // constant pixel 2 wins with deviation 0, at its own place (half width 0).
    TinyJob job(3, 2);
    add_stack(job, kSixPixels);
    const CFG cfg = lib::loadcfg(job.config("ref_method 2\nref_window 1\n").c_str());

    const SearchRun got = search_in_child([&] { return com::find_ref_grid(cfg); });
    expect_returned(got.run);
    EXPECT_EQ(got.index, 2);
    EXPECT_EQ(read_text(job.result("refpoint")), report(2, 0, 2, "30.000000", "100.020000"));
}

TEST(RefGridSearch, WindowBelowOneActsAsOne)
{
    for (const char* window : {"ref_window 0\n", "ref_window -4\n"}) {
        SCOPED_TRACE(window);
        TinyJob job(3, 2);
        add_stack(job, kSixPixels);
        const CFG cfg = lib::loadcfg(job.config(std::string("ref_method 2\n") + window).c_str());

        const SearchRun got = search_in_child([&] { return com::find_ref_grid(cfg); });
        expect_returned(got.run);
        EXPECT_EQ(got.index, 2);
    }
}

TEST(RefGridSearch, SingleInterferogramTakesFirstCellWithData)
{
    // Cell (0,0) holds no data, cell (0,1) one sample: deviation 0 wins.
    TinyJob job(4, 4);
    std::vector<float> raster(16, 0.0f);
    raster[0 * 4 + 3] = 7.0f;
    raster[3 * 4 + 0] = 9.0f;
    add_stack(job, {raster});
    const CFG cfg = lib::loadcfg(job.config("ref_method 2\nref_window 2\n").c_str());

    const SearchRun got = search_in_child([&] { return com::find_ref_grid(cfg); });
    expect_returned(got.run);
    EXPECT_EQ(got.index, 1 * 4 + 3);
}

TEST(RefGridSearch, PartialLastColumnCentreStaysAtWidth)
{
    // 10 columns in cells of 4: the third cell covers columns 8 and 9 and its
    // centre column is 10 = WIDTH, so the index is the first pixel of the
    // next row and the report says row 3, column 0.
    TinyJob job(10, 8);
    add_stack(job, cell_stack(10, 8, 4, 3, {{1, 1, 1, 1, 1, 1, 0, 0, 0}, {3, 3, 1.5f, 3, 3, 3, 0, 0, 0}}));
    const CFG cfg = lib::loadcfg(job.config("ref_method 2\nref_window 4\n").c_str());

    const SearchRun got = search_in_child([&] { return com::find_ref_grid(cfg); });
    expect_returned(got.run);
    EXPECT_EQ(got.index, 2 * 10 + 10);
    EXPECT_EQ(read_text(job.result("refpoint")), report(30, 3, 0, "29.970000", "100.000000"));
}

TEST(RefGridSearch, PartialLastRowCentreIsPulledBack)
{
    // 6 rows in cells of 4: the second cell row covers rows 4 and 5; its
    // centre row 6 becomes 5.
    TinyJob job(8, 6);
    add_stack(job, cell_stack(8, 6, 4, 3, {{1, 1, 0, 1, 1, 0}, {3, 3, 0, 1.5f, 3, 0}}));
    const CFG cfg = lib::loadcfg(job.config("ref_method 2\nref_window 4\n").c_str());

    const SearchRun got = search_in_child([&] { return com::find_ref_grid(cfg); });
    expect_returned(got.run);
    EXPECT_EQ(got.index, 5 * 8 + 2);
    EXPECT_EQ(read_text(job.result("refpoint")), report(42, 5, 2, "29.950000", "100.020000"));
}

TEST(RefGridSearch, FailsWhenNoCellQualifies)
{
    const FailureCase cases[] = {
        {"every cell missing in one interferogram", 4, 2,
         cell_stack(4, 2, 2, 3, {{1, 0, 0, 0, 0, 0}, {0, 2, 0, 0, 0, 0}})},
        {"no data at all", 4, 2, {std::vector<float>(8, 0.0f), std::vector<float>(8, kNaN)}},
        {"no interferogram", 4, 2, {}},
        {"no grid", -4, 2, {{}, {}}},
    };
    for (const FailureCase& c : cases) {
        SCOPED_TRACE(c.what);
        TinyJob job(c.width, c.length);
        add_stack(job, c.stack);
        const CFG cfg = lib::loadcfg(job.config("ref_method 2\nref_window 2\n").c_str());

        const SearchRun got = search_in_child([&] { return com::find_ref_grid(cfg); });
        expect_stopped(got.run);
        EXPECT_EQ(got.run.out, "");
        EXPECT_EQ(got.run.err, kNoStablePoint);
        EXPECT_FALSE(file_exists(job.result("refpoint")));
    }
}

// ---------------------------------------------------------------------------
// The reference stage.

// 4 x 3 grid holding 1..12 in the first interferogram and ten times that in
// the second.
void add_counting_pair(TinyJob& job)
{
    std::vector<float> first(12);
    std::vector<float> second(12);
    for (int i = 0; i < 12; ++i) {
        first[i] = static_cast<float>(i + 1);
        second[i] = static_cast<float>(10 * (i + 1));
    }
    add_stack(job, {first, second});
}

TEST(RefStep1, GivenPixelUsesItsWindowAndChangesNothing)
{
    struct Case {
        const char* settings;
        float first;
        const char* fields;
    };
    const Case cases[] = {
        {"ref_row 1\nref_col 2\n", 7.0f, "1 2 -9999 -9999"},
        {"ref_row 2\nref_col 0\n", 9.0f, "2 0 -9999 -9999"},
        {"ref_row 0\nref_col 3\n", 4.0f, "0 3 -9999 -9999"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.settings);
        TinyJob job(4, 3);
        add_counting_pair(job);
        const CFG cfg = lib::loadcfg(job.config(std::string("ref_method 0\nref_window 1\n") + c.settings).c_str());

        const StepRun got = step_in_child(cfg);
        expect_returned(got.run);
        ASSERT_EQ(got.values.size(), 1u);
        EXPECT_EQ(got.values[0], (std::vector<float>{c.first, 10 * c.first}));
        EXPECT_EQ(got.fields[0], c.fields);
        EXPECT_EQ(got.run.err.find("***"), std::string::npos) << "no search banner";
        EXPECT_FALSE(file_exists(job.result("refpoint")));
    }
}

TEST(RefStep1, GivenPixelOutsideTheGridStops)
{
    const char* const cases[] = {
        "ref_row 0\nref_col -1\n",  // negative column, no pixel otherwise
        "ref_row 1\nref_col -2\n",  // negative column
        "ref_row 1\nref_col 4\n",   // column = WIDTH
        "ref_row 3\nref_col 1\n",   // row = FILE_LENGTH
        "ref_row -1\nref_col 1\n",  // negative row
        "ref_row -1\nref_col 0\n",  // negative row, column 0
    };
    for (const char* settings : cases) {
        SCOPED_TRACE(settings);
        TinyJob job(4, 3);
        add_counting_pair(job);
        const CFG cfg = lib::loadcfg(job.config(std::string("ref_method 0\n") + settings).c_str());

        const StepRun got = step_in_child(cfg);
        expect_stopped(got.run);
        EXPECT_EQ(got.run.out, "");
        EXPECT_EQ(got.run.err, kOutOfCoverage);
    }
}

TEST(RefStep1, ArbitraryPixelIsWrittenBackAndReusedWithoutSearch)
{
    TinyJob job(3, 2);
    add_stack(job, kSixPixels);
    const CFG cfg = lib::loadcfg(job.config("ref_method 0\nref_window 1\n").c_str());

    // Between the calls the report is removed: the second call must take
    // the given pixel and not search (and so not write it) again.
    const std::string refpoint = job.result("refpoint");
    const StepRun got = step_in_child(cfg, 2, [&] { std::remove(refpoint.c_str()); });
    expect_returned(got.run);
    ASSERT_EQ(got.values.size(), 2u);
    const std::vector<float> at_pixel_4 = {1.0f, 2.0f, 3.0f};
    EXPECT_EQ(got.values[0], at_pixel_4);
    EXPECT_EQ(got.values[1], at_pixel_4);
    const std::string written = fields(1, 1, static_cast<float>(29.99), static_cast<float>(100.01));
    EXPECT_EQ(got.fields[0], written);
    EXPECT_EQ(got.fields[1], written);

    const std::string lines = ifg_name(0) + " refpoint value    1.000  0.000\n" + ifg_name(1) +
                              " refpoint value    2.000  0.000\n" + ifg_name(2) + " refpoint value    3.000  0.000\n";
    EXPECT_EQ(got.run.err, kArbitraryBanner + lines + "|" + lines + "|");
    EXPECT_FALSE(file_exists(refpoint));
}

TEST(RefStep1, StableWindowAtPartialColumnIsWrittenBackAsNextRow)
{
    // The clamp case: the chosen index 30 is row 3, column 0, and the values
    // are the 5 x 5 window there (ref_window 4): rows 1-5, columns 0-2, of
    // which rows 1-3 lie in cell (0,0) and rows 4-5 in cell (1,0).
    TinyJob job(10, 8);
    add_stack(job, cell_stack(10, 8, 4, 3, {{1, 1, 1, 1, 1, 1, 0, 0, 0}, {3, 3, 1.5f, 5, 3, 3, 0, 0, 0}}));
    const CFG cfg = lib::loadcfg(job.config("ref_method 2\nref_window 4\n").c_str());

    const StepRun got = step_in_child(cfg);
    expect_returned(got.run);
    ASSERT_EQ(got.values.size(), 1u);
    EXPECT_EQ(got.values[0], (std::vector<float>{1.0f, static_cast<float>(57.0 / 15.0)}));
    EXPECT_EQ(got.fields[0], fields(3, 0, static_cast<float>(29.97), 100.0f));
    EXPECT_EQ(got.run.err.rfind(kStableBanner, 0), 0u) << got.run.err;
    EXPECT_EQ(read_text(job.result("refpoint")), report(30, 3, 0, "29.970000", "100.000000"));
}

TEST(RefStep1, GlobalMeanLeavesTheRecordAndWritesNoReport)
{
    TinyJob job(4, 3);
    add_counting_pair(job);
    const CFG cfg = lib::loadcfg(job.config("ref_method 1\n").c_str());

    const StepRun got = step_in_child(cfg);
    expect_returned(got.run);
    ASSERT_EQ(got.values.size(), 1u);
    EXPECT_EQ(got.values[0], (std::vector<float>{6.5f, 65.0f}));
    EXPECT_EQ(got.fields[0], "0 0 -9999 -9999");
    EXPECT_EQ(got.run.err.rfind(kGlobalBanner, 0), 0u) << got.run.err;
    EXPECT_FALSE(file_exists(job.result("refpoint")));
}

TEST(RefStep1, UnknownMethodReturnsZerosQuietly)
{
    for (const char* method : {"ref_method 3\n", "ref_method -1\n", "ref_method 42\n"}) {
        SCOPED_TRACE(method);
        TinyJob job(4, 3);
        add_counting_pair(job);
        const CFG cfg = lib::loadcfg(job.config(method).c_str());

        const StepRun got = step_in_child(cfg);
        expect_returned(got.run);
        ASSERT_EQ(got.values.size(), 1u);
        EXPECT_EQ(got.values[0], (std::vector<float>{0.0f, 0.0f}));
        EXPECT_EQ(got.fields[0], "0 0 -9999 -9999");
        EXPECT_EQ(got.run.err, "|");
        EXPECT_FALSE(file_exists(job.result("refpoint")));
    }
}

TEST(RefStep1, DegenerateHeadersStopCleanly)
{
    struct Case {
        const char* what;
        int64_t width;
        int64_t length;
        const char* settings;
        std::string out;
        std::string err;
    };
    const std::string first = ifg_name(0);
    const Case cases[] = {
        {"zero width, least variance", 0, 3, "ref_method 0\n", "", std::string(kArbitraryBanner) + kNoStablePoint},
        {"zero width, stable window", 0, 3, "ref_method 2\n", "", std::string(kStableBanner) + kNoStablePoint},
        {"zero width, global mean", 0, 3, "ref_method 1\n",
         "Cannot find a valid reference value for " + first + "\n", kGlobalBanner},
        {"zero width, given pixel", 0, 3, "ref_row 1\nref_col 0\n", "", kOutOfCoverage},
        {"negative sizes, least variance", -3, -2, "ref_method 0\n", "",
         std::string(kArbitraryBanner) + kNoStablePoint},
        {"negative sizes, stable window", -3, -2, "ref_method 2\n", "", std::string(kStableBanner) + kNoStablePoint},
        {"negative sizes, given pixel", -3, -2, "ref_row 1\nref_col 1\n", "", kOutOfCoverage},
        {"huge grid, given pixel beyond the file", 2147483647, 2147483647, "ref_row 1000\nref_col 1000\n", "",
         "ERROR: no valid values around the reference point!\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TinyJob job(c.width, c.length);
        add_stack(job, {{1, 2, 3, 4}, {2, 3, 4, 5}});
        const CFG cfg = lib::loadcfg(job.config(c.settings).c_str());

        const StepRun got = step_in_child(cfg);
        expect_stopped(got.run);
        EXPECT_EQ(got.run.out, c.out);
        EXPECT_EQ(got.run.err, c.err);
    }
}

TEST(RefStep1, HugeGridRunsOutOfMemoryCleanly)
{
    TinyJob job(2147483647, 2147483647);
    add_stack(job, {{1, 2, 3, 4}, {2, 3, 4, 5}});
    const CFG cfg = lib::loadcfg(job.config("ref_method 0\n").c_str());

    const StepRun got = step_in_child(cfg);
    expect_stopped(got.run);
    EXPECT_EQ(got.run.err, std::string(kArbitraryBanner) + "Could not allocate memory!\n");
}

}  // namespace
