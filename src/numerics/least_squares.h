// Least-squares front ends over the dense kit of linalg.h.
//
// A singular normal matrix is not reported: the estimate is then formed with
// the uninverted matrix, as the inversion expects.
#pragma once

#include <cstdint>
#include <vector>

namespace lib {

// Ordinary least squares. G is the design matrix stored transposed, M x L;
// y has L entries. Returns a new block of M doubles (caller frees with
// std::free): x = (G G^T)^-1 G y; null when M or L is below 1 or memory
// runs out.
double* linear_function(const double* G, int64_t L, int64_t M, const double* y);

// Weighted least squares, A is L x M, W is L x L, y has L entries. Returns a
// new block of M doubles (caller frees): x = (A^T W A)^-1 A^T W y; null as
// for linear_function.
double* weighted_linear_function(const double* A, const double* W, int64_t L, int64_t M, const double* y);

// The same into caller storage, for use inside parallel loops: S and LU hold
// M*M doubles, T and E M*L each, pivots M ints. The solution lands in the
// first M entries of T.
void weighted_linear_function_nonewmatrix(const double* A, const double* W, int64_t L, int64_t M,
                                          const double* y, double* S, double* T, double* E,
                                          double* LU, int* pivots);

// Reusable index storage of weighted_linear_function_diagonal (one per thread).
// Column j's nonzero rows are column_rows[column_start[j] .. column_start[j+1]),
// row l's nonzero columns row_columns[row_start[l] .. row_start[l+1]); the
// vectors may hold unused entries past those ranges.
struct DiagonalScratch {
    std::vector<int64_t> column_start, column_rows;  // nonzero rows of each column of A
    std::vector<int64_t> row_start, row_columns;     // nonzero columns of each row of A
};

// weighted_linear_function_nonewmatrix for a diagonal W = diag(w), w of L
// entries, taking advantage of the zeros of W and A. The storage and the
// result (first M entries of T) are those of the dense routine, and every
// value is bit-identical to what the dense routine gives for the same A and
// diag(w). Returns false without a usable result when that identity cannot be
// guaranteed (a non-finite entry in A, w or an intermediate, or L or M below
// 1); the caller then uses the dense routine. Storage and scratch may have
// been written even then.
bool weighted_linear_function_diagonal(const double* A, const double* w, int64_t L, int64_t M,
                                       const double* y, double* S, double* T, double* E, double* LU,
                                       int* pivots, DiagonalScratch& scratch);

}  // namespace lib
