// Errors of a run's outputs against the truth of a synthetic job.
//
// sbas-ts refers every map to its reference window, so a map and its truth
// may differ by a constant. Over the pixels the run estimated (valid output
// samples) the mean difference is removed first, and the RMS of what remains
// is the error. The displacement error pools every date's residuals; the
// worst date is the one with the largest RMS of its own.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "quicklook/quicklook.h"
#include "synth/synth.h"

namespace quicklook {
namespace {

namespace fs = std::filesystem;

// Residuals of one map against its truth after removing their mean.
struct Fit {
    std::size_t count = 0;  // estimated pixels
    double squares = 0.0;   // sum of squared residuals
    double rms() const { return count ? std::sqrt(squares / count) : NAN; }
};

Fit fit(const std::vector<float>& result, const std::vector<float>& truth)
{
    Fit f;
    double sum = 0.0;
    for (std::size_t p = 0; p < result.size(); ++p) {
        if (!synth::is_data(result[p]) || !std::isfinite(truth[p])) continue;
        sum += static_cast<double>(result[p]) - truth[p];
        ++f.count;
    }
    if (!f.count) return f;
    const double offset = sum / f.count;
    for (std::size_t p = 0; p < result.size(); ++p) {
        if (!synth::is_data(result[p]) || !std::isfinite(truth[p])) continue;
        const double r = static_cast<double>(result[p]) - truth[p] - offset;
        f.squares += r * r;
    }
    return f;
}

std::vector<float> load(const fs::path& path, const synth::Grid& grid)
{
    if (!fs::exists(path)) throw synth::Error("missing " + path.string());
    return synth::read_raster(path.string(), grid);
}

void range_of(const std::vector<float>& x, double& low, double& high)
{
    low = INFINITY;
    high = -INFINITY;
    for (float v : x) {
        if (!std::isfinite(v)) continue;
        low = std::min(low, static_cast<double>(v));
        high = std::max(high, static_cast<double>(v));
    }
}

}  // namespace

void print_comparison(const std::string& job_folder)
{
    const fs::path job(job_folder);
    const fs::path result = job / "result";
    const fs::path truth = job / "truth";
    const fs::path header = job / "ifg_header.txt";
    if (!fs::exists(header)) throw synth::Error("missing " + header.string());
    const synth::Grid grid = synth::read_header(header.string());
    const std::vector<int> dates = synth::read_dates((truth / synth::truth_dates_name).string());

    const std::vector<float> velocity = load(result / synth::velocity_name, grid);
    const std::vector<float> true_velocity = load(truth / synth::truth_velocity_name, grid);
    // Every input must be there before anything is printed.
    for (std::size_t d = 1; d < dates.size(); ++d) {
        for (const fs::path& path : {result / synth::culmap_name(dates[d], dates.front()),
                                     truth / synth::truth_disp_name(dates[d])})
            if (!fs::exists(path)) throw synth::Error("missing " + path.string());
    }

    const std::size_t pixels = velocity.size();
    const Fit v = fit(velocity, true_velocity);
    double low, high;
    range_of(true_velocity, low, high);
    std::printf("job:                     %s (%d x %d pixels, %zu dates %08d .. %08d)\n", job_folder.c_str(),
                grid.width, grid.length, dates.size(), dates.front(), dates.back());
    std::printf("pixels estimated:        %zu of %zu (%.2f %%)\n", v.count, pixels,
                pixels ? 100.0 * v.count / pixels : 0.0);
    std::printf("velocity RMS error:      %.4g rad/yr (truth from %.4g to %.4g rad/yr)\n", v.rms(), low, high);

    Fit pooled;
    double worst = -1.0;
    int worst_date = 0;
    double disp_low = INFINITY, disp_high = -INFINITY;
    for (std::size_t d = 1; d < dates.size(); ++d) {
        const std::vector<float> map = load(result / synth::culmap_name(dates[d], dates.front()), grid);
        const std::vector<float> true_map = load(truth / synth::truth_disp_name(dates[d]), grid);
        const Fit f = fit(map, true_map);
        pooled.count += f.count;
        pooled.squares += f.squares;
        if (f.count && f.rms() > worst) {
            worst = f.rms();
            worst_date = dates[d];
        }
        double a, b;
        range_of(true_map, a, b);
        disp_low = std::min(disp_low, a);
        disp_high = std::max(disp_high, b);
    }
    std::printf("displacement RMS error:  %.4g rad over %zu dates (truth from %.4g to %.4g rad)\n", pooled.rms(),
                dates.size() - 1, disp_low, disp_high);
    if (worst_date)
        std::printf("worst date:              %08d, RMS error %.4g rad\n", worst_date, worst);
    else
        std::printf("worst date:              none (no pixel estimated)\n");

    const fs::path dem_result = result / synth::dem_error_name;
    const fs::path dem_truth = truth / synth::truth_dem_error_name;
    if (fs::exists(dem_result) && fs::exists(dem_truth)) {
        const std::vector<float> estimate = synth::read_raster(dem_result.string(), grid);
        const std::vector<float> dz = synth::read_raster(dem_truth.string(), grid);
        const Fit f = fit(estimate, dz);
        double a, b;
        range_of(dz, a, b);
        std::printf("DEM error RMS error:     %.4g m over %zu pixels (truth from %.4g to %.4g m)\n", f.rms(),
                    f.count, a, b);
    } else if (fs::exists(dem_truth)) {
        std::printf("DEM error:               no %s in result/\n", synth::dem_error_name);
    } else if (fs::exists(dem_result)) {
        std::printf("DEM error:               no truth (job made without a DEM error)\n");
    }
}

}  // namespace quicklook
