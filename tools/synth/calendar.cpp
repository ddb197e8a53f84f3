// Conversion between civil dates and day numbers.
//
// Days are counted in 400-year eras of 146097 days with the year starting on
// 1 March, so that the leap day is the last day of its year and the day of
// the year follows from the month by one linear formula. Day 0 of the count
// below is 1970-01-01, which is MJD 40587.
#include "synth/calendar.h"

namespace synth {
namespace {

constexpr int mjd_of_1970 = 40587;

bool leap_year(int year)
{
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int days_in_month(int year, int month)
{
    static constexpr int days[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month == 2 && leap_year(year)) return 29;
    return days[month - 1];
}

}  // namespace

bool valid_date(int yyyymmdd)
{
    if (yyyymmdd < earliest_date || yyyymmdd > latest_date) return false;
    const int year = yyyymmdd / 10000;
    const int month = yyyymmdd / 100 % 100;
    const int day = yyyymmdd % 100;
    if (month < 1 || month > 12) return false;
    return day >= 1 && day <= days_in_month(year, month);
}

int mjd_from_civil(int year, int month, int day)
{
    const int y = month <= 2 ? year - 1 : year;
    const int era = (y >= 0 ? y : y - 399) / 400;
    const int year_of_era = y - era * 400;
    const int day_of_year = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const int day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
    return era * 146097 + day_of_era - 719468 + mjd_of_1970;
}

int mjd_from_date(int yyyymmdd)
{
    return mjd_from_civil(yyyymmdd / 10000, yyyymmdd / 100 % 100, yyyymmdd % 100);
}

int date_from_mjd(int mjd)
{
    const int z = mjd - mjd_of_1970 + 719468;
    const int era = (z >= 0 ? z : z - 146096) / 146097;
    const int day_of_era = z - era * 146097;
    const int year_of_era =
        (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    const int day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const int shifted_month = (5 * day_of_year + 2) / 153;
    const int day = day_of_year - (153 * shifted_month + 2) / 5 + 1;
    const int month = shifted_month < 10 ? shifted_month + 3 : shifted_month - 9;
    const int year = year_of_era + era * 400 + (month <= 2 ? 1 : 0);
    return year * 10000 + month * 100 + day;
}

}  // namespace synth
