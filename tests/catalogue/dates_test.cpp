// Calendar dates to Modified Julian Days and back, the ordered list of
// acquisition dates, and the design order of each interferogram.
//
// The day numbers are checked against the standard library's Gregorian day
// count, so a slip in the truncated products shows up on the day it happens.
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
#include "support/errors.h"

namespace {

using testing_support::must;
using testing_support::reported;

// Every admitted day against the standard library's day count, and mjd2date
// taking it back at any hour within 36524.5 days of J2000. The rule's fixed
// Gregorian correction puts January-February 1900 one day early and
// March-December 2100 one day late. The first day that misses is reported.
// Digits are taken by position: characters 1-4, 5-6, 7-8.
TEST(Date2Mjd, EveryDayAgainstADayCountAndBack)
{
    EXPECT_EQ(must(lib::date2mjd(200001011)), 51544);
    EXPECT_EQ(must(lib::date2mjd(1900101)), 15293);
    using namespace std::chrono;
    for (sys_days day = 1900y / 1 / 1; day <= 2100y / 12 / 31; day += days{1}) {
        const year_month_day ymd{day};
        const int64_t date = int(ymd.year()) * 10000 + unsigned(ymd.month()) * 100 + unsigned(ymd.day());
        const double mjd = day.time_since_epoch().count() + 40587 - (date < 19000301) + (date > 21000228);
        const lib::Result<double> got = lib::date2mjd(date);
        bool ok = got.ok() && *got == mjd;
        for (double hour : {0.0, 0.5, 0.999}) {
            if (!(mjd + hour >= 15020 && mjd + hour <= 88069)) continue;
            const lib::Result<int64_t> back = lib::mjd2date(mjd + hour);
            ok = ok && back.ok() && *back == date;
        }
        if (!ok) {
            ADD_FAILURE() << date;
            return;
        }
    }
}

TEST(DateOrder, DistinctDatesOfTheNamesAscendingAndThePlacesOfEachInterferogram)
{
    CFG cfg;
    cfg.ifg_names = {"geo_20170314_20170525.unw", "geo_20170102_20170314.unw", "geo_20170525_20170102.unw"};
    cfg.ifg_date1 = {20300101, 20300101, 20300101};  // the names, not these lists, give the dates
    cfg.ifg_date2 = {20300113, 20300113, 20300113};
    std::vector<std::tuple<int64_t, int64_t, double>> got;
    for (const DATEORDER& e : must(com::getdateorder(cfg))) got.emplace_back(e.date, e.order, e.mjd);
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
    must(com::readdesignmatrixorder(&cfg, {{20170102, 0, 0}, {20170314, 1, 0}, {20170525, 2, 0}}));
    EXPECT_EQ(cfg.ifg_date1_index, (std::vector<int>{1, 0, 0}));
    EXPECT_EQ(cfg.ifg_date2_index, (std::vector<int>{2, 1, -1}));
}

// Refused input is reported with its message and stream: the date errors on
// standard output, the filelist error on standard error.
TEST(DateErrors, MessageAndStream)
{
    const std::string year = "out: ERROR: Year out of range\n", month = "out: ERROR: Month out of range\n",
                      day = "out: ERROR: Day out of range\n", j2000 = "out: ERROR: j2000 second out of range\n",
                      filelist = "err: ERROR: filelist format error!\n";
    const auto design = [](size_t names, size_t first, size_t second) {
        CFG cfg;
        cfg.ifg_names.assign(names, "a_20170102_20170314");
        cfg.ifg_date1.assign(first, 20170102);
        cfg.ifg_date2.assign(second, 20170314);
        return reported(com::readdesignmatrixorder(&cfg, {{20170102, 0, 0}, {20170314, 1, 0}}));
    };
    CFG undated;
    undated.ifg_names = {"x_20190101_20190113", "no_dates"};
    const std::pair<std::string, std::string> cases[] = {
        {reported(lib::date2mjd(19000229)), day}, {reported(lib::date2mjd(20180229)), day},  // 1900: no leap year
        {reported(lib::date2mjd(20000431)), day}, {reported(lib::date2mjd(20000100)), day},
        {reported(lib::date2mjd(20001301)), month}, {reported(lib::date2mjd(20000001)), month},
        {reported(lib::date2mjd(20001332)), month},  // month is checked before day
        {reported(lib::date2mjd(21010101)), year}, {reported(lib::date2mjd(18991231)), year},
        {reported(lib::date2mjd(21011301)), year},  // year is checked before month
        {reported(lib::date2mjd(0)), year}, {reported(lib::date2mjd(-20000101)), year},
        {reported(lib::date2mjd(20000101 + (int64_t(1) << 32))), year},  // not a wrapped date
        // A name without dates gives the scan's 0, which is kept as a date.
        {reported(com::getdateorder(undated)), year},
        {reported(lib::mjd2date(15019)), j2000}, {reported(lib::mjd2date(88069.001)), j2000},
        {reported(lib::mjd2date(std::nan(""))), j2000},
        {design(2, 1, 2), filelist}, {design(2, 2, 1), filelist}, {design(1, 2, 2), filelist},
    };
    for (size_t k = 0; k < std::size(cases); ++k) EXPECT_EQ(cases[k].first, cases[k].second) << "case " << k;
}

}  // namespace
