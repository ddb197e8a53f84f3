// sbas-view on a hand-made result folder of a 4 x 3 grid: the exported
// GeoTIFFs and NetCDF cube read back through GDAL and netCDF against the raw
// rasters, the figures' PNG headers, and the messages of bad command lines.
#include <gdal.h>
#include <netcdf.h>
#include <ogr_srs_api.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include "support/child.h"

namespace {

using namespace testing_support;

const double kToMm = 0.0554658 / (4 * std::numbers::pi) * 1000;

// Relative paths must come from the configuration's folder, so the program
// runs in "/".
Outcome view(const std::vector<std::string>& args) { return run_program(args, "/", 120, SBAS_VIEW_BIN); }

// (p + 1) * scale at pixel p = row * 4 + col, 0 at pixel 0 and NaN at pixel
// `gap`.
std::vector<float> raster(double scale, int gap = -1)
{
    std::vector<float> values(12);
    for (int p = 0; p < 12; ++p) values[p] = static_cast<float>((p + 1) * scale);
    values[0] = 0;
    if (gap >= 0) values[gap] = std::nanf("");
    return values;
}

// A job of three interferograms over dates 2020-01-01, -13, -25 on the 4 x 3
// grid of TinyJob (X_FIRST 100, Y_FIRST 30, steps 0.01, -0.01), with a
// configuration of relative paths and a result folder written by hand:
// pixel 0 has no estimate (0 everywhere), pixel 5 no data in the first map.
class ViewTest : public ::testing::Test {
protected:
    ViewTest() : job_(4, 3)
    {
        for (const char* name : {"geo_20200101_20200113.unw", "geo_20200101_20200125.unw", "geo_20200113_20200125.unw"})
            job_.add_ifg(name, std::vector<float>(12, 1.0f));
        job_.config();
        write_text(path("config.txt"), "resultfolder result\nheaderfile header.txt\nfilelist list.txt\ndatafolder ifg\n"
                                       "baselines bperp.txt\nwavelength 0.0554658\nref_row 1\nref_col 2\n");
        write_text(path("bperp.txt"),
                   "geo_20200101_20200113.unw 10\ngeo_20200101_20200125.unw -20\ngeo_20200113_20200125.unw -30\n");
        write_text(path("result/filelist_deleted"), "geo_20200113_20200125.unw\n");
        write_floats(path("result/culmap-20200113-20200101.disp"), raster(0.5, 5));
        write_floats(path("result/culmap-20200125-20200101.disp"), raster(1.0));
        write_floats(path("result/culmap-20200113-20200101.disp.filtered"), raster(0.4));
        write_floats(path("result/culmap-20200125-20200101.disp.filtered"), raster(0.9));
        write_floats(path("result/linear_mean_velocity"), raster(2.0));
        write_floats(path("result/phase_loop_closure_mask"), {0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1});
    }

    std::string path(const std::string& name) const { return job_.path(name); }

    TinyJob job_;
};

// Width and height from a PNG's IHDR chunk, or {0, 0} when it is no PNG.
std::pair<int, int> png_size(const std::string& file)
{
    const std::string bytes = read_text(file);
    if (bytes.size() < 24 || bytes.compare(0, 8, "\x89PNG\r\n\x1a\n") != 0 || bytes.compare(12, 4, "IHDR") != 0)
        return {0, 0};
    auto be32 = [&](size_t at) {
        unsigned v = 0;
        for (size_t i = at; i < at + 4; ++i) v = v << 8 | static_cast<unsigned char>(bytes[i]);
        return static_cast<int>(v);
    };
    return {be32(16), be32(20)};
}

TEST_F(ViewTest, ExportedGeoTiffsAndCubeCarryTheGridUnitsNoDataAndConvertedValues)
{
    const Outcome run =
        view({"export", path("result"), "--config", path("config.txt"), "--unit", "mm", "--out", path("out")});
    ASSERT_EQ(run.status, 0) << run.err;
    GDALAllRegister();
    // The values of a GeoTIFF's band, and its unit.
    const auto band = [&](const std::string& name, GDALDatasetH& set, std::string& unit) {
        set = GDALOpen(path("out/" + name).c_str(), GA_ReadOnly);
        std::vector<float> values(12);
        if (!set) return values;
        GDALRasterBandH b = GDALGetRasterBand(set, 1);
        EXPECT_EQ(GDALRasterIO(b, GF_Read, 0, 0, 4, 3, values.data(), 4, 3, GDT_Float32, 0, 0), CE_None);
        unit = GDALGetRasterUnitType(b);
        int has_nodata = 0;
        EXPECT_TRUE(std::isnan(GDALGetRasterNoDataValue(b, &has_nodata)) && has_nodata) << name;
        return values;
    };
    GDALDatasetH velocity = nullptr, mask = nullptr, map = nullptr;
    std::string unit;
    const std::vector<float> speed = band("linear_mean_velocity.tif", velocity, unit);
    ASSERT_NE(velocity, nullptr);
    EXPECT_EQ(unit, "mm/yr");
    EXPECT_TRUE(std::isnan(speed[0]));
    for (int p : {1, 6, 11}) EXPECT_FLOAT_EQ(speed[p], static_cast<float>(raster(2.0)[p] * kToMm)) << p;
    double transform[6];
    ASSERT_EQ(GDALGetGeoTransform(velocity, transform), CE_None);
    // The header's first sample (100, 30) is the first pixel's centre.
    const double expected[6] = {99.995, 0.01, 0, 30.005, 0, -0.01};
    for (int i = 0; i < 6; ++i) EXPECT_NEAR(transform[i], expected[i], 1e-12) << i;
    EXPECT_STREQ(GDALGetMetadataItem(velocity, "AREA_OR_POINT", nullptr), "Area");
    OGRSpatialReferenceH crs = GDALGetSpatialRef(velocity);
    ASSERT_NE(crs, nullptr);
    EXPECT_STREQ(OSRGetAuthorityCode(crs, nullptr), "4326");

    // A mask's 0 is a value, and it keeps its unit.
    const std::vector<float> masked = band("phase_loop_closure_mask.tif", mask, unit);
    EXPECT_EQ(masked[0], 0.0f);
    EXPECT_EQ(masked[1], 1.0f);
    EXPECT_EQ(unit, "1");
    band("culmap-20200125-20200101.disp.filtered.tif", map, unit);
    ASSERT_NE(map, nullptr);
    EXPECT_STREQ(GDALGetMetadataItem(map, "DATE", nullptr), "2020-01-25");
    for (GDALDatasetH set : {velocity, mask, map}) GDALClose(set);

    // The cube: the time axis and each pixel's history.
    int nc = -1;
    ASSERT_EQ(nc_open(path("out/displacement.nc").c_str(), NC_NOWRITE, &nc), NC_NOERR);
    const auto text = [&](const char* variable, const char* name) {
        int v = -1;
        size_t length = 0;
        std::string value;
        if (nc_inq_varid(nc, variable, &v) || nc_inq_attlen(nc, v, name, &length)) return value;
        value.resize(length);
        nc_get_att_text(nc, v, name, value.data());
        return value;
    };
    // The values of an axis, or the history of pixel (row, col).
    const auto values = [&](const char* variable, size_t count, int row = -1, int col = -1) {
        std::vector<double> v(count);
        int id = -1;
        const size_t start[3] = {0, size_t(row), size_t(col)}, counts[3] = {count, 1, 1};
        if (nc_inq_varid(nc, variable, &id) ||
            (row < 0 ? nc_get_var_double(nc, id, v.data()) : nc_get_vara_double(nc, id, start, counts, v.data())))
            v.clear();
        return v;
    };
    EXPECT_EQ(text("time", "units"), "days since 2020-01-01 00:00:00");
    EXPECT_EQ(text("time", "calendar"), "standard");
    EXPECT_EQ(values("time", 3), (std::vector<double>{0, 12, 24}));
    EXPECT_EQ(text("lat", "units"), "degrees_north");
    const auto lat = values("lat", 3), lon = values("lon", 4);
    ASSERT_TRUE(lat.size() == 3 && lon.size() == 4);
    EXPECT_DOUBLE_EQ(lat[0], 30.0);
    EXPECT_DOUBLE_EQ(lat[2], 29.98);
    EXPECT_DOUBLE_EQ(lon[3], 100.03);

    // History: 0 at the first date, then the maps in mm.
    std::vector<double> h = values("displacement", 3, 1, 2);
    ASSERT_EQ(h.size(), 3u);
    EXPECT_EQ(h[0], 0.0);
    EXPECT_FLOAT_EQ(h[1], static_cast<float>(raster(0.5, 5)[6] * kToMm));
    EXPECT_FLOAT_EQ(h[2], static_cast<float>(raster(1.0)[6] * kToMm));
    h = values("displacement", 3, 1, 1);  // no data in the first map only
    EXPECT_TRUE(h[0] == 0.0 && std::isnan(h[1]));
    h = values("displacement", 3, 0, 0);  // no estimate: fill at every date
    EXPECT_TRUE(std::all_of(h.begin(), h.end(), [](double v) { return std::isnan(v); }));
    h = values("displacement_filtered", 3, 2, 3);
    ASSERT_EQ(h.size(), 3u);
    EXPECT_FLOAT_EQ(h[2], static_cast<float>(raster(0.9)[11] * kToMm));
    EXPECT_EQ(text("displacement", "units"), "mm");
    EXPECT_TRUE(contains(text("displacement", "sign_convention"), "away from the satellite"));
    nc_close(nc);
}

TEST_F(ViewTest, FiguresArePngsOfTheRequestedSizeAndTheReferenceHistoryIsZero)
{
    const std::string config = path("config.txt");
    Outcome run = view({"map", path("result/linear_mean_velocity"), "--config", config, "--unit", "mm", "-o",
                        path("map.png"), "--size", "640x480"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(png_size(path("map.png")), std::make_pair(640, 480));

    run = view({"series", path("result"), "--config", config, "--lonlat", "100.02", "29.99", "-o", path("series.png"),
                "--csv", path("series.csv")});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(png_size(path("series.png")), std::make_pair(1200, 800));
    // Pixel (1, 2) = 7: maps 3.5 and 7 rad, filtered 2.8 and 6.3, velocity 14 rad/yr.
    EXPECT_EQ(read_text(path("series.csv")), "date,days_since_first,displacement_rad,filtered_rad,mean_velocity_line_rad\n"
                                             "2020-01-01,0,0,0,0\n2020-01-13,12,3.5,2.79999995,0.459958932\n"
                                             "2020-01-25,24,7,6.30000019,0.919917864\n");

    run = view({"network", "--config", config, "-o", path("network.png"), "--size", "800x500"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(png_size(path("network.png")), std::make_pair(800, 500));

    // Pixel 0 is 0 in every map: as the reference, its history is zero.
    write_text(path("config.txt"), "resultfolder result\nheaderfile header.txt\nfilelist list.txt\ndatafolder ifg\n");
    write_text(path("result/refpoint"), "refpoint position: 0\nrefpoint row: 0\nrefpoint col: 0\n");
    run = view({"series", path("result"), "--config", config, "--pixel", "0", "0", "-o", path("ref.png"), "--csv",
                path("ref.csv")});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(read_text(path("ref.csv")), "date,days_since_first,displacement_rad,filtered_rad,mean_velocity_line_rad\n"
                                          "2020-01-01,0,0,0,0\n2020-01-13,12,0,,0\n2020-01-25,24,0,,0\n");
}

TEST_F(ViewTest, BadArgumentsGiveOneMessageAndAFailureStatus)
{
    make_dir(path("other"));
    write_floats(path("other/least_square_sigma"), std::vector<float>(11, 1.0f));
    const std::string png = path("x.png"), config = path("config.txt"), result = path("result"),
                      velocity = path("result/linear_mean_velocity");
    const struct {
        std::vector<std::string> args;
        int status;
        const char* says;
    } cases[] = {
        {{"series", result, "--config", config, "--pixel", "3", "0", "-o", png}, 1, "outside the grid"},
        {{"series", result, "--config", config, "--lonlat", "0", "0", "-o", png}, 1, "outside the grid"},
        {{"series", result, "--config", config, "--pixel", "0", "0", "-o", png}, 1, "has no estimate"},
        {{"export", path("nowhere"), "--config", config}, 1, "does not exist"},
        {{"export", path("other"), "--config", config}, 1, "has 44 bytes, but the header"},
        {{"map", path("other/least_square_sigma"), "--config", config, "-o", png}, 1, "has 44 bytes"},
        {{"map", velocity, "--config", path("none.txt"), "-o", png}, 1, "is not a readable file"},
        {{"map", velocity, "--config", config, "-o", path("no/dir/x.png")}, 1, "cannot write"},
        {{"series", result, "--config", config, "--pixel", "1", "x", "-o", png}, 2, "needs an integer"},
        {{"export", result, "--config", config, "--unit", "feet"}, 2, "--unit must be"},
        {{"network", "-o", png}, 2, "--config CFG is missing"},
        {{"draw"}, 2, "unknown command"},
        {{}, 2, "no command given"},
    };
    for (const auto& c : cases) {
        const Outcome run = view(c.args);
        SCOPED_TRACE(c.says);
        EXPECT_TRUE(run.exited);
        EXPECT_EQ(run.status, c.status);
        EXPECT_TRUE(run.err.starts_with("sbas-view: ") && contains(run.err, c.says)) << run.err;
        EXPECT_LE(std::count(run.err.begin(), run.err.end(), '\n'), c.status == 2 ? 2 : 1) << run.err;
        EXPECT_EQ(run.out, "");
    }
}

TEST_F(ViewTest, OutputsThatAreInputsAreRefusedAndLinksAtOutputNamesReplaced)
{
    const std::string config = path("config.txt"), result = path("result"),
                      velocity = path("result/linear_mean_velocity");
    make_dir(path("out"));
    ASSERT_EQ(symlink(config.c_str(), path("to-config.png").c_str()), 0);
    ASSERT_EQ(link(path("list.txt").c_str(), path("out/linear_mean_velocity.tif").c_str()), 0);
    const auto before = files_under(job_.folder());
    const struct {
        std::vector<std::string> args;
        const char* input;
    } cases[] = {
        {{"map", velocity, "--config", config, "-o", velocity}, "linear_mean_velocity"},
        {{"map", velocity, "--config", config, "-o", path("to-config.png")}, "config.txt"},
        {{"series", result, "--config", config, "--pixel", "1", "2", "-o", path("x.png"), "--csv", path("header.txt")},
         "header.txt"},
        {{"series", result, "--config", config, "--pixel", "1", "2", "-o", path("ifg/geo_20200101_20200113.unw")},
         "geo_20200101_20200113.unw"},
        {{"network", "--config", config, "-o", path("bperp.txt")}, "bperp.txt"},
        {{"export", result, "--config", config, "--out", path("out")}, "list.txt"},
        {{"report", result, "--config", config, "-o", path("result/refpoint")}, "refpoint"},
    };
    write_text(path("result/refpoint"), "refpoint row: 1\nrefpoint col: 2\n");
    for (const auto& c : cases) {
        const Outcome run = view(c.args);
        SCOPED_TRACE(c.input);
        EXPECT_EQ(run.status, 1);
        EXPECT_TRUE(contains(run.err, "would overwrite the input") && contains(run.err, c.input)) << run.err;
    }
    auto after = files_under(job_.folder());
    after.erase("result/refpoint");
    EXPECT_EQ(after, before);

    // A link at an output's name to a file that is not read is replaced, not written through.
    write_text(path("elsewhere.png"), "keep");
    ASSERT_EQ(symlink(path("elsewhere.png").c_str(), path("link.png").c_str()), 0);
    const Outcome run = view({"network", "--config", config, "-o", path("link.png")});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(read_text(path("elsewhere.png")), "keep");
}

}  // namespace
