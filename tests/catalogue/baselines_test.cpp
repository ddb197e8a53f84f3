// Perpendicular baselines: which line of the file serves which
// interferogram, how the value is read, and when the run stops for a
// baseline that is missing.
//
// Every row gives "date1-date2 bperp" for each interferogram, or the error
// reported with its stream, so a row shows either what it got or why not.
#include "catalogue/baselines.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "config/cfg.h"
#include "support/child.h"
#include "support/errors.h"

namespace {

TEST(Baselines, LinesValuesAndStops)
{
    const testing_support::TempDir dir;
    const std::string path = dir / "bperp.txt";
    const std::vector<std::string> one = {"geo_20170102_20170314.unw"};
    const std::string got = "20170102-20170314 ";
    // Random bytes but NUL, and a line longer than the line buffer, are
    // passed over on the way to the good line after them.
    std::string garbage(20000, ' ');
    std::mt19937 random(20170102);
    for (char& c : garbage) c = char(random() % 255 + 1);
    garbage = std::string(5000, 'x') + " 20170102_20170314 99\n" + garbage + "\n20170102_20170314 -1.5\n";
    enum Stream { kServed, kOut, kErr };
    const struct {
        const char* file;  // null: no file
        std::vector<std::string> names;
        std::string expected;
        Stream stream;
    } cases[] = {
        {"geo_20170102_20170314.unw -35.2\n", one, got + "-35.2\n", kServed},
        {"20170102_20170314\t-35.2\n", one, got + "-35.2\n", kServed},
        {"\n  \t20170102_20170314   -35.2  7 8\n", one, got + "-35.2\n", kServed},
        {"20170102_20170314 -35.2\r\n", one, got + "-35.2\n", kServed},
        {"20170102_20170314\n", one, got + "0\n", kServed},  // missing value reads as 0
        {"20170102_20170314 5\n20170102_20170314 6\n", one, got + "5\n", kServed},  // first line wins
        // The missing-value threshold is taken on the value as read in single
        // precision: -99999.001 rounds to -99999 and passes.
        {"20170102_20170314 -99999\n", one, got + "-99999\n", kServed},
        {"20170102_20170314 -99999.001\n", one, got + "-99999\n", kServed},
        {"20170102_20170314 -99999.01\n", one, "baseline for 20170102-20170314 not found\n", kErr},
        {"20170102_20170314 -100000\n", one, "baseline for 20170102-20170314 not found\n", kErr},
        {"20170102_20170314 nan\n", one, "baseline for 20170102-20170314 not found\n", kErr},
        {"20170102_20170314 inf\n", one, "baseline for 20170102-20170314 not found\n", kErr},
        {"20170102_20170314 1e39\n", one, "baseline for 20170102-20170314 not found\n", kErr},  // beyond float
        {"20170102_20170314 3e38\n", one, got + "3e+38\n", kServed},
        {"20170314_20170102 -35.2\n", one, "baseline for 20170102-20170314 not found\n", kErr},  // reversed
        {"20170102 20170314 -35.2\n", one, "baseline for 20170102-20170314 not found\n", kErr},  // two fields
        {"", {"b_20170525_20170314", "a_20170102_20170314"}, "baseline for 20170525-20170314 not found\n", kErr},
        {"20170102_20170314 1\n20170525_20170606 -200000\n", {"a_20170102_20170314", "b_20170314_20170525", "c_20170525_20170606"},
         "baseline for 20170314-20170525 not found\n", kErr},
        {nullptr, one, path + " not found\nfile not exit\n", kOut},
        // The result follows the list, with the dates of each name.
        {"20170314_20170525 12.5\ngeo_20170102_20170314.unw -35.2\n20170102_20170525 -7.25\n",
         {"b_20170102_20170525", "a_20170102_20170314", "c_20170314_20170525", "d_20170102_20170314"},
         "20170102-20170525 -7.25\n20170102-20170314 -35.2\n20170314-20170525 12.5\n20170102-20170314 -35.2\n", kServed},
        {"20170102_20170314 1\n", {}, "", kServed},  // an empty list still gives a block to free
        {garbage.c_str(), one, got + "-1.5\n", kServed},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        std::remove(path.c_str());
        if (c.file) testing_support::write_text(path, c.file);
        CFG cfg;
        std::snprintf(cfg.baselines, sizeof cfg.baselines, "%s", path.c_str());
        cfg.ifg_names = c.names;
        const lib::Result<BASELINE*> served = com::get_baselines(cfg);
        if (!served.ok()) {
            EXPECT_EQ(c.stream, served.error().stream == lib::Stream::out ? kOut : kErr);
            EXPECT_EQ(served.error().message, c.expected);
            continue;
        }
        BASELINE* b = *served;
        ASSERT_NE(b, nullptr);
        std::string text;
        char line[64];
        for (size_t i = 0; i < cfg.ifg_names.size(); ++i) {
            std::snprintf(line, sizeof line, "%d-%d %g\n", b[i].date1, b[i].date2, b[i].bperp);
            text += line;
        }
        std::free(b);
        EXPECT_EQ(c.stream, kServed);
        EXPECT_EQ(text, c.expected);
    }
}

}  // namespace
