// Least squares through the normal equations.
//
// The estimate is x = (A^T W A)^-1 A^T W y, formed as a chain of dense
// products around one inversion; a singular normal matrix is left as it is
// and the chain goes on with it. With diagonal weights the same bits come
// from much cheaper steps. They rest on one fact of round-to-nearest
// arithmetic: a sum that starts at +0.0 can never become -0.0 (an exact
// cancellation gives +0.0, and -0.0 + -0.0 needs a -0.0 already), so adding
// a term equal to +0.0 or -0.0 never changes it. With finite operands every
// product with a zero factor is such a term, and the dense sums can drop
// them as long as the others keep their order:
//   A^T W         has the single surviving term A[l,i] w[l] (a zero product
//                 is stored as +0.0, as the sum leaves it);
//   (A^T W) A     gets a term from row l only for pairs of nonzero entries
//                 of that row, so each row adds to a few elements;
//   S A^T         needs only the nonzero entries of each row of A;
//   T W           is again a single term per element.
// The inversion is the dense code itself. The zero-term argument needs
// finite factors, so A and w are checked up front and each intermediate
// before it is multiplied by A or w again; when one is not finite the
// diagonal halves decline and the dense chain runs instead, with W still
// held as its diagonal: its products then form every term, zeros of W
// included, one by one.
#include "numerics/least_squares.h"

#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "numerics/arrays.h"
#include "numerics/clones.h"
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

}  // namespace

void index_design(const double* A, int64_t L, int64_t M, SparseDesign& design)
{
    // The entries column by column, skipping runs of four zeros at a time
    // (a design matrix is mostly zeros; doubling the bits drops the sign, so
    // the word is 0 exactly for +0.0 and -0.0), then sorted into rows by
    // counting: taking the columns in increasing order leaves every row's
    // list sorted.
    design.row_start.assign(static_cast<size_t>(L > 0 ? L + 2 : 2), 0);
    std::vector<int64_t>& at = design.entry_row;
    std::vector<int64_t>& columns = design.entry_column;
    at.clear();
    columns.clear();
    for (int64_t j = 0; j < M; ++j) {
        const double* col = A + j * L;
        int64_t l = 0;
        for (; l + 4 <= L; l += 4) {
            const uint64_t any = std::bit_cast<uint64_t>(col[l]) | std::bit_cast<uint64_t>(col[l + 1]) |
                                 std::bit_cast<uint64_t>(col[l + 2]) | std::bit_cast<uint64_t>(col[l + 3]);
            if ((any << 1) == 0) continue;
            for (int64_t r = l; r < l + 4; ++r)
                if (col[r] != 0.0) {
                    at.push_back(r);
                    columns.push_back(j);
                }
        }
        for (; l < L; ++l)
            if (col[l] != 0.0) {
                at.push_back(l);
                columns.push_back(j);
            }
    }
    // row_start[l + 2] counts row l; shifted twice it ends as the starts.
    int64_t* start = design.row_start.data();
    for (const int64_t r : at) ++start[r + 2];
    for (int64_t l = 0; l < L; ++l) start[l + 2] += start[l + 1];
    design.columns.resize(at.size());
    design.values.resize(at.size());
    for (size_t e = 0; e < at.size(); ++e) {
        const int64_t slot = start[at[e] + 1]++;
        design.columns[static_cast<size_t>(slot)] = columns[e];
        design.values[static_cast<size_t>(slot)] = A[columns[e] * L + at[e]];
    }
}

bool diagonal_normal_matrix(const SparseDesign& design, const double* w, int64_t L, int64_t M, double* S)
{
    if (L < 1 || M < 1) return false;
    const int64_t* start = design.row_start.data();
    const int64_t* columns = design.columns.data();
    const double* values = design.values.data();
    if (!all_finite(values, start[L]) || !all_finite(w, L)) return false;
    // S[a, b] sums T[a, l] A[l, b] over l from 0.0 with T = A^T W, T[a, l] =
    // A[l, a] w[l] (+0.0 where A[l, a] is zero). A term is a zero product
    // unless both A[l, a] and A[l, b] are nonzero, so row l adds to the
    // pairs of its own nonzero columns only; rows are taken in increasing l,
    // which is each element's order in the dense sum.
    for (int64_t q = 0; q < M * M; ++q) S[q] = 0.0;
    for (int64_t l = 0; l < L; ++l)
        for (int64_t p = start[l]; p < start[l + 1]; ++p) {
            const double t = canon(values[p] * w[l]);
            // An overflow here would have met zeros of A in the dense sums.
            if (!std::isfinite(t)) return false;
            double* row = S + columns[p];
            for (int64_t r = start[l]; r < start[l + 1]; ++r) row[columns[r] * M] += t * values[r];
        }
    return true;
}

SBAS_VECTOR_CLONES
bool diagonal_estimator(const SparseDesign& design, const double* w, int64_t L, int64_t M, const double* S,
                        double* E, int64_t ldE)
{
    if (L < 1 || M < 1) return false;
    // The next product skips zeros of A and so needs S finite (the inverse
    // of a nearly singular matrix may overflow); the last one skips zeros of
    // W and needs w finite.
    if (!all_finite(S, M * M) || !all_finite(w, L)) return false;
    const int64_t* start = design.row_start.data();
    const int64_t* columns = design.columns.data();
    const double* values = design.values.data();
    bool finite = true;
    for (int64_t l = 0; l < L; ++l) {
        // Column l of T = S A^T sums S[:, j] A[l, j] over the nonzero
        // columns j of row l, in increasing j, from 0.0; then E = T W is the
        // single term T[i, l] w[l] per element, which needs T finite.
        double* e = E + l * ldE;
        int64_t p = start[l];
        if (p == start[l + 1]) {
            for (int64_t i = 0; i < M; ++i) e[i] = 0.0;
            continue;
        }
        const double* s = S + columns[p] * M;
        const double a = values[p];
        for (int64_t i = 0; i < M; ++i) e[i] = 0.0 + s[i] * a;
        for (++p; p < start[l + 1]; ++p) {
            const double b = values[p];
            const double* t = S + columns[p] * M;
            for (int64_t i = 0; i < M; ++i) e[i] += t[i] * b;
        }
        const double wl = w[l];
        for (int64_t i = 0; i < M; ++i) {
            finite &= std::fabs(e[i]) <= DBL_MAX;
            e[i] = canon(e[i] * wl);
        }
    }
    return finite;
}

void dense_diagonal_estimator(const double* A, const double* w, int64_t L, int64_t M, double* S, double* T,
                              double* LU, int* pivots, double* E, int64_t ldE)
{
    // T = A^T W ("TN"): element (i, l) sums A[m, i] W[m, l] over m from 0.0,
    // W[m, l] being 0.0 but for m = l; four elements share a pass.
    auto weight = [w](int64_t m, int64_t l) { return m == l ? w[l] : 0.0; };
    int64_t i = 0;
    for (; i + 4 <= M; i += 4) {
        const double* a = A + i * L;
        for (int64_t l = 0; l < L; ++l) {
            double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
            for (int64_t m = 0; m < L; ++m) {
                const double b = weight(m, l);
                s0 += a[m] * b;
                s1 += a[L + m] * b;
                s2 += a[2 * L + m] * b;
                s3 += a[3 * L + m] * b;
            }
            T[l * M + i] = s0;
            T[l * M + i + 1] = s1;
            T[l * M + i + 2] = s2;
            T[l * M + i + 3] = s3;
        }
    }
    for (; i < M; ++i)
        for (int64_t l = 0; l < L; ++l) {
            double acc = 0.0;
            for (int64_t m = 0; m < L; ++m) acc += A[i * L + m] * weight(m, l);
            T[l * M + i] = acc;
        }
    matmul("NN", M, M, L, 1.0, T, A, 0.0, S);
    matinv_acc(S, LU, pivots, M);
    matmul("NT", M, L, M, 1.0, S, A, 0.0, T);
    // E = T W ("NN"): column l sums T[:, m] W[m, l] over m, a column at a time.
    for (int64_t l = 0; l < L; ++l) {
        double* e = E + l * ldE;
        for (int64_t r = 0; r < M; ++r) e[r] = 0.0;
        for (int64_t m = 0; m < L; ++m) {
            const double b = weight(m, l);
            const double* t = T + m * M;
            for (int64_t r = 0; r < M; ++r) e[r] += t[r] * b;
        }
    }
}

void weighted_estimator(const double* A, const double* w, int64_t L, int64_t M, double* E, int64_t ldE,
                        EstimatorScratch& scratch)
{
    if (L < 1 || M < 1) return;
    scratch.S.resize(static_cast<size_t>(M * M));
    scratch.LU.resize(static_cast<size_t>(M * M));
    scratch.pivots.resize(static_cast<size_t>(M));
    index_design(A, L, M, scratch.design);
    double* S = scratch.S.data();
    if (diagonal_normal_matrix(scratch.design, w, L, M, S)) {
        matinv_acc(S, scratch.LU.data(), scratch.pivots.data(), M);
        if (diagonal_estimator(scratch.design, w, L, M, S, E, ldE)) return;
    }
    scratch.T.resize(static_cast<size_t>(M * L));
    dense_diagonal_estimator(A, w, L, M, S, scratch.T.data(), scratch.LU.data(), scratch.pivots.data(), E, ldE);
}

}  // namespace lib
