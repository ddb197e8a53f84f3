// Least-squares front ends: known fits, the handling of a singular normal
// matrix, and the diagonal-weight routine reproducing the dense one bit for
// bit on systems shaped like the time-series inversion (increment rows of
// ones, an optional baseline column, constraint rows tying each increment to
// a velocity, weights 1, 1/sqrt(0.1), 0.1 and 0).
#include "numerics/least_squares.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "numerics/linalg.h"

namespace {

using Matrix = std::vector<double>;

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

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

// Transpose of an r x c column-major matrix.
Matrix transpose(const Matrix& a, int64_t r, int64_t c)
{
    Matrix t(a.size());
    for (int64_t j = 0; j < c; ++j)
        for (int64_t i = 0; i < r; ++i) t[i * c + j] = a[j * r + i];
    return t;
}

Matrix diagonal(const Matrix& w)
{
    const size_t L = w.size();
    Matrix W(L * L, 0.0);
    for (size_t i = 0; i < L; ++i) W[i * L + i] = w[i];
    return W;
}

// Design matrix [1, t] of a straight-line fit, L x 2.
Matrix line_design(const Matrix& t)
{
    const size_t L = t.size();
    Matrix A(2 * L);
    for (size_t l = 0; l < L; ++l) {
        A[l] = 1.0;
        A[L + l] = t[l];
    }
    return A;
}

bool same_bits(const double* a, const double* b, size_t count)
{
    return std::memcmp(a, b, count * sizeof(double)) == 0;
}

// Caller storage of the in-place routines, pre-filled with `fill` so that a
// value the routine forgets to write shows up in a comparison.
struct Work {
    Matrix S, T, E, LU;
    std::vector<int> pivots;
    Work(int64_t L, int64_t M, double fill)
        : S(M * M, fill), T(M * L, fill), E(M * L, fill), LU(M * M, fill), pivots(M, -1)
    {
    }
};

void dense(const Matrix& A, const Matrix& w, int64_t L, int64_t M, const Matrix& y, Work& k)
{
    const Matrix W = diagonal(w);
    lib::weighted_linear_function_nonewmatrix(A.data(), W.data(), L, M, y.data(), k.S.data(), k.T.data(),
                                              k.E.data(), k.LU.data(), k.pivots.data());
}

bool sparse(const Matrix& A, const Matrix& w, int64_t L, int64_t M, const Matrix& y, Work& k,
            lib::DiagonalScratch& scratch)
{
    return lib::weighted_linear_function_diagonal(A.data(), w.data(), L, M, y.data(), k.S.data(), k.T.data(),
                                                  k.E.data(), k.LU.data(), k.pivots.data(), scratch);
}

// ---------------------------------------------------------------- known fits

TEST(LinearFunction, OverdeterminedLineFit)
{
    // t = 0..3, y = 1, 2, 2, 4: slope 4.5 / 5 = 0.9, intercept 2.25 - 1.35 = 0.9.
    const Matrix t = {0, 1, 2, 3};
    const Matrix y = {1, 2, 2, 4};
    const Matrix G = transpose(line_design(t), 4, 2);
    double* x = lib::linear_function(G.data(), 4, 2, y.data());
    ASSERT_NE(x, nullptr);
    EXPECT_NEAR(x[0], 0.9, 1e-14);
    EXPECT_NEAR(x[1], 0.9, 1e-14);
    std::free(x);
}

TEST(WeightedLinearFunction, IdentityWeightIsOrdinaryLeastSquaresExactly)
{
    // y = 2 + 3t on six epochs. With W = I every product by W is exact and the
    // dense chain visits the same terms in the same order as the ordinary
    // fit, so the two agree to the bit.
    const Matrix t = {0, 0.5, 1.25, 2, 3.5, 4};
    Matrix y(t.size());
    for (size_t l = 0; l < t.size(); ++l) y[l] = 2.0 + 3.0 * t[l];
    const int64_t L = 6, M = 2;
    const Matrix A = line_design(t);
    const Matrix G = transpose(A, L, M);

    double* ols = lib::linear_function(G.data(), L, M, y.data());
    ASSERT_NE(ols, nullptr);
    EXPECT_NEAR(ols[0], 2.0, 1e-13);
    EXPECT_NEAR(ols[1], 3.0, 1e-13);

    Work k(L, M, kNaN);
    dense(A, Matrix(L, 1.0), L, M, y, k);
    EXPECT_TRUE(same_bits(k.T.data(), ols, M));

    double* weighted = lib::weighted_linear_function(A.data(), diagonal(Matrix(L, 1.0)).data(), L, M, y.data());
    ASSERT_NE(weighted, nullptr);
    EXPECT_TRUE(same_bits(weighted, ols, M));
    std::free(ols);
    std::free(weighted);
}

TEST(WeightedLinearFunction, DiagonalWeightsHandValue)
{
    // t = 0, 1, 2; y = 0, 1, 3; weights 1, 1, 2.
    // A^T W A = [[4, 5], [5, 9]], A^T W y = [7, 13] => x = [-2/11, 17/11].
    const int64_t L = 3, M = 2;
    const Matrix A = line_design({0, 1, 2});
    const Matrix w = {1, 1, 2};
    const Matrix y = {0, 1, 3};
    const double expected[] = {-2.0 / 11.0, 17.0 / 11.0};

    double* x = lib::weighted_linear_function(A.data(), diagonal(w).data(), L, M, y.data());
    ASSERT_NE(x, nullptr);
    Work k(L, M, kNaN);
    dense(A, w, L, M, y, k);
    Work d(L, M, kNaN);
    lib::DiagonalScratch scratch;
    ASSERT_TRUE(sparse(A, w, L, M, y, d, scratch));
    for (int i = 0; i < M; ++i) {
        EXPECT_NEAR(x[i], expected[i], 1e-14);
        EXPECT_NEAR(k.T[i], expected[i], 1e-14);
        EXPECT_NEAR(d.T[i], expected[i], 1e-14);
    }
    std::free(x);
}

TEST(WeightedLinearFunction, FullWeightMatrixIsNotTransposed)
{
    // One unknown, A = [1; 1], W = [[2, 1], [0, 1]], y = [1, 3]:
    // A^T W A = 4 and A^T W y = 8, so x = 2 (with W^T it would be 1.5).
    const Matrix A = {1, 1};
    const Matrix W = from_rows({{2, 1}, {0, 1}});
    const Matrix y = {1, 3};
    double* x = lib::weighted_linear_function(A.data(), W.data(), 2, 1, y.data());
    ASSERT_NE(x, nullptr);
    EXPECT_DOUBLE_EQ(x[0], 2.0);
    std::free(x);

    Work k(2, 1, kNaN);
    lib::weighted_linear_function_nonewmatrix(A.data(), W.data(), 2, 1, y.data(), k.S.data(), k.T.data(),
                                              k.E.data(), k.LU.data(), k.pivots.data());
    EXPECT_DOUBLE_EQ(k.T[0], 2.0);
}

TEST(WeightedLinearFunction, SingularNormalMatrixIsUsedUninverted)
{
    // The second unknown is never observed: A^T A = [[2, 0], [0, 0]] stays
    // as it is, and x = [[2, 0], [0, 0]] A^T y = [2*1 + 2*2, 0] = [6, 0].
    const int64_t L = 2, M = 2;
    const Matrix A = from_rows({{1, 0}, {1, 0}});
    const Matrix y = {1, 2};
    const Matrix w = {1, 1};

    double* ols = lib::linear_function(transpose(A, L, M).data(), L, M, y.data());
    double* weighted = lib::weighted_linear_function(A.data(), diagonal(w).data(), L, M, y.data());
    ASSERT_NE(ols, nullptr);
    ASSERT_NE(weighted, nullptr);
    Work k(L, M, kNaN);
    dense(A, w, L, M, y, k);
    Work d(L, M, kNaN);
    lib::DiagonalScratch scratch;
    ASSERT_TRUE(sparse(A, w, L, M, y, d, scratch));
    for (const double* x : {static_cast<const double*>(ols), static_cast<const double*>(weighted),
                            static_cast<const double*>(k.T.data()), static_cast<const double*>(d.T.data())}) {
        EXPECT_EQ(x[0], 6.0);
        EXPECT_EQ(x[1], 0.0);
    }
    // The normal matrix itself is returned in S.
    EXPECT_TRUE(same_bits(k.S.data(), from_rows({{2, 0}, {0, 0}}).data(), 4));
    std::free(ols);
    std::free(weighted);
}

// ---------------------------------------------------------------- diagonal path

// A random system shaped like the per-pixel inversion.
struct System {
    int64_t L = 0, M = 0;
    Matrix A, w, y;
};

System inversion_like(std::mt19937_64& rng)
{
    std::uniform_int_distribution<int> images_dist(3, 12);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    const int images = images_dist(rng);
    const int increments = images - 1;
    const bool with_velocity = u(rng) < 0.7;  // constraint rows need it
    const bool with_baseline = u(rng) < 0.5;
    const double pair_rate = u(rng) < 0.3 ? 0.25 : 0.7;  // sparse networks leave gaps
    const int velocity = increments;
    const int baseline = increments + (with_velocity ? 1 : 0);
    const int M = baseline + (with_baseline ? 1 : 0);

    std::vector<std::vector<double>> rows;
    Matrix w;
    const double heavy = 1.0 / std::sqrt(0.1);
    for (int a = 0; a < images; ++a)
        for (int b = a + 1; b < images; ++b) {
            if (u(rng) > pair_rate) continue;
            std::vector<double> row(M, 0.0);
            for (int j = a; j < b; ++j) row[j] = 1.0;
            if (with_baseline) {
                const double r = u(rng);
                row[baseline] = r < 0.1 ? 0.0 : r < 0.2 ? -0.0 : std::round((u(rng) - 0.5) * 4000.0) / 10.0;
            }
            rows.push_back(row);
            const double r = u(rng);
            w.push_back(r < 0.15 ? 0.0 : r < 0.55 ? heavy : 1.0);
        }
    if (with_velocity) {
        for (int j = 0; j < increments; ++j) {
            std::vector<double> row(M, 0.0);
            row[j] = 1.0;
            // Time steps are whole multiples of a 6-day revisit, in years.
            row[velocity] = -(6.0 * (1 + static_cast<int>(u(rng) * 8))) / 365.0;
            rows.push_back(row);
            w.push_back(u(rng) < 0.1 ? 0.0 : 0.1);
        }
    }
    System s;
    s.L = static_cast<int64_t>(rows.size());
    s.M = M;
    if (s.L == 0) return inversion_like(rng);
    s.A.assign(s.L * M, 0.0);
    for (int64_t l = 0; l < s.L; ++l)
        for (int j = 0; j < M; ++j) s.A[j * s.L + l] = rows[l][j];
    s.w = w;
    s.y.resize(s.L);
    for (double& v : s.y) {
        const double r = u(rng);
        v = r < 0.1 ? 0.0 : (u(rng) - 0.5) * 20.0;
    }
    return s;
}

// True when the normal matrix A^T diag(w) A cannot be factorised.
bool normal_matrix_singular(const System& s)
{
    const Matrix W = diagonal(s.w);
    Matrix T(s.M * s.L), S(s.M * s.M);
    lib::matmul("TN", s.M, s.L, s.L, 1.0, s.A.data(), W.data(), 0.0, T.data());
    lib::matmul("NN", s.M, s.M, s.L, 1.0, T.data(), s.A.data(), 0.0, S.data());
    return lib::matinv(S.data(), s.M) != 0;
}

void expect_identical(const Work& d, const Work& k, const std::string& what)
{
    EXPECT_TRUE(same_bits(d.T.data(), k.T.data(), d.T.size())) << what << ": T";
    EXPECT_TRUE(same_bits(d.S.data(), k.S.data(), d.S.size())) << what << ": S";
    EXPECT_TRUE(same_bits(d.E.data(), k.E.data(), d.E.size())) << what << ": E";
    EXPECT_TRUE(same_bits(d.LU.data(), k.LU.data(), d.LU.size())) << what << ": LU";
    EXPECT_EQ(d.pivots, k.pivots) << what << ": pivots";
}

TEST(DiagonalWeights, BitIdenticalToDenseOnInversionLikeSystems)
{
    std::mt19937_64 rng(20240611);
    lib::DiagonalScratch scratch;  // shared across systems, as in a thread's loop
    int singular = 0, negative_zero_products = 0;
    for (int trial = 0; trial < 400; ++trial) {
        const System s = inversion_like(rng);
        for (int64_t l = 0; l < s.L; ++l)
            for (int64_t j = 0; j < s.M; ++j)
                if (std::signbit(s.A[j * s.L + l] * s.w[l]) && s.A[j * s.L + l] * s.w[l] == 0.0)
                    ++negative_zero_products;
        if (normal_matrix_singular(s)) ++singular;

        Work k(s.L, s.M, kNaN);
        Work d(s.L, s.M, 3.0);
        dense(s.A, s.w, s.L, s.M, s.y, k);
        ASSERT_TRUE(sparse(s.A, s.w, s.L, s.M, s.y, d, scratch)) << "trial " << trial;
        expect_identical(d, k, "trial " + std::to_string(trial));
        if (::testing::Test::HasFailure()) break;
    }
    // The generator must actually reach the delicate cases.
    EXPECT_GT(singular, 10);
    EXPECT_GT(negative_zero_products, 10);
}

TEST(DiagonalWeights, BitIdenticalOnAFullSizeNetwork)
{
    // About the size of a real stack: 60 unknowns, a few hundred rows.
    std::mt19937_64 rng(5);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    const int increments = 58, velocity = 58, baseline = 59, M = 60;
    std::vector<std::vector<double>> rows;
    Matrix w;
    for (int a = 0; a < increments + 1; ++a)
        for (int b = a + 1; b < std::min(a + 5, increments + 1); ++b) {
            std::vector<double> row(M, 0.0);
            for (int j = a; j < b; ++j) row[j] = 1.0;
            row[baseline] = std::round((u(rng) - 0.5) * 3000.0) / 10.0;
            rows.push_back(row);
            w.push_back(u(rng) < 0.5 ? 1.0 : 1.0 / std::sqrt(0.1));
        }
    for (int j = 0; j < increments; ++j) {
        std::vector<double> row(M, 0.0);
        row[j] = 1.0;
        row[velocity] = -12.0 / 365.0;
        rows.push_back(row);
        w.push_back(0.1);
    }
    const int64_t L = static_cast<int64_t>(rows.size());
    Matrix A(L * M);
    for (int64_t l = 0; l < L; ++l)
        for (int j = 0; j < M; ++j) A[j * L + l] = rows[l][j];
    Matrix y(L);
    for (double& v : y) v = (u(rng) - 0.5) * 10.0;

    Work k(L, M, kNaN), d(L, M, 3.0);
    lib::DiagonalScratch scratch;
    dense(A, w, L, M, y, k);
    ASSERT_TRUE(sparse(A, w, L, M, y, d, scratch));
    expect_identical(d, k, "full size");
}

TEST(DiagonalWeights, ZeroWeightOnANegativeEntryGivesPositiveZero)
{
    // A = [-1; 1], w = [0, 1]: the dense sums turn each -0.0 product into
    // +0.0, so E[0] must be +0.0 although -1 * 0 is -0.0.
    const Matrix A = {-1, 1};
    const Matrix w = {0, 1};
    const Matrix y = {5, 7};
    Work k(2, 1, kNaN), d(2, 1, kNaN);
    lib::DiagonalScratch scratch;
    dense(A, w, 2, 1, y, k);
    ASSERT_TRUE(sparse(A, w, 2, 1, y, d, scratch));
    EXPECT_EQ(d.E[0], 0.0);
    EXPECT_FALSE(std::signbit(d.E[0]));
    EXPECT_EQ(d.T[0], 7.0);
    expect_identical(d, k, "negative zero");
}

TEST(DiagonalWeights, DeclinesWhenIdentityCannotBeGuaranteed)
{
    struct Case {
        std::string name;
        int64_t L, M;
        Matrix A, w;
    };
    const Case cases[] = {
        {"infinite weight", 3, 2, line_design({0, 1, 2}), {1, kInf, 1}},
        {"NaN weight", 3, 2, line_design({0, 1, 2}), {1, 1, kNaN}},
        {"NaN in A", 3, 2, line_design({0, kNaN, 2}), {1, 1, 1}},
        {"infinity in A", 3, 2, line_design({0, -kInf, 2}), {1, 1, 1}},
        {"weighted row overflows", 3, 2, line_design({0, 1e200, 2}), {1, 1e200, 1}},
        {"inverse overflows", 2, 2, from_rows({{1e-160, 0}, {0, 1e-160}}), {1, 1}},
        // S = 1e200 is finite, but S times the unweighted 1e200 row is not,
        // and the dense E would meet it as infinity times an off-diagonal zero.
        {"solution row overflows", 2, 1, {1e-100, 1e200}, {1, 0}},
    };
    for (const Case& c : cases) {
        const Matrix y(c.L, 1.0);
        Work d(c.L, c.M, 0.0);
        lib::DiagonalScratch scratch;
        EXPECT_FALSE(sparse(c.A, c.w, c.L, c.M, y, d, scratch)) << c.name;
    }
}

TEST(DiagonalWeights, ScratchStopsAllocatingOnceWarm)
{
    std::mt19937_64 rng(3);
    lib::DiagonalScratch scratch;
    // Warm up on the largest of a batch, then reuse on the others.
    std::vector<System> batch;
    for (int i = 0; i < 20; ++i) batch.push_back(inversion_like(rng));
    auto nonzeros = [](const System& s) { return s.A.size() - std::count(s.A.begin(), s.A.end(), 0.0); };
    size_t largest = 0;
    for (size_t i = 1; i < batch.size(); ++i)
        if (nonzeros(batch[i]) > nonzeros(batch[largest])) largest = i;
    const System& big = batch[largest];
    Work warm(big.L, big.M, 0.0);
    ASSERT_TRUE(sparse(big.A, big.w, big.L, big.M, big.y, warm, scratch));
    const size_t capacity = scratch.column_rows.capacity() + scratch.row_columns.capacity() +
                            scratch.column_start.capacity() + scratch.row_start.capacity();
    const void* column_rows = scratch.column_rows.data();
    for (const System& s : batch) {
        if (s.L > big.L || s.M > big.M || nonzeros(s) > nonzeros(big)) continue;
        Work d(s.L, s.M, 0.0);
        ASSERT_TRUE(sparse(s.A, s.w, s.L, s.M, s.y, d, scratch));
    }
    EXPECT_EQ(scratch.column_rows.data(), column_rows);
    EXPECT_EQ(scratch.column_rows.capacity() + scratch.row_columns.capacity() +
                  scratch.column_start.capacity() + scratch.row_start.capacity(),
              capacity);
}

}  // namespace
