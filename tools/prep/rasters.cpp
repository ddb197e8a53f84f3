// Raster files through GDAL: georeferencing, metadata, and the samples in
// WGS 84 longitude/latitude. A file in another coordinate system (UTM, say)
// is warped by GDAL (nearest neighbour) onto the grid GDAL suggests for it;
// files of one source grid thus land on one warped grid.
#include <cpl_conv.h>
#include <cpl_error.h>
#include <cpl_string.h>
#include <gdal.h>
#include <gdalwarper.h>
#include <ogr_srs_api.h>

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "common/gdal_start.h"
#include "prep/fail.h"
#include "prep/prep.h"

namespace fs = std::filesystem;

namespace prep {
namespace {

// A file opened in longitude/latitude: the file itself, or a warped view.
struct Opened {
    GDALDatasetH file = nullptr;
    GDALDatasetH view = nullptr;
    int band = 1;
    bool warped = false;
    std::string crs;
    Grid grid;
};

void close(Opened& o)
{
    if (o.view && o.view != o.file) GDALClose(o.view);
    if (o.file) GDALClose(o.file);
}

Opened open_lonlat(const std::string& path)
{
    tools::start_gdal();
    Opened o;
    o.file = GDALOpen(path.c_str(), GA_ReadOnly);
    if (!o.file) fail("cannot read %s: %s", path.c_str(), CPLGetLastErrorMsg());
    double gt[6];
    const bool georeferenced = GDALGetGeoTransform(o.file, gt) == CE_None;
    OGRSpatialReferenceH srs = GDALGetSpatialRef(o.file);
    if (!georeferenced || !srs)
        fail("%s has no georeferencing (radar coordinates?): sbas-ts needs geocoded rasters", path.c_str());
    if (GDALGetRasterCount(o.file) < 1) fail("%s holds no raster band", path.c_str());
    // Two-band ROI_PAC .unw files hold amplitude, then phase.
    GDALDriverH driver = GDALGetDatasetDriver(o.file);
    if (GDALGetRasterCount(o.file) == 2 && driver && std::string(GDALGetDriverShortName(driver)) == "ROI_PAC")
        o.band = 2;
    o.crs = OSRGetName(srs) ? OSRGetName(srs) : "an unnamed coordinate system";
    const char* code = OSRGetAuthorityCode(srs, nullptr);
    const char* authority = OSRGetAuthorityName(srs, nullptr);
    if (code && authority) o.crs += std::string(" (") + authority + ":" + code + ")";

    OGRSpatialReferenceH wgs84 = OSRNewSpatialReference(nullptr);
    if (OSRImportFromEPSG(wgs84, 4326) != OGRERR_NONE) fail("GDAL cannot find EPSG:4326 (is proj-data installed?)");
    OSRSetAxisMappingStrategy(wgs84, OAMS_TRADITIONAL_GIS_ORDER);
    const char* same_options[] = {"IGNORE_DATA_AXIS_TO_SRS_AXIS_MAPPING=YES", nullptr};
    const bool lonlat = OSRIsSameEx(srs, wgs84, same_options) && gt[2] == 0 && gt[4] == 0;
    if (lonlat) {
        o.view = o.file;
    } else {
        char* wkt = nullptr;
        OSRExportToWkt(wgs84, &wkt);
        o.view = GDALAutoCreateWarpedVRT(o.file, nullptr, wkt, GRA_NearestNeighbour, 0.0, nullptr);
        CPLFree(wkt);
        if (!o.view) fail("cannot warp %s to WGS 84 longitude/latitude: %s", path.c_str(), CPLGetLastErrorMsg());
        o.warped = true;
        GDALGetGeoTransform(o.view, gt);
    }
    OSRDestroySpatialReference(wgs84);
    o.grid = {GDALGetRasterXSize(o.view), GDALGetRasterYSize(o.view), gt[0], gt[3], gt[1], gt[5]};
    return o;
}

// Lower-case letters and digits of a metadata key: "Radar wavelength" and
// "RADAR_WAVELENGTH" are the same key.
std::string plain_key(const std::string& key)
{
    std::string k;
    for (char c : key)
        if (std::isalnum(static_cast<unsigned char>(c))) k += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return k;
}

void take(RasterInfo& info, const std::string& key, const std::string& value, const std::string& where)
{
    const std::string k = plain_key(key);
    char* end = nullptr;
    const double v = std::strtod(value.c_str(), &end);
    if (end == value.c_str() || !std::isfinite(v)) return;
    if ((k == "wavelength" || k == "radarwavelength" || k == "wavelengthm") && v > 0 && v < 1 && !info.wavelength)
        info.wavelength = Found{v, where};
    if ((k == "bperp" || k == "perpendicularbaseline" || k == "baseline" || k == "pbaseline") && !info.bperp)
        info.bperp = v;
}

void take_items(RasterInfo& info, char** items, const std::string& where)
{
    for (char** item = items; item && *item; ++item) {
        const std::string text = *item;
        const size_t eq = text.find('=');
        if (eq != std::string::npos) take(info, text.substr(0, eq), text.substr(eq + 1), where);
    }
}

// Text files beside the raster that hold the same two dates: lines
// "key: value", "key = value" or "key value".
void take_sidecars(RasterInfo& info, const std::string& path)
{
    const auto dates = dates_in(fs::path(path).filename().string());
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(fs::path(path).parent_path(), error)) {
        const std::string name = entry.path().filename().string();
        const std::string ext = entry.path().extension().string();
        if (!entry.is_regular_file() || (ext != ".txt" && ext != ".rsc") || dates_in(name) != dates) continue;
        std::ifstream in(entry.path());
        for (std::string line; std::getline(in, line);) {
            size_t cut = line.find_first_of(":=");
            if (cut == std::string::npos) cut = line.find_first_of(" \t");
            if (cut == std::string::npos) continue;
            std::string value = line.substr(cut + 1);
            value.erase(0, value.find_first_not_of(" \t"));
            take(info, line.substr(0, cut), value, entry.path().string());
        }
    }
}

}  // namespace

RasterInfo inspect_raster(const std::string& path)
{
    Opened o = open_lonlat(path);
    RasterInfo info;
    info.grid = o.grid;
    info.warped = o.warped;
    info.crs = o.crs;
    take_items(info, GDALGetMetadata(o.file, nullptr), path);
    take_items(info, GDALGetMetadata(GDALGetRasterBand(o.file, o.band), nullptr), path);
    take_sidecars(info, path);
    close(o);
    if (info.grid.width < 1 || info.grid.length < 1) fail("%s holds an empty raster", path.c_str());
    return info;
}

std::vector<float> read_on_grid(const std::string& path, const Grid& target)
{
    Opened o = open_lonlat(path);
    GDALRasterBandH band = GDALGetRasterBand(o.view, o.band);
    std::vector<float> samples(static_cast<size_t>(o.grid.width * o.grid.length));
    if (GDALRasterIO(band, GF_Read, 0, 0, static_cast<int>(o.grid.width), static_cast<int>(o.grid.length),
                     samples.data(), static_cast<int>(o.grid.width), static_cast<int>(o.grid.length), GDT_Float32, 0,
                     0) != CE_None)
        fail("cannot read the samples of %s: %s", path.c_str(), CPLGetLastErrorMsg());
    int has_nodata = 0;
    const double nodata = GDALGetRasterNoDataValue(band, &has_nodata);
    const float no = static_cast<float>(nodata);
    for (float& v : samples)
        if (!std::isfinite(v) || (has_nodata && v == no)) v = 0;
    const Grid from = o.grid;
    close(o);
    return from == target ? samples : resample(samples, from, target);
}

}  // namespace prep
