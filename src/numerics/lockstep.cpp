// Several small dense problems worked through side by side.
//
// matinv_lockstep inverts several matrices at once, one per lane of a vector
// of W doubles (W = 8, 4 or 2 by the machine, numerics/lanes.h): element k
// of every vector belongs to matrix k. Each lane
// performs exactly the operations matinv_acc performs on its matrix, Crout's
// factorisation with implicit row scaling and then substitution for every
// unit vector, each sum in the same order, so each lane's result carries the
// scalar routine's bits. The data-dependent steps are taken lane by lane: the
// scale and pivot comparisons select per lane, row swaps and pivot records
// are per lane, and a matrix found singular is not written back (matinv_acc
// leaves such a matrix as it was).
//
// The loops are arranged for the vectors without changing any lane's sums:
//  - The updates "v[i] -= l[i] * u" run for a block of rows, of columns, or
//    both at once, the sums held in registers and each load shared; every
//    element still takes its terms in increasing index, each term formed
//    once its factors are final (see factor() for the columns taken in
//    pairs while rows are being swapped).
//  - The substitution for a unit vector starts, in the scalar code, at the
//    first nonzero entry of the permuted vector, which differs from lane to
//    lane. The entries before it are +0.0, and a term l * (+0.0) with a
//    finite l subtracts +0.0 or -0.0 from +0.0 or 1.0, which changes
//    nothing; so all lanes may start at the earliest lane's first entry,
//    provided the factors are finite. A matrix whose factors hold an
//    infinity or a NaN (only one that holds one already, or overflows) is
//    inverted by matinv_acc itself instead.
//
// products forms X = E Y for many right-hand sides, each element the sum
// over l of E[i, l] Y[l, p] from 0.0 in increasing l: with W or more
// right-hand sides these fill the lanes and a block of sums stays in
// registers; a right-hand side left alone has rows of E in the lanes of
// eight registers.
#include "numerics/lockstep.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "numerics/lanes.h"
#include "numerics/least_squares.h"
#include "numerics/linalg.h"
#include "numerics/validity.h"

namespace lib {
namespace {

// Rows i0 .. i0+B-1 of the C vectors v[c] (n lanes each) take, in
// increasing q, the terms v[c][i] -= lu[q * n + i] * v[c][q] for lo <= q <
// min(i, hi). This is the Crout column step (v columns of the factors, lo =
// 0, hi = the first column's index). Entries of v before i0 must be final;
// the C vectors share every load of lu.
template <int W, int B, int C>
SBAS_LANES_INLINE void eliminate_rows(const typename Vectors<W>::V* lu, typename Vectors<W>::V* const* v, int64_t n,
                                      int64_t i0, int64_t lo, int64_t hi)
{
    using V = typename Vectors<W>::V;
    V acc[C][B];
    for (int c = 0; c < C; ++c)
        for (int r = 0; r < B; ++r) acc[c][r] = v[c][i0 + r];
    const int64_t common = std::min(i0, hi);
    for (int64_t q = lo; q < common; ++q) {
        const V* l = lu + q * n + i0;
        V u[C];
        for (int c = 0; c < C; ++c) u[c] = v[c][q];
        for (int r = 0; r < B; ++r) {
            const V lr = l[r];
            for (int c = 0; c < C; ++c) acc[c][r] -= lr * u[c];
        }
    }
    // Within the block: row i0 + s is final once its terms below i0 + s are in.
#pragma GCC unroll 8
    for (int s = 0; s < B; ++s) {
        const int64_t q = i0 + s;
        if (q < lo || q >= hi) continue;
        const V* l = lu + q * n + i0;
#pragma GCC unroll 8
        for (int r = s + 1; r < B; ++r)
            for (int c = 0; c < C; ++c) acc[c][r] -= l[r] * acc[c][s];
    }
    for (int c = 0; c < C; ++c)
        for (int r = 0; r < B; ++r) v[c][i0 + r] = acc[c][r];
}

template <int W, int C>
SBAS_LANES_INLINE void eliminate(const typename Vectors<W>::V* lu, typename Vectors<W>::V* const* v, int64_t n,
                                 int64_t hi)
{
    // The rows left over by the blocks are taken first, where the sums are
    // shortest.
    constexpr int B = 4;
    int64_t i0 = 0;
    for (; (n - i0) % B != 0; ++i0) eliminate_rows<W, 1, C>(lu, v, n, i0, 0, hi);
    for (; i0 < n; i0 += B) eliminate_rows<W, B, C>(lu, v, n, i0, 0, hi);
}

// Whether some lane of the mask m is set, the lanes folded in halves by
// shuffles, which stay in vector registers.
template <int W>
SBAS_LANES_INLINE bool any_lane(typename Vectors<W>::I m)
{
    if constexpr (W == 8) {
        m |= __builtin_shufflevector(m, m, 4, 5, 6, 7, 0, 1, 2, 3);
        m |= __builtin_shufflevector(m, m, 2, 3, 0, 1, 6, 7, 4, 5);
        m |= __builtin_shufflevector(m, m, 1, 0, 3, 2, 5, 4, 7, 6);
    } else if constexpr (W == 4) {
        m |= __builtin_shufflevector(m, m, 2, 3, 0, 1);
        m |= __builtin_shufflevector(m, m, 1, 0, 3, 2);
    } else {
        static_assert(W == 2);
        m |= __builtin_shufflevector(m, m, 1, 0);
    }
    return m[0] != 0;
}

// Whether some lane of v is nonzero (-0.0 counts as zero, a NaN as
// nonzero).
template <int W>
SBAS_LANES_INLINE bool any_nonzero(typename Vectors<W>::V v)
{
    return any_lane<W>(v != 0.0);
}

// Whether every lane of v is above zero (a NaN is not).
template <int W>
SBAS_LANES_INLINE bool all_positive(typename Vectors<W>::V v)
{
    return !any_lane<W>(!(v > 0.0));
}

// The smallest lane of v.
template <int W>
SBAS_LANES_INLINE int lowest(typename Vectors<W>::I v)
{
    int64_t least = v[0];
    for (int k = 1; k < W; ++k) least = v[k] < least ? v[k] : least;
    return static_cast<int>(least);
}

// The end of Crout's step for column j, whose entries have all their terms:
// the pivot (largest scaled magnitude, ties to the later row), the row swap
// lane by lane, and the division below the pivot.
template <int W>
SBAS_LANES_INLINE void pivot_column(typename Vectors<W>::V* lu, typename Vectors<W>::V* scale, int* pivots,
                                    int64_t n, int64_t j, typename Vectors<W>::I& bad)
{
    using V = typename Vectors<W>::V;
    using I = typename Vectors<W>::I;
    V* col = lu + j * n;
    V big = {};
    I pivot = I{} + j;
    for (int64_t i = j; i < n; ++i) {
        const V d = scale[i] * (V)((I)col[i] & INT64_MAX);
        const I take = d >= big;
        big = take ? d : big;
        pivot = take ? I{} + i : pivot;
    }
    for (int k = 0; k < W; ++k) {
        const int64_t r = pivot[k];
        pivots[j * W + k] = static_cast<int>(r);
        if (r == j) continue;
        for (int64_t q = 0; q < n; ++q) {
            const double t = lu[q * n + r][k];
            lu[q * n + r][k] = lu[q * n + j][k];
            lu[q * n + j][k] = t;
        }
        scale[r][k] = scale[j][k];
    }
    bad |= col[j] == 0.0;
    if (j != n - 1) {
        const V r = 1.0 / col[j];
        for (int64_t i = j + 1; i < n; ++i) col[i] *= r;
    }
}

// Crout factorisation of the W matrices interleaved in lu (element (i, j)
// of lane k at lu[j * n + i][k]), each as ludcmp does it; pivots[j * W + k]
// receives lane k's pivot row of column j, singular[k] is set when lane k's
// matrix is singular. Columns go in pairs: the terms of the columns before
// the pair are taken for both at once; the second column takes the term of
// the first once that one is final. A row swap of the first column moves the
// second column's partial sums along with the rows of the factors they were
// formed from, so every element sees the terms the scalar routine gives it,
// in its order.
template <int W>
SBAS_LANES_INLINE void factor(typename Vectors<W>::V* lu, typename Vectors<W>::V* scale, int* pivots, int64_t n,
                              bool* singular)
{
    using V = typename Vectors<W>::V;
    using I = typename Vectors<W>::I;
    I bad = {};
    for (int64_t i = 0; i < n; ++i) {
        V big = {};
        for (int64_t j = 0; j < n; ++j) {
            const V t = (V)((I)lu[j * n + i] & INT64_MAX);  // |a|
            big = t > big ? t : big;                        // a NaN never wins
        }
        bad |= big == 0.0;
        scale[i] = 1.0 / big;
    }
    int64_t j = 0;
    for (; j + 1 < n; j += 2) {
        V* const pair[2] = {lu + j * n, lu + (j + 1) * n};
        eliminate<W, 2>(lu, pair, n, j);
        pivot_column<W>(lu, scale, pivots, n, j, bad);
        const V u = pair[1][j];
        const V* l = pair[0];
        for (int64_t i = j + 1; i < n; ++i) pair[1][i] -= l[i] * u;
        pivot_column<W>(lu, scale, pivots, n, j + 1, bad);
    }
    if (j < n) {
        V* const last[1] = {lu + j * n};
        eliminate<W, 1>(lu, last, n, j);
        pivot_column<W>(lu, scale, pivots, n, j, bad);
    }
    for (int k = 0; k < W; ++k) singular[k] = bad[k] != 0;
}

// factor() for sparse matrices, with the same result to the bit. Each row
// carries, through the swaps, the first column where it is nonzero in some
// lane (first[i] lane by lane, row_first[i] over the lanes, given on entry
// for the matrices as they are); a row's factors before that column are
// zero. Column j starts where its entries before any elimination are zero
// in every lane (the top), and element (i, j) takes only the terms between
// the later of the top and its row's first column and min(i, j). Every term
// left out is a product with a zero; with finite factors it is +0.0 or
// -0.0, and subtracting it from a sum that is not -0.0 changes nothing. No
// sum here can be -0.0 (a difference is -0.0 only when its first operand
// is) as long as no entry of the matrix is -0.0. So the result is factor()'s
// where the matrix holds no -0.0 and the factors come out finite; the caller
// checks the matrix, `found` flags (top bit) the lanes whose factors are
// not all finite. Rows go in increasing order, which finishes every entry of
// the column before it is used. scale holds the rows' largest magnitudes on
// entry. The upper factor's row i is left nonzero only in the columns
// ulist[i * n .. i * n + ucount[i]), increasing.
template <int W>
SBAS_LANES_INLINE void factor_sparse(typename Vectors<W>::V* lu, typename Vectors<W>::V* scale,
                                     typename Vectors<W>::I* first, int* row_first, int* pivots, int* ucount,
                                     int* ulist, int64_t n, bool* singular, typename Vectors<W>::B& found)
{
    using V = typename Vectors<W>::V;
    using I = typename Vectors<W>::I;
    I bad = {};
    for (int64_t i = 0; i < n; ++i) {
        bad |= scale[i] == 0.0;
        scale[i] = 1.0 / scale[i];
        ucount[i] = 0;
    }
    for (int64_t j = 0; j < n; ++j) {
        V* col = lu + j * n;
        int64_t top = 0;
        while (top < n && !any_nonzero<W>(col[top])) ++top;
        // Rows from `bottom` on start past column j: zero there in every
        // lane, before and after the elimination.
        int64_t bottom = n;
        while (bottom > 0 && row_first[bottom - 1] > j) --bottom;
        for (int64_t i = top; i < bottom; ++i) {
            const int64_t lo = std::max<int64_t>(row_first[i], top);
            const int64_t hi = std::min(i, j);
            if (lo < hi) {
                V acc = col[i];
                for (int64_t q = lo; q < hi; ++q) acc -= lu[q * n + i] * col[q];
                col[i] = acc;
                flag_nonfinite<W>(found, acc);
            }
            if (i < j && any_nonzero<W>(col[i])) ulist[i * n + ucount[i]++] = static_cast<int>(j);
        }
        // The pivot, as pivot_column, the row swap carrying the rows' first
        // columns along.
        // A zero below `bottom` is taken only while nothing larger has been
        // seen; the rows past it are searched only for a lane that has not.
        V big = {};
        I pivot = I{} + j;
        const auto search = [&](int64_t from, int64_t to) {
            for (int64_t i = from; i < to; ++i) {
                const V d = scale[i] * (V)((I)col[i] & INT64_MAX);
                const I take = d >= big;
                big = take ? d : big;
                pivot = take ? I{} + i : pivot;
            }
        };
        const int64_t below = std::max(j, bottom);
        search(j, below);
        if (!all_positive<W>(big)) search(below, n);
        bool swapped = false;
        for (int k = 0; k < W; ++k) {
            const int64_t r = pivot[k];
            pivots[j * W + k] = static_cast<int>(r);
            if (r == j) continue;
            swapped = true;
            for (int64_t q = 0; q < n; ++q) {
                const double t = lu[q * n + r][k];
                lu[q * n + r][k] = lu[q * n + j][k];
                lu[q * n + j][k] = t;
            }
            scale[r][k] = scale[j][k];
            const int64_t f = first[r][k];
            first[r][k] = first[j][k];
            first[j][k] = f;
        }
        if (swapped) {
            row_first[j] = lowest<W>(first[j]);
            for (int k = 0; k < W; ++k) row_first[pivot[k]] = lowest<W>(first[pivot[k]]);
        }
        bad |= col[j] == 0.0;
        if (j != n - 1) {
            // The zeros past `bottom` are left as they are (those factors
            // are never read); their products with r are non-finite exactly
            // where r is, and flagged so.
            const V r = 1.0 / col[j];
            const int64_t end = std::max(j + 1, bottom);
            for (int64_t i = j + 1; i < end; ++i) {
                col[i] *= r;
                flag_nonfinite<W>(found, col[i]);
            }
            if (end < n) flag_nonfinite<W>(found, r);
        }
    }
    for (int k = 0; k < W; ++k) singular[k] = bad[k] != 0;
}

// The columns c0 .. c0 + columns - 1 of the block of B that invert()
// solves, set to the permuted unit vectors of each lane, in
// xs; a missing column of the last block repeats the block's first, which
// then only computes the same values again. Returns the first row where any
// of them is not zero.
template <int W, int B>
SBAS_LANES_INLINE int64_t unit_columns(typename Vectors<W>::V* x, const int* position, int64_t c0, int64_t columns,
                                       int64_t n, typename Vectors<W>::V** xs)
{
    using V = typename Vectors<W>::V;
    int64_t lo = n;
    for (int s = 0; s < B; ++s) {
        xs[s] = x + (c0 + (s < columns ? s : 0)) * n;
        if (s >= columns) continue;
        for (int64_t i = 0; i < n; ++i) xs[s][i] = V{};
        for (int k = 0; k < W; ++k) {
            const int64_t at = position[(c0 + s) * W + k];
            xs[s][at][k] = 1.0;
            lo = std::min(lo, at);
        }
    }
    return lo;
}

// The inverse from the factors, column c of x (x[c * n + i]) being what
// lubksb leaves of unit vector c, lane by lane. ut holds the factors
// transposed (ut[i * n + j] = lu[j * n + i]) so that a row of either factor
// is contiguous; `position` holds, per lane, where each unit vector's one
// lands after the pivot swaps. Columns are solved four at a time, which
// keep the block in the first-level cache while the factors stream past.
template <int W>
SBAS_LANES_INLINE void invert(const typename Vectors<W>::V* ut, const int* position, int64_t n,
                              typename Vectors<W>::V* x)
{
    using V = typename Vectors<W>::V;
    constexpr int B = 4;
    for (int64_t c0 = 0; c0 < n; c0 += B) {
        const int64_t columns = std::min<int64_t>(B, n - c0);
        V* xs[B];
        const int64_t lo = unit_columns<W, B>(x, position, c0, columns, n, xs);
        // Forward substitution, element i: the terms l[i][j] x[j] over j < i
        // in increasing j (those before the lane's first nonzero entry add
        // nothing).
        for (int64_t i = lo + 1; i < n; ++i) {
            const V* u = ut + i * n;
            V acc[B];
            for (int s = 0; s < B; ++s) acc[s] = xs[s][i];
            for (int64_t j = lo; j < i; ++j) {
                const V l = u[j];
                for (int s = 0; s < B; ++s) acc[s] -= l * xs[s][j];
            }
            for (int s = 0; s < B; ++s) xs[s][i] = acc[s];
        }
        // Back substitution, element i: the terms u[i][j] x[j] over j > i in
        // increasing j, then the division by u[i][i].
        for (int64_t i = n - 1; i >= 0; --i) {
            const V* u = ut + i * n;
            V acc[B];
            for (int s = 0; s < B; ++s) acc[s] = xs[s][i];
            for (int64_t j = i + 1; j < n; ++j) {
                const V v = u[j];
                for (int s = 0; s < B; ++s) acc[s] -= v * xs[s][j];
            }
            const V d = u[i];
            for (int s = 0; s < B; ++s) xs[s][i] = acc[s] / d;
        }
    }
}

// invert() for sparse factors, with the same result to the bit, reading the
// factors in place (lu as factor_sparse leaves it): element i of the
// forward substitution takes the terms from its row's first column
// (row_first[i]: the lower factor is zero before it), the back substitution
// only the entries of the upper factor's row i in ulist. As in
// factor_sparse, every term left out is a zero product that changes no sum,
// provided the factors and the solution are finite; `found` flags (top bit)
// the lanes whose solution is not. The unit vectors are not written out:
// each element starts from its entry, 1.0 where the lane's one lands and
// +0.0 elsewhere, formed where it is first read.
template <int W>
SBAS_LANES_INLINE void invert_sparse(const typename Vectors<W>::V* lu, const int* position, const int* row_first,
                                     const int* ucount, const int* ulist, int64_t n, typename Vectors<W>::V* x,
                                     typename Vectors<W>::B& found)
{
    using V = typename Vectors<W>::V;
    using I = typename Vectors<W>::I;
    using Bits = typename Vectors<W>::B;
    constexpr int B = 4;
    const Bits one = (Bits)(V{} + 1.0);
    for (int64_t c0 = 0; c0 < n; c0 += B) {
        const int64_t columns = std::min<int64_t>(B, n - c0);
        // A missing column of the last block repeats the block's first,
        // which then only computes the same values again.
        V* xs[B];
        I at[B];
        int64_t lo = n;
        for (int s = 0; s < B; ++s) {
            const int64_t c = c0 + (s < columns ? s : 0);
            xs[s] = x + c * n;
            for (int k = 0; k < W; ++k) {
                at[s][k] = position[c * W + k];
                lo = std::min<int64_t>(lo, at[s][k]);
            }
        }
#define SBAS_UNIT(s, i) ((V)((Bits)(at[s] == (i)) & one))
        for (int s = 0; s < B; ++s) xs[s][lo] = SBAS_UNIT(s, lo);
        for (int64_t i = lo + 1; i < n; ++i) {
            V acc[B];
            for (int s = 0; s < B; ++s) acc[s] = SBAS_UNIT(s, i);
            for (int64_t j = std::max<int64_t>(row_first[i], lo); j < i; ++j) {
                const V l = lu[j * n + i];
                for (int s = 0; s < B; ++s) acc[s] -= l * xs[s][j];
            }
            for (int s = 0; s < B; ++s) xs[s][i] = acc[s];
        }
        for (int64_t i = n - 1; i >= 0; --i) {
            V acc[B];
            for (int s = 0; s < B; ++s) acc[s] = i >= lo ? xs[s][i] : SBAS_UNIT(s, i);
            const int* list = ulist + i * n;
            for (int t = 0; t < ucount[i]; ++t) {
                const int64_t j = list[t];
                const V v = lu[j * n + i];
                for (int s = 0; s < B; ++s) acc[s] -= v * xs[s][j];
            }
            const V d = lu[i * n + i];
            for (int s = 0; s < B; ++s) {
                xs[s][i] = acc[s] / d;
                flag_nonfinite<W>(found, xs[s][i]);
            }
        }
#undef SBAS_UNIT
    }
}

// Transposes the W x W block r (r[k][t] becomes r[t][k]) with rounds of
// shuffles.
template <int W>
SBAS_LANES_INLINE void transpose(typename Vectors<W>::V* r)
{
    using V = typename Vectors<W>::V;
    if constexpr (W == 2) {
        const V a = __builtin_shufflevector(r[0], r[1], 0, 2);
        r[1] = __builtin_shufflevector(r[0], r[1], 1, 3);
        r[0] = a;
    } else if constexpr (W == 4) {
        V s[4];
        for (int k = 0; k < 4; k += 2) {
            s[k] = __builtin_shufflevector(r[k], r[k + 1], 0, 4, 2, 6);
            s[k + 1] = __builtin_shufflevector(r[k], r[k + 1], 1, 5, 3, 7);
        }
        for (int t = 0; t < 2; ++t) {
            r[t] = __builtin_shufflevector(s[t], s[t + 2], 0, 1, 4, 5);
            r[t + 2] = __builtin_shufflevector(s[t], s[t + 2], 2, 3, 6, 7);
        }
    } else {
        static_assert(W == 8);
        V s[8], u[8];
        for (int k = 0; k < 8; k += 2) {
            s[k] = __builtin_shufflevector(r[k], r[k + 1], 0, 8, 2, 10, 4, 12, 6, 14);
            s[k + 1] = __builtin_shufflevector(r[k], r[k + 1], 1, 9, 3, 11, 5, 13, 7, 15);
        }
        for (int k = 0; k < 8; k += 4)
            for (int o = 0; o < 2; ++o) {
                u[k + o] = __builtin_shufflevector(s[k + o], s[k + 2 + o], 0, 1, 8, 9, 4, 5, 12, 13);
                u[k + 2 + o] = __builtin_shufflevector(s[k + o], s[k + 2 + o], 2, 3, 10, 11, 6, 7, 14, 15);
            }
        for (int t = 0; t < 4; ++t) {
            r[t] = __builtin_shufflevector(u[t], u[4 + t], 0, 1, 2, 3, 8, 9, 10, 11);
            r[t + 4] = __builtin_shufflevector(u[t], u[4 + t], 4, 5, 6, 7, 12, 13, 14, 15);
        }
    }
}

// Where the one of unit vector c lands after the swaps of lubksb (entry i
// with entry pivots[i], for i = 0 .. n-1), lane by lane: swap a list of the
// row labels the same way and read it backwards.
template <int W>
SBAS_LANES_INLINE void set_positions(const int* pivots, int* position, int* label, int64_t n)
{
    for (int k = 0; k < W; ++k) {
        for (int64_t i = 0; i < n; ++i) label[i] = static_cast<int>(i);
        for (int64_t i = 0; i < n; ++i) std::swap(label[i], label[pivots[i * W + k]]);
        for (int64_t i = 0; i < n; ++i) position[label[i] * W + k] = static_cast<int>(i);
    }
}

// Inverts the W matrices interleaved in `storage` (element (i, j) of lane k
// at lu[j * n + i][k], lu at the start of storage) and returns where their
// inverses lie, in the same layout (column c of lane k's inverse from
// solution + c * n). keep[k] is cleared where lane k's result is not its
// inverse: a singular matrix (`singular` set, the scalar routine leaves it
// as it was) or one where the lanes cannot vouch for the bits of
// matinv_acc, which must then invert the matrix itself (redo[k] set):
// factors that are not all finite, and with sparse matrices also a -0.0 or
// a non-finite entry in the matrix, a zero pivot or an inverse that is not
// all finite (so a kept lane's sparse inverse is all finite). Sparse
// matrices (rows that start, on the whole, far right of the first column:
// banded, or banded but for a few rows) take factor_sparse and
// invert_sparse, the others the dense kernels; `sparse` tells which.
template <int W>
SBAS_LANES_INLINE typename Vectors<W>::V* invert_interleaved(int64_t n, double* storage, int* pivots,
                                                             int* structure, bool* keep, bool* redo,
                                                             bool* singular, bool& sparse)
{
    using V = typename Vectors<W>::V;
    using I = typename Vectors<W>::I;
    using Bits = typename Vectors<W>::B;
    const int64_t cells = n * n;
    V* lu = reinterpret_cast<V*>(storage);
    V* ut = lu + cells;
    V* scale = ut + cells;
    I* first = reinterpret_cast<I*>(scale + n);
    int* position = pivots + n * W;
    int* label = position + n * W;
    int* row_first = structure;
    int* ucount = row_first + n;
    int* ulist = ucount + n;

    // Where each row starts, lane by lane, and what the matrices hold.
    // Also the rows' largest magnitudes, as factor() finds them (a NaN
    // never wins), for factor_sparse.
    Bits odd = {};
    for (int64_t i = 0; i < n; ++i) {
        first[i] = I{} + n;
        scale[i] = V{};
    }
    for (int64_t j = n - 1; j >= 0; --j)
        for (int64_t i = 0; i < n; ++i) {
            const V a = lu[j * n + i];
            first[i] = a != 0.0 ? I{} + j : first[i];
            flag_nonfinite<W>(odd, a);
            odd |= (Bits)((Bits)a == 0x8000000000000000ULL);  // -0.0
            const V t = (V)((I)a & INT64_MAX);
            scale[i] = t > scale[i] ? t : scale[i];
        }
    int64_t envelope = 0;
    for (int64_t i = 0; i < n; ++i) {
        row_first[i] = lowest<W>(first[i]);
        envelope += std::max<int64_t>(i - row_first[i], 0);
    }
    sparse = 4 * envelope <= cells;

    if (sparse) {
        Bits found = {};
        factor_sparse<W>(lu, scale, first, row_first, pivots, ucount, ulist, n, singular, found);
        set_positions<W>(pivots, position, label, n);
        // The solution goes where the transposed factors go on the dense way.
        invert_sparse<W>(lu, position, row_first, ucount, ulist, n, ut, found);
        for (int k = 0; k < W; ++k) {
            redo[k] = singular[k] || ((found[k] | odd[k]) >> 63) != 0;
            keep[k] = keep[k] && !redo[k];
        }
        return ut;
    }
    factor<W>(lu, scale, pivots, n, singular);
    Bits found = {};
    for (int64_t c = 0; c < cells; ++c) flag_nonfinite<W>(found, lu[c]);
    for (int k = 0; k < W; ++k) {
        redo[k] = !singular[k] && (found[k] >> 63) != 0;
        keep[k] = keep[k] && !singular[k] && !redo[k];
    }
    for (int64_t j = 0; j < n; ++j)
        for (int64_t i = 0; i < n; ++i) ut[i * n + j] = lu[j * n + i];
    set_positions<W>(pivots, position, label, n);
    // The solution takes the place of the factors.
    invert<W>(ut, position, n, lu);
    return lu;
}

// invert_interleaved for the W matrices from[k] (n x n): lane k's inverse
// goes to to[k] when keep[k] ends set; redo as there.
template <int W>
SBAS_LANES_INLINE void invert_lanes(const double* const* from, double* const* to, int64_t n, double* storage,
                                    int* pivots, int* structure, bool* keep, bool* redo)
{
    using V = typename Vectors<W>::V;
    using U = typename Vectors<W>::U;
    const int64_t cells = n * n;
    V* lu = reinterpret_cast<V*>(storage);

    // Interleaving: W consecutive elements of the W matrices are a W x W
    // block, transposed.
    int64_t q = 0;
    for (; q + W <= cells; q += W) {
        V r[W];
        for (int k = 0; k < W; ++k) r[k] = *reinterpret_cast<const U*>(from[k] + q);
        transpose<W>(r);
        for (int t = 0; t < W; ++t) lu[q + t] = r[t];
    }
    for (; q < cells; ++q)
        for (int k = 0; k < W; ++k) lu[q][k] = from[k][q];

    bool singular[W], sparse;
    const V* solution = invert_interleaved<W>(n, storage, pivots, structure, keep, redo, singular, sparse);

    q = 0;
    for (; q + W <= cells; q += W) {
        V r[W];
        for (int t = 0; t < W; ++t) r[t] = solution[q + t];
        transpose<W>(r);
        for (int k = 0; k < W; ++k)
            if (keep[k]) *reinterpret_cast<U*>(to[k] + q) = r[k];
    }
    for (; q < cells; ++q)
        for (int k = 0; k < W; ++k)
            if (keep[k]) to[k][q] = solution[q][k];
}

// Work storage of invert_lanes: factors, transposed factors, row scales and
// rows' first columns, lane-interleaved, on a 64-byte boundary; pivots,
// positions and labels; the sparse structure.
template <int W>
SBAS_LANES_INLINE double* lane_storage(LockstepScratch& scratch, int64_t n)
{
    scratch.storage.resize(static_cast<size_t>((2 * n * n + 2 * n) * W + 8));
    scratch.pivots.resize(static_cast<size_t>(3 * n * W));
    scratch.structure.resize(static_cast<size_t>(n * n + 2 * n));
    const auto base = reinterpret_cast<uintptr_t>(scratch.storage.data());
    return reinterpret_cast<double*>((base + 63) / 64 * 64);
}

// matinv_lockstep with W lanes: the matrices in groups of W, a group's
// missing lanes filled with the identity, which keeps them finite.
template <int W>
SBAS_LANES_INLINE void matinv_group(double* const* a, int count, int64_t n, LockstepScratch& scratch)
{
    double* storage = lane_storage<W>(scratch, n);
    std::vector<double>& identity = scratch.identity;
    if (count % W != 0 && identity.size() != static_cast<size_t>(n * n)) {
        identity.assign(static_cast<size_t>(n * n), 0.0);
        for (int64_t i = 0; i < n; ++i) identity[static_cast<size_t>(i * n + i)] = 1.0;
    }
    for (int first = 0; first < count; first += W) {
        const double* from[W];
        double* to[W];
        bool keep[W], redo[W];
        for (int k = 0; k < W; ++k) {
            const bool real = first + k < count;
            from[k] = real ? a[first + k] : identity.data();
            to[k] = real ? a[first + k] : nullptr;
            keep[k] = real;
        }
        invert_lanes<W>(from, to, n, storage, scratch.pivots.data(), scratch.structure.data(), keep, redo);
        // What the lanes cannot vouch for is done by the scalar routine; a
        // singular matrix stays as it is.
        for (int k = 0; k < W && first + k < count; ++k)
            if (redo[k]) {
                std::vector<double> factors(static_cast<size_t>(n * n));
                std::vector<int> rows(static_cast<size_t>(n));
                matinv_acc(a[first + k], factors.data(), rows.data(), n);
            }
    }
}

SBAS_BY_WIDTH(void, matinv_by_width, matinv_group,
              (double* const* a, int count, int64_t n, LockstepScratch& scratch), (a, count, n, scratch))

// The normal matrices A^T W_k A of W one-pixel systems into lu
// (interleaved), each element as diagonal_normal_matrix forms it: the terms
// T[a, l] A[l, b] of the rows l in increasing order, T[a, l] = canon(A[l,
// a] w[l]). A row a system lacks has weight 0.0 there, and its terms,
// +0.0 or -0.0, change no sum (none is -0.0). w holds row l's weights from
// w[l * kLockstepLanes]. False where a T is not finite.
template <int W>
SBAS_LANES_INLINE bool normal_lanes(const SparseDesign& design, const double* w, int64_t L, int64_t M,
                                    typename Vectors<W>::V* lu)
{
    using V = typename Vectors<W>::V;
    using U = typename Vectors<W>::U;
    const int64_t* start = design.row_start.data();
    const int64_t* columns = design.columns.data();
    const double* values = design.values.data();
    for (int64_t q = 0; q < M * M; ++q) lu[q] = V{};
    typename Vectors<W>::B nonfinite = {};
    for (int64_t l = 0; l < L; ++l) {
        const V wl = *reinterpret_cast<const U*>(w + l * kLockstepLanes);
        for (int64_t p = start[l]; p < start[l + 1]; ++p) {
            const V t = values[p] * wl + 0.0;
            flag_nonfinite<W>(nonfinite, t);
            V* row = lu + columns[p];
            for (int64_t r = start[l]; r < start[l + 1]; ++r) row[columns[r] * M] += t * values[r];
        }
    }
    for (int k = 0; k < W; ++k)
        if (nonfinite[k] >> 63) return false;
    return true;
}

// Elements i0 .. i0 + R - 1 of the solutions x of W one-pixel systems from
// their inverses S (interleaved, column j from S + j * M), as
// diagonal_solution forms each: x[i] sums t w[l] y[l] over the rows l < n
// in increasing order from 0.0, t being the sum of S[i, j] A[l, j] over the
// row's entries, resumed after the skip[l] entries shared with the row
// before. A row a system lacks weighs 0.0 and adds +0.0 or -0.0 (t is finite
// when S is), which changes nothing. The rows from n on are only checked:
// `nonfinite` flags the lanes where t w[l] is not finite.
//
// With S finite a term S[i, j] * 1.0 is S[i, j] itself; and the weights of
// the rows below n being 1.0 or 0.0, with y 0.0 where they are 0.0, t w[l]
// y[l] is t y[l] where the row weighs 1.0 and adds +0.0 or -0.0 either way
// where it weighs 0.0: those products are left out.
template <int W, int R>
SBAS_LANES_INLINE void solution_lanes(const SparseDesign& design, const int64_t* skip, int64_t L, int64_t n,
                                      const double* w, const double* y, const typename Vectors<W>::V* S, int64_t M,
                                      int64_t i0, typename Vectors<W>::V* x, typename Vectors<W>::B& nonfinite)
{
    using V = typename Vectors<W>::V;
    using U = typename Vectors<W>::U;
    const int64_t* start = design.row_start.data();
    const int64_t* columns = design.columns.data();
    const double* values = design.values.data();
    V t[R] = {}, acc[R] = {};
    for (int64_t l = 0; l < L; ++l) {
        if (skip[l] == 0)
            for (int v = 0; v < R; ++v) t[v] = V{};
        for (int64_t p = start[l] + skip[l]; p < start[l + 1]; ++p) {
            const double a = values[p];
            const V* column = S + columns[p] * M + i0;
            if (a == 1.0)
                for (int v = 0; v < R; ++v) t[v] += column[v];
            else
                for (int v = 0; v < R; ++v) t[v] += column[v] * a;
        }
        const V wl = *reinterpret_cast<const U*>(w + l * kLockstepLanes);
        if (l < n) {
            const V yl = *reinterpret_cast<const U*>(y + l * kLockstepLanes);
            for (int v = 0; v < R; ++v) acc[v] = acc[v] + t[v] * yl;
        } else {
            for (int v = 0; v < R; ++v) flag_nonfinite<W>(nonfinite, t[v] * wl);
        }
    }
    for (int v = 0; v < R; ++v) x[i0 + v] = acc[v];
}

// solve_side_by_side with W lanes, the systems in groups of W.
template <int W>
SBAS_LANES_INLINE bool side_by_side(const SparseDesign& design, const int64_t* skip, int64_t L, int64_t n,
                                    int64_t M, const double* w, const double* y, int count, double* x,
                                    LockstepScratch& scratch)
{
    using V = typename Vectors<W>::V;
    using U = typename Vectors<W>::U;
    double* storage = lane_storage<W>(scratch, M);
    V* lu = reinterpret_cast<V*>(storage);
    for (int g = 0; g < count; g += W) {
        if (!normal_lanes<W>(design, w + g, L, M, lu)) return false;
        bool keep[W], redo[W], singular[W], sparse;
        for (int k = 0; k < W; ++k) keep[k] = true;
        const V* S = invert_interleaved<W>(M, storage, scratch.pivots.data(), scratch.structure.data(), keep, redo,
                                           singular, sparse);
        if (!sparse) return false;
        for (int k = 0; k < W; ++k)
            if (!keep[k]) return false;
        // The solutions take the place of the factors.
        typename Vectors<W>::B nonfinite = {};
        for (int64_t i0 = 0; i0 < M; i0 += 8) {
            switch (std::min<int64_t>(8, M - i0)) {
#define SBAS_SOLUTION_LANES(R) solution_lanes<W, R>(design, skip, L, n, w + g, y + g, S, M, i0, lu, nonfinite)
                case 8: SBAS_SOLUTION_LANES(8); break;
                case 7: SBAS_SOLUTION_LANES(7); break;
                case 6: SBAS_SOLUTION_LANES(6); break;
                case 5: SBAS_SOLUTION_LANES(5); break;
                case 4: SBAS_SOLUTION_LANES(4); break;
                case 3: SBAS_SOLUTION_LANES(3); break;
                case 2: SBAS_SOLUTION_LANES(2); break;
                default: SBAS_SOLUTION_LANES(1); break;
#undef SBAS_SOLUTION_LANES
            }
        }
        // A t w[l] that is not finite leaves x not finite (times y[l], even
        // 0.0, it is an infinity or a NaN, and neither leaves a sum).
        for (int64_t i = 0; i < M; ++i) flag_nonfinite<W>(nonfinite, lu[i]);
        for (int k = 0; k < W; ++k)
            if (nonfinite[k] >> 63) return false;
        for (int64_t i = 0; i < M; ++i) *reinterpret_cast<U*>(x + i * kLockstepLanes + g) = lu[i];
    }
    return true;
}

SBAS_BY_WIDTH(bool, side_by_side_by_width, side_by_side,
              (const SparseDesign& design, const int64_t* skip, int64_t L, int64_t n, int64_t M, const double* w,
               const double* y, int count, double* x, LockstepScratch& scratch),
              (design, skip, L, n, M, w, y, count, x, scratch))

// Rows i0 .. i0+R-1 of the solutions p0 .. p0 + V*W - 1 (lanes: solutions).
template <int W, int R, int P>
SBAS_LANES_INLINE void product_block(const double* E, int64_t ldE, int64_t n, const double* Y, int64_t ldY,
                                     double* X, int64_t ldX, int64_t i0, int64_t p0)
{
    using V = typename Vectors<W>::V;
    using U = typename Vectors<W>::U;
    V acc[R][P] = {};
    for (int64_t l = 0; l < n; ++l) {
        V y[P];
        for (int v = 0; v < P; ++v) y[v] = *reinterpret_cast<const U*>(Y + l * ldY + p0 + v * W);
        const double* e = E + l * ldE + i0;
        for (int r = 0; r < R; ++r)
            for (int v = 0; v < P; ++v) acc[r][v] += e[r] * y[v];
    }
    for (int r = 0; r < R; ++r)
        for (int v = 0; v < P; ++v) *reinterpret_cast<U*>(X + (i0 + r) * ldX + p0 + v * W) = acc[r][v];
}

template <int W, int P>
SBAS_LANES_INLINE void product_solutions(const double* E, int64_t ldE, int64_t M, int64_t n, const double* Y,
                                         int64_t ldY, double* X, int64_t ldX, int64_t p0)
{
    int64_t i0 = 0;
    for (; i0 + 2 <= M; i0 += 2) product_block<W, 2, P>(E, ldE, n, Y, ldY, X, ldX, i0, p0);
    if (i0 < M) product_block<W, 1, P>(E, ldE, n, Y, ldY, X, ldX, i0, p0);
}

// One solution p with E's rows in the lanes, R vectors (R * W rows) from i0.
template <int W, int R>
SBAS_LANES_INLINE void product_rows(const double* E, int64_t ldE, int64_t M, int64_t n, const double* Y,
                                    int64_t ldY, double* X, int64_t ldX, int64_t i0, int64_t p)
{
    using V = typename Vectors<W>::V;
    using U = typename Vectors<W>::U;
    V acc[R] = {};
    for (int64_t l = 0; l < n; ++l) {
        const double y = Y[l * ldY + p];
        const double* e = E + l * ldE + i0;
        for (int v = 0; v < R; ++v) acc[v] += *reinterpret_cast<const U*>(e + v * W) * y;
    }
    for (int v = 0; v < R; ++v)
        for (int k = 0; k < W && i0 + v * W + k < M; ++k) X[(i0 + v * W + k) * ldX + p] = acc[v][k];
}

template <int W>
SBAS_LANES_INLINE void products_lanes(const double* E, int64_t ldE, int64_t M, int64_t n, const double* Y,
                                      int64_t ldY, int64_t count, double* X, int64_t ldX)
{
    // Solutions in the lanes while W are left, then one at a time with rows
    // of E in the lanes: up to eight vectors a pass, as many independent
    // sums as hide the latency of the additions, never past M rounded up to
    // W (at most to 8, which the caller's ldE allows).
    int64_t p = 0;
    for (; p + 2 * W <= count; p += 2 * W) product_solutions<W, 2>(E, ldE, M, n, Y, ldY, X, ldX, p);
    for (; p + W <= count; p += W) product_solutions<W, 1>(E, ldE, M, n, Y, ldY, X, ldX, p);
    const int64_t blocks = (M + W - 1) / W;
    for (; p < count; ++p) {
        int64_t b = 0;
        for (; b + 8 <= blocks; b += 8) product_rows<W, 8>(E, ldE, M, n, Y, ldY, X, ldX, b * W, p);
        if (b + 4 <= blocks) product_rows<W, 4>(E, ldE, M, n, Y, ldY, X, ldX, b * W, p), b += 4;
        if (b + 2 <= blocks) product_rows<W, 2>(E, ldE, M, n, Y, ldY, X, ldX, b * W, p), b += 2;
        if (b < blocks) product_rows<W, 1>(E, ldE, M, n, Y, ldY, X, ldX, b * W, p);
    }
}

SBAS_BY_WIDTH(void, products_by_width, products_lanes,
              (const double* E, int64_t ldE, int64_t M, int64_t n, const double* Y, int64_t ldY, int64_t count,
               double* X, int64_t ldX),
              (E, ldE, M, n, Y, ldY, count, X, ldX))

}  // namespace

void matinv_lockstep(double* const* a, int count, int64_t n, LockstepScratch& scratch)
{
    if (n < 1 || count < 1) return;
    matinv_by_width(a, std::min(count, kLockstepLanes), n, scratch);
}

bool solve_side_by_side(const SparseDesign& design, const int64_t* skip, int64_t L, int64_t n, int64_t M,
                        const double* w, const double* y, int count, double* x, LockstepScratch& scratch)
{
    if (L < 1 || M < 1 || count < 1 || count > kLockstepLanes) return false;
    // The zero terms are skipped only with finite factors.
    if (!all_finite(design.values.data(), design.row_start[L]) || !all_finite(w, L * kLockstepLanes)) return false;
    // An observation weighs 1.0, or 0.0 and observes 0.0 (solution_lanes).
    bool plain = true;
    for (int64_t q = 0; q < n * kLockstepLanes; ++q) plain &= w[q] == 1.0 || (w[q] == 0.0 && y[q] == 0.0);
    if (!plain) return false;
    return side_by_side_by_width(design, skip, L, n, M, w, y, count, x, scratch);
}

void products(const double* E, int64_t ldE, int64_t M, int64_t n, const double* Y, int64_t ldY, int64_t count,
              double* X, int64_t ldX)
{
    if (M < 1 || count < 1) return;
    products_by_width(E, ldE, M, n, Y, ldY, count, X, ldX);
}

}  // namespace lib
