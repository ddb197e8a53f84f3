// The missing-file stop: the path and "not found" without a line feed, then
// "file not exit" on a line of its own, all on standard output, written as
// one message so that a second failing thread cannot interleave.
#include "config/fatal.h"

namespace lib {

FILE* fopen_zq(const char* path, const char* mode)
{
    FILE* f = std::fopen(path, mode);
    if (f) return f;
    stop_not_found(path);
}

void stop_not_found(const char* path) { die_stdout("%s not found\nfile not exit\n", path); }

void exit_zq(const char* message) { die_stdout("%s\n", message); }

}  // namespace lib
