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
// Two rearrangements keep every lane's sums while the loops suit vectors:
//  - Updates "v[i] -= l[i] * u" are made for a block of rows at once, the
//    sums held in registers; each element still takes its terms in
//    increasing index, and a term is formed only once its factor is final.
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
// registers; a right-hand side left alone has eight rows of E in the lanes.
//
// Each kernel is compiled for AVX-512, for AVX2 and for the x86-64 baseline
// and the machine's best runs (numerics/clones.h): eight lanes are one
// AVX-512 register, two AVX2 registers or four baseline ones.
#include "numerics/lockstep.h"

#include <algorithm>
#include <cstdint>

#include "numerics/clones.h"
#include "numerics/linalg.h"

namespace lib {
namespace {

constexpr int W = kLockstepLanes;
typedef double Lanes __attribute__((vector_size(W * sizeof(double))));
typedef int64_t LaneInts __attribute__((vector_size(W * sizeof(int64_t))));
// Lanes at the alignment of a double, for loads and stores of caller memory.
typedef double LanesU __attribute__((vector_size(W * sizeof(double)), aligned(sizeof(double))));

#define SBAS_LANE_KERNEL SBAS_VECTOR_CLONES
#define SBAS_LANE_INLINE [[gnu::always_inline]] inline

// Rows i0 .. i0+B-1 of v (n lanes vectors) take, in increasing q, the terms
// v[i] -= lu[q * n + i] * v[q] for lo <= q < min(i, hi). This is the Crout
// column step (v a column of the factors, lo = 0, hi = its column index)
// and forward substitution (v a right-hand side, hi = n). Entries of v
// before i0 must be final.
template <int B>
SBAS_LANE_INLINE void eliminate_rows(const Lanes* lu, Lanes* v, int64_t n, int64_t i0, int64_t lo, int64_t hi)
{
    Lanes acc[B];
    for (int r = 0; r < B; ++r) acc[r] = v[i0 + r];
    const int64_t common = std::min(i0, hi);
    for (int64_t q = lo; q < common; ++q) {
        const Lanes u = v[q];
        const Lanes* l = lu + q * n + i0;
        for (int r = 0; r < B; ++r) acc[r] -= l[r] * u;
    }
    // Within the block: row i0 + s is final once its terms below i0 + s are in.
#pragma GCC unroll 8
    for (int s = 0; s < B; ++s) {
        const int64_t q = i0 + s;
        if (q < lo || q >= hi) continue;
        const Lanes u = acc[s];
        const Lanes* l = lu + q * n + i0;
#pragma GCC unroll 8
        for (int r = s + 1; r < B; ++r) acc[r] -= l[r] * u;
    }
    for (int r = 0; r < B; ++r) v[i0 + r] = acc[r];
}

SBAS_LANE_INLINE void eliminate(const Lanes* lu, Lanes* v, int64_t n, int64_t first, int64_t lo, int64_t hi)
{
    // The rows left over by the blocks are taken first, where the sums are
    // shortest.
    constexpr int B = 4;
    int64_t i0 = first;
    for (; (n - i0) % B != 0; ++i0) eliminate_rows<1>(lu, v, n, i0, lo, hi);
    for (; i0 < n; i0 += B) eliminate_rows<B>(lu, v, n, i0, lo, hi);
}

// Crout factorisation of the eight matrices interleaved in lu (element
// (i, j) of lane k at lu[j * n + i][k]), each as ludcmp does it; pivots[j *
// W + k] receives lane k's pivot row of column j, singular[k] is nonzero
// when lane k's matrix is singular.
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
    for (int64_t j = 0; j < n; ++j) {
        Lanes* col = lu + j * n;
        eliminate(lu, col, n, 0, 0, j);
        // Pivot: the largest scaled magnitude, ties to the later row.
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
    for (int k = 0; k < W; ++k) singular[k] = bad[k];
}

// Lanes whose factors hold an infinity or a NaN (exponent bits all ones).
SBAS_LANE_INLINE void find_nonfinite(const Lanes* lu, int64_t cells, int64_t* nonfinite)
{
    constexpr int64_t exponent = 0x7ff0000000000000LL;
    LaneInts found = {};
    for (int64_t q = 0; q < cells; ++q) found |= ((LaneInts)lu[q] & exponent) == exponent;
    for (int k = 0; k < W; ++k) nonfinite[k] = found[k];
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

SBAS_LANE_KERNEL
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

SBAS_LANE_KERNEL
void products_kernel(const double* E, int64_t ldE, int64_t M, int64_t n, const double* Y, int64_t ldY,
                     int64_t count, double* X, int64_t ldX)
{
    // Solutions in the lanes while eight are left, then one at a time with
    // E's rows in the lanes.
    int64_t p = 0;
    for (; p + 2 * W <= count; p += 2 * W) product_solutions<2>(E, ldE, M, n, Y, ldY, X, ldX, p);
    for (; p + W <= count; p += W) product_solutions<1>(E, ldE, M, n, Y, ldY, X, ldX, p);
    for (; p < count; ++p) {
        int64_t i0 = 0;
        for (; i0 + 4 * W <= M; i0 += 4 * W) product_rows<4>(E, ldE, M, n, Y, ldY, X, ldX, i0, p);
        for (; i0 < M; i0 += W) product_rows<1>(E, ldE, M, n, Y, ldY, X, ldX, i0, p);
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
    for (int64_t q = 0; q < cells; ++q) {
        Lanes v;
        for (int k = 0; k < W; ++k) v[k] = from[k][q];
        lu[q] = v;
    }
    int64_t singular[W], nonfinite[W];
    invert_lanes(lu, ut, scale, pivots, position, n, singular, nonfinite);
    // A matrix whose factors are not all finite is done by the scalar routine.
    for (int k = 0; k < count; ++k)
        if (!singular[k] && nonfinite[k]) {
            std::vector<double> factors(static_cast<size_t>(cells));
            std::vector<int> rows(static_cast<size_t>(n));
            matinv_acc(a[k], factors.data(), rows.data(), n);
        }
    for (int64_t q = 0; q < cells; ++q) {
        const Lanes v = lu[q];
        for (int k = 0; k < count; ++k)
            if (!singular[k] && !nonfinite[k]) a[k][q] = v[k];
    }
}

void products(const double* E, int64_t ldE, int64_t M, int64_t n, const double* Y, int64_t ldY, int64_t count,
              double* X, int64_t ldX)
{
    if (M < 1 || count < 1) return;
    products_kernel(E, ldE, M, n, Y, ldY, count, X, ldX);
}

}  // namespace lib
