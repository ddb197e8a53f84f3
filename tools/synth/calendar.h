// Civil dates as the job files carry them (yyyymmdd integers) and their day
// numbers. Day numbers are Modified Julian Days (1858-11-17 is day 0) in the
// proleptic Gregorian calendar, so differences are exact day counts.
#pragma once

namespace synth {

// Earliest and latest dates a generated job may use.
inline constexpr int earliest_date = 19900101;
inline constexpr int latest_date = 20901231;

// True when `yyyymmdd` names a real calendar day from 1990-01-01 to
// 2090-12-31 (month 1..12, day within the month, leap years honoured).
bool valid_date(int yyyymmdd);

// Day number (MJD) of a civil date; any year 1..9999 with a real month and
// day, otherwise the result is meaningless.
int mjd_from_civil(int year, int month, int day);

// Day number (MJD) of a yyyymmdd date. Precondition: a real calendar day.
int mjd_from_date(int yyyymmdd);

// The yyyymmdd date of day number `mjd` (inverse of mjd_from_date).
int date_from_mjd(int mjd);

}  // namespace synth
