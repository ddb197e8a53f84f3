// The main sequence of a run.
//
// Stages run strictly one after another on this thread and meet through
// files and through the run record: a stage that changes what later stages
// see (dropping interferograms, switching to corrected copies) changes the
// record it is handed by pointer. The driver keeps what passes between
// stages: the job's grid, the reference values (one per interferogram), the
// closure mask (one per pixel), the baselines and the ordered dates.
//
// The network inversion is cut into batches of maxcap consecutive pixels
// (batches may cut rows, see lib::for_each_batch), so only one batch of the
// stack is in memory at a time.
//
// The first error a stage reports ends the sequence and goes back to the
// entry point unchanged: nothing after it runs or prints.
#include "app/driver.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "app/job.h"
#include "app/job_checks.h"
#include "app/share.h"
#include "catalogue/baselines.h"
#include "catalogue/dates.h"
#include "catalogue/filelist.h"
#include "catalogue/raster.h"
#include "catalogue/stack.h"
#include "config/fatal.h"
#include "filter/sigma.h"
#include "filter/spatial.h"
#include "filter/spatio_temporal.h"
#include "filter/temporal.h"
#include "inversion/network.h"
#include "numerics/accounting.h"
#include "numerics/arrays.h"
#include "numerics/parallel.h"
#include "numerics/ranks.h"
#include "numerics/spread.h"
#include "quality/corrections.h"
#include "quality/loop_closure.h"
#include "reference/ref_point.h"
#include "stacking/stacking.h"

namespace sbas {
namespace {

// What the stages of a run hand on to each other.
struct Run {
    CFG cfg;
    HEADER grid;
    lib::Owned<float> reference_values;  // one per interferogram, list order
    lib::Owned<float> closure_mask;      // one per pixel; 0 unless the check ran
    lib::Owned<BASELINE> baselines;      // one per interferogram with if_est_hgt 1
    std::vector<DATEORDER> dates;        // ascending
    std::string job_list;                // the configuration's filelist
    std::vector<std::string> listed;     // its names, as loaded
    // With the grid in one batch: the stack as the next stage that reads it
    // would load it, handed on instead of read again.
    com::HeldBatch held;
    // With the grid in one batch: the interferograms as the reference search
    // read them, for the loop-closure check.
    com::HeldBatch read;
};

bool reference_consumer(const CFG& cfg)
{
    return cfg.if_check_loop_closure == 1 || cfg.if_inverse_time_series == 1 || cfg.if_stacking == 1;
}

bool corrections_asked(const CFG& cfg) { return cfg.if_remove_eds == 1 || cfg.if_remove_orbit == 1; }

// Before any stage writes: a thread count the machine can run, a grid that
// fits in memory, a list to work on with every name once, the files the
// stages read named, filter widths that mean something, and no output over
// an input.
lib::Status check_job(CFG& cfg, const HEADER& grid, const char* config_path)
{
    cfg.max_parallel_threads = lib::usable_threads(cfg.max_parallel_threads);
    SBAS_TRY(require_grid_in_memory(cfg, grid));
    SBAS_TRY(require_interferograms(cfg));
    SBAS_TRY(refuse_duplicate_names(cfg));
    SBAS_TRY(require_stage_paths(cfg, config_path));
    SBAS_TRY(check_filter_sigmas(cfg));
    SBAS_TRY(refuse_outputs_over_inputs(cfg, config_path));
    return prepare_spread_outputs(cfg);
}

// The reference values of the interferograms as they now are; the stage may
// choose the reference pixel and write it into the record. With `keep`, a
// search that reads the interferograms whole leaves them there.
lib::Status compute_reference_values(Run& run, com::HeldBatch* keep = nullptr)
{
    const auto step = [&]() -> lib::Status {
        SBAS_TAKE(float* values, sbas_step1(&run.cfg, run.grid, keep));
        run.reference_values = lib::Owned<float>::adopt(values);
        return {};
    };
    // A search for the pixel (ref_method 0 or 2, no pixel given) reads every
    // interferogram whole: in an MPI run every rank takes part in it, and
    // every rank then takes the same values around the chosen pixel. A given
    // pixel or the scene mean is rank 0's work.
    const CFG& cfg = run.cfg;
    const bool search = cfg.ref_col == 0 && cfg.ref_row == 0 &&
                        (cfg.ref_method == 0 || cfg.ref_method == 2);
    if (search) return step();
    return on_first_rank(run.cfg, &run.reference_values, step);
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

// Turns the check's stack (every interferogram listed before it, no mask)
// into the stack of the interferograms it kept, masked and counted, as
// com::readallfile loads it. The kept names are `before` with some removed,
// order unchanged; anything else lets the stack go.
void mask_held_stack(Run& run, const std::vector<std::string>& before)
{
    const std::vector<std::string>& kept = run.cfg.ifg_names;
    std::vector<int64_t> rows(kept.size());
    size_t from = 0;
    for (size_t k = 0; k < kept.size(); ++k) {
        while (from < before.size() && before[from] != kept[k]) ++from;
        if (from == before.size() || static_cast<int64_t>(before.size()) != run.held.n_rows) {
            run.held.release();
            return;
        }
        rows[k] = static_cast<int64_t>(from++);
    }
    com::HeldBatch& held = run.held;
    float** loaded = held.rows;
    held.rows = nullptr;
    lib::Owned<int> count(held.end - held.first);
    held.rows = com::mask_loaded_stack(run.cfg, loaded, held.n_rows, rows.data(), held.first, held.end,
                                       run.closure_mask.get(), count.get());
    held.n_rows = static_cast<int64_t>(kept.size());
    held.count = std::move(count);
}

bool reuse_closure_mask(const CFG& cfg)
{
    const com::Path mask_path = com::join_path(cfg.resultfolder, "phase_loop_closure_mask");
    return lib::opens_for_reading(mask_path.c_str()) && cfg.if_use_existing_phasemask != 0;
}

// Whether the loop-closure check will read the stack in one batch right
// after the first reference values, in a run of one process: it may then
// take the interferograms the reference search read.
bool check_takes_the_search_read(const Run& run)
{
    const CFG& cfg = run.cfg;
    return cfg.if_check_loop_closure == 1 && !lib::spread() && cfg.maxcap >= com::pixel_count(run.grid) &&
           !reuse_closure_mask(cfg);
}

// Runs the check unless an existing mask is to be reused, then fills the
// closure mask from "phase_loop_closure_mask". The check may drop
// interferograms from the record; the reference values follow the list.
lib::Status check_loop_closure(Run& run)
{
    const com::Path mask_path = com::join_path(run.cfg.resultfolder, "phase_loop_closure_mask");
    const bool reuse = reuse_closure_mask(run.cfg);
    const std::vector<std::string> before = run.cfg.ifg_names;
    if (reuse) {
        std::fputs("Use existing phase closure mask\n", stderr);
        warn_foreign_mask(run.cfg, run.grid, mask_path.c_str());
    } else {
        // Every rank takes part in the check (its batches); rank 0 finishes
        // it and hands the outcome on.
        // Without corrections, stacking and the inversion read the same
        // interferograms with the same reference values: the check's stack,
        // masked, is theirs.
        const bool hand_on = !corrections_asked(run.cfg) &&
                             (run.cfg.if_stacking == 1 || run.cfg.if_inverse_time_series != 0);
        lib::Status checked = quality::remove_ifg_by_loop_closure_with_reference(
            &run.cfg, run.grid, run.reference_values.get(), hand_on ? &run.held : nullptr, &run.read);
        if (checked.ok() && lib::ranks().rank == 0)
            keep_reference_values(before, run.cfg.ifg_names, run.reference_values.get());
        SBAS_TRY(share_from_first_rank(run.cfg, &run.reference_values, std::move(checked)));
    }
    // A mask shorter than the grid is taken as it is: the rest stays 0.
    SBAS_TAKE(const lib::File file, lib::fopen_zq(mask_path.c_str(), "rb"));
    const int64_t pixels = com::pixel_count(run.grid);
    if (pixels > 0) {
        const size_t got = std::fread(run.closure_mask.get(), sizeof(float), static_cast<size_t>(pixels), file.get());
        (void)got;
    }
    if (run.held.rows) mask_held_stack(run, before);
    return {};
}

// The corrections switch the run to their corrected copies; the
// elevation-dependent one runs first. Later stages refer the corrected
// interferograms to a reference chosen on them.
lib::Status correct_interferograms(Run& run)
{
    // Every rank corrects its share of the interferograms.
    if (run.cfg.if_remove_eds == 1) SBAS_TRY(quality::bach_removel_height_dependent(&run.cfg, run.grid));
    if (run.cfg.if_remove_orbit == 1) SBAS_TRY(quality::bach_removel_orbit(&run.cfg, run.grid));
    if (!reference_consumer(run.cfg)) return {};
    std::fputs("\n*************Updating reference point values*************\n", stderr);
    return compute_reference_values(run);
}

// Baselines (for the DEM-error term), the ordered dates, the origin of the
// logarithmic model, and each interferogram's place among the dates.
lib::Status order_the_network(Run& run)
{
    CFG& cfg = run.cfg;
    // Any run of the inversion with the DEM-error term reads the baselines,
    // so the inversion never indexes a placeholder.
    if (cfg.if_inverse_time_series != 0 && cfg.if_est_hgt == 1) {
        SBAS_TAKE(BASELINE* baselines, com::get_baselines(cfg));
        run.baselines = lib::Owned<BASELINE>::adopt(baselines);
    }
    SBAS_TAKE(run.dates, com::getdateorder(cfg));
    if (cfg.temporal_constraint == 2) {
        if (!run.dates.empty() && run.dates.front().date <= cfg.simple_log_origin)
            return lib::error(lib::Fault::setting, "simple_log_origin", lib::Stream::err,
                              "simple_log_origin is should be earlier than the first observation date!\n");
        SBAS_TAKE(cfg.simple_log_origin_mjd, lib::date2mjd(cfg.simple_log_origin));
    }
    SBAS_TRY(com::readdesignmatrixorder(&cfg, run.dates));
    cfg.n_ifg = static_cast<int>(cfg.ifg_names.size());
    cfg.n_date = static_cast<int>(run.dates.size());
    return {};
}

// Every batch of maxcap pixels is loaded and inverted before the next one is
// touched. A batch that an earlier stage loaded alike and left in `held` is
// taken from there instead of read again.
lib::Status invert_in_batches(const Run& run, com::HeldBatch* held)
{
    const CFG& cfg = run.cfg;
    std::fputs("\n*************Time series inversion start*****************\n", stderr);
    const int64_t pixels = com::pixel_count(run.grid);
    const float total = lib::batch_total(run.grid.WIDTH, run.grid.FILE_LENGTH, cfg.maxcap);
    const int rows = static_cast<int>(cfg.ifg_names.size());
    SBAS_TRY(lib::for_each_batch_spread(pixels, cfg.maxcap, [&](const lib::Batch& batch) -> lib::Status {
        std::fprintf(stderr, "\n=> Inversing batch %d / %.0f\n", batch.number, total);
        com::HeldBatch loaded;
        if (held->holds(batch.first, batch.end)) {
            loaded = std::move(*held);
        } else {
            held->release();
            loaded.count = lib::Owned<int>(batch.end - batch.first);
            SBAS_TAKE(loaded.rows, com::readallfile(cfg, batch.first, batch.end, run.reference_values.get(),
                                                    run.closure_mask.get(), loaded.count.get()));
            loaded.n_rows = rows;
        }
        return sbas_step2_sbas_linear_new(cfg, run.dates, run.baselines.get(), loaded.rows, loaded.count.get(),
                                          batch.first, batch.end);
    }));
    std::fputs("\n*************Time series inversion finish****************\n", stderr);
    return {};
}

// Removes the corrected copies once the stages that read them are done. By
// then datafolder is the result folder and the names carry the corrections'
// suffixes, so only the copies go. Removal errors are ignored.
void delete_corrected_copies(const CFG& cfg)
{
    for (const auto& name : cfg.ifg_names) {
        const com::Path path = com::join_path(cfg.datafolder, name.c_str());
        std::remove(path.c_str());
    }
}

// The filters work on the interferograms the loop-closure check kept, under
// their list names, also when the list was left by an earlier run: the list
// is read again from "filelist_used" when it is there. One left by another
// job (naming interferograms this job does not list) is still read, with a
// warning when a filter is to work on it.
lib::Status reload_kept_list(Run& run)
{
    const com::Path used = com::join_path(run.cfg.resultfolder, "filelist_used");
    if (!lib::opens_for_reading(used.c_str())) return {};
    std::snprintf(run.cfg.filelist, sizeof run.cfg.filelist, "%s", used.c_str());
    SBAS_TRY(com::readfilenamelist(&run.cfg, run.cfg.filelist));
    if (run.cfg.if_apply_filter >= 1 && run.cfg.if_apply_filter <= 5)
        warn_foreign_list(run.job_list.c_str(), run.listed, run.cfg.ifg_names, used.c_str());
    return {};
}

// The filters chosen by if_apply_filter, each on its own copy of the record
// and on the dates of the list as it now stands: 1 spatial, 2 temporal, 3
// temporal then spatial, 4 spatial then temporal, 5 the 3-D filter; any
// other value none.
lib::Status apply_filters(CFG cfg, const HEADER& grid)
{
    const int choice = cfg.if_apply_filter;
    if (choice < 1 || choice > 5) return {};
    SBAS_TAKE(const std::vector<DATEORDER> dates, com::getdateorder(cfg));
    switch (choice) {
    case 1: return spatial_filter(cfg, grid, dates);
    case 2: return temporal_filter(cfg, grid, dates);
    case 3:
        SBAS_TRY(temporal_filter(cfg, grid, dates));
        return spatial_filter(cfg, grid, dates);
    case 4:
        SBAS_TRY(spatial_filter(cfg, grid, dates));
        return temporal_filter(cfg, grid, dates);
    default:
        // One transform of the whole stack, on one rank: a transform spread
        // over ranks would give other bits for every number of ranks.
        return on_first_rank(cfg, nullptr,
                             [&] { return spatial_temporal_filter(cfg, grid, dates); });
    }
}

// Runs a stage and adds its cost to `costs` (when not null).
template <typename Stage>
lib::Status timed(std::vector<lib::StageCost>* costs, const char* name, Stage stage)
{
    const lib::StageClock clock{costs, name};
    lib::Status status = stage();
    clock.done();
    return status;
}

}  // namespace

lib::Status sbas_allocate_area(const char* config_path, std::vector<lib::StageCost>* costs)
{
    // In an MPI run every rank loads the job; should one of them not see a
    // file the others see (a folder not shared with its node), every rank
    // stops here with that rank's message rather than wait for it later.
    lib::Result<JOB> loaded = app::load_job(config_path);
    const lib::Status load_status = loaded.ok() ? lib::Status() : lib::Status(loaded.error());
    SBAS_TRY(lib::agree(0, load_status));
    JOB& job = *loaded;
    Run run{std::move(job.cfg), job.header, {}, {}, {}, {}, {}, {}, {}, {}};
    CFG& cfg = run.cfg;
    SBAS_TRY(lib::agree(0, check_job(cfg, run.grid, config_path)));
    run.job_list = cfg.filelist;
    run.listed = cfg.ifg_names;

    // Reference values on the interferograms as given (the loop-closure
    // check needs them); zeros when nothing consumes them.
    run.reference_values = lib::Owned<float>::adopt(lib::per_interferogram(cfg.ifg_names.size()));
    if (reference_consumer(cfg))
        SBAS_TRY(timed(costs, "reference values", [&] {
            return compute_reference_values(run, check_takes_the_search_read(run) ? &run.read : nullptr);
        }));

    run.closure_mask = lib::Owned<float>(com::pixel_count(run.grid));
    if (cfg.if_check_loop_closure == 1)
        SBAS_TRY(timed(costs, "loop closure", [&] { return check_loop_closure(run); }));
    // The check may have rejected every interferogram.
    if (cfg.if_inverse_time_series != 0 || cfg.if_stacking == 1) SBAS_TRY(require_interferograms(cfg));

    if (corrections_asked(cfg))
        SBAS_TRY(timed(costs, "corrections and references", [&] { return correct_interferograms(run); }));
    SBAS_TRY(order_the_network(run));

    // With the grid in one batch, stacking and the inversion load the same
    // stack: stacking takes the check's when it left one, and leaves it for
    // the inversion.
    if (cfg.if_stacking == 1)
        SBAS_TRY(timed(costs, "stacking", [&] {
            return rstacking::start_rstacking(cfg, run.grid, run.closure_mask.get(), run.reference_values.get(),
                                              &run.held);
        }));
    if (cfg.if_inverse_time_series != 0) {
        warn_physical_settings(cfg);
        SBAS_TRY(timed(costs, "inversion", [&] { return invert_in_batches(run, &run.held); }));
    }
    run.held.release();

    if (corrections_asked(cfg) && cfg.if_keep_corrected_ifg == 0 &&
        (cfg.if_inverse_time_series == 1 || cfg.if_stacking == 1))
        if (lib::ranks().rank == 0) delete_corrected_copies(cfg);

    SBAS_TRY(reload_kept_list(run));
    SBAS_TRY(timed(costs, "filters", [&] { return apply_filters(cfg, run.grid); }));
    return com::trim_spread_outputs(com::pixel_count(run.grid));
}

}  // namespace sbas
