// Acquisition dates: the ordered list of distinct dates of the network (the
// columns of the inversion), Modified Julian Days, and the place of each
// interferogram's two dates in that list (the design order).
#pragma once

#include <cstdint>
#include <vector>

#include "numerics/error.h"

struct CFG;

// One distinct acquisition date of the network.
struct DATEORDER {
    int64_t date = 0;   // yyyymmdd
    int64_t order = 0;  // position in the ascending date list, from 0
    double mjd = 0;     // Modified Julian Day at midnight
};

namespace com {

// The distinct dates of all names of cfg.ifg_names (each name's first and
// second date), ascending, with their MJDs. Empty for an empty list. A date
// that is no calendar date is reported by lib::date2mjd.
lib::Result<std::vector<DATEORDER>> getdateorder(const CFG& cfg);

// The order of the element whose date equals `date`, or -1 when none does.
int findorder(std::vector<DATEORDER> dateorder, int64_t date);

// Fills cfg->ifg_date1_index and ifg_date2_index from ifg_date1/ifg_date2
// (-1 for a date not in the list). Lists of unequal length are reported as
// "ERROR: filelist format error!\n" on standard error.
lib::Status readdesignmatrixorder(CFG* cfg, std::vector<DATEORDER> dateorder);

}  // namespace com

namespace lib {

// Modified Julian Day of the yyyymmdd date. A year outside 1900-2100, a month
// outside 1-12 or a day outside the month is reported as "ERROR: Year out of
// range", "ERROR: Month out of range" or "ERROR: Day out of range" on
// standard output.
Result<double> date2mjd(int64_t date);

// yyyymmdd of a Modified Julian Day; the inverse of date2mjd. A day more
// than 36524.5 days from J2000 is reported as "ERROR: j2000 second out of
// range" on standard output.
Result<int64_t> mjd2date(double mjd);

}  // namespace lib
