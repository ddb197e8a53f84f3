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

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "numerics/arrays.h"
#include "numerics/lanes.h"
#include "numerics/linalg.h"
#include "numerics/validity.h"

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

// The value a dense sum leaves after adding the single term z to +0.0:
// z itself, but +0.0 for -0.0.
inline double canon(double z) { return z + 0.0; }

// all_finite in the machine's widest vectors.
SBAS_VECTOR_CLONES
bool finite(const double* v, int64_t count) { return all_finite(v, count); }

}  // namespace

void index_design(const double* A, int64_t L, int64_t M, SparseDesign& design)
{
    // Rows from the columns by counting: taking the columns in increasing
    // order leaves every row's list sorted.
    design.row_start.assign(static_cast<size_t>(L > 0 ? L + 1 : 1), 0);
    int64_t* start = design.row_start.data();
    for (int64_t j = 0; j < M; ++j)
        for (int64_t l = 0; l < L; ++l) start[l + 1] += A[j * L + l] != 0.0;
    for (int64_t l = 0; l < L; ++l) start[l + 1] += start[l];
    const int64_t nonzeros = L > 0 ? start[L] : 0;
    design.columns.resize(static_cast<size_t>(nonzeros));
    design.values.resize(static_cast<size_t>(nonzeros));
    std::vector<int64_t> cursor(design.row_start.begin(), design.row_start.end());
    for (int64_t j = 0; j < M; ++j)
        for (int64_t l = 0; l < L; ++l) {
            const double a = A[j * L + l];
            if (a == 0.0) continue;
            design.columns[static_cast<size_t>(cursor[l])] = j;
            design.values[static_cast<size_t>(cursor[l]++)] = a;
        }
}

int64_t shared_prefix(const SparseDesign& design, int64_t l)
{
    // Row l's sums of S A^T may go on from row l - 1's, which took exactly
    // those terms in the same order from 0.0.
    if (l == 0) return 0;
    const int64_t* start = design.row_start.data();
    const int64_t* columns = design.columns.data();
    const double* values = design.values.data();
    const int64_t before = start[l] - start[l - 1];
    if (before == 0 || start[l + 1] - start[l] < before || columns[start[l]] != columns[start[l - 1]]) return 0;
    for (int64_t k = 1; k < before; ++k)
        if (columns[start[l - 1] + k] != columns[start[l] + k]) return 0;
    for (int64_t k = 0; k < before; ++k)
        if (values[start[l - 1] + k] != values[start[l] + k]) return 0;
    return before;
}

bool diagonal_normal_matrix(const SparseDesign& design, const double* w, int64_t L, int64_t M, double* S)
{
    if (L < 1 || M < 1) return false;
    const int64_t* start = design.row_start.data();
    const int64_t* columns = design.columns.data();
    const double* values = design.values.data();
    if (!finite(values, start[L]) || !finite(w, L)) return false;
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

namespace {

// Rows i0 .. i0 + R*W - 1 of column l of E for diagonal_estimator: the sum
// over the row's `terms` nonzero entries (from `first`) of S[:, j] A[l, j]
// in increasing j from 0.0, then canon of its product with w[l]. S is padded
// (column stride ldS, a multiple of 8, zeros past M). An infinite or NaN t
// makes t * w one too (a finite w, even 0.0), so flagging the products
// catches both a non-finite T and an overflow.
template <int W, int R>
[[gnu::always_inline]] inline void estimator_rows(const int64_t* columns, const double* values, int64_t first,
                                                  int64_t terms, const double* S, int64_t ldS, int64_t i0,
                                                  double wl, double* e, typename Vectors<W>::B& nonfinite)
{
    using V = typename Vectors<W>::V;
    using U = typename Vectors<W>::U;
    V t[R] = {};
    for (int64_t p = first; p < first + terms; ++p) {
        const double a = values[p];
        const double* s = S + columns[p] * ldS + i0;
        for (int v = 0; v < R; ++v) t[v] += *reinterpret_cast<const U*>(s + v * W) * a;
    }
    for (int v = 0; v < R; ++v) {
        const V product = t[v] * wl + 0.0;  // canon(t * w)
        flag_nonfinite<W>(nonfinite, product);
        *reinterpret_cast<U*>(e + i0 + v * W) = product;
    }
}

// diagonal_estimator's products, with W lanes: column l of E for each row l
// in `order`; false when a T or an E entry is not finite.
template <int W>
[[gnu::always_inline]] inline bool estimator_lanes(const SparseDesign& design, const double* w, const int64_t* order,
                                                   int64_t L, const double* S, int64_t ldS, double* E, int64_t ldE)
{
    const int64_t* start = design.row_start.data();
    const int64_t* columns = design.columns.data();
    const double* values = design.values.data();
    typename Vectors<W>::B nonfinite = {};
    for (int64_t k = 0; k < L; ++k) {
        const int64_t l = order[k];
        double* e = E + l * ldE;
        const int64_t first = start[l], terms = start[l + 1] - start[l];
        // Up to eight vectors a pass keep their sums in registers.
        for (int64_t i0 = 0; i0 < ldS; i0 += 8 * W) {
            switch (std::min<int64_t>(8, (ldS - i0) / W)) {
                case 8: estimator_rows<W, 8>(columns, values, first, terms, S, ldS, i0, w[l], e, nonfinite); break;
                case 7: estimator_rows<W, 7>(columns, values, first, terms, S, ldS, i0, w[l], e, nonfinite); break;
                case 6: estimator_rows<W, 6>(columns, values, first, terms, S, ldS, i0, w[l], e, nonfinite); break;
                case 5: estimator_rows<W, 5>(columns, values, first, terms, S, ldS, i0, w[l], e, nonfinite); break;
                case 4: estimator_rows<W, 4>(columns, values, first, terms, S, ldS, i0, w[l], e, nonfinite); break;
                case 3: estimator_rows<W, 3>(columns, values, first, terms, S, ldS, i0, w[l], e, nonfinite); break;
                case 2: estimator_rows<W, 2>(columns, values, first, terms, S, ldS, i0, w[l], e, nonfinite); break;
                default: estimator_rows<W, 1>(columns, values, first, terms, S, ldS, i0, w[l], e, nonfinite); break;
            }
        }
    }
    for (int k = 0; k < W; ++k)
        if (nonfinite[k] >> 63) return false;
    return true;
}

SBAS_BY_WIDTH(bool, estimator_by_width, estimator_lanes,
              (const SparseDesign& design, const double* w, const int64_t* order, int64_t L, const double* S,
               int64_t ldS, double* E, int64_t ldE),
              (design, w, order, L, S, ldS, E, ldE))

}  // namespace

bool diagonal_estimator(const SparseDesign& design, const double* w, int64_t L, int64_t M, const double* S,
                        double* E, int64_t ldE, EstimatorWork& work)
{
    if (L < 1 || M < 1) return false;
    const int64_t* start = design.row_start.data();
    // The next product skips zeros of A and so needs S finite (the inverse
    // of a nearly singular matrix may overflow); the last one skips zeros of
    // W and needs w finite.
    if (!finite(S, M * M) || !finite(w, L) || !finite(design.values.data(), start[L])) return false;
    // Column l of T = S A^T sums S[:, j] A[l, j] over the nonzero columns j
    // of row l, in increasing j, from 0.0; then E = T W is the single term
    // T[i, l] w[l] per element (canon of the product), which needs T finite.
    // S is copied with its columns padded to a multiple of 8 rows by zeros,
    // so that vectors of rows fill the lanes; E's rows past M receive 0.0.
    const int64_t ldS = (M + 7) / 8 * 8;
    std::vector<double>& padded = work.padded;
    padded.resize(static_cast<size_t>(ldS * M));
    for (int64_t j = 0; j < M; ++j) {
        double* to = padded.data() + j * ldS;
        std::copy(S + j * M, S + (j + 1) * M, to);
        std::fill(to + M, to + ldS, 0.0);
    }
    // Rows are taken grouped by their number of terms (a counting sort), so
    // that the loop over a row's terms runs the same length many times over
    // and its end is predicted.
    std::vector<int64_t>& order = work.order;
    std::vector<int64_t>& first_of = work.first_of;
    order.resize(static_cast<size_t>(L));
    first_of.assign(static_cast<size_t>(M + 2), 0);
    for (int64_t l = 0; l < L; ++l) ++first_of[static_cast<size_t>(start[l + 1] - start[l] + 1)];
    for (int64_t c = 0; c <= M; ++c) first_of[static_cast<size_t>(c + 1)] += first_of[static_cast<size_t>(c)];
    for (int64_t l = 0; l < L; ++l)
        order[static_cast<size_t>(first_of[static_cast<size_t>(start[l + 1] - start[l])]++)] = l;
    return estimator_by_width(design, w, order.data(), L, padded.data(), ldS, E, ldE);
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
        if (diagonal_estimator(scratch.design, w, L, M, S, E, ldE, scratch.work)) return;
    }
    scratch.T.resize(static_cast<size_t>(M * L));
    dense_diagonal_estimator(A, w, L, M, S, scratch.T.data(), scratch.LU.data(), scratch.pivots.data(), E, ldE);
}

}  // namespace lib
