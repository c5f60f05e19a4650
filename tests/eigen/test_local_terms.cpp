// Cubic anisotropy and interlayer exchange, the field terms kept beside the
// tensor: field against the energy, the field routes, the dynamic matrix
// against a finite-difference Jacobian of the torque, the matrix-free
// operator against the dense matrix, and resonance frequencies and
// equilibria against closed forms computed here from the energy.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>

#include "eigen/bloch_dense.hpp"
#include "eigen/bloch_kernel.hpp"
#include "eigen/bloch_operator.hpp"
#include "eigen/mode_operator.hpp"
#include "tensor/lattice_sum.hpp"
#include "tensor/neighbour_blocks.hpp"
#include "fd_jacobian.hpp"

namespace torix::test {
namespace {

constexpr double kPi = std::numbers::pi;

double max_abs(const std::vector<double>& A) {
    double big = 0.0;
    for (double a : A) big = std::max(big, std::abs(a));
    return big;
}

double max_diff(const std::vector<double>& A, const std::vector<double>& B) {
    double d = 0.0;
    for (std::size_t k = 0; k < A.size(); ++k) d = std::max(d, std::abs(A[k] - B[k]));
    return d;
}

CubicAnisotropy cubic(int m, double K1, double K2, std::array<double, 3> a1, std::array<double, 3> a2) {
    CubicAnisotropy t;
    const std::string problem = make_cubic_anisotropy(m, K1, K2, a1, a2, t);
    EXPECT_EQ(problem, "");
    return t;
}

// The energy density written out here from the direction cosines, and
// from the direction m through the term's crystal axes.
double cubic_w(double K1, double K2, const double a[3]) {
    const double s1 = a[0] * a[0], s2 = a[1] * a[1], s3 = a[2] * a[2];
    return K1 * (s1 * s2 + s2 * s3 + s3 * s1) + K2 * s1 * s2 * s3;
}
double cubic_w(const CubicAnisotropy& t, const double m[3]) {
    double a[3];
    for (int i = 0; i < 3; ++i) {
        const auto& c = i == 0 ? t.c1 : i == 1 ? t.c2 : t.c3;
        a[i] = c[0] * m[0] + c[1] * m[1] + c[2] * m[2];
    }
    return cubic_w(t.K1, t.K2, a);
}

// The full field of M by the field routine every command uses.
FieldFn field_of(const Model& m, std::array<double, 3> applied, int method = kMethodDirect,
                 const FourierTensor* F = nullptr) {
    return [&m, applied, method, F](const VecGrid& M, VecGrid& H) {
        static const FourierTensor none;
        for_cells(m.nx, m.ny, m.nz, [&](int x, int y, int z) {
            for (int c = 1; c <= 3; ++c) H(x, y, z, c) = applied[c - 1];
        });
        field_by_method(method, M, m.MS, {0.0, 0.0, 0.0}, 0.0, m.MASQUE, m.AIJ, F ? *F : none, H, m.nx, m.ny, m.nz,
                        m.MS.extent(0), m.terms);
    };
}

// Two layers of materials 1 (two cells thick) and 2 (one cell) with an
// empty spacer between them, 2 x 1 cells wide, in random directions, with a
// cubic term on each material (axes tilted off the grid) and an interlayer
// coupling with both constants.
Model layered(double alpha) {
    Model m = make_model(1, 0, 3, 3e-7, 4e-7, 2e-7, {{1.3e-6, 800.0}, {1.0e-6, 1400.0}},
                         [](int, int, int z) { return z <= 1 ? 1 : z == 3 ? 2 : 0; });
    m.terms.cubic.push_back(cubic(1, 4.8e5, -2.0e5, {1.0, 0.2, -0.3}, {0.2, -1.0, 0.0}));
    m.terms.cubic.push_back(cubic(2, -4.5e5, 1.5e5, {0.0, 0.0, 1.0}, {1.0, 1.0, 0.0}));
    m.terms.interlayer.push_back(InterlayerExchange{2, 1, -0.4, 0.15, m.dz});
    std::mt19937 gen(7);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    set_m(m, [&](int, int, int) { return std::array<double, 3>{u(gen), u(gen), u(gen)}; });
    set_numbering(m);
    m.alpha = alpha;
    set_field(m, {300.0, -200.0, 500.0});
    return m;
}

TEST(LocalTerms, FieldsAreMinusTheGradientOfTheEnergy) {
    // Cubic: H = -(1/Ms) dw/dm, by central differences of the energy written
    // here, at a direction off every symmetry axis.
    const CubicAnisotropy t = cubic(1, 4.8e5, -2.0e5, {1.0, 0.2, -0.3}, {0.2, -1.0, 0.0});
    const double ms = 1714.0;
    const double m[3] = {0.48, -0.6, 0.64};
    double h[3] = {0.0, 0.0, 0.0};
    const double M[3] = {ms * m[0], ms * m[1], ms * m[2]};
    cubic_add_field(t, ms, M, h);
    auto w = [&](const double v[3]) { return cubic_w(t, v); };
    for (int k = 0; k < 3; ++k) {
        const double e = 1e-5;
        double p[3] = {m[0], m[1], m[2]}, q[3] = {m[0], m[1], m[2]};
        p[k] += e, q[k] -= e;
        const double grad = (w(p) - w(q)) / (2.0 * e);
        EXPECT_NEAR(h[k], -grad / ms, 1e-7 * 2.0 * t.K1 / ms) << k;
    }
    EXPECT_NEAR(cubic_energy_density(t, m), w(m), 1e-12 * t.K1);
    // The axes as given: c1 along a1, c2 in the plane of a1 and a2, c3 = c1 x c2.
    EXPECT_NEAR(t.c1[0] * t.c2[0] + t.c1[1] * t.c2[1] + t.c1[2] * t.c2[2], 0.0, 1e-15);
    EXPECT_NEAR(t.c3[2], (t.c1[0] * t.c2[1] - t.c1[1] * t.c2[0]), 1e-15);

    // Interlayer: the field on each cell of a link is -(1/(Ms V)) dE/dM with
    // E = dx dy (-J1 c - J2 c^2), including the factor 2 of the biquadratic
    // term; and the energy sum is E / V.
    Model l = layered(0.0);
    const InterlayerExchange& il = l.terms.interlayer[0];
    VecGrid H = make_vec_grid(l.nx, l.ny, l.nz, 0.0);
    interlayer_field(il, l.M, l.MS, l.MASQUE, H);
    const auto links = interlayer_links(il, l.MASQUE);
    ASSERT_EQ(links.size(), 2u);  // one per column: (x, 0, 3) with (x, 0, 1)
    auto link_energy = [&](const VecGrid& M) {
        double e = 0.0;
        for (int x = 0; x <= 1; ++x) {
            double c = 0.0;
            for (int k = 1; k <= 3; ++k) c += M(x, 0, 3, k) * M(x, 0, 1, k) / (1400.0 * 800.0);
            e += l.dx * l.dy * (-il.J1 * c - il.J2 * c * c);
        }
        return e;
    };
    const double V = l.dx * l.dy * l.dz;
    EXPECT_NEAR(interlayer_energy(il, l.M, l.MS, l.MASQUE), link_energy(l.M) / V, 1e-12 * std::abs(il.J1) / l.dz);
    for (int z : {0, 1, 3})
        for (int k = 1; k <= 3; ++k) {
            VecGrid Mp = l.M, Mm = l.M;
            const double e = 1e-3;
            Mp(0, 0, z, k) += e, Mm(0, 0, z, k) -= e;
            const double want = -(link_energy(Mp) - link_energy(Mm)) / (2.0 * e) / V;
            EXPECT_NEAR(H(0, 0, z, k), want, 1e-8 * std::abs(il.J1) / (800.0 * l.dz)) << z << " " << k;
        }
    EXPECT_EQ(H(0, 0, 0, 1), 0.0);  // the lower cell of the thick layer meets its own layer first
}

TEST(LocalTerms, LinksCrossEmptyCellsOnly) {
    // One column per case, bottom first; along a periodic z the search goes
    // through the boundary into the next period.
    struct Case {
        std::vector<int> column;
        bool periodic;
        std::vector<std::array<int, 3>> links;  // m1 cell, m2 cell (z indices), periods to the m2 image
    };
    const Case cases[] = {
        {{1, 0, 0, 2}, false, {{0, 3, 0}}},             // a thick spacer
        {{1, 2}, false, {{0, 1, 0}}},                   // no spacer
        {{2, 1}, false, {{1, 0, 0}}},                   // no spacer, the partner below
        {{1, 3, 2}, false, {}},                         // a third material in between
        {{2, 0, 1, 0, 2}, false, {{2, 0, 0}, {2, 4, 0}}},  // a layer between two: both sides
        {{1, 1, 0, 2, 2}, false, {{1, 3, 0}}},          // only the facing cells
        {{2, 0, 1}, false, {{2, 0, 0}}},
        {{1, 0, 2, 0}, true, {{0, 2, -1}, {0, 2, 0}}},  // a stack: below across the boundary
        {{1, 2}, true, {{0, 1, -1}, {0, 1, 0}}},
        {{0, 2, 0, 1, 0}, true, {{3, 1, 0}, {3, 1, 1}}},
        {{1, 0, 0}, true, {}},                          // round the period to itself
    };
    for (const Case& c : cases) {
        const int nz = static_cast<int>(c.column.size()) - 1;
        IntGrid mask = make_int_grid(0, 0, nz);
        for (int z = 0; z <= nz; ++z) mask(0, 0, z) = c.column[z];
        const auto links = interlayer_links(InterlayerExchange{1, 2, 1.0, 0.0, 1e-7, c.periodic}, mask);
        ASSERT_EQ(links.size(), c.links.size());
        for (std::size_t k = 0; k < links.size(); ++k) {
            EXPECT_EQ(links[k].a, c.links[k][0]);
            EXPECT_EQ(links[k].b, c.links[k][1]);
            EXPECT_EQ(links[k].shift, c.links[k][2]);
        }
    }
}

TEST(LocalTerms, BadAxesAreRefused) {
    CubicAnisotropy t;
    EXPECT_NE(make_cubic_anisotropy(1, 1.0, 0.0, {0, 0, 0}, {0, 1, 0}, t).find("a first axis of zero length"),
              std::string::npos);
    EXPECT_NE(make_cubic_anisotropy(1, 1.0, 0.0, {1, 0, 0}, {0, 0, 0}, t).find("a second axis of zero length"),
              std::string::npos);
    EXPECT_NE(make_cubic_anisotropy(1, 1.0, 0.0, {1, 0, 0}, {2e-6, 1, 0}, t).find("cosine 2e-06"),
              std::string::npos);
    EXPECT_EQ(make_cubic_anisotropy(1, 1.0, 0.0, {1, 0, 0}, {0.5e-6, 1, 0}, t), "");
}

// The field routine with the terms: the same field by the direct sum and by
// the Fourier convolution, and the vector-product term taken with the whole
// field, terms included.
TEST(LocalTerms, BothFieldRoutesAddTheTermsBeforeTheVectorProduct) {
    const Model m = layered(0.0);
    FourierTensor F;
    aijfft(m.AIJ, F, m.nx, m.ny, m.nz, 2);
    const std::array<double, 3> MP{30.0, -10.0, 20.0};
    const double s = 0.3;
    VecGrid Hd = make_vec_grid(m.nx, m.ny, m.nz, 100.0), Hf = Hd, Href = Hd;
    field_by_method(kMethodDirect, m.M, m.MS, MP, s, m.MASQUE, m.AIJ, F, Hd, m.nx, m.ny, m.nz, 2, m.terms);
    field_by_method(kMethodFft, m.M, m.MS, MP, s, m.MASQUE, m.AIJ, F, Hf, m.nx, m.ny, m.nz, 2, m.terms);
    calcfields(m.M, m.MS, {0.0, 0.0, 0.0}, 0.0, m.MASQUE, m.AIJ, Href, m.nx, m.ny, m.nz, 2);
    add_local_fields(m.terms, m.M, m.MS, m.MASQUE, Href);
    double big = 0.0, dd = 0.0, df = 0.0;
    for_cells(m.nx, m.ny, m.nz, [&](int x, int y, int z) {
        const int q = m.MASQUE(x, y, z);
        if (q == 0) return;
        double a[3], b[3];
        for (int k = 0; k < 3; ++k) a[k] = m.M(x, y, z, k + 1), b[k] = s * Href(x, y, z, k + 1) - MP[k];
        const double vp[3] = {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
        for (int k = 0; k < 3; ++k) {
            const double want = Href(x, y, z, k + 1) + vp[k] / m.MS(q);
            big = std::max(big, std::abs(want));
            dd = std::max(dd, std::abs(Hd(x, y, z, k + 1) - want));
            df = std::max(df, std::abs(Hf(x, y, z, k + 1) - want));
        }
    });
    EXPECT_LT(dd, 1e-13 * big);
    EXPECT_LT(df, 1e-10 * big);
}

// The energy measure of the time integration counts each term with its own
// energy, written out here: tensor and Zeeman -(1/2) M.H_tensor - M.Happ,
// cubic w per cell, interlayer sigma per link over the cell height.
TEST(LocalTerms, EnergyMeasureCountsTheTermsWithTheirOwnEnergy) {
    const Model m = layered(0.0);
    const std::array<double, 3> happ{300.0, -200.0, 500.0};
    VecGrid Ha = make_vec_grid(m.nx, m.ny, m.nz), H = make_vec_grid(m.nx, m.ny, m.nz);
    for_cells(m.nx, m.ny, m.nz, [&](int x, int y, int z) {
        for (int c = 1; c <= 3; ++c) Ha(x, y, z, c) = happ[c - 1];
    });
    field_of(m, happ)(m.M, H);
    VecGrid Ht = make_vec_grid(m.nx, m.ny, m.nz, 0.0);
    calcfields(m.M, m.MS, {0.0, 0.0, 0.0}, 0.0, m.MASQUE, m.AIJ, Ht, m.nx, m.ny, m.nz, 2);
    double e = 0.0;
    int cells = 0;
    for_cells(m.nx, m.ny, m.nz, [&](int x, int y, int z) {
        const int q = m.MASQUE(x, y, z);
        if (q == 0) return;
        ++cells;
        double mv[3];
        for (int k = 0; k < 3; ++k) {
            e += -0.5 * m.M(x, y, z, k + 1) * Ht(x, y, z, k + 1) - m.M(x, y, z, k + 1) * happ[k];
            mv[k] = m.M(x, y, z, k + 1) / m.MS(q);
        }
        e += cubic_w(m.terms.cubic[q - 1], mv);
    });
    const InterlayerExchange& il = m.terms.interlayer[0];
    for (int x = 0; x <= 1; ++x) {
        double c = 0.0;
        for (int k = 1; k <= 3; ++k) c += m.M(x, 0, 3, k) * m.M(x, 0, 1, k) / (1400.0 * 800.0);
        e += (-il.J1 * c - il.J2 * c * c) / m.dz;
    }
    const double want = e / cells;
    EXPECT_NEAR(energy_measure(m.M, H, Ha, m.MASQUE, m.MS, m.terms), want, 1e-11 * std::abs(want));
    // Without the correction the quartic terms would count twice or more.
    EXPECT_GT(std::abs(energy_measure(m.M, H, Ha, m.MASQUE) - want), 1e-3 * std::abs(want));
}

// The dense matrix equals the finite-difference Jacobian of the torque of
// the field code: for the tensor alone (exchange, dipolar, two materials)
// and with both terms, damped, at a state far from equilibrium.  (With the
// DMI and its interface term: test_dynamic_matrix.cpp.)
TEST(LocalTerms, DenseMatrixIsTheJacobianOfTheTorque) {
    for (const bool with_terms : {false, true}) {
        SCOPED_TRACE(with_terms ? "cubic and interlayer terms" : "tensor alone");
        Model m = layered(0.02);
        if (!with_terms) {
            m.terms = LocalTerms{};
            set_field(m, {300.0, -200.0, 500.0});
        }
        const auto A = dense_matrix(m);
        const auto Afd = fd_matrix(m, field_of(m, {300.0, -200.0, 500.0}));
        EXPECT_LT(max_diff(A, Afd), 1e-9 * max_abs(A));
        if (with_terms) {
            // The terms' part of the matrix is far above that tolerance.
            Model bare = m;
            bare.terms = LocalTerms{};
            EXPECT_GT(max_diff(dense_matrix(bare), Afd), 1e-3 * max_abs(A));
        }
    }
}

// One cubic cell (its demagnetizing tensor is isotropic and drops out) in a
// field along a crystal direction d: the frequency by the Smit-Beljers
// formula, f = sqrt(F_tt F_pp - F_tp^2) / Ms at theta = pi/2, with
// F(theta, phi) = w(m) - Ms H . m and m = sin t cos p d + sin t sin p v +
// cos t w; the second derivatives by central differences (Richardson).
double smit_beljers(double K1, double K2, double ms, double H, const std::array<double, 3>& d) {
    // d in crystal coordinates; v, w complete an orthonormal frame.
    std::array<double, 3> v = std::abs(d[2]) < 0.9 ? std::array<double, 3>{-d[1], d[0], 0.0}
                                                   : std::array<double, 3>{0.0, -d[2], d[1]};
    const double nv = std::hypot(v[0], v[1], v[2]);
    for (double& c : v) c /= nv;
    const std::array<double, 3> w{d[1] * v[2] - d[2] * v[1], d[2] * v[0] - d[0] * v[2], d[0] * v[1] - d[1] * v[0]};
    auto F = [&](double t, double p) {
        double a[3];
        for (int i = 0; i < 3; ++i)
            a[i] = std::sin(t) * std::cos(p) * d[i] + std::sin(t) * std::sin(p) * v[i] + std::cos(t) * w[i];
        return cubic_w(K1, K2, a) - ms * H * std::sin(t) * std::cos(p);
    };
    const double t0 = kPi / 2.0;
    auto second = [&](double e) {
        const double ftt = (F(t0 + e, 0) - 2 * F(t0, 0) + F(t0 - e, 0)) / (e * e);
        const double fpp = (F(t0, e) - 2 * F(t0, 0) + F(t0, -e)) / (e * e);
        const double ftp = (F(t0 + e, e) - F(t0 + e, -e) - F(t0 - e, e) + F(t0 - e, -e)) / (4 * e * e);
        return std::array<double, 3>{ftt, fpp, ftp};
    };
    const auto s1 = second(2e-3), s2 = second(1e-3);
    double f[3];
    for (int k = 0; k < 3; ++k) f[k] = (4.0 * s2[k] - s1[k]) / 3.0;
    return std::sqrt(f[0] * f[1] - f[2] * f[2]) / ms;
}

TEST(CubicAnisotropy, SingleCellResonanceAlongTheCrystalDirections) {
    const double ms = 1714.0, H = 2000.0;
    // Crystal axes tilted against the grid.
    const std::array<double, 3> a1{2.0, 1.0, -2.0}, a2{1.0, 2.0, 2.0};
    struct Case {
        const char* name;
        std::array<double, 3> d;  // crystal coordinates
        double K1, K2;
        double closed;            // closed form for K2 = 0 (0: none), Oe
        double ghz;               // at 2.8 MHz/Oe (0: none)
    };
    const double K = 4.8e5, r3 = 1.0 / std::sqrt(3.0), r2 = 1.0 / std::sqrt(2.0);
    const Case cases[] = {
        {"[100]", {1, 0, 0}, K, 0.0, H + 2 * K / ms, 7.1683},
        {"[111]", {r3, r3, r3}, K, 0.0, H - 4 * K / (3 * ms), 4.5545},
        {"[110]", {r2, r2, 0}, K, 0.0, std::sqrt((H - 2 * K / ms) * (H + K / ms)), 5.0734},
        {"[100], K2", {1, 0, 0}, K, 3.0e5, 0.0, 0.0},
        {"[111], K1 < 0, K2", {r3, r3, r3}, -K, 2.0e5, 0.0, 0.0},
        {"[110], K1 < 0, K2", {r2, r2, 0}, -K, -1.0e5, 0.0, 0.0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Model m = make_model(0, 0, 0, 5e-7, 5e-7, 5e-7, {{1.3e-6, ms}}, [](int, int, int) { return 1; });
        m.terms.cubic.push_back(cubic(1, c.K1, c.K2, a1, a2));
        const CubicAnisotropy& t = m.terms.cubic[0];
        std::array<double, 3> lab{};
        for (int k = 0; k < 3; ++k) lab[k] = c.d[0] * t.c1[k] + c.d[1] * t.c2[k] + c.d[2] * t.c3[k];
        set_m(m, [&](int, int, int) { return lab; });
        set_numbering(m);
        set_field(m, {H * lab[0], H * lab[1], H * lab[2]});
        Modes r;
        captured_cout([&] { calcmatrix(m.input(), 1, r.out()); });
        ASSERT_EQ(r.nmodes, 1);
        const double f = r.W(1, 1);
        EXPECT_NEAR(f, smit_beljers(c.K1, c.K2, ms, H, c.d), 1e-8 * f);
        EXPECT_NEAR(r.W(1, 2), 0.0, 1e-9 * f);
        if (c.closed > 0.0) {
            EXPECT_NEAR(f, c.closed, 1e-9 * f);
        }
        if (c.ghz > 0.0) {
            EXPECT_NEAR(f * 2.8e-3, c.ghz, 5e-5);
        }
    }
}

// With no field, a cubic cell relaxes along the nearest cube axis for
// K1 > 0 and along the nearest body diagonal for K1 < 0.  (Alpha small
// enough that the cell's own demagnetizing field, -4 pi/3 M, does not turn
// the damped alignment over.)
TEST(CubicAnisotropy, RelaxationFindsTheEasyAxes) {
    const double ms = 800.0;
    for (const double K1 : {2.0e5, -2.0e5}) {
        SCOPED_TRACE(K1 > 0 ? "K1 > 0" : "K1 < 0");
        Model m = make_model(0, 0, 0, 5e-7, 5e-7, 5e-7, {{1.3e-6, ms}}, [](int, int, int) { return 1; });
        m.terms.cubic.push_back(cubic(1, K1, 0.0, {1.0, 1.0, 0.0}, {-1.0, 1.0, 1.0}));
        const CubicAnisotropy& t = m.terms.cubic[0];
        // Start at crystal direction (0.9, 0.5, 0.3): nearest <100> is [100],
        // nearest <111> is [111].
        std::array<double, 3> lab{};
        for (int k = 0; k < 3; ++k) lab[k] = 0.9 * t.c1[k] + 0.5 * t.c2[k] + 0.3 * t.c3[k];
        set_m(m, [&](int, int, int) { return lab; });
        relax_model(m, {0.0, 0.0, 0.0}, 0.05, 1e-13, 100000);
        const double mv[3] = {m.M(0, 0, 0, 1) / ms, m.M(0, 0, 0, 2) / ms, m.M(0, 0, 0, 3) / ms};
        const std::array<double, 3> easy =
            K1 > 0 ? t.c1
                   : std::array<double, 3>{(t.c1[0] + t.c2[0] + t.c3[0]) / std::sqrt(3.0),
                                           (t.c1[1] + t.c2[1] + t.c3[1]) / std::sqrt(3.0),
                                           (t.c1[2] + t.c2[2] + t.c3[2]) / std::sqrt(3.0)};
        EXPECT_NEAR(mv[0] * easy[0] + mv[1] * easy[1] + mv[2] * easy[2], 1.0, 1e-9);
    }
}

// Two layers of one cell each with an empty cell between, saturated along
// x.  With the static field Hx = H + (Dxx_self + Dxx_mut) Ms (+ H_J from the
// coupling, H_J = (J1 + 2 J2) / (Ms t)), the in-phase mode sees the self
// plus the mutual tensor block and no coupling, the antiphase mode the self
// minus the mutual block and -H_J, so that
//     f^2 = (Hx + Hj - Dyy Ms)(Hx + Hj - Dzz Ms),  Hj = 0 or 2 H_J
// (Hx here without H_J), D read from the tensor.  As a 1 x 1 x 3 column the
// blocks are Newell's; as a film (periodic along x and y) the self block is
// diag(0, 0, -4 pi) and the mutual one vanishes, and the frequencies are
// Kittel's sqrt(H (H + 4 pi Ms)) and sqrt((H + 2 H_J)(H + 2 H_J + 4 pi Ms)).
TEST(InterlayerExchange, AcousticAndOpticalModesOfTwoLayers) {
    const double ms = 800.0, H = 1000.0, t = 5e-7;
    for (const bool film : {false, true}) {
        SCOPED_TRACE(film ? "film" : "column");
        const double J1 = 0.1, J2 = film ? 0.0 : 0.03;
        Model m = make_model(0, 0, 2, 5e-7, 5e-7, t, {{1.3e-6, ms}, {1.3e-6, ms}},
                             [](int, int, int z) { return z == 0 ? 1 : z == 2 ? 2 : 0; });
        if (film) {
            m.AIJ = make_tensor(0, 0, 2, 2);
            tensor_periodic(m.A, m.MS, m.AIJ, Lattice{Periodicity{1, 1, 0}, 0, 0, 2, 5e-7, 5e-7, t}, 2);
        }
        m.terms.interlayer.push_back(InterlayerExchange{1, 2, J1, J2, t});
        set_m(m, [](int, int, int) { return std::array<double, 3>{1.0, 0.0, 0.0}; });
        set_numbering(m);
        set_field(m, {H, 0.0, 0.0});
        Modes r;
        captured_cout([&] { calcmatrix(m.input(), 2, r.out()); });
        ASSERT_EQ(r.nmodes, 2);
        auto kittel = [&](double sign, double hj) {
            const double hx = H + (m.AIJ(0, 0, 0, 1, 1) + m.AIJ(0, 0, 2, 1, 1)) * ms + hj;
            auto D = [&](int c) { return m.AIJ(0, 0, 0, c, 1) + sign * m.AIJ(0, 0, 2, c, 1); };
            return std::sqrt((hx - D(5) * ms) * (hx - D(9) * ms));
        };
        const double HJ = (J1 + 2.0 * J2) / (ms * t);
        const double acoustic = kittel(1.0, 0.0), optical = kittel(-1.0, 2.0 * HJ);
        ASSERT_LT(acoustic, optical);
        EXPECT_NEAR(r.W(1, 1), acoustic, 1e-6 * acoustic);
        EXPECT_NEAR(r.W(2, 1), optical, 1e-6 * optical);
        if (film) {
            const double fpm = 4.0 * kPi * ms;
            EXPECT_NEAR(r.W(1, 1), std::sqrt(H * (H + fpm)), 1e-6 * acoustic);
            EXPECT_NEAR(r.W(2, 1), std::sqrt((H + 2 * HJ) * (H + 2 * HJ + fpm)), 1e-6 * optical);
            EXPECT_NEAR(r.W(1, 1) * 2.8e-3, 9.3089, 5e-5);  // GHz at 2.8 MHz/Oe
            EXPECT_NEAR(r.W(2, 1) * 2.8e-3, 11.6561, 5e-5);
        }
    }
}

// A stack periodic along z, layer 1 / spacer / layer 2 / spacer, one cell
// each, saturated along x, with the interlayer term alone (a zero tensor:
// no dipolar field, no exchange).  Each layer meets the other above and
// below, the one below across the boundary, so at k along z the coupling
// field is H_J (e^{2ikd} + e^{-2ikd}) with H_J = (J1 + 2 J2) / (Ms d), and
// the two bands are
//     f = H + 2 H_J -+ 2 H_J cos(2 k d).
TEST(InterlayerExchange, StackPeriodicAlongZ) {
    const double ms = 800.0, H = 1000.0, d = 4e-7, J1 = 0.05, J2 = 0.01;
    Model m = make_model(0, 0, 3, 5e-7, 5e-7, d, {{1.3e-6, ms}, {1.3e-6, ms}},
                         [](int, int, int z) { return z == 0 ? 1 : z == 2 ? 2 : 0; });
    m.AIJ = make_tensor(0, 0, 3, 2);
    const NeighbourBlocks nb({Range{1, 9}, Range{1, 6}, Range{1, 2}}, 0.0);
    const Lattice lat{Periodicity{0, 0, 1}, 0, 0, 3, 5e-7, 5e-7, d};
    m.terms.interlayer.push_back(InterlayerExchange{1, 2, J1, J2, d, true});
    set_m(m, [](int, int, int) { return std::array<double, 3>{1.0, 0.0, 0.0}; });
    set_numbering(m);
    set_field(m, {H, 0.0, 0.0});
    const double HJ = (J1 + 2.0 * J2) / (ms * d);
    EXPECT_NEAR(m.H(0, 0, 0, 1), H + 2.0 * HJ, 1e-9 * H);
    for (const double k : {0.0, 0.3 * kPi / (4 * d), 0.8 * kPi / (4 * d)}) {
        SCOPED_TRACE(k);
        // The kernel without the k part of a dipolar sum: there is none.
        const BlochKernel K = bloch_kernel(m.AIJ, nb, BlochTensor{}, lat, {0.0, 0.0, k});
        const int n = 2 * m.N;
        std::vector<cplx> A(static_cast<std::size_t>(n) * n);
        assemble_dense_bloch(m.input(), K, wave_per_cell(lat, {0.0, 0.0, k}), A.data());
        Modes r;
        std::vector<cplx> work = A;
        if (k == 0.0)
            captured_cout([&] { calcmatrix(m.input(), 2, r.out()); });
        else
            solve_dense_bloch(m.N, work.data(), 2, r.out());
        ASSERT_EQ(r.nmodes, 2);
        const double c = 2.0 * HJ * std::cos(2.0 * k * d);
        EXPECT_NEAR(r.W(1, 1), H + 2.0 * HJ - c, 1e-9 * H);
        EXPECT_NEAR(r.W(2, 1), H + 2.0 * HJ + c, 1e-9 * H);
        // The operator's products against the assembled matrix.
        const BlochOperator op(m.input(), K, lat.p, wave_per_cell(lat, {0.0, 0.0, k}));
        const auto err = product_errors(op, op, A, n);
        EXPECT_LT(err[0], 1e-12);
        EXPECT_LT(err[1], 1e-12);
    }
}

// Two cells coupled across an empty cell, started 60 degrees apart in the
// plane, no field: antiparallel for J1 < 0, parallel for J1 > 0 (the
// dipolar coupling of the stacked cells alone favours antiparallel).
TEST(InterlayerExchange, PairRelaxesAntiparallelOrParallel) {
    for (const double J1 : {-0.5, 0.5}) {
        SCOPED_TRACE(J1 < 0 ? "antiferromagnetic" : "ferromagnetic");
        Model m = make_model(0, 0, 2, 5e-7, 5e-7, 3e-7, {{1.3e-6, 1400.0}, {1.3e-6, 1400.0}},
                             [](int, int, int z) { return z == 0 ? 1 : z == 2 ? 2 : 0; });
        m.terms.interlayer.push_back(InterlayerExchange{1, 2, J1, 0.0, m.dz});
        set_m(m, [](int, int, int z) {
            return z == 0 ? std::array<double, 3>{1.0, 0.0, 0.0} : std::array<double, 3>{0.5, 0.866, 0.0};
        });
        relax_model(m, {0.0, 0.0, 0.0}, 0.05, 1e-13, 200000);
        double c = 0.0;
        for (int k = 1; k <= 3; ++k) c += m.M(0, 0, 0, k) * m.M(0, 0, 2, k) / (1400.0 * 1400.0);
        EXPECT_NEAR(c, J1 < 0 ? -1.0 : 1.0, 1e-8);
    }
}


// The matrix-free routes take the same blocks as the dense matrix: the
// operator's products and transposed products equal it, and its local part
// over the whole grid holds all of it, the terms' blocks included; the
// complex matrix at k = 0 is the real one, the Bloch operator's products
// equal it, and its local part holds the interlayer entries two cells apart.
TEST(LocalTerms, MatrixFreeAndBlochRoutesAddTheSameBlocks) {
    const Model m = layered(0.02);
    const std::vector<double> Ar = dense_matrix(m);
    const int n = 2 * m.N;
    const double big = max_abs(Ar);
    const ModeOperator mop(m.input());
    ASSERT_EQ(mop.order(), n);
    const auto merr = product_errors(mop, mop, Ar, n);
    EXPECT_LT(merr[0], 1e-12);
    EXPECT_LT(merr[1], 1e-12);
    const SparseMatrix S = mop.local_part(m.nz + 1);
    std::vector<double> B(Ar.size(), 0.0);
    for (std::int64_t k = 0; k < S.count(); ++k)
        B[(S.row[k] - 1) + static_cast<std::size_t>(S.col[k] - 1) * n] += S.val[k];
    EXPECT_LT(max_diff(Ar, B), 1e-12 * big);

    const NeighbourBlocks nb = exchange_neighbour_blocks(m.A, m.MS, m.dx, m.dy, m.dz, 2);
    const Lattice lat{Periodicity{}, m.nx, m.ny, m.nz, m.dx, m.dy, m.dz};
    const BlochKernel K = bloch_kernel(m.AIJ, nb, BlochTensor{}, lat, {0.0, 0.0, 0.0});
    std::vector<cplx> Ac(Ar.size());
    assemble_dense_bloch(m.input(), K, {0.0, 0.0, 0.0}, Ac.data());
    for (std::size_t q = 0; q < Ar.size(); ++q) EXPECT_NEAR(std::abs(Ac[q] - Ar[q]), 0.0, 1e-12 * big);
    const BlochOperator op(m.input(), K, lat.p, {0.0, 0.0, 0.0});
    const auto err = product_errors(op, op, Ar, n);
    EXPECT_LT(err[0], 1e-12);
    EXPECT_LT(err[1], 1e-12);
    // Cells (x, 0, 1) and (x, 0, 3) are linked: beyond the local part's
    // reach of one cell, their entries hold the interlayer blocks alone (the
    // matrix's entries less those of the model without terms; the dipolar
    // pair goes to the far field there).
    const ComplexSparse L = op.local_part();
    Model bare = m;
    bare.terms = LocalTerms{};
    const std::vector<double> Ab = dense_matrix(bare);
    int found = 0;
    for (int x0 = 0; x0 <= 1; ++x0) {
        const int a = m.NUM(x0, 0, 1), b = m.NUM(x0, 0, 3);
        for (int r = 2 * (a - 1); r < 2 * a; ++r)
            for (std::int64_t q = L.row_start[r]; q < L.row_start[r + 1]; ++q)
                if (L.col[q] / 2 == b - 1) {
                    ++found;
                    const std::size_t e = r + L.col[q] * static_cast<std::size_t>(n);
                    EXPECT_GT(std::abs(Ar[e] - Ab[e]), 1e-6 * big);
                    EXPECT_NEAR(std::abs(L.val[q] - (Ar[e] - Ab[e])), 0.0, 1e-12 * big);
                }
    }
    EXPECT_EQ(found, 8);
}

}  // namespace
}  // namespace torix::test
