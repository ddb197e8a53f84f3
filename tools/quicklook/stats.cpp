// Statistics of one raster's valid samples.
//
// A sample is valid under the sbas-ts rule (not NaN, not infinite, |x| >=
// 1e-8). Percentiles interpolate linearly between the sorted valid samples:
// the p-th percentile sits at rank p / 100 * (n - 1).
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "quicklook/quicklook.h"
#include "synth/raster.h"

namespace quicklook {
namespace {

double percentile(const std::vector<double>& sorted, double p)
{
    const double rank = p / 100.0 * (sorted.size() - 1);
    const std::size_t below = static_cast<std::size_t>(std::floor(rank));
    const std::size_t above = std::min(below + 1, sorted.size() - 1);
    const double weight = rank - below;
    return sorted[below] + weight * (sorted[above] - sorted[below]);
}

}  // namespace

void print_stats(const std::string& raster, const std::string& header) { print_stats(raster, header, 0.0); }

void print_stats(const std::string& raster, const std::string& header, double wavelength)
{
    const synth::Grid grid = synth::read_header(header);
    const std::vector<float> data = synth::read_raster(raster, grid);
    std::vector<double> valid;
    valid.reserve(data.size());
    for (float x : data)
        if (synth::is_data(x)) valid.push_back(x);
    std::sort(valid.begin(), valid.end());

    std::printf("raster:      %s\n", raster.c_str());
    std::printf("samples:     %zu (%d rows x %d columns)\n", data.size(), grid.length, grid.width);
    std::printf("valid:       %zu (%.2f %%)\n", valid.size(),
                data.empty() ? 0.0 : 100.0 * valid.size() / data.size());
    if (valid.empty()) {
        std::printf("min, max, mean, percentiles: none (no valid sample)\n");
        return;
    }
    double sum = 0.0;
    for (double x : valid) sum += x;
    std::printf("min:         %.7g\n", valid.front());
    std::printf("max:         %.7g\n", valid.back());
    std::printf("mean:        %.7g\n", sum / valid.size());
    std::printf("1st pct:     %.7g\n", percentile(valid, 1.0));
    std::printf("99th pct:    %.7g\n", percentile(valid, 99.0));
    if (wavelength > 0.0) {
        const double mm = wavelength / (4.0 * M_PI) * 1000.0;
        std::printf("in mm (wavelength %g m): min %.2f, max %.2f, 1st pct %.2f, 99th pct %.2f\n", wavelength,
                    valid.front() * mm, valid.back() * mm, percentile(valid, 1.0) * mm, percentile(valid, 99.0) * mm);
    }
}

}  // namespace quicklook
