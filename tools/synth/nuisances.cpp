// Each interferogram's own terms: which interferograms get no-data patches
// and unwrapping errors, where those go, and the orbital ramps.
//
// The choices are draws of distinct indices; every interferogram k then
// draws from its own streams (3k for patches, 3k + 1 for its random
// unwrapping error, 3k + 2 for its ramp), so switching one term on or off
// never moves another. A no-data interferogram gets one to three discs or
// rectangles, any of which is dropped if it cannot avoid the reference
// window in 100 draws; a random unwrapping error must find room. Given
// unwrapping errors are taken as they are and only checked.
#include <algorithm>
#include <cmath>
#include <string>

#include "synth/plan.h"

namespace synth {
namespace {

// The random choice of `count` distinct indices of [0, n), sorted.
std::vector<int> choose(Rng rng, int n, int count)
{
    std::vector<int> all(n);
    for (int i = 0; i < n; ++i) all[i] = i;
    draw_to_front(rng, all, count);
    all.resize(count);
    std::sort(all.begin(), all.end());
    return all;
}

std::uint64_t ifg_stream(int k, int term) { return 3 * static_cast<std::uint64_t>(k) + term; }

// The no-data patches of the chosen interferograms.
void draw_holes(const Options& options, Job& job, const Box& clean, std::vector<IfgTerms>& terms)
{
    const int n_ifgs = static_cast<int>(terms.size());
    const double side = std::min(options.width, options.length);
    const int count = options.nodata_fraction > 0.0
                          ? std::max(1, static_cast<int>(std::lround(options.nodata_fraction * n_ifgs)))
                          : 0;
    job.nodata_ifgs = choose(Rng(options.seed, Stream::nodata_choice), n_ifgs, count);
    for (int k : job.nodata_ifgs) {
        Rng rng(options.seed, Stream::ifg, ifg_stream(k, 0));
        const int patches = 1 + static_cast<int>(rng.below(3));
        for (int c = 0; c < patches; ++c) {
            Patch patch;
            if (draw_patch(rng, options.width, options.length, clean, std::max(1.0, options.nodata_size / 3 * side),
                           std::max(1.5, options.nodata_size * side), true, patch))
                terms[k].holes.push_back(patch);
        }
    }
}

// The random unwrapping errors, then the given ones, by interferogram.
void place_unwrap_errors(const Options& options, Job& job, const Box& clean, std::vector<IfgTerms>& terms)
{
    const int width = options.width;
    const int length = options.length;
    const int n_ifgs = static_cast<int>(terms.size());
    const double side = std::min(width, length);
    std::vector<std::vector<UnwrapError>> errors(n_ifgs);
    for (int k : choose(Rng(options.seed, Stream::unwrap_choice), n_ifgs, options.unwrap_errors)) {
        Rng rng(options.seed, Stream::ifg, ifg_stream(k, 1));
        const int cycles = (1 + static_cast<int>(rng.below(2))) * static_cast<int>(rng.sign());
        Patch patch;
        require(draw_patch(rng, width, length, clean, std::max(2.0, 0.08 * side), std::max(2.5, 0.18 * side),
                           false, patch),
                "no room for an unwrapping error outside the reference window");
        errors[k].push_back({k, cycles, patch.row, patch.col, patch.radius});
    }
    for (const UnwrapError& e : options.unwrap_error_patches) {
        require(e.ifg < n_ifgs, "--unwrap-error: no interferogram " + std::to_string(e.ifg) + " (the job has " +
                                    std::to_string(n_ifgs) + ", counted from 0)");
        require(!touches(disc(e.row, e.col, e.radius, width, length), clean),
                "--unwrap-error: the disc in interferogram " + std::to_string(e.ifg) +
                    " reaches the reference window");
        errors[e.ifg].push_back(e);
    }
    for (int k = 0; k < n_ifgs; ++k) {
        for (const UnwrapError& e : errors[k]) {
            terms[k].jumps.push_back({disc(e.row, e.col, e.radius, width, length), e.cycles});
            job.unwrap_errors.push_back(e);
        }
    }
}

}  // namespace

std::vector<IfgTerms> plan_ifg_terms(const Options& options, Job& job, const Box& clean)
{
    std::vector<IfgTerms> terms(job.ifgs.size());
    draw_holes(options, job, clean, terms);
    place_unwrap_errors(options, job, clean, terms);
    if (options.ramps) {
        for (std::size_t k = 0; k < terms.size(); ++k) {
            Rng rng(options.seed, Stream::ifg, ifg_stream(static_cast<int>(k), 2));
            for (double& c : terms[k].ramp) c = rng.normal() * options.ramp_amp;
        }
    }
    return terms;
}

}  // namespace synth
