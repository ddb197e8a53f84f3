// `sbas-view export`: every raster of a result folder as a GeoTIFF and the
// displacement history as one NetCDF-CF cube.
//
// The rasters are found by name (the catalogue of rasters.h), so copies,
// transient files and anything else in the folder are left alone. All sizes
// are checked before the first file is written: a raster of another grid
// stops the export with nothing half done. The cube's dates are those of the
// list the run ended with (result/filelist_used when the loop-closure check
// dropped interferograms), so maps left in the folder by an earlier run of
// another network never enter it.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include "view/commands.h"
#include "view/fail.h"
#include "view/guard.h"
#include "view/outputs.h"

namespace view {
namespace {

// The result rasters in `dir`, sorted by name.
std::vector<std::string> result_rasters(const std::string& dir)
{
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(dir, error)) {
        const std::string name = entry.path().filename().string();
        if (entry.is_regular_file(error) && quantity_of(name)) names.push_back(name);
    }
    if (error) fail("cannot list result folder %s: %s", dir.c_str(), error.message().c_str());
    std::sort(names.begin(), names.end());
    return names;
}

void make_folder(const std::string& dir)
{
    std::error_code error;
    std::filesystem::create_directories(dir, error);
    if (error || !is_folder(dir)) fail("cannot create output folder %s", dir.c_str());
}

}  // namespace

std::vector<float> load_converted(const std::string& path, const Quantity& q, const Grid& grid, Unit unit,
                                  double wavelength, const Determination* blank)
{
    std::vector<float> values = read_raster(path, grid);
    const double factor = unit_factor(q, unit, wavelength);
    for (float& v : values)
        v = holds_data(q, v) ? static_cast<float>(v * factor) : std::nanf("");
    if (blank && q.inversion && !blank->bridged)
        for (size_t i = 0; i < values.size(); ++i)
            if (blank->undetermined[i]) values[i] = std::nanf("");
    return values;
}

static void note_undetermined(const Determination& d, const char* what)
{
    if (d.bridged)
        std::fprintf(stderr, "sbas-view: note: the temporal constraint ties every date, so no pixel is undetermined\n");
    else
        std::fprintf(stderr,
                     "sbas-view: note: %lld pixels are undetermined (their valid interferograms do not connect all "
                     "dates) and %s; %lld pixels have no estimate\n",
                     static_cast<long long>(d.undetermined_count), what,
                     static_cast<long long>(d.no_estimate_count));
}

void run_export(const ExportOptions& options)
{
    if (!is_folder(options.result_dir)) fail("result folder %s does not exist", options.result_dir.c_str());
    const Job job = read_job(options.config);
    const std::vector<std::string> names = result_rasters(options.result_dir);
    if (names.empty()) fail("result folder %s holds no raster written by sbas-ts", options.result_dir.c_str());
    for (const std::string& name : names) check_raster(options.result_dir + "/" + name, job.grid);

    // The cube's dates: every date of the list after the first needs its map.
    bool have_maps = false;
    for (const std::string& name : names) have_maps = have_maps || quantity_of(name)->date != 0;
    std::vector<int> dates;
    bool filtered = false;
    if (have_maps) {
        dates = dates_of(pairs_used(job, options.result_dir));
        filtered = true;
        for (size_t k = 1; k < dates.size(); ++k) {
            const std::string map = options.result_dir + "/" + culmap_name(dates[k], dates[0]);
            if (!is_file(map))
                fail("result folder %s lacks %s, a map of the %zu dates of the run's list",
                     options.result_dir.c_str(), culmap_name(dates[k], dates[0]).c_str(), dates.size());
            filtered = filtered && is_file(map + ".filtered");
        }
    }

    const std::string out = options.out_dir.empty() ? options.result_dir + "/export" : options.out_dir;
    make_folder(out);
    Provenance provenance{&job, reference_of(job, options.result_dir), options.unit};
    bool estimates = false;
    for (const std::string& name : names) estimates = estimates || quantity_of(name)->inversion;
    const bool determine = estimates && !options.keep_undetermined;
    std::vector<std::string> outputs;
    for (const std::string& name : names) outputs.push_back(out + "/" + name + ".tif");
    if (determine) outputs.push_back(out + "/undetermined.tif");
    if (dates.size() > 1) outputs.push_back(out + "/displacement.nc");
    claim_outputs(job_inputs(job, options.result_dir, determine), outputs);
    Determination determination;
    if (determine) {
        determination = find_undetermined(job, options.result_dir);
        provenance.blank = &determination;
    }
    for (const std::string& name : names) {
        const Quantity q = *quantity_of(name);
        std::vector<float> values =
            load_converted(options.result_dir + "/" + name, q, job.grid, options.unit, job.wavelength, provenance.blank);
        const std::string tif = out + "/" + name + ".tif";
        write_geotiff(tif, values, q, provenance);
        std::printf("%s\n", tif.c_str());
    }
    if (provenance.blank) {
        Quantity q;
        q.name = "undetermined";
        q.description = "undetermined pixels: 1 where the valid interferograms do not connect all dates (left as no "
                        "data in the other layers), 0 elsewhere";
        q.base_unit = "1";
        q.zero_is_nodata = false;
        q.signed_values = false;
        std::vector<float> values(determination.undetermined.begin(), determination.undetermined.end());
        if (values.empty()) values.assign(static_cast<size_t>(job.grid.pixels()), 0.0f);
        const std::string tif = out + "/undetermined.tif";
        write_geotiff(tif, values, q, provenance);
        std::printf("%s\n", tif.c_str());
    }
    if (dates.size() > 1) {
        const std::string cube = out + "/displacement.nc";
        write_cube(cube, options.result_dir, dates, filtered, provenance);
        std::printf("%s\n", cube.c_str());
    }
    if (provenance.blank) note_undetermined(determination, "left as no data (--keep-undetermined keeps them)");
}

}  // namespace view
