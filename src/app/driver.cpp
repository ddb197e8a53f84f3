// The main sequence of a run.
//
// Stages run strictly one after another on this thread and meet through
// files and through the run record: a stage that changes what later stages
// see (dropping interferograms, switching to corrected copies) changes the
// record it is handed by pointer. The driver keeps the few arrays that pass
// between stages: the reference values (one per interferogram), the closure
// mask (one per pixel), the baselines and the ordered dates.
//
// The network inversion is cut into batches of maxcap consecutive pixels
// (batches may cut rows, see lib::for_each_batch), so only one batch of the
// stack is in memory at a time.
#include "app/driver.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "app/job_checks.h"
#include "catalogue/baselines.h"
#include "catalogue/dates.h"
#include "catalogue/filelist.h"
#include "catalogue/header.h"
#include "catalogue/raster.h"
#include "catalogue/stack.h"
#include "config/cfg.h"
#include "config/fatal.h"
#include "filter/spatial.h"
#include "filter/spatio_temporal.h"
#include "filter/temporal.h"
#include "inversion/network.h"
#include "numerics/arrays.h"
#include "numerics/parallel.h"
#include "quality/corrections.h"
#include "quality/loop_closure.h"
#include "reference/ref_point.h"
#include "stacking/stacking.h"

namespace sbas {
namespace {

// The stages after the inversion, in the order if_apply_filter asks for them.
enum class Filter { spatial, temporal, spatio_temporal };

std::vector<Filter> filters_for(int if_apply_filter)
{
    switch (if_apply_filter) {
    case 1: return {Filter::spatial};
    case 2: return {Filter::temporal};
    case 3: return {Filter::temporal, Filter::spatial};
    case 4: return {Filter::spatial, Filter::temporal};
    case 5: return {Filter::spatio_temporal};
    default: return {};
    }
}

// Each filter works on its own copy of the record.
void run_filter(Filter filter, CFG cfg)
{
    switch (filter) {
    case Filter::spatial: spatial_filter(cfg); break;
    case Filter::temporal: temporal_filter(cfg); break;
    case Filter::spatio_temporal: spatial_temporal_filter(cfg); break;
    }
}

// Keeps the reference values of the interferograms that are still listed:
// `kept` is `before` with some names removed, order unchanged, and values[k]
// belongs to before[k]. Values stay one per listed interferogram in list
// order, as the loader expects them.
void keep_reference_values(const std::vector<std::string>& before, const std::vector<std::string>& kept,
                           float* values)
{
    size_t from = 0;
    for (size_t k = 0; k < kept.size(); ++k) {
        while (from < before.size() && before[from] != kept[k]) ++from;
        values[k] = from < before.size() ? values[from++] : 0.0f;
    }
}

// Step of the loop-closure check: runs the check unless an existing mask is
// to be reused, then fills `mask` (pixel_count floats, zeroed) from
// "phase_loop_closure_mask". The check may drop interferograms from the
// record; the reference values follow the list.
void loop_closure_stage(CFG* cfg, int64_t pixels, float* mask, float* reference_values)
{
    const com::Path mask_path = com::join_path(cfg->resultfolder, "phase_loop_closure_mask");
    const bool reuse = lib::opens_for_reading(mask_path.c_str()) && cfg->if_use_existing_phasemask != 0;
    if (reuse) {
        std::fputs("Use existing phase closure mask\n", stderr);
    } else {
        const std::vector<std::string> before = cfg->ifg_names;
        quality::remove_ifg_by_loop_closure_with_reference(cfg, reference_values);
        keep_reference_values(before, cfg->ifg_names, reference_values);
    }
    // A mask shorter than the grid is taken as it is: the rest stays 0.
    FILE* file = lib::fopen_zq(mask_path.c_str(), "rb");
    if (pixels > 0) {
        const size_t got = std::fread(mask, sizeof(float), static_cast<size_t>(pixels), file);
        (void)got;
    }
    std::fclose(file);
}

// Step of the network inversion: every batch of maxcap pixels is loaded and
// inverted before the next one is touched.
void invert_in_batches(const CFG& cfg, const HEADER& header, const std::vector<DATEORDER>& dates,
                       const BASELINE* baselines, const float* reference_values, const float* mask)
{
    std::fputs("\n*************Time series inversion start*****************\n", stderr);
    const int64_t pixels = com::pixel_count(header);
    const float total = lib::batch_total(header.WIDTH, header.FILE_LENGTH, cfg.maxcap);
    const int rows = static_cast<int>(cfg.ifg_names.size());
    lib::for_each_batch(pixels, cfg.maxcap, [&](const lib::Batch& batch) {
        std::fprintf(stderr, "\n=> Inversing batch %d / %.0f\n", batch.number, total);
        int* count = lib::need<int>(batch.end - batch.first);
        float** stack = com::readallfile(cfg, batch.first, batch.end, reference_values, mask, count);
        sbas_step2_sbas_linear_new(cfg, dates, baselines, stack, count, batch.first, batch.end);
        lib::free2d_float(stack, rows);
        std::free(count);
    });
    std::fputs("\n*************Time series inversion finish****************\n", stderr);
}

// Removes the corrected copies once the stages that read them are done. By
// then datafolder is the result folder and the names carry the corrections'
// suffixes, so only the copies go.
void delete_corrected_copies(const CFG& cfg)
{
    for (const auto& name : cfg.ifg_names) {
        const com::Path path = com::join_path(cfg.datafolder, name.c_str());
        std::remove(path.c_str());
    }
}

}  // namespace

void sbas_allocate_area(const char* config_path)
{
    CFG cfg = lib::loadcfg(config_path);
    // Before any stage writes: a thread count the machine can run, a list to
    // work on, and no output over an input.
    cfg.max_parallel_threads = lib::usable_threads(cfg.max_parallel_threads);
    require_interferograms(cfg);
    refuse_outputs_over_inputs(cfg, config_path);
    const bool reference_consumer = cfg.if_check_loop_closure == 1 || cfg.if_inverse_time_series == 1 ||
                                    cfg.if_stacking == 1;

    // Reference values on the interferograms as given; the loop-closure
    // check needs them. Zeros when nothing consumes them.
    float* reference_values = lib::per_interferogram(cfg.ifg_names.size());
    if (reference_consumer) {
        std::free(reference_values);
        reference_values = sbas_step1(&cfg);
    }

    const HEADER header = com::readheader(cfg.headerfile);
    const int64_t pixels = com::pixel_count(header);
    float* mask = lib::need<float>(pixels);

    if (cfg.if_check_loop_closure == 1) loop_closure_stage(&cfg, pixels, mask, reference_values);
    // The check may have rejected every interferogram.
    if (cfg.if_inverse_time_series != 0 || cfg.if_stacking == 1) require_interferograms(cfg);

    // The corrections switch the run to their corrected copies; the
    // elevation-dependent one runs first. Later stages refer the corrected
    // interferograms to a reference chosen on them.
    const bool corrections = cfg.if_remove_eds == 1 || cfg.if_remove_orbit == 1;
    if (cfg.if_remove_eds == 1) quality::bach_removel_height_dependent(&cfg);
    if (cfg.if_remove_orbit == 1) quality::bach_removel_orbit(&cfg);
    if (corrections && reference_consumer) {
        std::fputs("\n*************Updating reference point values*************\n", stderr);
        std::free(reference_values);
        reference_values = sbas_step1(&cfg);
    }

    // Baselines are only needed for the DEM-error term. Any run of the
    // inversion with that term reads them, so the inversion never indexes a
    // placeholder.
    BASELINE* baselines = nullptr;
    if (cfg.if_inverse_time_series != 0 && cfg.if_est_hgt == 1) baselines = com::get_baselines(cfg);

    const std::vector<DATEORDER> dates = com::getdateorder(cfg);
    if (cfg.temporal_constraint == 2) {
        if (!dates.empty() && dates.front().date <= cfg.simple_log_origin)
            lib::die("simple_log_origin is should be earlier than the first observation date!\n");
        cfg.simple_log_origin_mjd = lib::date2mjd(cfg.simple_log_origin);
    }
    com::readdesignmatrixorder(&cfg, dates);
    cfg.n_ifg = static_cast<int>(cfg.ifg_names.size());
    cfg.n_date = static_cast<int>(dates.size());

    if (cfg.if_stacking == 1) rstacking::start_rstacking(cfg, mask, reference_values);

    if (cfg.if_inverse_time_series != 0) {
        warn_physical_settings(cfg);
        invert_in_batches(cfg, header, dates, baselines, reference_values, mask);
    }

    if (corrections && cfg.if_keep_corrected_ifg == 0 &&
        (cfg.if_inverse_time_series == 1 || cfg.if_stacking == 1))
        delete_corrected_copies(cfg);

    std::free(mask);
    std::free(baselines);
    std::free(reference_values);

    // The filters work on the interferograms the loop-closure check kept, under
    // their list names, also when the list was left by an earlier run.
    const com::Path used = com::join_path(cfg.resultfolder, "filelist_used");
    if (lib::opens_for_reading(used.c_str())) {
        std::snprintf(cfg.filelist, sizeof cfg.filelist, "%s", used.c_str());
        com::readfilenamelist(&cfg, cfg.filelist);
    }

    for (Filter filter : filters_for(cfg.if_apply_filter)) run_filter(filter, cfg);
}

}  // namespace sbas
