// Opening the files of a job, and the errors that say why one cannot be.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <memory>

#include "numerics/error.h"

namespace lib {

// A stream that is closed when it goes out of scope.
struct CloseStream {
    void operator()(FILE* stream) const { std::fclose(stream); }
};
using File = std::unique_ptr<FILE, CloseStream>;

// Opens `path` with the stdio `mode`, or reports not_found(path). A file
// opened for reading must be a regular file: a directory, a named pipe, a
// device or a socket is reported with not_regular before a byte is read,
// and the open itself never waits (a pipe without a writer would block it
// for ever).
Result<File> fopen_zq(const char* path, const char* mode);

// True when something at `path` opens for reading; never blocks. For the
// stages that only test whether a file is there (an earlier run's mask or
// corrected copy): what they then open with fopen_zq is refused there if it
// is not a regular file.
bool opens_for_reading(const char* path);

// "%s not found" (no line feed) and then "\nfile not exit\n", both on
// standard output, as one message.
Error not_found(const char* path);

// "%s is a <kind>, not a regular file\n" on standard error, the kind named
// from the file type bits of `mode` (st_mode).
Error not_regular(const char* path, mode_t mode);

// `message` and a line feed on standard output.
Error exit_zq(const char* message);

}  // namespace lib
