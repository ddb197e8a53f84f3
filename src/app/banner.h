// What the program prints around a run: the banner, the licence notices and
// the total run time. Everything goes to standard error.
#pragma once

#include <cstdio>
#include <string>

namespace app {

// The banner written before a run.
void print_banner(FILE* stream);

// "Total time: %d days %d hours %d minutes %.2f seconds\n" for a run of
// `seconds` wall-clock seconds.
std::string format_total_time(double seconds);

}  // namespace app

// The licence of the program (BSD 3-Clause) and of FFTW, on standard error.
void print_license();
