// `sbas-view series`: the displacement history of one pixel.
//
// The history is read pixel by pixel from the maps (one seek per map, every
// map's size checked), on the dates of the list the run ended with; the
// first date is 0 by definition. The filtered history is added when every
// ".filtered" map exists, and the mean-velocity line when the velocity map
// holds data at the pixel: sbas-ts's velocity is the last displacement over
// the time span, so the line runs from 0 at the first date with that slope.
// A pixel given by longitude and latitude goes to the nearest sample, the
// way sbas-ts places a reference given by ref_lat/ref_lon.
#include <plplot/plplot.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "view/commands.h"
#include "view/determined.h"
#include "view/fail.h"
#include "view/guard.h"
#include "view/outputs.h"
#include "view/plot.h"

namespace view {
namespace {

struct History {
    std::vector<int> dates;
    std::vector<double> days;      // since 1970-01-01
    std::vector<double> raw;       // NaN where no data
    std::vector<double> filtered;  // empty when absent
    double velocity = std::nan(""); // per year, in the output unit
    std::string unit, rate_unit;
    bool reference = false;     // the reference pixel: zero by definition
    bool undetermined = false;  // the pixel's network is split: the values mean nothing
};

History read_history(const SeriesOptions& o, const Job& job, int64_t row, int64_t col)
{
    History h;
    h.dates = dates_of(pairs_used(job, o.result_dir));
    if (h.dates.size() < 2) fail("the run's list has one date only: there is no history to draw");
    bool have_filtered = true;
    for (size_t k = 1; k < h.dates.size(); ++k) {
        const std::string map = o.result_dir + "/" + culmap_name(h.dates[k], h.dates[0]);
        if (!is_file(map))
            fail("result folder %s lacks %s", o.result_dir.c_str(), culmap_name(h.dates[k], h.dates[0]).c_str());
        have_filtered = have_filtered && is_file(map + ".filtered");
    }
    const Quantity disp = *quantity_of(culmap_name(h.dates[1], h.dates[0]));
    const double factor = unit_factor(disp, o.unit, job.wavelength);
    h.unit = unit_label(disp, o.unit);
    auto value = [&](const std::string& path) {
        const float v = read_pixel(path, job.grid, row, col);
        return holds_data(disp, v) ? v * factor : std::nan("");
    };
    bool any = false;
    for (size_t k = 0; k < h.dates.size(); ++k) {
        h.days.push_back(static_cast<double>(day_number(h.dates[k])));
        const std::string map = o.result_dir + "/" + culmap_name(h.dates[k], h.dates[0]);
        h.raw.push_back(k == 0 ? 0.0 : value(map));
        if (have_filtered) h.filtered.push_back(k == 0 ? 0.0 : value(map + ".filtered"));
        any = any || (k > 0 && !std::isnan(h.raw.back()));
    }
    // The reference pixel's history is zero by definition, which the maps
    // write as 0, the no-data value: it is drawn as the zeros it is.
    const Reference ref = reference_of(job, o.result_dir);
    if (!any && ref.known && ref.row == row && ref.col == col) {
        for (size_t k = 1; k < h.dates.size(); ++k) h.raw[k] = 0.0;
        h.reference = true;
        any = true;
    }
    if (!any)
        fail("pixel row %lld, col %lld has no estimate in %s (0 in every map: too few valid interferograms)",
             static_cast<long long>(row), static_cast<long long>(col), o.result_dir.c_str());
    h.undetermined = find_undetermined(job, o.result_dir, row, row + 1).at(row, col, job.grid.width);
    const std::string velocity_map = o.result_dir + "/linear_mean_velocity";
    if (is_file(velocity_map)) {
        const Quantity vq = *quantity_of(velocity_map);
        const float v = read_pixel(velocity_map, job.grid, row, col);
        if (holds_data(vq, v)) h.velocity = v * unit_factor(vq, o.unit, job.wavelength);
        if (h.reference && std::isnan(h.velocity)) h.velocity = 0.0;
        h.rate_unit = unit_label(vq, o.unit);
    }
    return h;
}

double fit_at(const History& h, size_t k) { return h.velocity * (h.days[k] - h.days[0]) / 365.25; }

void write_csv(const std::string& path, const History& h)
{
    FILE* file = std::fopen(path.c_str(), "w");
    if (!file) fail("cannot write %s: %s", path.c_str(), std::strerror(errno));
    auto field = [&](double v) {
        if (std::isnan(v)) std::fputs(",", file);
        else std::fprintf(file, ",%.9g", v);
    };
    std::fprintf(file, "date,days_since_first,displacement_%s", h.unit.c_str());
    if (!h.filtered.empty()) std::fprintf(file, ",filtered_%s", h.unit.c_str());
    if (!std::isnan(h.velocity)) std::fprintf(file, ",mean_velocity_line_%s", h.unit.c_str());
    std::fputs("\n", file);
    for (size_t k = 0; k < h.dates.size(); ++k) {
        std::fprintf(file, "%s,%.0f", iso_date(h.dates[k]).c_str(), h.days[k] - h.days[0]);
        field(h.raw[k]);
        if (!h.filtered.empty()) field(h.filtered[k]);
        if (!std::isnan(h.velocity)) field(fit_at(h, k));
        std::fputs("\n", file);
    }
    if (std::fclose(file) != 0) fail("cannot write %s", path.c_str());
    std::printf("%s\n", path.c_str());
}

void draw(const SeriesOptions& o, const History& h, const Grid& grid, int64_t row, int64_t col, const Reference& ref)
{
    double ymin = 0, ymax = 0;
    for (size_t k = 0; k < h.dates.size(); ++k)
        for (double v : {h.raw[k], h.filtered.empty() ? 0.0 : h.filtered[k],
                         std::isnan(h.velocity) ? 0.0 : fit_at(h, k)})
            if (!std::isnan(v)) {
                ymin = std::min(ymin, v);
                ymax = std::max(ymax, v);
            }
    const double ypad = std::max(0.08 * (ymax - ymin), 1e-6);
    ymin -= ypad;
    ymax += ypad;
    const double xpad = std::max(0.03 * (h.days.back() - h.days.front()), 3.0);
    const double x0 = h.days.front() - xpad;
    const double x1 = h.days.back() + xpad;

    open_figure(o.png, o.size);
    viewport(120, 36, 128, 120);
    plwind(x0, x1, ymin, ymax);
    text_size(1.0);
    date_axis(h.days.front(), h.days.back(), ymin, ymax, true);
    plcol0(kLightGrey);
    plbox("", 0, 0, "g", 0, 0);
    plcol0(kDarkGrey);
    pljoin(x0, 0, x1, 0);
    plcol0(kBlack);
    plbox("bc", 0, 0, "bcnstv", 0, 0);

    // Mean-velocity line, filtered history, then the estimates on top.
    if (!std::isnan(h.velocity)) {
        const double lx[] = {h.days.front(), h.days.back()};
        const double ly[] = {0.0, fit_at(h, h.dates.size() - 1)};
        plcol0(kOrange);
        pllsty(2);
        plwidth(2.0);
        plline(2, lx, ly);
        pllsty(1);
    }
    if (!h.filtered.empty()) {
        std::vector<double> x, y;
        for (size_t k = 0; k < h.dates.size(); ++k)
            if (!std::isnan(h.filtered[k])) {
                x.push_back(h.days[k]);
                y.push_back(h.filtered[k]);
            }
        plcol0(kRed);
        plwidth(3.0);
        plline(static_cast<int>(x.size()), x.data(), y.data());
    }
    std::vector<double> x, y;
    for (size_t k = 0; k < h.dates.size(); ++k)
        if (!std::isnan(h.raw[k])) {
            x.push_back(h.days[k]);
            y.push_back(h.raw[k]);
        }
    plcol0(kBlue);
    plwidth(1.5);
    plline(static_cast<int>(x.size()), x.data(), y.data());
    plwidth(1.0);
    dots(x, y, 6.0, kBlue);

    // Legend, in one row below the axis.
    std::vector<std::string> texts = {"estimate"};
    std::vector<PLINT> opts = {PL_LEGEND_LINE | PL_LEGEND_SYMBOL}, colours = {kBlue}, styles = {1};
    std::vector<double> widths = {1.5};
    if (!h.filtered.empty()) {
        texts.push_back("filtered");
        opts.push_back(PL_LEGEND_LINE);
        colours.push_back(kRed);
        styles.push_back(1);
        widths.push_back(3.0);
    }
    if (!std::isnan(h.velocity)) {
        char text[96];
        std::snprintf(text, sizeof text, "mean velocity %.3g %s", h.velocity, h.rate_unit.c_str());
        texts.emplace_back(text);
        opts.push_back(PL_LEGEND_LINE);
        colours.push_back(kOrange);
        styles.push_back(2);
        widths.push_back(2.0);
    }
    legend_below(texts, opts, colours, styles, widths);

    const double lon = grid.lon(static_cast<double>(col));
    const double lat = grid.lat(static_cast<double>(row));
    char title[200];
    std::snprintf(title, sizeof title, "LOS displacement at pixel row %lld, col %lld (%.4f°%c, %.4f°%c)",
                  static_cast<long long>(row), static_cast<long long>(col), std::fabs(lon), lon < 0 ? 'W' : 'E',
                  std::fabs(lat), lat < 0 ? 'S' : 'N');
    std::string subtitle = "since " + iso_date(h.dates.front()) + ";  reference: ";
    subtitle += ref.known ? "pixel row " + std::to_string(ref.row) + ", col " + std::to_string(ref.col) : "scene mean";
    subtitle += ";  positive: phase increase (range increase)";
    if (h.undetermined)
        subtitle = "UNDETERMINED: the pixel's valid interferograms do not connect all dates; these values mean nothing";
    else if (h.reference)
        subtitle = "the reference pixel: its displacement is zero by definition;  since " + iso_date(h.dates.front());
    titles(title, subtitle.c_str());
    text_size(1.0);
    plmtex("l", 4.5, 0.5, 0.5, ("LOS displacement (" + h.unit + ")").c_str());
    close_figure(o.png);
    std::printf("%s\n", o.png.c_str());
}

}  // namespace

void run_series(const SeriesOptions& options)
{
    if (!is_folder(options.result_dir)) fail("result folder %s does not exist", options.result_dir.c_str());
    const Job job = read_job(options.config);
    const Grid& grid = job.grid;
    int64_t row = options.row;
    int64_t col = options.col;
    if (options.by_lonlat) {
        const double r = std::round((options.lat - grid.y_first) / grid.y_step);
        const double c = std::round((options.lon - grid.x_first) / grid.x_step);
        if (!(r >= 0 && r < static_cast<double>(grid.length) && c >= 0 && c < static_cast<double>(grid.width)))
            fail("longitude %.6f, latitude %.6f lies outside the grid (longitude %.6f to %.6f, latitude %.6f to %.6f)",
                 options.lon, options.lat, std::min(grid.lon(-0.5), grid.lon(grid.width - 0.5)),
                 std::max(grid.lon(-0.5), grid.lon(grid.width - 0.5)),
                 std::min(grid.lat(-0.5), grid.lat(grid.length - 0.5)),
                 std::max(grid.lat(-0.5), grid.lat(grid.length - 0.5)));
        row = static_cast<int64_t>(r);
        col = static_cast<int64_t>(c);
    } else if (row < 0 || row >= grid.length || col < 0 || col >= grid.width) {
        fail("pixel row %lld, col %lld lies outside the grid of %lld rows x %lld columns (counted from 0)",
             static_cast<long long>(row), static_cast<long long>(col), static_cast<long long>(grid.length),
             static_cast<long long>(grid.width));
    }
    std::vector<std::string> outputs = {options.png};
    if (!options.csv.empty()) outputs.push_back(options.csv);
    claim_outputs(job_inputs(job, options.result_dir, true), outputs);
    const History history = read_history(options, job, row, col);
    if (history.undetermined)
        std::fprintf(stderr,
                     "sbas-view: note: pixel row %lld, col %lld is undetermined: its valid interferograms do not "
                     "connect all dates, so its values mean nothing\n",
                     static_cast<long long>(row), static_cast<long long>(col));
    if (!options.csv.empty()) write_csv(options.csv, history);
    draw(options, history, grid, row, col, reference_of(job, options.result_dir));
}

}  // namespace view
