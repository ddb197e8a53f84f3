// The arithmetic of the inversion: the pixels of a block of a batch,
// grouped by validity pattern, solved through the full network's estimator
// or their pattern's, with the per-thread storage that takes.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "inversion/network.h"
#include "inversion/system.h"
#include "numerics/parallel.h"

namespace sbas {

// The outputs of one batch, one value per pixel.
struct Maps {
    float** cumulative = nullptr;  // D - 1 rows
    float* sigma = nullptr;
    float* dem = nullptr;
};

// Where the time of a thread goes, for the benchmark.
struct Clock {
    using Steady = std::chrono::steady_clock;
    bool on = false;
    Steady::time_point last;
    explicit Clock(bool enabled) : on(enabled)
    {
        if (on) last = Steady::now();
    }
    // Adds the time since the last lap to `stage`.
    void lap(double& stage)
    {
        if (!on) return;
        const auto now = Steady::now();
        stage += std::chrono::duration<double>(now - last).count();
        last = now;
    }
};

// Work storage of one thread, chosen by thread number.
struct Scratch {
    lib::Owned<double> y;  // one pixel's observations (most_rows)
    lib::Owned<double> E;  // a pattern's estimator (ldE x most_rows)
    lib::Owned<double> Y;  // a chunk's observations (most_rows x kChunk)
    lib::Owned<double> X;  // a chunk's solutions (M x kChunk)
    lib::Owned<double> S;  // the normal matrices of a lockstep group (kLanes x M x M)
    lib::Owned<double> w;  // their weights (kLanes x most_rows)
    lib::Owned<int64_t> ifgs;  // their interferograms (kLanes x N)
    // One-pixel patterns side by side: weights and observations of every
    // row of the template (row l of lane k at [l * kLanes + k]), solutions.
    lib::Owned<double> lane_w, lane_y, lane_x;
    lib::SparseDesign designs[kLanes];
    lib::LockstepScratch lockstep;
    lib::EstimatorScratch estimator;
    // Only for systems the dense routines solve: a whole design matrix
    // (most_rows x M), an estimator without padding (M x most_rows) and
    // fitted values (most_rows); allocated on first use.
    lib::Owned<double> A, compact, fitted;
    sbas::InversionProfile profile;

    explicit Scratch(const Network& net)
        : y(net.most_rows), E(net.ldE * net.most_rows), Y(kChunk * net.most_rows), X(kChunk * net.M),
          S(kLanes * net.M * net.M), w(kLanes * net.most_rows), ifgs(kLanes * net.N), lane_w(kLanes * net.L),
          lane_y(kLanes * net.N), lane_x(kLanes * net.M)
    {
    }

    void dense(const Network& net)
    {
        if (A.get()) return;
        A = lib::Owned<double>(net.most_rows * net.M);
        compact = lib::Owned<double>(net.M * net.most_rows);
        fitted = lib::Owned<double>(net.most_rows);
    }
};

// Inverts the pixels of `block` into the maps.
void invert_block(const CFG& cfg, const Network& net, const std::vector<DATEORDER>& dates,
                  const BASELINE* baselines, const FullNetwork& full, const RowTemplate& rows_all,
                  float* const* stack, const int* count, lib::Block block, Scratch& s, Maps& maps, bool timed);

}  // namespace sbas
