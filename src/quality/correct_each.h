// The one driver of a per-interferogram correction: both corrections run
// their work through it.
//
// Interferograms are independent: contiguous blocks of the list go to the
// threads of one parallel region of max_parallel_threads threads, each
// thread with its own scratch, made once and only when the thread has work.
// Every thread writes only its own list entries. The first interferogram in
// list order that fails is the error reported, whatever the thread count;
// threads stop at once past a failure already met. In an MPI run the list
// is first cut into contiguous blocks, one per rank, and the error is the
// first in list order over all ranks.
#pragma once

#include <omp.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "catalogue/raster.h"
#include "config/cfg.h"
#include "numerics/error.h"
#include "numerics/parallel.h"
#include "numerics/progress.h"
#include "numerics/ranks.h"

namespace quality {

// Calls correct(i, name, in, out, scratch) -> lib::Status for every entry i
// of cfg->ifg_names, with `in` the interferogram in datafolder and `out` its
// copy name + suffix in resultfolder; make_scratch() gives a thread's
// scratch. Afterwards every entry carries the suffix and datafolder is the
// result folder, so that later stages read the copies. `label` names the
// work on the progress indicator. What a call finds worth a warning it
// records under its index i (each index is written by one thread only); the
// caller prints it after the region, in list order.
template <typename MakeScratch, typename Correct>
lib::Status correct_each(CFG* cfg, const char* label, const char* suffix, MakeScratch make_scratch,
                         Correct correct)
{
    const int64_t n = static_cast<int64_t>(cfg->ifg_names.size());
    const lib::Ranks place = lib::ranks();
    const lib::Block rank_items = lib::block_of(n, place.size, place.rank);
    lib::FirstError failure;
    lib::progress_begin(label, rank_items.end - rank_items.first, "interferograms");
#pragma omp parallel num_threads(lib::region_threads(cfg->max_parallel_threads))
    {
        lib::Block mine =
            lib::block_of(rank_items.end - rank_items.first, omp_get_num_threads(), omp_get_thread_num());
        mine.first += rank_items.first;
        mine.end += rank_items.first;
        if (mine.first < mine.end) {
            auto scratch = make_scratch();
            for (int64_t i = mine.first; i < mine.end && !failure.past(i); ++i) {
                std::string& name = cfg->ifg_names[static_cast<size_t>(i)];
                const com::Path in = com::join_path(cfg->datafolder, name.c_str());
                const com::Path out = com::join_path(cfg->resultfolder, (name + suffix).c_str());
                lib::Status done = correct(i, static_cast<const std::string&>(name), in, out, scratch);
                if (!done.ok()) {
                    failure.record(i, std::move(done).error());
                    break;
                }
                lib::progress_add(1);
            }
        }
    }
    lib::progress_end();
    SBAS_TRY(lib::agree(failure.index, failure.status()));
    for (std::string& name : cfg->ifg_names) name += suffix;
    std::snprintf(cfg->datafolder, sizeof cfg->datafolder, "%s", cfg->resultfolder);
    return {};
}

}  // namespace quality
