#include "view/fail.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace view {
namespace {

void say(const char* format, va_list args)
{
    std::fflush(stdout);
    std::fputs("sbas-view: ", stderr);
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
    std::exit(kStatusInput);
}

void usage_error(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    say(format, args);
    va_end(args);
    std::fputs("Run 'sbas-view --help' for the usage.\n", stderr);
    std::exit(kStatusUsage);
}

}  // namespace view
