// Dense solve: mode selection on synthetic eigenvalue lists, analytic
// single-cell and sphere frequencies, eigenvector residuals and
// biorthogonality.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <iostream>
#include <numbers>
#include <sstream>

#include "eigen_model.hpp"

namespace torix::test {
namespace {

constexpr double kPi = std::numbers::pi;

// Runs calcmatrix with the console lines captured.
Modes solve(const Model& m, int nsel, std::string* console = nullptr) {
    Modes r;
    const std::string out = captured_cout([&] { calcmatrix(m.input(), nsel, r.out()); });
    if (console) *console = out;
    return r;
}

TEST(SortModes, SelectionOrderTiesAndRealEigenvalues) {
    // N = 5, positions 1..10.  Odd positions carry |WI| = 3, 0 (real), 1, 3, 2.
    const double WR[10] = {-0.1, -0.1, 5.0, 4.0, -0.2, -0.2, -0.3, -0.3, -0.4, -0.4};
    const double WI[10] = {3.0, -3.0, 0.0, 0.0, 1.0, -1.0, -3.0, 3.0, 2.0, -2.0};
    const auto sel = select_modes(WR, WI, 5, 7);
    // Increasing |WI|; the tie at 3 by increasing position; the real
    // eigenvalue at position 3 never; the fifth place stays -1, and no
    // places are kept beyond the N odd positions.
    const std::vector<int> want = {3, 5, 1, 4, -1};
    EXPECT_EQ(sel, want);
    EXPECT_EQ(select_modes(WR, WI, 5, 2), (std::vector<int>{3, 5}));
    EXPECT_TRUE(select_modes(WR, WI, 5, 0).empty());
    EXPECT_EQ(select_modes(WR, WI, 5, 2000000000).size(), 5u);
}

TEST(SortModes, StoredVectorsBelongToPositiveFrequency) {
    // N = 2 (order 4): a real eigenvalue at position 1 shifts the pairing, so
    // the pair sits at positions 2, 3 with the odd member (3) negative.
    const double WR[4] = {7.0, -0.5, -0.5, 9.0};
    const double WI[4] = {0.0, 2.0, -2.0, 0.0};
    // Columns 1..4 of the vector matrix (column-major, order 4).
    const double V[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    Array<double, 2> W;
    Array<cplx, 3> vec;
    Array<double, 1> zout;
    const int nm = sort(WR, WI, V, 2, 3, W, vec, zout);
    ASSERT_EQ(nm, 1);
    EXPECT_EQ(W(1, 1), 2.0);
    EXPECT_EQ(W(1, 2), 0.5);
    EXPECT_EQ(zout(1), 3.0);
    // Column 2 + i column 3: the eigenvector of -0.5 + 2i in LAPACK's packing.
    EXPECT_EQ(vec(1, 1, 1), cplx(5, 9));
    EXPECT_EQ(vec(1, 2, 1), cplx(6, 10));
    EXPECT_EQ(vec(2, 1, 1), cplx(7, 11));
    EXPECT_EQ(vec(2, 2, 1), cplx(8, 12));
    // An ordinary pair at 1, 2 stores column 1 + i column 2.
    const double WR2[4] = {-1.0, -1.0, 3.0, 4.0};
    const double WI2[4] = {5.0, -5.0, 0.0, 0.0};
    ASSERT_EQ(sort(WR2, WI2, V, 2, 1, W, vec, zout), 1);
    EXPECT_EQ(W(1, 1), 5.0);
    EXPECT_EQ(W(1, 2), 1.0);
    EXPECT_EQ(vec(1, 1, 1), cplx(1, 5));
    EXPECT_EQ(vec(2, 2, 1), cplx(4, 8));
}

TEST(SortModes, ConjugatePackedPairHasTrueEigenvector) {
    // A real 4x4 block-diagonal matrix: eigenvalue 3 first, then the pair
    // -0.5 +- 2i: LAPACK returns 3 at position 1 and the pair at 2, 3 or
    // somewhere else; either way every stored vector must be an
    // eigenvector for -g + i f.
    const int n = 4;
    std::vector<double> A = {3, 0, 0, 0, 0, -0.5, -2, 0, 0, 2, -0.5, 0, 0, 0, 0, 0.1};
    // Rotate by a fixed orthogonal matrix (a 4x4 Hadamard matrix / 2) so that the vectors are not trivial.
    std::vector<double> Q(16);
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) Q[r + 4 * c] = (std::popcount(static_cast<unsigned>(r & c)) % 2 ? -0.5 : 0.5);
    std::vector<double> B(16, 0.0), QA(16, 0.0);
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c)
            for (int k = 0; k < 4; ++k) QA[r + 4 * c] += Q[r + 4 * k] * A[k + 4 * c];
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c)
            for (int k = 0; k < 4; ++k) B[r + 4 * c] += QA[r + 4 * k] * Q[c + 4 * k];
    std::vector<double> work = B;
    DenseEigen e;
    dense_eigen(n, work.data(), e);
    Array<double, 2> W;
    Array<cplx, 3> R, L;
    Array<double, 1> zout;
    ASSERT_EQ(sort(e.WR.data(), e.WI.data(), e.VR.data(), 2, 2, W, R, zout), 1);
    ASSERT_EQ(sort(e.WR.data(), e.WI.data(), e.VL.data(), 2, 2, W, L, zout), 1);
    EXPECT_NEAR(W(1, 1), 2.0, 1e-12);
    EXPECT_NEAR(W(1, 2), 0.5, 1e-12);
    const cplx lambda(-W(1, 2), W(1, 1));
    EXPECT_LT(residual_of(B, vec(R, 2, 1), lambda, false), 1e-12);
    EXPECT_LT(residual_of(B, vec(L, 2, 1), lambda, true), 1e-12);
}

TEST(DenseSolve, SingleCellFrequencies) {
    // Cubic cell along the field: f = H0, g = beta H0.
    const double H0 = 2000.0, Ms = 800.0, beta = 0.05;
    Model m = make_model(0, 0, 0, 5e-7, 5e-7, 5e-7, {{1.3e-6, Ms}}, [](int, int, int) { return 1; });
    set_m(m, [](int, int, int) { return std::array<double, 3>{0.0, 0.0, 1.0}; });
    set_field(m, {0.0, 0.0, H0});
    set_numbering(m);
    m.alpha = -beta;  // what the solve commands pass
    std::string console;
    const Modes r = solve(m, 3, &console);
    ASSERT_EQ(r.nmodes, 1);
    EXPECT_NEAR(r.W(1, 1), H0, 1e-9 * H0);
    EXPECT_NEAR(r.W(1, 2), beta * H0, 1e-9 * H0);
    EXPECT_TRUE(holds(console, {" matrix prepared in ", " matrix solved in "}));
    // A field along a tilted magnetization: same frequency, the frame turns.
    set_m(m, [](int, int, int) { return std::array<double, 3>{1.0, 2.0, -0.5}; });
    const double r3 = std::sqrt(1.0 + 4.0 + 0.25);
    set_field(m, {H0 / r3, 2.0 * H0 / r3, -0.5 * H0 / r3});
    m.alpha = 0.0;
    const Modes t = solve(m, 1);
    ASSERT_EQ(t.nmodes, 1);
    EXPECT_NEAR(t.W(1, 1), H0, 1e-9 * H0);
    EXPECT_NEAR(t.W(1, 2), 0.0, 1e-9 * H0);
    // Non-cubic cell: the Kittel frequency from the self block's demagnetizing factors.
    const double H1 = 1500.0, Ms1 = 1000.0;
    Model k = make_model(0, 0, 0, 3e-7, 5e-7, 8e-7, {{1.3e-6, Ms1}}, [](int, int, int) { return 1; });
    set_m(k, [](int, int, int) { return std::array<double, 3>{0.0, 0.0, 1.0}; });
    set_field(k, {0.0, 0.0, H1});
    set_numbering(k);
    double N[3];
    for (int c = 0; c < 3; ++c) N[c] = -k.AIJ(0, 0, 0, 1 + 4 * c, 1) / (4 * kPi);
    ASSERT_NEAR(N[0] + N[1] + N[2], 1.0, 1e-10);
    ASSERT_GT(N[0], N[1]);
    const double f = std::sqrt((H1 + (N[0] - N[2]) * 4 * kPi * Ms1) * (H1 + (N[1] - N[2]) * 4 * kPi * Ms1));
    const Modes kr = solve(k, 1);
    ASSERT_EQ(kr.nmodes, 1);
    EXPECT_NEAR(kr.W(1, 1), f, 1e-10 * f);
    EXPECT_NEAR(kr.W(1, 2), 0.0, 1e-10 * f);
}

TEST(DenseSolve, VectorsAreEigenvectorsAndBiorthogonal) {
    // A non-trivial model: tilted magnetization, two numbers with two cells.
    Model m = make_model(3, 2, 1, 5e-7, 5e-7, 5e-7, {{1.3e-6, 800.0}}, [](int x, int y, int) { return x + y < 5 ? 1 : 0; });
    set_m(m, [](int x, int y, int z) { return std::array<double, 3>{0.2 + 0.1 * x, 0.1 * y - 0.1, 1.0 + 0.05 * z}; });
    set_field(m, {500.0, 0.0, 3000.0});
    set_numbering(m, 1, 1, 2);
    m.alpha = -0.02;
    const Modes r = solve(m, 2 * m.N);
    const auto A = dense_matrix(m);
    ASSERT_GT(r.nmodes, m.N / 2);
    EXPECT_LE(r.nmodes, m.N);
    for (int p = 1; p <= r.nmodes; ++p) {
        const cplx lambda(-r.W(p, 2), r.W(p, 1));
        EXPECT_GT(r.W(p, 1), 0.0);
        EXPECT_LT(residual_of(A, vec(r.R, m.N, p), lambda, false), 1e-8) << "mode " << p;
        EXPECT_LT(residual_of(A, vec(r.L, m.N, p), lambda, true), 1e-8) << "mode " << p;
        EXPECT_EQ(r.ZOUT(p), std::floor(r.ZOUT(p)));
        EXPECT_EQ(r.PHASES(p), 0.0);
    }
    for (int p = 1; p <= r.nmodes; ++p) {
        const auto u = vec(r.L, m.N, p);
        for (int q = 1; q <= r.nmodes; ++q) {
            const auto v = vec(r.R, m.N, q);
            cplx s = 0.0;
            for (std::size_t k = 0; k < u.size(); ++k) s += std::conj(u[k]) * v[k];
            if (p != q)
                EXPECT_LT(std::abs(s), 1e-8 * norm(u) * norm(v)) << p << " " << q;
            else
                EXPECT_GT(std::abs(s), 1e-6 * norm(u) * norm(v)) << p;
        }
    }
}

}  // namespace
}  // namespace torix::test
