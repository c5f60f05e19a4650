// The DMI blocks of the tensor against routes that do not read them: the
// energy density with forward differences (its gradient must be the field),
// the continuum field of a smooth magnetization, and the edge tilt of a
// perpendicular stripe against the free-surface boundary condition.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <functional>
#include <random>
#include <vector>

#include "dynamics/direct_field.hpp"
#include "dynamics/dmi_interfaces.hpp"
#include "tensor/anisotropy.hpp"
#include "tensor/dmi.hpp"
#include "tensor/neighbour_blocks.hpp"
#include "tensor/newell.hpp"
#include "test_util.hpp"

namespace torix {
namespace {

struct Chain {
    int nx, ny, nz;
    double dx, dy, dz;
    Periodicity p;
};

// A zero tensor with the DMI of material 1 only; the record beside it.
TensorArray dmi_tensor(const Chain& g, const Array<double, 1>& MS, int kind, double D, NeighbourBlocks& nb) {
    TensorArray T = make_tensor(g.nx, g.ny, g.nz, MS.extent(0));
    nb = NeighbourBlocks({Range{1, 9}, Range{1, 6}, Range{1, MS.extent(0)}}, 0.0);
    adddmi(T, nb, MS, g.p, g.nx, g.ny, g.nz, g.dx, g.dy, g.dz, kind, D, 1);
    return T;
}

// The energy (erg) of the density of `kind` with D(material) in erg/cm^2,
// every derivative the forward difference to the neighbour along +x, +y, +z
// (the neighbour across a periodic boundary where the axis is periodic); a
// term whose neighbour is missing or of another material is left out.
double dmi_energy(const Chain& g, const IntGrid& mask, const std::vector<double>& m, int kind,
                  const std::vector<double>& D) {
    const int n[3] = {g.nx, g.ny, g.nz};
    const double h[3] = {g.dx, g.dy, g.dz};
    auto at = [&](int i, int j, int k, int a) {
        return m[3 * (i + (g.nx + 1) * (j + (g.ny + 1) * k)) + a];
    };
    double E = 0.0;
    for_cells(g.nx, g.ny, g.nz, [&](int i, int j, int k) {
        const int mat = mask(i, j, k);
        if (mat == 0) return;
        // d[ax][a]: forward difference of component a along ax, or missing.
        double d[3][3] = {};
        bool has[3] = {false, false, false};
        for (int ax = 0; ax < 3; ++ax) {
            int q[3] = {i, j, k};
            q[ax] += 1;
            if (q[ax] > n[ax]) {
                if (!g.p.along(ax)) continue;
                q[ax] = 0;
            }
            if (mask(q[0], q[1], q[2]) != mat) continue;
            has[ax] = true;
            for (int a = 0; a < 3; ++a) d[ax][a] = (at(q[0], q[1], q[2], a) - at(i, j, k, a)) / h[ax];
        }
        const double mx = at(i, j, k, 0), my = at(i, j, k, 1), mz = at(i, j, k, 2);
        double w = 0.0;
        if (kind == kDmiInterfacial) {
            if (has[0]) w += mz * d[0][0] - mx * d[0][2];
            if (has[1]) w += mz * d[1][1] - my * d[1][2];
        } else {
            if (has[0]) w += my * -d[0][2] + mz * d[0][1];
            if (has[1]) w += mx * d[1][2] - mz * d[1][0];
            if (has[2]) w += -mx * d[2][1] + my * d[2][0];
        }
        E += D[mat - 1] * w * g.dx * g.dy * g.dz;
    });
    return E;
}

// The field of the DMI is minus the gradient of its energy per volume and
// MS, H = -(1 / (MS V)) dE/dm, on every magnetic cell: at holes, at the
// grid's faces and across periodic boundaries (the energy is quadratic, so
// the central difference is exact to rounding).  With two materials of
// their own D and MS, bonds between them carry no DMI: the tensor's field
// with the interface term.
TEST(DmiTensor, FieldIsMinusTheGradientOfTheEnergyDensity) {
    const std::vector<double> ms = {860.0, 600.0}, D = {2.5, -1.5};
    const Array<double, 1> MS = table({ms[0], ms[1]});
    const Chain grids[] = {{4, 3, 2, 2e-7, 3e-7, 1.5e-7, {}},
                           {4, 2, 1, 2e-7, 3e-7, 1.5e-7, {1, 0, 0}},
                           {3, 1, 0, 2e-7, 3e-7, 1.5e-7, {1, 1, 0}},
                           {0, 3, 2, 2e-7, 3e-7, 1.5e-7, {1, 0, 0}}};
    for (const Chain& g : grids)
        for (int kind : {kDmiInterfacial, kDmiBulk})
            for (int nmat : {1, 2}) {
                SCOPED_TRACE(testing::Message() << "grid " << g.nx << 'x' << g.ny << 'x' << g.nz << " periodic "
                                                << g.p.px << g.p.py << " kind " << kind << " materials " << nmat);
                NeighbourBlocks nb;
                TensorArray T = dmi_tensor(g, MS, kind, D[0], nb);
                adddmi(T, nb, MS, g.p, g.nx, g.ny, g.nz, g.dx, g.dy, g.dz, kind, D[1], 2);
                std::mt19937 gen(7u + kind + g.nx);
                std::uniform_real_distribution<double> u(-1.0, 1.0);
                IntGrid mask = make_int_grid(g.nx, g.ny, g.nz, 1);
                VecGrid M = make_vec_grid(g.nx, g.ny, g.nz, 0.0), H = make_vec_grid(g.nx, g.ny, g.nz, 0.0);
                const int ncell = (g.nx + 1) * (g.ny + 1) * (g.nz + 1);
                std::vector<double> m(3 * ncell);
                for_cells(g.nx, g.ny, g.nz, [&](int i, int j, int k) {
                    if (nmat == 2 && (i + 2 * j + 3 * k) % 3 == 1) mask(i, j, k) = 2;
                    if (g.p.count() == 0 && (i + 2 * j + k) % 5 == 3) mask(i, j, k) = 0;  // holes
                    for (int a = 0; a < 3; ++a) {
                        const double v = u(gen);
                        m[3 * (i + (g.nx + 1) * (j + (g.ny + 1) * k)) + a] = v;
                        M(i, j, k, a + 1) = ms[std::max(mask(i, j, k), 1) - 1] * v;
                    }
                });
                calcfields(M, MS, {0.0, 0.0, 0.0}, 0.0, mask, T, H, g.nx, g.ny, g.nz, 2);
                const DmiInterfaces between = dmi_interfaces(nb, g.p, nmat);
                EXPECT_EQ(between.empty(), nmat == 1);
                dmi_interface_field(between, M, mask, H);
                const double V = g.dx * g.dy * g.dz;
                double big = 0.0, worst = 0.0;
                for_cells(g.nx, g.ny, g.nz, [&](int i, int j, int k) {
                    if (mask(i, j, k) == 0) return;
                    for (int a = 0; a < 3; ++a) {
                        const std::size_t at = 3 * (i + (g.nx + 1) * (j + (g.ny + 1) * k)) + a;
                        const double keep = m[at], eps = 1e-3;
                        m[at] = keep + eps;
                        const double ep = dmi_energy(g, mask, m, kind, D);
                        m[at] = keep - eps;
                        const double em = dmi_energy(g, mask, m, kind, D);
                        m[at] = keep;
                        const double want = -(ep - em) / (2.0 * eps) / (ms[mask(i, j, k) - 1] * V);
                        big = std::max(big, std::abs(want));
                        worst = std::max(worst, std::abs(H(i, j, k, a + 1) - want));
                    }
                });
                EXPECT_GT(big, 1.0);
                EXPECT_LT(worst, 1e-9 * big);
                // The record beside the tensor holds the same six blocks.
                for (int d = 1; d <= 6; ++d) {
                    const auto o = neighbour_offset(d);
                    const int ax = (d - 1) / 2;
                    const int n[3] = {g.nx, g.ny, g.nz};
                    if (g.p.along(ax) || o[ax] < -n[ax] || o[ax] > n[ax]) continue;  // images add up there
                    for (int c = 1; c <= 9; ++c)
                        EXPECT_EQ(nb(c, d, 1), T(o[0], o[1], o[2], c, 1)) << d << ' ' << c;
                }
            }
}

// A tensor read from a file gives back its DMI to the nearest-neighbour
// record: the antisymmetric part of the neighbour blocks, with the dipolar
// and exchange parts (symmetric) left out; each material its own.
TEST(DmiTensor, RecordRebuiltFromTheTensorsAntisymmetricPart) {
    const Array<double, 1> MS = table({800.0, 600.0}), A = table({1.3e-6, 2e-6});
    const Chain g{3, 2, 1, 2e-7, 3e-7, 1.5e-7, {}};
    TensorArray T = make_tensor(g.nx, g.ny, g.nz, 2);
    for (int m = 1; m <= 2; ++m) tensornewall(A, MS, T, g.nx, g.ny, g.nz, g.dx, g.dy, g.dz, m, 2);
    NeighbourBlocks made = exchange_neighbour_blocks(A, MS, g.dx, g.dy, g.dz, 2);
    adddmi(T, made, MS, g.p, g.nx, g.ny, g.nz, g.dx, g.dy, g.dz, kDmiInterfacial, 2.0, 1);
    adddmi(T, made, MS, g.p, g.nx, g.ny, g.nz, g.dx, g.dy, g.dz, kDmiBulk, -1.0, 2);
    NeighbourBlocks read = exchange_neighbour_blocks(A, MS, g.dx, g.dy, g.dz, 2);
    add_antisymmetric_neighbours(T, read, g.nx, g.ny, g.nz, 2);
    for (int m = 1; m <= 2; ++m)
        for (int d = 1; d <= 6; ++d)
            for (int c = 1; c <= 9; ++c)
                EXPECT_NEAR(read(c, d, m), made(c, d, m), 1e-12 * std::abs(made(1, d, m))) << m << ' ' << d << ' ' << c;
}

// Inside a body the field is the central difference of the continuum field
//   interfacial: (2D / MS) (d_x m_z, d_y m_z, -d_x m_x - d_y m_y),
//   bulk: -(2D / MS) curl m,
// checked on a smooth (not unit) m with analytic derivatives: equal to
// O((k h)^2).
TEST(DmiTensor, FieldInsideIsTheContinuumField) {
    const double ms = 700.0, D = -1.7;
    const Array<double, 1> MS = table({ms});
    const Chain g{6, 5, 4, 1e-7, 1.2e-7, 0.8e-7, {}};
    // m = (sin(p.r), cos(q.r), sin(s.r)), wave vectors ~ 1/(20 h).
    const double p[3] = {4e5, -3e5, 2e5}, q[3] = {-2e5, 5e5, 3e5}, s[3] = {3e5, 2e5, -5e5};
    auto dot = [](const double* a, double x, double y, double z) { return a[0] * x + a[1] * y + a[2] * z; };
    for (int kind : {kDmiInterfacial, kDmiBulk}) {
        SCOPED_TRACE(kind);
        NeighbourBlocks nb;
        const TensorArray T = dmi_tensor(g, MS, kind, D, nb);
        IntGrid mask = make_int_grid(g.nx, g.ny, g.nz, 1);
        VecGrid M = make_vec_grid(g.nx, g.ny, g.nz, 0.0), H = make_vec_grid(g.nx, g.ny, g.nz, 0.0);
        for_cells(g.nx, g.ny, g.nz, [&](int i, int j, int k) {
            const double x = i * g.dx, y = j * g.dy, z = k * g.dz;
            M(i, j, k, 1) = ms * std::sin(dot(p, x, y, z));
            M(i, j, k, 2) = ms * std::cos(dot(q, x, y, z));
            M(i, j, k, 3) = ms * std::sin(dot(s, x, y, z));
        });
        calcfields(M, MS, {0.0, 0.0, 0.0}, 0.0, mask, T, H, g.nx, g.ny, g.nz, 1);
        double worst = 0.0, big = 0.0;
        for_cells(g.nx, g.ny, g.nz, [&](int i, int j, int k) {
            if (i == 0 || j == 0 || k == 0 || i == g.nx || j == g.ny || k == g.nz) return;
            const double x = i * g.dx, y = j * g.dy, z = k * g.dz;
            // grad[a][b] = d m_a / d x_b
            double grad[3][3];
            for (int b = 0; b < 3; ++b) {
                grad[0][b] = p[b] * std::cos(dot(p, x, y, z));
                grad[1][b] = -q[b] * std::sin(dot(q, x, y, z));
                grad[2][b] = s[b] * std::cos(dot(s, x, y, z));
            }
            double want[3];
            const double f = 2.0 * D / ms;
            if (kind == kDmiInterfacial) {
                want[0] = f * grad[2][0];
                want[1] = f * grad[2][1];
                want[2] = -f * (grad[0][0] + grad[1][1]);
            } else {
                want[0] = -f * (grad[2][1] - grad[1][2]);
                want[1] = -f * (grad[0][2] - grad[2][0]);
                want[2] = -f * (grad[1][0] - grad[0][1]);
            }
            for (int a = 0; a < 3; ++a) {
                big = std::max(big, std::abs(want[a]));
                worst = std::max(worst, std::abs(H(i, j, k, a + 1) - want[a]));
            }
        });
        EXPECT_GT(big, 1e3);
        EXPECT_LT(worst, 2e-3 * big);
    }
}

// The equilibrium of a chain of cells along x (no dipolar term: exchange,
// perpendicular uniaxial anisotropy K_u and interfacial DMI in the tensor),
// with m = (sin t, 0, cos t), found by Newton's method on the angles with the
// energy -(V/2) sum M . H of the direct-sum field.
std::vector<double> relaxed_chain_angles(int cells, double h, double A, double Ku, double D, double ms) {
    const Chain g{cells - 1, 0, 0, h, h, h, {}};
    const Array<double, 1> MS = table({ms}), Aex = table({A});
    NeighbourBlocks nb;
    TensorArray T = dmi_tensor(g, MS, kDmiInterfacial, D, nb);
    const NeighbourBlocks ex = exchange_neighbour_blocks(Aex, MS, h, h, h, 1);
    for (int d : {1, 2})
        for (int c = 1; c <= 9; ++c) T(neighbour_offset(d)[0], 0, 0, c, 1) += ex(c, d, 1);
    double K = 2.0 * Ku;  // the tensor's anisotropy field is (K / MS) (u . m) u
    addanisotropy(T, MS, g.nx, 0, 0, 0.0, 0.0, 1.0, K, 1, 1);
    IntGrid mask = make_int_grid(g.nx, 0, 0, 1);
    VecGrid M = make_vec_grid(g.nx, 0, 0, 0.0), H = make_vec_grid(g.nx, 0, 0, 0.0);
    std::vector<double> t(cells, 0.0);
    auto field = [&](const std::vector<double>& th) {
        for (int i = 0; i < cells; ++i) {
            M(i, 0, 0, 1) = ms * std::sin(th[i]);
            M(i, 0, 0, 2) = 0.0;
            M(i, 0, 0, 3) = ms * std::cos(th[i]);
        }
        H.fill(0.0);
        calcfields(M, MS, {0.0, 0.0, 0.0}, 0.0, mask, T, H, g.nx, 0, 0, 1);
        double E = 0.0;
        for (int i = 0; i < cells; ++i)
            for (int a = 1; a <= 3; ++a) E -= 0.5 * M(i, 0, 0, a) * H(i, 0, 0, a);
        return E;
    };
    const int n = cells;
    double g0 = 0.0;
    for (int it = 0; it < 30; ++it) {
        double E = field(t);
        // Gradient and Hessian (per volume): dM_i = MS (cos t, 0, -sin t).
        std::vector<double> gr(n), Hs(static_cast<std::size_t>(n) * n, 0.0);
        double gnorm = 0.0;
        for (int i = 0; i < n; ++i) {
            const double di[3] = {ms * std::cos(t[i]), 0.0, -ms * std::sin(t[i])};
            gr[i] = -(di[0] * H(i, 0, 0, 1) + di[2] * H(i, 0, 0, 3));
            gnorm = std::max(gnorm, std::abs(gr[i]));
            for (int j = std::max(0, i - 1); j <= std::min(n - 1, i + 1); ++j) {
                const double dj[3] = {ms * std::cos(t[j]), 0.0, -ms * std::sin(t[j])};
                double s = 0.0;
                for (int a = 0; a < 3; ++a)
                    for (int b = 0; b < 3; ++b) s += di[a] * T(i - j, 0, 0, 1 + a + 3 * b, 1) * dj[b];
                Hs[i + static_cast<std::size_t>(n) * j] -= s;
            }
            double mh = 0.0;
            for (int a = 1; a <= 3; ++a) mh += M(i, 0, 0, a) * H(i, 0, 0, a);
            Hs[i + static_cast<std::size_t>(n) * i] += mh;
        }
        if (it == 0) g0 = gnorm;
        if (gnorm < 1e-10 * g0) break;
        // Tridiagonal solve of Hs dt = -gr.
        std::vector<double> a(n), b(n), c(n), r(n);
        for (int i = 0; i < n; ++i) {
            b[i] = Hs[i + static_cast<std::size_t>(n) * i];
            a[i] = i > 0 ? Hs[i + static_cast<std::size_t>(n) * (i - 1)] : 0.0;
            c[i] = i < n - 1 ? Hs[i + static_cast<std::size_t>(n) * (i + 1)] : 0.0;
            r[i] = -gr[i];
        }
        for (int i = 1; i < n; ++i) {
            const double w = a[i] / b[i - 1];
            b[i] -= w * c[i - 1];
            r[i] -= w * r[i - 1];
        }
        std::vector<double> dt(n);
        dt[n - 1] = r[n - 1] / b[n - 1];
        for (int i = n - 2; i >= 0; --i) dt[i] = (r[i] - c[i] * dt[i + 1]) / b[i];
        // A step that does not lower the energy is halved (far from the
        // minimum the Hessian need not be positive: then descend).
        double step = 1.0;
        double slope = 0.0;
        for (int i = 0; i < n; ++i) slope += gr[i] * dt[i];
        if (slope >= 0.0)
            for (int i = 0; i < n; ++i) dt[i] = -gr[i] / (ms * ms * 10.0);
        std::vector<double> tn(n);
        for (int tries = 0; tries < 60; ++tries, step *= 0.5) {
            for (int i = 0; i < n; ++i) tn[i] = t[i] + step * dt[i];
            if (field(tn) <= E + 1e-13 * std::abs(E)) break;  // the energy's rounding
        }
        t = tn;
    }
    field(t);
    return t;
}

// Edge tilt of a perpendicular stripe with interfacial DMI: the energy
// sum, whose missing neighbours drop out at the edges, converges to the
// free-surface boundary condition 2A d_n m = D m x (z x n) of the continuum
// (S. Rohart and A. Thiaville, PRB 88, 184422 (2013)).  Semi-infinite film,
// first integral A t'^2 = K sin^2 t with 2A t' = D at the edge:
//   sin t_edge = D Delta / (2A), Delta = sqrt(A / K),
// and the profile tan(t(x)/2) = tan(t_edge/2) exp(-x/Delta) from the edge,
// whose value at the centre of the edge cell (x = h/2) the discrete angle
// approaches with the cell size.  Sign convention: for D > 0 and m_z = +1
// inside, m_x > 0 at the edge on -x and m_x < 0 at the edge on +x.
TEST(DmiEdge, TiltConvergesToTheBoundaryConditionWithItsSign) {
    const double A = 1.3e-6, K = 4e6, D = 3.0, ms = 860.0;
    const double Delta = std::sqrt(A / K);
    const double edge = std::asin(D * Delta / (2.0 * A));  // 41.13 degrees
    EXPECT_NEAR(edge * 180.0 / M_PI, 41.13, 0.01);
    double last_err = 1.0, last_edge = 1.0;
    for (double h : {0.5e-7, 0.25e-7}) {
        SCOPED_TRACE(h);
        const int cells = static_cast<int>(std::lround(16.0 * Delta / h));
        const auto t = relaxed_chain_angles(cells, h, A, K, D, ms);
        const double centre = 2.0 * std::atan(std::tan(edge / 2.0) * std::exp(-h / (2.0 * Delta)));
        EXPECT_GT(t.front(), 0.0);  // m_x > 0 on the -x edge
        EXPECT_NEAR(t.back(), -t.front(), 1e-9);
        EXPECT_LT(std::abs(t[cells / 2]), 1e-3);  // the middle stays perpendicular
        // Against the profile at the cell centre: second order in h; against
        // the edge value itself: first order (the centre lies h/2 inside).
        const double err = std::abs(t.front() - centre) / centre;
        const double err_edge = std::abs(t.front() - edge) / edge;
        EXPECT_LT(err, 0.3 * last_err);
        EXPECT_LT(err_edge, 0.55 * last_edge);
        last_err = err;
        last_edge = err_edge;
        // The flipped sign of D flips the tilt.
        if (h > 0.4e-7) {
            const auto f = relaxed_chain_angles(cells, h, A, K, -D, ms);
            EXPECT_NEAR(f.front(), -t.front(), 1e-9);
        }
    }
    EXPECT_LT(last_err, 3e-4);
    EXPECT_LT(last_edge, 0.021);
}

}  // namespace
}  // namespace torix
