// Synthetic jobs for sbas-ts: a folder of unwrapped, geocoded interferograms
// made from a known deformation history, with every input file the program
// reads and the truth its outputs can be checked against.
//
// Each date's phase is deformation + correlated noise + an elevation term;
// each interferogram is the difference of its two dates' phases plus its own
// nuisance terms (DEM error through the perpendicular baseline, an orbital
// ramp, unwrapping errors, white noise) and its no-data patches. The truth
// is the deformation alone, relative to the first date. All phases are in
// radians; time in days (day numbers are MJDs).
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "synth/calendar.h"
#include "synth/error.h"
#include "synth/raster.h"

namespace synth {

// Which temporal terms the deformation bodies carry:
//   linear   - rate only;
//   log      - logarithmic term only;
//   seasonal - rate and annual term;
//   mixed    - rate, annual term, step and logarithmic term.
enum class Deformation { linear, log, seasonal, mixed };

// Name of a mode as written on the command line ("linear", ...).
const char* deformation_name(Deformation mode);

// Parses a mode name; throws Error for anything else.
Deformation parse_deformation(const std::string& name);

// The temporal terms a mode gives its bodies (see Deformation).
struct ModeTerms {
    bool rate = false;
    bool seasonal = false;
    bool step = false;
    bool log = false;
};
ModeTerms mode_terms(Deformation mode);

// An unwrapping error in one interferogram: the samples of a disc are
// shifted by 2 pi k. A pixel (i, j) is in the disc when its distance to the
// centre is at most the radius.
struct UnwrapError {
    int ifg = 0;          // index into Job::ifgs (the line of ifg_list.txt, from 0)
    int cycles = 0;       // k, not 0
    double row = 0.0;     // disc centre, pixels, inside the grid
    double col = 0.0;
    double radius = 0.0;  // pixels, > 0
};

// One deformation body: a Gaussian bump in space, exp(-r^2 / (2 sigma^2))
// with r the distance in pixels from (row, col), times a history
//   rate * (t - t1) / 365.25
//   + seasonal * (sin(2 pi (t - t1) / 365.25 + seasonal_phase) - sin(seasonal_phase))
//   + step * [t >= step date]
//   + log * (ln(t - t0) - ln(t1 - t0))
// where t1 is the first date and t0 the log origin (all day numbers), so the
// history is 0 at the first date.
struct Body {
    double row = 0.0;             // centre, pixels (may be fractional, even outside the grid)
    double col = 0.0;             // centre, pixels
    double sigma = 5.0;           // width, pixels (> 0)
    double rate = 0.0;            // rad/yr at the centre
    double seasonal = 0.0;        // annual amplitude, rad
    double seasonal_phase = 0.0;  // rad
    double step = 0.0;            // rad, from the step date on
    double log = 0.0;             // rad per unit of the logarithmic term
};

// Everything a job is made from. The defaults make a small, noise-free job
// with purely linear deformation and no missing data.
struct Options {
    // Grid: size in pixels and geographic frame (degrees; rows run south).
    int width = 40;
    int length = 30;
    double x_first = 100.0;
    double y_first = 30.0;
    double step = 0.0009765625;  // pixel size in degrees (2^-10: exact in binary)

    // Dates: `dates` acquisitions from `first_date` every `spacing` days;
    // every date after the first moves by a whole number of days drawn
    // uniformly from [-jitter, jitter]; `long_gaps` random intervals are
    // lengthened by `gap_days` (0: four times the spacing). Dates stay
    // strictly increasing and must end by 2090-12-31.
    int dates = 12;
    int first_date = 20170105;  // yyyymmdd
    int spacing = 12;           // days, >= 1
    int jitter = 0;             // days, >= 0
    int long_gaps = 0;
    int gap_days = 0;           // days

    // Network: each date linked to its next `neighbours` dates, plus
    // `long_links` distinct random pairs further apart than that.
    int neighbours = 3;
    int long_links = 0;

    // Seed of every random draw; equal options give byte-identical jobs.
    std::uint64_t seed = 1;

    // Deformation. When `bodies` is empty, `body_count` bodies are drawn at
    // random (centres inside the grid, sigma 6-18 % of the smaller side) with
    // the mode's terms: each amplitude is +-(0.5..1) times rate, seasonal_amp,
    // step_amp, log_amp (seasonal positive with a random phase). Given bodies
    // are used exactly as they are, whatever the mode.
    Deformation deformation = Deformation::linear;
    int body_count = 3;
    std::vector<Body> bodies;
    double rate = 1.5;          // rad/yr
    double seasonal_amp = 0.5;  // rad
    double step_amp = 1.0;      // rad
    int step_date = 0;          // yyyymmdd after the first date; 0: middle of the time span
    double log_amp = 2.0;       // rad
    int log_origin = 0;         // yyyymmdd before the first date; 0: first date - spacing
                                // (only used when the log term is on)
    // A uniform term added everywhere with the mode's rate and log terms,
    // as a fraction of `rate` and `log_amp`: it keeps noise-free
    // interferograms away from 0 (no-data) where no body reaches.
    double background = 0.2;

    // Noise. Per date: white noise box-blurred three times with radius
    // `noise_scale` pixels (0: 1/40 of the smaller side, at least 1), scaled
    // to standard deviation `noise` rad. Per interferogram: white noise of
    // standard deviation `ifg_noise` rad. 0 switches either off.
    double noise = 0.0;
    double noise_scale = 0.0;
    double ifg_noise = 0.0;

    // Missing data (exact 0): discs and rectangles on a fraction of the
    // interferograms, and a rectangle of the top-left corner, `invalid_corner`
    // of each side, missing in every interferogram.
    double nodata_fraction = 0.0;  // 0..1
    double nodata_size = 0.12;     // largest patch radius, as a share of the grid's shorter side
    double invalid_corner = 0.0;   // 0..0.5

    // Unwrapping errors: `unwrap_errors` random interferograms each get a
    // random disc with k = +-1 or +-2; `unwrap_error_patches` are added as
    // given (several may share an interferogram and overlap; their shifts
    // add up). Either kind keeps clear of the reference window.
    int unwrap_errors = 0;
    std::vector<UnwrapError> unwrap_error_patches;

    // Nuisance terms.
    bool ramps = false;             // quadratic orbital ramp per interferogram
    double ramp_amp = 3.0;          // rad, typical ramp size across the grid
    bool elevation_term = false;    // c(t) * h with h from the DEM
    double elevation_coef = 2e-3;   // rad/m, standard deviation of c(t)
    int dem_oversample = 1;         // DEM pixels per interferogram pixel, per axis (1..16)
    bool dem_error = false;         // Bperp * K * dz
    double dem_error_amp = 20.0;    // m, size of the dz bumps
    double bperp_std = 80.0;        // m, standard deviation of per-date baselines

    // Sensor, written to the configuration and used for K.
    double wavelength = 0.05546576;  // m
    double incidence = 39.0;         // degrees
    double orbit_altitude = 693000.0;  // m

    // Reference pixel (-1: the centre of the grid) and window side. Missing
    // data, unwrapping errors and corner region stay out of the window plus
    // a two-pixel margin.
    int ref_row = -1;
    int ref_col = -1;
    int ref_window = 5;

    // Processing settings written to the configuration.
    int max_parallel_threads = 2;
    int maxcap = 1000000;
    double minimum_temporal_ifg_ratio = 0.5;
    double temporal_strength = 0.1;

    // Configuration overrides, applied in order after the generated lines:
    // a new key is appended, an existing key gets the new value, an empty
    // value removes the key. ref_row / ref_col / ref_window given here also
    // move the clean reference window.
    std::vector<std::pair<std::string, std::string>> settings;

    // Threads used by the generator (0: OpenMP's default). The output does
    // not depend on it.
    int threads = 0;

    // Replace the generated files of an earlier job in the folder (the
    // folders ifg/, truth/, result/ and the job's text and DEM files). When
    // false, the folder must be absent or empty.
    bool overwrite = false;
};

// What write_job made. Paths are absolute.
struct Job {
    std::string folder;         // the job folder
    std::string config;         // config.txt
    std::string ifg_folder;     // ifg/ (the configuration's datafolder)
    std::string result_folder;  // result/ (empty)
    std::string truth_folder;   // truth/
    std::string ifg_header;     // ifg_header.txt
    std::string ifg_list;       // ifg_list.txt
    std::string baselines;      // baselines.txt
    std::string dem;            // dem.dem
    std::string dem_header;     // dem_header.txt

    Grid grid;      // interferogram grid
    Grid dem_grid;  // DEM grid (dem_oversample times finer, same top-left pixel)

    std::vector<int> dates;  // yyyymmdd, increasing
    std::vector<int> mjd;    // day numbers of `dates`

    std::vector<std::string> ifgs;              // file names, as in ifg_list.txt
    std::vector<std::pair<int, int>> pairs;     // date indices (earlier, later) of each
    std::vector<double> bperp;                  // m, as in baselines.txt
    std::vector<double> date_bperp;             // m, B(t) per date
    std::vector<double> elevation_coef;         // rad/m, c(t) per date (0 when off)

    int ref_row = -1;     // reference pixel in the configuration (-1: none given there)
    int ref_col = -1;
    int ref_window = 5;   // as in the configuration
    int clean_row = 0;    // centre of the window kept free of patches
    int clean_col = 0;
    int clean_half = 4;   // half-side of that window, margin included

    Deformation deformation = Deformation::linear;
    std::vector<Body> bodies;     // the bodies used (background not included)
    double background_rate = 0.0; // rad/yr, uniform
    double background_log = 0.0;  // rad, uniform
    int step_date = 0;            // yyyymmdd (0: no step term)
    int log_origin = 0;           // yyyymmdd (0: no log term)
    double dem_error_factor = 0.0;  // K = 4 pi / (wavelength * orbit_altitude * sin(incidence))

    std::vector<int> nodata_ifgs;            // indices of interferograms with patches
    // Every unwrapping error, by interferogram; within one, the random disc
    // first, then the given ones in their order.
    std::vector<UnwrapError> unwrap_errors;

    // The configuration as written, in file order.
    std::vector<std::pair<std::string, std::string>> config_entries;
};

// Checks options for consistency; throws Error naming the first problem.
void check_options(const Options& options);

// Writes a complete job into `folder` (created if needed) and returns its
// description. Throws Error on bad options, a non-empty folder (unless
// options.overwrite), a path longer than the configuration allows (199
// characters) or any write failure; inconsistent options are found before
// the folder is touched. The files:
//   ifg/geo_<d1>_<d2>.unw, ifg_header.txt, ifg_list.txt, baselines.txt,
//   dem.dem, dem_header.txt, config.txt, result/ (empty),
//   truth/disp-<yyyymmdd> (every date, rad, relative to the first date),
//   truth/velocity (rad/yr), truth/dem_error (m, when options.dem_error),
//   truth/dates.txt, truth/unwrapping_errors.txt (when there are any).
Job write_job(const Options& options, const std::string& folder);

// Output names of sbas-ts inside result/: the cumulative displacement map of
// date `date` relative to `first_date`, and the two single maps.
std::string culmap_name(int date, int first_date);
inline constexpr const char* velocity_name = "linear_mean_velocity";
inline constexpr const char* dem_error_name = "baseline_dependent_dem_error";

// Truth file names inside truth/.
std::string truth_disp_name(int date);
inline constexpr const char* truth_velocity_name = "velocity";
inline constexpr const char* truth_dem_error_name = "dem_error";
inline constexpr const char* truth_dates_name = "dates.txt";

// Reads truth/dates.txt of a job folder; throws Error when missing or malformed.
std::vector<int> read_dates(const std::string& path);

}  // namespace synth
