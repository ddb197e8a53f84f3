// Dates are cut from file names by scanning for eight-digit groups that read
// as a plausible calendar date. After a group is accepted the scan resumes
// behind it, so a longer run of digits is cut into eight-digit candidates
// from its left end only after a valid one.
//
// The list reader is strict on purpose: an empty line anywhere, the end of the
// file included, yields the name " " without dates and stops the run. A list
// written by hand with a trailing blank line is caught before hours of work.
// So is a name longer than a field holds: cut, it would name another file.
#include "catalogue/filelist.h"

#include <string>
#include <vector>

#include "config/cfg.h"
#include "config/fatal.h"
#include "config/text.h"

namespace com {
namespace {

bool digit(char c) { return c >= '0' && c <= '9'; }

int digits_value(const char* p, int count)
{
    int value = 0;
    for (int i = 0; i < count; ++i) value = value * 10 + (p[i] - '0');
    return value;
}

}  // namespace

int phsfilename2date(const char* name, int which)
{
    int found = 0;
    size_t i = 0;
    while (name[i] != '\0') {
        if (!digit(name[i])) {
            ++i;
            continue;
        }
        bool all_digits = true;
        for (int k = 1; k <= 7; ++k) {
            if (name[i + k] == '\0') return 0;
            if (!digit(name[i + k])) all_digits = false;
        }
        if (!all_digits) {
            ++i;
            continue;
        }
        const int year = digits_value(name + i, 4);
        const int month = digits_value(name + i + 4, 2);
        const int day = digits_value(name + i + 6, 2);
        if (year < 1900 || year > 3000 || month < 1 || month > 12 || day < 1 || day > 31) {
            ++i;
            continue;
        }
        if (++found == which) return digits_value(name + i, 8);
        i += 8;
    }
    return 0;
}

lib::Status readfilenamelist(CFG* cfg, const char* path)
{
    std::vector<std::string> names;
    std::vector<int> date1;
    std::vector<int> date2;
    SBAS_TAKE(const lib::File file, lib::fopen_zq(path, "r"));
    SBAS_TRY(lib::for_each_line(file.get(), path, true, [&](char* line, long number) -> lib::Status {
        char name[lib::kFieldBytes];
        if (lib::substr(name, line, 1) >= lib::kFieldBytes) return lib::long_field(path, number);
        names.emplace_back(name);
        const int first = phsfilename2date(name, 1);
        if (first == 0) return lib::error(lib::Fault::format, name, lib::Stream::err, "%s format error\n", name);
        date1.push_back(first);
        const int second = phsfilename2date(name, 2);
        if (second == 0) return lib::error(lib::Fault::format, name, lib::Stream::err, "%s format error\n", name);
        date2.push_back(second);
        return {};
    }));
    cfg->ifg_names = std::move(names);
    cfg->ifg_date1 = std::move(date1);
    cfg->ifg_date2 = std::move(date2);
    return {};
}

}  // namespace com
