// sbas-prep: a folder of geocoded unwrapped-phase rasters, or an
// ifgramStack.h5 of the HDF5 layout, turned into a job sbas-ts runs as it
// is. Plain records shared by the steps; each step lives in its own file.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace prep {

// A north-up (or any axis-aligned) longitude/latitude grid. x0, y0 are the
// outer CORNER of the first pixel, as in a GDAL geotransform; the sample of
// column j is the pixel centre x0 + (j + 0.5) dx. The header sbas-ts reads
// holds the centres (centre_x(), centre_y()).
struct Grid {
    int64_t width = 0;
    int64_t length = 0;
    double x0 = 0;
    double y0 = 0;
    double dx = 0;
    double dy = 0;
    double centre_x() const { return x0 + dx / 2; }
    double centre_y() const { return y0 + dy / 2; }
    bool operator==(const Grid&) const = default;
};

// What a file under the source folder was taken for, by its name.
enum class Kind { unwrapped, coherence, wrapped, amplitude, dem, conncomp, other_raster, sidecar };
inline constexpr int kKinds = 8;
const char* kind_label(Kind kind);

// One interferogram as the job will hold it.
struct Pair {
    int date1 = 0;             // yyyymmdd, first in the source's name
    int date2 = 0;
    std::string source;        // file it comes from (the .h5 for a stack)
    int layer = -1;            // index in the stack's unwrapPhase; -1 for a raster file
    std::optional<double> bperp;
    std::string name() const;  // geo_<date1>_<date2>.unw
};

// A value read from the source's metadata, with where it came from.
struct Found {
    double value = 0;
    std::string where;
};

// Everything needed to write the job, gathered before anything is written.
struct Plan {
    std::string source;               // as given
    std::string source_kind;          // "raster folder" or "HDF5 stack"
    std::vector<Pair> pairs;          // sorted by dates
    std::vector<std::string> inputs;  // every file that will be read
    Grid grid;
    int counts[kKinds] = {};          // files by kind (folder sources)
    int dropped = 0;                  // pairs the stack marks as left out
    std::vector<std::string> notes;   // regridding and similar, for the summary
    std::optional<Found> wavelength;  // from the source's metadata
};

// Command line.
struct Options {
    std::string source;
    std::string out;
    std::string pattern;
    std::string dem;
    std::optional<double> wavelength;
};

// The pair of dates a name holds (the first two yyyymmdd groups, by the rule
// sbas-ts uses for its list), or nullopt when it holds fewer than two.
std::optional<std::pair<int, int>> dates_in(const std::string& name);

// Folder source: scans `o.source` recursively and reads every chosen
// raster's georeferencing and metadata (scan.cpp, rasters.cpp).
Plan plan_folder(const Options& o);
Kind kind_of(const std::string& file_name);

// HDF5 stack source (stack.cpp). True when `path` is an HDF5 file.
bool is_hdf5(const std::string& path);
Plan plan_stack(const Options& o);
// The samples of stack layer `layer`, no data as 0.
std::vector<float> read_stack_layer(const std::string& path, int layer, const Grid& grid);

// Raster files through GDAL (rasters.cpp).
struct RasterInfo {
    Grid grid;               // in longitude/latitude (after warping)
    bool warped = false;     // the file is in another coordinate system
    std::string crs;         // its coordinate system's name
    std::optional<Found> wavelength;
    std::optional<double> bperp;
};
RasterInfo inspect_raster(const std::string& path);
// The file's samples put on `target` by nearest neighbour; NaN, infinities,
// the file's no-data value, 0 and pixels outside the file become 0.
std::vector<float> read_on_grid(const std::string& path, const Grid& target);

// The common grid of several grids (grid.cpp): the first one when all are
// equal, else the union of their extents at the first grid's spacing and
// aligned with it. Ends with a message when a grid does not overlap the
// first one or the union is too large.
Grid common_grid(const std::vector<Grid>& grids, const std::vector<std::string>& names);
// True when the two grids' extents overlap.
bool overlap(const Grid& a, const Grid& b);
// Nearest-neighbour resampling of `samples` on `from` onto `to`; samples
// outside `from` are 0.
std::vector<float> resample(const std::vector<float>& samples, const Grid& from, const Grid& to);

// Writing the job (job.cpp). Refuses, before writing, an output folder that
// is or lies inside an input folder, holds an input, or is not empty, and
// paths sbas-ts's configuration cannot hold.
struct Written {
    std::string folder, config, result;
    bool baselines = false;
    double wavelength = 0;
    std::string wavelength_from;
};
Written write_job(const Plan& plan, const Options& o);

// Summary on standard output (summary.cpp).
void print_summary(const Plan& plan, const Options& o, const Written& w);

}  // namespace prep
