// sbas-view on a hand-made result folder of a 4 x 3 grid: the exported
// GeoTIFFs and NetCDF cube read back through GDAL and netCDF against the raw
// rasters, the figures' PNG headers, and the messages of bad command lines.
#include <gdal.h>
#include <netcdf.h>
#include <ogr_srs_api.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/tiny_job.h"

namespace {

using testing_support::Outcome;
using testing_support::read_text;
using testing_support::write_floats;
using testing_support::write_text;

constexpr double kWavelength = 0.0554658;
const double kToMm = kWavelength / (4 * std::numbers::pi) * 1000;

Outcome view(const std::vector<std::string>& args)
{
    return testing_support::run_in_child([&] {
        if (chdir("/") != 0) _exit(126);  // relative paths must come from the configuration's folder
        std::vector<std::string> copies = args;
        std::vector<char*> argv = {const_cast<char*>(SBAS_VIEW_BIN)};
        for (auto& a : copies) argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(SBAS_VIEW_BIN, argv.data());
        _exit(127);
    });
}

// A job of three interferograms over dates 2020-01-01, -13, -25 on the 4 x 3
// grid of TinyJob (X_FIRST 100, Y_FIRST 30, steps 0.01, -0.01), with a
// configuration of relative paths and a result folder written by hand.
// Pixel p = row * 4 + col holds (p + 1) times a per-raster scale; pixel 0
// has no estimate (0 everywhere) and pixel 5 no data in the first map.
class ViewTest : public ::testing::Test {
protected:
    ViewTest() : job_(4, 3)
    {
        const std::vector<float> unused(12, 1.0f);
        job_.add_ifg("geo_20200101_20200113.unw", unused);
        job_.add_ifg("geo_20200101_20200125.unw", unused);
        job_.add_ifg("geo_20200113_20200125.unw", unused);
        job_.config();
        write_text(path("config.txt"),
                   "resultfolder result\nheaderfile header.txt\nfilelist list.txt\ndatafolder ifg\n"
                   "baselines bperp.txt\nwavelength 0.0554658\nref_row 1\nref_col 2\n");
        write_text(path("bperp.txt"), "geo_20200101_20200113.unw 10\ngeo_20200101_20200125.unw -20\n"
                                      "geo_20200113_20200125.unw -30\n");
        write_text(path("result/filelist_deleted"), "geo_20200113_20200125.unw\n");
        write_floats(path("result/culmap-20200113-20200101.disp"), raster(0.5, 5));
        write_floats(path("result/culmap-20200125-20200101.disp"), raster(1.0, -1));
        write_floats(path("result/culmap-20200113-20200101.disp.filtered"), raster(0.4, -1));
        write_floats(path("result/culmap-20200125-20200101.disp.filtered"), raster(0.9, -1));
        write_floats(path("result/linear_mean_velocity"), raster(2.0, -1));
        std::vector<float> mask(12);
        for (int p = 0; p < 12; ++p) mask[p] = static_cast<float>(p % 2);
        write_floats(path("result/phase_loop_closure_mask"), mask);
    }

    // (p + 1) * scale, 0 at pixel 0 and NaN at pixel `gap`.
    static std::vector<float> raster(double scale, int gap)
    {
        std::vector<float> values(12);
        for (int p = 0; p < 12; ++p) values[p] = static_cast<float>((p + 1) * scale);
        values[0] = 0;
        if (gap >= 0) values[gap] = std::nanf("");
        return values;
    }

    std::string path(const std::string& name) const { return job_.path(name); }
    std::string config() const { return path("config.txt"); }
    std::string result() const { return path("result"); }

    testing_support::TinyJob job_;
};

// Width and height from a PNG's IHDR chunk, or {0, 0} when it is no PNG.
std::pair<int, int> png_size(const std::string& file)
{
    const std::string bytes = read_text(file);
    if (bytes.size() < 24 || bytes.compare(0, 8, "\x89PNG\r\n\x1a\n") != 0 || bytes.compare(12, 4, "IHDR") != 0)
        return {0, 0};
    auto be32 = [&](size_t at) {
        return (static_cast<unsigned char>(bytes[at]) << 24) | (static_cast<unsigned char>(bytes[at + 1]) << 16) |
               (static_cast<unsigned char>(bytes[at + 2]) << 8) | static_cast<unsigned char>(bytes[at + 3]);
    };
    return {be32(16), be32(20)};
}

TEST_F(ViewTest, GeoTiffsCarryTheGridCrsNoDataAndConvertedValues)
{
    const Outcome run = view({"export", result(), "--config", config(), "--unit", "mm", "--out", path("out")});
    ASSERT_EQ(run.status, 0) << run.err;
    GDALAllRegister();

    GDALDatasetH velocity = GDALOpen(path("out/linear_mean_velocity.tif").c_str(), GA_ReadOnly);
    ASSERT_NE(velocity, nullptr);
    double transform[6];
    ASSERT_EQ(GDALGetGeoTransform(velocity, transform), CE_None);
    // The header's first sample (100, 30) is the first pixel's centre.
    const double expected[6] = {99.995, 0.01, 0, 30.005, 0, -0.01};
    for (int i = 0; i < 6; ++i) EXPECT_NEAR(transform[i], expected[i], 1e-12) << i;
    EXPECT_STREQ(GDALGetMetadataItem(velocity, "AREA_OR_POINT", nullptr), "Area");
    OGRSpatialReferenceH crs = GDALGetSpatialRef(velocity);
    ASSERT_NE(crs, nullptr);
    EXPECT_STREQ(OSRGetAuthorityCode(crs, nullptr), "4326");
    GDALRasterBandH band = GDALGetRasterBand(velocity, 1);
    int has_nodata = 0;
    EXPECT_TRUE(std::isnan(GDALGetRasterNoDataValue(band, &has_nodata)));
    EXPECT_TRUE(has_nodata);
    EXPECT_STREQ(GDALGetRasterUnitType(band), "mm/yr");
    std::vector<float> values(12);
    ASSERT_EQ(GDALRasterIO(band, GF_Read, 0, 0, 4, 3, values.data(), 4, 3, GDT_Float32, 0, 0), CE_None);
    const std::vector<float> raw = raster(2.0, -1);
    EXPECT_TRUE(std::isnan(values[0]));
    for (int p : {1, 6, 11}) EXPECT_FLOAT_EQ(values[p], static_cast<float>(raw[p] * kToMm)) << p;
    GDALClose(velocity);

    // A mask's 0 is a value, and it keeps its unit.
    GDALDatasetH mask = GDALOpen(path("out/phase_loop_closure_mask.tif").c_str(), GA_ReadOnly);
    ASSERT_NE(mask, nullptr);
    band = GDALGetRasterBand(mask, 1);
    ASSERT_EQ(GDALRasterIO(band, GF_Read, 0, 0, 4, 3, values.data(), 4, 3, GDT_Float32, 0, 0), CE_None);
    EXPECT_EQ(values[0], 0.0f);
    EXPECT_EQ(values[1], 1.0f);
    EXPECT_STREQ(GDALGetRasterUnitType(band), "1");
    GDALClose(mask);

    GDALDatasetH map = GDALOpen(path("out/culmap-20200125-20200101.disp.filtered.tif").c_str(), GA_ReadOnly);
    ASSERT_NE(map, nullptr);
    EXPECT_STREQ(GDALGetMetadataItem(map, "DATE", nullptr), "2020-01-25");
    GDALClose(map);
}

TEST_F(ViewTest, CubeHoldsTheTimeAxisAndEachPixelsHistory)
{
    const Outcome run = view({"export", result(), "--config", config(), "--unit", "mm", "--out", path("out")});
    ASSERT_EQ(run.status, 0) << run.err;
    int nc = -1, var = -1;
    ASSERT_EQ(nc_open(path("out/displacement.nc").c_str(), NC_NOWRITE, &nc), NC_NOERR);
    auto text = [&](int v, const char* name) {
        size_t length = 0;
        std::string value;
        if (nc_inq_attlen(nc, v, name, &length) != NC_NOERR) return value;
        value.resize(length);
        nc_get_att_text(nc, v, name, value.data());
        return value;
    };

    ASSERT_EQ(nc_inq_varid(nc, "time", &var), NC_NOERR);
    EXPECT_EQ(text(var, "units"), "days since 2020-01-01 00:00:00");
    EXPECT_EQ(text(var, "calendar"), "standard");
    double axis[4] = {};
    ASSERT_EQ(nc_get_var_double(nc, var, axis), NC_NOERR);
    EXPECT_EQ(axis[0], 0);
    EXPECT_EQ(axis[1], 12);
    EXPECT_EQ(axis[2], 24);
    ASSERT_EQ(nc_inq_varid(nc, "lat", &var), NC_NOERR);
    EXPECT_EQ(text(var, "units"), "degrees_north");
    ASSERT_EQ(nc_get_var_double(nc, var, axis), NC_NOERR);
    EXPECT_DOUBLE_EQ(axis[0], 30.0);
    EXPECT_DOUBLE_EQ(axis[2], 29.98);
    ASSERT_EQ(nc_inq_varid(nc, "lon", &var), NC_NOERR);
    ASSERT_EQ(nc_get_var_double(nc, var, axis), NC_NOERR);
    EXPECT_DOUBLE_EQ(axis[3], 100.03);

    // History of pixel (row, col): 0 at the first date, then the maps in mm.
    auto history = [&](const char* name, int row, int col) {
        std::vector<float> h(3);
        int v = -1;
        const size_t start[3] = {0, static_cast<size_t>(row), static_cast<size_t>(col)};
        const size_t count[3] = {3, 1, 1};
        if (nc_inq_varid(nc, name, &v) != NC_NOERR || nc_get_vara_float(nc, v, start, count, h.data()) != NC_NOERR)
            h.clear();
        return h;
    };
    std::vector<float> h = history("displacement", 1, 2);
    ASSERT_EQ(h.size(), 3u);
    EXPECT_EQ(h[0], 0.0f);
    EXPECT_FLOAT_EQ(h[1], static_cast<float>(raster(0.5, 5)[6] * kToMm));
    EXPECT_FLOAT_EQ(h[2], static_cast<float>(raster(1.0, -1)[6] * kToMm));
    h = history("displacement", 1, 1);  // no data in the first map only
    EXPECT_EQ(h[0], 0.0f);
    EXPECT_TRUE(std::isnan(h[1]));
    h = history("displacement", 0, 0);  // no estimate: fill at every date
    for (float v : h) EXPECT_TRUE(std::isnan(v));
    h = history("displacement_filtered", 2, 3);
    ASSERT_EQ(h.size(), 3u);
    EXPECT_FLOAT_EQ(h[2], static_cast<float>(raster(0.9, -1)[11] * kToMm));
    ASSERT_EQ(nc_inq_varid(nc, "displacement", &var), NC_NOERR);
    EXPECT_EQ(text(var, "units"), "mm");
    EXPECT_NE(text(var, "sign_convention").find("away from the satellite"), std::string::npos);
    nc_close(nc);
}

TEST_F(ViewTest, FiguresArePngsOfTheRequestedSize)
{
    Outcome run = view({"map", path("result/linear_mean_velocity"), "--config", config(), "--unit", "mm", "-o",
                        path("map.png"), "--size", "640x480"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(png_size(path("map.png")), std::make_pair(640, 480));

    run = view({"series", result(), "--config", config(), "--lonlat", "100.02", "29.99", "-o", path("series.png"),
                "--csv", path("series.csv")});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(png_size(path("series.png")), std::make_pair(1200, 800));
    // Pixel (1, 2) = 7: maps 3.5 and 7 rad, filtered 2.8 and 6.3, velocity 14 rad/yr.
    EXPECT_EQ(read_text(path("series.csv")),
              "date,days_since_first,displacement_rad,filtered_rad,mean_velocity_line_rad\n"
              "2020-01-01,0,0,0,0\n"
              "2020-01-13,12,3.5,2.79999995,0.459958932\n"
              "2020-01-25,24,7,6.30000019,0.919917864\n");

    run = view({"network", "--config", config(), "-o", path("network.png"), "--size", "800x500"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(png_size(path("network.png")), std::make_pair(800, 500));
}

TEST_F(ViewTest, BadArgumentsGiveOneMessageAndAFailureStatus)
{
    testing_support::make_dir(path("other"));
    write_floats(path("other/least_square_sigma"), std::vector<float>(11, 1.0f));
    const std::string png = path("x.png");
    struct Case {
        std::vector<std::string> args;
        int status;
        const char* says;
    };
    const Case cases[] = {
        {{"series", result(), "--config", config(), "--pixel", "3", "0", "-o", png}, 1, "outside the grid"},
        {{"series", result(), "--config", config(), "--lonlat", "0", "0", "-o", png}, 1, "outside the grid"},
        {{"series", result(), "--config", config(), "--pixel", "0", "0", "-o", png}, 1, "has no estimate"},
        {{"export", path("nowhere"), "--config", config()}, 1, "does not exist"},
        {{"export", path("other"), "--config", config()}, 1, "has 44 bytes, but the header"},
        {{"map", path("other/least_square_sigma"), "--config", config(), "-o", png}, 1, "has 44 bytes"},
        {{"map", path("result/linear_mean_velocity"), "--config", path("none.txt"), "-o", png}, 1,
         "is not a readable file"},
        {{"map", path("result/linear_mean_velocity"), "--config", config(), "-o", path("no/dir/x.png")}, 1,
         "cannot write"},
        {{"series", result(), "--config", config(), "--pixel", "1", "x", "-o", png}, 2, "needs an integer"},
        {{"export", result(), "--config", config(), "--unit", "feet"}, 2, "--unit must be"},
        {{"network", "-o", png}, 2, "--config CFG is missing"},
        {{"draw"}, 2, "unknown command"},
        {{}, 2, "no command given"},
    };
    for (const Case& c : cases) {
        const Outcome run = view(c.args);
        SCOPED_TRACE(c.says);
        EXPECT_TRUE(run.exited);
        EXPECT_EQ(run.status, c.status);
        EXPECT_EQ(run.err.rfind("sbas-view: ", 0), 0u) << run.err;
        EXPECT_NE(run.err.find(c.says), std::string::npos) << run.err;
        EXPECT_LE(std::count(run.err.begin(), run.err.end(), '\n'), c.status == 2 ? 2 : 1) << run.err;
        EXPECT_EQ(run.out, "");
    }
}

}  // namespace
