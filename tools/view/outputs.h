// The two file formats of `sbas-view export`.
#pragma once

#include <string>
#include <vector>

#include "view/determined.h"
#include "view/job.h"
#include "view/rasters.h"

namespace view {

// What goes into every exported file's metadata besides the values.
struct Provenance {
    const Job* job = nullptr;
    Reference reference;
    Unit unit = Unit::rad;
    const Determination* blank = nullptr;  // undetermined pixels to write as NaN; none when null
};

// Writes `values` (one per pixel, no data already NaN, already in `unit`) as a
// GeoTIFF at `path`: Cloud-Optimised when GDAL has the COG driver, else tiled;
// float32, deflate-compressed, WGS 84 longitude/latitude, the geotransform
// of the grid's pixel corners, no-data NaN, unit and description on the band.
void write_geotiff(const std::string& path, std::vector<float>& values, const Quantity& q, const Provenance& p);

// Writes the displacement history as a NetCDF-4 CF cube at `path`: variable
// "displacement" (time, lat, lon) from the maps result_dir/culmap-*.disp of
// `dates` (the first date is 0 where any later map holds data), and
// "displacement_filtered" from the ".filtered" maps when `filtered`.
void write_cube(const std::string& path, const std::string& result_dir, const std::vector<int>& dates,
                bool filtered, const Provenance& p);

// Reads the raster at `path`, marks its no data NaN and converts it to `unit`;
// when `blank` is given and the quantity comes from the inversion, its
// undetermined pixels become NaN too.
std::vector<float> load_converted(const std::string& path, const Quantity& q, const Grid& grid, Unit unit,
                                  double wavelength, const Determination* blank = nullptr);

}  // namespace view
