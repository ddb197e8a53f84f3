// The run record: every setting of a job under its configuration key, the
// paths, the interferogram lists and the few run values the driver derives.
//
// CFG is a plain record with value semantics: copying it copies the lists
// deeply. The driver owns the one live record of a run; a stage that may
// change what later stages see (dropping interferograms, pointing the run at
// corrected copies) receives a pointer, every other stage a copy.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "config/text.h"
#include "numerics/error.h"

struct CFG {
    int masterdate = 0;            // a date yyyymmdd
    int reserved_flag = 0;         // no configuration key
    float ref_lat = 0;             // latitude of the reference point, degrees
    float ref_lon = 0;             // longitude of the reference point, degrees
    int64_t ref_row = 0;           // reference pixel row (0 with ref_col 0: none given)
    int64_t ref_col = 0;           // reference pixel column
    char resultfolder[lib::kPathBytes] = {};  // every output goes here; must exist
    char headerfile[lib::kPathBytes] = {};    // raster header of the grid
    char filelist[lib::kPathBytes] = {};      // interferogram list
    char datafolder[lib::kPathBytes] = {};    // folder of the interferogram rasters; must exist
    char baselines[lib::kPathBytes] = {};     // perpendicular-baseline list
    std::vector<std::string> ifg_names;       // raster names relative to datafolder, list order
    std::vector<int> ifg_date1;               // first date yyyymmdd found in each name
    std::vector<int> ifg_date2;               // second date yyyymmdd found in each name
    std::vector<int> ifg_date1_index;         // place of date 1 in the ordered date list
    std::vector<int> ifg_date2_index;         // place of date 2 in the ordered date list
    int64_t maxcap = 0;            // pixels per processing batch
    int64_t minnum = 0;            // stored only
    int64_t reserved_count = 0;    // no configuration key
    int if_est_hgt = 0;            // 1: estimate a baseline-dependent DEM-error term
    float wavelength = 0;          // radar wavelength, metres
    float incidence = 0;           // incidence angle, degrees
    float orbit_altitude = 0;      // satellite altitude, metres
    int temporal_constraint = 0;   // 0 none, 1 linear, 2 logarithmic
    float temporal_strength = 0;   // weight of the temporal constraint
    int max_parallel_threads = 0;  // threads of the parallel stages
    int if_remove_orbit = 0;
    int if_remove_eds = 0;
    int orbit_quad_fit_sampling = 0;
    int eds_block_size = 0;
    int if_check_loop_closure = 0;
    float loop_misclosure_threshold = 0;
    float loop_misclosure_ratio_threshod = 0;
    float whole_ifg_closure_std_threshold = 0;
    float loop_closure_mean_std_threshold = 0;
    int minimun_loop_num = 0;
    int if_allow_unlooped_pixel = 0;
    int if_keep_phase_closure_maps = 0;
    int if_keep_corrected_ifg = 0;
    float minimum_temporal_ifg_ratio = 0;  // least share of valid interferograms per pixel
    int simple_log_origin = 0;             // origin date yyyymmdd of the logarithmic model
    double simple_log_origin_mjd = 0;      // its MJD, set by the driver
    int ref_window = 0;                    // side of the reference window, pixels
    int ref_method = 0;                    // 0 least variance, 1 global mean, 2 stable window
    float sigma_factor = 0;                // stored only
    char demfile[lib::kPathBytes] = {};
    char demfile_header[lib::kPathBytes] = {};
    int if_delete_bad_ifgs = 0;
    int if_allow_unlooped_ifgs = 0;
    float confidence_level = 0;
    float sigma_confidence_level = 0;
    int if_inverse_time_series = 0;  // nonzero: run the network inversion
    int if_apply_filter = 0;         // which filters run after the inversion, 0 to 5
    int spatial_filter_method = 0;
    int temporal_filter_method = 0;
    float spatial_filter_sigma = 0;
    float temporal_filter_sigma = 0;
    int if_stacking = 0;
    int if_use_existing_corrected_ifg = 0;
    int if_use_existing_phasemask = 0;
    int n_ifg = 0;   // number of interferograms, set by the driver after date ordering
    int n_date = 0;  // number of acquisition dates, set with n_ifg
};

namespace lib {

// Writes the default of every setting into the record (ref_lat and ref_lon
// become 0); touches no path and no list.
void cfg_init(CFG* cfg);

// The settings of the configuration file at `path` over the defaults, with
// ref_lat and ref_lon at -9999 (not given) unless the file sets them. Reads
// nothing but the file: the whole job (header, reference pixel, folders,
// list) is loaded by lib::loadcfg (app/job.h).
Result<CFG> read_settings(const char* path);

// Reports a temporal_constraint other than 0, 1, 2 or an if_est_hgt other
// than 0, 1 when the inversion runs ("%s %d is not supported: use ...").
Status check_model(const CFG& cfg);

}  // namespace lib
