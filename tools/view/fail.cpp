#include "view/fail.h"

#include "common/stop.h"

namespace view {

void fail(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    tools::stop("sbas-view", kStatusInput, nullptr, format, args);
}

void usage_error(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    tools::stop("sbas-view", kStatusUsage, "usage", format, args);
}

}  // namespace view
