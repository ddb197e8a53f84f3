// Field splitting walks the line once: spaces and tabs are skipped, other
// characters belong to the current field, and the field number advances when
// a field is followed by a blank. The walk stops as soon as the wanted field
// is complete, so a long tail of the line costs nothing; the wanted field is
// measured whole, so a reader can tell a field that was cut.
#include "config/text.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "numerics/error.h"

namespace lib {
namespace {

bool blank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

void strtruc(char* line)
{
    size_t skip = 0;
    while (line[skip] == ' ') ++skip;
    if (skip) std::memmove(line, line + skip, std::strlen(line + skip) + 1);
}

size_t substr(char* out, const char* line, int n)
{
    int field = 1;
    size_t length = 0;  // of the field in the line
    size_t kept = 0;    // of the field in `out`
    for (const char* p = line; *p != '\0' && *p != '\n'; ++p) {
        if (blank(*p)) continue;
        if (field == n) {
            ++length;
            if (kept < kFieldBytes - 1) out[kept++] = *p;
        }
        if (blank(p[1])) ++field;
        if (field > n) break;
    }
    if (kept == 0) out[kept++] = ' ';
    out[kept] = '\0';
    return length;
}

Error long_field(const char* path, long line)
{
    return error(Fault::format, path, Stream::err, "%s line %ld: a field longer than 199 characters is not supported\n",
                 path, line);
}

Error read_error(const char* path)
{
    return error(Fault::read, path, Stream::err, "%s could not be read: %s\n", path, std::strerror(errno));
}

int32_t int_prefix(const char* field)
{
    const long value = std::strtol(field, nullptr, 10);
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<unsigned long>(value)));
}

double double_prefix(const char* field) { return std::strtod(field, nullptr); }

int truncate_to_int(double value)
{
    if (std::isnan(value)) return 0;
    if (value >= static_cast<double>(INT_MAX)) return INT_MAX;
    if (value <= static_cast<double>(INT_MIN)) return INT_MIN;
    return static_cast<int>(value);
}

}  // namespace lib
