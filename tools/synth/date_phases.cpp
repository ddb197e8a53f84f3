// Each date's displacement and phase.
//
// The displacement at day t is the background history plus, for every body,
// its history at t times its Gaussian shape; it is written as that date's
// truth, and the last date's, divided by the time span in years, as the
// truth velocity (every history is 0 at the first date). The phase adds the
// date's correlated noise and c(t) times the DEM height. Dates are
// independent, so they are computed in parallel, each from its own streams.
#include "synth/date_phases.h"

#include <algorithm>
#include <cmath>
#include <filesystem>

#include "synth/parallel.h"

namespace synth {
namespace {

// Blur radius of the date noise: options.noise_scale, or 1/40 of the
// smaller side; at least one pixel.
int noise_radius(const Options& options)
{
    const double scale = options.noise_scale > 0.0 ? options.noise_scale
                                                   : std::min(options.width, options.length) / 40.0;
    return std::max(1, static_cast<int>(std::lround(scale)));
}

std::vector<double> displacement(const Plan& plan, const StaticFields& fields, double t)
{
    const Job& job = plan.job;
    std::vector<double> disp(static_cast<std::size_t>(job.grid.width) * job.grid.length,
                             history(plan.background, t, plan.timeline));
    for (std::size_t b = 0; b < job.bodies.size(); ++b) {
        const double h = history(job.bodies[b], t, plan.timeline);
        if (h != 0.0) add_scaled(disp, fields.shapes[b], h);
    }
    return disp;
}

struct Scratch {
    std::vector<double> noise;
    std::vector<double> blur;
    std::vector<float> out;
};

}  // namespace

std::vector<std::vector<double>> write_date_phases(const Options& options, const Plan& plan,
                                                   const StaticFields& fields)
{
    const Job& job = plan.job;
    const int n_dates = static_cast<int>(job.dates.size());
    const std::size_t pixels = static_cast<std::size_t>(job.grid.width) * job.grid.length;
    const std::filesystem::path truth(job.truth_folder);
    const int radius = noise_radius(options);
    const double years = (job.mjd.back() - job.mjd.front()) / 365.25;
    std::vector<std::vector<double>> phase(n_dates);

    const auto make_scratch = [&] { return Scratch{{}, {}, std::vector<float>(pixels)}; };
    for_each_item(plan.threads, n_dates, make_scratch, [&](int d, Scratch& s) {
        std::vector<double> ph = displacement(plan, fields, job.mjd[d]);
        for (std::size_t p = 0; p < pixels; ++p) s.out[p] = static_cast<float>(ph[p]);
        write_raster((truth / truth_disp_name(job.dates[d])).string(), s.out.data(), pixels);
        if (d == n_dates - 1) {
            for (std::size_t p = 0; p < pixels; ++p) s.out[p] = static_cast<float>(ph[p] / years);
            write_raster((truth / truth_velocity_name).string(), s.out.data(), pixels);
        }

        if (options.noise > 0.0) {
            correlated_noise(options, d, radius, options.noise, s.noise, s.blur);
            for (std::size_t p = 0; p < pixels; ++p) ph[p] += s.noise[p];
        }
        if (options.elevation_term) {
            const double c = job.elevation_coef[d];
            for (std::size_t p = 0; p < pixels; ++p) ph[p] += c * fields.height[p];
        }
        phase[d] = std::move(ph);
    });
    return phase;
}

}  // namespace synth
