// How sbas-view stops. Unlike sbas-ts, sbas-view ends with a non-zero exit
// status on every error, after one line on standard error that says what is
// wrong and with which file or argument: 2 for a command line it cannot use,
// 1 for inputs it cannot read or outputs it cannot write.
#pragma once

namespace view {

inline constexpr int kStatusInput = 1;
inline constexpr int kStatusUsage = 2;

// "sbas-view: <message>" on standard error; ends the process with status 1.
[[noreturn]] void fail(const char* format, ...) __attribute__((format(printf, 1, 2)));

// "sbas-view: <message>" and a pointer to --help; ends with status 2.
[[noreturn]] void usage_error(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace view
