// Dynamic matrix: frames, assembly against a literal step-by-step
// evaluation, thread-count independence, element list.
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>
#include <random>

#include "eigen_model.hpp"
#include "fd_jacobian.hpp"
#include "dynamics/dmi_interfaces.hpp"
#include "tensor/dmi.hpp"
#include "tensor/neighbour_blocks.hpp"

namespace torix::test {
namespace {

int eps(int k, int l, int n) {
    if (k == l || l == n || k == n) return 0;
    return ((l - k + 3) % 3 == 1) ? 1 : -1;  // (1,2,3) cyclic -> +1
}

// The assembly written out literally: per grid-cell pair, 3x3 products with
// the Levi-Civita symbol, the damping product, the self terms, the frame
// rotation, then the row division by the multiplicity.
std::vector<double> literal_matrix(const Model& m) {
    const int N = m.N;
    const std::size_t n2 = 2 * static_cast<std::size_t>(N);
    std::vector<double> A(n2 * n2, 0.0);
    auto frame = [&](int x, int y, int z, double R[3][3]) {
        const double mv[3] = {m.M(x, y, z, 1), m.M(x, y, z, 2), m.M(x, y, z, 3)};
        double r[9];
        local_frame(mv, r);
        for (int k = 0; k < 3; ++k)
            for (int c = 0; c < 3; ++c) R[k][c] = r[k + 3 * c];
    };
    for (int xi = 0; xi <= m.nx; ++xi)
        for (int yi = 0; yi <= m.ny; ++yi)
            for (int zi = 0; zi <= m.nz; ++zi) {
                const int mati = m.MASQUE(xi, yi, zi);
                if (mati == 0) continue;
                const int i = m.NUM(xi, yi, zi);
                double Ri[3][3];
                frame(xi, yi, zi, Ri);
                const double mi[3] = {m.M(xi, yi, zi, 1), m.M(xi, yi, zi, 2), m.M(xi, yi, zi, 3)};
                const double ms = m.MS(mati);
                const double ci = (mi[0] * m.happ[0] + mi[1] * m.happ[1] + mi[2] * m.happ[2]) / ms;
                for (int xj = 0; xj <= m.nx; ++xj)
                    for (int yj = 0; yj <= m.ny; ++yj)
                        for (int zj = 0; zj <= m.nz; ++zj) {
                            const int matj = m.MASQUE(xj, yj, zj);
                            if (matj == 0) continue;
                            const int j = m.NUM(xj, yj, zj);
                            double Rj[3][3];
                            frame(xj, yj, zj, Rj);
                            double D[3][3], T[3][3] = {}, U[3][3] = {}, B[3][3] = {};
                            for (int a = 0; a < 3; ++a)
                                for (int b = 0; b < 3; ++b)
                                    D[a][b] = m.AIJ(xi - xj, yi - yj, zi - zj, a + 1 + 3 * b, matj);
                            for (int k = 0; k < 3; ++k)
                                for (int c = 0; c < 3; ++c)
                                    for (int l = 0; l < 3; ++l)
                                        for (int n = 0; n < 3; ++n) T[k][c] += eps(k, l, n) * mi[l] * D[n][c];
                            const bool self = xi == xj && yi == yj && zi == zj;
                            if (self)
                                for (int k = 0; k < 3; ++k)
                                    for (int c = 0; c < 3; ++c)
                                        for (int n = 0; n < 3; ++n)
                                            T[k][c] += eps(k, c, n) * m.H(xi, yi, zi, n + 1);
                            for (int k = 0; k < 3; ++k)
                                for (int c = 0; c < 3; ++c) {
                                    U[k][c] = T[k][c];
                                    for (int l = 0; l < 3; ++l)
                                        for (int n = 0; n < 3; ++n)
                                            U[k][c] += eps(k, l, n) * m.alpha * mi[l] * T[n][c] / ms;
                                }
                            if (self)
                                for (int k = 0; k < 3; ++k) U[k][k] -= ci;
                            for (int a = 0; a < 3; ++a)
                                for (int b = 0; b < 3; ++b)
                                    for (int k = 0; k < 3; ++k)
                                        for (int l = 0; l < 3; ++l) B[a][b] += Ri[k][a] * U[k][l] * Rj[l][b];
                            for (int a = 0; a < 2; ++a)
                                for (int b = 0; b < 2; ++b) A[(2 * i - 2 + a) + (2 * j - 2 + b) * n2] += B[a][b];
                        }
            }
    for (int i = 1; i <= N; ++i)
        for (std::size_t c = 0; c < n2; ++c) {
            A[(2 * i - 2) + c * n2] /= m.DEGR(i);
            A[(2 * i - 1) + c * n2] /= m.DEGR(i);
        }
    return A;
}

// Two materials, random directions, a field, damping, an applied vector and
// a numbering with blocks of two cells along x.
Model random_model() {
    Model m = make_model(3, 2, 1, 5e-7, 4e-7, 6e-7, {{1.3e-6, 800.0}, {2.0e-6, 1400.0}},
                         [](int x, int y, int z) { return (x + y + z) % 5 == 4 ? 0 : 1 + (x + z) % 2; });
    std::mt19937 gen(7);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    set_m(m, [&](int, int, int) { return std::array<double, 3>{u(gen), u(gen), u(gen)}; });
    set_field(m, {300.0, -200.0, 1000.0});
    set_numbering(m, 2, 1, 1);
    m.happ = {50.0, 20.0, -70.0};
    m.alpha = 0.07;
    return m;
}

TEST(LocalFrame, PolesAndGeneralDirection) {
    double R[9];
    const double up[3] = {0.0, 0.0, 3.0};
    local_frame(up, R);
    const double I[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    for (int k = 0; k < 9; ++k) EXPECT_EQ(R[k], I[k]);
    const double down[3] = {1e-5, 0.0, -1.0};  // inside the threshold
    local_frame(down, R);
    const double Rd[9] = {-1, 0, 0, 0, 1, 0, 0, 0, -1};
    for (int k = 0; k < 9; ++k) EXPECT_EQ(R[k], Rd[k]);
    const double m[3] = {0.3, -0.5, 0.2};
    local_frame(m, R);
    const double r = std::sqrt(0.09 + 0.25 + 0.04);
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(R[6 + k], m[k] / r, 1e-15);
    for (int a = 0; a < 3; ++a)
        for (int b = 0; b < 3; ++b) {
            double s = 0.0;
            for (int k = 0; k < 3; ++k) s += R[k + 3 * a] * R[k + 3 * b];
            EXPECT_NEAR(s, a == b ? 1.0 : 0.0, 1e-15);
        }
    // Right-handed: polar x azimuthal = m direction.
    EXPECT_NEAR(R[1] * R[5] - R[2] * R[4], R[6], 1e-15);
    EXPECT_EQ(R[5], 0.0);  // azimuthal vector lies in the xy plane
}

TEST(DynamicMatrix, MatchesLiteralEvaluation) {
    const Model m = random_model();
    ASSERT_GT(m.N, 4);
    ASSERT_LT(m.N, 20);  // blocks of two: some numbers carry two cells
    bool has_two = false;
    for (int n = 1; n <= m.N; ++n) has_two = has_two || m.DEGR(n) == 2;
    ASSERT_TRUE(has_two);
    const auto A = dense_matrix(m);
    const auto L = literal_matrix(m);
    double amax = 0.0;
    for (double v : L) amax = std::max(amax, std::abs(v));
    ASSERT_GT(amax, 100.0);
    for (std::size_t k = 0; k < A.size(); ++k) ASSERT_NEAR(A[k], L[k], 1e-12 * amax) << "entry " << k;
}

TEST(DynamicMatrix, SameBitsForAnyThreadCount) {
    const Model m = random_model();
    expect_thread_independent([&] {
        SparseMatrix S;
        assemble_sparse(m.input(), 0.0, S);
        return std::tuple(dense_matrix(m), S.val, S.col);
    });
}

TEST(DynamicMatrix, ElementListAndProducts) {
    const Model m = random_model();
    const auto A = dense_matrix(m);
    const int n = 2 * m.N;
    double amax = 0.0;
    for (double v : A) amax = std::max(amax, std::abs(v));
    SparseMatrix S;
    assemble_sparse(m.input(), 0.0, S);
    // Threshold 0 keeps every nonzero entry, each with the dense value.
    std::int64_t nonzero = 0;
    for (double v : A) nonzero += v != 0.0;
    ASSERT_EQ(S.count(), nonzero);
    for (std::int64_t k = 0; k < S.count(); ++k) {
        ASSERT_EQ(S.val[k], A[(S.row[k] - 1) + static_cast<std::size_t>(S.col[k] - 1) * n]);
        if (k > 0) {
            ASSERT_TRUE(S.row[k] > S.row[k - 1] || (S.row[k] == S.row[k - 1] && S.col[k] > S.col[k - 1]));
        }
    }
    // A drop threshold leaves out exactly the small entries.
    const double thr = 0.01 * amax;
    SparseMatrix Sd;
    assemble_sparse(m.input(), thr, Sd);
    std::int64_t big = 0;
    for (double v : A) big += std::abs(v) > thr;
    EXPECT_EQ(Sd.count(), big);
    EXPECT_LT(Sd.count(), S.count());
    // Products with the matrix and its transpose.
    std::vector<double> x(n), y(n), yt(n);
    for (int k = 0; k < n; ++k) x[k] = std::sin(1.0 + k);
    sparse_product(S, x.data(), y.data());
    const SparseMatrix T = transpose(S);
    sparse_product(T, x.data(), yt.data());
    for (int r = 0; r < n; ++r) {
        double s = 0.0, st = 0.0;
        for (int c = 0; c < n; ++c) s += A[r + static_cast<std::size_t>(c) * n] * x[c];
        for (int c = 0; c < n; ++c) st += A[c + static_cast<std::size_t>(r) * n] * x[c];
        EXPECT_NEAR(y[r], s, 1e-12 * amax * n);
        EXPECT_NEAR(yt[r], st, 1e-12 * amax * n);
    }
}

// The matrix is the Jacobian of the torque M x H(M) of the field code, in
// the local frames, with the damping product of the frozen equilibrium
// (fd_jacobian.hpp), for any state (not only an equilibrium) when the
// applied vector of the c_i term is 0 (the applied field stays in H).  The
// torque is bilinear in M: its finite difference is exact to rounding.
// The model carries the DMI of both kinds, one per material of its own MS
// and A, on a mask with holes, and the interface term that takes it off the
// bonds between the materials, besides the dipolar, exchange and field
// terms.  Without the DMI, or without the interface term, the matrix is far
// from the Jacobian.
TEST(DynamicMatrix, EqualsTheFiniteDifferenceJacobianOfTheTorque) {
    Model m = make_model(3, 2, 1, 5e-7, 4e-7, 6e-7, {{1.3e-6, 800.0}, {1.0e-6, 1400.0}},
                         [](int x, int y, int z) { return (x + y + z) % 5 == 4 ? 0 : 1 + (x + y) % 2; });
    const TensorArray plain = m.AIJ;
    NeighbourBlocks nb = exchange_neighbour_blocks(m.A, m.MS, m.dx, m.dy, m.dz, 2);
    adddmi(m.AIJ, nb, m.MS, {}, m.nx, m.ny, m.nz, m.dx, m.dy, m.dz, kDmiInterfacial, 30.0, 1);
    adddmi(m.AIJ, nb, m.MS, {}, m.nx, m.ny, m.nz, m.dx, m.dy, m.dz, kDmiBulk, -20.0, 2);
    m.terms.dmi = dmi_interfaces(nb, Periodicity{}, 2);
    ASSERT_FALSE(m.terms.dmi.empty());
    std::mt19937 gen(5);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    set_m(m, [&](int, int, int) { return std::array<double, 3>{u(gen), u(gen), u(gen)}; });
    const std::array<double, 3> applied{300.0, -200.0, 1000.0};
    set_field(m, applied);
    set_numbering(m);
    m.alpha = 0.02;
    const auto A = dense_matrix(m);
    const auto F = fd_matrix(m, [&](const VecGrid& M, VecGrid& H) {
        for_cells(m.nx, m.ny, m.nz, [&](int x, int y, int z) {
            for (int c = 1; c <= 3; ++c) H(x, y, z, c) = applied[c - 1];
        });
        calcfields(M, m.MS, {0.0, 0.0, 0.0}, 0.0, m.MASQUE, m.AIJ, H, m.nx, m.ny, m.nz, 2);
        add_local_fields(m.terms, M, m.MS, m.MASQUE, H);
    });
    Model no_dmi = m, no_interface = m;
    no_dmi.AIJ = plain;
    no_dmi.terms = LocalTerms{};
    no_interface.terms = LocalTerms{};
    const auto P = dense_matrix(no_dmi), Q = dense_matrix(no_interface);
    double amax = 0.0, worst = 0.0, dmi_part = 0.0, interface_part = 0.0;
    for (std::size_t k = 0; k < A.size(); ++k) {
        amax = std::max(amax, std::abs(A[k]));
        worst = std::max(worst, std::abs(A[k] - F[k]));
        dmi_part = std::max(dmi_part, std::abs(A[k] - P[k]));
        interface_part = std::max(interface_part, std::abs(A[k] - Q[k]));
    }
    EXPECT_GT(dmi_part, 1e-3 * amax);
    EXPECT_GT(interface_part, 1e-3 * amax);
    EXPECT_LT(worst, 1e-10 * amax);
}

}  // namespace
}  // namespace torix::test
