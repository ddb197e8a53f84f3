// The rasters of a result folder: what each one holds, in which unit, which
// of its samples are no data, and how it converts to a distance.
//
// sbas-ts writes headerless float32 rasters in radians of phase (rates in
// radians per year), the DEM error in metres, and unitless loop-closure
// ratios and masks. A phase converts to a line-of-sight distance with the
// job's wavelength: distance = phase * wavelength / (4 pi). No sign is
// changed: positive values stay positive (see kSignConvention).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "view/job.h"

namespace view {

// The output units a user can ask for.
enum class Unit { rad, mm, m };

// Parses "rad", "mm" or "m"; a usage error otherwise.
Unit parse_unit(const std::string& text);

// How --unit acts on a raster.
enum class Scale {
    phase,   // signed phase or phase rate: converted, sign convention applies
    spread,  // a scatter of phase (sigma, residual): converted, never negative
    fixed,   // metres, ratios, masks, closure scatter: kept as written
};

// What one raster of a result folder holds.
struct Quantity {
    std::string name;         // file name, e.g. "linear_mean_velocity"
    std::string description;  // a phrase for titles and metadata
    std::string base_unit;    // unit as written: "rad", "rad/yr", "m", "1"
    bool rate = false;        // per year
    Scale scale = Scale::fixed;
    bool zero_is_nodata = true;  // the no-data rule of sbas-ts; false for masks and ratios
    bool signed_values = true;   // drawn on a diverging scale centred on 0
    int date = 0;                // culmap: the map's date, yyyymmdd
    int first_date = 0;          // culmap: the first date
    bool filtered = false;       // a ".filtered" version
    bool inversion = false;      // estimated by the network inversion (or filtered from it)
};

// The quantity of a file name of a result folder (a path's last component is
// used), or nothing for a name sbas-ts does not write.
std::optional<Quantity> quantity_of(const std::string& path);

// The unit label of a quantity in `unit` ("mm/yr", "rad", "m", "1").
std::string unit_label(const Quantity& q, Unit unit);

// The factor from the written value to `unit` (1 for fixed quantities).
double unit_factor(const Quantity& q, Unit unit, double wavelength);

// The sign convention, as written into the files' metadata.
extern const char* const kSignConvention;

// True when a sample holds data for this quantity: sbas-ts's rule (not NaN,
// not infinite, magnitude at least 1e-8) for estimates; finite for masks
// and ratios, whose 0 is a value.
bool holds_data(const Quantity& q, float sample);

// Reads the whole raster at `path`, checking that it holds exactly one float32
// sample per pixel of `grid`.
std::vector<float> read_raster(const std::string& path, const Grid& grid);

// Checks the size as read_raster does, without reading.
void check_raster(const std::string& path, const Grid& grid);

// The sample of one pixel of the raster at `path` (size checked).
float read_pixel(const std::string& path, const Grid& grid, int64_t row, int64_t col);

// Samples [first, first + count) of the raster at `path`, read by sbas-ts's
// reader (com::read_raster); a missing or short file ends sbas-view.
void read_samples(const std::string& path, int64_t first, int64_t count, float* out);

// The name of the displacement map of `date` ("culmap-DATE-FIRST.disp").
std::string culmap_name(int date, int first_date);

}  // namespace view
