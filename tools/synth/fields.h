// The spatial fields and temporal histories a job is built from.
#pragma once

#include <vector>

#include "synth/synth.h"

namespace synth {

// The times a body history needs, as day numbers.
struct Timeline {
    double first = 0.0;        // t1, the first date
    bool has_step = false;
    double step = 0.0;         // the step date
    bool has_log = false;
    double log_origin = 0.0;   // t0 < t1
};

// History of `body` at day t (0 at t1); the step and log terms count only
// when the timeline has them. Units of the body amplitudes (rad).
double history(const Body& body, double t, const Timeline& timeline);

// A separable Gaussian exp(-((i - row)^2 + (j - col)^2) / (2 sigma^2)) as
// its row factors (length `length`) and column factors (length `width`).
// `scale` maps grid indices to body pixels (1 / oversampling for the DEM).
struct Separable {
    std::vector<double> rows;
    std::vector<double> cols;
};
Separable gaussian(double row, double col, double sigma, int width, int length, double scale = 1.0);

// Adds amplitude * shape to `field`, a grid of shape.rows.size() rows of
// shape.cols.size() samples.
void add_scaled(std::vector<double>& field, const Separable& shape, double amplitude);

// The bodies of a job: options.bodies when given, else options.body_count
// random bodies with the terms of options.deformation.
std::vector<Body> make_bodies(const Options& options);

// The DEM on its own grid (width * f by length * f samples, f the
// oversampling): smooth hills, metres, every sample well above 0.
std::vector<float> make_dem(const Options& options);

// The DEM error dz on the interferogram grid, metres: a few signed bumps.
std::vector<float> make_dem_error(const Options& options);

// The fields that dates and interferograms read but never change.
struct StaticFields {
    std::vector<float> dem;         // on the DEM grid, m
    std::vector<double> height;     // DEM per interferogram pixel, m (elevation term only, else empty)
    std::vector<float> dz;          // DEM error per pixel, m (options.dem_error only, else empty)
    std::vector<Separable> shapes;  // one per body, on the interferogram grid
};
StaticFields make_static_fields(const Options& options, const std::vector<Body>& bodies);

// Spatially correlated noise for date `index`: white normal noise box-blurred
// three times with `radius` pixels (windows shrink at the edges), then shifted
// to mean 0 and scaled to standard deviation `sigma` rad. `scratch` is
// resized as needed and may be reused between calls.
void correlated_noise(const Options& options, int index, int radius, double sigma,
                      std::vector<double>& field, std::vector<double>& scratch);

}  // namespace synth
