// Calendar dates to Modified Julian Days and back, the ordered list of
// acquisition dates, and the design order of each interferogram.
//
// The day numbers are checked against a plain day count walked through the
// Gregorian calendar, so a slip in the truncated products or in the leap
// rule shows up on the day it happens. Refused dates are run in a child
// process: they end the run, and the message, its stream and the exit status
// are what a user sees.
#include "catalogue/dates.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "config/cfg.h"
#include "support/child.h"

namespace {

using testing_support::Outcome;
using testing_support::run_in_child;

bool leap(int y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

int days_in(int y, int m)
{
    static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && leap(y) ? 29 : kDays[m - 1];
}

// Calls fn(yyyymmdd, day count) for every calendar day from `from` to `to`
// (inclusive), the count starting at `first_count` and rising by one a day.
template <typename Fn>
void walk_days(int from, int to, int64_t first_count, Fn fn)
{
    int y = from / 10000, m = from / 100 % 100, d = from % 100;
    int64_t count = first_count;
    for (;;) {
        const int date = y * 10000 + m * 100 + d;
        fn(date, count);
        if (date == to) return;
        ++count;
        if (++d > days_in(y, m)) {
            d = 1;
            if (++m > 12) m = 1, ++y;
        }
    }
}

void expect_stop_on_stdout(const Outcome& o, const std::string& message)
{
    EXPECT_TRUE(o.exited) << "signal " << o.signal;
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.out, message);
    EXPECT_EQ(o.err, "");
}

CFG with_names(const std::vector<std::string>& names)
{
    CFG cfg;
    cfg.ifg_names = names;
    return cfg;
}

std::vector<DATEORDER> listed(const std::vector<int64_t>& dates, int64_t first_order = 0)
{
    std::vector<DATEORDER> out;
    for (size_t k = 0; k < dates.size(); ++k) out.push_back({dates[k], first_order + int64_t(k), 0.0});
    return out;
}

// ---------------------------------------------------------------- date2mjd

TEST(Date2Mjd, KnownDays)
{
    struct Case {
        int64_t date;
        double mjd;
    };
    const Case cases[] = {
        {20000101, 51544},  // the MJD of the J2000 day
        {20000229, 51603},  // leap by the 400-year rule
        {20000301, 51604},
        {20170314, 57826},
        {19700101, 40587},  // the Unix epoch
        {19000301, 15079},  // first day of the rule's exact span
        {20991231, 88068},
        {21000228, 88127},  // last day of the exact span
        // The rule's fixed Gregorian correction puts January-February 1900
        // one day early and March-December 2100 one day late.
        {19000101, 15019},
        {19000228, 15077},
        {21000301, 88129},
        {21001231, 88434},
        // Digits are taken by position: characters 1-4, 5-6, 7-8.
        {200001011, 51544},  // a ninth digit is ignored
        {1900101, 15293},    // seven digits read as 1900, 10, 1
    };
    for (const Case& c : cases) {
        const double mjd = lib::date2mjd(c.date);
        EXPECT_EQ(mjd, c.mjd) << c.date;
    }
}

TEST(Date2Mjd, EveryDayOfTheExactSpanIsOneMoreThanTheDayBefore)
{
    int checked = 0;
    walk_days(19000301, 21000228, 15079, [&](int date, int64_t mjd) {
        const double got = lib::date2mjd(date);
        if (got != double(mjd)) ADD_FAILURE() << date << " gave " << got << ", expected " << mjd;
        ++checked;
    });
    EXPECT_EQ(checked, 73049);
}

TEST(Date2Mjd, RefusedDatesStopTheRunOnStandardOutput)
{
    struct Case {
        int64_t date;
        const char* message;
    };
    const Case cases[] = {
        {19000229, "ERROR: Day out of range\n"},   // 1900 is not a leap year
        {20180229, "ERROR: Day out of range\n"},   // a date the file-name scan accepts
        {20000230, "ERROR: Day out of range\n"},
        {20000431, "ERROR: Day out of range\n"},
        {20000100, "ERROR: Day out of range\n"},
        {20001232, "ERROR: Day out of range\n"},
        {200001, "ERROR: Day out of range\n"},     // no day digits
        {2000010, "ERROR: Day out of range\n"},    // day "0"
        {20000001, "ERROR: Month out of range\n"},
        {20001301, "ERROR: Month out of range\n"},
        {20001332, "ERROR: Month out of range\n"},  // month is checked before day
        {2000, "ERROR: Month out of range\n"},      // no month digits
        {21010101, "ERROR: Year out of range\n"},
        {18991231, "ERROR: Year out of range\n"},
        {21011301, "ERROR: Year out of range\n"},  // year is checked before month
        {0, "ERROR: Year out of range\n"},
        {-20000101, "ERROR: Year out of range\n"},
        {std::numeric_limits<int64_t>::max(), "ERROR: Year out of range\n"},
        {std::numeric_limits<int64_t>::min(), "ERROR: Year out of range\n"},
        // A value beyond 32 bits is a different number, not a wrapped date.
        {20000101 + (int64_t(1) << 32), "ERROR: Year out of range\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.date);
        expect_stop_on_stdout(run_in_child([&] { lib::date2mjd(c.date); }), c.message);
    }
}

// ---------------------------------------------------------------- mjd2date

TEST(Mjd2Date, InvertsDate2MjdOverItsWholeRange)
{
    // From the first MJD inside 100 years of J2000 to the day before the
    // last (whose later hours are out of range).
    walk_days(19000102, 20991231, 0, [&](int date, int64_t) {
        const double mjd = lib::date2mjd(date);
        for (double hour : {0.0, 0.25, 0.5, 0.999}) {
            const int64_t back = lib::mjd2date(mjd + hour);
            if (back != date) ADD_FAILURE() << date << " + " << hour << " came back as " << back;
        }
    });
}

TEST(Mjd2Date, RangeEdges)
{
    EXPECT_EQ(lib::mjd2date(15020.0), 19000102);
    EXPECT_EQ(lib::mjd2date(88069.0), 21000101);
    EXPECT_EQ(lib::mjd2date(51544.0), 20000101);
}

TEST(Mjd2Date, BeyondAHundredYearsOfJ2000StopsTheRun)
{
    const double cases[] = {15019.5, 15019.0, 88069.001, 1e300, -1e300,
                            std::numeric_limits<double>::quiet_NaN(),
                            std::numeric_limits<double>::infinity()};
    for (double mjd : cases) {
        SCOPED_TRACE(mjd);
        expect_stop_on_stdout(run_in_child([&] { lib::mjd2date(mjd); }), "ERROR: j2000 second out of range\n");
    }
}

// ---------------------------------------------------------------- getdateorder

TEST(DateOrder, SharedDatesAppearOnceInAscendingOrder)
{
    const CFG cfg = with_names({"geo_20170314_20170525.unw", "geo_20170102_20170314.unw",
                                "geo_20170102_20170525.unw", "geo_20170525_20170102.unw"});
    const auto order = com::getdateorder(cfg);
    ASSERT_EQ(order.size(), 3u);
    const int64_t want[] = {20170102, 20170314, 20170525};
    for (size_t k = 0; k < 3; ++k) {
        EXPECT_EQ(order[k].date, want[k]);
        EXPECT_EQ(order[k].order, int64_t(k));
        EXPECT_EQ(order[k].mjd, lib::date2mjd(want[k]));
    }
}

TEST(DateOrder, ThreeInterferogramsOverFourDates)
{
    const CFG cfg = with_names({"a_20200301_20200113", "b_20200101_20200113", "c_20200301_20200325"});
    const auto order = com::getdateorder(cfg);
    ASSERT_EQ(order.size(), 4u);
    EXPECT_EQ(order[0].date, 20200101);
    EXPECT_EQ(order[1].date, 20200113);
    EXPECT_EQ(order[2].date, 20200301);
    EXPECT_EQ(order[3].date, 20200325);
    EXPECT_EQ(order[3].order, 3);
    EXPECT_EQ(order[2].mjd - order[1].mjd, 48.0);  // 2020 is a leap year
}

TEST(DateOrder, DatesComeFromTheNamesNotTheDateLists)
{
    CFG cfg = with_names({"x_20190101_20190113"});
    cfg.ifg_date1 = {20300101};
    cfg.ifg_date2 = {20300113};
    const auto order = com::getdateorder(cfg);
    ASSERT_EQ(order.size(), 2u);
    EXPECT_EQ(order[0].date, 20190101);
    EXPECT_EQ(order[1].date, 20190113);
}

TEST(DateOrder, EmptyListGivesNoDates) { EXPECT_TRUE(com::getdateorder(CFG{}).empty()); }

TEST(DateOrder, NameWithoutDatesStopsTheRunAtItsMjd)
{
    // The scan's 0 is kept as a date and cannot be converted.
    const CFG cfg = with_names({"x_20190101_20190113", "no_dates_here"});
    expect_stop_on_stdout(run_in_child([&] { com::getdateorder(cfg); }), "ERROR: Year out of range\n");
}

TEST(DateOrder, DateTheScanAcceptsButTheCalendarRefuses)
{
    const CFG cfg = with_names({"a_20180229_20180301"});
    expect_stop_on_stdout(run_in_child([&] { com::getdateorder(cfg); }), "ERROR: Day out of range\n");
}

TEST(DateOrder, WidestYearsTheNamesCanCarry)
{
    const auto order = com::getdateorder(with_names({"19000101x20991231"}));
    ASSERT_EQ(order.size(), 2u);
    EXPECT_EQ(order[0].date, 19000101);
    EXPECT_EQ(order[1].date, 20991231);
    expect_stop_on_stdout(run_in_child([] { com::getdateorder(with_names({"19000101x21010101"})); }),
                          "ERROR: Year out of range\n");
}

// ---------------------------------------------------------------- findorder

TEST(FindOrder, SearchesFromTheFrontAndReportsTheStoredOrder)
{
    struct Case {
        std::vector<int64_t> dates;
        int64_t first_order;
        int64_t date;
        int expected;
    };
    const Case cases[] = {
        {{}, 0, 20170102, -1},
        {{20170102}, 0, 20170102, 0},
        {{20170102, 20170314, 20170525}, 0, 20170525, 2},
        {{20170102, 20170314, 20170525}, 0, 20170401, -1},
        {{20170102, 20170314, 20170525}, 10, 20170314, 11},  // the field, not the index
        {{20170102, 20170314, 20170314}, 0, 20170314, 1},    // first match wins
        {{0, 20170314}, 0, 0, 0},
    };
    for (const Case& c : cases)
        EXPECT_EQ(com::findorder(listed(c.dates, c.first_order), c.date), c.expected)
            << "date " << c.date << " in a list of " << c.dates.size();
}

// ---------------------------------------------------------------- readdesignmatrixorder

TEST(DesignOrder, EachInterferogramGetsThePlacesOfItsTwoDates)
{
    CFG cfg = with_names({"a", "b", "c"});
    cfg.ifg_date1 = {20170314, 20170102, 20170102};
    cfg.ifg_date2 = {20170525, 20170314, 20180101};
    cfg.ifg_date1_index = {9, 9, 9, 9, 9};  // stale lists are replaced, not extended
    cfg.ifg_date2_index = {9};
    com::readdesignmatrixorder(&cfg, listed({20170102, 20170314, 20170525}));
    EXPECT_EQ(cfg.ifg_date1_index, (std::vector<int>{1, 0, 0}));
    EXPECT_EQ(cfg.ifg_date2_index, (std::vector<int>{2, 1, -1}));
}

TEST(DesignOrder, EmptyListEmptiesTheIndices)
{
    CFG cfg;
    cfg.ifg_date1_index = {1};
    cfg.ifg_date2_index = {2};
    com::readdesignmatrixorder(&cfg, {});
    EXPECT_TRUE(cfg.ifg_date1_index.empty());
    EXPECT_TRUE(cfg.ifg_date2_index.empty());
}

TEST(DesignOrder, ListsOfUnequalLengthStopTheRunOnStandardError)
{
    struct Case {
        size_t names, date1, date2;
    };
    const Case cases[] = {{3, 2, 2}, {2, 1, 2}, {2, 2, 1}, {0, 1, 0}, {1, 2, 2}};
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.names << " " << c.date1 << " " << c.date2);
        CFG cfg;
        cfg.ifg_names.assign(c.names, "a_20170102_20170314");
        cfg.ifg_date1.assign(c.date1, 20170102);
        cfg.ifg_date2.assign(c.date2, 20170314);
        const Outcome o = run_in_child([&] { com::readdesignmatrixorder(&cfg, listed({20170102, 20170314})); });
        EXPECT_TRUE(o.exited) << "signal " << o.signal;
        EXPECT_EQ(o.status, 0);
        EXPECT_EQ(o.err, "ERROR: filelist format error!\n");
        EXPECT_EQ(o.out, "");
    }
}

}  // namespace
