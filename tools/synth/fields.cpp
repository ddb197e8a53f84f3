// Deformation bodies, their histories, the DEM, the DEM error and the
// correlated noise.
//
// Every spatial shape is a sum of Gaussian bumps, each the product of a row
// factor and a column factor, so a field costs one multiply-add per bump and
// pixel. The noise is white noise smoothed by three passes of a box blur in
// each direction (close to a Gaussian blur), each pass a running sum.
#include "synth/fields.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "synth/random.h"

namespace synth {

double history(const Body& body, double t, const Timeline& timeline)
{
    const double years = (t - timeline.first) / 365.25;
    double value = body.rate * years;
    if (body.seasonal != 0.0) {
        const double angle = 2.0 * std::numbers::pi * years;
        value += body.seasonal * (std::sin(angle + body.seasonal_phase) - std::sin(body.seasonal_phase));
    }
    if (timeline.has_step && t >= timeline.step) value += body.step;
    if (timeline.has_log && body.log != 0.0) {
        value += body.log * (std::log(t - timeline.log_origin) -
                             std::log(timeline.first - timeline.log_origin));
    }
    return value;
}

void add_scaled(std::vector<double>& field, const Separable& shape, double amplitude)
{
    const std::size_t width = shape.cols.size();
    for (std::size_t i = 0; i < shape.rows.size(); ++i) {
        const double a = amplitude * shape.rows[i];
        double* line = field.data() + i * width;
        for (std::size_t j = 0; j < width; ++j) line[j] += a * shape.cols[j];
    }
}

Separable gaussian(double row, double col, double sigma, int width, int length, double scale)
{
    Separable shape;
    shape.rows.resize(length);
    shape.cols.resize(width);
    const double inverse = 1.0 / (2.0 * sigma * sigma);
    for (int i = 0; i < length; ++i) {
        const double d = i * scale - row;
        shape.rows[i] = std::exp(-d * d * inverse);
    }
    for (int j = 0; j < width; ++j) {
        const double d = j * scale - col;
        shape.cols[j] = std::exp(-d * d * inverse);
    }
    return shape;
}

std::vector<Body> make_bodies(const Options& options)
{
    if (!options.bodies.empty()) return options.bodies;
    const ModeTerms with = mode_terms(options.deformation);
    const double side = std::min(options.width, options.length);

    // Every draw is made whatever the mode, so one seed puts the bodies in
    // the same places in every mode.
    Rng rng(options.seed, Stream::bodies);
    std::vector<Body> bodies(options.body_count);
    for (Body& body : bodies) {
        body.row = rng.uniform(0.1, 0.9) * options.length;
        body.col = rng.uniform(0.1, 0.9) * options.width;
        body.sigma = std::max(1.0, rng.uniform(0.06, 0.18) * side);
        const double rate = rng.sign() * rng.uniform(0.5, 1.0) * options.rate;
        const double seasonal = rng.uniform(0.5, 1.0) * options.seasonal_amp;
        const double phase = rng.uniform(0.0, 2.0 * std::numbers::pi);
        const double step = rng.sign() * rng.uniform(0.5, 1.0) * options.step_amp;
        const double log = rng.sign() * rng.uniform(0.5, 1.0) * options.log_amp;
        body.rate = with.rate ? rate : 0.0;
        body.seasonal = with.seasonal ? seasonal : 0.0;
        body.seasonal_phase = with.seasonal ? phase : 0.0;
        body.step = with.step ? step : 0.0;
        body.log = with.log ? log : 0.0;
    }
    return bodies;
}

std::vector<float> make_dem(const Options& options)
{
    const int f = options.dem_oversample;
    const int width = options.width * f;
    const int length = options.length * f;
    const double side = std::min(options.width, options.length);
    std::vector<double> height(static_cast<std::size_t>(width) * length, 150.0);
    Rng rng(options.seed, Stream::hills);
    for (int hill = 0; hill < 6; ++hill) {
        const double row = rng.uniform(-0.1, 1.1) * options.length;
        const double col = rng.uniform(-0.1, 1.1) * options.width;
        const double sigma = std::max(1.0, rng.uniform(0.1, 0.3) * side);
        const double top = rng.uniform(200.0, 1200.0);
        add_scaled(height, gaussian(row, col, sigma, width, length, 1.0 / f), top);
    }
    return std::vector<float>(height.begin(), height.end());
}

std::vector<float> make_dem_error(const Options& options)
{
    const int width = options.width;
    const int length = options.length;
    const double side = std::min(width, length);
    std::vector<double> dz(static_cast<std::size_t>(width) * length, 0.0);
    Rng rng(options.seed, Stream::dem_error);
    for (int bump = 0; bump < 4; ++bump) {
        const double row = rng.uniform(0.1, 0.9) * length;
        const double col = rng.uniform(0.1, 0.9) * width;
        const double sigma = std::max(1.0, rng.uniform(0.08, 0.2) * side);
        const double top = rng.sign() * rng.uniform(0.5, 1.0) * options.dem_error_amp;
        add_scaled(dz, gaussian(row, col, sigma, width, length), top);
    }
    return std::vector<float>(dz.begin(), dz.end());
}

StaticFields make_static_fields(const Options& options, const std::vector<Body>& bodies)
{
    StaticFields fields;
    const int width = options.width;
    const int length = options.length;
    fields.dem = make_dem(options);
    if (options.elevation_term) {
        // The DEM sample at the top-left corner of each interferogram pixel.
        const std::size_t f = options.dem_oversample;
        fields.height.resize(static_cast<std::size_t>(width) * length);
        for (int i = 0; i < length; ++i)
            for (int j = 0; j < width; ++j)
                fields.height[static_cast<std::size_t>(i) * width + j] = fields.dem[i * f * width * f + j * f];
    }
    if (options.dem_error) fields.dz = make_dem_error(options);
    for (const Body& body : bodies) fields.shapes.push_back(gaussian(body.row, body.col, body.sigma, width, length));
    return fields;
}

namespace {

// One box-blur pass along rows, then one along columns, windows of
// 2 * radius + 1 samples cut at the edges and averaged over what remains.
void blur_pass(std::vector<double>& field, int width, int length, int radius, std::vector<double>& scratch)
{
    scratch.resize(static_cast<std::size_t>(length + 1) * width);
    double* sums = scratch.data();
    for (int i = 0; i < length; ++i) {
        double* line = field.data() + static_cast<std::size_t>(i) * width;
        sums[0] = 0.0;
        for (int j = 0; j < width; ++j) sums[j + 1] = sums[j] + line[j];
        for (int j = 0; j < width; ++j) {
            const int low = std::max(j - radius, 0);
            const int high = std::min(j + radius, width - 1);
            line[j] = (sums[high + 1] - sums[low]) / (high - low + 1);
        }
    }
    // Column sums: row k of `sums` is the sum of rows 0..k-1.
    std::fill(sums, sums + width, 0.0);
    for (int i = 0; i < length; ++i) {
        const double* line = field.data() + static_cast<std::size_t>(i) * width;
        const double* above = sums + static_cast<std::size_t>(i) * width;
        double* below = sums + static_cast<std::size_t>(i + 1) * width;
        for (int j = 0; j < width; ++j) below[j] = above[j] + line[j];
    }
    for (int i = 0; i < length; ++i) {
        const int low = std::max(i - radius, 0);
        const int high = std::min(i + radius, length - 1);
        const double count = high - low + 1;
        const double* top = sums + static_cast<std::size_t>(low) * width;
        const double* bottom = sums + static_cast<std::size_t>(high + 1) * width;
        double* line = field.data() + static_cast<std::size_t>(i) * width;
        for (int j = 0; j < width; ++j) line[j] = (bottom[j] - top[j]) / count;
    }
}

}  // namespace

void correlated_noise(const Options& options, int index, int radius, double sigma,
                      std::vector<double>& field, std::vector<double>& scratch)
{
    const int width = options.width;
    const int length = options.length;
    const std::size_t count = static_cast<std::size_t>(width) * length;
    field.resize(count);
    Rng rng(options.seed, Stream::date_noise, static_cast<std::uint64_t>(index));
    for (double& x : field) x = rng.normal();
    for (int pass = 0; pass < 3; ++pass) blur_pass(field, width, length, radius, scratch);

    double sum = 0.0;
    for (double x : field) sum += x;
    const double mean = sum / count;
    double squares = 0.0;
    for (double x : field) squares += (x - mean) * (x - mean);
    const double spread = std::sqrt(squares / count);
    const double gain = spread > 0.0 ? sigma / spread : 0.0;
    for (double& x : field) x = (x - mean) * gain;
}

}  // namespace synth
