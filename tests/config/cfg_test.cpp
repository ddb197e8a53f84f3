// The configuration reader: defaults, the key-order rule, conversions, the
// reference pixel from latitude and longitude, and the fatal paths.
#include <gtest/gtest.h>

#include "app/job.h"
#include "support/errors.h"

#include <cmath>
#include <string>

#include "config/cfg.h"
#include "support/child.h"

namespace {

using namespace testing_support;

class ConfigFile : public ::testing::Test {
protected:
    TinyJob job{4, 3};
    void SetUp() override { job.add_ifg("geo_20200101_20200113.unw", std::vector<float>(12, 1.0f)); }
    CFG load(const std::string& extra) { return testing_support::must(lib::loadcfg(job.config(extra).c_str())); }
};

TEST_F(ConfigFile, DefaultsTheListAndConversionsThatFollowTheMemberType)
{
    CFG cfg = load("");
    EXPECT_EQ(cfg.maxcap, 30000000);
    EXPECT_FLOAT_EQ(cfg.minimum_temporal_ifg_ratio, 0.5f);
    EXPECT_TRUE(cfg.ref_lat == -9999.0f && cfg.ref_lon == -9999.0f);
    EXPECT_EQ(cfg.ifg_names, (std::vector<std::string>{"geo_20200101_20200113.unw"}));
    EXPECT_TRUE(cfg.ifg_date1[0] == 20200101 && cfg.ifg_date2[0] == 20200113);

    // A line of garbage bytes with an over-long third field is harmless.
    cfg = load(std::string("\x01\xff\xfe binary \0 junk", 18) + std::string(3000, 'z') + "\n"
               "maxcap 100 # pixels per batch\n"
               "ref_window 2.7\n"
               "eds_block_size 1e1\n"
               "spatial_filter_method 2.7\n"
               "temporal_filter_method -3.9\n"
               "if_stacking 1e1\n"
               "temporal_strength 0.25\n"
               "minnum 4294967396\n"
               "masterdate 20200101\r\n"
               "wavelength 0.0554658\r\n"
               "baselines /tmp/b.txt\r\n"
               "IF_STACKING 0\n"
               "\tref_method 1\n"
               "max_parallel_threads 3\n"
               "max_parallel_threads 2\n"
               "if_inverse_time_series 0\ntemporal_constraint 7\n");  // checked only when the inversion runs
    EXPECT_EQ(cfg.maxcap, 100);
    EXPECT_EQ(cfg.ref_window, 2);
    EXPECT_EQ(cfg.eds_block_size, 10);
    EXPECT_EQ(cfg.spatial_filter_method, 2);
    EXPECT_EQ(cfg.temporal_filter_method, -3);
    EXPECT_EQ(cfg.if_stacking, 1);  // integer prefix of 1e1; the upper-case key is no key
    EXPECT_FLOAT_EQ(cfg.temporal_strength, 0.25f);
    EXPECT_EQ(cfg.minnum, 100);  // read as 32 bits, then widened
    EXPECT_EQ(cfg.masterdate, 20200101);
    EXPECT_EQ(cfg.wavelength, static_cast<float>(0.0554658));
    EXPECT_STREQ(cfg.baselines, "/tmp/b.txt\r");  // a path keeps the carriage return
    EXPECT_EQ(cfg.ref_method, 1);  // the field splitter skips the leading tab
    EXPECT_EQ(cfg.max_parallel_threads, 2);  // a later line wins
    EXPECT_EQ(cfg.temporal_constraint, 7);
}

TEST_F(ConfigFile, AValueThatIsALaterKeyNameSetsThatKeyTooButNeverAnEarlierOne)
{
    const CFG cfg = load("baselines if_est_hgt\nmasterdate ref_lat\n");
    EXPECT_STREQ(cfg.baselines, "if_est_hgt");
    EXPECT_EQ(cfg.if_est_hgt, 0);  // "if_est_hgt" read as an integer
    EXPECT_EQ(cfg.masterdate, 0);
    // ref_lat took the value "ref_lat", which reads as 0: in range, so the
    // reference pixel is placed from latitude 0 and the default longitude
    // (-9999, out of range) leaves it alone.
    EXPECT_EQ(cfg.ref_lat, 0.0f);
    EXPECT_EQ(cfg.ref_row, 0);
    // headerfile comes after resultfolder in the key order, so a headerfile
    // line whose value is "resultfolder" leaves the result folder alone.
    TempDir other;
    write_text(other / "hdr", "WIDTH 4\nFILE_LENGTH 3\n");
    const CFG chained = load("headerfile " + (other / "hdr") + "\n");
    EXPECT_STREQ(chained.headerfile, (other / "hdr").c_str());
    EXPECT_STREQ(chained.resultfolder, job.path("result").c_str());
}

TEST_F(ConfigFile, TheGeographicReferencePointWinsOverTheGivenPixel)
{
    // Half-degree steps make the halves exact: rounding goes away from zero.
    // A zero step gives no finite pixel: the reference lands off the grid.
    write_text(job.path("half.txt"), "WIDTH 4\nFILE_LENGTH 3\nX_FIRST 100\nY_FIRST 30\nX_STEP 0.5\nY_STEP -0.5\n");
    write_text(job.path("flat.txt"), "WIDTH 4\nFILE_LENGTH 3\n");
    const struct {
        const char* header;
        std::string lat_lon;
        int64_t row, col;
    } cases[] = {
        {"half.txt", "ref_lat 31.25\nref_lon 101.25\n", -3, 3},
        {"half.txt", "ref_lat 29.4\nref_lon 98.9\n", 1, -2},
        {"half.txt", "ref_lat\nref_lon 100.5\n", 60, 1},  // an empty latitude reads 0, which is in range
        {"half.txt", "ref_lat 91\nref_lon 100.5\n", 7, 9},
        {"half.txt", "ref_lat -90\nref_lon 180\n", 240, 160},  // bounds included
        {"flat.txt", "ref_lat 10\nref_lon 10\n", -1, -1},
    };
    for (const auto& c : cases) {
        const CFG cfg = load("headerfile " + job.path(c.header) + "\nref_row 7\nref_col 9\n" + c.lat_lon);
        EXPECT_TRUE(cfg.ref_row == c.row && cfg.ref_col == c.col) << c.lat_lon << cfg.ref_row << " " << cfg.ref_col;
    }
}

TEST_F(ConfigFile, FatalErrorsEndTheRunWithStatusZeroAndOneMessage)
{
    const struct {
        std::string extra;
        std::string message;
        bool on_stdout;
    } cases[] = {
        {"datafolder /nonexistent/ifg\n", "datafolder /nonexistent/ifg not exist\n", true},
        {"resultfolder /nonexistent/out\n", "resultfolder /nonexistent/out not exist\n", true},
        {"headerfile /nonexistent/h.txt\n", "/nonexistent/h.txt not found\nfile not exit\n", true},
        {"filelist /nonexistent/l.txt\n", "/nonexistent/l.txt not found\nfile not exit\n", true},
        {"datafolder\n", "datafolder   not exist\n", true},  // a path from a key without value
        {"temporal_constraint 3\n",
         "temporal_constraint 3 is not supported: use 0 (none), 1 (linear) or 2 (logarithmic)\n", false},
        {"if_est_hgt 2\n", "if_est_hgt 2 is not supported: use 0 or 1\n", false},
        {"", "/nonexistent/config.txt not found\nfile not exit\n", true},  // no configuration file
    };
    for (const auto& c : cases) {
        const std::string path = c.extra.empty() ? "/nonexistent/config.txt" : job.config(c.extra);
        EXPECT_EQ(testing_support::reported(lib::loadcfg(path.c_str())), (c.on_stdout ? "out: " : "err: ") + c.message)
            << c.extra;
    }
}

}  // namespace
