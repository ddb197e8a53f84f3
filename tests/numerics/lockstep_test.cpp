// The lockstep kernels give, bit for bit, what the scalar routines give for
// each problem alone: inversions next to singular, non-finite and
// overflowing neighbours, and products for every number of right-hand sides.
#include "numerics/lockstep.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "numerics/linalg.h"

namespace {

using Matrix = std::vector<double>;

bool same_bits(const double* a, const double* b, size_t count)
{
    return std::memcmp(a, b, count * sizeof(double)) == 0;
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
        std::vector<Matrix> expected = a;
        for (int k = 0; k < count; ++k) {
            Matrix lu(n * n);
            std::vector<int> pivots(n);
            lib::matinv_acc(expected[k].data(), lu.data(), pivots.data(), n);
        }
        double* lanes[lib::kLockstepLanes];
        for (int k = 0; k < count; ++k) lanes[k] = a[k].data();
        lib::matinv_lockstep(lanes, count, n, scratch);
        for (int k = 0; k < count; ++k)
            EXPECT_TRUE(same_bits(a[k].data(), expected[k].data(), a[k].size())) << "trial " << trial << " lane " << k;
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
