// Products, factorisation and inversion of small column-major matrices.
//
// Hand-worked matrices pin down values, pivot choices and failure reports.
// Random ones are compared bit for bit with the plain textbook loops: the
// outputs must be the same bits on every build, so every sum has to keep its
// order.
#include "numerics/linalg.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <tuple>
#include <vector>

namespace {

using Matrix = std::vector<double>;

// Column-major storage of an r-row matrix written row by row.
Matrix from_rows(int64_t r, std::initializer_list<double> v)
{
    Matrix out(v.size());
    for (size_t q = 0, c = v.size() / r; q < v.size(); ++q) out[q % c * r + q / c] = v.begin()[q];
    return out;
}

bool same_bits(const Matrix& a, const Matrix& b)
{
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0;
}

// Entries of mixed magnitude, two in five of them -0.0: the zeros force row
// swaps and singular matrices, and give products of either zero sign.
Matrix random_matrix(std::mt19937_64& rng, int64_t size)
{
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    Matrix a(size);
    for (double& v : a) v = u(rng) < -0.6 ? -0.0 : std::ldexp(u(rng), static_cast<int>(20 * u(rng)));
    return a;
}

// Forward and back substitution the textbook way, row by row, undoing the
// swaps on the way; the forward sums start at the first nonzero entry.
void reference_lubksb(const Matrix& lu, int64_t n, const int* pivots, double* b)
{
    for (int64_t i = 0, first = -1; i < n; ++i) {
        double sum = b[pivots[i]];
        b[pivots[i]] = b[i];
        for (int64_t j = first; first >= 0 && j < i; ++j) sum -= lu[j * n + i] * b[j];
        if (first < 0 && sum != 0.0) first = i;
        b[i] = sum;
    }
    for (int64_t i = n - 1; i >= 0; --i) {
        for (int64_t j = i + 1; j < n; ++j) b[i] -= lu[j * n + i] * b[j];
        b[i] /= lu[i * n + i];
    }
}

TEST(Matmul, EveryFlagCombinationMatchesTheDefiningLoopBitForBit)
{
    // Element (i, j) summed over l from +0.0 (so a lone -0.0 product leaves
    // +0.0, and no terms leave zero); alpha and beta are ignored and C, full
    // of NaN, is overwritten.
    std::mt19937_64 rng(12345);
    const int64_t shapes[][3] = {{1, 1, 1}, {3, 2, 4}, {4, 3, 2}, {7, 5, 9}, {2, 6, 1}, {5, 1, 9}, {2, 3, 0}};
    for (const char* flags : {"NN", "TN", "NT", "TT"})
        for (const auto& [n, k, m] : shapes) {
            const Matrix A = random_matrix(rng, n * m), B = random_matrix(rng, m * k);
            Matrix C(n * k, NAN), expected(n * k, 0.0);
            lib::matmul(flags, n, k, m, -3.0, A.data(), B.data(), 5.0, C.data());
            for (int64_t j = 0; j < k; ++j)
                for (int64_t i = 0; i < n; ++i)
                    for (int64_t l = 0; l < m; ++l)
                        expected[j * n + i] += (flags[0] == 'N' ? A[l * n + i] : A[i * m + l]) *
                                               (flags[1] == 'N' ? B[j * m + l] : B[l * k + j]);
            EXPECT_TRUE(same_bits(C, expected)) << flags << " n=" << n << " k=" << k << " m=" << m;
        }
}

TEST(Ludcmp, PivotsSignAndSingularity)
{
    // The pivot is the entry largest relative to the largest of its row, a tie
    // going to the later row, and each swap flips the sign. A row of zeros
    // (NaN never counts as larger) or an exact zero pivot gives -1: no tiny
    // value stands in for it.
    const std::tuple<const char*, Matrix, int64_t, std::vector<int>, double> cases[] = {
        {"zero leading entry", from_rows(2, {0, 2, 3, 1}), 0, {1, 1}, -1},
        {"implicit scaling (10 against 1e5)", from_rows(2, {10, 1e5, 1, 1}), 0, {1, 1}, -1},
        {"tie goes to the later row", from_rows(2, {2, 1, -4, 4}), 0, {1, 1}, -1},
        // Row 0 moves down and takes its scale 1/100 along: its 4 weighs 0.04.
        {"scale follows the row", from_rows(3, {1, 4, 100, 1, 2, 2, 2, 0, 1}), 0, {2, 1, 2}, -1},
        {"column of NaN stays in place", from_rows(2, {NAN, 1, NAN, 2}), 0, {0, 1}, 1},
        {"all-zero row", from_rows(3, {1, 2, 3, 0, 0, 0, 4, 5, 6}), -1, {}, 0},
        {"row of zeros and NaN", from_rows(2, {1, 2, 0, NAN}), -1, {}, 0},
        {"exact zero pivot", from_rows(2, {1, 2, 2, 4}), -1, {}, 0},
    };
    for (auto [what, lu, status, expected_pivots, expected_sign] : cases) {
        std::vector<int> pivots(static_cast<size_t>(std::sqrt(lu.size())), -1);
        double sign = 0.0;
        EXPECT_EQ(lib::ludcmp(lu.data(), pivots.size(), pivots.data(), &sign), status) << what;
        EXPECT_TRUE(status != 0 || (pivots == expected_pivots && sign == expected_sign)) << what;
    }
}

TEST(Ludcmp, FactorsSolvesAndInvertsTermByTerm)
{
    // lubksb of each unit vector (its leading zeros skipped) is the textbook
    // substitution to the bit, and is that column of the inverse, in matinv
    // and matinv_acc alike; both leave a singular matrix as it was. With the
    // recorded swaps applied to a, each factor is Crout's: the entry less its
    // products over q < min(i, j) in increasing q, and below the diagonal
    // times the reciprocal of the pivot (5 * (1/3) is not 5 / 3).
    std::mt19937_64 rng(424242);
    int singular = 0;
    for (int trial = 0; trial < 300; ++trial) {
        const int64_t n = 1 + trial % 15;
        Matrix a = random_matrix(rng, n * n), lu = a, inv = a, acc = a, expected(n * n, 0.0), work(n * n);
        std::vector<int> pivots(n), work_pivots(n);
        double sign = 0.0;
        const int64_t status = lib::ludcmp(lu.data(), n, pivots.data(), &sign);
        singular += status != 0;
        for (int64_t c = 0; status == 0 && c < n; ++c) {
            Matrix x(n, 0.0);
            x[c] = expected[c * n + c] = 1.0;
            lib::lubksb(lu.data(), n, pivots.data(), x.data());
            reference_lubksb(lu, n, pivots.data(), expected.data() + c * n);
            ASSERT_TRUE(same_bits(x, {expected.begin() + c * n, expected.begin() + (c + 1) * n})) << trial;
        }
        EXPECT_EQ(lib::matinv(inv.data(), n), status);
        lib::matinv_acc(acc.data(), work.data(), work_pivots.data(), n);
        ASSERT_TRUE(same_bits(inv, status == 0 ? expected : a) && same_bits(acc, inv)) << "trial " << trial;
        if (status != 0) continue;

        // The row swaps in their order, column by column, then the recurrences.
        for (int64_t p = 0; p < n * n; ++p) std::swap(a[p], a[p - p % n + pivots[p % n]]);
        for (int64_t p = 0; p < n * n; ++p) {
            const int64_t i = p % n, j = p / n;
            for (int64_t q = 0; q < std::min(i, j); ++q) a[p] -= lu[q * n + i] * lu[j * n + q];
            if (i > j) a[p] *= 1.0 / lu[j * n + j];
        }
        ASSERT_TRUE(same_bits(lu, a)) << "trial " << trial;
    }
    EXPECT_GT(singular, 0);
}

TEST(Linalg, HandWorkedProductSolutionAndInverse)
{
    // A^T A of a 3 x 2 matrix; no rows: nothing written (or read).
    Matrix A = from_rows(3, {1, 2, 3, 4, 5, 6}), C(4, NAN);
    lib::matmul("TN", 2, 2, 3, 1.0, A.data(), A.data(), 0.0, C.data());
    lib::matmul("NN", 0, 2, 3, 1.0, nullptr, nullptr, 0.0, C.data());
    EXPECT_TRUE(same_bits(C, from_rows(2, {35, 44, 44, 56})));
    // 2x + y - z = -3, -3x - y + 2z = 5, -2x + y + 2z = 2 has the solution
    // (1, -2, 3).
    Matrix a = from_rows(3, {2, 1, -1, -3, -1, 2, -2, 1, 2}), b = {-3, 5, 2}, solution = {1, -2, 3};
    int pivots[3];
    double sign = 0.0;
    ASSERT_EQ(lib::ludcmp(a.data(), 3, pivots, &sign), 0);
    lib::lubksb(a.data(), 3, pivots, b.data());
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(b[i], solution[i], 1e-14) << i;
    // matinv; a singular matrix is reported and kept, an empty one is harmless.
    Matrix m = from_rows(2, {4, 7, 2, 6}), singular = from_rows(2, {1, 2, 2, 4}), kept = singular;
    ASSERT_EQ(lib::matinv(m.data(), 2), 0);
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(m[i], from_rows(2, {0.6, -0.7, -0.2, 0.4})[i], 1e-15) << i;
    EXPECT_EQ(lib::matinv(singular.data(), 2), -1);
    EXPECT_TRUE(same_bits(singular, kept));
    EXPECT_EQ(lib::matinv(nullptr, 0), 0);
}

}  // namespace
