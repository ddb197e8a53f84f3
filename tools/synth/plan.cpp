// Resolving a job's options into its plan.
//
// The dates and the network come first (schedule.cpp), then the bodies and
// the times their histories need: a step date (given, or half-way through the
// middle interval) and a log origin (given, or one spacing before the first
// date) when any body carries those terms. The folder fixes the paths, the
// paths and settings the configuration, and the configuration the reference
// pixel, whose window (plus a two-pixel margin) no patch may touch. Last come
// the per-date baselines, rounded to centimetres as baselines.txt holds them,
// and each interferogram's terms (nuisances.cpp).
#include "synth/plan.h"

#include <omp.h>

#include <cmath>
#include <numbers>

#include "synth/files.h"
#include "synth/random.h"
#include "synth/schedule.h"
#include "synth/settings.h"

namespace synth {
namespace {

void plan_network(const Options& options, Job& job)
{
    job.dates = make_dates(options);
    for (int date : job.dates) job.mjd.push_back(mjd_from_date(date));
    job.pairs = make_network(options, static_cast<int>(job.dates.size()));
    for (const auto& [a, b] : job.pairs) job.ifgs.push_back(ifg_name(job.dates[a], job.dates[b]));
    const int n_ifgs = static_cast<int>(job.pairs.size());
    require(options.unwrap_errors <= n_ifgs, "--unwrap-errors " + std::to_string(options.unwrap_errors) +
                                                 " exceeds the " + std::to_string(n_ifgs) +
                                                 " interferograms");
}

// The step date and log origin, when the mode or a given body has those terms.
Timeline plan_times(const Options& options, Job& job)
{
    const ModeTerms with = mode_terms(options.deformation);
    bool step = with.step;
    bool log = with.log;
    for (const Body& body : job.bodies) {
        log = log || body.log != 0.0;
        step = step || body.step != 0.0;
    }
    const int n_dates = static_cast<int>(job.dates.size());
    Timeline timeline;
    timeline.first = job.mjd.front();
    if (step) {
        int step_mjd;
        if (options.step_date) {
            step_mjd = mjd_from_date(options.step_date);
            require(step_mjd > job.mjd.front() && step_mjd <= job.mjd.back(),
                    "--step-date must fall after the first date and by the last date (" +
                        std::to_string(job.dates.front()) + " .. " + std::to_string(job.dates.back()) + ")");
        } else {
            const int a = job.mjd[(n_dates - 1) / 2];
            const int b = job.mjd[(n_dates - 1) / 2 + 1];
            step_mjd = a + (b - a + 1) / 2;
        }
        timeline.has_step = true;
        timeline.step = step_mjd;
        job.step_date = date_from_mjd(step_mjd);
    }
    if (log) {
        int origin = options.log_origin;
        if (!origin) {
            origin = date_from_mjd(job.mjd.front() - options.spacing);
            require(valid_date(origin), "the default log origin " + std::to_string(origin) +
                                            " is before 1990: give --log-origin");
        }
        timeline.has_log = true;
        timeline.log_origin = mjd_from_date(origin);
        job.log_origin = origin;
    }
    return timeline;
}

// The reference as configured, the window kept clean around it, and the
// invalid corner, which must stay out of that window.
void plan_reference(const Options& options, Plan& plan)
{
    Job& job = plan.job;
    const int width = options.width;
    const int length = options.length;
    const Entries& entries = job.config_entries;
    job.ref_row = integer_entry(entries, "ref_row", -1);
    job.ref_col = integer_entry(entries, "ref_col", -1);
    job.ref_window = integer_entry(entries, "ref_window", 5);
    require(job.ref_window >= 1, "ref_window must be at least 1");
    const bool have_ref = !entry_value(entries, "ref_row").empty() && !entry_value(entries, "ref_col").empty();
    if (have_ref) {
        require(!(job.ref_row == 0 && job.ref_col == 0),
                "the reference pixel cannot be (0, 0): sbas-ts reads that as 'not given'");
        require(job.ref_row >= 0 && job.ref_row < length && job.ref_col >= 0 && job.ref_col < width,
                "the reference pixel (" + std::to_string(job.ref_row) + ", " + std::to_string(job.ref_col) +
                    ") is outside the " + std::to_string(length) + " x " + std::to_string(width) + " grid");
    } else {
        job.ref_row = job.ref_col = -1;
    }
    job.clean_row = have_ref ? job.ref_row : length / 2;
    job.clean_col = have_ref ? job.ref_col : width / 2;
    job.clean_half = job.ref_window / 2 + 2;
    plan.clean = {job.clean_row - job.clean_half, job.clean_row + job.clean_half,
                  job.clean_col - job.clean_half, job.clean_col + job.clean_half};
    if (options.invalid_corner > 0.0) {
        plan.corner.disc = false;
        plan.corner.bounds = {0, static_cast<int>(std::ceil(options.invalid_corner * length)) - 1, 0,
                              static_cast<int>(std::ceil(options.invalid_corner * width)) - 1};
        require(!touches(plan.corner, plan.clean),
                "the invalid corner reaches the reference window: make --invalid-corner smaller");
    }
}

double centimetres(double metres) { return std::round(metres * 100.0) / 100.0 + 0.0; }

// B(t) per date, each interferogram's difference, and c(t) per date.
void plan_baselines(const Options& options, Job& job)
{
    const std::size_t n_dates = job.dates.size();
    Rng rng(options.seed, Stream::baselines);
    for (std::size_t d = 0; d < n_dates; ++d) job.date_bperp.push_back(centimetres(rng.normal() * options.bperp_std));
    Rng coef(options.seed, Stream::elevation);
    for (std::size_t d = 0; d < n_dates; ++d)
        job.elevation_coef.push_back(options.elevation_term ? coef.normal() * options.elevation_coef : 0.0);
    for (const auto& [a, b] : job.pairs) job.bperp.push_back(centimetres(job.date_bperp[b] - job.date_bperp[a]));
}

}  // namespace

Plan make_plan(const Options& options, const std::string& folder)
{
    check_options(options);
    require(!folder.empty(), "no job folder given");
    Plan plan;
    plan.threads = options.threads > 0 ? options.threads : omp_get_max_threads();
    Job& job = plan.job;
    const int f = options.dem_oversample;
    job.grid = {options.width, options.length, options.x_first, options.y_first, options.step, -options.step};
    job.dem_grid = {options.width * f, options.length * f, options.x_first, options.y_first, options.step / f,
                    -options.step / f};
    plan_network(options, job);

    job.deformation = options.deformation;
    job.bodies = make_bodies(options);
    plan.timeline = plan_times(options, job);
    const ModeTerms with = mode_terms(options.deformation);
    plan.background.rate = with.rate ? options.background * options.rate : 0.0;
    plan.background.log = with.log ? options.background * options.log_amp : 0.0;
    job.background_rate = plan.background.rate;
    job.background_log = plan.background.log;
    job.dem_error_factor = 4.0 * std::numbers::pi /
                           (options.wavelength * options.orbit_altitude *
                            std::sin(options.incidence * std::numbers::pi / 180.0));

    locate_files(job, folder);
    job.config_entries = job_entries(options, job);
    plan_reference(options, plan);
    plan_baselines(options, job);
    plan.ifg_terms = plan_ifg_terms(options, job, plan.clean);
    return plan;
}

}  // namespace synth
