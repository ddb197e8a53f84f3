// The two commands of sbas-quicklook. Both print to standard output and throw
// synth::Error (one-line message) when an input is missing or malformed.
#pragma once

#include <string>

namespace quicklook {

// Summary of one float32 raster described by `header`: sample count, valid
// samples (sbas-ts no-data rule), min, max, mean, 1st and 99th percentiles.
void print_stats(const std::string& raster, const std::string& header);

// The same, followed by min, max and the 1st/99th percentiles converted from
// radians of phase to millimetres of line-of-sight motion for a radar of
// the given wavelength (metres): mm = rad * wavelength / (4 pi) * 1000.
void print_stats(const std::string& raster, const std::string& header, double wavelength);

// Compares the maps in JOBDIR/result/ with JOBDIR/truth/ of a synthetic job,
// each map up to a constant (the mean difference over estimated pixels).
void print_comparison(const std::string& job_folder);

}  // namespace quicklook
