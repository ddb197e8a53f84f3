// Command-line parsing for sbas-synth.
//
// Options come as `--name value` or `--name=value`; flags take no value.
// Numbers must be whole fields ("12x" is refused). A --body with only a
// centre and a width takes its amplitudes from the chosen deformation mode
// and the --rate / --seasonal-amp / --step-amp / --log-amp values, which may
// appear anywhere on the line, so bodies are resolved after the last option.
#include "cli.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <map>
#include <sstream>

namespace synth {
namespace {

long parse_integer(const std::string& option, const std::string& text)
{
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno == ERANGE || value < -2000000000L || value > 2000000000L)
        throw Error(option + " needs an integer, not '" + text + "'");
    return value;
}

double parse_number(const std::string& option, const std::string& text)
{
    char* end = nullptr;
    errno = 0;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno == ERANGE || !std::isfinite(value))
        throw Error(option + " needs a number, not '" + text + "'");
    return value;
}

std::uint64_t parse_seed(const std::string& option, const std::string& text)
{
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno == ERANGE)
        throw Error(option + " needs a non-negative integer, not '" + text + "'");
    return value;
}

int parse_date(const std::string& option, const std::string& text)
{
    const long value = parse_integer(option, text);
    if (text.size() != 8 || !valid_date(static_cast<int>(value)))
        throw Error(option + " needs a date yyyymmdd between 1990 and 2090, not '" + text + "'");
    return static_cast<int>(value);
}

// The comma-separated numbers of `text`.
std::vector<double> parse_numbers(const std::string& option, const std::string& text)
{
    std::vector<double> fields;
    std::stringstream in(text);
    std::string field;
    while (std::getline(in, field, ',')) fields.push_back(parse_number(option, field));
    return fields;
}

Body parse_body(const std::string& text, const Options& options)
{
    const std::vector<double> fields = parse_numbers("--body", text);
    if (fields.size() != 3 && fields.size() != 7)
        throw Error("--body needs ROW,COL,SIGMA or ROW,COL,SIGMA,RATE,SEASONAL,STEP,LOG, not '" + text + "'");
    Body body;
    body.row = fields[0];
    body.col = fields[1];
    body.sigma = fields[2];
    if (fields.size() == 7) {
        body.rate = fields[3];
        body.seasonal = fields[4];
        body.step = fields[5];
        body.log = fields[6];
        return body;
    }
    const ModeTerms with = mode_terms(options.deformation);
    body.rate = with.rate ? options.rate : 0.0;
    body.seasonal = with.seasonal ? options.seasonal_amp : 0.0;
    body.step = with.step ? options.step_amp : 0.0;
    body.log = with.log ? options.log_amp : 0.0;
    return body;
}

UnwrapError parse_unwrap_error(const std::string& option, const std::string& text)
{
    const std::vector<double> fields = parse_numbers(option, text);
    const auto whole = [](double x) { return x == std::floor(x) && std::fabs(x) <= 2e9; };
    if (fields.size() != 5 || !whole(fields[0]) || !whole(fields[1]))
        throw Error(option + " needs IFG,K,ROW,COL,RADIUS with whole IFG and K, not '" + text + "'");
    return {static_cast<int>(fields[0]), static_cast<int>(fields[1]), fields[2], fields[3], fields[4]};
}

}  // namespace

Command parse_command_line(int argc, const char* const* argv)
{
    Command command;
    Options& o = command.options;
    std::vector<std::string> bodies;

    using Handler = std::function<void(const std::string& name, const std::string& value)>;
    auto integer = [](int& target) {
        return Handler([&target](const std::string& n, const std::string& v) {
            target = static_cast<int>(parse_integer(n, v));
        });
    };
    auto number = [](double& target) {
        return Handler([&target](const std::string& n, const std::string& v) { target = parse_number(n, v); });
    };
    auto date = [](int& target) {
        return Handler([&target](const std::string& n, const std::string& v) { target = parse_date(n, v); });
    };
    const std::map<std::string, Handler> valued = {
        {"--out", [&](const std::string&, const std::string& v) { command.folder = v; }},
        {"--width", integer(o.width)},
        {"--length", integer(o.length)},
        {"--x-first", number(o.x_first)},
        {"--y-first", number(o.y_first)},
        {"--step", number(o.step)},
        {"--dates", integer(o.dates)},
        {"--first-date", date(o.first_date)},
        {"--spacing", integer(o.spacing)},
        {"--jitter", integer(o.jitter)},
        {"--long-gaps", integer(o.long_gaps)},
        {"--gap-days", integer(o.gap_days)},
        {"--neighbours", integer(o.neighbours)},
        {"--long-links", integer(o.long_links)},
        {"--seed", [&](const std::string& n, const std::string& v) { o.seed = parse_seed(n, v); }},
        {"--deformation", [&](const std::string&, const std::string& v) { o.deformation = parse_deformation(v); }},
        {"--bodies", integer(o.body_count)},
        {"--body", [&](const std::string&, const std::string& v) { bodies.push_back(v); }},
        {"--rate", number(o.rate)},
        {"--seasonal-amp", number(o.seasonal_amp)},
        {"--step-amp", number(o.step_amp)},
        {"--step-date", date(o.step_date)},
        {"--log-amp", number(o.log_amp)},
        {"--log-origin", date(o.log_origin)},
        {"--background", number(o.background)},
        {"--noise", number(o.noise)},
        {"--noise-scale", number(o.noise_scale)},
        {"--ifg-noise", number(o.ifg_noise)},
        {"--nodata-fraction", number(o.nodata_fraction)},
        {"--nodata-size", number(o.nodata_size)},
        {"--invalid-corner", number(o.invalid_corner)},
        {"--unwrap-errors", integer(o.unwrap_errors)},
        {"--unwrap-error",
         [&](const std::string& n, const std::string& v) { o.unwrap_error_patches.push_back(parse_unwrap_error(n, v)); }},
        {"--ramp-amp", number(o.ramp_amp)},
        {"--elevation-coef", number(o.elevation_coef)},
        {"--dem-oversample", integer(o.dem_oversample)},
        {"--dem-error-amp", number(o.dem_error_amp)},
        {"--bperp-std", number(o.bperp_std)},
        {"--wavelength", number(o.wavelength)},
        {"--incidence", number(o.incidence)},
        {"--orbit-altitude", number(o.orbit_altitude)},
        {"--ref-row", integer(o.ref_row)},
        {"--ref-col", integer(o.ref_col)},
        {"--ref-window", integer(o.ref_window)},
        {"--threads", integer(o.threads)},
        {"--set",
         [&](const std::string& n, const std::string& v) {
             const std::size_t equals = v.find('=');
             if (equals == std::string::npos || equals == 0)
                 throw Error(n + " needs key=value, not '" + v + "'");
             o.settings.emplace_back(v.substr(0, equals), v.substr(equals + 1));
         }},
    };
    const std::map<std::string, bool*> flags = {
        {"--ramps", &o.ramps},
        {"--elevation-term", &o.elevation_term},
        {"--dem-error", &o.dem_error},
        {"--force", &o.overwrite},
        {"--help", &command.help},
    };

    for (int a = 0; a < argc; ++a) {
        std::string name = argv[a];
        std::string value;
        bool inline_value = false;
        const std::size_t equals = name.find('=');
        if (name.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = name.substr(equals + 1);
            name = name.substr(0, equals);
            inline_value = true;
        }
        if (name == "-h") name = "--help";
        if (const auto flag = flags.find(name); flag != flags.end()) {
            if (inline_value) throw Error(name + " takes no value");
            *flag->second = true;
            continue;
        }
        const auto option = valued.find(name);
        if (option == valued.end()) throw Error("unknown option '" + name + "' (see --help)");
        if (!inline_value) {
            if (a + 1 >= argc) throw Error(name + " needs a value");
            value = argv[++a];
        }
        option->second(name, value);
    }
    if (command.help) return command;
    if (command.folder.empty()) throw Error("no output folder: give --out DIR (see --help)");
    for (const std::string& text : bodies) o.bodies.push_back(parse_body(text, o));
    return command;
}

std::string usage()
{
    return R"(Usage: sbas-synth --out DIR [options]

Writes a synthetic sbas-ts job with known truth into DIR: interferograms
ifg/geo_<d1>_<d2>.unw (float32, radians), ifg_header.txt, ifg_list.txt,
baselines.txt, dem.dem, dem_header.txt, config.txt (run: sbas-ts DIR/config.txt),
an empty result/, and truth/: disp-<yyyymmdd> for every date (rad, relative to
the first date, deformation only), velocity (rad/yr), dem_error (m, with
--dem-error), dates.txt, unwrapping_errors.txt (with unwrapping errors).
Equal options and seed give identical files.

Output
  --out DIR               job folder (created; must be empty unless --force)
  --force                 replace the files of an earlier job in DIR
  --threads N             generator threads (default: OpenMP's); no effect on output

Grid
  --width N               pixels per row (default 40)
  --length N              rows (default 30)
  --x-first DEG           longitude of column 0 (default 100)
  --y-first DEG           latitude of row 0 (default 30)
  --step DEG              pixel size, degrees (default 0.0009765625); Y_STEP = -step

Dates and network
  --dates N               number of acquisitions (default 12)
  --first-date YYYYMMDD   first acquisition (default 20170105)
  --spacing DAYS          nominal interval (default 12)
  --jitter DAYS           move each later date by a random whole number of days
                          in [-DAYS, DAYS] (default 0)
  --long-gaps N           lengthen N random intervals (default 0)
  --gap-days DAYS         extra days of each long gap (default 4 x spacing)
  --neighbours K          link each date to its next K dates (default 3)
  --long-links N          add N random links more than K dates apart (default 0)
  --seed S                seed of every random draw (default 1)

Deformation (radians; Gaussian bodies plus a uniform background)
  --deformation MODE      linear: rate only; log: logarithmic term only;
                          seasonal: rate + annual term; mixed: rate + annual
                          term + step + logarithmic term (default linear)
  --bodies N              number of random bodies (default 3)
  --body R,C,S[,RATE,SEASONAL,STEP,LOG]
                          a body at row R, column C, width S (pixels) instead
                          of random ones (repeatable); without amplitudes it
                          takes the mode's terms at the amplitudes below
  --rate R                rate amplitude, rad/yr (default 1.5)
  --seasonal-amp A        annual amplitude, rad (default 0.5)
  --step-amp A            step amplitude, rad (default 1)
  --step-date YYYYMMDD    date of the step (default: middle of the time span)
  --log-amp A             amplitude of ln(t - t0) - ln(t1 - t0), t in days,
                          rad (default 2)
  --log-origin YYYYMMDD   t0, strictly before the first date (default: first
                          date - spacing); written as simple_log_origin
  --background F          uniform term, fraction of --rate / --log-amp
                          (default 0.2; keeps noise-free samples off 0)

Noise
  --noise STD             correlated noise per date, rad (default 0)
  --noise-scale PX        blur radius of that noise, pixels (default side/40)
  --ifg-noise STD         white noise per interferogram, rad (default 0)

Missing data (exact 0; kept out of the reference window + 2 pixels)
  --nodata-fraction F     share of interferograms with 1-3 discs/rectangles (default 0)
  --nodata-size F         largest patch radius as a share of the shorter grid side (default 0.12)
  --invalid-corner F      top-left corner rectangle, F of each side, missing
                          in every interferogram (default 0)

Unwrapping errors (kept out of the reference window + 2 pixels)
  --unwrap-errors N       N random interferograms get a random disc shifted by
                          2 pi k, k = +-1 or +-2 (default 0)
  --unwrap-error IFG,K,ROW,COL,RADIUS
                          shift the disc of RADIUS pixels centred at row ROW,
                          column COL of interferogram IFG (its line in
                          ifg_list.txt, from 0) by 2 pi K, K a whole number
                          other than 0 (repeatable; adds to --unwrap-errors)

Nuisance terms
  --ramps                 quadratic orbital ramp per interferogram, zero at the
                          reference pixel
  --ramp-amp RAD          typical ramp coefficient, rad (default 3)
  --elevation-term        add c(t) * h, h the DEM height (m) at the pixel
  --elevation-coef C      standard deviation of c(t), rad/m (default 0.002)
  --dem-oversample F      DEM pixels per interferogram pixel per axis (default 1)
  --dem-error             add Bperp * K * dz, K = 4 pi / (wavelength *
                          orbit_altitude * sin(incidence)), dz in m
  --dem-error-amp M       size of the dz bumps, m (default 20)
  --bperp-std M           standard deviation of per-date baselines, m (default 80)

Sensor
  --wavelength M          default 0.05546576
  --incidence DEG         default 39
  --orbit-altitude M      default 693000

Reference and configuration
  --ref-row N, --ref-col N  reference pixel (default: the grid centre; not 0,0)
  --ref-window N          reference window side, pixels (default 5)
  --set KEY=VALUE         set a configuration line (repeatable; empty VALUE
                          removes the key), e.g. --set if_est_hgt=1
  --help                  this text
)";
}

}  // namespace synth
