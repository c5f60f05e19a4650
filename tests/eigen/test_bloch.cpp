// The Bloch problem of periodic models: the kernel's symmetries, the
// complex matrix against the real one at k = 0, zone folding against
// supercells, the exchange stencil's dispersion, reciprocity, and the sense
// of travel of a mode in a time run.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>

#include "dynamics/dmi_interfaces.hpp"
#include "dynamics/relax.hpp"
#include "dynamics/trajectory.hpp"
#include "eigen/bloch_dense.hpp"
#include "eigen/bloch_kernel.hpp"
#include "eigen/bloch_modes.hpp"
#include "eigen/bloch_operator.hpp"
#include "eigen_model.hpp"
#include "tensor/dmi.hpp"
#include "tensor/tensor_accurate.hpp"

namespace torix::test {
namespace {

constexpr double kPi = std::numbers::pi;
constexpr double kD = 5e-7;  // cell size (cm)

// A model periodic along x: (nx+1) x (ny+1) x 1 cells of kD, materials
// from `material(x, y)`, m along +z in a field H0 along z.  Its tensor is
// built here, independently of the program's lattice sums: the exchange
// 2 A / (MS^2 d^2) on the nearest neighbours and their images across the
// periodic boundary, an anisotropy field 2K/MS along z (K = ani MS^2 / 2),
// and, when `dipolar`, the Newell blocks cut off beyond two cells along every
// axis, so that every lattice sum is a finite sum and exact: a supercell
// and one period then describe the same infinite body to rounding.
struct Periodic {
    Model m;
    NeighbourBlocks nb;
    Lattice lat;
    bool dipolar = false;
    BlochProblem problem(const std::array<double, 3>& k) const { return BlochProblem{m.input(), nb, lat, k}; }
};

constexpr int kCut = 2;

// sum over images a of T_cut(o - a P) e^{i k a P dx}, components xx yy zz xy xz yz, tensor sign.
void cut_sum(const AccuratePlan& plan, int P, int i, int j, double k, cplx out[6]) {
    for (int c = 0; c < 6; ++c) out[c] = 0.0;
    for (int a = -6; a <= 6; ++a) {
        const int ii = i - a * P;
        if (std::abs(ii) > kCut || std::abs(j) > kCut) continue;
        double blk[6];
        accurate_block(plan, ii, j, 0, blk);
        const cplx ph = std::polar(1.0, k * a * P * kD);
        for (int c = 0; c < 6; ++c) out[c] -= blk[c] * ph;
    }
}

Periodic periodic_chain(int nx, int ny, const std::vector<std::pair<double, double>>& mats,
                        const std::function<int(int, int)>& material, bool dipolar, double H0, double ani) {
    Periodic p;
    p.dipolar = dipolar;
    Model& m = p.m;
    m = make_model(nx, ny, 0, kD, kD, kD, mats, [&](int x, int y, int) { return material(x, y); });
    const int nmat = static_cast<int>(mats.size());
    m.AIJ.fill(0.0);
    p.nb = exchange_neighbour_blocks(m.A, m.MS, kD, kD, kD, nmat);
    p.lat = Lattice{Periodicity{1, 0, 0}, nx, ny, 0, kD, kD, kD};
    const int P = nx + 1;
    const AccuratePlan plan = plan_accurate(kD, kD, kD, 0, 0, 1e-13);
    constexpr int comp[6][2] = {{1, 1}, {5, 5}, {9, 9}, {4, 2}, {7, 3}, {8, 6}};
    for (int mat = 1; mat <= nmat; ++mat) {
        for (int j = -ny; j <= ny + 1; ++j)
            for (int i = -nx; i <= nx + 1; ++i) {
                if (dipolar) {
                    cplx blk[6];
                    cut_sum(plan, P, i, j, 0.0, blk);
                    for (int c = 0; c < 6; ++c)
                        m.AIJ(i, j, 0, comp[c][0], mat) = m.AIJ(i, j, 0, comp[c][1], mat) = blk[c].real();
                }
                // Exchange: every image along x of the six neighbour offsets.
                for (int d = 1; d <= 4; ++d) {
                    const auto e = neighbour_offset(d);
                    for (int a = -3; a <= 3; ++a)
                        if ((a == 0 || e[1] == 0) && e[0] + a * P == i && e[1] == j)
                            for (int c : {1, 5, 9}) m.AIJ(i, j, 0, c, mat) += p.nb(c, d, mat);
                }
            }
        m.AIJ(0, 0, 0, 9, mat) += ani;
    }
    set_m(m, [](int, int, int) { return std::array<double, 3>{0.0, 0.0, 1.0}; });
    set_field(m, {0.0, 0.0, H0});
    set_numbering(m);
    return p;
}

// The k part of the cut-off dipolar sum, as bloch_dipolar lays it out.
BlochTensor cut_dipolar_k(const Periodic& p, double k) {
    BlochTensor t;
    const int nx = p.m.nx, ny = p.m.ny;
    t.allocate({Range{-nx, nx + 1}, Range{-ny, ny + 1}, Range{0, 1}, Range{1, 6}}, cplx{});
    if (!p.dipolar) return t;
    const AccuratePlan plan = plan_accurate(kD, kD, kD, 0, 0, 1e-13);
    for (int j = -ny; j <= ny + 1; ++j)
        for (int i = -nx; i <= nx + 1; ++i) {
            cplx a[6], b[6];
            cut_sum(plan, nx + 1, i, j, k, a);
            cut_sum(plan, nx + 1, i, j, 0.0, b);
            for (int c = 0; c < 6; ++c) t(i, j, 0, c + 1) = a[c] - b[c];
        }
    return t;
}

// All modes of the model at k along x (the complex path, also at k = 0).
struct Solved {
    Modes modes;
    std::vector<cplx> A;  // the matrix, column-major
};
Solved solve_at(const Periodic& p, double k) {
    Solved s;
    const BlochKernel K = bloch_kernel(p.m.AIJ, p.nb, cut_dipolar_k(p, k), p.lat, {k, 0.0, 0.0});
    const std::size_t n = 2 * static_cast<std::size_t>(p.m.N);
    s.A.assign(n * n, cplx{});
    assemble_dense_bloch(p.m.input(), K, wave_per_cell(p.lat, {k, 0.0, 0.0}), s.A.data());
    std::vector<cplx> work = s.A;
    solve_dense_bloch(p.m.N, work.data(), 4 * p.m.N, s.modes.out());
    return s;
}

std::vector<double> freqs(const Modes& r) {
    std::vector<double> f;
    for (int p = 1; p <= r.nmodes; ++p) f.push_back(r.W(p, 1));
    return f;
}

const std::vector<std::pair<double, double>> kTwoMats = {{1.3e-6, 800.0}, {1.0e-6, 1100.0}};

// Two materials alternating along x, two cells across: four distinct bands,
// and dipolar blocks with off-diagonal parts.
Periodic two_material_chain(int periods, bool dipolar) {
    return periodic_chain(2 * periods - 1, 1, kTwoMats, [](int x, int) { return x % 2 == 0 ? 1 : 2; }, dipolar,
                          15000.0, 500.0 / 800.0);
}

// Interfacial DMI of its own strength in each material, in the tensor and
// its record, the bonds between the two materials taken off again; m and
// the field turned along y, across waves along x, where DMI on the bonds
// along x would shift the waves.
void add_two_dmis(Periodic& p) {
    adddmi(p.m.AIJ, p.nb, p.m.MS, p.lat.p, p.m.nx, p.m.ny, p.m.nz, kD, kD, kD, kDmiInterfacial, 2.0, 1);
    adddmi(p.m.AIJ, p.nb, p.m.MS, p.lat.p, p.m.nx, p.m.ny, p.m.nz, kD, kD, kD, kDmiInterfacial, -1.5, 2);
    p.m.terms.dmi = dmi_interfaces(p.nb, p.lat.p, 2);
    set_m(p.m, [](int, int, int) { return std::array<double, 3>{0.0, 1.0, 0.0}; });
    set_field(p.m, {0.0, 15000.0, 0.0});
}

// One material on the grid of `lat` with the program's own periodic tensor
// (its lattice sums) and neighbour record; `settle` then puts m along u in
// the field h u and numbers the cells.
struct Own {
    Model m;
    Lattice lat;
    NeighbourBlocks nb;
    explicit Own(const Lattice& l) : lat(l) {
        m = make_model(l.nx, l.ny, l.nz, l.dx, l.dy, l.dz, {{1.3e-6, 800.0}}, [](int, int, int) { return 1; });
        m.AIJ.fill(0.0);
        tensor_periodic(m.A, m.MS, m.AIJ, lat, 1);
        nb = exchange_neighbour_blocks(m.A, m.MS, l.dx, l.dy, l.dz, 1);
    }
    void settle(const std::array<double, 3>& u, double h) {
        set_m(m, [&](int, int, int) { return u; });
        set_field(m, {h * u[0], h * u[1], h * u[2]});
        set_numbering(m);
    }
    std::vector<double> freqs_at(const std::array<double, 3>& k, int max) {
        Modes r;
        captured_cout([&] { calcmatrix_bloch(BlochProblem{m.input(), nb, lat, k}, max, r.out()); });
        return freqs(r);
    }
};

TEST(BlochKernel, HermitianAndPeriodicWithTheProgramsLatticeSums) {
    // A strip of 3 x 2 cells periodic along x, the program's own periodic
    // tensor and k part: K(-o) = K(o)^H, and K(o + P) = K(o) to the
    // accuracy of the image sum (its images end at different distances).
    const Own p(Lattice{Periodicity{1, 0, 0}, 2, 1, 0, kD, kD, kD});
    const NeighbourBlocks& nb = p.nb;
    const double k = 0.37 * kPi / (3 * kD);
    const BlochKernel K = bloch_kernel(p.m.AIJ, nb, p.lat, {k, 0.0, 0.0});
    double big = 0.0;
    for (std::size_t q = 0; q < K.size(); ++q) big = std::max(big, std::abs(K.data()[q]));
    for (int j = -1; j <= 1; ++j)
        for (int i = -2; i <= 2; ++i)
            for (int a = 0; a < 3; ++a)
                for (int b = 0; b < 3; ++b) {
                    const cplx v = K(i, j, 0, 1 + a + 3 * b, 1);
                    EXPECT_NEAR(std::abs(v - std::conj(K(-i, -j, 0, 1 + b + 3 * a, 1))), 0.0, 1e-12 * big)
                        << i << " " << j << " " << a << b;
                    if (i <= -1) {
                        EXPECT_NEAR(std::abs(v - K(i + 3, j, 0, 1 + a + 3 * b, 1)), 0.0, 1e-9 * big);
                    }
                }
    // The +x neighbour's image across the boundary (offset -2 = 1 - 3)
    // carries the phase of its image, e^{-i 3 k d}: K there is not real.
    EXPECT_GT(std::abs(K(-2, 0, 0, 9, 1).imag()), 1e-3 * nb(9, 1, 1));
}

TEST(BlochDense, ComplexPathAtZeroIsTheRealMatrix) {
    // A damped, non-uniform, non-periodic model with cells of multiplicity
    // 2: the complex matrix at k = 0 is the real one, entry by entry, and
    // the real path is what a solve at k = 0 takes, bit for bit.
    Model m = make_model(3, 1, 1, kD, kD, kD, {{1.3e-6, 800.0}, {1.0e-6, 1200.0}},
                         [](int x, int, int z) { return x == 3 && z == 1 ? 0 : 1 + (x + z) % 2; });
    set_m(m, [](int x, int y, int z) { return std::array<double, 3>{0.3 + 0.1 * x, -0.2 * y, 1.0 + 0.05 * z}; });
    set_field(m, {100.0, 0.0, 8000.0});
    m.alpha = 0.02;
    set_numbering(m, 2, 1, 1);
    const std::vector<double> Ar = dense_matrix(m);
    const NeighbourBlocks nb = exchange_neighbour_blocks(m.A, m.MS, kD, kD, kD, 2);
    const Lattice lat{Periodicity{}, m.nx, m.ny, m.nz, kD, kD, kD};
    const BlochKernel K = bloch_kernel(m.AIJ, nb, BlochTensor{}, lat, {0.0, 0.0, 0.0});
    std::vector<cplx> Ac(Ar.size());
    assemble_dense_bloch(m.input(), K, {0.0, 0.0, 0.0}, Ac.data());
    const double fro = frobenius(Ar);
    for (std::size_t q = 0; q < Ar.size(); ++q) {
        EXPECT_NEAR(Ac[q].real(), Ar[q], 1e-14 * fro);
        EXPECT_EQ(Ac[q].imag(), 0.0);
    }
    Modes real, viak;
    captured_cout([&] { calcmatrix(m.input(), 20, real.out()); });
    captured_cout([&] { calcmatrix_bloch(BlochProblem{m.input(), nb, lat, {0.0, 0.0, 0.0}}, 20, viak.out()); });
    ASSERT_EQ(viak.nmodes, real.nmodes);
    EXPECT_TRUE(viak.W == real.W && viak.R == real.R && viak.L == real.L);
    // The complex solve gives the same frequencies and decay rates.
    Modes c;
    solve_dense_bloch(m.N, Ac.data(), 20, c.out());
    ASSERT_EQ(c.nmodes, real.nmodes);
    for (int p = 1; p <= c.nmodes; ++p) {
        EXPECT_NEAR(c.W(p, 1), real.W(p, 1), 1e-9 * real.W(p, 1));
        EXPECT_NEAR(c.W(p, 2), real.W(p, 2), 1e-9 * real.W(p, 1));
    }
}

TEST(BlochDense, ZoneFoldingAgainstSupercells) {
    // One period (2 x 2 cells, two materials, cut-off dipolar field,
    // exchange, anisotropy) at k + 2 pi m / 4L, m = 0..3, against the
    // supercell of four periods at k (its own real path at k = 0).  Then
    // with DMI in both materials: every bond along x joins the two
    // materials, so the interface term's blocks, phased across the
    // boundary, must cancel the tensor's there.
    Periodic one = two_material_chain(1, true);
    Periodic four = two_material_chain(4, true);
    const double L = 2 * kD, kappa = 2 * kPi / (4 * L);
    for (const double k : {0.0, 0.3 * kappa, -1.0, 0.0, 0.3 * kappa}) {
        if (k < 0.0) {  // from here on with DMI
            add_two_dmis(one);
            add_two_dmis(four);
            ASSERT_FALSE(one.m.terms.dmi.empty());
            continue;
        }
        std::vector<double> folded;
        for (int s = 0; s < 4; ++s) {
            const Solved r = solve_at(one, k + s * kappa);
            ASSERT_EQ(r.modes.nmodes, one.m.N) << "stable: every eigenvalue pair gives one mode at +k";
            for (int p = 1; p <= r.modes.nmodes; ++p) {
                const cplx lambda(-r.modes.W(p, 2), r.modes.W(p, 1));
                EXPECT_LT(residual_of(r.A, vec(r.modes.R, one.m.N, p), lambda, false), 1e-12);
                EXPECT_LT(residual_of(r.A, vec(r.modes.L, one.m.N, p), lambda, true), 1e-12);
            }
            const auto f = freqs(r.modes);
            folded.insert(folded.end(), f.begin(), f.end());
        }
        std::sort(folded.begin(), folded.end());
        std::vector<double> super;
        if (k == 0.0) {
            Modes r;
            captured_cout([&] { calcmatrix_bloch(four.problem({0.0, 0.0, 0.0}), 100, r.out()); });
            super = freqs(r);
        } else {
            super = freqs(solve_at(four, k).modes);
        }
        ASSERT_EQ(super.size(), folded.size());
        for (std::size_t q = 0; q < super.size(); ++q) EXPECT_NEAR(super[q], folded[q], 1e-9 * folded[q]) << q;
        // The bands are distinct: the comparison is not one of a few
        // repeated values.
        EXPECT_GT(folded.back() - folded.front(), 1000.0);
    }
}

TEST(BlochDense, ExchangeStencilDispersion) {
    // Exchange and anisotropy only: one and three cells per period.  Every
    // mode is a plane wave of the discrete chain, f = H + Ha + (2A/MS) k_eff^2,
    // k_eff^2 = (4/d^2) sin^2(q d / 2), q = k + 2 pi m / L: the stencil, not k^2.
    const double A = 1.3e-6, Ms = 800.0, H0 = 1000.0, ani = 0.5;
    const double Ha = ani * Ms;
    for (const int cells : {1, 3}) {
        const Periodic p = periodic_chain(cells - 1, 0, {{A, Ms}}, [](int, int) { return 1; }, false, H0, ani);
        const double L = cells * kD;
        for (const double k : {0.7 * kPi / L, -0.25 * kPi / L}) {
            const auto f = freqs(solve_at(p, k).modes);
            std::vector<double> want;
            for (int s = 0; s < cells; ++s) {
                const double q = k + 2 * kPi * s / L, sn = std::sin(q * kD / 2);
                want.push_back(H0 + Ha + 2 * A / Ms * 4 / (kD * kD) * sn * sn);
            }
            std::sort(want.begin(), want.end());
            ASSERT_EQ(f.size(), want.size());
            for (std::size_t q = 0; q < f.size(); ++q) EXPECT_NEAR(f[q], want[q], 1e-10 * want[q]) << cells << " " << k;
        }
    }
}

TEST(BlochDense, ReciprocalChainAndSmallWavevector) {
    // One material on a chain periodic along x with the program's own
    // lattice sums: f(k) = f(-k) (a phase of the dipolar sum that did not
    // match the exchange's would break it), and a small k stays next to
    // k = 0.
    Own p(Lattice{Periodicity{1, 0, 0}, 1, 0, 0, kD, kD, kD});
    p.settle({0.0, 1.0, 0.0}, 8000.0);
    const auto at = [&](double k) { return p.freqs_at({k, 0.0, 0.0}, 4); };
    const double k = 0.4 * kPi / (2 * kD);
    const auto fp = at(k), fm = at(-k), f0 = at(0.0), fs = at(1.0);
    ASSERT_EQ(fp.size(), 2u);
    ASSERT_EQ(fm.size(), 2u);
    ASSERT_EQ(fs.size(), 2u);
    for (int q = 0; q < 2; ++q) {
        EXPECT_NEAR(fp[q], fm[q], 1e-10 * fp[q]);
        EXPECT_NEAR(fs[q], f0[q], 1e-6 * f0[q]);
        EXPECT_GT(std::abs(fp[q] - f0[q]), 1.0);
    }
}

TEST(BlochDense, InterfacialDmiShiftsWavesAcrossM) {
    // A Permalloy-like film one cell thick, periodic along x and y, saturated
    // along x, with interfacial DMI: waves along y (across M) are shifted by
    //   f(k) - f(-k) = 4 D k_s / MS (Oe),  k_s = sin(k d) / d
    // (J.-H. Moon et al., PRB 88, 184404 (2013), with the central difference
    // of the stencil), exactly in a one-cell film, whatever the dipolar
    // field and the applied field; waves along x (along M) are not.  D > 0
    // raises the waves that run along +y (z x M).
    const double dx = 2e-7, dy = 2e-7, dz = 1e-7, D = 1.0, Ms = 800.0;
    Own p(Lattice{Periodicity{1, 1, 0}, 0, 0, 0, dx, dy, dz});
    adddmi(p.m.AIJ, p.nb, p.m.MS, p.lat.p, 0, 0, 0, dx, dy, dz, kDmiInterfacial, D, 1);
    p.settle({1.0, 0.0, 0.0}, 1000.0);
    const auto at = [&](double kx, double ky) { return p.freqs_at({kx, ky, 0.0}, 2); };
    const double k = 4e5;  // rad/cm, k d = 0.08
    const auto fp = at(0.0, k), fm = at(0.0, -k), xp = at(k, 0.0), xm = at(-k, 0.0);
    ASSERT_EQ(fp.size(), 1u);
    ASSERT_EQ(fm.size(), 1u);
    const double want = 4.0 * D * std::sin(k * dy) / dy / Ms;
    EXPECT_NEAR(fp[0] - fm[0], want, 1e-6 * want);
    ASSERT_EQ(xp.size(), 1u);
    EXPECT_NEAR(xp[0], xm[0], 1e-10 * xp[0]);
}

TEST(BlochDense, ModeRunsAlongPlusKInTimeRun) {
    // The sign convention, against the time integration: a period of two
    // cells solved at k = 2 pi / 8d; the supercell of four periods (eight
    // cells, periodic, exchange and anisotropy) started from the deviation
    // a Re(u e^{ikx}) must after a quarter period show a Re(u e^{ikx} e^{-i pi/2}),
    // a wave that ran along +x by two cells, and not the wave that ran back.
    const double A = 1.3e-6, Ms = 800.0, H0 = 1000.0, ani = 0.5, a = 0.01;
    const auto one_mat = [](int, int) { return 1; };
    const Periodic one = periodic_chain(1, 0, {{A, Ms}}, one_mat, false, H0, ani);
    Periodic eight = periodic_chain(7, 0, {{A, Ms}}, one_mat, false, H0, ani);
    const double k = 2 * kPi / (8 * kD);
    const Solved s = solve_at(one, k);
    ASSERT_EQ(s.modes.nmodes, 2);
    const double f = s.modes.W(1, 1);
    // Cartesian deviation of cell x at phase phi.
    const auto deviation = [&](int x, double phi) {
        double R[9];
        const double m0[3] = {0.0, 0.0, 1.0};
        local_frame(m0, R);
        const int n = one.m.NUM(x % 2, 0, 0);
        const cplx ph = std::polar(1.0, k * x * kD + phi);
        std::array<double, 3> d{};
        for (int c = 0; c < 3; ++c)
            d[c] = a * std::real((R[c] * s.modes.R(n, 1, 1) + R[c + 3] * s.modes.R(n, 2, 1)) * ph);
        return d;
    };
    Model& m = eight.m;
    for (int x = 0; x <= 7; ++x) {
        const auto d = deviation(x, 0.0);
        const double v[3] = {d[0], d[1], 1.0 + d[2]};
        const double l = std::hypot(v[0], v[1], v[2]);
        for (int c = 1; c <= 3; ++c) m.M(x, 0, 0, c) = Ms * v[c - 1] / l;
    }
    const VecGrid happ = make_vec_grid(7, 0, 0, 0.0);
    VecGrid hinit = happ;
    for (int x = 0; x <= 7; ++x) hinit(x, 0, 0, 3) = H0;
    const CVecGrid hrf({Range{0, 7}, Range{0, 0}, Range{0, 0}, Range{1, 3}}, cplx{});
    const FourierTensor none;
    const double t = kPi / (2 * f);
    fm(m.M, m.MS, {0.0, 0.0, 0.0}, 0.0, m.MASQUE, m.AIJ, none, Drive{hinit, hrf}, m.H, 7, 0, 0, 1, kMethodDirect, t,
       t / 400, 1.0, "");
    double err_m = 0.0, err_p = 0.0, size = 0.0;
    for (int x = 0; x <= 7; ++x) {
        const auto dm = deviation(x, -kPi / 2), dp = deviation(x, kPi / 2);
        for (int c = 0; c < 3; ++c) {
            const double e = m.M(x, 0, 0, c + 1) / Ms - (c == 2 ? 1.0 : 0.0);
            err_m += (e - dm[c]) * (e - dm[c]);
            err_p += (e - dp[c]) * (e - dp[c]);
            size += dm[c] * dm[c];
        }
    }
    EXPECT_LT(std::sqrt(err_m / size), 0.02);
    EXPECT_GT(std::sqrt(err_p / size), 1.0);
}

TEST(BlochMatrixFree, ProductsAndModesMatchTheDenseMatrix) {
    // Two periods of the two-material chain (four cells along x, two
    // across, open along y), damped, with cells of multiplicity 2 and the
    // DMI of both kinds (interfacial on material 1, bulk on material 2) on
    // the tensor's images and in the neighbour record: antisymmetric blocks
    // whose images across the boundary take their phase, and the interface
    // term that takes them off the bonds between the materials, phased as
    // well.  The operator's
    // products and transposed products against the assembled matrix, the
    // local part's near entries against the matrix's, and the SLEPc solve
    // against the dense one.
    Periodic p = two_material_chain(2, true);
    adddmi(p.m.AIJ, p.nb, p.m.MS, p.lat.p, p.m.nx, p.m.ny, 0, kD, kD, kD, kDmiInterfacial, 2.0, 1);
    adddmi(p.m.AIJ, p.nb, p.m.MS, p.lat.p, p.m.nx, p.m.ny, 0, kD, kD, kD, kDmiBulk, -1.5, 2);
    p.m.terms.dmi = dmi_interfaces(p.nb, p.lat.p, 2);
    // m off every axis, so that no DMI block drops out of the linearisation.
    set_m(p.m, [](int, int, int) { return std::array<double, 3>{0.3, 0.8, 0.5}; });
    set_field(p.m, {0.3 * 15000.0, 0.8 * 15000.0, 0.5 * 15000.0});
    p.m.alpha = 0.01;
    set_numbering(p.m, 1, 2, 1);
    ASSERT_EQ(p.m.N, 4);
    const double k = 0.3 * kPi / (4 * kD);
    const BlochKernel K = bloch_kernel(p.m.AIJ, p.nb, cut_dipolar_k(p, k), p.lat, {k, 0.0, 0.0});
    const int n = 2 * p.m.N;
    std::vector<cplx> A(static_cast<std::size_t>(n) * n);
    assemble_dense_bloch(p.m.input(), K, wave_per_cell(p.lat, {k, 0.0, 0.0}), A.data());
    const BlochOperator op(p.m.input(), K, p.lat.p, wave_per_cell(p.lat, {k, 0.0, 0.0}));
    const auto err = product_errors(op, op, A, n);
    EXPECT_LT(err[0], 1e-12);
    EXPECT_LT(err[1], 1e-12);
    // The local part: the matrix's own entries between numbers one cell
    // apart (across the periodic boundary too), the far field only on the
    // diagonal blocks; numbers two cells apart along x are left out.
    const ComplexSparse L = op.local_part();
    double big = 0.0;
    for (const cplx& a : A) big = std::max(big, std::abs(a));
    std::int64_t off_diagonal = 0;
    for (int r = 0; r < n; ++r)
        for (std::int64_t q = L.row_start[r]; q < L.row_start[r + 1]; ++q)
            if (L.col[q] / 2 != r / 2) {
                ++off_diagonal;
                EXPECT_NEAR(std::abs(L.val[q] - A[r + L.col[q] * static_cast<std::size_t>(n)]), 0.0, 1e-12 * big);
            }
    // 4 numbers (the two cells across share one): each row sees its two
    // neighbours along x (one of them across the boundary), two columns each.
    EXPECT_EQ(off_diagonal, static_cast<std::int64_t>(n) * 2 * 2);

    Modes dense_modes, free_modes;
    std::vector<cplx> work = A;
    solve_dense_bloch(p.m.N, work.data(), 3, dense_modes.out());
    captured_cout([&] { solve_modes_bloch(p.problem({k, 0.0, 0.0}), K, 3, 0.0, 1e-11, free_modes.out()); });
    ASSERT_EQ(free_modes.nmodes, 3);
    for (int q = 1; q <= 3; ++q) {
        EXPECT_NEAR(free_modes.W(q, 1), dense_modes.W(q, 1), 1e-8 * dense_modes.W(q, 1));
        EXPECT_NEAR(free_modes.W(q, 2), dense_modes.W(q, 2), 1e-8 * dense_modes.W(q, 1));
        const cplx lambda(-free_modes.W(q, 2), free_modes.W(q, 1));
        EXPECT_LT(residual_of(A, vec(free_modes.R, p.m.N, q), lambda, false), 1e-10);
        EXPECT_LT(residual_of(A, vec(free_modes.L, p.m.N, q), lambda, true), 1e-10);
    }

    // The next k of a dispersion, its bases started from these modes: the
    // modes of the dense solve there.
    const double k2 = 1.1 * k;
    const BlochKernel K2 = bloch_kernel(p.m.AIJ, p.nb, cut_dipolar_k(p, k2), p.lat, {k2, 0.0, 0.0});
    assemble_dense_bloch(p.m.input(), K2, wave_per_cell(p.lat, {k2, 0.0, 0.0}), A.data());
    Modes dense2, started;
    solve_dense_bloch(p.m.N, A.data(), 3, dense2.out());
    const ModeStart start{mode_columns(free_modes.R, 3), mode_columns(free_modes.L, 3)};
    ASSERT_EQ(start.right.size(), 3u);
    captured_cout([&] { solve_modes_bloch(p.problem({k2, 0.0, 0.0}), K2, 3, 0.0, 1e-11, started.out(), &start); });
    ASSERT_EQ(started.nmodes, 3);
    for (int q = 1; q <= 3; ++q) {
        EXPECT_NEAR(started.W(q, 1), dense2.W(q, 1), 1e-8 * dense2.W(q, 1));
        EXPECT_NEAR(started.W(q, 2), dense2.W(q, 2), 1e-8 * dense2.W(q, 1));
    }
}

}  // namespace
}  // namespace torix::test
