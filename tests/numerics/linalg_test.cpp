// Products, factorisation and inversion of small column-major matrices.
//
// Hand-worked matrices pin down values, pivot choices and failure reports;
// randomised products are compared bit for bit with a naive triple loop,
// because later stages rely on every element being summed in increasing
// inner index from +0.0.
#include "numerics/linalg.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using Matrix = std::vector<double>;

// Column-major storage of a matrix written row by row.
Matrix from_rows(std::initializer_list<std::initializer_list<double>> rows)
{
    const size_t r = rows.size();
    const size_t c = rows.begin()->size();
    Matrix out(r * c);
    size_t i = 0;
    for (const auto& row : rows) {
        size_t j = 0;
        for (double v : row) out[j++ * r + i] = v;
        ++i;
    }
    return out;
}

bool same_bits(const Matrix& a, const Matrix& b)
{
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0;
}

// The defining loop: element (i, j) summed over l = 0..m-1 from 0.0.
Matrix reference_product(char fa, char fb, int64_t n, int64_t k, int64_t m, const Matrix& A, const Matrix& B)
{
    Matrix C(n * k);
    for (int64_t j = 0; j < k; ++j)
        for (int64_t i = 0; i < n; ++i) {
            double acc = 0.0;
            for (int64_t l = 0; l < m; ++l) {
                const double a = fa == 'N' ? A[l * n + i] : A[i * m + l];
                const double b = fb == 'N' ? B[j * m + l] : B[l * k + j];
                acc += a * b;
            }
            C[j * n + i] = acc;
        }
    return C;
}

// n x n product X Y in plain arithmetic, for checking inverses.
Matrix square_product(const Matrix& X, const Matrix& Y, int64_t n)
{
    Matrix C(n * n, 0.0);
    for (int64_t j = 0; j < n; ++j)
        for (int64_t i = 0; i < n; ++i)
            for (int64_t l = 0; l < n; ++l) C[j * n + i] += X[l * n + i] * Y[j * n + l];
    return C;
}

const double kNaN = std::numeric_limits<double>::quiet_NaN();

// The factorisation written the plain way, one element at a time along rows,
// with the row swaps undone during forward substitution. The library arranges
// its loops differently and must still agree to the bit.
int reference_ludcmp(Matrix& a, int64_t n, std::vector<int>& pivots, double& sign)
{
    auto at = [&](int64_t i, int64_t j) -> double& { return a[j * n + i]; };
    std::vector<double> vv(n);
    sign = 1.0;
    for (int64_t i = 0; i < n; ++i) {
        double big = 0.0;
        for (int64_t j = 0; j < n; ++j) big = std::max(big, std::fabs(at(i, j)));
        if (big == 0.0) return -1;
        vv[i] = 1.0 / big;
    }
    for (int64_t j = 0; j < n; ++j) {
        for (int64_t i = 0; i < j; ++i) {
            double sum = at(i, j);
            for (int64_t q = 0; q < i; ++q) sum -= at(i, q) * at(q, j);
            at(i, j) = sum;
        }
        double big = 0.0;
        int64_t imax = j;
        for (int64_t i = j; i < n; ++i) {
            double sum = at(i, j);
            for (int64_t q = 0; q < j; ++q) sum -= at(i, q) * at(q, j);
            at(i, j) = sum;
            if (vv[i] * std::fabs(sum) >= big) {
                big = vv[i] * std::fabs(sum);
                imax = i;
            }
        }
        if (imax != j) {
            for (int64_t q = 0; q < n; ++q) std::swap(at(imax, q), at(j, q));
            sign = -sign;
            vv[imax] = vv[j];
        }
        pivots[j] = static_cast<int>(imax);
        if (at(j, j) == 0.0) return -1;
        if (j != n - 1) {
            const double r = 1.0 / at(j, j);
            for (int64_t i = j + 1; i < n; ++i) at(i, j) *= r;
        }
    }
    return 0;
}

void reference_lubksb(const Matrix& lu, int64_t n, const std::vector<int>& pivots, double* b)
{
    auto at = [&](int64_t i, int64_t j) { return lu[j * n + i]; };
    int64_t first = -1;
    for (int64_t i = 0; i < n; ++i) {
        const int64_t ip = pivots[i];
        double sum = b[ip];
        b[ip] = b[i];
        if (first >= 0)
            for (int64_t j = first; j < i; ++j) sum -= at(i, j) * b[j];
        else if (sum != 0.0)
            first = i;
        b[i] = sum;
    }
    for (int64_t i = n - 1; i >= 0; --i) {
        double sum = b[i];
        for (int64_t j = i + 1; j < n; ++j) sum -= at(i, j) * b[j];
        b[i] = sum / at(i, i);
    }
}

// A random n x n matrix with entries of mixed magnitude and some exact zeros
// (zeros in the right places force row swaps).
Matrix random_matrix(std::mt19937_64& rng, int64_t n)
{
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::uniform_int_distribution<int> exponent(-6, 6);
    Matrix a(n * n);
    for (double& v : a) v = u(rng) < -0.6 ? 0.0 : std::ldexp(u(rng), exponent(rng));
    return a;
}

// ---------------------------------------------------------------- matmul

TEST(Matmul, TransposedTimesItselfIsTheGramMatrix)
{
    // A is 3 x 2; A^T A = [[1+9+25, 2+12+30], [.., 4+16+36]].
    const Matrix A = from_rows({{1, 2}, {3, 4}, {5, 6}});
    Matrix C(4, kNaN);
    lib::matmul("TN", 2, 2, 3, 1.0, A.data(), A.data(), 0.0, C.data());
    EXPECT_TRUE(same_bits(C, from_rows({{35, 44}, {44, 56}})));
}

TEST(Matmul, AlphaAndBetaAreIgnoredAndCIsOverwritten)
{
    const Matrix A = from_rows({{1, 2}, {3, 4}, {5, 6}});
    const Matrix expected = from_rows({{35, 44}, {44, 56}});
    struct Case {
        double alpha, beta, garbage;
    };
    for (const Case& c : {Case{2.0, 0.0, 0.0}, Case{1.0, 1.0, 17.0}, Case{-3.0, 5.0, kNaN},
                          Case{0.0, 0.0, -1e300}}) {
        Matrix C(4, c.garbage);
        lib::matmul("TN", 2, 2, 3, c.alpha, A.data(), A.data(), c.beta, C.data());
        EXPECT_TRUE(same_bits(C, expected)) << "alpha " << c.alpha << " beta " << c.beta;
    }
}

TEST(Matmul, EveryFlagCombinationMatchesTheDefiningLoopBitForBit)
{
    std::mt19937_64 rng(12345);
    std::uniform_real_distribution<double> mantissa(-1.0, 1.0);
    std::uniform_int_distribution<int> exponent(-20, 20);
    struct Shape {
        int64_t n, k, m;
    };
    const Shape shapes[] = {{1, 1, 1}, {3, 2, 4}, {4, 3, 2}, {7, 5, 9}, {2, 6, 1}, {5, 1, 11}};
    for (const char* flags : {"NN", "TN", "NT", "TT"}) {
        for (const Shape& s : shapes) {
            // Mixed magnitudes make the rounding depend on the summation order.
            Matrix A(s.n * s.m), B(s.m * s.k);
            for (double& v : A) v = std::ldexp(mantissa(rng), exponent(rng));
            for (double& v : B) v = std::ldexp(mantissa(rng), exponent(rng));
            Matrix C(s.n * s.k, kNaN);
            lib::matmul(flags, s.n, s.k, s.m, 1.0, A.data(), B.data(), 0.0, C.data());
            EXPECT_TRUE(same_bits(C, reference_product(flags[0], flags[1], s.n, s.k, s.m, A, B)))
                << flags << " n=" << s.n << " k=" << s.k << " m=" << s.m;
        }
    }
}

TEST(Matmul, TransposeFlagsReadTheStoredShapes)
{
    // op(A) = [[1, 2, 3], [4, 5, 6]] (2 x 3), op(B) = [[1, 0], [0, 1], [1, 1]] (3 x 2).
    const Matrix opA = from_rows({{1, 2, 3}, {4, 5, 6}});
    const Matrix opAT = from_rows({{1, 4}, {2, 5}, {3, 6}});
    const Matrix opB = from_rows({{1, 0}, {0, 1}, {1, 1}});
    const Matrix opBT = from_rows({{1, 0, 1}, {0, 1, 1}});
    const Matrix expected = from_rows({{4, 5}, {10, 11}});
    struct Case {
        const char* flags;
        const Matrix* A;
        const Matrix* B;
    };
    for (const Case& c : {Case{"NN", &opA, &opB}, Case{"TN", &opAT, &opB}, Case{"NT", &opA, &opBT},
                          Case{"TT", &opAT, &opBT}}) {
        Matrix C(4, kNaN);
        lib::matmul(c.flags, 2, 2, 3, 1.0, c.A->data(), c.B->data(), 0.0, C.data());
        EXPECT_TRUE(same_bits(C, expected)) << c.flags;
    }
}

TEST(Matmul, SumsRunInIncreasingInnerIndex)
{
    // 1 + 1e100 - 1e100 is 0 in this order, 1 in reverse order.
    const Matrix a = {1.0, 1e100, -1e100};
    const Matrix ones = {1.0, 1.0, 1.0};
    for (const char* flags : {"NN", "TN", "NT", "TT"}) {
        double c = kNaN;
        lib::matmul(flags, 1, 1, 3, 1.0, a.data(), ones.data(), 0.0, &c);
        EXPECT_EQ(c, 0.0) << flags;
    }
}

TEST(Matmul, SumsStartFromPositiveZero)
{
    // A single -0.0 product leaves +0.0: the sparse solver depends on it.
    const double a = -1.0, b = 0.0;
    for (const char* flags : {"NN", "TN", "NT", "TT"}) {
        double c = kNaN;
        lib::matmul(flags, 1, 1, 1, 1.0, &a, &b, 0.0, &c);
        EXPECT_EQ(c, 0.0) << flags;
        EXPECT_FALSE(std::signbit(c)) << flags;
    }
}

TEST(Matmul, EmptyShapes)
{
    const double a = 3.0, b = 4.0;
    // An empty inner dimension gives zeros.
    for (const char* flags : {"NN", "TN", "NT", "TT"}) {
        Matrix C(6, kNaN);
        lib::matmul(flags, 2, 3, 0, 1.0, &a, &b, 0.0, C.data());
        EXPECT_TRUE(same_bits(C, Matrix(6, 0.0))) << flags;
    }
    // No rows: nothing is touched (and the null pointers are never read).
    double c = 7.0;
    lib::matmul("NN", 0, 1, 1, 1.0, nullptr, nullptr, 0.0, &c);
    EXPECT_EQ(c, 7.0);
}

TEST(Matcpy, CopiesExactlyNTimesMDoubles)
{
    const Matrix src = {1.5, -0.0, kNaN, 4.0, 5.0, 6.0};
    Matrix dst(8, 9.0);
    lib::matcpy(dst.data(), src.data(), 3, 2);
    EXPECT_EQ(std::memcmp(dst.data(), src.data(), 6 * sizeof(double)), 0);
    EXPECT_EQ(dst[6], 9.0);
    EXPECT_EQ(dst[7], 9.0);
}

// ---------------------------------------------------------------- ludcmp / lubksb

TEST(Ludcmp, SolvesAThreeByThreeSystem)
{
    // x = (1, -2, 3): 2x+y-z = -3, -3x-y+2z = 5, -2x+y+2z = 2.
    Matrix a = from_rows({{2, 1, -1}, {-3, -1, 2}, {-2, 1, 2}});
    int pivots[3];
    double sign = 0.0;
    ASSERT_EQ(lib::ludcmp(a.data(), 3, pivots, &sign), 0);
    Matrix b = {-3, 5, 2};
    lib::lubksb(a.data(), 3, pivots, b.data());
    EXPECT_NEAR(b[0], 1.0, 1e-14);
    EXPECT_NEAR(b[1], -2.0, 1e-14);
    EXPECT_NEAR(b[2], 3.0, 1e-14);
}

TEST(Ludcmp, FactorsReproduceThePermutedMatrix)
{
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> u(-5.0, 5.0);
    const int64_t n = 6;
    Matrix a(n * n);
    for (double& v : a) v = u(rng);
    Matrix lu = a;
    std::vector<int> pivots(n);
    double sign = 0.0;
    ASSERT_EQ(lib::ludcmp(lu.data(), n, pivots.data(), &sign), 0);
    // Apply the recorded swaps to a, then compare with L U (unit lower L).
    Matrix pa = a;
    double parity = 1.0;
    for (int64_t j = 0; j < n; ++j)
        if (pivots[j] != j) {
            parity = -parity;
            for (int64_t q = 0; q < n; ++q) std::swap(pa[q * n + j], pa[q * n + pivots[j]]);
        }
    EXPECT_EQ(sign, parity);
    for (int64_t i = 0; i < n; ++i)
        for (int64_t j = 0; j < n; ++j) {
            double sum = 0.0;
            for (int64_t q = 0; q <= std::min(i, j); ++q) {
                const double l = q == i ? 1.0 : lu[q * n + i];
                sum += l * lu[j * n + q];
            }
            EXPECT_NEAR(sum, pa[j * n + i], 1e-12) << i << "," << j;
        }
}

TEST(Ludcmp, MatchesTheElementwiseAlgorithmBitForBit)
{
    std::mt19937_64 rng(424242);
    int singular = 0;
    for (int trial = 0; trial < 300; ++trial) {
        const int64_t n = 1 + trial % 13;
        const Matrix a = random_matrix(rng, n);
        Matrix lu = a, ref = a;
        std::vector<int> pivots(n, -1), ref_pivots(n, -1);
        double sign = 0.0, ref_sign = 0.0;
        const int64_t status = lib::ludcmp(lu.data(), n, pivots.data(), &sign);
        ASSERT_EQ(status, reference_ludcmp(ref, n, ref_pivots, ref_sign)) << "trial " << trial;
        if (status != 0) {
            ++singular;
            continue;
        }
        ASSERT_TRUE(same_bits(lu, ref)) << "trial " << trial;
        ASSERT_EQ(pivots, ref_pivots) << "trial " << trial;
        ASSERT_EQ(sign, ref_sign) << "trial " << trial;

        // Right-hand sides with leading zeros take the shortened sums.
        Matrix b(n), ref_b(n);
        for (int64_t i = 0; i < n; ++i) b[i] = i < trial % 4 ? 0.0 : std::ldexp(1.0 + i, -(int)i);
        ref_b = b;
        lib::lubksb(lu.data(), n, pivots.data(), b.data());
        reference_lubksb(ref, n, ref_pivots, ref_b.data());
        ASSERT_TRUE(same_bits(b, ref_b)) << "trial " << trial;
    }
    EXPECT_GT(singular, 0);
}

TEST(Ludcmp, PivotChoice)
{
    struct Case {
        std::string name;
        Matrix a;
        std::vector<int> pivots;
        double sign;
    };
    const Case cases[] = {
        // Zero leading entry: the rows must be swapped.
        {"zero leading entry", from_rows({{0, 2}, {3, 1}}), {1, 1}, -1.0},
        // Plain partial pivoting would keep row 0 (10 > 1); relative to its
        // row, row 1 is far larger (1/1 against 10/1e5).
        {"implicit scaling", from_rows({{10, 1e5}, {1, 1}}), {1, 1}, -1.0},
        // Both rows have scaled magnitude exactly 1: the later row wins.
        {"tie goes to the later row", from_rows({{2, 1}, {-4, 4}}), {1, 1}, -1.0},
        {"three-way tie", from_rows({{1, 0, 0}, {2, 2, 1}, {4, 0, 1}}), {2, 1, 2}, -1.0},
        // Column 0 moves row 0 (scale 1/100) to the bottom; in column 1 its 4
        // must be weighed with that scale (0.04 < 1), not with the scale of
        // the row it replaced (2 > 1).
        {"scale follows a swapped row", from_rows({{1, 4, 100}, {1, 2, 2}, {2, 0, 1}}), {2, 1, 2}, -1.0},
        {"no swap needed", from_rows({{4, 1}, {1, 3}}), {0, 1}, 1.0},
        {"two swaps restore the sign", from_rows({{0, 1, 0}, {0, 0, 1}, {1, 0, 0}}), {2, 2, 2}, 1.0},
    };
    for (const Case& c : cases) {
        Matrix lu = c.a;
        const int64_t n = static_cast<int64_t>(c.pivots.size());
        std::vector<int> pivots(n, -7);
        double sign = 0.0;
        ASSERT_EQ(lib::ludcmp(lu.data(), n, pivots.data(), &sign), 0) << c.name;
        EXPECT_EQ(pivots, c.pivots) << c.name;
        EXPECT_EQ(sign, c.sign) << c.name;
    }
}

TEST(Ludcmp, EntriesBelowThePivotAreScaledByItsReciprocal)
{
    // Pivot 3 stays on row 0 (scaled 1 against 0.5); 5 * (1/3) and 5 / 3
    // differ in the last bit, and the factors must be reproducible.
    Matrix lu = from_rows({{3, 0}, {5, 10}});
    int pivots[2];
    double sign = 0.0;
    ASSERT_EQ(lib::ludcmp(lu.data(), 2, pivots, &sign), 0);
    EXPECT_EQ(pivots[0], 0);
    const double third = 1.0 / 3.0;
    ASSERT_NE(5.0 * third, 5.0 / 3.0);
    EXPECT_EQ(lu[1], 5.0 * third);
}

TEST(Ludcmp, ReportsSingularMatrices)
{
    struct Case {
        std::string name;
        Matrix a;
        int64_t n;
    };
    const Case cases[] = {
        {"all-zero row", from_rows({{1, 2, 3}, {0, 0, 0}, {4, 5, 6}}), 3},
        {"row of zeros and NaN", from_rows({{1, 2}, {0, kNaN}}), 2},
        {"exact zero pivot", from_rows({{1, 2}, {2, 4}}), 2},
        {"zero column", from_rows({{1, 0}, {2, 0}}), 2},
        {"dependent third row", from_rows({{1, 2, 3}, {4, 5, 6}, {5, 7, 9}}), 3},
    };
    for (const Case& c : cases) {
        Matrix lu = c.a;
        std::vector<int> pivots(c.n);
        double sign = 0.0;
        EXPECT_EQ(lib::ludcmp(lu.data(), c.n, pivots.data(), &sign), -1) << c.name;
    }
}

TEST(Lubksb, RightHandSidesWithLeadingZeros)
{
    // Unit columns exercise the skip over the leading zero entries of b.
    const Matrix a = from_rows({{4, 1, 2}, {1, 5, 3}, {2, 3, 6}});
    Matrix lu = a;
    int pivots[3];
    double sign = 0.0;
    ASSERT_EQ(lib::ludcmp(lu.data(), 3, pivots, &sign), 0);
    for (int col = 0; col < 3; ++col) {
        Matrix b(3, 0.0);
        b[col] = 1.0;
        lib::lubksb(lu.data(), 3, pivots, b.data());
        for (int i = 0; i < 3; ++i) {
            double r = 0.0;
            for (int j = 0; j < 3; ++j) r += a[j * 3 + i] * b[j];
            EXPECT_NEAR(r, i == col ? 1.0 : 0.0, 1e-14) << "column " << col << " row " << i;
        }
    }
}

// ---------------------------------------------------------------- matinv

TEST(Matinv, InvertsATwoByTwo)
{
    Matrix a = from_rows({{4, 7}, {2, 6}});
    ASSERT_EQ(lib::matinv(a.data(), 2), 0);
    const Matrix expected = from_rows({{0.6, -0.7}, {-0.2, 0.4}});
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(a[i], expected[i], 1e-15) << i;
}

TEST(Matinv, SingularMatrixIsReportedAndLeftUntouched)
{
    const Matrix cases[] = {from_rows({{1, 2}, {2, 4}}), from_rows({{1, 2, 3}, {0, 0, 0}, {4, 5, 6}}),
                            from_rows({{0, 0}, {0, 0}})};
    for (const Matrix& original : cases) {
        Matrix a = original;
        const int64_t n = original.size() == 4 ? 2 : 3;
        EXPECT_EQ(lib::matinv(a.data(), n), -1);
        EXPECT_TRUE(same_bits(a, original));
    }
}

TEST(Matinv, RowSwapsAreUndone)
{
    Matrix a = from_rows({{0, 2}, {3, 1}});
    ASSERT_EQ(lib::matinv(a.data(), 2), 0);
    // Inverse of [[0,2],[3,1]] is [[-1/6, 1/3], [1/2, 0]].
    const Matrix expected = from_rows({{-1.0 / 6, 1.0 / 3}, {0.5, 0}});
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(a[i], expected[i], 1e-15) << i;

    Matrix p = from_rows({{0, 1, 0}, {0, 0, 1}, {1, 0, 0}});
    const Matrix pt = from_rows({{0, 0, 1}, {1, 0, 0}, {0, 1, 0}});
    ASSERT_EQ(lib::matinv(p.data(), 3), 0);
    EXPECT_TRUE(same_bits(p, pt));
}

TEST(Matinv, ProductWithOriginalIsIdentity)
{
    std::mt19937_64 rng(99);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int64_t n : {1, 3, 8, 15}) {
        Matrix a(n * n);
        for (double& v : a) v = u(rng);
        for (int64_t i = 0; i < n; ++i) a[i * n + i] += 2.0;  // keep it well conditioned
        Matrix inv = a;
        ASSERT_EQ(lib::matinv(inv.data(), n), 0);
        const Matrix id = square_product(a, inv, n);
        for (int64_t j = 0; j < n; ++j)
            for (int64_t i = 0; i < n; ++i)
                EXPECT_NEAR(id[j * n + i], i == j ? 1.0 : 0.0, 1e-13) << n << ": " << i << "," << j;
    }
}

TEST(Matinv, EachColumnIsTheSolutionForAUnitVectorBitForBit)
{
    std::mt19937_64 rng(8);
    for (int trial = 0; trial < 100; ++trial) {
        const int64_t n = 1 + trial % 17;
        const Matrix a = random_matrix(rng, n);
        Matrix lu = a;
        std::vector<int> pivots(n);
        double sign = 0.0;
        if (reference_ludcmp(lu, n, pivots, sign) != 0) continue;
        Matrix expected(n * n, 0.0);
        for (int64_t c = 0; c < n; ++c) {
            expected[c * n + c] = 1.0;
            reference_lubksb(lu, n, pivots, expected.data() + c * n);
        }
        Matrix inv = a;
        ASSERT_EQ(lib::matinv(inv.data(), n), 0);
        ASSERT_TRUE(same_bits(inv, expected)) << "trial " << trial;
    }
}

TEST(Matinv, EmptyMatrix)
{
    double sentinel = 5.0;
    EXPECT_EQ(lib::matinv(&sentinel, 0), 0);
    EXPECT_EQ(sentinel, 5.0);
}

TEST(MatinvAcc, AgreesWithMatinvAndLeavesTheFactors)
{
    const Matrix original = from_rows({{2, 1, -1}, {-3, -1, 2}, {-2, 1, 2}});
    Matrix a = original, b = original;
    Matrix lu(9, kNaN);
    int pivots[3] = {-1, -1, -1};
    lib::matinv_acc(a.data(), lu.data(), pivots, 3);
    ASSERT_EQ(lib::matinv(b.data(), 3), 0);
    EXPECT_TRUE(same_bits(a, b));

    Matrix factors = original;
    int expected_pivots[3];
    double sign = 0.0;
    ASSERT_EQ(lib::ludcmp(factors.data(), 3, expected_pivots, &sign), 0);
    EXPECT_TRUE(same_bits(lu, factors));
    EXPECT_EQ(std::vector<int>(pivots, pivots + 3), std::vector<int>(expected_pivots, expected_pivots + 3));
}

TEST(MatinvAcc, SingularMatrixKeepsItsContents)
{
    const Matrix original = from_rows({{1, 2}, {2, 4}});
    Matrix a = original;
    Matrix lu(4);
    int pivots[2];
    lib::matinv_acc(a.data(), lu.data(), pivots, 2);
    EXPECT_TRUE(same_bits(a, original));
}

}  // namespace
