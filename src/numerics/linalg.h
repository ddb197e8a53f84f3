// Dense linear algebra on small column-major double matrices.
//
// Element (i, j) of an R x C matrix is stored at j*R + i; vectors are R x 1.
// Everything here is written for tens of unknowns, is re-entrant (touches
// only its arguments and its own temporary blocks), and never prints or ends
// the run: singularity is reported only through the -1 results.
#pragma once

#include <cstdint>

namespace lib {

// C (n x k) = op(A) * op(B) with inner size m; flags is two characters, 'N'
// or 'T' for A then B. For 'N' A is n x m, for 'T' A is stored m x n; for 'N'
// B is m x k, for 'T' B is stored k x m. Each element is summed in increasing
// inner index from 0.0 and stored over C (alpha and beta are accepted and
// ignored: C is always overwritten). C must not alias A or B.
void matmul(const char* flags, int64_t n, int64_t k, int64_t m, double alpha, const double* A,
            const double* B, double beta, double* C);

// Copies n*m doubles from src to dst.
void matcpy(double* dst, const double* src, int64_t n, int64_t m);

// In-place LU factorisation of the n x n matrix a by Crout's method with
// implicit row scaling (pivot ties go to the later row). pivots receives n
// row indices, *sign +1 or -1 by the parity of the row swaps. Returns 0, or
// -1 when a row is all zero or a pivot is exactly zero (no tiny-pivot
// substitution; also when its n-double scale block cannot be allocated); a
// and pivots are then partly overwritten. n < 1 succeeds with nothing done.
int64_t ludcmp(double* a, int64_t n, int* pivots, double* sign);

// Solves (LU) x = b in place of b with the factors and pivots of a
// successful ludcmp; b has n entries.
void lubksb(const double* lu, int64_t n, const int* pivots, double* b);

// Replaces the n x n matrix a by its inverse and returns 0; returns -1 and
// leaves a untouched when it is singular (or the work blocks cannot be
// allocated). n < 1 returns 0.
int64_t matinv(double* a, int64_t n);

// As matinv with caller storage: lu holds n*n doubles, pivots n ints. When a
// is singular it keeps its old contents and the caller is not told.
void matinv_acc(double* a, double* lu, int* pivots, int64_t n);

}  // namespace lib
