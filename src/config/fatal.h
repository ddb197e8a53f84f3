// Opening the files of a job, or ending the run when one is missing or is
// not a file. The stops themselves go through the sink of numerics/sink.h.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <memory>

#include "numerics/sink.h"

namespace lib {

// Opens `path` with the stdio `mode`, or ends the run with "%s not found"
// (no line feed) and then "\nfile not exit\n", both on standard output.
// A file opened for reading must be a regular file: a directory, a named
// pipe, a device or a socket ends the run with refuse_not_regular before a
// byte is read, and the open itself never waits (a pipe without a writer
// would block it for ever).
FILE* fopen_zq(const char* path, const char* mode);

// True when something at `path` opens for reading; never blocks. For the
// stages that only test whether a file is there (an earlier run's mask or
// corrected copy): what they then open with fopen_zq is refused there if it
// is not a regular file.
bool opens_for_reading(const char* path);

// The stop of fopen_zq for `path`, for openers of their own.
[[noreturn]] void stop_not_found(const char* path);

// Ends the run with "%s is a <kind>, not a regular file\n" on standard error,
// the kind named from the file type bits of `mode` (st_mode).
[[noreturn]] void refuse_not_regular(const char* path, mode_t mode);

// Writes `message` and a line feed to standard output; ends the run.
[[noreturn]] void exit_zq(const char* message);

// A stream that is closed when it goes out of scope.
struct CloseStream {
    void operator()(FILE* stream) const { std::fclose(stream); }
};
using File = std::unique_ptr<FILE, CloseStream>;

}  // namespace lib
