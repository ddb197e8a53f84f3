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
#include <cstring>
#include <type_traits>
#include <variant>

#include "numerics/error.h"

namespace lib {

inline constexpr int kPathBytes = 1000;  // every path of a job, NUL-terminated
inline constexpr int kLineBytes = 999;   // line buffer of every text reader
inline constexpr int kFieldBytes = 200;  // a field holds at most 199 characters

// Removes leading space characters (0x20 only; tabs stay) from `line` in place.
void strtruc(char* line);

// Copies field n (counting from 1) of `line` into `out`, which must hold
// kFieldBytes. The line ends at its first line feed or at the string's end. A
// missing field gives " " (one space), never an empty string; a field longer
// than 199 characters is cut to 199. Returns the field's length in the line
// before any cut (0 for a missing field), so that a reader can refuse a field
// it cannot hold.
size_t substr(char* out, const char* line, int n);

// "%s line %ld: a field longer than 199 characters is not supported\n"
// (standard error): a name or path cut to 199 characters would silently be
// another one.
Error long_field(const char* path, long line);

// "%s could not be read: <reason>\n" (standard error), for a read that
// failed: a failed read is never taken for the end of a file.
Error read_error(const char* path);

// `field` converted the way every integer setting is read:
// the decimal integer prefix (leading blanks and a sign allowed, no digits
// gives 0), wrapped to 32 bits as the C library does on overflow.
int32_t int_prefix(const char* field);

// The floating-point prefix of `field` read in double precision (0 when none).
double double_prefix(const char* field);

// The reading loop of the text readers: while the stream is not at end of
// file, read a line and hand it to `handle(char* line)` or
// `handle(char* line, long number)`, with the line's number in the file
// (from 1; the pieces of a line longer than the buffer share its number).
// End of file is only seen after a read that returns nothing; the buffer
// then still holds the last line, so a file that ends in a line feed has its
// last line handled twice. The key/value readers rely on that being harmless.
//
// With stop_at_empty_read the buffer's first character is cleared before each
// read and an empty buffer ends the loop, so each line is handled once (the
// interferogram list and baselines readers). A read error is reported with
// read_error, naming `path`. A handler may return a Status: its first error
// ends the loop and is returned.
template <typename Handle>
Status for_each_line(FILE* stream, const char* path, bool stop_at_empty_read, Handle handle)
{
    char line[kLineBytes] = {};
    long number = 0;
    bool line_start = true;
    while (!std::feof(stream)) {
        if (stop_at_empty_read) line[0] = '\0';
        if (!std::fgets(line, kLineBytes, stream) && std::ferror(stream)) return read_error(path);
        if (stop_at_empty_read && line[0] == '\0') break;
        if (line_start) ++number;
        line_start = std::strchr(line, '\n') != nullptr;
        if constexpr (std::is_invocable_v<Handle&, char*, long>) {
            if constexpr (std::is_same_v<std::invoke_result_t<Handle&, char*, long>, Status>) {
                Status handled = handle(line, number);
                if (!handled.ok()) return handled;
            } else {
                handle(line, number);
            }
        } else {
            if constexpr (std::is_same_v<std::invoke_result_t<Handle&, char*>, Status>) {
                Status handled = handle(line);
                if (!handled.ok()) return handled;
            } else {
                handle(line);
            }
        }
    }
    return {};
}

// A key of a key/value file and the member of `Record` it sets.
// Conversions by member type: a path (char array) takes the field as it
// stands; int and int64_t members the decimal integer prefix, read as 32
// bits and widened; float members the floating-point prefix read as a double
// and rounded; double members that prefix as it is; Truncated int members
// the floating-point prefix truncated toward zero (so "1e1" gives 10 there
// and 1 for a plain int).
template <typename Record>
struct Truncated {
    int Record::*member;
};

template <typename Record>
using KeyMember = std::variant<std::monostate, char (Record::*)[kPathBytes], int Record::*, int64_t Record::*,
                               float Record::*, double Record::*, Truncated<Record>>;

template <typename Record>
struct Key {
    const char* name;
    KeyMember<Record> member;
};

// Truncation toward zero that stays defined for values no int can hold
// (they clamp; NaN gives 0).
int truncate_to_int(double value);

template <typename Record>
void store_key(Record& record, const KeyMember<Record>& member, const char* value)
{
    struct Visitor {
        Record& record;
        const char* value;
        void operator()(std::monostate) const {}
        void operator()(char (Record::*path)[kPathBytes]) const
        {
            std::strncpy(record.*path, value, kPathBytes - 1);
            (record.*path)[kPathBytes - 1] = '\0';
        }
        void operator()(int Record::*m) const { record.*m = int_prefix(value); }
        void operator()(int64_t Record::*m) const { record.*m = int_prefix(value); }
        void operator()(float Record::*m) const { record.*m = static_cast<float>(double_prefix(value)); }
        void operator()(double Record::*m) const { record.*m = double_prefix(value); }
        void operator()(Truncated<Record> t) const { record.*t.member = truncate_to_int(double_prefix(value)); }
    };
    std::visit(Visitor{record, value}, member);
}

// Reads the key/value lines of an open stream into `record`, the way the
// configuration and the raster headers are read: each line is stripped of
// leading spaces and its first field is compared, exactly and
// case-sensitively, with the keys in the table's order. On a match the
// line's second field is stored and takes the key's place for the rest of
// that line's comparisons, so a value that is itself a later key's name sets
// that key too. Other lines are ignored; a later line wins. A value longer
// than a field holds is reported (long_field), naming `path` and the line.
template <typename Record, size_t N>
Status read_keyed(FILE* stream, const char* path, const Key<Record> (&keys)[N], Record& record)
{
    return for_each_line(stream, path, false, [&](char* line, long number) -> Status {
        strtruc(line);
        char key[kFieldBytes];
        char value[kFieldBytes];
        substr(key, line, 1);
        for (const Key<Record>& k : keys) {
            if (std::strcmp(key, k.name) != 0) continue;
            if (substr(value, line, 2) >= kFieldBytes) return long_field(path, number);
            std::strcpy(key, value);
            store_key(record, k.member, value);
        }
        return {};
    });
}

}  // namespace lib
