// Reading a job the way sbas-ts reads it, without its stops.
//
// The configuration, the header and the list are read by sbas-ts's own
// readers (lib::read_settings, com::readheader, com::readfilenamelist), so a
// file means the same to both programs, defaults and key order rule
// included. What differs is what happens on bad input: sbas-view names the
// file and stops with a failure status, and it checks the grid before it
// sizes anything by it.
#include "view/job.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <algorithm>

#include "catalogue/filelist.h"
#include "catalogue/header.h"
#include "config/cfg.h"
#include "config/text.h"
#include "view/fail.h"

namespace view {
namespace {

FILE* open_text(const std::string& path, const char* what)
{
    if (!is_file(path)) fail("%s %s is not a readable file", what, path.c_str());
    FILE* file = std::fopen(path.c_str(), "r");
    if (!file) fail("cannot open %s %s", what, path.c_str());
    return file;
}

// The configuration read by sbas-ts's own reader (lib::read_settings): the
// same keys, defaults, conversions and key-order rule. Its errors end
// sbas-view with a failure status, naming the file.
CFG read_configuration(const std::string& path)
{
    if (!is_file(path)) fail("configuration %s is not a readable file", path.c_str());
    lib::Result<CFG> read = lib::read_settings(path.c_str());
    if (!read.ok()) fail("configuration %s: %s", path.c_str(), read.error().message.c_str());
    return std::move(*read);
}

Grid read_grid(const std::string& path)
{
    if (path.empty()) fail("the configuration names no headerfile");
    if (!is_file(path)) fail("header %s is not a readable file", path.c_str());
    const lib::Result<HEADER> read = com::readheader(path.c_str());
    if (!read.ok()) fail("header %s: %s", path.c_str(), read.error().message.c_str());
    const HEADER header = *read;
    Grid grid{header.WIDTH, header.FILE_LENGTH, header.X_FIRST, header.Y_FIRST, header.X_STEP, header.Y_STEP};
    if (grid.width < 1 || grid.length < 1)
        fail("header %s: WIDTH %lld and FILE_LENGTH %lld must both be at least 1", path.c_str(),
             static_cast<long long>(grid.width), static_cast<long long>(grid.length));
    if (!std::isfinite(grid.x_first) || !std::isfinite(grid.y_first) || !std::isfinite(grid.x_step) ||
        !std::isfinite(grid.y_step) || grid.x_step == 0 || grid.y_step == 0)
        fail("header %s: X_FIRST, Y_FIRST must be finite and X_STEP, Y_STEP finite and non-zero", path.c_str());
    // WIDTH and FILE_LENGTH are read as 32-bit integers, so their product
    // fits in 64 bits; the byte size of a raster must too.
    if (grid.pixels() > INT64_MAX / 8) fail("header %s: the grid is too large", path.c_str());
    return grid;
}

// sbas-ts's placement of a coordinate: the nearest sample, half away from zero.
int64_t nearest(double coordinate, double first, double step)
{
    const double index = std::round((coordinate - first) / step);
    if (!std::isfinite(index) || std::fabs(index) > 9.0e18) return -1;
    return static_cast<int64_t>(index);
}

bool on_grid(const Grid& grid, int64_t row, int64_t col)
{
    return row >= 0 && row < grid.length && col >= 0 && col < grid.width;
}

}  // namespace

bool is_folder(const std::string& path)
{
    struct stat info {};
    return !path.empty() && stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool is_file(const std::string& path)
{
    struct stat info {};
    return !path.empty() && stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
           access(path.c_str(), R_OK) == 0;
}

std::string folder_of(const std::string& path)
{
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string resolve(const std::string& folder, const std::string& path)
{
    if (path.empty() || path[0] == '/' || folder.empty()) return path;
    return folder + "/" + path;
}

Job read_job(const std::string& path)
{
    const CFG settings = read_configuration(path);
    const std::string folder = folder_of(path);
    Job job;
    job.config = path;
    job.resultfolder = resolve(folder, settings.resultfolder);
    job.headerfile = resolve(folder, settings.headerfile);
    job.filelist = resolve(folder, settings.filelist);
    job.datafolder = resolve(folder, settings.datafolder);
    job.baselines = resolve(folder, settings.baselines);
    job.switches = Switches{settings.temporal_constraint, settings.if_est_hgt,        settings.if_check_loop_closure,
                            settings.if_remove_orbit,     settings.if_remove_eds,     settings.if_inverse_time_series,
                            settings.if_apply_filter,     settings.if_stacking,       settings.minimum_temporal_ifg_ratio};
    job.wavelength = settings.wavelength;
    job.grid = read_grid(job.headerfile);
    job.ref_row = settings.ref_row;
    job.ref_col = settings.ref_col;
    if (settings.ref_lat >= -90 && settings.ref_lat <= 90 && settings.ref_lon >= -180 && settings.ref_lon <= 180) {
        job.ref_row = nearest(settings.ref_lat, job.grid.y_first, job.grid.y_step);
        job.ref_col = nearest(settings.ref_lon, job.grid.x_first, job.grid.x_step);
    }
    return job;
}

std::vector<Pair> read_pairs(const std::string& path)
{
    if (path.empty()) fail("the configuration names no filelist");
    if (!is_file(path)) fail("interferogram list %s is not a readable file", path.c_str());
    CFG list;
    const lib::Status read = com::readfilenamelist(&list, path.c_str());
    // sbas-ts's message names the line's name; this one names the file too.
    if (!read.ok()) fail("interferogram list %s: %s", path.c_str(), read.error().message.c_str());
    if (list.ifg_names.empty()) fail("interferogram list %s is empty", path.c_str());
    std::vector<Pair> pairs;
    for (size_t k = 0; k < list.ifg_names.size(); ++k)
        pairs.push_back(Pair{list.ifg_names[k], list.ifg_date1[k], list.ifg_date2[k]});
    return pairs;
}

std::vector<std::string> read_names(const std::string& path)
{
    std::vector<std::string> names;
    if (!is_file(path)) return names;
    FILE* file = open_text(path, "list");
    const lib::Status read = lib::for_each_line(file, path.c_str(), true, [&](char* line) {
        char name[lib::kFieldBytes];
        lib::substr(name, line, 1);
        if (std::strcmp(name, " ") != 0) names.emplace_back(name);
    });
    std::fclose(file);
    if (!read.ok()) fail("%s", read.error().message.c_str());
    return names;
}

std::vector<Pair> pairs_used(const Job& job, const std::string& result_dir)
{
    const std::string used = result_dir + "/filelist_used";
    return read_pairs(is_file(used) ? used : job.filelist);
}

std::vector<int> dates_of(const std::vector<Pair>& pairs)
{
    std::vector<int> dates;
    for (const Pair& pair : pairs) {
        dates.push_back(pair.date1);
        dates.push_back(pair.date2);
    }
    std::sort(dates.begin(), dates.end());
    dates.erase(std::unique(dates.begin(), dates.end()), dates.end());
    return dates;
}

int64_t day_number(int date)
{
    using namespace std::chrono;
    const year_month_day ymd{year{date / 10000}, month{static_cast<unsigned>(date / 100 % 100)},
                             day{static_cast<unsigned>(date % 100)}};
    if (date < 0 || !ymd.ok()) fail("%d is not a calendar date", date);
    return sys_days(ymd).time_since_epoch().count();
}

std::string iso_date(int date)
{
    char text[16];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d", date / 10000 % 10000, date / 100 % 100, date % 100);
    return text;
}

Reference reference_of(const Job& job, const std::string& result_dir)
{
    Reference reference;
    if (job.ref_row != 0 || job.ref_col != 0) {
        reference = {on_grid(job.grid, job.ref_row, job.ref_col), job.ref_row, job.ref_col};
        return reference;
    }
    const std::string report = result_dir + "/refpoint";
    if (!is_file(report)) return reference;
    FILE* file = open_text(report, "reference report");
    long long row = -1;
    long long col = -1;
    const lib::Status read = lib::for_each_line(file, report.c_str(), true, [&](char* line) {
        std::sscanf(line, "refpoint row: %lld", &row);
        std::sscanf(line, "refpoint col: %lld", &col);
    });
    std::fclose(file);
    if (!read.ok()) fail("%s", read.error().message.c_str());
    reference = {on_grid(job.grid, row, col), row, col};
    return reference;
}

}  // namespace view
