// Calendar dates to Modified Julian Days and back, the ordered list of
// acquisition dates, and the design order of each interferogram.
//
// The day numbers are checked against the standard library's Gregorian day
// count, so a slip in the truncated products shows up on the day it happens.
// Calls meant to end the run, and the sweep over every day, are made in a
// child process.
#include "catalogue/dates.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "config/cfg.h"
#include "support/child.h"

namespace {

using testing_support::run_in_child;

// Every admitted day against the standard library's day count, and mjd2date
// taking it back at any hour within 36524.5 days of J2000. The rule's fixed
// Gregorian correction puts January-February 1900 one day early and
// March-December 2100 one day late. The child reports the first day that
// misses. Digits are taken by position: characters 1-4, 5-6, 7-8.
TEST(Date2Mjd, EveryDayAgainstADayCountAndBack)
{
    EXPECT_EQ(lib::date2mjd(200001011), 51544);
    EXPECT_EQ(lib::date2mjd(1900101), 15293);
    const auto o = run_in_child([] {
        using namespace std::chrono;
        for (sys_days day = 1900y / 1 / 1; day <= 2100y / 12 / 31; day += days{1}) {
            const year_month_day ymd{day};
            const int64_t date = int(ymd.year()) * 10000 + unsigned(ymd.month()) * 100 + unsigned(ymd.day());
            const double mjd = day.time_since_epoch().count() + 40587 - (date < 19000301) + (date > 21000228);
            bool ok = lib::date2mjd(date) == mjd;
            for (double hour : {0.0, 0.5, 0.999})
                if (mjd + hour >= 15020 && mjd + hour <= 88069) ok = ok && lib::mjd2date(mjd + hour) == date;
            if (!ok) return (void)std::printf("%" PRId64 "\n", date);
        }
    });
    EXPECT_EQ(o.status, testing_support::kReturned);
    EXPECT_EQ(o.out, "");
}

TEST(DateOrder, DistinctDatesOfTheNamesAscendingAndThePlacesOfEachInterferogram)
{
    CFG cfg;
    cfg.ifg_names = {"geo_20170314_20170525.unw", "geo_20170102_20170314.unw", "geo_20170525_20170102.unw"};
    cfg.ifg_date1 = {20300101, 20300101, 20300101};  // the names, not these lists, give the dates
    cfg.ifg_date2 = {20300113, 20300113, 20300113};
    std::vector<std::tuple<int64_t, int64_t, double>> got;
    for (const DATEORDER& e : com::getdateorder(cfg)) got.emplace_back(e.date, e.order, e.mjd);
    EXPECT_EQ(got, (decltype(got){{20170102, 0, 57755}, {20170314, 1, 57826}, {20170525, 2, 57898}}));

    // Each interferogram gets the places of its two dates; a search gives
    // the stored order of the first match, or -1.
    const std::vector<DATEORDER> list = {{20170102, 10, 0}, {20170314, 11, 0}, {20170314, 12, 0}, {20170525, 13, 0}};
    const std::pair<int64_t, int> cases[] = {{20170102, 10}, {20170314, 11}, {20170525, 13}, {20170401, -1}};
    for (const auto& [date, expected] : cases) EXPECT_EQ(com::findorder(list, date), expected) << date;
    EXPECT_EQ(com::findorder({}, 20170102), -1);
    cfg.ifg_names = {"a", "b", "c"};
    cfg.ifg_date1 = {20170314, 20170102, 20170102};
    cfg.ifg_date2 = {20170525, 20170314, 20180101};
    cfg.ifg_date1_index = {9, 9, 9, 9, 9};  // stale lists are replaced, not extended
    cfg.ifg_date2_index = {9};
    com::readdesignmatrixorder(&cfg, {{20170102, 0, 0}, {20170314, 1, 0}, {20170525, 2, 0}});
    EXPECT_EQ(cfg.ifg_date1_index, (std::vector<int>{1, 0, 0}));
    EXPECT_EQ(cfg.ifg_date2_index, (std::vector<int>{2, 1, -1}));
}

// Refused input ends the run with status 0: the date errors on standard
// output, the filelist error on standard error.
TEST(DateStops, MessageAndStream)
{
    const std::string year = "ERROR: Year out of range\n", month = "ERROR: Month out of range\n",
                      day = "ERROR: Day out of range\n", j2000 = "ERROR: j2000 second out of range\n",
                      filelist = "ERROR: filelist format error!\n";
    const auto design = [](size_t names, size_t first, size_t second) {
        CFG cfg;
        cfg.ifg_names.assign(names, "a_20170102_20170314");
        cfg.ifg_date1.assign(first, 20170102);
        cfg.ifg_date2.assign(second, 20170314);
        com::readdesignmatrixorder(&cfg, {{20170102, 0, 0}, {20170314, 1, 0}});
    };
    const struct {
        std::function<void()> body;
        std::string message;
        bool on_stdout;
    } cases[] = {
        {[] { lib::date2mjd(19000229); }, day, true},  // 1900 is not a leap year
        {[] { lib::date2mjd(20180229); }, day, true},
        {[] { lib::date2mjd(20000431); }, day, true},
        {[] { lib::date2mjd(20000100); }, day, true},
        {[] { lib::date2mjd(20001301); }, month, true},
        {[] { lib::date2mjd(20000001); }, month, true},
        {[] { lib::date2mjd(20001332); }, month, true},  // month is checked before day
        {[] { lib::date2mjd(21010101); }, year, true},
        {[] { lib::date2mjd(18991231); }, year, true},
        {[] { lib::date2mjd(21011301); }, year, true},  // year is checked before month
        {[] { lib::date2mjd(0); }, year, true},
        {[] { lib::date2mjd(-20000101); }, year, true},
        {[] { lib::date2mjd(20000101 + (int64_t(1) << 32)); }, year, true},  // not a wrapped date
        // A name without dates gives the scan's 0, which is kept as a date.
        {[] { CFG cfg; cfg.ifg_names = {"x_20190101_20190113", "no_dates"}; com::getdateorder(cfg); }, year, true},
        {[] { lib::mjd2date(15019); }, j2000, true},
        {[] { lib::mjd2date(88069.001); }, j2000, true},
        {[] { lib::mjd2date(std::nan("")); }, j2000, true},
        {[&] { design(2, 1, 2); }, filelist, false},
        {[&] { design(2, 2, 1); }, filelist, false},
        {[&] { design(1, 2, 2); }, filelist, false},
    };
    for (size_t k = 0; k < std::size(cases); ++k) {
        SCOPED_TRACE(testing::Message() << "case " << k);
        const testing_support::Outcome o = run_in_child(cases[k].body);
        EXPECT_TRUE(o.exited && o.status == 0) << "signal " << o.signal;
        EXPECT_EQ(o.out, cases[k].on_stdout ? cases[k].message : "");
        EXPECT_EQ(o.err, cases[k].on_stdout ? "" : cases[k].message);
    }
}

}  // namespace
