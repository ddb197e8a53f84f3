// What sbas-view needs to know about a job: the few configuration keys that
// locate its files and describe its geometry, the raster grid, the
// interferogram list, the acquisition dates and the reference point.
//
// Every reader here ends the process through view::fail (status 1, one
// message naming the file) on a missing or malformed input; none of them
// ever ends a run with status 0 the way sbas-ts does.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace view {

// The raster grid of the job's header. A pixel's sample (its centre) lies at
// longitude x_first + col * x_step, latitude y_first + row * y_step.
struct Grid {
    int64_t width = 0;   // columns
    int64_t length = 0;  // rows
    double x_first = 0, y_first = 0, x_step = 0, y_step = 0;  // degrees

    int64_t pixels() const { return width * length; }
    double lon(double col) const { return x_first + col * x_step; }
    double lat(double row) const { return y_first + row * y_step; }
};

// The switches of a run that tell which stages ran and how a pixel is
// estimated, with sbas-ts's defaults.
struct Switches {
    int temporal_constraint = 0;  // 0 none, 1 linear, 2 logarithmic
    int if_est_hgt = 0;           // 1: a DEM-error unknown per pixel
    int if_check_loop_closure = 1;
    int if_remove_orbit = 0;
    int if_remove_eds = 0;
    int if_inverse_time_series = 0;
    int if_apply_filter = 1;
    int if_stacking = 0;
    float minimum_temporal_ifg_ratio = 0.5f;  // a float, as sbas-ts holds it
};

// The configuration keys sbas-view reads, with sbas-ts's defaults. Paths are
// already resolved: a relative path in the file is taken relative to the
// folder that holds the configuration file (the folder sbas-ts is usually
// run from), so the viewer can be started from anywhere.
struct Job {
    std::string config;        // the configuration file as given
    std::string resultfolder;  // resolved paths; empty when the key is absent
    std::string headerfile;
    std::string filelist;
    std::string datafolder;
    std::string baselines;
    double wavelength = 0;  // metres, as written in the configuration
    int64_t ref_row = 0;    // the given reference pixel; (0, 0) means none given
    int64_t ref_col = 0;
    Switches switches;
    Grid grid;
};

// Reads the configuration at `path` and the header it names, and checks the
// grid (sizes at least 1, finite non-zero steps, no overflow of the pixel
// count). A reference given as ref_lat/ref_lon is placed on the grid as
// sbas-ts places it (nearest sample).
Job read_job(const std::string& path);

// One interferogram of a list: its name and its two dates (yyyymmdd).
struct Pair {
    std::string name;
    int date1 = 0;
    int date2 = 0;
};

// The list file at `path`, read with sbas-ts's line rules; a line without
// two dates (a blank line included) is an error.
std::vector<Pair> read_pairs(const std::string& path);

// The names listed in `path`, one per line (result/filelist_deleted); an
// absent file gives none.
std::vector<std::string> read_names(const std::string& path);

// The list a run of sbas-ts ended with: result/filelist_used when the
// loop-closure check wrote it, else the configuration's list.
std::vector<Pair> pairs_used(const Job& job, const std::string& result_dir);

// The distinct dates of the pairs, ascending.
std::vector<int> dates_of(const std::vector<Pair>& pairs);

// Days since 1970-01-01 of a yyyymmdd date; ends with a message naming the
// date when it is not a calendar date.
int64_t day_number(int date);

// "yyyy-mm-dd".
std::string iso_date(int date);

// The reference pixel of a run: the one the configuration gives, else the one
// sbas-ts chose and wrote to result_dir/refpoint. `known` is false when
// neither exists (the scene-mean reference, ref_method 1).
struct Reference {
    bool known = false;
    int64_t row = 0;
    int64_t col = 0;
};
Reference reference_of(const Job& job, const std::string& result_dir);

// True when `path` names an existing folder / a readable regular file.
bool is_folder(const std::string& path);
bool is_file(const std::string& path);

// The folder part of `path` ("." when it has none).
std::string folder_of(const std::string& path);

// `path` when absolute, else folder "/" path.
std::string resolve(const std::string& folder, const std::string& path);

}  // namespace view
