// One raster as a GeoTIFF, through GDAL.
//
// The header's X_FIRST, Y_FIRST locate the first pixel's sample, which
// sbas-ts treats as the pixel's centre (the sample of column j lies at
// X_FIRST + j X_STEP, and a reference given by latitude and longitude goes
// to the nearest sample). A GDAL geotransform locates the outer corner of
// the first pixel, so its origin is half a step before the sample:
// (X_FIRST - X_STEP/2, Y_FIRST - Y_STEP/2), and the file says
// AREA_OR_POINT=Area. A GIS then puts each pixel's centre exactly on the
// header's sample.
//
// The samples are handed to GDAL in place (a MEM band over the caller's
// buffer) and copied once by the COG driver, which writes the tiles,
// compression and, for large grids, overviews.
#include <cpl_conv.h>
#include <cpl_error.h>
#include <gdal.h>
#include <ogr_srs_api.h>

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <string>

#include "common/gdal_start.h"
#include "view/fail.h"
#include "view/outputs.h"

namespace view {
namespace {

void set_item(GDALMajorObjectH object, const char* key, const std::string& value)
{
    GDALSetMetadataItem(object, key, value.c_str(), nullptr);
}

std::string number(double value, const char* format = "%.10g")
{
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}


}  // namespace

void write_geotiff(const std::string& path, std::vector<float>& values, const Quantity& q, const Provenance& p)
{
    tools::start_gdal();
    const Grid& grid = p.job->grid;

    GDALDriverH mem = GDALGetDriverByName("MEM");
    GDALDatasetH source = GDALCreate(mem, "", static_cast<int>(grid.width), static_cast<int>(grid.length), 0,
                                     GDT_Float32, nullptr);
    if (!source) fail("GDAL cannot hold a %lld x %lld raster: %s", static_cast<long long>(grid.width),
                      static_cast<long long>(grid.length), CPLGetLastErrorMsg());
    char pointer[64];
    std::snprintf(pointer, sizeof pointer, "DATAPOINTER=%" PRIuPTR, reinterpret_cast<uintptr_t>(values.data()));
    char* band_options[] = {pointer, nullptr};
    if (GDALAddBand(source, GDT_Float32, band_options) != CE_None) fail("GDAL: %s", CPLGetLastErrorMsg());

    double transform[6] = {grid.x_first - grid.x_step / 2, grid.x_step, 0,
                           grid.y_first - grid.y_step / 2, 0, grid.y_step};
    GDALSetGeoTransform(source, transform);
    OGRSpatialReferenceH wgs84 = OSRNewSpatialReference(nullptr);
    if (OSRImportFromEPSG(wgs84, 4326) != OGRERR_NONE) fail("GDAL cannot find EPSG:4326 (is proj-data installed?)");
    OSRSetAxisMappingStrategy(wgs84, OAMS_TRADITIONAL_GIS_ORDER);
    GDALSetSpatialRef(source, wgs84);
    OSRDestroySpatialReference(wgs84);

    const std::string unit = unit_label(q, p.unit);
    GDALRasterBandH band = GDALGetRasterBand(source, 1);
    GDALSetRasterNoDataValue(band, std::nan(""));
    GDALSetRasterUnitType(band, unit.c_str());
    GDALSetDescription(band, q.description.c_str());

    set_item(source, "AREA_OR_POINT", "Area");
    set_item(source, "TITLE", q.description);
    set_item(source, "SOURCE", "sbas-ts result " + q.name + " (float32, " + q.base_unit + ")");
    set_item(source, "UNITS", unit);
    set_item(source, "NODATA", "NaN (written as 0 or NaN by sbas-ts)");
    set_item(source, "PIXEL_REGISTRATION",
             "header X_FIRST, Y_FIRST is the centre of the first pixel; the geotransform gives its corner");
    if (q.scale == Scale::phase) set_item(source, "SIGN_CONVENTION", kSignConvention);
    if (q.scale != Scale::fixed) {
        set_item(source, "WAVELENGTH_M", number(p.job->wavelength));
        if (p.unit != Unit::rad) set_item(source, "CONVERSION", "distance = phase * wavelength / (4 pi)");
    }
    if (q.date != 0) {
        set_item(source, "DATE", iso_date(q.date));
        set_item(source, "FIRST_DATE", iso_date(q.first_date));
    }
    if (p.reference.known)
        set_item(source, "REFERENCE_PIXEL",
                 "row " + std::to_string(p.reference.row) + ", col " + std::to_string(p.reference.col) + " (lon " +
                     number(grid.lon(p.reference.col), "%.6f") + ", lat " + number(grid.lat(p.reference.row), "%.6f") +
                     ")");

    GDALDriverH cog = GDALGetDriverByName("COG");
    const char* cog_options[] = {"COMPRESS=DEFLATE", "PREDICTOR=YES", "OVERVIEW_RESAMPLING=AVERAGE", nullptr};
    const char* tiff_options[] = {"COMPRESS=DEFLATE", "PREDICTOR=3", "TILED=YES", nullptr};
    GDALDriverH driver = cog ? cog : GDALGetDriverByName("GTiff");
    CPLErrorReset();
    GDALDatasetH copy = GDALCreateCopy(driver, path.c_str(), source, FALSE,
                                       const_cast<char**>(cog ? cog_options : tiff_options), nullptr, nullptr);
    if (copy) GDALClose(copy);
    const bool written = copy && CPLGetLastErrorType() != CE_Failure;
    const std::string message = CPLGetLastErrorMsg();
    GDALClose(source);
    if (!written) fail("cannot write %s: %s", path.c_str(), message.c_str());
}

}  // namespace view
