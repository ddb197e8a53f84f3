// Least-squares front ends: hand-worked fits, and the diagonal-weight
// estimator reproducing the dense chain's bit for bit on systems shaped like
// the time-series inversion and where it must fall back on the dense chain.
#include "numerics/least_squares.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <tuple>
#include <vector>

#include "numerics/linalg.h"

namespace {

using Matrix = std::vector<double>;

bool same_bits(const Matrix& a, const double* b)
{
    return std::memcmp(a.data(), b, a.size() * sizeof(double)) == 0;
}

Matrix diagonal(const Matrix& w)
{
    Matrix W(w.size() * w.size(), 0.0);
    for (size_t l = 0; l < w.size(); ++l) W[l * w.size() + l] = w[l];
    return W;
}

// Caller storage of the in-place routines, filled with NaN so that anything
// left unwritten shows.
struct Work {
    Work(int64_t L, int64_t M) : S(M * M, NAN), T(M * L, NAN), E(M * L, NAN), LU(M * M, NAN), pivots(M, -1) {}
    Matrix S, T, E, LU;
    std::vector<int> pivots;
};

TEST(LeastSquares, HandWorkedFits)
{
    // A (L x M), W, y and the estimate:
    //  - a line through (0, 1), (1, 2), (2, 2), (3, 4): slope and intercept 0.9;
    //  - the unknown (0, 1) never observed: the singular A^T A = [[2, 0], [0, 0]]
    //    is used uninverted, x = A^T A A^T y = (6, 0);
    //  - weights 1, 1, 2 on (0, 0), (1, 1), (2, 3): [[4, 5], [5, 9]]^-1 (7, 13);
    //  - W = [[2, 1], [0, 1]] used as stored: with A = I the fit is exact, x = y,
    //    which W transposed in A^T W A or in A^T W would spoil.
    // The in-place routine runs the chain of weighted_linear_function, to the
    // bit. With W = I the products by W are exact and the terms come in the
    // order of the ordinary fit, so linear_function gives the same bits too.
    const std::tuple<int64_t, int64_t, Matrix, Matrix, Matrix, Matrix> cases[] = {
        {4, 2, {1, 1, 1, 1, 0, 1, 2, 3}, diagonal({1, 1, 1, 1}), {1, 2, 2, 4}, {0.9, 0.9}},
        {2, 2, {1, 1, 0, 0}, diagonal({1, 1}), {1, 2}, {6, 0}},
        {3, 2, {1, 1, 1, 0, 1, 2}, diagonal({1, 1, 2}), {0, 1, 3}, {-2.0 / 11, 17.0 / 11}},
        {2, 2, {1, 0, 0, 1}, {2, 0, 1, 1}, {1, 3}, {1, 3}},
    };
    for (const auto& [L, M, A, W, y, expected] : cases) {
        Matrix G(L * M);  // A stored transposed
        for (int64_t q = 0; q < L * M; ++q) G[q % L * M + q / L] = A[q];
        double* ols = lib::linear_function(G.data(), L, M, y.data());
        double* x = lib::weighted_linear_function(A.data(), W.data(), L, M, y.data());
        Work k(L, M);
        lib::weighted_linear_function_nonewmatrix(A.data(), W.data(), L, M, y.data(), k.S.data(), k.T.data(),
                                                  k.E.data(), k.LU.data(), k.pivots.data());
        for (int64_t i = 0; i < M; ++i) EXPECT_NEAR(x[i], expected[i], 1e-14) << L << " x " << M << ": " << i;
        EXPECT_TRUE(same_bits({x, x + M}, k.T.data()));
        EXPECT_TRUE(W != diagonal(Matrix(L, 1.0)) || same_bits({x, x + M}, ols)) << L << " x " << M;
        std::free(ols);
        std::free(x);
    }
}

// The dense chain's estimator E, with W = diag(w) stored whole.
Matrix dense_estimator(const Matrix& A, const Matrix& w, int64_t L, int64_t M)
{
    Work k(L, M);
    const Matrix y(L, 0.0);
    lib::weighted_linear_function_nonewmatrix(A.data(), diagonal(w).data(), L, M, y.data(), k.S.data(),
                                              k.T.data(), k.E.data(), k.LU.data(), k.pivots.data());
    return k.E;
}

// E from lib::weighted_estimator, stored with a padded column stride.
Matrix diagonal_estimator(const Matrix& A, const Matrix& w, int64_t L, int64_t M, lib::EstimatorScratch& scratch)
{
    const int64_t ldE = (M + 7) / 8 * 8;
    Matrix padded(ldE * L, NAN), E(M * L);
    lib::weighted_estimator(A.data(), w.data(), L, M, padded.data(), ldE, scratch);
    for (int64_t l = 0; l < L; ++l)
        for (int64_t i = 0; i < M; ++i) E[l * M + i] = padded[l * ldE + i];
    return E;
}

TEST(DiagonalWeights, TheEstimatorIsTheDenseOnesOnInversionLikeSystems)
{
    // Random systems shaped like the per-pixel inversion: a row per
    // interferogram with ones over the increments j1 <= j < j2 it spans and
    // maybe a baseline term, then with a velocity a row per increment tying
    // it to the velocity times minus its time step. Sparse networks and zero
    // weights leave normal matrices singular; baselines of either zero sign
    // and zero weights give -0.0 products. The scratch goes from system to
    // system, as in a thread.
    std::mt19937_64 rng(20240611);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    lib::EstimatorScratch scratch;
    for (int trial = 0; trial < 400; ++trial) {
        const int steps = 2 + static_cast<int>(u(rng) * 10), velocity = u(rng) < 0.7, baseline = u(rng) < 0.5;
        const int pairs = 1 + static_cast<int>(u(rng) * 2 * steps);
        const int64_t M = steps + velocity + baseline, L = pairs + velocity * steps;
        Matrix A(L * M, 0.0), w(L);
        for (int64_t l = 0; l < L; ++l) {
            if (l < pairs) {
                const int j1 = static_cast<int>(u(rng) * steps);
                const int j2 = j1 + 1 + static_cast<int>(u(rng) * (steps - j1));
                for (int j = j1; j < j2; ++j) A[j * L + l] = 1.0;
                // Baselines of +-0.0 one time in eight.
                if (baseline) A[(M - 1) * L + l] = std::round((u(rng) - 0.5) * 8) * 37.5;
            } else {
                A[(l - pairs) * L + l] = 1.0;
                A[steps * L + l] = -6.0 * (1 + static_cast<int>(u(rng) * 8)) / 365;  // 6-day revisits
            }
            // Zero one time in eight, else 0.1 on a constraint and 1 or 1/sqrt(0.1) on an interferogram.
            w[l] = u(rng) < 0.125 ? 0.0 : l >= pairs ? 0.1 : u(rng) < 0.5 ? 1.0 / std::sqrt(0.1) : 1.0;
        }
        const Matrix expected = dense_estimator(A, w, L, M);
        ASSERT_TRUE(same_bits(expected, diagonal_estimator(A, w, L, M, scratch).data())) << "trial " << trial;
    }
}

TEST(DiagonalWeights, WhereTheHalvesDeclineTheDenseChainStillGivesTheBits)
{
    // (what, L, M, A, w). Each is a place where the dense sums meet infinity
    // or NaN times one of the zeros the diagonal halves skip; they decline
    // and the estimator is formed term by term, W held as its diagonal.
    const std::tuple<const char*, int64_t, int64_t, Matrix, Matrix, bool> cases[] = {
        {"NaN weight on a row of zeros", 3, 2, {1, 1, 0, 0, 1, 0}, {1, 1, NAN}, true},
        {"infinity in A", 2, 1, {1, -INFINITY}, {1, 1}, true},
        {"infinite weight", 3, 2, {1, 1, 0, 0, 1, 1}, {1, 1, INFINITY}, true},
        {"weighted entry overflows", 2, 2, {1, 0, 0, 1e200}, {1, 1e200}, true},
        {"inverse overflows", 2, 2, {1e-160, 0, 0, 1e-160}, {1, 1}, false},
        // S = 1e200 is finite, S times the unweighted 1e200 row is not.
        {"solution row overflows", 2, 1, {1e-100, 1e200}, {1, 0}, false},
    };
    lib::EstimatorScratch scratch;
    for (const auto& [what, L, M, A, w, in_the_first_half] : cases) {
        lib::SparseDesign design;
        lib::index_design(A.data(), L, M, design);
        Matrix S(M * M);
        const bool first = lib::diagonal_normal_matrix(design, w.data(), L, M, S.data());
        EXPECT_EQ(first, !in_the_first_half) << what;
        if (first) {
            Matrix LU(M * M);
            std::vector<int> pivots(M);
            lib::matinv_acc(S.data(), LU.data(), pivots.data(), M);
            Matrix padded(8 * L);
            lib::EstimatorWork work;
            EXPECT_FALSE(lib::diagonal_estimator(design, w.data(), L, M, S.data(), padded.data(), 8, work)) << what;
        }
        EXPECT_TRUE(same_bits(dense_estimator(A, w, L, M), diagonal_estimator(A, w, L, M, scratch).data())) << what;
    }
}

}  // namespace
