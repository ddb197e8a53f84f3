// The configuration reader: defaults, the key-order rule, conversions, the
// reference pixel from latitude and longitude, and the fatal paths.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "config/cfg.h"
#include "support/child.h"
#include "support/tiny_job.h"

namespace {

using testing_support::run_in_child;
using testing_support::TinyJob;

class ConfigFile : public ::testing::Test {
protected:
    TinyJob job{4, 3};
    void SetUp() override { job.add_ifg("geo_20200101_20200113.unw", std::vector<float>(12, 1.0f)); }
    CFG load(const std::string& extra) { return lib::loadcfg(job.config(extra).c_str()); }
};

TEST_F(ConfigFile, UnsetKeysKeepTheirDefaultsAndTheListIsRead)
{
    const CFG cfg = load("");
    EXPECT_EQ(cfg.maxcap, 30000000);
    EXPECT_FLOAT_EQ(cfg.minimum_temporal_ifg_ratio, 0.5f);
    EXPECT_EQ(cfg.ref_lat, -9999.0f);
    EXPECT_EQ(cfg.ref_lon, -9999.0f);
    ASSERT_EQ(cfg.ifg_names.size(), 1u);
    EXPECT_EQ(cfg.ifg_date1[0], 20200101);
    EXPECT_EQ(cfg.ifg_date2[0], 20200113);
}

TEST_F(ConfigFile, ConversionsFollowTheMemberType)
{
    const CFG cfg = load(
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
        "max_parallel_threads 2\n");
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
}

TEST_F(ConfigFile, AValueThatIsALaterKeyNameSetsThatKeyToo)
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
}

TEST_F(ConfigFile, AnEarlierKeyIsNotReachedByTheChain)
{
    // headerfile comes after resultfolder in the key order, so a headerfile
    // line whose value is "resultfolder" leaves the result folder alone.
    testing_support::TempDir other;
    testing_support::write_text(other / "hdr", "WIDTH 4\nFILE_LENGTH 3\n");
    const CFG cfg = load("headerfile " + (other / "hdr") + "\n");
    EXPECT_STREQ(cfg.headerfile, (other / "hdr").c_str());
    EXPECT_STREQ(cfg.resultfolder, job.path("result").c_str());
}

TEST_F(ConfigFile, TheGeographicReferencePointWinsOverTheGivenPixel)
{
    // Half-degree steps make the halves exact: rounding goes away from zero.
    testing_support::write_text(job.path("half.txt"),
                                "WIDTH 4\nFILE_LENGTH 3\nX_FIRST 100\nY_FIRST 30\nX_STEP 0.5\nY_STEP -0.5\n");
    const std::string header = "headerfile " + job.path("half.txt") + "\n";
    CFG cfg = load(header + "ref_row 7\nref_col 9\nref_lat 31.25\nref_lon 101.25\n");
    EXPECT_EQ(cfg.ref_row, -3);
    EXPECT_EQ(cfg.ref_col, 3);
    cfg = load(header + "ref_row 7\nref_col 9\nref_lat 29.4\nref_lon 98.9\n");
    EXPECT_EQ(cfg.ref_row, 1);
    EXPECT_EQ(cfg.ref_col, -2);
    cfg = load(header + "ref_row 7\nref_col 9\nref_lat\nref_lon 100.5\n");
    EXPECT_EQ(cfg.ref_row, 60);  // an empty latitude reads 0, which is in range
    EXPECT_EQ(cfg.ref_col, 1);
    cfg = load(header + "ref_row 7\nref_col 9\nref_lat 91\nref_lon 100.5\n");
    EXPECT_EQ(cfg.ref_row, 7);
    EXPECT_EQ(cfg.ref_col, 9);
    cfg = load(header + "ref_row 7\nref_col 9\nref_lat -90\nref_lon 180\n");  // bounds included
    EXPECT_EQ(cfg.ref_row, 240);
    EXPECT_EQ(cfg.ref_col, 160);
    // A zero step gives no finite pixel: the reference lands off the grid.
    testing_support::write_text(job.path("flat.txt"), "WIDTH 4\nFILE_LENGTH 3\n");
    cfg = load("headerfile " + job.path("flat.txt") + "\nref_lat 10\nref_lon 10\n");
    EXPECT_EQ(cfg.ref_row, -1);
    EXPECT_EQ(cfg.ref_col, -1);
}

TEST_F(ConfigFile, LongLinesAndGarbageAreHarmless)
{
    const std::string garbage = std::string("\x01\xff\xfe binary \0 junk", 18) + std::string(3000, 'z') + "\n" +
                                "maxcap " + std::string(500, '9') + "\n";
    const CFG cfg = load(garbage + "if_stacking 1\n");
    EXPECT_EQ(cfg.if_stacking, 1);
}

struct FatalCase {
    const char* what;
    std::string extra;
    std::string message;
    bool on_stdout;
};

TEST_F(ConfigFile, FatalErrorsEndTheRunWithStatusZeroAndOneMessage)
{
    const FatalCase cases[] = {
        {"missing data folder", "datafolder /nonexistent/ifg\n", "datafolder /nonexistent/ifg not exist\n", true},
        {"missing result folder", "resultfolder /nonexistent/out\n", "resultfolder /nonexistent/out not exist\n",
         true},
        {"missing header", "headerfile /nonexistent/h.txt\n", "/nonexistent/h.txt not found\nfile not exit\n", true},
        {"missing list", "filelist /nonexistent/l.txt\n", "/nonexistent/l.txt not found\nfile not exit\n", true},
        {"path from a key without value", "datafolder\n", "datafolder   not exist\n", true},
        {"unknown temporal model", "temporal_constraint 3\n",
         "temporal_constraint 3 is not supported: use 0 (none), 1 (linear) or 2 (logarithmic)\n", false},
        {"DEM-error switch out of range", "if_est_hgt 2\n", "if_est_hgt 2 is not supported: use 0 or 1\n", false},
    };
    for (const auto& c : cases) {
        const std::string path = job.config(c.extra);
        const auto outcome = run_in_child([&] { lib::loadcfg(path.c_str()); });
        EXPECT_TRUE(outcome.exited) << c.what;
        EXPECT_EQ(outcome.status, 0) << c.what;
        EXPECT_EQ(c.on_stdout ? outcome.out : outcome.err, c.message) << c.what;
        EXPECT_EQ(c.on_stdout ? outcome.err : outcome.out, "") << c.what;
    }
}

TEST_F(ConfigFile, ModelSettingsAreOnlyCheckedWhenTheInversionRuns)
{
    const CFG cfg = load("if_inverse_time_series 0\ntemporal_constraint 7\n");
    EXPECT_EQ(cfg.temporal_constraint, 7);
}

TEST(ConfigFileMissing, ReportsOnStandardOutput)
{
    const auto outcome = run_in_child([] { lib::loadcfg("/nonexistent/config.txt"); });
    EXPECT_TRUE(outcome.exited);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "/nonexistent/config.txt not found\nfile not exit\n");
}

}  // namespace
