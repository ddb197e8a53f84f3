// Opening the files of a job, or ending the run when one is missing. The
// stops themselves go through the sink of numerics/sink.h.
#pragma once

#include <cstdio>

#include "numerics/sink.h"

namespace lib {

// Opens `path` with the stdio `mode`, or ends the run with "%s not found"
// (no line feed) and then "\nfile not exit\n", both on standard output.
FILE* fopen_zq(const char* path, const char* mode);

// The stop of fopen_zq for `path`, for openers of their own.
[[noreturn]] void stop_not_found(const char* path);

// Writes `message` and a line feed to standard output; ends the run.
[[noreturn]] void exit_zq(const char* message);

}  // namespace lib
