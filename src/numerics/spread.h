// Pixel batches spread over the ranks of an MPI launch.
//
// Batch k (counted from 1) goes to rank (k - 1) mod R, in rounds of R
// batches, so each rank holds one batch of maxcap pixels at a time. The
// standard error of every batch reaches rank 0's log in batch order, and the
// error of the first batch that failed, in batch order, is every rank's
// result: the run stops where a single process stops. With one rank this is
// lib::for_each_batch.
#pragma once

#include <cstdint>
#include <type_traits>

#include "numerics/error.h"
#include "numerics/parallel.h"
#include "numerics/ranks.h"

namespace lib {

template <typename Visit>
Status for_each_batch_spread(int64_t pixels, int64_t maxcap, Visit visit)
{
    if (!spread()) return for_each_batch(pixels, maxcap, visit);
    std::vector<Batch> batches;
    SBAS_TRY(for_each_batch(pixels, maxcap, [&](const Batch& batch) { batches.push_back(batch); }));
    const Ranks place = ranks();
    const size_t count = batches.size();
    for (size_t round = 0; round < count; round += static_cast<size_t>(place.size)) {
        begin_round();
        const size_t mine = round + static_cast<size_t>(place.rank);
        Status done;
        if (mine < count) {
            if constexpr (std::is_same_v<std::invoke_result_t<Visit&, const Batch&>, Status>)
                done = visit(static_cast<const Batch&>(batches[mine]));
            else
                visit(static_cast<const Batch&>(batches[mine]));
        }
        SBAS_TRY(end_round(std::move(done)));
    }
    return {};
}

}  // namespace lib
