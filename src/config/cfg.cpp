// Reading the configuration file.
//
// Each line is stripped of leading spaces and its first field is compared,
// exactly and case-sensitively, with the keys in one fixed order. On a match
// the line's second field takes the key's place and the comparison goes on
// down the list, so a value that is itself a later key name sets that key
// too (`resultfolder headerfile` sets both resultfolder and headerfile to
// "headerfile"). The rule is kept on purpose: users' files rely on it, and
// tests/config/cfg_test.cpp pins it.
//
// Conversions follow the member type: paths take the field as it stands,
// integers its decimal prefix, floats its floating-point prefix read as a
// double and rounded. The 64-bit counts are read as 32-bit integers and then
// widened, and three integer settings are read as a double and truncated, so
// "1e1" gives 10 for them and 1 elsewhere.
#include "config/cfg.h"

#include <climits>
#include <cstring>

#include "config/fatal.h"
#include "config/text.h"

namespace lib {
namespace {

using Truncated = lib::Truncated<CFG>;

// The comparison order matters (see above); do not sort.
const Key<CFG> kKeys[] = {
    {"resultfolder", &CFG::resultfolder},
    {"headerfile", &CFG::headerfile},
    {"filelist", &CFG::filelist},
    {"datafolder", &CFG::datafolder},
    {"masterdate", &CFG::masterdate},
    {"ref_row", &CFG::ref_row},
    {"ref_col", &CFG::ref_col},
    {"ref_lat", &CFG::ref_lat},
    {"ref_lon", &CFG::ref_lon},
    {"maxcap", &CFG::maxcap},
    {"baselines", &CFG::baselines},
    {"if_est_hgt", &CFG::if_est_hgt},
    {"wavelength", &CFG::wavelength},
    {"incidence", &CFG::incidence},
    {"orbit_altitude", &CFG::orbit_altitude},
    {"temporal_constraint", &CFG::temporal_constraint},
    {"temporal_strength", &CFG::temporal_strength},
    {"if_remove_orbit", &CFG::if_remove_orbit},
    {"orbit_quad_fit_sampling", &CFG::orbit_quad_fit_sampling},
    {"loop_misclosure_threshold", &CFG::loop_misclosure_threshold},
    {"loop_misclosure_ratio_threshod", &CFG::loop_misclosure_ratio_threshod},
    {"minimun_loop_num", &CFG::minimun_loop_num},
    {"if_allow_unlooped_pixel", &CFG::if_allow_unlooped_pixel},
    {"if_check_loop_closure", &CFG::if_check_loop_closure},
    {"minimum_temporal_ifg_ratio", &CFG::minimum_temporal_ifg_ratio},
    {"simple_log_origin", &CFG::simple_log_origin},
    {"ref_window", &CFG::ref_window},
    {"minnum", &CFG::minnum},
    {"sigma_factor", &CFG::sigma_factor},
    {"if_remove_eds", &CFG::if_remove_eds},
    {"eds_block_size", Truncated{&CFG::eds_block_size}},
    {"demfile", &CFG::demfile},
    {"demfile_header", &CFG::demfile_header},
    {"whole_ifg_closure_std_threshold", &CFG::whole_ifg_closure_std_threshold},
    {"if_keep_phase_closure_maps", &CFG::if_keep_phase_closure_maps},
    {"max_parallel_threads", &CFG::max_parallel_threads},
    {"if_keep_corrected_ifg", &CFG::if_keep_corrected_ifg},
    {"ref_method", &CFG::ref_method},
    {"if_delete_bad_ifgs", &CFG::if_delete_bad_ifgs},
    {"loop_closure_mean_std_threshold", &CFG::loop_closure_mean_std_threshold},
    {"if_allow_unlooped_ifgs", &CFG::if_allow_unlooped_ifgs},
    {"confidence_level", &CFG::confidence_level},
    {"sigma_confidence_level", &CFG::sigma_confidence_level},
    {"temporal_filter_sigma", &CFG::temporal_filter_sigma},
    {"if_inverse_time_series", &CFG::if_inverse_time_series},
    {"spatial_filter_sigma", &CFG::spatial_filter_sigma},
    {"spatial_filter_method", Truncated{&CFG::spatial_filter_method}},
    {"temporal_filter_method", Truncated{&CFG::temporal_filter_method}},
    {"if_apply_filter", &CFG::if_apply_filter},
    {"if_stacking", &CFG::if_stacking},
    {"if_use_existing_corrected_ifg", &CFG::if_use_existing_corrected_ifg},
    {"if_use_existing_phasemask", &CFG::if_use_existing_phasemask},
};

Error unsupported(const char* key, int value, const char* choices)
{
    return error(Fault::setting, key, Stream::err, "%s %d is not supported: use %s\n", key, value, choices);
}

}  // namespace

void cfg_init(CFG* cfg)
{
    cfg->masterdate = 0;
    cfg->reserved_flag = 0;
    cfg->ref_lat = 0;
    cfg->ref_lon = 0;
    cfg->ref_row = 0;
    cfg->ref_col = 0;
    cfg->maxcap = 30000000;
    cfg->reserved_count = 500;
    cfg->if_est_hgt = 0;
    cfg->wavelength = 0.055165f;
    cfg->incidence = 39.0f;
    cfg->orbit_altitude = 690000.0f;
    cfg->temporal_constraint = 0;
    cfg->temporal_strength = 0.1f;
    cfg->max_parallel_threads = 4;
    cfg->if_remove_orbit = 0;
    cfg->if_remove_eds = 0;
    cfg->orbit_quad_fit_sampling = 4;
    cfg->eds_block_size = 100;
    cfg->if_check_loop_closure = 1;
    cfg->loop_misclosure_threshold = 3.14f;
    cfg->loop_misclosure_ratio_threshod = 0.5f;
    cfg->whole_ifg_closure_std_threshold = 3.14f;
    cfg->loop_closure_mean_std_threshold = 3.14f;
    cfg->minimun_loop_num = 0;
    cfg->if_allow_unlooped_pixel = 0;
    cfg->if_keep_phase_closure_maps = 0;
    cfg->if_keep_corrected_ifg = 0;
    cfg->minimum_temporal_ifg_ratio = 0.5f;
    cfg->simple_log_origin = 20000101;
    cfg->ref_window = 5;
    cfg->ref_method = 2;
    cfg->if_delete_bad_ifgs = 1;
    cfg->if_allow_unlooped_ifgs = 1;
    cfg->confidence_level = 2.0f;
    cfg->sigma_confidence_level = 3.0f;
    cfg->if_inverse_time_series = 1;
    cfg->if_apply_filter = 1;
    cfg->spatial_filter_method = 0;
    cfg->temporal_filter_method = 0;
    cfg->spatial_filter_sigma = -1.0f;
    cfg->temporal_filter_sigma = -1.0f;
    cfg->if_stacking = 0;
    cfg->if_use_existing_corrected_ifg = 1;
    cfg->if_use_existing_phasemask = 1;
}

Result<CFG> read_settings(const char* path)
{
    CFG cfg;
    cfg_init(&cfg);
    cfg.ref_lat = -9999;
    cfg.ref_lon = -9999;
    SBAS_TAKE(const File file, fopen_zq(path, "r"));
    SBAS_TRY(read_keyed(file.get(), path, kKeys, cfg));
    return cfg;
}

Status check_model(const CFG& cfg)
{
    // The inversion knows no other models; say so now rather than write
    // meaningless maps at the end of a long run.
    if (cfg.if_inverse_time_series == 0) return {};
    if (cfg.temporal_constraint < 0 || cfg.temporal_constraint > 2)
        return unsupported("temporal_constraint", cfg.temporal_constraint, "0 (none), 1 (linear) or 2 (logarithmic)");
    if (cfg.if_est_hgt != 0 && cfg.if_est_hgt != 1) return unsupported("if_est_hgt", cfg.if_est_hgt, "0 or 1");
    return {};
}

}  // namespace lib
