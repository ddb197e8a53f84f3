// The interferogram list: one raster name per line, each name carrying its
// two acquisition dates as eight-digit yyyymmdd groups.
#pragma once

#include "numerics/error.h"

struct CFG;

namespace com {

// The `which`-th date (1 or 2) written in `name` as yyyymmdd, or 0 when the
// name ends first. Eight-digit runs count as dates when 1900 <= year <= 3000,
// month 1-12 and day 1-31. Never reads past the name's terminator.
int phsfilename2date(const char* name, int which);

// Replaces the record's ifg_names, ifg_date1 and ifg_date2 with the list at
// `path`; nothing else changes. A line without two dates, blank lines
// included (also a blank last line), is reported as "%s format error\n"; a
// name longer than 199 characters with lib::long_field. On an error the
// record is left as it was.
lib::Status readfilenamelist(CFG* cfg, const char* path);

}  // namespace com
