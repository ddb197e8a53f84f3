// sbas-prep on inputs the tests write themselves: GeoTIFF folders through
// GDAL (longitude/latitude, UTM, two grids), an ifgramStack.h5 through HDF5,
// bad inputs, and one whole run whose sbas-ts outputs must equal those of the
// same synthetic job given in the raw format.
#include <cpl_conv.h>
#include <gdal.h>
#include <hdf5.h>
#include <ogr_srs_api.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "catalogue/filelist.h"
#include "catalogue/header.h"
#include "config/cfg.h"
#include "support/child.h"
#include "support/errors.h"
#include "support/runs.h"

namespace {

using namespace testing_support;
namespace fs = std::filesystem;

const float kNaN = std::nanf("");

Outcome prep(const std::vector<std::string>& args) { return run_program(args, "/", 120, SBAS_PREP_BIN); }

// A float32 GeoTIFF with geotransform `gt` in EPSG `epsg` (0: none), no-data
// value -9999 and metadata items `meta`.
void write_tif(const std::string& path, int width, int length, const double (&gt)[6], int epsg,
               const std::vector<float>& values, const std::map<std::string, std::string>& meta = {})
{
    GDALAllRegister();
    fs::create_directories(fs::path(path).parent_path());
    GDALDatasetH d = GDALCreate(GDALGetDriverByName("GTiff"), path.c_str(), width, length, 1, GDT_Float32, nullptr);
    ASSERT_TRUE(d);
    if (epsg) {
        GDALSetGeoTransform(d, const_cast<double*>(gt));
        OGRSpatialReferenceH srs = OSRNewSpatialReference(nullptr);
        OSRImportFromEPSG(srs, epsg);
        GDALSetSpatialRef(d, srs);
        OSRDestroySpatialReference(srs);
    }
    for (const auto& [key, value] : meta) GDALSetMetadataItem(d, key.c_str(), value.c_str(), nullptr);
    GDALRasterBandH band = GDALGetRasterBand(d, 1);
    GDALSetRasterNoDataValue(band, -9999);
    ASSERT_EQ(GDALRasterIO(band, GF_Write, 0, 0, width, length, const_cast<float*>(values.data()), width, length,
                           GDT_Float32, 0, 0),
              CE_None);
    GDALClose(d);
}

const double kLonLat[6] = {100.0, 0.25, 0, 31.0, 0, -0.25};

std::vector<float> ramp(int n, float scale)
{
    std::vector<float> v(n);
    for (int p = 0; p < n; ++p) v[p] = (p + 1) * scale;
    return v;
}

void expect_fail(const Outcome& o, const std::string& part, int status = 1)
{
    EXPECT_TRUE(o.exited);
    EXPECT_EQ(o.status, status);
    EXPECT_EQ(o.out, "");
    EXPECT_TRUE(o.err.starts_with("sbas-prep: ") && contains(o.err, part)) << o.err;
}

// Three pairs in per-pair folders named as frame services deliver them, with
// coherence and preview files beside each.
TEST(Prep, LonLatFolderGivesHeaderOfCentresListAndConfig)
{
    TempDir dir;
    const char* pairs[] = {"20200101_20200113", "20200101_20200125", "20200113_20200125"};
    for (const char* p : pairs) {
        std::vector<float> v = ramp(12, 0.5f);
        v[1] = kNaN;
        v[2] = -9999;
        write_tif(dir / ("src/" + std::string(p) + "/" + p + ".geo.unw.tif"), 4, 3, kLonLat, 4326, v,
                  {{"WAVELENGTH", "0.0555"}});
        write_tif(dir / ("src/" + std::string(p) + "/" + p + ".geo.cc.tif"), 4, 3, kLonLat, 4326, v);
        write_text(dir / ("src/" + std::string(p) + "/" + p + ".geo.unw.png"), "");
    }
    const Outcome o = prep({dir / "src", "--out", dir / "job"});
    ASSERT_EQ(o.status, 0) << o.err;
    EXPECT_TRUE(contains(o.out, "3 interferograms over 3 dates, 20200101 to 20200125")) << o.out;
    EXPECT_TRUE(contains(o.out, "skipped files: 3 coherence, 3 previews and metadata")) << o.out;
    EXPECT_TRUE(contains(o.out, "regridding: none")) << o.out;
    EXPECT_TRUE(contains(o.out, "wavelength: 0.0555 m (from " + dir / "src/20200101_20200113")) << o.out;
    EXPECT_TRUE(contains(o.out, "run: sbas-ts " + dir / "job/config.txt")) << o.out;

    EXPECT_EQ(read_text(dir / "job/ifg_header.txt"),
              "WIDTH 4\nFILE_LENGTH 3\nX_FIRST 100.125\nY_FIRST 30.875\nX_STEP 0.25\nY_STEP -0.25\n");
    const HEADER h = testing_support::must(com::readheader((dir / "job/ifg_header.txt").c_str()));
    EXPECT_EQ(h.X_FIRST + 3 * h.X_STEP, 100.875);  // centre of the last column
    EXPECT_EQ(read_text(dir / "job/config.txt"),
              "# job written by sbas-prep\nresultfolder " + dir / "job/result" + "\nheaderfile " +
                  dir / "job/ifg_header.txt" + "\nfilelist " + dir / "job/ifg_list.txt" + "\ndatafolder " +
                  dir / "job/ifg" + "\nwavelength 0.0555\n");
    CFG cfg;
    testing_support::must(com::readfilenamelist(&cfg, (dir / "job/ifg_list.txt").c_str()));
    ASSERT_EQ(cfg.ifg_names.size(), 3u);
    EXPECT_EQ(cfg.ifg_names[1], "geo_20200101_20200125.unw");
    EXPECT_EQ(cfg.ifg_date1[2], 20200113);
    EXPECT_TRUE(fs::is_directory(dir / "job/result"));
    EXPECT_FALSE(file_exists(dir / "job/baselines.txt"));
    std::vector<float> want = ramp(12, 0.5f);
    want[1] = want[2] = 0;
    EXPECT_EQ(mismatch(read_floats(dir / "job/ifg/geo_20200113_20200125.unw"), want), "");
}

// A UTM grid is warped to longitude/latitude; without metadata the
// wavelength must be given.
TEST(Prep, UtmFolderIsWarpedAndNeedsTheWavelength)
{
    TempDir dir;
    const double utm[6] = {500000, 100, 0, 5000000, 0, -100};
    for (const char* p : {"S1AA_20200105T014035_20200117T014034_VVP012_INT80_G_ueF_5A1B",
                          "S1AA_20200105T014035_20200129T014034_VVP024_INT80_G_ueF_5A1C"}) {
        write_tif(dir / ("src/" + std::string(p) + "/" + p + "_unw_phase.tif"), 6, 5, utm, 32633, ramp(30, 1));
        write_tif(dir / ("src/" + std::string(p) + "/" + p + "_corr.tif"), 6, 5, utm, 32633, ramp(30, 1));
        write_tif(dir / ("src/" + std::string(p) + "/" + p + "_dem.tif"), 6, 5, utm, 32633, ramp(30, 1));
    }
    expect_fail(prep({dir / "src", "--out", dir / "job"}), "give it with --wavelength METRES");
    EXPECT_FALSE(fs::exists(dir / "job"));

    const Outcome o = prep({dir / "src", "--out", dir / "job", "--wavelength", "0.05546576"});
    ASSERT_EQ(o.status, 0) << o.err;
    EXPECT_TRUE(contains(o.out, "skipped files: 2 coherence, 2 DEM")) << o.out;
    EXPECT_TRUE(contains(o.out, "warped 2 raster(s) from WGS 84 / UTM zone 33N (EPSG:32633) to WGS 84")) << o.out;
    EXPECT_EQ(read_text(dir / "job/ifg_list.txt"), "geo_20200105_20200117.unw\ngeo_20200105_20200129.unw\n");
    const HEADER h = testing_support::must(com::readheader((dir / "job/ifg_header.txt").c_str()));
    // Easting 500 km is the zone's central meridian, 15 E; northing 5000 km
    // lies near 45.1 N.
    EXPECT_NEAR(h.X_FIRST, 15.0, 0.01);
    EXPECT_NEAR(h.Y_FIRST, 45.15, 0.05);
    EXPECT_GT(h.X_STEP, 0);
    EXPECT_LT(h.Y_STEP, 0);
    int found = 0;
    for (float v : read_floats(dir / "job/ifg/geo_20200105_20200117.unw")) {
        EXPECT_TRUE(v == 0 || (v == std::floor(v) && v >= 1 && v <= 30)) << v;
        found += v != 0;
    }
    EXPECT_GE(found, 20);
}

// Grids that differ go on the union of their extents at the first one's
// spacing; pixels outside a raster are no data.
TEST(Prep, DifferentGridsArePutOnOneGrid)
{
    TempDir dir;
    const double shifted[6] = {100.5, 0.25, 0, 30.75, 0, -0.25};
    write_tif(dir / "src/a_20200101_20200113.unw.tif", 4, 3, kLonLat, 4326, ramp(12, 1));
    write_tif(dir / "src/a_20200101_20200125.unw.tif", 4, 3, shifted, 4326, ramp(12, 100));
    const Outcome o = prep({dir / "src", "--out", dir / "job", "--wavelength", "0.0555"});
    ASSERT_EQ(o.status, 0) << o.err;
    EXPECT_TRUE(contains(o.out, "2 raster(s) put on one common grid")) << o.out;
    EXPECT_EQ(read_text(dir / "job/ifg_header.txt"),
              "WIDTH 6\nFILE_LENGTH 4\nX_FIRST 100.125\nY_FIRST 30.875\nX_STEP 0.25\nY_STEP -0.25\n");
    EXPECT_EQ(mismatch(read_floats(dir / "job/ifg/geo_20200101_20200113.unw"),
                       {1, 2, 3, 4, 0, 0, 5, 6, 7, 8, 0, 0, 9, 10, 11, 12, 0, 0, 0, 0, 0, 0, 0, 0}),
              "");
    EXPECT_EQ(mismatch(read_floats(dir / "job/ifg/geo_20200101_20200125.unw"),
                       {0, 0, 0, 0, 0, 0, 0, 0, 100, 200, 300, 400, 0, 0, 500, 600, 700, 800, 0, 0, 900, 1000, 1100,
                        1200}),
              "");
}

// The stack layout of ifgramStack.h5, written as common HDF5 writers do:
// dates as fixed-length strings, booleans as an 8-bit enum, attributes as
// text or numbers.
void write_stack(const std::string& path, bool with_phase)
{
    const hid_t file = H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT);
    auto attribute = [&](const char* name, const char* text) {
        const hid_t type = H5Tcopy(H5T_C_S1);
        H5Tset_size(type, H5T_VARIABLE);
        const hid_t space = H5Screate(H5S_SCALAR);
        const hid_t a = H5Acreate2(file, name, type, space, H5P_DEFAULT, H5P_DEFAULT);
        H5Awrite(a, type, &text);
        H5Aclose(a), H5Sclose(space), H5Tclose(type);
    };
    auto dataset = [&](const char* name, hid_t type, std::vector<hsize_t> dims, const void* data) {
        const hid_t space = H5Screate_simple(static_cast<int>(dims.size()), dims.data(), nullptr);
        const hid_t d = H5Dcreate2(file, name, type, space, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
        H5Dwrite(d, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, data);
        H5Dclose(d), H5Sclose(space);
    };
    attribute("X_FIRST", "100.0");
    attribute("X_STEP", "0.5");
    attribute("Y_STEP", "-0.5");
    attribute("WAVELENGTH", "0.0555");
    const double y_first = 31.0;
    const hid_t space = H5Screate(H5S_SCALAR);
    const hid_t a = H5Acreate2(file, "Y_FIRST", H5T_IEEE_F64LE, space, H5P_DEFAULT, H5P_DEFAULT);
    H5Awrite(a, H5T_NATIVE_DOUBLE, &y_first);
    H5Aclose(a), H5Sclose(space);

    const hid_t s8 = H5Tcopy(H5T_C_S1);
    H5Tset_size(s8, 8);
    dataset("date", s8, {3, 2}, "202001012020011320200101202001252020011320200125");
    H5Tclose(s8);
    const hid_t boolean = H5Tenum_create(H5T_NATIVE_INT8);
    const signed char no = 0, yes = 1;
    H5Tenum_insert(boolean, "FALSE", &no);
    H5Tenum_insert(boolean, "TRUE", &yes);
    const signed char keep[3] = {1, 0, 1};
    dataset("dropIfgram", boolean, {3}, keep);
    H5Tclose(boolean);
    const float bperp[3] = {10.5f, -20, 30.25f};
    dataset("bperp", H5T_NATIVE_FLOAT, {3}, bperp);
    if (with_phase) {
        std::vector<float> phase = ramp(18, 0.5f);
        phase[13] = kNaN;
        dataset("unwrapPhase", H5T_NATIVE_FLOAT, {3, 2, 3}, phase.data());
    }
    H5Fclose(file);
}

TEST(Prep, StackKeepsPairsNotDroppedAndShiftsCornerToCentre)
{
    TempDir dir;
    write_stack(dir / "ifgramStack.h5", true);
    write_tif(dir / "dem.tif", 6, 4, kLonLat, 4326, ramp(24, 1));
    const Outcome o = prep({dir / "ifgramStack.h5", "--out", dir / "job", "--dem", dir / "dem.tif"});
    ASSERT_EQ(o.status, 0) << o.err;
    EXPECT_TRUE(contains(o.out, "2 interferograms over 3 dates")) << o.out;
    EXPECT_TRUE(contains(o.out, "left out: 1 pairs")) << o.out;
    EXPECT_EQ(read_text(dir / "job/ifg_header.txt"),
              "WIDTH 3\nFILE_LENGTH 2\nX_FIRST 100.25\nY_FIRST 30.75\nX_STEP 0.5\nY_STEP -0.5\n");
    EXPECT_EQ(read_text(dir / "job/ifg_list.txt"), "geo_20200101_20200113.unw\ngeo_20200113_20200125.unw\n");
    EXPECT_EQ(read_text(dir / "job/baselines.txt"),
              "geo_20200101_20200113.unw 10.5\ngeo_20200113_20200125.unw 30.25\n");
    EXPECT_TRUE(contains(read_text(dir / "job/config.txt"),
                         "wavelength 0.0555\nbaselines " + dir / "job/baselines.txt" + "\n"));
    EXPECT_EQ(mismatch(read_floats(dir / "job/ifg/geo_20200113_20200125.unw"), {6.5, 0, 7.5, 8, 8.5, 9}), "");
    // The DEM's pixels under the grid's centres (100.25 + 0.5 j, 30.75 - 0.5 i).
    EXPECT_EQ(mismatch(read_floats(dir / "job/dem"), {8, 10, 12, 20, 22, 24}), "");
    EXPECT_EQ(read_text(dir / "job/dem_header.txt"), read_text(dir / "job/ifg_header.txt"));
    EXPECT_TRUE(contains(read_text(dir / "job/config.txt"),
                         "demfile " + dir / "job/dem" + "\ndemfile_header " + dir / "job/dem_header.txt\n"));
}

TEST(Prep, BadInputsStopWithOneMessage)
{
    TempDir dir;
    write_tif(dir / "nodates/x.unw.tif", 4, 3, kLonLat, 4326, ramp(12, 1));
    expect_fail(prep({dir / "nodates", "--out", dir / "j1"}), "hold two dates yyyymmdd");
    write_tif(dir / "radar/20200101_20200113.unw.tif", 4, 3, kLonLat, 0, ramp(12, 1));
    expect_fail(prep({dir / "radar", "--out", dir / "j2"}), "has no georeferencing (radar coordinates?)");
    write_tif(dir / "coh/20200101_20200113_corr.tif", 4, 3, kLonLat, 4326, ramp(12, 1));
    expect_fail(prep({dir / "coh", "--out", dir / "j3"}), "no unwrapped-phase raster found under");
    const double far[6] = {120.0, 0.25, 0, 31.0, 0, -0.25};
    write_tif(dir / "far/20200101_20200113.unw.tif", 4, 3, kLonLat, 4326, ramp(12, 1));
    write_tif(dir / "far/20200101_20200125.unw.tif", 4, 3, far, 4326, ramp(12, 1));
    expect_fail(prep({dir / "far", "--out", dir / "j4", "--wavelength", "0.05"}), "cannot be put on one grid");
    write_stack(dir / "nophase.h5", false);
    expect_fail(prep({dir / "nophase.h5", "--out", dir / "j5"}), "holds no dataset unwrapPhase");

    // Nothing is written over an input, also under another path.
    write_tif(dir / "ok/20200101_20200113.unw.tif", 4, 3, kLonLat, 4326, ramp(12, 1));
    expect_fail(prep({dir / "ok", "--out", dir / "ok/job", "--wavelength", "0.05"}), "lies inside the source folder");
    EXPECT_FALSE(fs::exists(dir / "ok/job"));
    fs::create_directory_symlink(dir / "ok", dir / "link");
    expect_fail(prep({dir / "ok", "--out", dir / "link/./", "--wavelength", "0.05"}), "holds the input");
    make_dir(dir / "out");
    write_stack(dir / "out/ifgramStack.h5", true);
    expect_fail(prep({dir / "out/ifgramStack.h5", "--out", dir / "out"}), "holds the input");
    const std::string deep = dir / std::string(200, 'd');
    expect_fail(prep({dir / "ok", "--out", deep, "--wavelength", "0.05"}), "holds at most 199");
    EXPECT_FALSE(fs::exists(deep));
    expect_fail(prep({dir / "ok", "--wavelength", "0.05"}), "--out JOB is missing", 2);
}

// The same synthetic interferograms as GeoTIFFs through sbas-prep and in the
// raw format give byte-identical results.
TEST(Prep, GeoTiffJobRunsLikeTheRawJob)
{
    SynthJob raw(synth::Options{.noise = 0.3, .nodata_fraction = 0.3});
    TempDir dir;
    const synth::Grid& g = raw.job.grid;
    const double gt[6] = {g.x_first - g.x_step / 2, g.x_step, 0, g.y_first - g.y_step / 2, 0, g.y_step};
    char wavelength[32];
    std::snprintf(wavelength, sizeof wavelength, "%.17g", 0.05546576);
    for (const std::string& name : raw.job.ifgs) {
        const std::string pair = name.substr(4, 17);
        write_tif(dir / ("src/" + pair + "/" + pair + ".geo.unw.tif"), static_cast<int>(g.width),
                  static_cast<int>(g.length), gt, 4326, raw.raster(raw.job.ifg_folder + "/" + name),
                  {{"WAVELENGTH", wavelength}});
    }
    const Outcome o = prep({dir / "src", "--out", dir / "job"});
    ASSERT_EQ(o.status, 0) << o.err;
    EXPECT_EQ(read_text(dir / "job/ifg_header.txt"), read_text(raw.job.ifg_header));
    EXPECT_EQ(read_text(dir / "job/ifg_list.txt"), read_text(raw.job.ifg_list));
    EXPECT_EQ(files_under(dir / "job/ifg"), files_under(raw.job.ifg_folder));

    std::string settings;
    for (const auto& [key, value] : raw.job.config_entries)
        if (key != "resultfolder" && key != "headerfile" && key != "filelist" && key != "datafolder" &&
            key != "baselines")
            settings += key + " " + value + "\n";
    write_text(dir / "run.txt", read_text(dir / "job/config.txt") + settings);
    const std::string both = "if_check_loop_closure 1\nif_stacking 1\nif_apply_filter 3\n";
    write_text(dir / "run.txt", read_text(dir / "run.txt") + both);
    expect_finished(run_program({dir / "run.txt"}));
    expect_finished(raw.run(both));
    const auto want = files_under(raw.job.result_folder);
    EXPECT_GT(want.size(), 20u);
    EXPECT_EQ(files_under(dir / "job/result") == want, true);
}

}  // namespace
