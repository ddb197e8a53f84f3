// The options of a job: deformation modes and the consistency check.
//
// Every option is checked on its own here, before anything is resolved, so a
// bad value is reported with the name of the command-line option that sets
// it. Checks that need the resolved job (an interferogram index against the
// network, a patch against the reference window) are made while planning.
#include <cmath>

#include "synth/settings.h"
#include "synth/synth.h"

namespace synth {
namespace {

bool finite(double x) { return std::isfinite(x); }

}  // namespace

const char* deformation_name(Deformation mode)
{
    switch (mode) {
    case Deformation::linear: return "linear";
    case Deformation::log: return "log";
    case Deformation::seasonal: return "seasonal";
    case Deformation::mixed: return "mixed";
    }
    return "?";
}

Deformation parse_deformation(const std::string& name)
{
    for (Deformation mode : {Deformation::linear, Deformation::log, Deformation::seasonal, Deformation::mixed})
        if (name == deformation_name(mode)) return mode;
    throw Error("unknown deformation '" + name + "' (linear, log, seasonal or mixed)");
}

ModeTerms mode_terms(Deformation mode)
{
    ModeTerms terms;
    terms.rate = mode != Deformation::log;
    terms.seasonal = mode == Deformation::seasonal || mode == Deformation::mixed;
    terms.step = mode == Deformation::mixed;
    terms.log = mode == Deformation::log || mode == Deformation::mixed;
    return terms;
}

void check_options(const Options& o)
{
    require(o.width >= 3 && o.length >= 3, "the grid must be at least 3 x 3 pixels");
    require(static_cast<double>(o.width) * o.length <= 4e8, "the grid is too large (at most 4e8 pixels)");
    require(finite(o.x_first) && finite(o.y_first), "x_first and y_first must be finite");
    require(finite(o.step) && o.step > 0.0, "--step must be a positive number of degrees");
    require(o.dates >= 2 && o.dates <= 5000, "--dates must be between 2 and 5000");
    require(valid_date(o.first_date), "--first-date " + std::to_string(o.first_date) +
                                          " is not a date yyyymmdd between 1990 and 2090");
    require(o.spacing >= 1 && o.spacing <= 3650, "--spacing must be 1 to 3650 days");
    require(o.jitter >= 0 && o.jitter <= 3650, "--jitter must be 0 to 3650 days");
    require(o.long_gaps >= 0 && o.long_gaps <= o.dates - 1, "--long-gaps must be 0 to dates - 1");
    require(o.gap_days >= 0 && o.gap_days <= 36500, "--gap-days must be 0 to 36500 days");
    require(o.neighbours >= 1 && o.neighbours <= o.dates - 1, "--neighbours must be 1 to dates - 1");
    require(o.long_links >= 0, "--long-links must not be negative");
    require(o.body_count >= 0 && o.body_count <= 1000, "--bodies must be 0 to 1000");
    for (const Body& b : o.bodies) {
        require(finite(b.row) && finite(b.col) && finite(b.sigma) && b.sigma > 0.0,
                "a body needs a finite centre and a positive sigma");
        require(finite(b.rate) && finite(b.seasonal) && finite(b.seasonal_phase) && finite(b.step) &&
                    finite(b.log),
                "body amplitudes must be finite");
    }
    require(finite(o.rate) && finite(o.seasonal_amp) && finite(o.step_amp) && finite(o.log_amp) &&
                finite(o.background),
            "deformation amplitudes must be finite");
    require(o.step_date == 0 || valid_date(o.step_date), "--step-date is not a date yyyymmdd");
    require(o.log_origin == 0 || valid_date(o.log_origin),
            "--log-origin is not a date yyyymmdd between 1990 and 2090");
    require(o.log_origin == 0 || o.log_origin < o.first_date,
            "--log-origin must come strictly before the first date");
    require(finite(o.noise) && o.noise >= 0.0, "--noise must be >= 0 rad");
    require(finite(o.noise_scale) && o.noise_scale >= 0.0, "--noise-scale must be >= 0 pixels");
    require(finite(o.ifg_noise) && o.ifg_noise >= 0.0, "--ifg-noise must be >= 0 rad");
    require(o.nodata_fraction >= 0.0 && o.nodata_fraction <= 1.0, "--nodata-fraction must be 0 to 1");
    require(finite(o.nodata_size) && o.nodata_size > 0.0 && o.nodata_size <= 2.0, "--nodata-size must be above 0 and at most 2");
    require(o.invalid_corner >= 0.0 && o.invalid_corner <= 0.5, "--invalid-corner must be 0 to 0.5");
    require(o.unwrap_errors >= 0, "--unwrap-errors must not be negative");
    for (const UnwrapError& e : o.unwrap_error_patches) {
        require(e.ifg >= 0, "--unwrap-error: the interferogram index must not be negative");
        require(e.cycles != 0, "--unwrap-error: the number of cycles must not be 0");
        require(finite(e.row) && finite(e.col) && e.row >= 0.0 && e.row <= o.length - 1.0 && e.col >= 0.0 &&
                    e.col <= o.width - 1.0,
                "--unwrap-error: the centre must lie inside the grid");
        require(finite(e.radius) && e.radius > 0.0, "--unwrap-error: the radius must be above 0 pixels");
    }
    require(finite(o.ramp_amp) && o.ramp_amp >= 0.0, "--ramp-amp must be >= 0 rad");
    require(finite(o.elevation_coef) && o.elevation_coef >= 0.0, "--elevation-coef must be >= 0 rad/m");
    require(o.dem_oversample >= 1 && o.dem_oversample <= 16, "--dem-oversample must be 1 to 16");
    require(finite(o.dem_error_amp) && o.dem_error_amp >= 0.0, "--dem-error-amp must be >= 0 m");
    require(finite(o.bperp_std) && o.bperp_std >= 0.0, "--bperp-std must be >= 0 m");
    require(finite(o.wavelength) && o.wavelength > 0.0, "--wavelength must be > 0 m");
    require(finite(o.incidence) && o.incidence > 0.0 && o.incidence < 90.0,
            "--incidence must be between 0 and 90 degrees");
    require(finite(o.orbit_altitude) && o.orbit_altitude > 0.0, "--orbit-altitude must be > 0 m");
    require(o.ref_row == -1 || (o.ref_row >= 0 && o.ref_row < o.length), "--ref-row is outside the grid");
    require(o.ref_col == -1 || (o.ref_col >= 0 && o.ref_col < o.width), "--ref-col is outside the grid");
    require((o.ref_row == -1) == (o.ref_col == -1), "give both --ref-row and --ref-col, or neither");
    require(!(o.ref_row == 0 && o.ref_col == 0),
            "the reference pixel cannot be (0, 0): sbas-ts reads that as 'not given'");
    require(o.ref_window >= 1 && o.ref_window <= 999, "--ref-window must be 1 to 999 pixels");
    require(o.max_parallel_threads >= 1, "max_parallel_threads must be at least 1");
    require(o.maxcap >= 1, "maxcap must be at least 1");
    require(o.minimum_temporal_ifg_ratio >= 0.0 && o.minimum_temporal_ifg_ratio <= 1.0,
            "minimum_temporal_ifg_ratio must be 0 to 1");
    require(finite(o.temporal_strength) && o.temporal_strength >= 0.0, "temporal_strength must be >= 0");
    require(o.threads >= 0, "--threads must not be negative");
    Entries scratch;
    for (const auto& [key, value] : o.settings) apply_setting(scratch, key, value);
}

}  // namespace synth
