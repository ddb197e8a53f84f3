// What sbas-prep did, on standard output.
#include <cstdio>
#include <set>

#include "prep/prep.h"

namespace prep {

void print_summary(const Plan& plan, const Options& o, const Written& w)
{
    std::set<int> dates;
    for (const Pair& p : plan.pairs) dates.insert({p.date1, p.date2});
    std::printf("sbas-prep: %zu interferograms over %zu dates, %d to %d\n", plan.pairs.size(), dates.size(),
                *dates.begin(), *dates.rbegin());
    std::printf("  source: %s (%s)\n", plan.source.c_str(), plan.source_kind.c_str());
    if (plan.source_kind == "raster folder") {
        std::string skipped;
        for (int k = 1; k < kKinds; ++k)
            if (plan.counts[k] > 0)
                skipped += (skipped.empty() ? "" : ", ") + std::to_string(plan.counts[k]) + " " +
                           kind_label(static_cast<Kind>(k));
        std::printf("  skipped files: %s\n", skipped.empty() ? "none" : skipped.c_str());
    }
    if (plan.dropped > 0) std::printf("  left out: %d pairs the stack marks as dropped (dropIfgram)\n", plan.dropped);
    const Grid& g = plan.grid;
    std::printf("  grid: %lld x %lld pixels (width x length), first pixel centre lon %.10g lat %.10g, step %.10g x "
                "%.10g degrees\n",
                static_cast<long long>(g.width), static_cast<long long>(g.length), g.centre_x(), g.centre_y(), g.dx,
                g.dy);
    if (plan.notes.empty()) std::printf("  regridding: none\n");
    for (const std::string& note : plan.notes) std::printf("  regridding: %s\n", note.c_str());
    std::printf("  wavelength: %.10g m (from %s)\n", w.wavelength, w.wavelength_from.c_str());
    std::printf("  baselines: %s\n", w.baselines ? "baselines.txt (set if_est_hgt 1 to estimate the DEM error)"
                                                 : "none in the source");
    if (!o.dem.empty())
        std::printf("  DEM: %s resampled to the grid as dem, dem_header.txt (used with if_remove_eds 1)\n",
                    o.dem.c_str());
    std::printf("  job: %s\n", w.folder.c_str());
    std::printf("  run: sbas-ts %s\n", w.config.c_str());
}

}  // namespace prep
