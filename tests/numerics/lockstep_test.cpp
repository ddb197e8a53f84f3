// The lockstep kernels give, bit for bit, what the scalar routines give for
// each problem alone: inversions next to singular, non-finite and
// overflowing neighbours, and products for every number of right-hand sides.
#include "numerics/lockstep.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "numerics/linalg.h"

namespace {

using Matrix = std::vector<double>;

bool same_bits(const double* a, const double* b, size_t count)
{
    return std::memcmp(a, b, count * sizeof(double)) == 0;
}

// Inverts the first `count` matrices of `a` together and each alone with
// matinv_acc: every lane must carry the bits of its own inversion.
void expect_lanes_match(std::vector<Matrix> a, int count, int64_t n, lib::LockstepScratch& scratch,
                        const std::string& what)
{
    std::vector<Matrix> expected = a;
    double* lanes[lib::kLockstepLanes];
    for (int k = 0; k < count; ++k) {
        Matrix lu(n * n);
        std::vector<int> pivots(n);
        lib::matinv_acc(expected[k].data(), lu.data(), pivots.data(), n);
        lanes[k] = a[k].data();
    }
    lib::matinv_lockstep(lanes, count, n, scratch);
    for (int k = 0; k < count; ++k) ASSERT_TRUE(same_bits(a[k].data(), expected[k].data(), a[k].size())) << what << k;
}

TEST(Lockstep, InversionsMatchMatinvAccLaneByLane)
{
    // Each lane gets its own kind of matrix: random with zeros (row swaps),
    // diagonally dominant (no swaps), an all-zero row or two equal columns
    // (singular: left as it is), a NaN or an infinity (factors not finite),
    // huge entries (overflow). The number of matrices and their size vary.
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    lib::LockstepScratch scratch;
    for (int trial = 0; trial < 120; ++trial) {
        const int64_t n = 1 + trial % 13 + (trial % 9 == 0 ? 40 : 0);
        const int count = 1 + trial % lib::kLockstepLanes;
        std::vector<Matrix> a(lib::kLockstepLanes, Matrix(n * n));
        for (int k = 0; k < count; ++k) {
            for (double& v : a[k]) v = u(rng) < -0.5 ? -0.0 : std::ldexp(u(rng), static_cast<int>(8 * u(rng)));
            const int kind = (trial + k) % 7;
            if (kind == 1) for (int64_t i = 0; i < n; ++i) a[k][i * n + i] += 8.0;
            if (kind == 2) for (int64_t j = 0; j < n; ++j) a[k][j * n] = 0.0;
            if (kind == 3 && n > 1) for (int64_t i = 0; i < n; ++i) a[k][n + i] = a[k][i];
            if (kind == 4) a[k][n * n / 2] = NAN;
            if (kind == 5) a[k][0] = -INFINITY;
            if (kind == 6) for (double& v : a[k]) v *= 1e300;
        }
        expect_lanes_match(a, count, n, scratch, "trial " + std::to_string(trial) + " lane ");
    }
}

// A banded matrix (half-width `band`) with `arrow` full rows and columns at
// the end, as the normal matrices of small-baseline networks are, its
// entries drawn by `kind`: 0 well conditioned, 1 pivots needed, 2 zeros of
// both signs inside the band, 3 a NaN or an infinity, 4 huge (the inverse
// overflows), 5 tiny, 6 singular (an empty row and column), 7 a normal
// matrix A^T A of random spans.
Matrix banded(std::mt19937_64& rng, int64_t n, int64_t band, int64_t arrow, int kind)
{
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    Matrix a(n * n, 0.0);
    auto inside = [&](int64_t i, int64_t j) { return std::abs(i - j) <= band || i >= n - arrow || j >= n - arrow; };
    if (kind == 7) {
        // Rows spanning up to band + 1 consecutive unknowns, weights 1, and
        // the arrow columns full of baselines.
        const int64_t rows = 4 * n;
        for (int64_t r = 0; r < rows; ++r) {
            std::vector<double> row(n, 0.0);
            const int64_t body = n - arrow;
            const int64_t j1 = static_cast<int64_t>((u(rng) + 1.0) * 0.5 * body) % std::max<int64_t>(body, 1);
            const int64_t j2 = std::min(body, j1 + 1 + static_cast<int64_t>((u(rng) + 1.0) * 0.5 * (band + 1)) % (band + 1));
            for (int64_t j = j1; j < j2; ++j) row[j] = 1.0;
            for (int64_t j = body; j < n; ++j) row[j] = 37.0 * u(rng);
            for (int64_t i = 0; i < n; ++i)
                for (int64_t j = 0; j < n; ++j) a[j * n + i] += row[i] * row[j];
        }
        return a;
    }
    for (int64_t j = 0; j < n; ++j)
        for (int64_t i = 0; i < n; ++i) {
            if (!inside(i, j)) continue;
            double v = std::ldexp(u(rng), static_cast<int>(6 * u(rng)));
            if (kind == 2 && u(rng) < -0.4) v = u(rng) < 0 ? -0.0 : 0.0;
            a[j * n + i] = v;
        }
    if (kind != 1)
        for (int64_t i = 0; i < n; ++i) a[i * n + i] += 4.0 * (band + arrow + 1);
    if (kind == 3) a[(n / 2) * n + std::min(n - 1, n / 2 + (band > 0 ? 1 : 0))] = u(rng) < 0 ? NAN : -INFINITY;
    if (kind == 4) for (double& v : a) v *= 1e-305;
    if (kind == 5) for (double& v : a) v *= 1e300;
    if (kind == 6) {
        const int64_t e = n / 3;
        for (int64_t k = 0; k < n; ++k) a[k * n + e] = a[e * n + k] = 0.0;
    }
    return a;
}

TEST(Lockstep, SparseInversionsMatchMatinvAccLaneByLane)
{
    // Groups of banded (and arrow) matrices take the kernels that skip the
    // zero terms; each lane must still carry matinv_acc's bits, with every
    // kind of neighbour: zeros of both signs, non-finite entries, overflow,
    // singular, pivoting.
    std::mt19937_64 rng(2024);
    lib::LockstepScratch scratch;
    for (int trial = 0; trial < 400; ++trial) {
        const int64_t n = 2 + trial % 37 + (trial % 5 == 0 ? 30 : 0);
        const int64_t band = trial % 4;
        const int64_t arrow = trial % 3 == 0 ? 1 + trial % 2 : 0;
        const int count = 1 + trial % lib::kLockstepLanes;
        std::vector<Matrix> a(lib::kLockstepLanes);
        for (int k = 0; k < count; ++k) a[k] = banded(rng, n, band, arrow, trial % 4 == 3 ? 7 : (trial / 3 + k) % 8);
        expect_lanes_match(a, count, n, scratch, "trial " + std::to_string(trial) + " band " + std::to_string(band) +
                                                     " arrow " + std::to_string(arrow) + " lane ");
    }
}

TEST(Lockstep, ProductsMatchMatmulForAnyNumberOfRightHandSides)
{
    // E has M rows (stored with the column stride the kernel asks for);
    // some entries are infinite, some right-hand sides hold -0.0, so sums
    // meet infinities of both signs and turn NaN.
    std::mt19937_64 rng(11);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (const int64_t M : {1, 7, 8, 9, 33, 59}) {
        const int64_t ldE = (M + 7) / 8 * 8, n = 3 + M % 5 * 11;
        Matrix E(ldE * n, 0.0), dense(M * n);
        for (int64_t l = 0; l < n; ++l)
            for (int64_t i = 0; i < M; ++i) {
                const double r = u(rng);
                const double v = r < -0.97 ? INFINITY : r > 0.97 ? -INFINITY : std::ldexp(u(rng), static_cast<int>(30 * r));
                E[l * ldE + i] = dense[l * M + i] = v;
            }
        for (const int64_t count : {1, 2, 7, 8, 15, 16, 17, 33}) {
            Matrix Y(n * count), X(M * count);
            for (double& v : Y) v = u(rng) < -0.8 ? -0.0 : u(rng) * 100;
            lib::products(E.data(), ldE, M, n, Y.data(), count, count, X.data(), count);
            for (int64_t p = 0; p < count; ++p) {
                Matrix y(n), x(M);
                for (int64_t l = 0; l < n; ++l) y[l] = Y[l * count + p];
                lib::matmul("NN", M, 1, n, 1.0, dense.data(), y.data(), 0.0, x.data());
                for (int64_t i = 0; i < M; ++i)
                    ASSERT_TRUE(same_bits(&X[i * count + p], &x[i], 1)) << M << " rows, " << count << " sides";
            }
        }
    }
}

}  // namespace
