// Writing a synthetic job: the plan (dates, network, bodies, baselines), the
// per-date fields, the interferograms and the truth.
//
// Each date's phase is computed once, as deformation + correlated noise +
// c(t) * h, and kept in memory; an interferogram is then the difference of
// its two dates' phases plus its own terms: Bperp * K * dz, a quadratic ramp
// centred on the reference pixel, an unwrapping-error disc, white noise, and
// finally its no-data patches and the invalid corner set to exact 0. Dates
// and interferograms are independent, so both loops run in parallel, each
// item drawing from its own random streams and writing its own file.
#include "synth/synth.h"

#include <omp.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <numbers>

#include "synth/fields.h"
#include "synth/patches.h"
#include "synth/random.h"
#include "synth/schedule.h"
#include "synth/settings.h"

namespace synth {
namespace fs = std::filesystem;

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

std::string culmap_name(int date, int first_date)
{
    char name[64];
    std::snprintf(name, sizeof name, "culmap-%08d-%08d.disp", date, first_date);
    return name;
}

std::string truth_disp_name(int date)
{
    char name[32];
    std::snprintf(name, sizeof name, "disp-%08d", date);
    return name;
}

std::vector<int> read_dates(const std::string& path)
{
    std::ifstream in(path);
    if (!in) throw Error("cannot open " + path);
    std::vector<int> dates;
    std::string word;
    while (in >> word) {
        char* end = nullptr;
        const long date = std::strtol(word.c_str(), &end, 10);
        if (*end != '\0' || word.size() != 8 || !valid_date(static_cast<int>(date)))
            throw Error("bad date '" + word + "' in " + path);
        dates.push_back(static_cast<int>(date));
    }
    if (dates.empty()) throw Error("no dates in " + path);
    return dates;
}

namespace {

void require(bool condition, const std::string& message)
{
    if (!condition) throw Error(message);
}

bool finite(double x) { return std::isfinite(x); }

// The temporal terms the job carries.
struct Terms {
    bool log = false;
    bool step = false;
};

Terms terms_of(const Options& options, const std::vector<Body>& bodies)
{
    const Deformation mode = options.deformation;
    Terms terms;
    terms.log = mode == Deformation::log || mode == Deformation::mixed;
    terms.step = mode == Deformation::mixed;
    for (const Body& body : bodies) {
        terms.log = terms.log || body.log != 0.0;
        terms.step = terms.step || body.step != 0.0;
    }
    return terms;
}

// Integer value of a configuration entry, or `fallback` when absent.
int integer_entry(const Entries& entries, const std::string& key, int fallback)
{
    const std::string text = entry_value(entries, key);
    if (text.empty()) return fallback;
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    require(*end == '\0' && value > -1000000000L && value < 1000000000L,
            key + " must be an integer, not '" + text + "'");
    return static_cast<int>(value);
}

void write_text(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary);
    out << text;
    out.close();
    require(!out.fail(), "cannot write " + path);
}

std::string path_entry(const std::string& path)
{
    require(path.size() <= max_field,
            "path too long for the configuration (" + std::to_string(path.size()) +
                " characters, at most 199): " + path + " - use a shorter job folder");
    require(path.find_first_of(" \t\r\n") == std::string::npos,
            "the configuration cannot hold a path with blanks: " + path);
    return path;
}

// Makes `folder` ready: absent or empty, or cleared of an earlier job's
// files when overwriting is allowed.
void prepare_folder(const fs::path& folder, bool overwrite)
{
    std::error_code error;
    if (fs::exists(folder, error)) {
        require(fs::is_directory(folder, error), folder.string() + " exists and is not a folder");
        if (!fs::is_empty(folder, error)) {
            require(overwrite, "folder " + folder.string() +
                                   " is not empty (use --force to replace an earlier job)");
            for (const char* name : {"ifg", "result", "truth"}) fs::remove_all(folder / name, error);
            for (const char* name : {"ifg_header.txt", "ifg_list.txt", "baselines.txt", "dem.dem",
                                     "dem_header.txt", "config.txt"})
                fs::remove(folder / name, error);
        }
    }
    for (const char* name : {"ifg", "result", "truth"}) {
        fs::create_directories(folder / name, error);
        require(!error, "cannot create " + (folder / name).string() + ": " + error.message());
    }
}

// Collects the first error thrown inside a parallel loop.
struct FirstError {
    std::mutex lock;
    std::string message;
    void keep(const std::string& text)
    {
        std::lock_guard<std::mutex> guard(lock);
        if (message.empty()) message = text;
    }
};

// The random choice of `count` distinct indices of [0, n), sorted.
std::vector<int> choose(Rng rng, int n, int count)
{
    std::vector<int> all(n);
    for (int i = 0; i < n; ++i) all[i] = i;
    for (int k = 0; k < count; ++k) std::swap(all[k], all[k + rng.below(n - k)]);
    all.resize(count);
    std::sort(all.begin(), all.end());
    return all;
}

double centimetres(double metres) { return std::round(metres * 100.0) / 100.0 + 0.0; }

}  // namespace

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

Job write_job(const Options& options, const std::string& folder_name)
{
    check_options(options);
    require(!folder_name.empty(), "no job folder given");
    const int width = options.width;
    const int length = options.length;
    const std::size_t pixels = static_cast<std::size_t>(width) * length;
    const int threads = options.threads > 0 ? options.threads : omp_get_max_threads();

    Job job;
    job.deformation = options.deformation;
    job.grid = {width, length, options.x_first, options.y_first, options.step, -options.step};
    const int f = options.dem_oversample;
    job.dem_grid = {width * f, length * f, options.x_first, options.y_first, options.step / f,
                    -options.step / f};

    // Dates and network.
    job.dates = make_dates(options);
    const int n_dates = static_cast<int>(job.dates.size());
    for (int date : job.dates) job.mjd.push_back(mjd_from_date(date));
    job.pairs = make_network(options, n_dates);
    const int n_ifgs = static_cast<int>(job.pairs.size());
    for (const auto& [a, b] : job.pairs) job.ifgs.push_back(ifg_name(job.dates[a], job.dates[b]));
    require(options.unwrap_errors <= n_ifgs, "--unwrap-errors " + std::to_string(options.unwrap_errors) +
                                                 " exceeds the " + std::to_string(n_ifgs) +
                                                 " interferograms");

    // Deformation terms and times.
    job.bodies = make_bodies(options);
    const Terms terms = terms_of(options, job.bodies);
    Timeline timeline;
    timeline.first = job.mjd.front();
    if (terms.step) {
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
    if (terms.log) {
        int origin = options.log_origin;
        if (!origin) {
            const int mjd = job.mjd.front() - options.spacing;
            origin = date_from_mjd(mjd);
            require(valid_date(origin), "the default log origin " + std::to_string(origin) +
                                            " is before 1990: give --log-origin");
        }
        timeline.has_log = true;
        timeline.log_origin = mjd_from_date(origin);
        job.log_origin = origin;
    }
    Body background;
    const bool mode_log = options.deformation == Deformation::log || options.deformation == Deformation::mixed;
    background.rate = options.deformation != Deformation::log ? options.background * options.rate : 0.0;
    background.log = mode_log ? options.background * options.log_amp : 0.0;
    job.background_rate = background.rate;
    job.background_log = background.log;
    job.dem_error_factor = 4.0 * std::numbers::pi /
                           (options.wavelength * options.orbit_altitude *
                            std::sin(options.incidence * std::numbers::pi / 180.0));

    // Folder and configuration.
    const fs::path folder = fs::absolute(fs::path(folder_name)).lexically_normal();
    std::string root = folder.string();
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    const fs::path base(root);
    job.folder = root;
    job.config = (base / "config.txt").string();
    job.ifg_folder = (base / "ifg").string();
    job.result_folder = (base / "result").string();
    job.truth_folder = (base / "truth").string();
    job.ifg_header = (base / "ifg_header.txt").string();
    job.ifg_list = (base / "ifg_list.txt").string();
    job.baselines = (base / "baselines.txt").string();
    job.dem = (base / "dem.dem").string();
    job.dem_header = (base / "dem_header.txt").string();

    const int centre_row = length / 2;
    const int centre_col = width / 2;
    Entries entries = {
        {"resultfolder", path_entry(job.result_folder)},
        {"headerfile", path_entry(job.ifg_header)},
        {"filelist", path_entry(job.ifg_list)},
        {"datafolder", path_entry(job.ifg_folder)},
        {"baselines", path_entry(job.baselines)},
        {"demfile", path_entry(job.dem)},
        {"demfile_header", path_entry(job.dem_header)},
        {"wavelength", format_double(options.wavelength)},
        {"incidence", format_double(options.incidence)},
        {"orbit_altitude", format_double(options.orbit_altitude)},
        {"max_parallel_threads", std::to_string(options.max_parallel_threads)},
        {"maxcap", std::to_string(options.maxcap)},
        {"ref_row", std::to_string(options.ref_row >= 0 ? options.ref_row : centre_row)},
        {"ref_col", std::to_string(options.ref_col >= 0 ? options.ref_col : centre_col)},
        {"ref_window", std::to_string(options.ref_window)},
        {"if_check_loop_closure", "0"},
        {"if_remove_eds", "0"},
        {"if_remove_orbit", "0"},
        {"if_stacking", "0"},
        {"if_apply_filter", "0"},
        {"if_inverse_time_series", "1"},
        {"if_est_hgt", "0"},
        {"temporal_constraint", "0"},
        {"temporal_strength", format_double(options.temporal_strength)},
    };
    if (job.log_origin) entries.emplace_back("simple_log_origin", std::to_string(job.log_origin));
    entries.emplace_back("minimum_temporal_ifg_ratio", format_double(options.minimum_temporal_ifg_ratio));
    for (const auto& [key, value] : options.settings) apply_setting(entries, key, value);
    for (const auto& [key, value] : entries) check_entry(key, value);
    job.config_entries = entries;

    // The reference as configured, and the window kept clean around it.
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
    job.clean_row = have_ref ? job.ref_row : centre_row;
    job.clean_col = have_ref ? job.ref_col : centre_col;
    job.clean_half = job.ref_window / 2 + 2;
    const Box clean = {job.clean_row - job.clean_half, job.clean_row + job.clean_half,
                       job.clean_col - job.clean_half, job.clean_col + job.clean_half};
    Box corner;
    if (options.invalid_corner > 0.0) {
        corner = {0, static_cast<int>(std::ceil(options.invalid_corner * length)) - 1, 0,
                  static_cast<int>(std::ceil(options.invalid_corner * width)) - 1};
        require(corner.row1 < clean.row0 || corner.col1 < clean.col0,
                "the invalid corner reaches the reference window: make --invalid-corner smaller");
    }

    prepare_folder(base, options.overwrite);

    // Baselines, elevation coefficients and the static fields.
    {
        Rng rng(options.seed, Stream::baselines);
        for (int d = 0; d < n_dates; ++d) job.date_bperp.push_back(centimetres(rng.normal() * options.bperp_std));
        Rng coef(options.seed, Stream::elevation);
        for (int d = 0; d < n_dates; ++d)
            job.elevation_coef.push_back(options.elevation_term ? coef.normal() * options.elevation_coef : 0.0);
        for (const auto& [a, b] : job.pairs) job.bperp.push_back(centimetres(job.date_bperp[b] - job.date_bperp[a]));
    }
    const std::vector<float> dem = make_dem(options);
    std::vector<double> height;
    if (options.elevation_term) {
        height.resize(pixels);
        for (int i = 0; i < length; ++i)
            for (int j = 0; j < width; ++j)
                height[static_cast<std::size_t>(i) * width + j] =
                    dem[static_cast<std::size_t>(i) * f * job.dem_grid.width + static_cast<std::size_t>(j) * f];
    }
    std::vector<float> dz;
    if (options.dem_error) dz = make_dem_error(options);

    std::vector<Separable> shapes;
    for (const Body& body : job.bodies)
        shapes.push_back(gaussian(body.row, body.col, body.sigma, width, length));
    const int noise_radius = options.noise_scale > 0.0
                                 ? std::max(1, static_cast<int>(std::lround(options.noise_scale)))
                                 : std::max(1, static_cast<int>(std::lround(std::min(width, length) / 40.0)));

    // Per date: truth displacement and phase.
    std::vector<std::vector<double>> phase(n_dates);
    std::vector<double> last_disp;
    FirstError failure;
    const fs::path truth(job.truth_folder);
#pragma omp parallel num_threads(threads)
    {
        std::vector<double> noise;
        std::vector<double> scratch;
        std::vector<float> out(pixels);
#pragma omp for schedule(dynamic)
        for (int d = 0; d < n_dates; ++d) {
            try {
                const double t = job.mjd[d];
                std::vector<double> disp(pixels, history(background, t, timeline));
                for (std::size_t b = 0; b < job.bodies.size(); ++b) {
                    const double h = history(job.bodies[b], t, timeline);
                    if (h == 0.0) continue;
                    for (int i = 0; i < length; ++i) {
                        const double a = h * shapes[b].rows[i];
                        double* line = disp.data() + static_cast<std::size_t>(i) * width;
                        const double* cols = shapes[b].cols.data();
                        for (int j = 0; j < width; ++j) line[j] += a * cols[j];
                    }
                }
                for (std::size_t p = 0; p < pixels; ++p) out[p] = static_cast<float>(disp[p]);
                write_raster((truth / truth_disp_name(job.dates[d])).string(), out.data(), pixels);
                if (d == n_dates - 1) last_disp = disp;

                std::vector<double>& ph = disp;
                if (options.noise > 0.0) {
                    correlated_noise(options, d, noise_radius, options.noise, noise, scratch);
                    for (std::size_t p = 0; p < pixels; ++p) ph[p] += noise[p];
                }
                if (options.elevation_term) {
                    const double c = job.elevation_coef[d];
                    for (std::size_t p = 0; p < pixels; ++p) ph[p] += c * height[p];
                }
                phase[d] = std::move(ph);
            } catch (const std::exception& e) {
                failure.keep(e.what());
            }
        }
    }
    require(failure.message.empty(), failure.message);

    // Which interferograms get patches and unwrapping errors.
    const int nodata_count =
        options.nodata_fraction > 0.0
            ? std::max(1, static_cast<int>(std::lround(options.nodata_fraction * n_ifgs)))
            : 0;
    job.nodata_ifgs = choose(Rng(options.seed, Stream::nodata_choice), n_ifgs, nodata_count);
    const std::vector<int> unwrapped_wrong = choose(Rng(options.seed, Stream::unwrap_choice), n_ifgs,
                                                    options.unwrap_errors);
    const double side = std::min(width, length);
    std::vector<std::vector<Patch>> holes(n_ifgs);
    std::vector<char> has_holes(n_ifgs, 0);
    for (int k : job.nodata_ifgs) {
        has_holes[k] = 1;
        Rng rng(options.seed, Stream::ifg, 3 * static_cast<std::uint64_t>(k));
        const int count = 1 + static_cast<int>(rng.below(3));
        for (int c = 0; c < count; ++c) {
            Patch patch;
            if (draw_patch(rng, width, length, clean, std::max(1.0, options.nodata_size / 3 * side),
                           std::max(1.5, options.nodata_size * side),
                           true, patch))
                holes[k].push_back(patch);
        }
    }
    std::vector<Patch> unwrap_patch(n_ifgs);
    std::vector<int> cycles(n_ifgs, 0);
    for (int k : unwrapped_wrong) {
        Rng rng(options.seed, Stream::ifg, 3 * static_cast<std::uint64_t>(k) + 1);
        const int n = (1 + static_cast<int>(rng.below(2))) * static_cast<int>(rng.sign());
        Patch patch;
        require(draw_patch(rng, width, length, clean, std::max(2.0, 0.08 * side), std::max(2.5, 0.18 * side),
                           false, patch),
                "no room for an unwrapping error outside the reference window");
        unwrap_patch[k] = patch;
        cycles[k] = n;
        job.unwrap_errors.push_back({k, n, patch.row, patch.col, patch.radius});
    }
    std::vector<std::array<double, 5>> ramp(n_ifgs, {0, 0, 0, 0, 0});
    if (options.ramps) {
        for (int k = 0; k < n_ifgs; ++k) {
            Rng rng(options.seed, Stream::ifg, 3 * static_cast<std::uint64_t>(k) + 2);
            for (double& c : ramp[k]) c = rng.normal() * options.ramp_amp;
        }
    }

    // Interferograms.
    const fs::path ifg_folder(job.ifg_folder);
#pragma omp parallel num_threads(threads)
    {
        std::vector<float> out(pixels);
        std::vector<double> u(width);
#pragma omp for schedule(dynamic)
        for (int k = 0; k < n_ifgs; ++k) {
            try {
                const std::vector<double>& early = phase[job.pairs[k].first];
                const std::vector<double>& late = phase[job.pairs[k].second];
                const double dem_term = job.bperp[k] * job.dem_error_factor;
                const auto& c = ramp[k];
                for (int j = 0; j < width; ++j) u[j] = (j - job.clean_col) / static_cast<double>(width);
                Rng noise(options.seed, Stream::ifg_noise, static_cast<std::uint64_t>(k));
                for (int i = 0; i < length; ++i) {
                    const double v = (i - job.clean_row) / static_cast<double>(length);
                    const std::size_t row = static_cast<std::size_t>(i) * width;
                    for (int j = 0; j < width; ++j) {
                        const std::size_t p = row + j;
                        double value = late[p] - early[p];
                        if (options.dem_error) value += dem_term * dz[p];
                        if (options.ramps)
                            value += c[0] * u[j] + c[1] * v + c[2] * u[j] * u[j] + c[3] * v * v +
                                     c[4] * u[j] * v;
                        if (options.ifg_noise > 0.0) value += options.ifg_noise * noise.normal();
                        out[p] = static_cast<float>(value);
                    }
                }
                if (cycles[k]) {
                    const Patch& patch = unwrap_patch[k];
                    const float shift = static_cast<float>(2.0 * std::numbers::pi * cycles[k]);
                    for (int i = patch.bounds.row0; i <= patch.bounds.row1; ++i)
                        for (int j = patch.bounds.col0; j <= patch.bounds.col1; ++j)
                            if (covers(patch, i, j)) out[static_cast<std::size_t>(i) * width + j] += shift;
                }
                for (const Patch& patch : holes[k])
                    for (int i = patch.bounds.row0; i <= patch.bounds.row1; ++i)
                        for (int j = patch.bounds.col0; j <= patch.bounds.col1; ++j)
                            if (covers(patch, i, j)) out[static_cast<std::size_t>(i) * width + j] = 0.0f;
                for (int i = corner.row0; i <= corner.row1; ++i)
                    for (int j = corner.col0; j <= corner.col1; ++j)
                        out[static_cast<std::size_t>(i) * width + j] = 0.0f;
                write_raster((ifg_folder / job.ifgs[k]).string(), out.data(), pixels);
            } catch (const std::exception& e) {
                failure.keep(e.what());
            }
        }
    }
    require(failure.message.empty(), failure.message);
    phase.clear();

    // Truth maps and lists.
    {
        std::vector<float> out(pixels);
        const double years = (job.mjd.back() - job.mjd.front()) / 365.25;
        for (std::size_t p = 0; p < pixels; ++p) out[p] = static_cast<float>(last_disp[p] / years);
        write_raster((truth / truth_velocity_name).string(), out.data(), pixels);
        if (options.dem_error) write_raster((truth / truth_dem_error_name).string(), dz.data(), pixels);
        std::string text;
        for (int date : job.dates) text += std::to_string(date) + "\n";
        write_text((truth / truth_dates_name).string(), text);
        if (!job.unwrap_errors.empty()) {
            std::string lines = "# interferogram cycles row col radius (pixels)\n";
            for (const UnwrapError& e : job.unwrap_errors)
                lines += job.ifgs[e.ifg] + " " + std::to_string(e.cycles) + " " + format_double(e.row) + " " +
                         format_double(e.col) + " " + format_double(e.radius) + "\n";
            write_text((truth / "unwrapping_errors.txt").string(), lines);
        }
    }

    // The inputs' text files and the DEM; the configuration last, so a job
    // cut short has none.
    write_header(job.ifg_header, job.grid);
    write_header(job.dem_header, job.dem_grid);
    write_raster(job.dem, dem.data(), dem.size());
    {
        std::string list;
        std::string baselines;
        for (int k = 0; k < n_ifgs; ++k) {
            list += job.ifgs[k] + "\n";
            char value[64];
            std::snprintf(value, sizeof value, " %.2f\n", job.bperp[k]);
            baselines += job.ifgs[k] + value;
        }
        write_text(job.ifg_list, list);
        write_text(job.baselines, baselines);
    }
    write_text(job.config, config_text(entries));
    return job;
}

}  // namespace synth
