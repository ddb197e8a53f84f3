// Least squares through the normal equations.
//
// The estimate is x = (A^T W A)^-1 A^T W y, formed as a chain of dense
// products around one inversion; a singular normal matrix is left as it is
// and the chain goes on with it. The diagonal-weight routine produces the
// very same bits as the dense chain with cheaper steps. It rests on one fact
// of round-to-nearest arithmetic: a sum that starts at +0.0 can never become
// -0.0 (an exact cancellation gives +0.0, and -0.0 + -0.0 needs a -0.0
// already), so adding a term equal to +0.0 or -0.0 never changes it. With
// finite operands every product with a zero factor is such a term, and the
// dense sums can drop them as long as the others keep their order:
//   A^T diag(w)   has the single surviving term A[j,i] w[j] (a zero product
//                 is stored as +0.0, as the sum leaves it);
//   (A^T W) A     and  S A^T  need only the nonzero entries of A, taken from
//                 index lists built once per call;
//   T diag(w)     is again a single term per element.
// The inversion and the last product with y are the dense code itself. The
// zero-term argument needs finite factors, so A and w are checked up front
// and each intermediate before it is multiplied by A or w again; when one is
// not finite the routine declines and the caller takes the dense path.
#include "numerics/least_squares.h"

#include <bit>
#include <cstdint>
#include <cstdlib>

#include "numerics/arrays.h"
#include "numerics/linalg.h"

namespace lib {

double* linear_function(const double* G, int64_t L, int64_t M, const double* y)
{
    double* N = zeros(M, M);
    double* H = zeros(M, L);
    double* x = zeros(M, 1);
    if (!N || !H || !x) {
        std::free(N);
        std::free(H);
        std::free(x);
        return nullptr;
    }
    matmul("NT", M, M, L, 1.0, G, G, 0.0, N);
    matinv(N, M);
    matmul("NN", M, L, M, 1.0, N, G, 0.0, H);
    matmul("NN", M, 1, L, 1.0, H, y, 0.0, x);
    std::free(N);
    std::free(H);
    return x;
}

double* weighted_linear_function(const double* A, const double* W, int64_t L, int64_t M, const double* y)
{
    double* T = zeros(M, L);
    double* S = zeros(M, M);
    double* T2 = zeros(M, L);
    double* E = zeros(M, L);
    double* x = zeros(M, 1);
    const bool ok = T && S && T2 && E && x;
    if (ok) {
        matmul("TN", M, L, L, 1.0, A, W, 0.0, T);
        matmul("NN", M, M, L, 1.0, T, A, 0.0, S);
        matinv(S, M);
        matmul("NT", M, L, M, 1.0, S, A, 0.0, T2);
        matmul("NN", M, L, L, 1.0, T2, W, 0.0, E);
        matmul("NN", M, 1, L, 1.0, E, y, 0.0, x);
    }
    std::free(T);
    std::free(S);
    std::free(T2);
    std::free(E);
    if (!ok) {
        std::free(x);
        return nullptr;
    }
    return x;
}

void weighted_linear_function_nonewmatrix(const double* A, const double* W, int64_t L, int64_t M,
                                          const double* y, double* S, double* T, double* E,
                                          double* LU, int* pivots)
{
    matmul("TN", M, L, L, 1.0, A, W, 0.0, T);
    matmul("NN", M, M, L, 1.0, T, A, 0.0, S);
    matinv_acc(S, LU, pivots, M);
    matmul("NT", M, L, M, 1.0, S, A, 0.0, T);
    matmul("NN", M, L, L, 1.0, T, W, 0.0, E);
    matmul("NN", M, 1, L, 1.0, E, y, 0.0, T);
}

namespace {

// The value a dense sum leaves after adding the single term z to +0.0.
inline double canon(double z) { return z == 0.0 ? 0.0 : z; }

// True when none of the count values is infinite or NaN, i.e. none has an
// exponent field of all ones. Adding one unit to the isolated exponent field
// carries into the sign position exactly for such a value; with only integer
// and/add/or and no early exit the scan runs as vector code.
bool all_finite(const double* v, int64_t count)
{
    constexpr uint64_t exponent = 0x7ff0000000000000ULL;
    constexpr uint64_t exponent_unit = 0x0010000000000000ULL;
    uint64_t carry = 0;
    for (int64_t i = 0; i < count; ++i) carry |= (std::bit_cast<uint64_t>(v[i]) & exponent) + exponent_unit;
    return (carry >> 63) == 0;
}

// Compressed column and row index lists of the nonzero entries of the L x M
// matrix A, each list in increasing index. The vectors keep their capacity
// between calls, so a thread that reuses its scratch stops allocating after
// the first pixel.
void index_nonzeros(const double* A, int64_t L, int64_t M, DiagonalScratch& s)
{
    // The column lists are written without a branch per entry (the pattern
    // of ones is irregular and would defeat branch prediction): every row
    // index is stored and the cursor advances only past the nonzero ones.
    // column_rows is therefore sized for a full matrix; only its first nnz
    // entries count.
    s.column_start.resize(M + 1);
    if (static_cast<int64_t>(s.column_rows.size()) < L * M) s.column_rows.resize(L * M);
    int64_t* rows = s.column_rows.data();
    int64_t nnz = 0;
    s.column_start[0] = 0;
    for (int64_t j = 0; j < M; ++j) {
        const double* col = A + j * L;
        for (int64_t l = 0; l < L; ++l) {
            rows[nnz] = l;
            nnz += col[l] != 0.0;
        }
        s.column_start[j + 1] = nnz;
    }
    // Rows from the columns by counting: visiting the columns in increasing
    // order leaves every row's list sorted.
    s.row_start.assign(L + 1, 0);
    s.row_columns.resize(nnz);
    for (int64_t p = 0; p < nnz; ++p) ++s.row_start[s.column_rows[p] + 1];
    for (int64_t l = 0; l < L; ++l) s.row_start[l + 1] += s.row_start[l];
    // row_start serves as each row's fill cursor and is shifted back after.
    for (int64_t j = 0; j < M; ++j)
        for (int64_t p = s.column_start[j]; p < s.column_start[j + 1]; ++p)
            s.row_columns[s.row_start[s.column_rows[p]]++] = j;
    for (int64_t l = L; l > 0; --l) s.row_start[l] = s.row_start[l - 1];
    s.row_start[0] = 0;
}

// The two sparse products of the diagonal path. Column j of `out` (M rows,
// `columns` columns) is the sum, from 0.0 and in list order, of column l of
// `source` times A[j * a_step_j + l * a_step_l], over the entries l listed
// for j in index[start[j] .. start[j + 1]). Each element receives its terms
// in the order the dense product would, with the zero terms left out.
void combine_columns(double* out, int64_t M, int64_t columns, const int64_t* start, const int64_t* index,
                     const double* source, const double* A, int64_t a_step_j, int64_t a_step_l)
{
    for (int64_t j = 0; j < columns; ++j) {
        double* column = out + j * M;
        for (int64_t i = 0; i < M; ++i) column[i] = 0.0;
        for (int64_t p = start[j]; p < start[j + 1]; ++p) {
            const int64_t l = index[p];
            const double a = A[j * a_step_j + l * a_step_l];
            const double* from = source + l * M;
            for (int64_t i = 0; i < M; ++i) column[i] += from[i] * a;
        }
    }
}

}  // namespace

bool weighted_linear_function_diagonal(const double* A, const double* w, int64_t L, int64_t M,
                                       const double* y, double* S, double* T, double* E, double* LU,
                                       int* pivots, DiagonalScratch& scratch)
{
    if (L < 1 || M < 1) return false;
    if (!all_finite(A, L * M) || !all_finite(w, L)) return false;
    index_nonzeros(A, L, M, scratch);
    const int64_t* cstart = scratch.column_start.data();
    const int64_t* crows = scratch.column_rows.data();
    const int64_t* rstart = scratch.row_start.data();
    const int64_t* rcols = scratch.row_columns.data();

    // T = A^T diag(w), M x L: element (i, l) is A[l, i] w[l], which is +0.0
    // wherever A[l, i] is zero (w being finite).
    for (int64_t q = 0; q < M * L; ++q) T[q] = 0.0;
    for (int64_t i = 0; i < M; ++i)
        for (int64_t p = cstart[i]; p < cstart[i + 1]; ++p) {
            const int64_t l = crows[p];
            T[l * M + i] = canon(A[i * L + l] * w[l]);
        }
    // Finite A and w can still overflow to an infinity, and infinity times
    // a skipped zero would have been NaN in the dense sum.
    if (!all_finite(T, M * L)) return false;

    // S = T A, M x M: column j sums T[:, l] A[l, j] over the nonzero rows l
    // of column j of A, in increasing l.
    combine_columns(S, M, M, cstart, crows, T, A, L, 1);

    matinv_acc(S, LU, pivots, M);
    // The inverse of a nearly singular matrix may overflow; the next product
    // skips zeros of A and so needs S finite.
    if (!all_finite(S, M * M)) return false;

    // T = S A^T, M x L: column j sums S[:, l] A[j, l] over the nonzero
    // columns l of row j of A, in increasing l.
    combine_columns(T, M, L, rstart, rcols, S, A, 1, L);
    if (!all_finite(T, M * L)) return false;

    // E = T diag(w), M x L.
    for (int64_t l = 0; l < L; ++l) {
        const double* t = T + l * M;
        double* e = E + l * M;
        const double wl = w[l];
        for (int64_t i = 0; i < M; ++i) e[i] = canon(t[i] * wl);
    }

    // x = E y, dense as in the general routine; it lands in T's first column.
    matmul("NN", M, 1, L, 1.0, E, y, 0.0, T);
    return true;
}

}  // namespace lib
