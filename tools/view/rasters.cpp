// The catalogue of result rasters and their reading.
//
// A raster is recognised by its file name alone; a name sbas-ts does not
// write is not a result. Reading checks the file's size against the grid
// before anything is allocated: a raster of another grid is reported, never
// read past or padded.
#include "view/rasters.h"

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <numbers>

#include "catalogue/raster.h"
#include "numerics/validity.h"
#include "view/fail.h"

namespace view {
namespace {

struct Entry {
    const char* name;
    const char* description;
    const char* base_unit;
    bool rate;
    Scale scale;
    bool zero_is_nodata;
    bool signed_values;
    bool has_filtered;  // sbas-ts's filters also write name + ".filtered"
};

const Entry kEntries[] = {
    {"linear_mean_velocity", "mean line-of-sight velocity", "rad/yr", true, Scale::phase, true, true, true},
    {"least_square_sigma", "RMS of the interferogram residuals of the inversion", "rad", false, Scale::spread, true,
     false, false},
    {"baseline_dependent_dem_error", "DEM error", "m", false, Scale::fixed, true, true, false},
    {"linear_stacking_mean_velocity", "mean line-of-sight velocity by linear stacking", "rad/yr", true, Scale::phase,
     true, true, true},
    {"linear_stacking_mean_velocity_residual", "residual scatter of the linear stacking fit", "rad", false,
     Scale::spread, true, false, false},
    {"linear_stacking_mean_velocity_sigma", "standard error of the linear stacking velocity", "rad/yr", true,
     Scale::spread, true, false, false},
    {"phase_loop_closure_std", "standard deviation of the phase loop closure", "rad", false, Scale::fixed, true, false,
     false},
    {"phase_loop_closure_failed_ratio", "share of loops whose closure exceeds the threshold", "1", false, Scale::fixed,
     false, false, false},
    {"phase_loop_closure_mask", "loop-closure mask (1 fails the test, 0 passes)", "1", false, Scale::fixed, false,
     false, false},
};

const char* const kFilteredSuffix = ".filtered";

bool ends_with(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// "culmap-DATE-FIRST.disp": both dates eight digits, as sbas-ts writes them.
bool parse_culmap(const std::string& name, int& date, int& first)
{
    if (name.size() != 29 || name.compare(0, 7, "culmap-") != 0 || name[15] != '-' ||
        name.compare(24, 5, ".disp") != 0)
        return false;
    for (size_t i : {7u, 16u})
        for (size_t k = 0; k < 8; ++k)
            if (name[i + k] < '0' || name[i + k] > '9') return false;
    date = std::stoi(name.substr(7, 8));
    first = std::stoi(name.substr(16, 8));
    return true;
}

void check_size(const std::string& path, const Grid& grid)
{
    std::error_code error;
    if (!is_file(path)) fail("raster %s is not a readable file", path.c_str());
    const uintmax_t bytes = std::filesystem::file_size(path, error);
    const uintmax_t expected = static_cast<uintmax_t>(grid.pixels()) * 4;
    if (error || bytes != expected)
        fail("raster %s has %ju bytes, but the header's grid (%lld columns x %lld rows of float32) needs %ju",
             path.c_str(), static_cast<uintmax_t>(bytes), static_cast<long long>(grid.width),
             static_cast<long long>(grid.length), expected);
}

}  // namespace

const char* const kSignConvention =
    "values have the sign of the unwrapped phase (no sign change); for interferograms whose phase grows with "
    "slant range, positive means range increase, i.e. motion away from the satellite (e.g. subsidence)";

Unit parse_unit(const std::string& text)
{
    if (text == "rad") return Unit::rad;
    if (text == "mm") return Unit::mm;
    if (text == "m") return Unit::m;
    usage_error("--unit must be rad, mm or m, not '%s'", text.c_str());
}

std::optional<Quantity> quantity_of(const std::string& path)
{
    std::string name = path.substr(path.find_last_of('/') == std::string::npos ? 0 : path.find_last_of('/') + 1);
    Quantity q;
    q.name = name;
    if (ends_with(name, kFilteredSuffix)) {
        q.filtered = true;
        name.resize(name.size() - std::char_traits<char>::length(kFilteredSuffix));
    }
    if (parse_culmap(name, q.date, q.first_date)) {
        q.description = "line-of-sight displacement since the first date";
        q.inversion = true;
        q.base_unit = "rad";
        q.scale = Scale::phase;
    } else {
        const Entry* found = nullptr;
        for (const Entry& e : kEntries)
            if (name == e.name && (!q.filtered || e.has_filtered)) found = &e;
        if (!found) return std::nullopt;
        q.description = found->description;
        q.base_unit = found->base_unit;
        q.rate = found->rate;
        q.scale = found->scale;
        q.zero_is_nodata = found->zero_is_nodata;
        q.inversion = name == "linear_mean_velocity" || name == "least_square_sigma" ||
                      name == "baseline_dependent_dem_error";
        q.signed_values = found->signed_values;
    }
    if (q.filtered) q.description += ", filtered";
    return q;
}

std::string unit_label(const Quantity& q, Unit unit)
{
    if (q.scale == Scale::fixed || unit == Unit::rad) return q.base_unit;
    return std::string(unit == Unit::mm ? "mm" : "m") + (q.rate ? "/yr" : "");
}

double unit_factor(const Quantity& q, Unit unit, double wavelength)
{
    if (q.scale == Scale::fixed || unit == Unit::rad) return 1.0;
    if (!(wavelength > 0 && std::isfinite(wavelength)))
        fail("the configuration's wavelength %g m cannot convert phase to distance", wavelength);
    const double metres = wavelength / (4.0 * std::numbers::pi);
    return unit == Unit::mm ? metres * 1000.0 : metres;
}

bool holds_data(const Quantity& q, float sample)
{
    return q.zero_is_nodata ? lib::isvalid(sample) : std::isfinite(sample);
}

void check_raster(const std::string& path, const Grid& grid) { check_size(path, grid); }

std::vector<float> read_raster(const std::string& path, const Grid& grid)
{
    check_size(path, grid);
    std::vector<float> samples(static_cast<size_t>(grid.pixels()));
    read_samples(path, 0, grid.pixels(), samples.data());
    return samples;
}

float read_pixel(const std::string& path, const Grid& grid, int64_t row, int64_t col)
{
    check_size(path, grid);
    float sample = 0;
    read_samples(path, row * grid.width + col, 1, &sample);
    return sample;
}

void read_samples(const std::string& path, int64_t first, int64_t count, float* out)
{
    const lib::Status read = com::read_raster(path.c_str(), first, count, out);
    if (!read.ok()) fail("cannot read raster %s: %s", path.c_str(), read.error().message.c_str());
}

std::string culmap_name(int date, int first_date)
{
    return "culmap-" + std::to_string(date) + "-" + std::to_string(first_date) + ".disp";
}

}  // namespace view
