#include "numerics/accounting.h"

#include <atomic>
#include <cstdio>

#include "numerics/ranks.h"

namespace lib {
namespace {

std::atomic<int64_t> read_total{0};

}  // namespace

void count_read(int64_t bytes) { read_total.fetch_add(bytes, std::memory_order_relaxed); }
int64_t bytes_read() { return read_total.load(std::memory_order_relaxed); }

void report_stage_costs(const std::vector<StageCost>& costs)
{
    const Ranks place = ranks();
    const size_t n = costs.size();
    // Every rank's figures on rank 0: seconds and bytes per stage.
    std::vector<int64_t> figures(2 * n * static_cast<size_t>(place.size), 0);
    for (size_t s = 0; s < n; ++s) {
        const size_t at = 2 * (static_cast<size_t>(place.rank) * n + s);
        figures[at] = static_cast<int64_t>(costs[s].seconds * 1e6);
        figures[at + 1] = costs[s].bytes;
    }
    sum_over_ranks(figures.data(), static_cast<int64_t>(figures.size()));
    if (place.rank != 0) return;
    std::fprintf(stderr, "\nStage report (wall seconds / MiB read, per rank)\n");
    for (size_t s = 0; s < n; ++s) {
        std::fprintf(stderr, "%-28s", costs[s].stage.c_str());
        for (int r = 0; r < place.size; ++r) {
            const size_t at = 2 * (static_cast<size_t>(r) * n + s);
            std::fprintf(stderr, "  r%d %8.2f s %9.1f MiB", r, static_cast<double>(figures[at]) / 1e6,
                         static_cast<double>(figures[at + 1]) / 1048576.0);
        }
        std::fputc('\n', stderr);
    }
}

}  // namespace lib
