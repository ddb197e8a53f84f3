// Perpendicular baselines: which line of the file serves which
// interferogram, how the value is read, and when the run stops for a
// baseline that is missing.
//
// Every lookup of the table runs in a child process, so a row may either
// print the baseline it got or stop the run; both are compared with the
// expectation as the user would see them.
#include "catalogue/baselines.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "config/cfg.h"
#include "support/child.h"

namespace {

using testing_support::kReturned;
using testing_support::Outcome;
using testing_support::run_in_child;
using testing_support::TempDir;
using testing_support::write_text;

// A run record whose baselines file holds `text`.
CFG job(const TempDir& dir, const std::string& text, const std::vector<std::string>& names)
{
    write_text(dir / "bperp.txt", text);
    CFG cfg;
    std::snprintf(cfg.baselines, sizeof cfg.baselines, "%s", (dir / "bperp.txt").c_str());
    cfg.ifg_names = names;
    return cfg;
}

std::string shown(float bperp)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.9g\n", bperp);
    return text;
}

// Reads the baselines in a child that prints every bperp, one a line.
Outcome look_up(const CFG& cfg)
{
    return run_in_child([&] {
        BASELINE* b = com::get_baselines(cfg);
        for (size_t i = 0; i < cfg.ifg_names.size(); ++i) std::fputs(shown(b[i].bperp).c_str(), stdout);
        std::free(b);
    });
}

void expect_not_found(const Outcome& o, const char* pair)
{
    EXPECT_TRUE(o.exited) << "signal " << o.signal;
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.err, std::string("baseline for ") + pair + " not found\n");
    EXPECT_EQ(o.out, "");
}

void expect_served(const Outcome& o, const std::string& printed)
{
    EXPECT_TRUE(o.exited) << "signal " << o.signal;
    EXPECT_EQ(o.status, kReturned);
    EXPECT_EQ(o.out, printed);
    EXPECT_EQ(o.err, "");
}

// ---------------------------------------------------------------- lines and values

TEST(Baselines, WhichLineServesTheInterferogramAndWhatItReads)
{
    struct Case {
        const char* file;
        float bperp;  // NAN: the run stops with the pair's message
    };
    // Every row serves the interferogram geo_20170102_20170314.unw.
    const Case cases[] = {
        {"geo_20170102_20170314.unw -35.2\n", -35.2f},
        {"other_20170102_20170314_filt.tif -35.2\n", -35.2f},  // any text with the same dates
        {"20170102_20170314\t-35.2\n", -35.2f},                // tab between fields
        {"  \t20170102_20170314   -35.2  7 8\n", -35.2f},      // leading blanks, extra fields
        {"20170102_20170314 -35.2\r\n", -35.2f},               // CRLF line
        {"20170102_20170314 -35.2", -35.2f},                   // no final line feed
        {"20170102_20170314 1.5e2m\n", 150.0f},                // numeric prefix
        {"20170102_20170314\n", 0.0f},                         // missing value reads as 0
        {"20170102_20170314 abc\n", 0.0f},
        {"20170102_20170314 0.1\n", 0.1f},                     // rounded to single precision
        {"20170102_20170314 5\n20170102_20170314 6\n", 5.0f},  // first line wins
        {"20170314_20170102 -35.2\n", NAN},                    // reversed pair
        {"20170314_20170102 1\n20170102_20170314 2\n", 2.0f},
        {"20170102 20170314 -35.2\n", NAN},                    // dates must share field 1
        {"20170102_20170315 -35.2\n", NAN},
        {"", NAN},                                             // empty file
        {"\n\n20170102_20170314 3\n", 3.0f},                   // blank lines are passed over
        // The missing-value threshold, taken on the value as read in single
        // precision: -99999.001 rounds to -99999 and passes.
        {"20170102_20170314 -99999\n", -99999.0f},
        {"20170102_20170314 -99999.001\n", -99999.0f},
        {"20170102_20170314 -99999.01\n", NAN},
        {"20170102_20170314 -100000\n", NAN},
        {"20170102_20170314 -999999\n", NAN},
        {"20170102_20170314 -inf\n", NAN},
        {"20170102_20170314 nan\n", NAN},                     // not a number: no baseline either
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        TempDir dir;
        const Outcome o = look_up(job(dir, c.file, {"geo_20170102_20170314.unw"}));
        if (std::isnan(c.bperp))
            expect_not_found(o, "20170102-20170314");
        else
            expect_served(o, shown(c.bperp));
    }
}

TEST(Baselines, ResultFollowsTheListOrderWithTheNamesDates)
{
    TempDir dir;
    const CFG cfg = job(dir,
                        "20170314_20170525 12.5\n"
                        "geo_20170102_20170314.unw -35.2\n"
                        "20170102_20170525 -7.25\n",
                        {"b_20170102_20170525", "a_20170102_20170314", "c_20170314_20170525", "d_20170102_20170314"});
    BASELINE* b = com::get_baselines(cfg);
    ASSERT_NE(b, nullptr);
    const BASELINE want[] = {{20170102, 20170525, -7.25f},
                             {20170102, 20170314, -35.2f},
                             {20170314, 20170525, 12.5f},
                             {20170102, 20170314, -35.2f}};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(b[i].date1, want[i].date1) << i;
        EXPECT_EQ(b[i].date2, want[i].date2) << i;
        EXPECT_EQ(b[i].bperp, want[i].bperp) << i;
    }
    std::free(b);
}

// ---------------------------------------------------------------- stopping the run

TEST(Baselines, StopsAtTheFirstInterferogramWithoutABaseline)
{
    TempDir dir;
    const CFG cfg = job(dir, "20170102_20170314 1\n20170525_20170606 -200000\n",
                        {"a_20170102_20170314", "b_20170314_20170525", "c_20170525_20170606"});
    expect_not_found(look_up(cfg), "20170314-20170525");
}

TEST(Baselines, EmptyFileStopsAtTheFirstInterferogram)
{
    TempDir dir;
    expect_not_found(look_up(job(dir, "", {"a_20170102_20170314", "b_20170314_20170525"})), "20170102-20170314");
}

TEST(Baselines, MissingFileStopsTheRunOnStandardOutput)
{
    TempDir dir;
    CFG cfg;
    const std::string path = dir / "no_such_file";
    std::snprintf(cfg.baselines, sizeof cfg.baselines, "%s", path.c_str());
    cfg.ifg_names = {"a_20170102_20170314"};
    const Outcome o = look_up(cfg);
    EXPECT_TRUE(o.exited);
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.out, path + " not found\nfile not exit\n");
    EXPECT_EQ(o.err, "");
}

// ---------------------------------------------------------------- empty lists and hostile files

TEST(Baselines, EmptyListGivesABlockToFree)
{
    for (const char* text : {"", "20170102_20170314 1\n"}) {
        TempDir dir;
        BASELINE* b = com::get_baselines(job(dir, text, {}));
        EXPECT_NE(b, nullptr);
        std::free(b);
    }
}

TEST(Baselines, LongLinesAndLongFieldsAreReadInPieces)
{
    // A 5000-character line is read as several lines; a first field past
    // 199 characters is cut, losing the dates written after the cut.
    const std::string filler(5000, 'x');
    const std::string long_name = std::string(300, 'y') + "_20170314_20170525";
    TempDir dir;
    const CFG cfg = job(dir,
                        filler + " 20170102_20170314 99\n" + long_name + " 4\n" + "20170102_20170314 -1.5\n",
                        {"a_20170102_20170314"});
    expect_served(look_up(cfg), shown(-1.5f));

    TempDir dir2;
    expect_not_found(look_up(job(dir2, long_name + " 4\n", {"a_20170314_20170525"})), "20170314-20170525");
}

TEST(Baselines, BinaryGarbageNeverCrashes)
{
    std::mt19937 random(20170102);
    for (int round = 0; round < 8; ++round) {
        std::string garbage(20000, '\0');
        for (char& c : garbage) c = char(random() % 256);
        // Without NUL bytes the reading reaches the good line at the end;
        // with them it may stop early, which only costs the baseline.
        const bool clean = round % 2 == 0;
        if (clean)
            for (char& c : garbage)
                if (c == '\0') c = '1';
        TempDir dir;
        const Outcome o = look_up(job(dir, garbage + "\n20170102_20170314 2.5\n", {"a_20170102_20170314"}));
        SCOPED_TRACE(round);
        EXPECT_TRUE(o.exited) << "signal " << o.signal;
        if (clean || o.status == kReturned)
            expect_served(o, shown(2.5f));
        else
            expect_not_found(o, "20170102-20170314");
    }
}

}  // namespace
