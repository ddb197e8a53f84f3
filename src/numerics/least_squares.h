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

// The nonzero entries of an L x M design matrix, row by row: row l's
// nonzero columns are columns[row_start[l] .. row_start[l + 1]), in
// increasing order, with their values at the same places of `values`
// (entries past row_start[L] are unused room).
// Reused from system to system (one per thread); once large enough it stops
// allocating.
struct SparseDesign {
    std::vector<int64_t> row_start;  // L + 1 entries (or more)
    std::vector<int64_t> columns;
    std::vector<double> values;
};

// Indexes the nonzero entries of A (L x M) into `design`.
void index_design(const double* A, int64_t L, int64_t M, SparseDesign& design);

// How many leading entries row l of `design` shares with row l - 1: all of
// row l - 1's when they begin row l (same columns, same values), else none
// (and none for row 0). With spans of dates: every interferogram that starts
// where the one before it started.
int64_t shared_prefix(const SparseDesign& design, int64_t l);

// The two halves of weighted least squares with diagonal weights W = diag(w)
// (w of L entries) around the inversion of the normal matrix, for the design
// matrix A that `design` indexes. Each gives the bits that
// weighted_linear_function_nonewmatrix gives for the same A and diag(w),
// taking advantage of the zeros of W and A.
//
// diagonal_normal_matrix: S (M x M) = A^T W A. Returns false, S unusable,
// when the identity with the dense chain cannot be guaranteed: L or M below
// 1, a non-finite entry in A or w, or an overflow in A^T W.
bool diagonal_normal_matrix(const SparseDesign& design, const double* w, int64_t L, int64_t M, double* S);

// Work space of diagonal_estimator (one per thread).
struct EstimatorWork {
    std::vector<double> padded;
    std::vector<int64_t> order, first_of;
};

// diagonal_estimator: with S as matinv_acc left it, the estimator E (M x L,
// column l at E + l * ldE) = S A^T W. ldE must be at least M rounded up to a
// multiple of 8; the rows past M receive 0.0. Returns false, E unusable,
// when the identity cannot be guaranteed (a non-finite entry in S, w, A or
// S A^T) or when E itself would hold an infinity: a true result leaves E
// finite.
bool diagonal_estimator(const SparseDesign& design, const double* w, int64_t L, int64_t M, const double* S,
                        double* E, int64_t ldE, EstimatorWork& work);

// The same estimator formed by the dense chain itself, W being held as its
// diagonal: every product with W runs over all L terms, zeros included, so
// the result is that of weighted_linear_function_nonewmatrix also where
// infinities or NaNs meet the zeros of W, at the dense cost in time but not
// in memory. S and LU hold M*M doubles, T M*L, pivots M ints.
void dense_diagonal_estimator(const double* A, const double* w, int64_t L, int64_t M, double* S, double* T,
                              double* LU, int* pivots, double* E, int64_t ldE);

// Work storage of weighted_estimator (one per thread).
struct EstimatorScratch {
    std::vector<double> S, LU, T;
    std::vector<int> pivots;
    SparseDesign design;
    EstimatorWork work;
};

// The estimator E = (A^T W A)^-1 A^T W of one system with W = diag(w), bit
// for bit as weighted_linear_function_nonewmatrix forms it (its E): the
// two diagonal halves around matinv_acc, or the dense chain when they
// decline. E as for diagonal_estimator (the dense chain leaves the rows
// past M as they were).
void weighted_estimator(const double* A, const double* w, int64_t L, int64_t M, double* E, int64_t ldE,
                        EstimatorScratch& scratch);

}  // namespace lib
