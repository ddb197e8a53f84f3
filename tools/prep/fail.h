// How sbas-prep stops: one line "sbas-prep: <message>" on standard error and
// a non-zero exit status, 2 for a command line it cannot use, 1 for inputs it
// cannot read or a job it cannot write.
#pragma once

namespace prep {

[[noreturn]] void fail(const char* format, ...) __attribute__((format(printf, 1, 2)));
[[noreturn]] void usage_error(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace prep
