// The one sink for errors that end a run.
//
// Errors are not thrown. A fatal input error writes one message and ends the
// process with exit status 0 (never a failure status: users' scripts rely on
// that). If several threads fail at once, only the first message is written.
#pragma once

#include <cstdio>

namespace lib {

// Opens `path` with the stdio `mode`, or ends the run with "%s not found"
// (no line feed) and then "\nfile not exit\n", both on standard output.
FILE* fopen_zq(const char* path, const char* mode);

// Writes `message` and a line feed to standard output; ends the run.
[[noreturn]] void exit_zq(const char* message);

// Writes the printf-formatted message to standard error; ends the run.
[[noreturn]] void die(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Writes the printf-formatted message to standard output; ends the run.
[[noreturn]] void die_stdout(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace lib
