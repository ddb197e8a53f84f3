// Dense products, LU factorisation and inversion of small column-major
// matrices.
//
// The factorisation is Crout's method with implicit row scaling: each row is
// scaled by its largest magnitude only for the choice of pivot, columns are
// reduced left to right (the upper entries of a column first, then the lower
// ones, whose largest scaled magnitude picks the pivot row), and the entries
// below a pivot are multiplied by its reciprocal. The inverse is, column by
// column, what forward and back substitution give for the unit vectors.
// Every sum is accumulated in one fixed order (products from 0.0 in
// increasing inner index, substitutions as in the row-by-row textbook form),
// so the results are the same bits on every build and with any number of
// threads; the loops are arranged for the column-major layout and to keep
// several independent sums in flight, but never change the order in which a
// single element is summed.
#include "numerics/linalg.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "numerics/arrays.h"

namespace lib {

void matmul(const char* flags, int64_t n, int64_t k, int64_t m, double alpha, const double* A,
            const double* B, double beta, double* C)
{
    // The scale factors are part of the calling convention only; the results
    // have always been plain products written over C.
    (void)alpha;
    (void)beta;
    if (n < 1 || k < 1) return;
    const bool ta = flags[0] == 'T' || flags[0] == 't';
    const bool tb = flags[1] == 'T' || flags[1] == 't';
    for (int64_t j = 0; j < k; ++j) {
        double* c = C + j * n;
        if (!ta) {
            // op(A) column l is contiguous: sweep C's column once per inner
            // index. Each element still receives its terms in increasing l,
            // starting from 0.0, exactly as a dot product would.
            for (int64_t i = 0; i < n; ++i) c[i] = 0.0;
            for (int64_t l = 0; l < m; ++l) {
                const double b = tb ? B[l * k + j] : B[j * m + l];
                const double* a = A + l * n;
                for (int64_t i = 0; i < n; ++i) c[i] += a[i] * b;
            }
        } else {
            // op(A) row i is contiguous: a dot product per element. Four rows
            // share a pass so that four independent sums are in flight; each
            // is still its own sequence of additions.
            int64_t i = 0;
            for (; i + 4 <= n; i += 4) {
                const double* a0 = A + i * m;
                const double* a1 = a0 + m;
                const double* a2 = a1 + m;
                const double* a3 = a2 + m;
                double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
                for (int64_t l = 0; l < m; ++l) {
                    const double b = tb ? B[l * k + j] : B[j * m + l];
                    s0 += a0[l] * b;
                    s1 += a1[l] * b;
                    s2 += a2[l] * b;
                    s3 += a3[l] * b;
                }
                c[i] = s0;
                c[i + 1] = s1;
                c[i + 2] = s2;
                c[i + 3] = s3;
            }
            for (; i < n; ++i) {
                const double* a = A + i * m;
                double acc = 0.0;
                for (int64_t l = 0; l < m; ++l) acc += a[l] * (tb ? B[l * k + j] : B[j * m + l]);
                c[i] = acc;
            }
        }
    }
}

void matcpy(double* dst, const double* src, int64_t n, int64_t m)
{
    if (n < 1 || m < 1) return;
    std::memcpy(dst, src, static_cast<size_t>(n) * static_cast<size_t>(m) * sizeof(double));
}

int64_t ludcmp(double* a, int64_t n, int* pivots, double* sign)
{
    *sign = 1.0;
    if (n < 1) return 0;
    auto at = [a, n](int64_t i, int64_t j) -> double& { return a[j * n + i]; };

    // Scale of each row: the reciprocal of its largest magnitude. A NaN never
    // wins the comparison, so a row of zeros and NaNs counts as all zero.
    double* scale = mat(n, 1);
    if (!scale) return -1;
    for (int64_t i = 0; i < n; ++i) {
        double big = 0.0;
        for (int64_t j = 0; j < n; ++j) {
            const double t = std::fabs(at(i, j));
            if (t > big) big = t;
        }
        if (big == 0.0) {
            std::free(scale);
            return -1;
        }
        scale[i] = 1.0 / big;
    }

    for (int64_t j = 0; j < n; ++j) {
        // Column j: a[i][j] -= a[i][q] a[q][j] over q < min(i, j), in
        // increasing q, the upper entries (i < j) before the lower ones. Run
        // with q outermost the same subtractions happen in the same order for
        // every element (a[q][j] is final once the passes before q are done),
        // but the inner loop walks down a stored column instead of along a row.
        double* col = a + j * n;
        for (int64_t q = 0; q < j; ++q) {
            const double u = col[q];
            const double* lcol = a + q * n;
            for (int64_t i = q + 1; i < n; ++i) col[i] -= lcol[i] * u;
        }
        // Pivot search. ">=" hands ties to the later row. imax starts at the
        // diagonal so that a column of NaNs (no comparison succeeds) keeps
        // its row rather than swapping with an arbitrary one.
        double big = 0.0;
        int64_t imax = j;
        for (int64_t i = j; i < n; ++i) {
            const double d = scale[i] * std::fabs(col[i]);
            if (d >= big) {
                big = d;
                imax = i;
            }
        }
        if (imax != j) {
            for (int64_t q = 0; q < n; ++q) std::swap(at(imax, q), at(j, q));
            *sign = -*sign;
            scale[imax] = scale[j];
        }
        pivots[j] = static_cast<int>(imax);
        // An exact zero pivot is reported instead of being replaced by a tiny
        // value: a singular normal matrix must not yield a finite "inverse".
        if (at(j, j) == 0.0) {
            std::free(scale);
            return -1;
        }
        // One reciprocal per column and a multiply per entry (not a division
        // per entry); the two differ in the last bit, and this is the choice.
        if (j != n - 1) {
            const double r = 1.0 / at(j, j);
            for (int64_t i = j + 1; i < n; ++i) at(i, j) *= r;
        }
    }
    std::free(scale);
    return 0;
}

namespace {

// Forward substitution with the unit lower factor, b already permuted.
// Row i is b[i] - sum of lu[i][j] b[j] over j = first..i-1 in increasing j,
// where first is the first nonzero entry of b: the partial solutions above
// it are zero and their terms are never formed. The subtractions are issued
// column by column, which keeps each row's order.
void forward_substitute(const double* lu, int64_t n, double* b)
{
    int64_t first = 0;
    while (first < n && !(b[first] != 0.0)) ++first;
    for (int64_t j = first; j < n; ++j) {
        const double x = b[j];
        const double* lcol = lu + j * n;
        for (int64_t i = j + 1; i < n; ++i) b[i] -= lcol[i] * x;
    }
}

}  // namespace

void lubksb(const double* lu, int64_t n, const int* pivots, double* b)
{
    // The row swaps of the factorisation, in their order. Swap i only moves
    // entries at i and beyond, so doing them all first hands every row the
    // value it would meet if they were undone during the substitution.
    for (int64_t i = 0; i < n; ++i) std::swap(b[i], b[pivots[i]]);
    forward_substitute(lu, n, b);
    // Back substitution sums along a row of U in increasing column order.
    for (int64_t i = n - 1; i >= 0; --i) {
        double sum = b[i];
        for (int64_t j = i + 1; j < n; ++j) sum -= lu[j * n + i] * b[j];
        b[i] = sum / lu[i * n + i];
    }
}

namespace {

// Swaps a square n x n matrix with its transpose in place.
void transpose_in_place(double* a, int64_t n)
{
    for (int64_t j = 0; j < n; ++j)
        for (int64_t i = j + 1; i < n; ++i) std::swap(a[j * n + i], a[i * n + j]);
}

// Overwrites a with the inverse from the factors lu: every column comes out
// as lubksb would leave the unit column, to the bit. Back substitution is the
// costly part: element (i, c) is x[i][c] minus u[i][j] x[j][c] over j > i in
// increasing j, then divided by u[i][i]. Done for all columns at once on the
// transposed block, row i of the solution becomes a contiguous run and each
// step is one multiply-subtract over it, while every element still sees its
// terms in the same order.
void invert_from_factors(double* a, const double* lu, const int* pivots, int64_t n)
{
    for (int64_t c = 0; c < n; ++c) {
        double* col = a + c * n;
        for (int64_t i = 0; i < n; ++i) col[i] = 0.0;
        col[c] = 1.0;
        for (int64_t i = 0; i < n; ++i) std::swap(col[i], col[pivots[i]]);
        forward_substitute(lu, n, col);
    }
    transpose_in_place(a, n);
    for (int64_t i = n - 1; i >= 0; --i) {
        double* xi = a + i * n;
        for (int64_t j = i + 1; j < n; ++j) {
            const double u = lu[j * n + i];
            const double* xj = a + j * n;
            for (int64_t c = 0; c < n; ++c) xi[c] -= u * xj[c];
        }
        const double d = lu[i * n + i];
        for (int64_t c = 0; c < n; ++c) xi[c] /= d;
    }
    transpose_in_place(a, n);
}

}  // namespace

int64_t matinv(double* a, int64_t n)
{
    if (n < 1) return 0;
    double* lu = mat(n, n);
    int* pivots = imat(n, 1);
    if (!lu || !pivots) {
        std::free(lu);
        std::free(pivots);
        return -1;
    }
    matcpy(lu, a, n, n);
    double sign = 1.0;
    if (ludcmp(lu, n, pivots, &sign) != 0) {
        std::free(lu);
        std::free(pivots);
        return -1;
    }
    invert_from_factors(a, lu, pivots, n);
    std::free(lu);
    std::free(pivots);
    return 0;
}

void matinv_acc(double* a, double* lu, int* pivots, int64_t n)
{
    if (n < 1) return;
    matcpy(lu, a, n, n);
    double sign = 1.0;
    if (ludcmp(lu, n, pivots, &sign) != 0) return;
    invert_from_factors(a, lu, pivots, n);
}

}  // namespace lib
