// `sbas-view map`: one raster of a result folder as a map.
//
// Signed quantities (displacement, velocity, DEM error) get a diverging
// scale centred on 0 with symmetric limits +-L, L the larger magnitude of
// the 2nd and 98th percentiles of the valid samples, so a few outliers (an
// unwrapping error, a pixel at the edge of the coverage) saturate instead
// of washing out the map. Scatter, ratios and masks (never negative) get a
// sequential scale from 0 to their 98th percentile (masks and ratios 0 to
// 1). The bar says which limits were used and carries the unit; its end caps
// mark the saturated colours.
//
// Pixels are drawn as cells around the header's samples, on a longitude axis
// scaled by cos(latitude) so the map keeps its shape on the ground. No-data
// pixels are grey. A grid with more pixels a side than the PNG is averaged
// down in square blocks first (no-data left out of each mean), which the eye
// cannot tell apart and which spares PLplot millions of cells.
#include <plplot/plplot.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numbers>

#include "view/commands.h"
#include "view/fail.h"
#include "view/guard.h"
#include "view/outputs.h"
#include "view/plot.h"

namespace view {
namespace {

constexpr double kOffMap = 1e30;  // a value outside every colour range: not drawn

// The raster averaged in blocks of f x f pixels (no-data NaN), as PLplot's
// image layout: column-major rows of the image from the bottom (south) up.
struct Image {
    int64_t nx = 0, ny = 0;
    std::vector<double> cells;  // cells[ix * ny + iy]
};

Image block_mean(const std::vector<float>& values, const Grid& grid, int64_t f)
{
    Image image;
    image.nx = (grid.width + f - 1) / f;
    image.ny = (grid.length + f - 1) / f;
    std::vector<double> sum(static_cast<size_t>(image.nx * image.ny), 0.0);
    std::vector<int64_t> count(sum.size(), 0);
    for (int64_t r = 0; r < grid.length; ++r)
        for (int64_t c = 0; c < grid.width; ++c) {
            const float v = values[static_cast<size_t>(r * grid.width + c)];
            if (std::isnan(v)) continue;
            // Image x grows east, image y grows north.
            const int64_t bx = grid.x_step > 0 ? c / f : image.nx - 1 - c / f;
            const int64_t by = grid.y_step < 0 ? image.ny - 1 - r / f : r / f;
            sum[static_cast<size_t>(bx * image.ny + by)] += v;
            ++count[static_cast<size_t>(bx * image.ny + by)];
        }
    image.cells.resize(sum.size());
    for (size_t i = 0; i < sum.size(); ++i) image.cells[i] = count[i] ? sum[i] / count[i] : std::nan("");
    return image;
}

std::string format_limit(double value)
{
    char text[32];
    const double magnitude = std::fabs(value);
    const char* format = magnitude >= 100 ? "%.0f" : magnitude >= 10 ? "%.1f" : magnitude >= 1 ? "%.2f" : "%.3g";
    std::snprintf(text, sizeof text, format, value);
    return text;
}

// Dark grey over the image cells that hold no drawn value and at least one
// undetermined pixel.
void mark_undetermined(const Determination& d, const Image& image, const Grid& grid, int64_t f, double lon0,
                       double lon1, double lat0, double lat1)
{
    const double w = (lon1 - lon0) / static_cast<double>(image.nx);
    const double h = (lat1 - lat0) / static_cast<double>(image.ny);
    plcol0(kDarkGrey);
    for (int64_t r = 0; r < grid.length; ++r)
        for (int64_t c = 0; c < grid.width; ++c) {
            if (!d.at(r, c, grid.width)) continue;
            const int64_t bx = grid.x_step > 0 ? c / f : image.nx - 1 - c / f;
            const int64_t by = grid.y_step < 0 ? image.ny - 1 - r / f : r / f;
            if (image.cells[static_cast<size_t>(bx * image.ny + by)] != kOffMap) continue;
            const double x = lon0 + static_cast<double>(bx) * w;
            const double y = lat0 + static_cast<double>(by) * h;
            const double xs[] = {x, x + w, x + w, x};
            const double ys[] = {y, y, y + h, y + h};
            plfill(4, xs, ys);
        }
}

void mark_reference(const Grid& grid, const Reference& ref, double width_deg, double height_deg)
{
    const double x = grid.lon(static_cast<double>(ref.col));
    const double y = grid.lat(static_cast<double>(ref.row));
    const double dx = 0.018 * width_deg;
    const double dy = 0.018 * height_deg * 1.6;
    const double tx[] = {x - dx, x + dx, x, x - dx};
    const double ty[] = {y - dy * 0.6, y - dy * 0.6, y + dy, y - dy * 0.6};
    plcol0(kBlack);
    plfill(3, tx, ty);
    plcol0(kWhite);
    plwidth(1.5);
    plline(4, tx, ty);
    plwidth(1.0);
}

}  // namespace

void run_map(const MapOptions& options)
{
    if (!is_file(options.raster)) fail("raster %s is not a readable file", options.raster.c_str());
    const std::optional<Quantity> found = quantity_of(options.raster);
    if (!found)
        fail("%s is not a raster sbas-ts writes (culmap-*.disp, linear_mean_velocity, least_square_sigma, ...)",
             options.raster.c_str());
    const Quantity& q = *found;
    const Job job = read_job(options.config);
    const Grid& grid = job.grid;
    if (q.scale == Scale::fixed && options.unit != Unit::rad)
        std::fprintf(stderr, "sbas-view: note: %s is in %s; --unit does not apply\n", q.name.c_str(),
                     q.base_unit.c_str());

    com::FileIdentities inputs = job_inputs(job, folder_of(options.raster), q.inversion);
    com::add_file(inputs, options.raster);
    claim_outputs(inputs, {options.png});
    // Estimates of pixels whose network is split are drawn apart, in dark grey.
    Determination undetermined;
    if (q.inversion) undetermined = find_undetermined(job, folder_of(options.raster));
    const std::vector<float> values =
        load_converted(options.raster, q, grid, options.unit, job.wavelength, q.inversion ? &undetermined : nullptr);
    // The percentiles of every valid sample, or of an even sample of about
    // four million of them on larger grids (the limits change by far less
    // than a colour step, and memory stays at one raster).
    const size_t stride = std::max<size_t>(1, values.size() / 4000000);
    std::vector<float> valid;
    for (size_t i = 0; i < values.size(); i += stride)
        if (!std::isnan(values[i])) valid.push_back(values[i]);
    if (valid.empty() && stride > 1)
        for (float v : values)
            if (!std::isnan(v)) valid.push_back(v);
    if (valid.empty()) fail("raster %s holds no data (every sample is 0 or NaN)", options.raster.c_str());
    const std::string unit = unit_label(q, options.unit);

    // Colour limits.
    double low = 0, high = 0;
    robust_range(valid, low, high);
    double zmin = 0, zmax = 0;
    std::string bar_label;
    if (q.signed_values) {
        double limit = std::max(std::fabs(low), std::fabs(high));
        if (limit <= 0) limit = 1;
        zmin = -limit;
        zmax = limit;
        bar_label = "limits ±" + format_limit(limit) + " (2nd-98th percentile)";
        diverging_colours();
    } else {
        zmax = q.base_unit == "1" ? 1.0 : high > 0 ? high : 1.0;
        bar_label = q.base_unit == "1" ? "unitless, 0 to 1"
                                       : "limits 0 to " + format_limit(zmax) + " (98th percentile)";
        sequential_colours();
    }
    valid.clear();
    valid.shrink_to_fit();

    const int64_t side = std::max(options.size.width, options.size.height);
    const int64_t f = std::max<int64_t>(1, (std::max(grid.width, grid.length) + side - 1) / side);
    Image image = block_mean(values, grid, f);
    for (double& v : image.cells) v = std::isnan(v) ? kOffMap : std::clamp(v, zmin, zmax);
    std::vector<const double*> columns(static_cast<size_t>(image.nx));
    for (int64_t ix = 0; ix < image.nx; ++ix)
        columns[static_cast<size_t>(ix)] = &image.cells[static_cast<size_t>(ix * image.ny)];

    const double lon0 = std::min(grid.lon(-0.5), grid.lon(grid.width - 0.5));
    const double lon1 = std::max(grid.lon(-0.5), grid.lon(grid.width - 0.5));
    const double lat0 = std::min(grid.lat(-0.5), grid.lat(grid.length - 0.5));
    const double lat1 = std::max(grid.lat(-0.5), grid.lat(grid.length - 0.5));
    const double ground = std::cos((lat0 + lat1) / 2 * std::numbers::pi / 180);
    const Reference ref = reference_of(job, folder_of(options.raster));

    const double shape = (lat1 - lat0) / ((lon1 - lon0) * std::max(ground, 0.05));  // height over width
    const PageSize size = options.size;
    open_figure(options.png, size);
    viewport(130, 250, 90, 120, shape);
    plwind(lon0, lon1, lat0, lat1);
    const double bx[] = {lon0, lon1, lon1, lon0};
    const double by[] = {lat0, lat0, lat1, lat1};
    plcol0(kGrey);
    plfill(4, bx, by);
    plimagefr(columns.data(), static_cast<int>(image.nx), static_cast<int>(image.ny), lon0, lon1, lat0, lat1, zmin,
              zmax, zmin, zmax, nullptr, nullptr);
    if (undetermined.undetermined_count > 0)
        mark_undetermined(undetermined, image, grid, f, lon0, lon1, lat0, lat1);
    if (ref.known) mark_reference(grid, ref, lon1 - lon0, lat1 - lat0);
    plcol0(kBlack);
    text_size(1.0);
    PLFLT vx0, vx1, vy0, vy1;
    plgvpd(&vx0, &vx1, &vy0, &vy1);
    const int lon_labels = std::clamp(static_cast<int>((vx1 - vx0) * size.width / pixels(110)), 2, 8);
    const int lat_labels = std::clamp(static_cast<int>((vy1 - vy0) * size.height / pixels(50)), 2, 8);
    plbox("bcnst", nice_step(lon1 - lon0, lon_labels), 0, "bcnstv", nice_step(lat1 - lat0, lat_labels), 0);
    plmtex("b", 3.0, 0.5, 0.5, "Longitude (°E)");
    plmtex("l", 5.2, 0.5, 0.5, "Latitude (°N)");

    // Colour bar: the unit on top, the limits along its side.
    PLFLT bar_width = 0, bar_height = 0;
    const PLINT label_opts[] = {PL_COLORBAR_LABEL_TOP, PL_COLORBAR_LABEL_RIGHT};
    const char* labels[] = {unit == "1" ? "" : unit.c_str(), bar_label.c_str()};
    const char* axis_opts[] = {"bcvtm"};
    const PLFLT ticks[] = {0.0};
    const PLINT sub_ticks[] = {0};
    const PLINT n_values[] = {2};
    const PLFLT range[] = {zmin, zmax};
    const PLFLT* values_matrix[] = {range};
    PLINT bar_opt = PL_COLORBAR_GRADIENT | PL_COLORBAR_CAP_HIGH;
    if (q.signed_values) bar_opt |= PL_COLORBAR_CAP_LOW;
    if (q.base_unit == "1") bar_opt = PL_COLORBAR_GRADIENT;
    text_size(fitted(bar_label, 0.95, 0.84 * (vy1 - vy0) * size.height));
    plcolorbar(&bar_width, &bar_height, bar_opt, PL_POSITION_RIGHT | PL_POSITION_OUTSIDE | PL_POSITION_VIEWPORT,
               0.03, 0.0, 0.035, 0.84, kWhite, kBlack, 1, 0.0, 1.0, 0, 0.0, 2, label_opts, labels, 1, axis_opts,
               ticks, sub_ticks, n_values, values_matrix);

    // Title: the quantity and unit, then the file, the dates and the reference.
    std::string title = q.description;
    if (q.date)
        title = std::string(q.filtered ? "Filtered " : "") + "LOS displacement on " + iso_date(q.date) + " since " +
                iso_date(q.first_date);
    title[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(title[0])));
    if (unit != "1") title += " (" + unit + ")";
    std::string subtitle = q.name;
    if (ref.known)
        subtitle += ";  ▲ reference pixel (row " + std::to_string(ref.row) + ", col " + std::to_string(ref.col) + ")";
    else
        subtitle += ";  reference: scene mean";
    subtitle += ";  grey: no data";
    if (undetermined.undetermined_count > 0)
        subtitle += ";  dark grey: undetermined, network split (" + std::to_string(undetermined.undetermined_count) +
                    " pixels)";
    titles(title.c_str(), subtitle.c_str());
    close_figure(options.png);
    std::printf("%s\n", options.png.c_str());
}

}  // namespace view
