// Iterative solve: both operator kinds against the dense solve, left
// vectors, the console report and the failure report.
#include <gtest/gtest.h>

#include <cmath>
#include <iostream>
#include <sstream>

#include "eigen/arnoldi.hpp"
#include "eigen_model.hpp"

namespace torix::test {
namespace {

// A 5 x 4 x 2 slab in a strong field along z, nearly uniform; 40 cells.
Model slab() {
    Model m = make_model(4, 3, 1, 5e-7, 5e-7, 5e-7, {{1.3e-6, 800.0}}, [](int, int, int) { return 1; });
    set_m(m, [](int, int, int) { return std::array<double, 3>{0.0, 0.0, 1.0}; });
    set_field(m, {0.0, 0.0, 8000.0});
    set_numbering(m);
    return m;
}

TEST(Arnoldi, BothKindsGiveTheDenseLowestFrequencies) {
    const Model m = slab();
    const int n = 2 * m.N;
    Modes dense;
    (void)captured_cout([&] { calcmatrix(m.input(), m.N, dense.out()); });
    ASSERT_GE(dense.nmodes, 4);

    const int nev = 8, ncv = 40;  // script values 4 and 20, doubled
    for (int kind = 1; kind <= 2; ++kind) {
        SCOPED_TRACE(kind);
        Modes it;
        Array<double, 2> V({Range{1, n}, Range{1, ncv}}, 0.0), D({Range{1, ncv}, Range{1, 3}}, 0.0);
        const std::string out = captured_cout([&] {
            if (kind == 1)
                calcmatrix_ns(m.input(), nev, ncv, it.out(), D, V);
            else
                calcmatrix_s(m.input(), nev, ncv, 0.0, it.out(), D, V);
        });
        ASSERT_EQ(it.nmodes, 4) << out;
        for (int p = 1; p <= 4; ++p) {
            EXPECT_NEAR(it.W(p, 1), dense.W(p, 1), 1e-6 * dense.W(p, 1)) << "mode " << p;
            EXPECT_NEAR(it.W(p, 2), 0.0, 1e-6 * dense.W(p, 1));
        }
        const auto A = dense_matrix(m);
        for (int p = 1; p <= 4; ++p) {
            const cplx lambda(-it.W(p, 2), it.W(p, 1));
            EXPECT_LT(residual_of(A, vec(it.R, m.N, p), lambda, false), 1e-8) << "mode " << p;
            EXPECT_LT(residual_of(A, vec(it.L, m.N, p), lambda, true), 1e-8) << "mode " << p;
        }
        // Console: element count only for the element list, then the texts.
        EXPECT_EQ(out.find(" elements ") != std::string::npos, kind == 2);
        EXPECT_TRUE(holds(out, {" matrix created", " Ritz values (Real,Imag) and relative residuals",
                                " Size of the matrix is 80", " The number of Ritz values requested is 8",
                                " The number of Arnoldi vectors generated (NCV) is 40", " matrix solved"}));
        // The residual column of the table holds small relative residuals.
        for (int j = 1; j <= 8; ++j) EXPECT_LT(D(j, 3), 1e-8) << j;
    }
}

TEST(Arnoldi, BadBasisSizeIsReportedAndGivesNoModes) {
    const Model m = slab();
    const int n = 2 * m.N;
    const int nev = 8, ncv = 9;  // ncv < nev + 2
    Modes it;
    Array<double, 2> V({Range{1, n}, Range{1, ncv}}, 0.0), D({Range{1, ncv}, Range{1, 3}}, 0.0);
    const std::string out = captured_cout([&] { calcmatrix_ns(m.input(), nev, ncv, it.out(), D, V); });
    EXPECT_EQ(it.nmodes, 0);
    EXPECT_TRUE(holds(out, {" Error with _naupd, info = -3\n Check the documentation of _naupd\n"}));
}

TEST(SortAr, PairsBecomeModesOrderedByFrequency) {
    // Ritz values: real 4, pair -1 +- 3i (negative member first), pair -2 +- 1i.
    const int n = 2;  // N = 1
    Array<double, 2> D({Range{1, 6}, Range{1, 3}}, 0.0), V({Range{1, n}, Range{1, 6}}, 0.0);
    const double re[5] = {4, -1, -1, -2, -2}, im[5] = {0, -3, 3, 1, -1};
    for (int j = 1; j <= 5; ++j) {
        D(j, 1) = re[j - 1], D(j, 2) = im[j - 1];
        V(1, j) = 10 * j + 1, V(2, j) = 10 * j + 2;
    }
    Array<double, 2> W;
    Array<cplx, 3> vec;
    Array<double, 1> zout;
    ASSERT_EQ(sort_ar(D, V, 5, 1, 5, W, vec, zout), 2);
    EXPECT_EQ(W(1, 1), 1.0);
    EXPECT_EQ(W(1, 2), 2.0);
    EXPECT_EQ(vec(1, 1, 1), cplx(41, 51));
    EXPECT_EQ(W(2, 1), 3.0);
    EXPECT_EQ(W(2, 2), 1.0);
    // Columns 2, 3 hold the vector of -1 - 3i: the +3 mode is its conjugate.
    EXPECT_EQ(vec(1, 1, 2), cplx(21, -31));
    EXPECT_EQ(vec(1, 2, 2), cplx(22, -32));
    EXPECT_EQ(zout(2), 2.0);
    ASSERT_EQ(sort_ar(D, V, 5, 1, 1, W, vec, zout), 1);
    EXPECT_EQ(W(1, 1), 1.0);
}

}  // namespace
}  // namespace torix::test
