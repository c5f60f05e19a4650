// Matrix-free modes: the operator against the assembled matrix, and the
// SLEPc solve against the dense solve.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <random>
#include <thread>

#include <omp.h>

#include "dynamics/fft_field.hpp"
#include "dynamics/relax.hpp"
#include "eigen/mode_operator.hpp"
#include "interpreter/model_state.hpp"
#include "eigen/slepc_solve.hpp"
#include "eigen_model.hpp"
#include "tensor/anisotropy.hpp"
#include "tensor/dmi.hpp"
#include "tensor/tensor_build.hpp"

namespace torix::test {
namespace {

// Two materials with an anisotropy on the second, random directions, damping
// and an applied vector: every term of the matrix is present.
// A grid wider than 4 x 3 takes its tensor from the fast route, which is
// even under r -> -r to the last bit (the plain loop's rounding is not, on
// a wide grid, and the operator refuses such a tensor).
Model mixed_model(int nz, int bx, int by, int nx = 4, int ny = 3) {
    Model m = make_model(nx, ny, nz, 5e-7, 4e-7, 6e-7, {{1.3e-6, 800.0}, {2.0e-6, 1400.0}},
                         [](int x, int y, int z) { return (x + 2 * y + z) % 7 == 6 ? 0 : 1 + (x + z) % 2; });
    if (nx > 4 || ny > 3) {
        m.AIJ = make_tensor(nx, ny, nz, 2);
        tensorbuild(m.A, m.MS, m.AIJ, nx, ny, nz, 5e-7, 4e-7, 6e-7, 2);
    }
    double K = 4e5;  // erg/cm^3
    addanisotropy(m.AIJ, m.MS, m.nx, m.ny, m.nz, 0.3, -0.2, 0.9, K, 2, 2);
    std::mt19937 gen(11);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    set_m(m, [&](int, int, int) { return std::array<double, 3>{u(gen), u(gen), u(gen)}; });
    set_field(m, {300.0, -200.0, 1000.0});
    set_numbering(m, bx, by, 1);
    m.happ = {50.0, 20.0, -70.0};
    m.alpha = 0.07;
    return m;
}

// One material, uniform along a strong field: a box of nx+1 x ny+1 x nz+1
// cells (square cross-section when nx = ny: degenerate pairs).
Model box(int nx, int ny, int nz, double dy, std::array<double, 3> field, double alpha) {
    Model m = make_model(nx, ny, nz, 5e-7, dy, 5e-7, {{1.3e-6, 800.0}}, [](int, int, int) { return 1; });
    set_m(m, [&](int, int, int) { return field; });
    set_field(m, {field[0] * 8000.0, field[1] * 8000.0, field[2] * 8000.0});
    set_numbering(m);
    m.alpha = alpha;
    return m;
}

Model numbered(Model m, int bx, int by) {
    set_numbering(m, bx, by, 1);
    return m;
}

// Without damping and without the current vector.
Model undamped(Model m) {
    m.alpha = 0.0;
    m.happ = {0.0, 0.0, 0.0};
    return m;
}

// Along a strong field normal to the layers: near an equilibrium, every
// mode stable.
Model saturated(Model m) {
    set_m(m, [](int, int, int) { return std::array<double, 3>{0.0, 0.0, 1.0}; });
    set_field(m, {0.0, 0.0, 15000.0});
    return m;
}

// A platelet n + 1 cells wide in a perpendicular field: its lowest modes
// form a band that is narrow against its height, so the lowest-mode solve
// shifts below the band.  The tensor comes from the fast route, which is
// even under r -> -r to the last bit (the plain loop's rounding is not, on
// a grid this wide, and the solve refuses such a tensor).
Model platelet(int n, double alpha = 0.01) {
    Model m = box(n, n, 0, 5e-7, {0.0, 0.0, 1.0}, alpha);
    m.AIJ = make_tensor(n, n, 0, 1);
    tensorbuild(m.A, m.MS, m.AIJ, n, n, 0, 5e-7, 5e-7, 5e-7, 1);
    set_field(m, {0.0, 0.0, 12000.0});
    return m;
}

// The model with the DMI of both kinds added (interfacial on material 1,
// bulk and interfacial on material 2), its field recomputed.
Model with_dmi(Model m) {
    const int nmat = m.MS.extent(0);
    NeighbourBlocks nb({Range{1, 9}, Range{1, 6}, Range{1, nmat}}, 0.0);
    adddmi(m.AIJ, nb, m.MS, {}, m.nx, m.ny, m.nz, m.dx, m.dy, m.dz, kDmiInterfacial, 3.0, 1);
    if (nmat > 1) {
        adddmi(m.AIJ, nb, m.MS, {}, m.nx, m.ny, m.nz, m.dx, m.dy, m.dz, kDmiBulk, -4.0, 2);
        adddmi(m.AIJ, nb, m.MS, {}, m.nx, m.ny, m.nz, m.dx, m.dy, m.dz, kDmiInterfacial, 2.0, 2);
    }
    set_field(m, {300.0, -200.0, 1000.0});
    return m;
}

// Restores the run's thread count when a test ends, also by a failed
// assertion.
struct ThreadCount {
    int saved = omp_get_max_threads();
    ThreadCount() = default;
    ThreadCount(const ThreadCount&) = delete;
    ThreadCount& operator=(const ThreadCount&) = delete;
    ~ThreadCount() { omp_set_num_threads(saved); }
};

TEST(ModeOperator, ProductsEqualTheAssembledMatrix) {
    struct Case {
        const char* name;
        Model m;
    };
    Case cases[] = {{"one material, single layer", box(5, 4, 0, 5e-7, {0.6, 0.0, 0.8}, 0.02)},
                    {"two materials, anisotropy, three layers", mixed_model(2, 1, 1)},
                    {"two materials, blocks 2x2x1", mixed_model(1, 2, 2)},
                    {"two materials, single layer, blocks 2x1x1", mixed_model(0, 2, 1)},
                    // Padded grid 32 x 32 x 6: the real and imaginary parts
                    // are convolved at the same time on two threads.
                    {"two materials, anisotropy, two lanes", mixed_model(2, 1, 1, 15, 15)},
                    // Antisymmetric blocks, odd in the offset: the
                    // transposed product reads them at the opposite offset.
                    {"two materials, DMI of both kinds, three layers", with_dmi(mixed_model(2, 1, 1))},
                    {"two materials, DMI, blocks 2x2x1", with_dmi(mixed_model(1, 2, 2))}};
    for (Case& c : cases) {
        SCOPED_TRACE(c.name);
        const auto A = dense_matrix(c.m);
        const ModeOperator op(c.m.input());
        ASSERT_TRUE(op.reciprocal_tensor());
        const int n = op.order();
        const auto err = product_errors(op, op, A, n);
        EXPECT_LT(err[0], 1e-12);
        EXPECT_LT(err[1], 1e-12);
        // The local part holds exactly the matrix entries of cell pairs at
        // most one cell apart (for blocks: entries whose numbers have such
        // a pair), and nothing else.
        const SparseMatrix S = op.local_part(1);
        double big = 0.0;
        for (double a : A) big = std::max(big, std::abs(a));
        std::vector<bool> near(static_cast<std::size_t>(c.m.N) * c.m.N, false);
        for_cells(c.m.nx, c.m.ny, c.m.nz, [&](int x, int y, int z) {
            if (c.m.MASQUE(x, y, z) == 0) return;
            for_cells(c.m.nx, c.m.ny, c.m.nz, [&](int a, int b, int d) {
                if (c.m.MASQUE(a, b, d) != 0 && std::abs(a - x) <= 1 && std::abs(b - y) <= 1 && std::abs(d - z) <= 1)
                    near[(c.m.NUM(x, y, z) - 1) * c.m.N + c.m.NUM(a, b, d) - 1] = true;
            });
        });
        std::int64_t want = 0;
        for (bool b : near) want += b ? 4 : 0;
        ASSERT_EQ(S.count(), want);
        // With blocks an entry of A also sums far pairs: values only without.
        const bool blocks = c.m.N < count_magnetic(c.m.MASQUE);
        for (std::int64_t k = 0; k < S.count(); ++k) {
            const int r = S.row[k] - 1, col = S.col[k] - 1;
            EXPECT_TRUE(near[(r / 2) * c.m.N + col / 2]);
            if (!blocks) {
                EXPECT_NEAR(S.val[k], A[r + static_cast<std::size_t>(col) * n], 1e-12 * big);
            }
        }
    }
}

TEST(ModeOperator, LumpedFarFieldKeepsTheRowSumsOfAUniformState) {
    // Uniform m (equal frames): lumping the far blocks onto the diagonal as
    // if the far deviation were the cell's own keeps every row's sum over
    // the 2x2 column blocks of A; off-diagonal entries are the near ones.
    const Model m = box(6, 5, 1, 5e-7, {0.6, 0.0, 0.8}, 0.02);
    const auto A = dense_matrix(m);
    const ModeOperator op(m.input());
    const SparseMatrix near = op.local_part(1), lumped = op.local_part(1, true);
    ASSERT_EQ(near.count(), lumped.count());
    const std::size_t n = 2 * static_cast<std::size_t>(m.N);
    double big = 0.0;
    for (double a : A) big = std::max(big, std::abs(a));
    std::vector<double> sum_a(2 * n, 0.0), sum_l(2 * n, 0.0);  // per row, column parity
    for (std::size_t c = 0; c < n; ++c)
        for (std::size_t r = 0; r < n; ++r) sum_a[2 * r + c % 2] += A[r + c * n];
    for (std::int64_t k = 0; k < lumped.count(); ++k) {
        const int r = lumped.row[k] - 1, c = lumped.col[k] - 1;
        sum_l[2 * r + c % 2] += lumped.val[k];
        if (r / 2 != c / 2) {
            EXPECT_EQ(lumped.val[k], near.val[k]);
        }
    }
    for (std::size_t k = 0; k < 2 * n; ++k) EXPECT_NEAR(sum_l[k], sum_a[k], 1e-10 * big) << k;
}

// ||A v - lambda v|| / (|lambda| ||v||) with the assembled matrix (left:
// u^H A = lambda u^H).
double residual(const std::vector<double>& A, const std::vector<cplx>& v, cplx lambda, bool left) {
    return residual_of(A, v, lambda, left) * frobenius(A) / std::abs(lambda);
}

cplx dot(const std::vector<cplx>& a, const std::vector<cplx>& b) {  // a^H b
    cplx s = 0.0;
    for (std::size_t k = 0; k < a.size(); ++k) s += std::conj(a[k]) * b[k];
    return s;
}

// Every mode of `it` against the dense ModeSet `d`, whose modes it must
// equal one for one at positions first..first+count-1 of d: frequencies and
// decay rates to 1e-8 of f, vectors in the span of the dense vectors of the
// same eigenvalue (parallel for a simple one), residuals with the matrix,
// biorthogonal sets.
void expect_same_modes(const Model& m, Modes& d, int first, Modes& it, double tol) {
    const auto A = dense_matrix(m);
    const int N = m.N;
    for (int p = 1; p <= it.nmodes; ++p) {
        SCOPED_TRACE(p);
        const int q = first + p - 1;
        ASSERT_LE(q, d.nmodes);
        EXPECT_NEAR(it.W(p, 1), d.W(q, 1), 1e-8 * d.W(q, 1));
        EXPECT_NEAR(it.W(p, 2), d.W(q, 2), 1e-8 * d.W(q, 1));
        const cplx lambda(-it.W(p, 2), it.W(p, 1));
        EXPECT_LE(residual(A, vec(it.R, N, p), lambda, false), tol);
        EXPECT_LE(residual(A, vec(it.L, N, p), lambda, true), tol);
        EXPECT_NEAR(norm(vec(it.R, N, p)), 1.0, 1e-12);
        for (int side = 0; side < 2; ++side) {
            const auto& S = side == 0 ? it.R : it.L;
            const auto& D = side == 0 ? d.R : d.L;
            const auto v = vec(S, N, p);
            // Dense vectors of the same eigenvalue (a degenerate pair gives two).
            std::vector<std::vector<cplx>> basis;
            for (int k = 1; k <= d.nmodes; ++k)
                if (std::abs(cplx(-d.W(k, 2), d.W(k, 1)) - lambda) < 1e-6 * std::abs(lambda))
                    basis.push_back(vec(D, N, k));
            ASSERT_FALSE(basis.empty());
            // Orthonormalise and project.
            for (std::size_t a = 0; a < basis.size(); ++a) {
                for (std::size_t b = 0; b < a; ++b) {
                    const cplx c = dot(basis[b], basis[a]);
                    for (std::size_t k = 0; k < v.size(); ++k) basis[a][k] -= c * basis[b][k];
                }
                const double nb = norm(basis[a]);
                for (cplx& z : basis[a]) z /= nb;
            }
            std::vector<cplx> rest = v;
            for (const auto& b : basis) {
                const cplx c = dot(b, v);
                for (std::size_t k = 0; k < v.size(); ++k) rest[k] -= c * b[k];
            }
            EXPECT_LT(norm(rest) / norm(v), 1e-6) << (side == 0 ? "right" : "left");
        }
    }
    for (int p = 1; p <= it.nmodes; ++p)
        for (int q = 1; q <= it.nmodes; ++q) {
            const cplx s = dot(vec(it.L, N, p), vec(it.R, N, q));
            if (p == q)
                EXPECT_GT(std::abs(s), 1e-3) << p;
            else
                EXPECT_LT(std::abs(s), 1e-7) << p << " " << q;
        }
}

TEST(SolveModes, LowestModesEqualTheDenseSolve) {
    struct Case {
        const char* name;
        Model m;
        int nmodes;
        bool narrow = false;
    };
    // The square platelet in a perpendicular field has degenerate pairs
    // (90 degree symmetry); 1e-3 longer cells along y split them slightly.
    Case cases[] = {{"slab, tilted field", box(4, 3, 1, 5e-7, {0.6, 0.0, 0.8}, 0.01), 6},
                    {"square platelet, degenerate pairs", box(4, 4, 0, 5e-7, {0.0, 0.0, 1.0}, 0.01), 7},
                    {"nearly square platelet", box(4, 4, 0, 5.0005e-7, {0.0, 0.0, 1.0}, 0.01), 7},
                    {"two materials, anisotropy, blocks 2x2x1", mixed_model(1, 2, 2), 5},
                    {"wider platelet, narrow band", platelet(12), 6, true},
                    // Without damping the diagonal block of a number is
                    // [[0, b], [c, 0]] at a shift of 0: the factorisations
                    // must pivot on blocks.
                    {"slab, tilted field, undamped", box(4, 3, 1, 5e-7, {0.6, 0.0, 0.8}, 0.0), 6},
                    {"wider platelet, undamped", platelet(12, 0.0), 6, true},
                    // Undamped with numbers of two cells: the left vectors
                    // formed from the right ones carry the multiplicities.
                    {"platelet, blocks 2x1x1, undamped", numbered(box(5, 3, 0, 5e-7, {0.0, 0.0, 1.0}, 0.0), 2, 1), 5},
                    // Two materials of unequal exchange: the tensor's pair
                    // blocks are not symmetric between the materials, the
                    // left vectors do not follow from the right ones and
                    // are solved for.
                    {"two materials, undamped", saturated(undamped(mixed_model(1, 1, 1))), 5, true}};
    for (Case& c : cases) {
        SCOPED_TRACE(c.name);
        // A state that is not an equilibrium can have unstable modes; keep
        // only models whose dense modes are all decaying or neutral in f.
        Modes d;
        (void)captured_cout([&] { calcmatrix(c.m.input(), c.m.N, d.out()); });
        ASSERT_GE(d.nmodes, c.nmodes + 1);
        Modes it;
        const ModesStats st = solve_modes(c.m.input(), c.nmodes, 0.0, 1e-10, it.out());
        // Nearest to 0 in modulus: for these models the lowest frequencies.
        ASSERT_EQ(it.nmodes, c.nmodes);
        EXPECT_EQ(st.converged, c.nmodes);
        EXPECT_LE(st.worst_residual, 1e-10);
        // The small models' bands are broad: shift 0; the wider platelet's
        // is narrow: a shift below its lowest mode.
        if (c.narrow) {
            EXPECT_GT(st.shift, 0.0);
            EXPECT_LT(st.shift, d.W(1, 1));
        } else {
            EXPECT_EQ(st.shift, 0.0);
        }
        expect_same_modes(c.m, d, 1, it, 1e-10);
        // Undamped with a tensor symmetric between every pair of numbers:
        // no left solve.
        const bool symmetric = c.m.alpha == 0.0 && c.m.MS.extent(0) == 1;
        EXPECT_EQ(st.left_from_right, symmetric);
    }
}

// A platelet 8 x 6 cells with interfacial DMI, relaxed in a field along x.
// The mirror z -> -z turns D into -D; with y -> -y it maps the model with D
// onto the model with -D (the magnetization by a half turn about x).  So
// the modes of -D are those of D mirrored in y: the same frequencies and the
// opposite asymmetry across M (the non-reciprocity of waves that run across
// M shows as a drift of phase along y).  The matrix-free solve gives the
// dense modes.
Model dmi_platelet(double D) {
    Model m = make_model(7, 5, 0, 5e-7, 5e-7, 5e-7, {{1.3e-6, 800.0}}, [](int, int, int) { return 1; });
    m.AIJ = make_tensor(7, 5, 0, 1);
    tensorbuild(m.A, m.MS, m.AIJ, 7, 5, 0, 5e-7, 5e-7, 5e-7, 1);
    NeighbourBlocks nb({Range{1, 9}, Range{1, 6}, Range{1, 1}}, 0.0);
    adddmi(m.AIJ, nb, m.MS, {}, 7, 5, 0, 5e-7, 5e-7, 5e-7, kDmiInterfacial, D, 1);
    set_m(m, [](int, int, int) { return std::array<double, 3>{1.0, 0.0, 0.0}; });
    relax_model(m, {3000.0, 0.0, 0.0}, 0.05, 1e-13, 200000);
    set_field(m, {3000.0, 0.0, 0.0});
    set_numbering(m);
    m.alpha = 0.01;
    return m;
}

// The phase a mode gains per cell along y, weighted by its amplitude:
// sum over neighbour pairs along y of Im(conj(u_n) u_n') / sum |u_n|^2.  A
// standing mode has none; the DMI gives the modes that run across M a
// drift of phase in one sense (the non-reciprocity of such waves).
double phase_drift(const Model& m, const Array<cplx, 3>& R, int p) {
    double w = 0.0, flow = 0.0;
    for_cells(m.nx, m.ny, m.nz, [&](int x, int y, int z) {
        const int n = m.NUM(x, y, z);
        if (n == 0) return;
        w += std::norm(R(n, 1, p)) + std::norm(R(n, 2, p));
        if (y == m.ny || m.NUM(x, y + 1, z) == 0) return;
        const int q = m.NUM(x, y + 1, z);
        for (int c = 1; c <= 2; ++c) flow += std::imag(std::conj(R(n, c, p)) * R(q, c, p));
    });
    return flow / w;
}

TEST(SolveModes, DmiModesMirrorWithTheSignOfD) {
    const Model plus = dmi_platelet(3.0), minus = dmi_platelet(-3.0);
    // The relaxed states are each other's half turn about x.
    double worst = 0.0, tilt = 0.0;
    for_cells(7, 5, 0, [&](int x, int y, int) {
        const int ym = 5 - y;
        worst = std::max({worst, std::abs(plus.M(x, y, 0, 1) - minus.M(x, ym, 0, 1)),
                          std::abs(plus.M(x, y, 0, 2) + minus.M(x, ym, 0, 2)),
                          std::abs(plus.M(x, y, 0, 3) + minus.M(x, ym, 0, 3))});
        tilt = std::max(tilt, std::abs(plus.M(x, y, 0, 3)));
    });
    EXPECT_LT(worst, 1e-6 * 800.0);
    EXPECT_GT(tilt, 1.0);  // the edges tilt out of the plane
    Modes dp, dm;
    (void)captured_cout([&] {
        calcmatrix(plus.input(), plus.N, dp.out());
        calcmatrix(minus.input(), minus.N, dm.out());
    });
    ASSERT_GE(dp.nmodes, 6);
    double largest = 0.0;
    for (int p = 1; p <= 6; ++p) {
        SCOPED_TRACE(p);
        EXPECT_NEAR(dp.W(p, 1), dm.W(p, 1), 1e-8 * dp.W(p, 1));
        const double cp = phase_drift(plus, dp.R, p), cm = phase_drift(minus, dm.R, p);
        EXPECT_NEAR(cp, -cm, 1e-6);
        largest = std::max(largest, std::abs(cp));
    }
    EXPECT_GT(largest, 0.05);  // the DMI makes the modes drift across M
    // Without it the model is its own mirror image: no drift.
    const Model none = dmi_platelet(0.0);
    Modes d0;
    (void)captured_cout([&] { calcmatrix(none.input(), none.N, d0.out()); });
    for (int p = 1; p <= 6; ++p) EXPECT_LT(std::abs(phase_drift(none, d0.R, p)), 1e-8) << p;
    Modes it;
    const ModesStats st = solve_modes(plus.input(), 6, 0.0, 1e-10, it.out());
    ASSERT_EQ(it.nmodes, 6);
    EXPECT_EQ(st.converged, 6);
    expect_same_modes(plus, dp, 1, it, 1e-10);
}

// Between two modes, and exactly on an undamped mode's frequency (where
// A - i f0 I is singular: the solve must move its shift off the spectrum
// and still return the modes nearest i f0).
TEST(SolveModes, TargetAboveZeroGivesTheNearestModes) {
    for (const double alpha : {0.01, 0.0}) {
        SCOPED_TRACE(alpha);
        const Model m = box(4, 3, 1, 5e-7, {0.6, 0.0, 0.8}, alpha);
        Modes d;
        (void)captured_cout([&] { calcmatrix(m.input(), m.N, d.out()); });
        ASSERT_GE(d.nmodes, 12);
        // Between modes 8 and 9, or on mode 8: the four nearest are a run of
        // consecutive dense modes around the target, not the lowest ones.
        const double f0 = alpha > 0.0 ? 0.5 * (d.W(8, 1) + d.W(9, 1)) : d.W(8, 1);
        std::vector<int> order(static_cast<std::size_t>(d.nmodes));
        for (int p = 1; p <= d.nmodes; ++p) order[p - 1] = p;
        std::sort(order.begin(), order.end(), [&](int a, int b) {
            return std::abs(cplx(-d.W(a, 2), d.W(a, 1) - f0)) < std::abs(cplx(-d.W(b, 2), d.W(b, 1) - f0));
        });
        std::vector<int> want(order.begin(), order.begin() + 4);
        std::sort(want.begin(), want.end());
        ASSERT_EQ(want.back() - want.front(), 3);
        ASSERT_GT(want.front(), 1);
        Modes it;
        solve_modes(m.input(), 4, f0, 1e-10, it.out());
        ASSERT_EQ(it.nmodes, 4);
        expect_same_modes(m, d, want.front(), it, 1e-10);
    }
}

// A 40 x 40 film of 5 nm cells relaxed in 500 Oe in its plane: its lowest
// mode, localised at the two edges normal to the field (160 Oe), lies far
// below the local part's band and so below the shift, and the solve must
// still bring every pair to the residual asked for, on both sides.  Inner
// solves stopped on the residual seen through the preconditioner left that
// mode at 1.5e-10.
TEST(SolveModes, EveryResidualMeetsTheToleranceOnAnInPlaneFilm) {
    Model m = make_model(39, 39, 0, 5e-7, 5e-7, 5e-7, {{1.3e-6, 800.0}}, [](int, int, int) { return 1; });
    m.AIJ = make_tensor(39, 39, 0, 1);
    tensorbuild(m.A, m.MS, m.AIJ, 39, 39, 0, 5e-7, 5e-7, 5e-7, 1);
    FourierTensor F;
    aijfft2d(m.AIJ, F, 39, 39, 1);
    set_m(m, [](int, int, int) { return std::array<double, 3>{1.0, 0.0, 0.0}; });
    relax_model(m, {500.0, 0.0, 0.0}, 0.01, 1e-9, 0, &F);
    set_field(m, {500.0, 0.0, 0.0});
    set_numbering(m);
    m.alpha = 0.008;
    Modes it;
    const ModesStats st = solve_modes(m.input(), 10, 0.0, 1e-10, it.out());
    ASSERT_EQ(it.nmodes, 10);
    ASSERT_GT(st.shift, 2.0 * it.W(1, 1));  // the case in point: the lowest mode far below the shift
    const auto A = dense_matrix(m);
    for (int p = 1; p <= it.nmodes; ++p) {
        SCOPED_TRACE(p);
        const cplx lambda(-it.W(p, 2), it.W(p, 1));
        EXPECT_LE(residual(A, vec(it.R, m.N, p), lambda, false), 1e-10);
        EXPECT_LE(residual(A, vec(it.L, m.N, p), lambda, true), 1e-10);
    }
}

// The loops and transforms of a product share out over the threads (on
// four, the real and imaginary convolutions on two apiece); each side does
// the same arithmetic as on one thread, so the modes agree to rounding
// whatever the threads.
TEST(SolveModes, ThreadCountDoesNotChangeTheModes) {
    // A 32 x 24 x 2 platelet: its padded grid (64 x 48 x 4) is large enough
    // for the two lanes of a product, and no two of its lowest modes are
    // degenerate.
    Model m = box(31, 23, 1, 5e-7, {0.0, 0.0, 1.0}, 0.01);
    m.AIJ = make_tensor(31, 23, 1, 1);
    tensorbuild(m.A, m.MS, m.AIJ, 31, 23, 1, 5e-7, 5e-7, 5e-7, 1);
    set_field(m, {0.0, 0.0, 12000.0});
    const ThreadCount restore;
    Modes ref;
    omp_set_num_threads(1);
    solve_modes(m.input(), 4, 0.0, 1e-10, ref.out());
    ASSERT_EQ(ref.nmodes, 4);
    for (int threads : {2, 4}) {
        SCOPED_TRACE(threads);
        omp_set_num_threads(threads);
        Modes it;
        solve_modes(m.input(), 4, 0.0, 1e-10, it.out());
        ASSERT_EQ(it.nmodes, 4);
        for (int p = 1; p <= 4; ++p) {
            EXPECT_NEAR(it.W(p, 1), ref.W(p, 1), 1e-9 * ref.W(p, 1));
            EXPECT_NEAR(it.W(p, 2), ref.W(p, 2), 1e-9 * ref.W(p, 1));
            // Unit vectors with the same phase convention: equal up to the
            // accuracy of the solve.
            for (const auto* side : {&it.R, &it.L}) {
                const auto& S = side == &it.R ? ref.R : ref.L;
                const auto a = vec(*side, m.N, p), b = vec(S, m.N, p);
                EXPECT_LT(std::abs(std::abs(dot(b, a)) - 1.0), 1e-8);
            }
        }
    }
}

TEST(SolveModes, SingleCellHasTheFieldAsFrequency) {
    // A cube in a field H along m: f = H, g = alpha H exactly (the demag
    // tensor of a cube is isotropic and m x h vanishes for the self part).
    Model m = box(0, 0, 0, 5e-7, {0.0, 0.0, 1.0}, 0.0);
    m.alpha = -0.05;
    Modes it;
    solve_modes(m.input(), 1, 0.0, 0.0, it.out());
    ASSERT_EQ(it.nmodes, 1);
    EXPECT_NEAR(it.W(1, 1), 8000.0, 1e-8 * 8000.0);
    EXPECT_NEAR(it.W(1, 2), 0.05 * 8000.0, 1e-8 * 8000.0);
}

// A program started without a launcher is one MPI rank: it must not leave
// a daemon process of the MPI library running beside it on the machine.
TEST(StartPetsc, StartsNoSecondProcess) {
    if (std::getenv("OMPI_COMM_WORLD_SIZE") != nullptr || std::getenv("PMIX_RANK") != nullptr)
        GTEST_SKIP() << "started by an MPI launcher";
    start_petsc();
    int tasks = 0;
    std::string children;
    for (const auto& t : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream in(t.path() / "children");
        if (!in) continue;
        ++tasks;
        std::string pid;
        while (in >> pid) children += pid + " ";
    }
    if (tasks == 0) GTEST_SKIP() << "the kernel does not list child processes";
    EXPECT_EQ(children, "");
}

}  // namespace
}  // namespace torix::test
