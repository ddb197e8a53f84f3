// What a run spends per stage, for the stage report (sbas-ts --stage-report)
// and the benchmarks: wall seconds and the bytes the raster readers read.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace lib {

// Adds to, and reads, the bytes the raster readers of this process have
// read (every thread adds to one counter).
void count_read(int64_t bytes);
int64_t bytes_read();

// One stage's cost in this process.
struct StageCost {
    std::string stage;
    double seconds = 0;
    int64_t bytes = 0;
};

// Times a stage: the cost from construction to done() is appended to
// `costs` (when not null).
struct StageClock {
    std::vector<StageCost>* costs;
    std::string stage;
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    int64_t first_bytes = bytes_read();

    void done() const
    {
        if (!costs) return;
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        costs->push_back({stage, seconds, bytes_read() - first_bytes});
    }
};

// The report of every rank's costs, written by rank 0 to standard error:
// one line per stage with the seconds and MiB read of each rank. Every rank
// calls it, with the same stages in the same order.
void report_stage_costs(const std::vector<StageCost>& costs);

}  // namespace lib
