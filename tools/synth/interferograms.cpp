// Each interferogram from the phases of its two dates.
//
// Sample by sample, in double precision: the later date's phase minus the
// earlier one's, plus Bperp * K * dz, plus the quadratic ramp
// c0 u + c1 v + c2 u^2 + c3 v^2 + c4 u v in the coordinates u = (col - col_r)
// / width, v = (row - row_r) / length centred on the clean window (so the
// ramp is 0 at the reference pixel), plus white noise; each term is added
// only when switched on, since even adding 0 would turn -0 into +0.
// Then, on the float samples, each unwrapping-error disc adds 2 pi k, and the
// no-data patches and the invalid corner are set to exact 0.
#include "synth/interferograms.h"

#include <filesystem>
#include <numbers>

#include "synth/parallel.h"
#include "synth/random.h"

namespace synth {

void write_interferograms(const Options& options, const Plan& plan, const StaticFields& fields,
                          const std::vector<std::vector<double>>& phase)
{
    const Job& job = plan.job;
    const int width = job.grid.width;
    const int length = job.grid.length;
    const std::size_t pixels = static_cast<std::size_t>(width) * length;
    const std::filesystem::path ifg_folder(job.ifg_folder);
    std::vector<double> u(width);
    for (int j = 0; j < width; ++j) u[j] = (j - job.clean_col) / static_cast<double>(width);

    const auto make_scratch = [&] { return std::vector<float>(pixels); };
    for_each_item(plan.threads, static_cast<int>(job.ifgs.size()), make_scratch, [&](int k, std::vector<float>& out) {
        const std::vector<double>& early = phase[job.pairs[k].first];
        const std::vector<double>& late = phase[job.pairs[k].second];
        const IfgTerms& terms = plan.ifg_terms[k];
        const double dem_term = job.bperp[k] * job.dem_error_factor;
        const auto& c = terms.ramp;
        Rng noise(options.seed, Stream::ifg_noise, static_cast<std::uint64_t>(k));
        for (int i = 0; i < length; ++i) {
            const double v = (i - job.clean_row) / static_cast<double>(length);
            const std::size_t row = static_cast<std::size_t>(i) * width;
            for (int j = 0; j < width; ++j) {
                const std::size_t p = row + j;
                double value = late[p] - early[p];
                if (options.dem_error) value += dem_term * fields.dz[p];
                if (options.ramps)
                    value += c[0] * u[j] + c[1] * v + c[2] * u[j] * u[j] + c[3] * v * v + c[4] * u[j] * v;
                if (options.ifg_noise > 0.0) value += options.ifg_noise * noise.normal();
                out[p] = static_cast<float>(value);
            }
        }
        for (const Jump& jump : terms.jumps) {
            const float shift = static_cast<float>(2.0 * std::numbers::pi * jump.cycles);
            for_each_covered(jump.area, width, [&](std::size_t p) { out[p] += shift; });
        }
        for (const Patch& hole : terms.holes) for_each_covered(hole, width, [&](std::size_t p) { out[p] = 0.0f; });
        for_each_covered(plan.corner, width, [&](std::size_t p) { out[p] = 0.0f; });
        write_raster((ifg_folder / job.ifgs[k]).string(), out.data(), pixels);
    });
}

}  // namespace synth
