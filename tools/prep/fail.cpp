#include "prep/fail.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace prep {
namespace {

void say(const char* format, va_list args)
{
    std::fflush(stdout);
    std::fputs("sbas-prep: ", stderr);
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
}

}  // namespace

void fail(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    say(format, args);
    va_end(args);
    std::exit(1);
}

void usage_error(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    say(format, args);
    va_end(args);
    std::fputs("Run 'sbas-prep --help' for the usage.\n", stderr);
    std::exit(2);
}

}  // namespace prep
