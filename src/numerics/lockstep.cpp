// Several small dense problems worked through side by side.
//
// matinv_lockstep inverts eight matrices at once, one per lane of a vector
// of eight doubles: element k of every vector belongs to matrix k. Each lane
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
// over l of E[i, l] Y[l, p] from 0.0 in increasing l: with eight or more
// right-hand sides these fill the lanes and a block of sums stays in
// registers; a right-hand side left alone has up to 64 rows of E in the
// lanes of eight registers.
//
// Each kernel is compiled for AVX-512, for AVX2 and for the x86-64 baseline
// and the machine's best runs (numerics/lanes.h).
#include "numerics/lockstep.h"

#include <algorithm>
#include <cstdint>

#include "numerics/lanes.h"
#include "numerics/linalg.h"

namespace lib {
namespace {

constexpr int W = kLanes;
static_assert(kLockstepLanes == kLanes);

#define SBAS_LANE_INLINE [[gnu::always_inline]] inline

// Rows i0 .. i0+B-1 of the C vectors v[c] (n lanes each) take, in
// increasing q, the terms v[c][i] -= lu[q * n + i] * v[c][q] for lo <= q <
// min(i, hi). This is the Crout column step (v columns of the factors, lo =
// 0, hi = the first column's index) and forward substitution (v a
// right-hand side, hi = n). Entries of v before i0 must be final; the C
// vectors share every load of lu.
template <int B, int C>
SBAS_LANE_INLINE void eliminate_rows(const Lanes* lu, Lanes* const* v, int64_t n, int64_t i0, int64_t lo,
                                     int64_t hi)
{
    Lanes acc[C][B];
    for (int c = 0; c < C; ++c)
        for (int r = 0; r < B; ++r) acc[c][r] = v[c][i0 + r];
    const int64_t common = std::min(i0, hi);
    for (int64_t q = lo; q < common; ++q) {
        const Lanes* l = lu + q * n + i0;
        Lanes u[C];
        for (int c = 0; c < C; ++c) u[c] = v[c][q];
        for (int r = 0; r < B; ++r) {
            const Lanes lr = l[r];
            for (int c = 0; c < C; ++c) acc[c][r] -= lr * u[c];
        }
    }
    // Within the block: row i0 + s is final once its terms below i0 + s are in.
#pragma GCC unroll 8
    for (int s = 0; s < B; ++s) {
        const int64_t q = i0 + s;
        if (q < lo || q >= hi) continue;
        const Lanes* l = lu + q * n + i0;
#pragma GCC unroll 8
        for (int r = s + 1; r < B; ++r)
            for (int c = 0; c < C; ++c) acc[c][r] -= l[r] * acc[c][s];
    }
    for (int c = 0; c < C; ++c)
        for (int r = 0; r < B; ++r) v[c][i0 + r] = acc[c][r];
}

template <int C>
SBAS_LANE_INLINE void eliminate(const Lanes* lu, Lanes* const* v, int64_t n, int64_t first, int64_t lo, int64_t hi)
{
    // The rows left over by the blocks are taken first, where the sums are
    // shortest.
    constexpr int B = 4;
    int64_t i0 = first;
    for (; (n - i0) % B != 0; ++i0) eliminate_rows<1, C>(lu, v, n, i0, lo, hi);
    for (; i0 < n; i0 += B) eliminate_rows<B, C>(lu, v, n, i0, lo, hi);
}

// The end of Crout's step for column j, whose entries have all their terms:
// the pivot (largest scaled magnitude, ties to the later row), the row swap
// lane by lane, and the division below the pivot.
SBAS_LANE_INLINE void pivot_column(Lanes* lu, Lanes* scale, int* pivots, int64_t n, int64_t j, LaneInts& bad)
{
    Lanes* col = lu + j * n;
    Lanes big = {};
    LaneInts pivot = LaneInts{} + j;
    for (int64_t i = j; i < n; ++i) {
        const Lanes d = scale[i] * (Lanes)((LaneInts)col[i] & INT64_MAX);
        const LaneInts take = d >= big;
        big = take ? d : big;
        pivot = take ? LaneInts{} + i : pivot;
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
        const Lanes r = 1.0 / col[j];
        for (int64_t i = j + 1; i < n; ++i) col[i] *= r;
    }
}

// Crout factorisation of the eight matrices interleaved in lu (element
// (i, j) of lane k at lu[j * n + i][k]), each as ludcmp does it; pivots[j *
// W + k] receives lane k's pivot row of column j, singular[k] is nonzero
// when lane k's matrix is singular. Columns go in pairs: the terms of the
// columns before the pair are taken for both at once; the second column
// takes the term of the first once that one is final. A row swap of the
// first column moves the second column's partial sums along with the rows
// of the factors they were formed from, so every element sees the terms the
// scalar routine gives it, in its order.
SBAS_LANE_INLINE void factor(Lanes* lu, Lanes* scale, int* pivots, int64_t n, int64_t* singular)
{
    LaneInts bad = {};
    for (int64_t i = 0; i < n; ++i) {
        Lanes big = {};
        for (int64_t j = 0; j < n; ++j) {
            const Lanes t = (Lanes)((LaneInts)lu[j * n + i] & INT64_MAX);  // |a|
            big = t > big ? t : big;  // a NaN never wins
        }
        bad |= big == 0.0;
        scale[i] = 1.0 / big;
    }
    int64_t j = 0;
    for (; j + 1 < n; j += 2) {
        Lanes* const pair[2] = {lu + j * n, lu + (j + 1) * n};
        eliminate<2>(lu, pair, n, 0, 0, j);
        pivot_column(lu, scale, pivots, n, j, bad);
        const Lanes u = pair[1][j];
        const Lanes* l = pair[0];
        for (int64_t i = j + 1; i < n; ++i) pair[1][i] -= l[i] * u;
        pivot_column(lu, scale, pivots, n, j + 1, bad);
    }
    if (j < n) {
        Lanes* const last[1] = {lu + j * n};
        eliminate<1>(lu, last, n, 0, 0, j);
        pivot_column(lu, scale, pivots, n, j, bad);
    }
    for (int k = 0; k < W; ++k) singular[k] = bad[k];
}

// Lanes whose factors hold an infinity or a NaN (exponent bits all ones).
SBAS_LANE_INLINE void find_nonfinite(const Lanes* lu, int64_t cells, int64_t* nonfinite)
{
    LaneBits found = {};
    for (int64_t q = 0; q < cells; ++q) SBAS_FLAG_NONFINITE(found, lu[q]);
    for (int k = 0; k < W; ++k) nonfinite[k] = static_cast<int64_t>(found[k] >> 63);
}

// The inverse from the factors, column c of x (x[c * n + i]) being what
// lubksb leaves of unit vector c, lane by lane. ut holds the factors
// transposed (ut[i * n + j] = lu[j * n + i]) so that a row of either factor
// is contiguous; `position` holds, per lane, where each unit vector's one
// lands after the pivot swaps. Columns are solved four at a time, which
// keep the block in the first-level cache while the factors stream past.
SBAS_LANE_INLINE void invert(const Lanes* ut, const int* position, int64_t n, Lanes* x)
{
    constexpr int B = 4;
    for (int64_t c0 = 0; c0 < n; c0 += B) {
        const int64_t columns = std::min<int64_t>(B, n - c0);
        Lanes* xs[B];
        int64_t lo = n;
        for (int s = 0; s < B; ++s) {
            // A missing column of the last block repeats the block's first.
            xs[s] = x + (c0 + (s < columns ? s : 0)) * n;
            if (s >= columns) continue;
            for (int64_t i = 0; i < n; ++i) xs[s][i] = Lanes{};
            for (int k = 0; k < W; ++k) {
                const int64_t at = position[(c0 + s) * W + k];
                xs[s][at][k] = 1.0;
                lo = std::min(lo, at);
            }
        }
        // Forward substitution, element i: the terms l[i][j] x[j] over j < i
        // in increasing j (those before the lane's first nonzero entry add
        // nothing).
        for (int64_t i = lo + 1; i < n; ++i) {
            const Lanes* u = ut + i * n;
            Lanes acc[B];
            for (int s = 0; s < B; ++s) acc[s] = xs[s][i];
            for (int64_t j = lo; j < i; ++j) {
                const Lanes l = u[j];
                for (int s = 0; s < B; ++s) acc[s] -= l * xs[s][j];
            }
            for (int s = 0; s < B; ++s) xs[s][i] = acc[s];
        }
        // Back substitution, element i: the terms u[i][j] x[j] over j > i in
        // increasing j, then the division by u[i][i].
        for (int64_t i = n - 1; i >= 0; --i) {
            const Lanes* u = ut + i * n;
            Lanes acc[B];
            for (int s = 0; s < B; ++s) acc[s] = xs[s][i];
            for (int64_t j = i + 1; j < n; ++j) {
                const Lanes v = u[j];
                for (int s = 0; s < B; ++s) acc[s] -= v * xs[s][j];
            }
            const Lanes d = u[i];
            for (int s = 0; s < B; ++s) xs[s][i] = acc[s] / d;
        }
    }
}

// Transposes the 8 x 8 block r (r[k][t] becomes r[t][k]) with three rounds
// of shuffles.
SBAS_LANE_INLINE void transpose8(Lanes* r)
{
    Lanes s[W], u[W];
    for (int k = 0; k < W; k += 2) {
        s[k] = __builtin_shufflevector(r[k], r[k + 1], 0, 8, 2, 10, 4, 12, 6, 14);
        s[k + 1] = __builtin_shufflevector(r[k], r[k + 1], 1, 9, 3, 11, 5, 13, 7, 15);
    }
    for (int k = 0; k < W; k += 4)
        for (int o = 0; o < 2; ++o) {
            u[k + o] = __builtin_shufflevector(s[k + o], s[k + 2 + o], 0, 1, 8, 9, 4, 5, 12, 13);
            u[k + 2 + o] = __builtin_shufflevector(s[k + o], s[k + 2 + o], 2, 3, 10, 11, 6, 7, 14, 15);
        }
    for (int t = 0; t < 4; ++t) {
        r[t] = __builtin_shufflevector(u[t], u[4 + t], 0, 1, 2, 3, 8, 9, 10, 11);
        r[t + 4] = __builtin_shufflevector(u[t], u[4 + t], 4, 5, 6, 7, 12, 13, 14, 15);
    }
}

// Interleaves the `cells` doubles of the eight blocks from[k] into lanes:
// lu[q][k] = from[k][q].
SBAS_VECTOR_CLONES
void interleave(const double* const* from, int64_t cells, Lanes* lu)
{
    int64_t q = 0;
    for (; q + W <= cells; q += W) {
        Lanes r[W];
        for (int k = 0; k < W; ++k) r[k] = *reinterpret_cast<const LanesU*>(from[k] + q);
        transpose8(r);
        for (int t = 0; t < W; ++t) lu[q + t] = r[t];
    }
    for (; q < cells; ++q)
        for (int k = 0; k < W; ++k) lu[q][k] = from[k][q];
}

// The inverse, lane k's, back into to[k] for the lanes with `keep[k]` set.
SBAS_VECTOR_CLONES
void deinterleave(const Lanes* lu, int64_t cells, double* const* to, const bool* keep)
{
    int64_t q = 0;
    for (; q + W <= cells; q += W) {
        Lanes r[W];
        for (int t = 0; t < W; ++t) r[t] = lu[q + t];
        transpose8(r);
        for (int k = 0; k < W; ++k)
            if (keep[k]) *reinterpret_cast<LanesU*>(to[k] + q) = r[k];
    }
    for (; q < cells; ++q)
        for (int k = 0; k < W; ++k)
            if (keep[k]) to[k][q] = lu[q][k];
}

SBAS_VECTOR_CLONES
void invert_lanes(Lanes* lu, Lanes* ut, Lanes* scale, int* pivots, int* position, int64_t n, int64_t* singular,
                  int64_t* nonfinite)
{
    factor(lu, scale, pivots, n, singular);
    find_nonfinite(lu, n * n, nonfinite);
    for (int64_t j = 0; j < n; ++j)
        for (int64_t i = 0; i < n; ++i) ut[i * n + j] = lu[j * n + i];
    // Where the one of unit vector c lands after the swaps of lubksb
    // (entry i with entry pivots[i], for i = 0 .. n-1): swap a list of the
    // row labels the same way and read it backwards.
    int* label = position + n * W;
    for (int k = 0; k < W; ++k) {
        for (int64_t i = 0; i < n; ++i) label[i] = static_cast<int>(i);
        for (int64_t i = 0; i < n; ++i) std::swap(label[i], label[pivots[i * W + k]]);
        for (int64_t i = 0; i < n; ++i) position[label[i] * W + k] = static_cast<int>(i);
    }
    // The solution takes the place of the factors.
    invert(ut, position, n, lu);
}

// Rows i0 .. i0+R-1 of the solutions p0 .. p0 + V*W - 1 (lanes: solutions).
template <int R, int V>
SBAS_LANE_INLINE void product_block(const double* E, int64_t ldE, int64_t n, const double* Y, int64_t ldY,
                                    double* X, int64_t ldX, int64_t i0, int64_t p0)
{
    Lanes acc[R][V] = {};
    for (int64_t l = 0; l < n; ++l) {
        Lanes y[V];
        for (int v = 0; v < V; ++v) y[v] = *reinterpret_cast<const LanesU*>(Y + l * ldY + p0 + v * W);
        const double* e = E + l * ldE + i0;
        for (int r = 0; r < R; ++r)
            for (int v = 0; v < V; ++v) acc[r][v] += e[r] * y[v];
    }
    for (int r = 0; r < R; ++r)
        for (int v = 0; v < V; ++v) *reinterpret_cast<LanesU*>(X + (i0 + r) * ldX + p0 + v * W) = acc[r][v];
}

template <int V>
SBAS_LANE_INLINE void product_solutions(const double* E, int64_t ldE, int64_t M, int64_t n, const double* Y,
                                        int64_t ldY, double* X, int64_t ldX, int64_t p0)
{
    int64_t i0 = 0;
    for (; i0 + 2 <= M; i0 += 2) product_block<2, V>(E, ldE, n, Y, ldY, X, ldX, i0, p0);
    if (i0 < M) product_block<1, V>(E, ldE, n, Y, ldY, X, ldX, i0, p0);
}

// One solution p with E's rows in the lanes, V * W rows from i0 at a time.
template <int V>
SBAS_LANE_INLINE void product_rows(const double* E, int64_t ldE, int64_t M, int64_t n, const double* Y, int64_t ldY,
                                   double* X, int64_t ldX, int64_t i0, int64_t p)
{
    Lanes acc[V] = {};
    for (int64_t l = 0; l < n; ++l) {
        const double y = Y[l * ldY + p];
        const double* e = E + l * ldE + i0;
        for (int v = 0; v < V; ++v) acc[v] += *reinterpret_cast<const LanesU*>(e + v * W) * y;
    }
    for (int v = 0; v < V; ++v)
        for (int k = 0; k < W && i0 + v * W + k < M; ++k) X[(i0 + v * W + k) * ldX + p] = acc[v][k];
}

SBAS_VECTOR_CLONES
void products_kernel(const double* E, int64_t ldE, int64_t M, int64_t n, const double* Y, int64_t ldY,
                     int64_t count, double* X, int64_t ldX)
{
    // Solutions in the lanes while eight are left, then one at a time with
    // E's rows in the lanes.
    int64_t p = 0;
    for (; p + 2 * W <= count; p += 2 * W) product_solutions<2>(E, ldE, M, n, Y, ldY, X, ldX, p);
    for (; p + W <= count; p += W) product_solutions<1>(E, ldE, M, n, Y, ldY, X, ldX, p);
    // Up to 64 rows a pass: that many independent sums hide the latency of
    // the additions.
    // Up to 64 rows a pass, as many independent sums as hide the latency of
    // the additions, never past M rounded up to 8.
    const int64_t blocks = (M + W - 1) / W;
    for (; p < count; ++p) {
        int64_t b = 0;
        for (; b + 8 <= blocks; b += 8) product_rows<8>(E, ldE, M, n, Y, ldY, X, ldX, b * W, p);
        if (b + 4 <= blocks) product_rows<4>(E, ldE, M, n, Y, ldY, X, ldX, b * W, p), b += 4;
        if (b + 2 <= blocks) product_rows<2>(E, ldE, M, n, Y, ldY, X, ldX, b * W, p), b += 2;
        if (b < blocks) product_rows<1>(E, ldE, M, n, Y, ldY, X, ldX, b * W, p);
    }
}

}  // namespace

void matinv_lockstep(double* const* a, int count, int64_t n, LockstepScratch& scratch)
{
    if (n < 1 || count < 1) return;
    count = std::min(count, W);
    const int64_t cells = n * n;
    // Factors (then the solution), transposed factors and row scales, each
    // lane-interleaved, on a 64-byte boundary.
    scratch.storage.resize(static_cast<size_t>((2 * cells + n + 1) * W));
    const auto base = reinterpret_cast<uintptr_t>(scratch.storage.data());
    auto* lu = reinterpret_cast<Lanes*>((base + sizeof(Lanes) - 1) / sizeof(Lanes) * sizeof(Lanes));
    Lanes* ut = lu + cells;
    Lanes* scale = ut + cells;
    scratch.pivots.resize(static_cast<size_t>(3 * n * W));
    int* pivots = scratch.pivots.data();
    int* position = pivots + n * W;

    // Lanes without a matrix carry the identity, which keeps them finite.
    const double* from[W];
    std::vector<double>& identity = scratch.identity;
    if (count < W) {
        identity.assign(static_cast<size_t>(cells), 0.0);
        for (int64_t i = 0; i < n; ++i) identity[static_cast<size_t>(i * n + i)] = 1.0;
    }
    for (int k = 0; k < W; ++k) from[k] = k < count ? a[k] : identity.data();
    interleave(from, cells, lu);
    int64_t singular[W], nonfinite[W];
    invert_lanes(lu, ut, scale, pivots, position, n, singular, nonfinite);
    // A matrix whose factors are not all finite is done by the scalar
    // routine; a singular one stays as it is.
    bool keep[W] = {};
    for (int k = 0; k < count; ++k) {
        keep[k] = !singular[k] && !nonfinite[k];
        if (!singular[k] && nonfinite[k]) {
            std::vector<double> factors(static_cast<size_t>(cells));
            std::vector<int> rows(static_cast<size_t>(n));
            matinv_acc(a[k], factors.data(), rows.data(), n);
        }
    }
    double* to[W];
    for (int k = 0; k < W; ++k) to[k] = k < count ? a[k] : nullptr;
    deinterleave(lu, cells, to, keep);
}

void products(const double* E, int64_t ldE, int64_t M, int64_t n, const double* Y, int64_t ldY, int64_t count,
              double* X, int64_t ldX)
{
    if (M < 1 || count < 1) return;
    products_kernel(E, ldE, M, n, Y, ldY, count, X, ldX);
}

}  // namespace lib
