// Many small dense problems at once, each with the arithmetic of its scalar
// routine: the kernels that make the per-pixel inversion fast.
//
// Every result here is bit-identical to what linalg.h gives for the same
// problem alone; only the order in which independent problems are worked
// through changes. The vector width is chosen at run time for the machine.
#pragma once

#include <cstdint>
#include <vector>

namespace lib {

// The most matrices one call of matinv_lockstep takes.
inline constexpr int kLockstepLanes = 8;

// Work storage of matinv_lockstep (one per thread); it grows to the largest
// n met and is then reused without allocating.
struct LockstepScratch {
    std::vector<double> storage;
    std::vector<int> pivots;
    std::vector<int> structure;
    std::vector<double> identity;
};

// Inverts the n x n column-major matrices a[0 .. count) in place, count at
// most kLockstepLanes, side by side in the lanes of the machine's vectors:
// each matrix ends exactly as matinv_acc would leave it (its inverse, or its
// old contents when it is singular). The matrices must not overlap.
void matinv_lockstep(double* const* a, int count, int64_t n, LockstepScratch& scratch);

struct SparseDesign;

// x of `count` one-pixel least-squares systems side by side (count at most
// kLockstepLanes) that share the rows of `design` (L x M) and differ in
// their weights: row l of system k weighs w[l * kLockstepLanes + k], 0.0
// for a row the system lacks, and observes y[l * kLockstepLanes + k] when
// l < n (weight 1.0, or 0.0 with y 0.0); the rows from n on observe
// nothing. Every column of w (and of y)
// must hold a system, those past count too (a copy of the first, say).
// skip[l] is shared_prefix(design, l). Entry i of system k's x goes to
// x[i * kLockstepLanes + k], with the bits that diagonal_normal_matrix,
// matinv_acc and diagonal_solution give that system alone (its rows of
// nonzero weight). Returns false, x unusable, where that cannot be vouched
// for in lanes (other weights, a non-finite entry or product, a matrix that
// is singular, not banded or whose inverse is not all finite, a solution
// that is not finite): each system must then be solved on its own.
bool solve_side_by_side(const SparseDesign& design, const int64_t* skip, int64_t L, int64_t n, int64_t M,
                        const double* w, const double* y, int count, double* x, LockstepScratch& scratch);

// X = E Y for `count` right-hand sides side by side: E is M x n, column l at
// E + l * ldE; entry l of right-hand side p is Y[l * ldY + p] and entry i of
// its solution goes to X[i * ldX + p]. Element i of solution p is the sum
// over l < n of E[i, l] * Y[l, p], from 0.0 in increasing l, as matmul forms
// it: the same bits, NaNs included as long as E and Y hold none (every NaN
// a sum then makes is the processor's one default NaN; of two different
// NaNs an addition keeps the one the compiler's operand order picks). ldE
// must be at least M rounded up to a multiple of 8, and E's rows past M
// must be readable (zeros, say): a right-hand side taken alone is
// multiplied eight rows at a time.
void products(const double* E, int64_t ldE, int64_t M, int64_t n, const double* Y, int64_t ldY, int64_t count,
              double* X, int64_t ldX);

}  // namespace lib
