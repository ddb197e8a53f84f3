// How a companion program stops: one line "<program>: <message>" on standard
// error (after what it wrote to standard output), an optional pointer to
// its usage, and a non-zero exit status.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace tools {

[[noreturn]] inline void stop(const char* program, int status, const char* usage_hint, const char* format,
                              va_list args)
{
    std::fflush(stdout);
    std::fprintf(stderr, "%s: ", program);
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
    if (usage_hint) std::fprintf(stderr, "Run '%s --help' for the usage.\n", program);
    std::exit(status);
}

}  // namespace tools
