#include "prep/fail.h"

#include "common/stop.h"

namespace prep {

void fail(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    tools::stop("sbas-prep", 1, nullptr, format, args);
}

void usage_error(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    tools::stop("sbas-prep", 2, "usage", format, args);
}

}  // namespace prep
