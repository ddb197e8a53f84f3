// The displacement history as one NetCDF-4 file following the CF
// conventions, which xarray, QGIS (through GDAL) and Panoply open as a cube.
//
// Axes: time, the acquisition dates as "days since FIRSTDATE" on the
// standard calendar; lat and lon, the pixel centres (the header's samples),
// latitude descending as the rows go. The first date is a layer of its own:
// the displacement there is 0 by definition, written for every pixel that
// holds data at some later date and left as fill elsewhere. The maps are
// written one date at a time, so memory holds one map whatever the length
// of the series. Chunks are one date by at most 512 x 512 pixels.
#include <cpl_conv.h>
#include <netcdf.h>
#include <ogr_srs_api.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "view/fail.h"
#include "view/outputs.h"

namespace view {
namespace {

struct Cube {
    std::string path;
    int id = -1;

    void check(int status) const
    {
        if (status != NC_NOERR) fail("cannot write %s: %s", path.c_str(), nc_strerror(status));
    }
    void text(int var, const char* name, const std::string& value) const
    {
        check(nc_put_att_text(id, var, name, value.size(), value.c_str()));
    }
    void real(int var, const char* name, double value) const
    {
        check(nc_put_att_double(id, var, name, NC_DOUBLE, 1, &value));
    }
    void integer(int var, const char* name, long long value) const
    {
        check(nc_put_att_longlong(id, var, name, NC_INT, 1, &value));
    }
};

std::string wgs84_wkt()
{
    OGRSpatialReferenceH srs = OSRNewSpatialReference(nullptr);
    std::string wkt;
    char* text = nullptr;
    if (OSRImportFromEPSG(srs, 4326) == OGRERR_NONE && OSRExportToWkt(srs, &text) == OGRERR_NONE) wkt = text;
    CPLFree(text);
    OSRDestroySpatialReference(srs);
    return wkt;
}

// Defines a displacement variable of the cube.
int define_displacement(const Cube& cube, const char* name, const int dims[3], const size_t chunks[3],
                        const std::string& long_name, const std::string& unit, const Provenance& p)
{
    int var = -1;
    cube.check(nc_def_var(cube.id, name, NC_FLOAT, 3, dims, &var));
    cube.check(nc_def_var_chunking(cube.id, var, NC_CHUNKED, chunks));
    cube.check(nc_def_var_deflate(cube.id, var, 1, 1, 4));
    const float fill = std::nanf("");
    cube.check(nc_def_var_fill(cube.id, var, 0, &fill));
    cube.text(var, "long_name", long_name);
    cube.text(var, "units", unit);
    cube.text(var, "grid_mapping", "crs");
    cube.text(var, "sign_convention", kSignConvention);
    if (p.unit != Unit::rad) cube.text(var, "conversion", "distance = phase * wavelength / (4 pi)");
    cube.real(var, "radar_wavelength_m", p.job->wavelength);
    return var;
}

// Writes the maps of dates 1.. of `suffix` ("" or ".filtered") into `var`,
// then the first date's layer.
void write_history(const Cube& cube, int var, const std::string& result_dir, const std::vector<int>& dates,
                   const std::string& suffix, const Provenance& p)
{
    const Grid& grid = p.job->grid;
    std::vector<unsigned char> has_data(static_cast<size_t>(grid.pixels()), 0);
    size_t start[3] = {0, 0, 0};
    const size_t count[3] = {1, static_cast<size_t>(grid.length), static_cast<size_t>(grid.width)};
    for (size_t k = 1; k < dates.size(); ++k) {
        const std::string name = culmap_name(dates[k], dates[0]) + suffix;
        const Quantity q = *quantity_of(name);
        const std::vector<float> map = load_converted(result_dir + "/" + name, q, grid, p.unit, p.job->wavelength, p.blank);
        for (size_t i = 0; i < map.size(); ++i) has_data[i] |= !std::isnan(map[i]);
        start[0] = k;
        cube.check(nc_put_vara_float(cube.id, var, start, count, map.data()));
    }
    std::vector<float> first(has_data.size());
    for (size_t i = 0; i < first.size(); ++i) first[i] = has_data[i] ? 0.0f : std::nanf("");
    start[0] = 0;
    cube.check(nc_put_vara_float(cube.id, var, start, count, first.data()));
}

}  // namespace

void write_cube(const std::string& path, const std::string& result_dir, const std::vector<int>& dates,
                bool filtered, const Provenance& p)
{
    const Grid& grid = p.job->grid;
    Cube cube{path};
    cube.check(nc_create(path.c_str(), NC_CLOBBER | NC_NETCDF4, &cube.id));

    int dims[3];
    cube.check(nc_def_dim(cube.id, "time", dates.size(), &dims[0]));
    cube.check(nc_def_dim(cube.id, "lat", static_cast<size_t>(grid.length), &dims[1]));
    cube.check(nc_def_dim(cube.id, "lon", static_cast<size_t>(grid.width), &dims[2]));
    int time = -1, lat = -1, lon = -1, crs = -1;
    cube.check(nc_def_var(cube.id, "time", NC_DOUBLE, 1, &dims[0], &time));
    cube.check(nc_def_var(cube.id, "lat", NC_DOUBLE, 1, &dims[1], &lat));
    cube.check(nc_def_var(cube.id, "lon", NC_DOUBLE, 1, &dims[2], &lon));
    cube.check(nc_def_var(cube.id, "crs", NC_INT, 0, nullptr, &crs));

    const std::string first = iso_date(dates[0]);
    cube.text(time, "standard_name", "time");
    cube.text(time, "long_name", "acquisition date");
    cube.text(time, "units", "days since " + first + " 00:00:00");
    cube.text(time, "calendar", "standard");
    cube.text(time, "axis", "T");
    cube.text(lat, "standard_name", "latitude");
    cube.text(lat, "long_name", "latitude of the pixel centre");
    cube.text(lat, "units", "degrees_north");
    cube.text(lat, "axis", "Y");
    cube.text(lon, "standard_name", "longitude");
    cube.text(lon, "long_name", "longitude of the pixel centre");
    cube.text(lon, "units", "degrees_east");
    cube.text(lon, "axis", "X");
    cube.text(crs, "grid_mapping_name", "latitude_longitude");
    cube.real(crs, "longitude_of_prime_meridian", 0.0);
    cube.real(crs, "semi_major_axis", 6378137.0);
    cube.real(crs, "inverse_flattening", 298.257223563);
    const std::string wkt = wgs84_wkt();
    if (!wkt.empty()) {
        cube.text(crs, "crs_wkt", wkt);
        cube.text(crs, "spatial_ref", wkt);
    }

    const size_t chunks[3] = {1, std::min<size_t>(static_cast<size_t>(grid.length), 512),
                              std::min<size_t>(static_cast<size_t>(grid.width), 512)};
    const Quantity q = *quantity_of(culmap_name(dates[1], dates[0]));
    const std::string unit = unit_label(q, p.unit);
    const int raw = define_displacement(cube, "displacement", dims, chunks,
                                        "line-of-sight displacement since " + first, unit, p);
    const int smooth = filtered ? define_displacement(cube, "displacement_filtered", dims, chunks,
                                                      "filtered line-of-sight displacement since " + first, unit, p)
                                : -1;

    cube.text(NC_GLOBAL, "Conventions", "CF-1.8");
    cube.text(NC_GLOBAL, "title", "Line-of-sight displacement history");
    cube.text(NC_GLOBAL, "source", "sbas-ts small-baseline time series, result folder " + result_dir);
    cube.text(NC_GLOBAL, "history", "written by sbas-view export");
    cube.text(NC_GLOBAL, "first_date", first);
    cube.text(NC_GLOBAL, "sign_convention", kSignConvention);
    cube.text(NC_GLOBAL, "pixel_registration",
              "lat and lon are pixel centres: the header's X_FIRST, Y_FIRST is the centre of the first pixel");
    if (p.reference.known) {
        cube.integer(NC_GLOBAL, "reference_row", p.reference.row);
        cube.integer(NC_GLOBAL, "reference_col", p.reference.col);
        cube.real(NC_GLOBAL, "reference_lon", grid.lon(static_cast<double>(p.reference.col)));
        cube.real(NC_GLOBAL, "reference_lat", grid.lat(static_cast<double>(p.reference.row)));
    }
    if (p.blank && !p.blank->bridged) {
        cube.integer(NC_GLOBAL, "undetermined_pixels", p.blank->undetermined_count);
        cube.text(NC_GLOBAL, "undetermined_note",
                  "pixels whose valid interferograms do not connect all dates are fill values");
    }
    cube.check(nc_enddef(cube.id));

    std::vector<double> axis(dates.size());
    for (size_t k = 0; k < dates.size(); ++k)
        axis[k] = static_cast<double>(day_number(dates[k]) - day_number(dates[0]));
    cube.check(nc_put_var_double(cube.id, time, axis.data()));
    axis.resize(static_cast<size_t>(grid.length));
    for (size_t i = 0; i < axis.size(); ++i) axis[i] = grid.lat(static_cast<double>(i));
    cube.check(nc_put_var_double(cube.id, lat, axis.data()));
    axis.resize(static_cast<size_t>(grid.width));
    for (size_t j = 0; j < axis.size(); ++j) axis[j] = grid.lon(static_cast<double>(j));
    cube.check(nc_put_var_double(cube.id, lon, axis.data()));

    write_history(cube, raw, result_dir, dates, "", p);
    if (filtered) write_history(cube, smooth, result_dir, dates, ".filtered", p);
    cube.check(nc_close(cube.id));
}

}  // namespace view
