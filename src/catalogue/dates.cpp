// The acquisition dates of a network are read from the interferogram names,
// kept once each and sorted; an interferogram's row of the design matrix is
// then the pair of places its two dates take in that sorted list.
//
// Calendar dates become Modified Julian Days with the truncated-product rule
// JD = int(365.25 y) + int(30.6001 (m + 1)) + d + 1720981.5, where January and
// February count as months 13 and 14 of the year before. The constant carries
// the Gregorian correction of March 1900 to February 2100 and the rule agrees
// with the calendar there. The admitted years are 1900-2100, so January and
// February 1900 come out one day early and March to December 2100 one day
// late; no acquisition falls there, and time spans inside the correct window
// are what the inversion uses. The subtraction of the MJD origin is done in
// single precision: every JD of the admitted span is a multiple of 0.5 below
// 2^22, so it is exact there and the day numbers come out whole.
//
// The inverse works from seconds since J2000 and walks the same rule back
// (offset 1537 = 1524 + the same Gregorian correction of 13 days).
#include "catalogue/dates.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "catalogue/filelist.h"
#include "config/cfg.h"

namespace com {

lib::Result<std::vector<DATEORDER>> getdateorder(const CFG& cfg)
{
    std::vector<int64_t> dates;
    auto keep = [&dates](int64_t date) {
        if (std::find(dates.begin(), dates.end(), date) == dates.end()) dates.push_back(date);
    };
    for (const auto& name : cfg.ifg_names) {
        keep(phsfilename2date(name.c_str(), 1));
        keep(phsfilename2date(name.c_str(), 2));
    }
    std::sort(dates.begin(), dates.end());

    std::vector<DATEORDER> order;
    order.reserve(dates.size());
    for (size_t k = 0; k < dates.size(); ++k) {
        SBAS_TAKE(const double mjd, lib::date2mjd(dates[k]));
        order.push_back(DATEORDER{dates[k], static_cast<int64_t>(k), mjd});
    }
    return order;
}

int findorder(std::vector<DATEORDER> dateorder, int64_t date)
{
    for (const auto& entry : dateorder)
        if (entry.date == date) return static_cast<int>(entry.order);
    return -1;
}

lib::Status readdesignmatrixorder(CFG* cfg, std::vector<DATEORDER> dateorder)
{
    const size_t n = cfg->ifg_names.size();
    if (cfg->ifg_date1.size() != n || cfg->ifg_date2.size() != n)
        return lib::error(lib::Fault::format, cfg->filelist, lib::Stream::err, "ERROR: filelist format error!\n");
    std::vector<int> first;
    std::vector<int> second;
    first.reserve(n);
    second.reserve(n);
    for (size_t i = 0; i < n; ++i) {
        first.push_back(findorder(dateorder, cfg->ifg_date1[i]));
        second.push_back(findorder(dateorder, cfg->ifg_date2[i]));
    }
    cfg->ifg_date1_index = std::move(first);
    cfg->ifg_date2_index = std::move(second);
    return {};
}

}  // namespace com

namespace lib {
namespace {

// The decimal number written in characters [from, from + count) of `text`,
// or in as many of them as the text still has; nothing left reads as 0.
long cut_number(const char* text, size_t from, size_t count)
{
    const size_t length = std::strlen(text);
    char piece[8] = {};
    if (from < length) std::memcpy(piece, text + from, std::min(count, length - from));
    return std::strtol(piece, nullptr, 10);
}

bool leap_year(long year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

constexpr double kJ2000 = 2451545.0;           // Julian Day of 2000-01-01 12:00
constexpr double kSecondsPerDay = 86400.0;
constexpr double kJ2000SecondLimit = 3.1557168e9;  // 36524.5 days either side of J2000

Error out_of_range(const char* date, const char* message)
{
    return error(Fault::format, date, Stream::out, "%s", message);
}

}  // namespace

Result<double> date2mjd(int64_t date)
{
    // The digits are taken by position from the printed number, so the date
    // is read exactly as a person reads yyyymmdd. A buffer of 24 bytes holds
    // any 64-bit value with its sign.
    char text[24];
    std::snprintf(text, sizeof text, "%" PRId64, date);
    const long year = cut_number(text, 0, 4);
    const long month = cut_number(text, 4, 2);
    const long day = cut_number(text, 6, 2);

    if (year < 1900 || year > 2100) return out_of_range(text, "ERROR: Year out of range\n");
    static const int kMonthDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month < 1 || month > 12) return out_of_range(text, "ERROR: Month out of range\n");
    const long month_days = kMonthDays[month - 1] + (month == 2 && leap_year(year) ? 1 : 0);
    if (day < 1 || day > month_days) return out_of_range(text, "ERROR: Day out of range\n");

    double jd;
    if (month >= 3)
        jd = std::trunc(year * 365.25) + std::trunc((month + 1) * 30.6001) + day + 1720981.5;
    else
        jd = std::trunc((year - 1) * 365.25) + std::trunc((month + 13) * 30.6001) + day + 1720981.5;
    return static_cast<double>(static_cast<float>(jd) - 2400000.5f);
}

Result<int64_t> mjd2date(double mjd)
{
    const double second = (mjd + 2400000.5 - kJ2000) * kSecondsPerDay;
    // Written so that NaN is refused as well.
    if (!(std::fabs(second) <= kJ2000SecondLimit)) return out_of_range("", "ERROR: j2000 second out of range\n");
    const double jd = kJ2000 + second / kSecondsPerDay;

    // Whole Julian Day number of the civil day (days start at midnight, JDs
    // at noon), then the forward rule taken back step by step.
    const long a = static_cast<long>(jd + 0.5);
    const long b = a + 1537;
    const long c = static_cast<long>((b - 122.1) / 365.25);
    const long d = static_cast<long>(365.25 * c);
    const long e = static_cast<long>((b - d) / 30.6001);
    const long day = b - d - static_cast<long>(30.6001 * e);
    const long month = e - 1 - 12 * (e / 14);
    const long year = c - 4715 - (7 + month) / 10;
    return static_cast<int64_t>(year) * 10000 + month * 100 + day;
}

}  // namespace lib
