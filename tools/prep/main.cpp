// sbas-prep: the command line.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "prep/fail.h"
#include "prep/prep.h"

namespace {

const char* const kUsage =
    "Usage: sbas-prep SOURCE --out JOB [--wavelength METRES] [--pattern GLOB] [--dem FILE]\n"
    "\n"
    "Writes a job that 'sbas-ts JOB/config.txt' runs as it is: float32 rasters in\n"
    "JOB/ifg, ifg_header.txt, ifg_list.txt, baselines.txt where the source has\n"
    "perpendicular baselines, config.txt and an empty JOB/result.\n"
    "\n"
    "SOURCE is either\n"
    "  a folder, searched recursively for geocoded unwrapped-phase rasters that\n"
    "  GDAL reads (radians), their file or folder names holding the two dates\n"
    "  yyyymmdd (e.g. 20200105_20200117.geo.unw.tif, or\n"
    "  S1AA_20200105T014035_20200117T014034_..._unw_phase.tif); the unwrapped\n"
    "  phase is chosen by name ('unw_phase', '.unw.'), other files are skipped\n"
    "  and counted; or\n"
    "  an ifgramStack.h5 (unwrapPhase, date, bperp, dropIfgram; geocoded).\n"
    "\n"
    "  --out JOB            the job folder (new or empty; not inside the source)\n"
    "  --wavelength METRES  radar wavelength; required when the source has none\n"
    "  --pattern GLOB       take the files whose names match GLOB as unwrapped\n"
    "                       phase (a GLOB with '/' matches the path below SOURCE)\n"
    "  --dem FILE           a DEM GDAL reads, resampled to the grid (dem,\n"
    "                       dem_header.txt)\n"
    "\n"
    "NaN, infinities, a raster's no-data value and 0 become 0 (no data). Rasters\n"
    "in a projected system are warped to WGS 84 longitude/latitude, rasters on\n"
    "different grids are put on one (nearest neighbour). The header holds pixel\n"
    "centres. Errors: one line on standard error, exit status 1 (2: usage).\n";

}  // namespace

int main(int argc, char** argv)
{
    prep::Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) prep::usage_error("%s needs a value", arg.c_str());
            return argv[++i];
        };
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (arg == "--out") {
            o.out = value();
        } else if (arg == "--pattern") {
            o.pattern = value();
        } else if (arg == "--dem") {
            o.dem = value();
        } else if (arg == "--wavelength") {
            const std::string text = value();
            char* end = nullptr;
            const double v = std::strtod(text.c_str(), &end);
            if (text.empty() || *end != '\0' || !std::isfinite(v) || v <= 0 || v >= 1)
                prep::usage_error("--wavelength takes metres between 0 and 1 (0.05546576 for Sentinel-1), not '%s'",
                                  text.c_str());
            o.wavelength = v;
        } else if (!arg.empty() && arg[0] == '-') {
            prep::usage_error("unknown option %s", arg.c_str());
        } else if (o.source.empty()) {
            o.source = arg;
        } else {
            prep::usage_error("unexpected argument '%s'", arg.c_str());
        }
    }
    if (o.source.empty()) prep::usage_error("SOURCE is missing");
    if (o.out.empty()) prep::usage_error("--out JOB is missing");

    namespace fs = std::filesystem;
    std::error_code error;
    prep::Plan plan;
    if (fs::is_directory(o.source, error)) {
        plan = prep::plan_folder(o);
    } else if (fs::is_regular_file(o.source, error) && prep::is_hdf5(o.source)) {
        if (!o.pattern.empty()) prep::usage_error("--pattern applies to a folder SOURCE, not to an HDF5 stack");
        plan = prep::plan_stack(o);
    } else if (!fs::exists(o.source, error)) {
        prep::fail("%s does not exist", o.source.c_str());
    } else {
        prep::fail("%s is neither a folder of rasters nor an HDF5 stack", o.source.c_str());
    }
    if (!o.dem.empty()) {
        const prep::RasterInfo dem = prep::inspect_raster(o.dem);
        if (!prep::overlap(dem.grid, plan.grid))
            prep::fail("the DEM %s does not cover the interferograms' grid", o.dem.c_str());
    }
    const prep::Written w = prep::write_job(plan, o);
    prep::print_summary(plan, o, w);
    return 0;
}
