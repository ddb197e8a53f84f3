// An input is safe from the run's outputs when no output path names it. The
// check lists every file the settings let the run write, looks each up in
// the result folder without following a link (an output replaces a link
// standing at its path, see com::open_output), and compares what it finds,
// by device and inode, with every input the run reads. It runs before any
// stage writes, so a refused job leaves every file as it was.
//
// The displacement maps take their names from the dates of the network,
// and the loop-closure check may reject every interferogram of the first
// date; the maps are therefore looked up for every pair of dates, D(D-1)/2
// names for D dates, a few hundred thousand look-ups of absent files at most
// for the largest networks.
//
// The physical settings enter the inversion as divisors and square roots;
// zero or an infinity there turns every output into NaN without a word, so
// the run says so before the inversion starts.
#include "app/job_checks.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "catalogue/header.h"
#include "catalogue/raster.h"
#include "catalogue/same_file.h"
#include "config/cfg.h"
#include "config/fatal.h"
#include "numerics/arrays.h"
#include "numerics/ranks.h"
#include "numerics/error.h"

namespace sbas {
namespace {

using com::add_file;

std::vector<int> network_dates(const CFG& cfg)
{
    std::vector<int> dates(cfg.ifg_date1.begin(), cfg.ifg_date1.end());
    dates.insert(dates.end(), cfg.ifg_date2.begin(), cfg.ifg_date2.end());
    std::sort(dates.begin(), dates.end());
    dates.erase(std::unique(dates.begin(), dates.end()), dates.end());
    return dates;
}

bool usable(float value) { return std::isfinite(value) && value != 0.0f; }

}  // namespace

void for_each_output(const CFG& cfg, const std::function<void(const std::string&)>& visit)
{
    const bool inversion = cfg.if_inverse_time_series != 0;
    if (cfg.if_check_loop_closure == 1 || cfg.if_inverse_time_series == 1 || cfg.if_stacking == 1) visit("refpoint");
    if (cfg.if_check_loop_closure == 1) {
        for (const char* name : {"phase_loop_closure_mask", "phase_loop_closure_std", "phase_loop_closure_failed_ratio",
                                 "filelist_statistics"})
            visit(name);
        if (cfg.if_delete_bad_ifgs != 0) {
            visit("filelist_used");
            visit("filelist_deleted");
        }
    }
    for (const std::string& name : cfg.ifg_names) {
        if (cfg.if_remove_eds == 1) visit(name + ".remove_hgt");
        if (cfg.if_remove_orbit == 1) visit(name + (cfg.if_remove_eds == 1 ? ".remove_hgt" : "") + ".remove_orbit");
    }
    if (cfg.if_stacking == 1)
        for (const char* suffix : {"", "_residual", "_sigma"}) visit(std::string("linear_stacking_mean_velocity") + suffix);
    if (inversion) {
        visit("least_square_sigma");
        visit("linear_mean_velocity");
        if (cfg.if_est_hgt == 1) visit("baseline_dependent_dem_error");
    }

    const int filter = cfg.if_apply_filter;
    const bool filtering = filter >= 1 && filter <= 5;
    if (filter == 1 || filter == 3 || filter == 4) {
        visit("linear_mean_velocity.filtered");
        visit("linear_stacking_mean_velocity.filtered");
    }
    std::vector<const char*> map_suffixes;
    if (inversion) map_suffixes.push_back(".disp");
    if (filtering) map_suffixes.push_back(".disp.filtered");
    if (filter == 4) map_suffixes.push_back(".disp.sfilter");
    if (map_suffixes.empty()) return;
    const std::vector<int> dates = network_dates(cfg);
    for (size_t later = 1; later < dates.size(); ++later)
        for (size_t earlier = 0; earlier < later; ++earlier) {
            const std::string stem =
                "culmap-" + std::to_string(dates[later]) + "-" + std::to_string(dates[earlier]);
            for (const char* suffix : map_suffixes) visit(stem + suffix);
        }
}

lib::Status refuse_outputs_over_inputs(const CFG& cfg, const char* config_path)
{
    com::FileIdentities inputs;
    add_file(inputs, config_path);
    add_file(inputs, cfg.headerfile);
    add_file(inputs, cfg.filelist);
    if (cfg.if_inverse_time_series != 0 && cfg.if_est_hgt == 1) add_file(inputs, cfg.baselines);
    if (cfg.if_remove_eds == 1) {
        add_file(inputs, cfg.demfile);
        add_file(inputs, cfg.demfile_header);
    }
    for (const std::string& name : cfg.ifg_names) add_file(inputs, com::join_path(cfg.datafolder, name.c_str()).c_str());

    std::optional<lib::Error> overlap;
    for_each_output(cfg, [&](const std::string& name) {
        if (overlap) return;
        const com::Path output = com::join_path(cfg.resultfolder, name.c_str());
        if (const std::string* input = com::same_file(inputs, output.c_str(), false))
            overlap = lib::error(lib::Fault::overlap, output.c_str(), lib::Stream::err,
                                 "output %s would overwrite the input %s\n", output.c_str(), input->c_str());
    });
    if (overlap) return std::move(*overlap);
    return {};
}

lib::Status require_interferograms(const CFG& cfg)
{
    if (cfg.ifg_names.empty())
        return lib::error(lib::Fault::data, cfg.filelist, lib::Stream::err,
                          "%s lists no interferogram: nothing to process\n", cfg.filelist);
    return {};
}

lib::Status require_path(const char* key, const char* value, const char* config_path)
{
    if (value[0] != '\0') return {};
    return lib::error(lib::Fault::setting, key, lib::Stream::err, "%s is not set in the configuration %s\n", key,
                      config_path);
}

lib::Status require_stage_paths(const CFG& cfg, const char* config_path)
{
    if (cfg.if_inverse_time_series != 0 && cfg.if_est_hgt == 1)
        SBAS_TRY(require_path("baselines", cfg.baselines, config_path));
    if (cfg.if_remove_eds == 1) {
        SBAS_TRY(require_path("demfile", cfg.demfile, config_path));
        SBAS_TRY(require_path("demfile_header", cfg.demfile_header, config_path));
    }
    return {};
}

lib::Status refuse_duplicate_names(const CFG& cfg)
{
    std::unordered_map<std::string, size_t> first_line;
    for (size_t k = 0; k < cfg.ifg_names.size(); ++k) {
        const auto [at, fresh] = first_line.emplace(cfg.ifg_names[k], k + 1);
        if (!fresh)
            return lib::error(lib::Fault::format, cfg.filelist, lib::Stream::err, "%s names %s twice (lines %zu and %zu)\n",
                              cfg.filelist, cfg.ifg_names[k].c_str(), at->second, k + 1);
    }
    return {};
}

lib::Status require_grid_in_memory(const CFG& cfg, const HEADER& grid)
{
    if (lib::fits_in_memory(com::pixel_count(grid), sizeof(float))) return {};
    return lib::error(lib::Fault::setting, cfg.headerfile, lib::Stream::err,
                      "headerfile %s describes a grid of %lld x %lld pixels, more than memory holds\n", cfg.headerfile,
                      static_cast<long long>(grid.WIDTH), static_cast<long long>(grid.FILE_LENGTH));
}

void warn_foreign_mask(const CFG& cfg, const HEADER& grid, const char* path)
{
    struct stat st {};
    if (stat(path, &st) != 0 || !S_ISREG(st.st_mode)) return;
    const long long pixels = com::pixel_count(grid);
    const long long bytes = st.st_size;
    if (bytes == 4 * pixels) return;
    std::fprintf(stderr,
                 "warning: %s holds %lld bytes, not the %lld of one sample per pixel of the grid of %s: it was "
                 "written for another grid, and if_use_existing_phasemask reuses it as it is (delete it, or set "
                 "if_use_existing_phasemask 0, to check again)\n",
                 path, bytes, 4 * pixels, cfg.headerfile);
}

void warn_foreign_list(const char* job_list, const std::vector<std::string>& listed,
                       const std::vector<std::string>& used_names, const char* used)
{
    const std::unordered_set<std::string> own(listed.begin(), listed.end());
    size_t foreign = 0;
    const std::string* first = nullptr;
    for (const std::string& name : used_names)
        if (!own.count(name)) {
            ++foreign;
            if (!first) first = &name;
        }
    if (foreign == 0) return;
    std::fprintf(stderr,
                 "warning: %s names %zu interferograms that %s does not list, the first %s: it was left by "
                 "another job, and the filters work on the dates of its list\n",
                 used, foreign, job_list, first->c_str());
}

void warn_physical_settings(const CFG& cfg)
{
    if (cfg.if_inverse_time_series == 0) return;
    if ((cfg.temporal_constraint == 1 || cfg.temporal_constraint == 2) &&
        !(std::isfinite(cfg.temporal_strength) && cfg.temporal_strength > 0.0f))
        std::fprintf(stderr, "warning: temporal_strength is %g; the temporal constraint needs a positive finite weight\n",
                     cfg.temporal_strength);
    if (cfg.if_est_hgt != 1) return;
    const std::pair<const char*, float> settings[] = {
        {"wavelength", cfg.wavelength}, {"orbit_altitude", cfg.orbit_altitude}, {"incidence", cfg.incidence}};
    for (const auto& [key, value] : settings)
        if (!usable(value))
            std::fprintf(stderr, "warning: %s is %g; the DEM-error term needs a finite nonzero value\n", key, value);
}

}  // namespace sbas

namespace sbas {

lib::Status prepare_spread_outputs(const CFG& cfg)
{
    if (!lib::spread()) return {};
    std::optional<lib::Error> refused;
    if (lib::ranks().rank == 0)
        for_each_output(cfg, [&](const std::string& name) {
            if (refused) return;
            const com::Path output = com::join_path(cfg.resultfolder, name.c_str());
            struct stat st {};
            if (lstat(output.c_str(), &st) != 0) return;
            if (S_ISLNK(st.st_mode)) unlink(output.c_str());
            else if (!S_ISREG(st.st_mode)) refused = lib::not_regular(output.c_str(), st.st_mode);
        });
    return refused ? lib::Status(std::move(*refused)) : lib::Status();
}

}  // namespace sbas
