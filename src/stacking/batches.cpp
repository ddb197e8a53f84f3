// The linear stacking stage: the time span of every interferogram, then the
// grid in batches of maxcap pixels, each loaded by the stack loader (reference
// values subtracted, closure mask applied, sparsely observed pixels dropped)
// and solved by rstacking::stacking before the next one is read. Only one
// batch of the stack is in memory at a time.
//
// Spans are whole days between the Modified Julian Days of the two dates in
// the file name, and years are days / 365.25.
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "catalogue/dates.h"
#include "catalogue/filelist.h"
#include "catalogue/header.h"
#include "catalogue/stack.h"
#include "numerics/arrays.h"
#include "numerics/parallel.h"
#include "numerics/spread.h"
#include "stacking/stacking.h"

namespace rstacking {
namespace {

// One span per interferogram of the list, each printed as it is formed.
lib::Result<std::vector<DATEINTERVAL>> date_intervals(const CFG& cfg)
{
    std::vector<DATEINTERVAL> intervals;
    intervals.reserve(cfg.ifg_names.size());
    for (const std::string& name : cfg.ifg_names) {
        DATEINTERVAL span;
        SBAS_TAKE(const double first, lib::date2mjd(com::phsfilename2date(name.c_str(), 1)));
        SBAS_TAKE(const double second, lib::date2mjd(com::phsfilename2date(name.c_str(), 2)));
        span.first = static_cast<int64_t>(first);
        span.second = static_cast<int64_t>(second);
        span.days = span.second - span.first;
        span.years = static_cast<double>(span.days) / 365.25;
        std::fprintf(stderr, "%s % 5d  %.5f \n", name.c_str(), static_cast<int>(span.days), span.years);
        intervals.push_back(span);
    }
    return intervals;
}

}  // namespace

lib::Status start_rstacking(CFG cfg, const HEADER& header, const float* closure_mask, const float* reference_values,
                            com::HeldBatch* held)
{
    std::fputs("\n*************Simple linear stacking start****************\n", stderr);
    SBAS_TAKE(const std::vector<DATEINTERVAL> intervals, date_intervals(cfg));

    const int64_t pixels = com::pixel_count(header);
    const float total = lib::batch_total(header.WIDTH, header.FILE_LENGTH, cfg.maxcap);
    const int interferograms = static_cast<int>(cfg.ifg_names.size());
    SBAS_TRY(lib::for_each_batch_spread(pixels, cfg.maxcap, [&](const lib::Batch& batch) -> lib::Status {
        std::fprintf(stderr, "\n=> Stacking batch %d / %.0f\n", batch.number, total);
        std::fprintf(stderr, "Number of interferograms        : %d\n", interferograms);
        std::fprintf(stderr, "Number of pixels to estimate    : %d\n", static_cast<int>(batch.end - batch.first));
        std::fprintf(stderr, "Number of threads               : %d\n", cfg.max_parallel_threads);
        std::fputs("Please wait ...            \n", stderr);
        com::HeldBatch loaded;
        if (held && held->holds(batch.first, batch.end)) {
            loaded = std::move(*held);
        } else {
            loaded.count = lib::Owned<int>(batch.end - batch.first);
            SBAS_TAKE(loaded.rows, com::readallfile(cfg, batch.first, batch.end, reference_values, closure_mask,
                                                    loaded.count.get()));
            loaded.n_rows = interferograms;
            loaded.first = batch.first;
            loaded.end = batch.end;
        }
        const lib::Status stacked = stacking(cfg, loaded.rows, intervals, batch.first, batch.end);
        // The whole grid in one batch: the next stage takes the same stack.
        if (held && stacked.ok() && batch.first == 0 && batch.end == pixels) *held = std::move(loaded);
        return stacked;
    }));
    std::fputs("\n*************Simple linear stacking finish***************\n", stderr);
    return {};
}

}  // namespace rstacking
