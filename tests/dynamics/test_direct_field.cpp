// Direct-sum field, vector-product term, alignment step, applied field.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>

#include "dynamics/applied_field.hpp"
#include "dynamics/direct_field.hpp"
#include "interpreter/session.hpp"
#include "tensor/newell.hpp"
#include "test_util.hpp"

namespace torix {
namespace {

// The field routine written out plainly: every magnetic target, every
// component a, every magnetic source (itself included), every component b;
// then B = s H - MP, A(i) = sum eps(i,j,k) M(j) B(k), H += A / MS.
void oracle(const VecGrid& M, const Array<double, 1>& MS, const std::array<double, 3>& MP, double s,
            const IntGrid& mask, const TensorArray& AIJ, VecGrid& H, int nx, int ny, int nz) {
    for_cells(nx, ny, nz, [&](int i, int j, int k) {
        if (mask(i, j, k) == 0) return;
        for_cells(nx, ny, nz, [&](int i2, int j2, int k2) {
            const int q = mask(i2, j2, k2);
            if (q == 0) return;
            for (int a = 1; a <= 3; ++a)
                for (int b = 1; b <= 3; ++b)
                    H(i, j, k, a) += AIJ(i - i2, j - j2, k - k2, a + 3 * (b - 1), q) * M(i2, j2, k2, b);
        });
    });
    auto eps = [](int i, int j, int k) {
        // sign of the permutation (i, j, k) of (1, 2, 3), 0 on a repeat
        return (i - j) * (j - k) * (k - i) / 2;
    };
    for_cells(nx, ny, nz, [&](int i, int j, int k) {
        const int q = mask(i, j, k);
        if (q == 0) return;
        double B[4], A[4] = {0, 0, 0, 0};
        for (int a = 1; a <= 3; ++a) B[a] = s * H(i, j, k, a) - MP[a - 1];
        for (int a = 1; a <= 3; ++a)
            for (int b = 1; b <= 3; ++b)
                for (int c = 1; c <= 3; ++c) A[a] += eps(a, b, c) * M(i, j, k, b) * B[c];
        for (int a = 1; a <= 3; ++a) H(i, j, k, a) += A[a] / MS(q);
    });
}

struct Problem {
    int nx = 5, ny = 3, nz = 2;
    IntGrid mask;
    TensorArray AIJ;
    VecGrid M, H;
    Array<double, 1> MS = table({800.0, 1400.0});
};

// Irregular two-material body with holes, a tensor of unrelated random
// entries (no symmetry, distinct material slices, so any mix-up of offset
// sign, component order or material slice shows), random M and applied H.
Problem make_problem(int nx = 5, int ny = 3, int nz = 2) {
    Problem p;
    p.nx = nx, p.ny = ny, p.nz = nz;
    std::mt19937_64 g(42);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    p.mask = make_int_grid(p.nx, p.ny, p.nz);
    for_cells(nx, ny, nz, [&](int i, int j, int k) {
        const int r = static_cast<int>(g() % 5);
        p.mask(i, j, k) = r < 2 ? 0 : (r < 4 ? 1 : 2);
    });
    p.mask(p.nx, p.ny, p.nz) = 2;
    p.mask(0, 0, 0) = 1;
    p.AIJ = make_tensor(p.nx, p.ny, p.nz, 2);
    for (double& v : p.AIJ) v = u(g);
    p.M = make_vec_grid(p.nx, p.ny, p.nz);
    p.H = make_vec_grid(p.nx, p.ny, p.nz);
    for (double& v : p.M) v = 900.0 * u(g);
    for (double& v : p.H) v = 100.0 * u(g);
    return p;
}

double max_abs(const VecGrid& v) {
    double m = 0.0;
    for (double x : v) m = std::max(m, std::abs(x));
    return m;
}

TEST(DirectField, MatchesPlainSumOnMaskWithHolesAndTwoMaterials) {
    // Variant 2 empties the border, so the magnetic cells span only part of
    // the grid (the packed offsets then differ from the tensor's); variant 3
    // empties the whole mask, which leaves the field as it was.
    for (int variant = 0; variant < 4; ++variant) {
        const double s = variant == 0 ? 0.0 : 0.3;
        const std::array<double, 3> MP = s == 0.0 ? std::array<double, 3>{0, 0, 0} : std::array<double, 3>{5, -7, 11};
        Problem p = make_problem(6, 4, 3);
        if (variant >= 2)
            for_cells(p.nx, p.ny, p.nz, [&](int i, int j, int k) {
                if (variant == 3 || i == 0 || j == 0 || k == 0 || i == p.nx || j == p.ny) p.mask(i, j, k) = 0;
            });
        VecGrid want = p.H;
        const VecGrid before = p.H;
        oracle(p.M, p.MS, MP, s, p.mask, p.AIJ, want, p.nx, p.ny, p.nz);
        calcfields(p.M, p.MS, MP, s, p.mask, p.AIJ, p.H, p.nx, p.ny, p.nz, 2);
        const double scale = max_abs(want);
        for_cells(p.nx, p.ny, p.nz, [&](int i, int j, int k) {
            for (int a = 1; a <= 3; ++a) {
                if (p.mask(i, j, k) == 0) {
                    EXPECT_EQ(p.H(i, j, k, a), before(i, j, k, a)) << "empty cell changed";
                } else {
                    EXPECT_NEAR(p.H(i, j, k, a), want(i, j, k, a), 1e-13 * scale)
                        << "variant " << variant << " at " << i << "," << j << "," << k << " comp " << a;
                }
            }
        });
    }
}

TEST(DirectField, SameResultForAnyThreadCount) {
    Problem p = make_problem(11, 9, 3);  // about 280 magnetic cells: the parallel path
    const std::array<double, 3> MP{1, 2, 3};
    expect_thread_independent([&] {
        VecGrid h = p.H;
        calcfields(p.M, p.MS, MP, 0.2, p.mask, p.AIJ, h, p.nx, p.ny, p.nz, 2);
        return h;
    });
}

TEST(DirectField, VectorProductTermOnOneCellByHand) {
    // One cell, self block diag(-1, -1, -2), M = (0, 0, 800), MS = 800,
    // applied (10, 0, 0).  After the sum H = (10, 0, -1600).  With s = 0.5
    // and MP = (0, 100, 0): B = (5, -100, -800), M x B = (80000, 4000, 0),
    // divided by MS: (100, 5, 0).  H = (110, 5, -1600).
    IntGrid mask = make_int_grid(0, 0, 0, 1);
    TensorArray T = make_tensor(0, 0, 0, 1);
    T(0, 0, 0, 1, 1) = -1.0;
    T(0, 0, 0, 5, 1) = -1.0;
    T(0, 0, 0, 9, 1) = -2.0;
    T(1, 0, 0, 1, 1) = 1e9;  // offsets other than 0 must not be read
    VecGrid M = make_vec_grid(0, 0, 0), H = make_vec_grid(0, 0, 0);
    M(0, 0, 0, 3) = 800.0;
    H(0, 0, 0, 1) = 10.0;
    calcfields(M, table({800.0}), {0.0, 100.0, 0.0}, 0.5, mask, T, H, 0, 0, 0, 1);
    EXPECT_EQ(H(0, 0, 0, 1), 110.0);
    EXPECT_EQ(H(0, 0, 0, 2), 5.0);
    EXPECT_EQ(H(0, 0, 0, 3), -1600.0);
}

// A cube of n x n x n cubic cells, uniformly magnetized: the mean field over
// its cells is the field of the whole cube, -4 pi Ms / 3 along M.
TEST(DirectField, UniformCubeHasDemagnetizingFactorOneThird) {
    const double d = 5e-7, ms = 800.0;
    const double dir[3] = {0.36, -0.48, 0.8};  // unit vector
    for (int n : {1, 2, 4}) {
        const int N = n - 1;
        IntGrid mask = make_int_grid(N, N, N, 1);
        TensorArray T = make_tensor(N, N, N, 1);
        const Array<double, 1> A = table({0.0}), MS = table({ms});
        tensornewall(A, MS, T, N, N, N, d, d, d, 1, 1);
        VecGrid M = make_vec_grid(N, N, N), H = make_vec_grid(N, N, N);
        for_cells(N, N, N, [&](int i, int j, int k) {
            for (int a = 1; a <= 3; ++a) M(i, j, k, a) = ms * dir[a - 1];
        });
        calcfields(M, MS, {0, 0, 0}, 0.0, mask, T, H, N, N, N, 1);
        const double want = -4.0 * std::numbers::pi * ms / 3.0;
        double sum[3] = {0.0, 0.0, 0.0};
        for_cells(N, N, N, [&](int i, int j, int k) {
            for (int a = 1; a <= 3; ++a) sum[a - 1] += H(i, j, k, a);
        });
        for (int a = 1; a <= 3; ++a)
            EXPECT_NEAR(sum[a - 1] / (n * n * n), want * dir[a - 1], 1e-12 * std::abs(want)) << n << " per edge, " << a;
    }
}

TEST(AlignFields, FullStepFollowsFieldAndZeroStepRenormalises) {
    IntGrid mask = make_int_grid(2, 0, 0);
    mask(0, 0, 0) = 1;
    mask(1, 0, 0) = 2;  // cell 2 empty
    const Array<double, 1> MS = table({800.0, 1000.0});
    VecGrid H = make_vec_grid(2, 0, 0), prev = make_vec_grid(2, 0, 0);
    const double h[3][3] = {{3, 0, 4}, {0, -2, 0}, {7, 7, 7}};
    const double m[3][3] = {{0, 1, 0}, {1, 1, 0}, {5, 5, 5}};
    for (int i = 0; i < 3; ++i)
        for (int a = 1; a <= 3; ++a) {
            H(i, 0, 0, a) = h[i][a - 1];
            prev(i, 0, 0, a) = m[i][a - 1];
        }
    VecGrid M = make_vec_grid(2, 0, 0, -9.0);
    alignfields(M, H, prev, MS, mask, 1.0, 2, 0, 0);
    EXPECT_DOUBLE_EQ(M(0, 0, 0, 1), 480.0);
    EXPECT_DOUBLE_EQ(M(0, 0, 0, 2), 0.0);
    EXPECT_DOUBLE_EQ(M(0, 0, 0, 3), 640.0);
    EXPECT_DOUBLE_EQ(M(1, 0, 0, 2), -1000.0);
    EXPECT_EQ(M(2, 0, 0, 1), -9.0);  // empty cell untouched

    alignfields(M, H, prev, MS, mask, 0.0, 2, 0, 0);
    EXPECT_DOUBLE_EQ(M(0, 0, 0, 2), 800.0);
    EXPECT_DOUBLE_EQ(M(1, 0, 0, 1), 1000.0 / std::sqrt(2.0));
    EXPECT_DOUBLE_EQ(M(1, 0, 0, 2), 1000.0 / std::sqrt(2.0));

    // Half step: mix then rescale, (0.5 (3,0,4) + 0.5 (0,1,0)) -> length 800.
    alignfields(M, H, prev, MS, mask, 0.5, 2, 0, 0);
    const double len = std::sqrt(1.5 * 1.5 + 0.5 * 0.5 + 2.0 * 2.0);
    EXPECT_DOUBLE_EQ(M(0, 0, 0, 1), 800.0 * 1.5 / len);
    EXPECT_DOUBLE_EQ(M(0, 0, 0, 2), 800.0 * 0.5 / len);
}

TEST(AppliedField, StaticPartAndDrivingPartAtGivenTime) {
    VecGrid H0 = make_vec_grid(1, 1, 0), H = make_vec_grid(1, 1, 0, 123.0);
    CVecGrid rf = make_cvec_grid(1, 1, 0);
    for (int a = 1; a <= 3; ++a)
        for (int j = 0; j <= 1; ++j)
            for (int i = 0; i <= 1; ++i) {
                H0(i, j, 0, a) = 10.0 * a + i;
                rf(i, j, 0, a) = cplx(2.0 * a, -3.0 + j);
            }
    inith(H0, rf, false, 2.0, 0.7, H, 1, 1, 0);
    EXPECT_TRUE(H == H0);

    const double w = 3.0;
    // At t = 0 the drive is Re(HRF); a quarter period later it is -Im(HRF).
    inith(H0, rf, true, w, 0.0, H, 1, 1, 0);
    EXPECT_DOUBLE_EQ(H(1, 0, 0, 2), 21.0 + 4.0);
    inith(H0, rf, true, w, std::numbers::pi / (2 * w), H, 1, 1, 0);
    EXPECT_NEAR(H(0, 1, 0, 3), 30.0 + 2.0, 1e-12);
}

TEST(FieldMethod, FourierAboveExactly300MagneticCellsAndFieldStartsFromApplied) {
    ModelState st;
    st.MASQUE = make_int_grid(19, 19, 0);
    for (int n = 0; n < 300; ++n) st.MASQUE(n % 20, n / 20, 0) = 1;
    EXPECT_FALSE(use_fft(st));
    st.MASQUE(0, 15, 0) = 2;
    EXPECT_TRUE(use_fft(st));

    // compute_field starts from HINIT, whatever H held: one cell, self block -1.
    st.nx = st.ny = st.nz = 0;
    st.nmat = 1;
    st.MS = Array<double, 1>({Range{1, 1}}, 100.0);
    st.MASQUE = make_int_grid(0, 0, 0, 1);
    st.AIJ = make_tensor(0, 0, 0, 1);
    for (int c : {1, 5, 9}) st.AIJ(0, 0, 0, c, 1) = -1.0;
    st.M = make_vec_grid(0, 0, 0, 100.0);
    st.H = make_vec_grid(0, 0, 0, 1e6);
    st.HINIT = make_vec_grid(0, 0, 0, 7.0);
    compute_field(st);
    for (int a = 1; a <= 3; ++a) EXPECT_EQ(st.H(0, 0, 0, a), 7.0 - 100.0);
}

}  // namespace
}  // namespace torix
