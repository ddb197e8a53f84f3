// What the options of a job resolve to before any file is written: the
// job's description (dates, network, bodies, times, baselines, paths,
// configuration, reference) and each interferogram's own terms (no-data
// patches, unwrapping errors, orbital ramp).
#pragma once

#include <array>
#include <string>
#include <vector>

#include "synth/fields.h"
#include "synth/patches.h"
#include "synth/synth.h"

namespace synth {

// An unwrapping error as it is painted: the disc shifted by 2 pi cycles.
struct Jump {
    Patch area;
    int cycles = 0;
};

// The terms one interferogram carries besides the difference of its dates.
struct IfgTerms {
    std::vector<Patch> holes;      // no-data discs and rectangles
    std::vector<Jump> jumps;       // in Job::unwrap_errors order
    std::array<double, 5> ramp{};  // rad, coefficients of u, v, u^2, v^2, u v (0 without ramps)
};

struct Plan {
    Job job;                          // what write_job returns
    Timeline timeline;                // the times of the histories
    Body background;                  // the uniform term (its shape is 1 everywhere)
    Box clean;                        // kept free of patches: the reference window and a margin
    Patch corner;                     // the invalid corner, a rectangle (covers nothing when off)
    std::vector<IfgTerms> ifg_terms;  // one per interferogram
    int threads = 1;                  // generator threads
};

// Resolves `options` for a job in `folder`. Throws Error when the options are
// inconsistent (check_options, then what only the resolved job shows). Reads
// and writes no file.
Plan make_plan(const Options& options, const std::string& folder);

// Draws the per-interferogram terms of a planned job and records the chosen
// no-data interferograms and unwrapping errors in `job`. Throws Error when a
// random unwrapping error finds no room outside `clean`, or a given one names
// no interferogram of the network or reaches `clean`.
std::vector<IfgTerms> plan_ifg_terms(const Options& options, Job& job, const Box& clean);

}  // namespace synth
