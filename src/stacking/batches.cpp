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

#include "catalogue/dates.h"
#include "catalogue/filelist.h"
#include "catalogue/header.h"
#include "catalogue/stack.h"
#include "numerics/arrays.h"
#include "numerics/parallel.h"
#include "stacking/stacking.h"

namespace rstacking {
namespace {

// One span per interferogram of the list, each printed as it is formed.
std::vector<DATEINTERVAL> date_intervals(const CFG& cfg)
{
    std::vector<DATEINTERVAL> intervals;
    intervals.reserve(cfg.ifg_names.size());
    for (const std::string& name : cfg.ifg_names) {
        DATEINTERVAL span;
        span.first = static_cast<int64_t>(lib::date2mjd(com::phsfilename2date(name.c_str(), 1)));
        span.second = static_cast<int64_t>(lib::date2mjd(com::phsfilename2date(name.c_str(), 2)));
        span.days = span.second - span.first;
        span.years = static_cast<double>(span.days) / 365.25;
        std::fprintf(stderr, "%s % 5d  %.5f \n", name.c_str(), static_cast<int>(span.days), span.years);
        intervals.push_back(span);
    }
    return intervals;
}

}  // namespace

void start_rstacking(CFG cfg, const float* closure_mask, const float* reference_values)
{
    const HEADER header = com::readheader(cfg.headerfile);
    std::fputs("\n*************Simple linear stacking start****************\n", stderr);
    const std::vector<DATEINTERVAL> intervals = date_intervals(cfg);

    const int64_t pixels = com::pixel_count(header);
    const float total = lib::batch_total(header.WIDTH, header.FILE_LENGTH, cfg.maxcap);
    const int interferograms = static_cast<int>(cfg.ifg_names.size());
    lib::for_each_batch(pixels, cfg.maxcap, [&](const lib::Batch& batch) {
        std::fprintf(stderr, "\n=> Stacking batch %d / %.0f\n", batch.number, total);
        std::fprintf(stderr, "Number of interferograms        : %d\n", interferograms);
        std::fprintf(stderr, "Number of pixels to estimate    : %d\n", static_cast<int>(batch.end - batch.first));
        std::fprintf(stderr, "Number of threads               : %d\n", cfg.max_parallel_threads);
        std::fputs("Please wait ...            \n", stderr);
        int* count = lib::need<int>(batch.end - batch.first);
        float** rows = com::readallfile(cfg, batch.first, batch.end, reference_values, closure_mask, count);
        stacking(cfg, rows, intervals, batch.first, batch.end);
        lib::free2d_float(rows, interferograms);
        std::free(count);
    });
    std::fputs("\n*************Simple linear stacking finish***************\n", stderr);
}

}  // namespace rstacking
