// Line and field splitting shared by every text reader of a job (the
// configuration, raster headers, the interferogram list, baselines).
//
// A line is read into a 999-byte buffer, so a longer line arrives in pieces,
// each handled as a line of its own. Fields are runs of characters other than
// space and tab; a carriage return is an ordinary character, so a value on a
// CRLF line keeps its trailing '\r'.
#pragma once

#include <cstdio>
#include <cstdint>

namespace lib {

inline constexpr int kLineBytes = 999;   // line buffer of every text reader
inline constexpr int kFieldBytes = 200;  // a field holds at most 199 characters

// Removes leading space characters (0x20 only; tabs stay) from `line` in place.
void strtruc(char* line);

// Copies field n (counting from 1) of `line` into `out`, which must hold
// kFieldBytes. The line ends at its first line feed or at the string's end. A
// missing field gives " " (one space), never an empty string; a field longer
// than 199 characters is cut to 199.
void substr(char* out, const char* line, int n);

// `field` converted the way every integer setting is read:
// the decimal integer prefix (leading blanks and a sign allowed, no digits
// gives 0), wrapped to 32 bits as the C library does on overflow.
int32_t int_prefix(const char* field);

// The floating-point prefix of `field` read in double precision (0 when none).
double double_prefix(const char* field);

// The reading loop of the text readers: while the stream is not at end of
// file, read a line and hand it to `handle(char* line)`. End of file is only
// seen after a read that returns nothing; the buffer then still holds the
// last line, so a file that ends in a line feed has its last line handled
// twice. The key/value readers rely on that being harmless.
//
// With stop_at_empty_read the buffer's first character is cleared before each
// read and an empty buffer ends the loop, so each line is handled once (the
// interferogram list and baselines readers). A read error also ends the loop.
template <typename Handle>
void for_each_line(FILE* stream, bool stop_at_empty_read, Handle handle)
{
    char line[kLineBytes] = {};
    while (!std::feof(stream)) {
        if (stop_at_empty_read) line[0] = '\0';
        if (!std::fgets(line, kLineBytes, stream) && std::ferror(stream)) break;
        if (stop_at_empty_read && line[0] == '\0') break;
        handle(line);
    }
}

}  // namespace lib
