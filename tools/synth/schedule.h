// Acquisition dates and the interferogram network of a job.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "synth/synth.h"

namespace synth {

// The dates (yyyymmdd, strictly increasing) that `options` describe: first
// date, nominal spacing, jitter and long gaps. Throws Error when they leave
// 1990..2090. Precondition: check_options(options) passed.
std::vector<int> make_dates(const Options& options);

// The pairs (earlier, later) of date indices linked by interferograms, sorted:
// every date with its next options.neighbours dates, plus options.long_links
// random pairs further apart. Throws Error when too few such pairs exist.
std::vector<std::pair<int, int>> make_network(const Options& options, int date_count);

// "geo_<d1>_<d2>.unw" for the yyyymmdd dates d1 < d2.
std::string ifg_name(int first, int second);

}  // namespace synth
