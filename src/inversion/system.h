// The systems of one batch of the inversion: the shape shared by every
// pixel, the full network's estimator (pixels valid in every interferogram),
// and the rows a pattern's reduced system is taken from.
#pragma once

#include <cstdint>
#include <vector>

#include "catalogue/baselines.h"
#include "catalogue/dates.h"
#include "config/cfg.h"
#include "numerics/arrays.h"
#include "numerics/least_squares.h"
#include "numerics/lockstep.h"

namespace sbas {

inline constexpr double kFourPi = 12.566370614359172;
// Pixels whose observations are gathered and multiplied together.
inline constexpr int64_t kChunk = 32;
// Patterns formed together, their normal matrices inverted side by side.
inline constexpr int kLanes = lib::kLockstepLanes;

// The shape of the systems of one batch.
struct Network {
    int64_t N = 0;             // interferograms
    int64_t D = 0;             // dates
    int64_t M = 0;             // unknowns per pixel
    int64_t L = 0;             // rows of the full network
    int64_t constraints = 0;   // temporal model rows (D - 1 or none)
    bool dem_error = false;    // DEM-error unknown present (last)
    int64_t model_column = 0;  // column of the temporal model's coefficient
    double K = 0;              // DEM-error coefficient
    int64_t ldE = 0;           // M rounded up to 8: the column stride of estimators
    int64_t most_rows = 0;     // rows of the largest system of the batch
};

// The shape of the systems of `cfg` over `dates`; most_rows is left for the
// caller, who knows the batch.
Network describe(const CFG& cfg, const std::vector<DATEORDER>& dates);

// What the pixels of a pattern (or the complete pixels) share: the
// estimator E (ldE x rows), the nonzero entries of the design matrix (and
// the whole matrix, rows x M, where E is not all finite), and the
// interferograms observed by rows 0 .. observed-1.
struct System {
    const double* E = nullptr;
    const lib::SparseDesign* design = nullptr;
    const double* A = nullptr;
    const int64_t* ifgs = nullptr;
    int64_t observed = 0;  // rows holding a sample
    int64_t n = 0;         // interferogram rows (observed, then zero rows)
    int64_t rows = 0;      // n + constraint rows
    bool finite = true;    // E holds no infinity or NaN
};

// The full network's estimator and design, shared read-only by the threads.
struct FullNetwork {
    lib::Owned<double> E;
    lib::SparseDesign design;
    lib::Owned<double> A;      // kept only where E is not all finite
    lib::Owned<int64_t> ifgs;  // 0 .. N-1
};

// True when the M rows of the estimator E (ldE x rows) are all finite.
bool estimator_finite(const Network& net, const double* E, int64_t rows);

// The full network's system and estimator E = (A^T W A)^-1 A^T W, with the
// constraint rows weighing temporal_strength.
FullNetwork full_network(const CFG& cfg, const Network& net, const std::vector<DATEORDER>& dates,
                         const BASELINE* baselines);

// Every row a reduced system can have, as com::readoneunwseries3 builds
// them for a pixel valid in every interferogram: the row of interferogram k
// is row k, the constraint rows follow. A row depends on its interferogram
// alone, so the system readoneunwseries3 builds for any pixel is the rows of
// its valid interferograms, in list order, then the constraint rows: the
// patterns take their systems from here instead of building one each.
struct RowTemplate {
    lib::SparseDesign design;
    lib::Owned<double> w;
    lib::Owned<int64_t> skip;  // lib::shared_prefix of each row
};

RowTemplate row_template(const CFG& cfg, const Network& net, const std::vector<DATEORDER>& dates,
                         const BASELINE* baselines);

// The system of a pattern from the template: the rows of its `observed`
// interferograms, zero rows (weight 0) up to n where a count exceeds the
// valid interferograms, and the constraint rows; design and weights w.
void select_rows(const RowTemplate& t, const Network& net, const int64_t* ifgs, int64_t observed, int64_t n,
                 lib::SparseDesign& design, double* w);

}  // namespace sbas
