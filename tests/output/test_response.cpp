#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <string>

#include "core/error.hpp"
#include "geometry/local_to_cart.hpp"
#include "output/response.hpp"
#include "test_util.hpp"

using namespace torix;

namespace {

constexpr double kMs = 800.0;

// A ModeSet of `nmodes` modes over N numbered cells, zero-filled.
struct Modes {
    Array<cplx, 3> R, L;
    Array<double, 2> W;
    Modes(int N, int nmodes)
        : R({Range{1, N}, Range{1, 2}, Range{1, nmodes}}, cplx{}),
          L({Range{1, N}, Range{1, 2}, Range{1, nmodes}}, cplx{}),
          W({Range{1, nmodes}, Range{1, 2}}, 0.0) {}
};

// Row of cells 0..nx along x, all magnetic, numbered 1..nx+1, with m = Ms z.
struct Row {
    int nx;
    IntGrid mask, num;
    VecGrid M;
    CVecGrid h;
    explicit Row(int n) : nx(n), mask(make_int_grid(n, 0, 0, 1)), num(make_int_grid(n, 0, 0)), M(make_vec_grid(n, 0, 0)),
                          h(make_cvec_grid(n, 0, 0)) {
        for (int i = 0; i <= nx; ++i) num(i, 0, 0) = i + 1, M(i, 0, 0, 3) = kMs;
    }
    void drive(cplx hx, cplx hy, cplx hz) {
        for (int i = 0; i <= nx; ++i) h(i, 0, 0, 1) = hx, h(i, 0, 0, 2) = hy, h(i, 0, 0, 3) = hz;
    }
};

const cplx I{0.0, 1.0};

// Cartesian vector of one cell with magnetization m and local amplitudes
// (polar, azimuthal).
std::array<cplx, 3> cart(double mx, double my, double mz, cplx polar, cplx azimuthal) {
    IntGrid mask = make_int_grid(0, 0, 0, 1), num = make_int_grid(0, 0, 0, 1);
    VecGrid M = make_vec_grid(0, 0, 0);
    M(0, 0, 0, 1) = mx;
    M(0, 0, 0, 2) = my;
    M(0, 0, 0, 3) = mz;
    Array<cplx, 3> a({Range{1, 1}, Range{1, 2}, Range{1, 1}});
    a(1, 1, 1) = polar;
    a(1, 2, 1) = azimuthal;
    Array<cplx, 2> out;
    local_to_cart(0, 0, 0, 1, mask, num, M, a, 1, out);
    return {out(1, 1), out(1, 2), out(1, 3)};
}

}  // namespace

// The frame itself (its poles, orthonormal, right-handed) is checked with
// the dynamic matrix; here: which column carries which amplitude.
TEST(LocalToCart, FrameColumnsOnTheEquatorAndTransverseAmplitudes) {
    using V = std::array<cplx, 3>;
    // +y: theta = phi = 90 deg; polar = -z, azimuthal = -x.
    const V py = cart(0, 3, 0, 1.0, 0.0), ay = cart(0, 3, 0, 0.0, 1.0);
    EXPECT_NEAR(std::abs(py[2] + 1.0) + std::abs(py[0]) + std::abs(py[1]), 0.0, 1e-15);
    EXPECT_NEAR(std::abs(ay[0] + 1.0) + std::abs(ay[1]) + std::abs(ay[2]), 0.0, 1e-15);
    // Any direction: the amplitudes stay transverse to m and keep their length.
    const double ms[][3] = {{1, 2, 3}, {-0.3, 0.1, -0.9}, {5, -1, 0}, {0.2, 0.2, -0.01}};
    for (const auto& m : ms) {
        const cplx a1(0.7, -0.2), a2(-0.4, 1.1);
        const auto v = cart(m[0], m[1], m[2], a1, a2);
        EXPECT_NEAR(std::abs(v[0] * m[0] + v[1] * m[1] + v[2] * m[2]), 0.0, 1e-14);
        EXPECT_NEAR(std::norm(v[0]) + std::norm(v[1]) + std::norm(v[2]), std::norm(a1) + std::norm(a2), 1e-14);
    }
}

TEST(LocalToCart, SharedNumberAveragesItsCells) {
    // Two cells with number 1: m along +x and along +y; a third with number 2.
    IntGrid mask = make_int_grid(2, 0, 0, 1), num = make_int_grid(2, 0, 0);
    VecGrid M = make_vec_grid(2, 0, 0);
    num(0, 0, 0) = 1;
    num(1, 0, 0) = 1;
    num(2, 0, 0) = 2;
    M(0, 0, 0, 1) = 1.0;  // frame: polar -z, azimuthal +y
    M(1, 0, 0, 2) = 1.0;  // frame: polar -z, azimuthal -x
    M(2, 0, 0, 3) = 1.0;  // identity
    Array<cplx, 3> a({Range{1, 2}, Range{1, 2}, Range{1, 1}}, cplx{});
    a(1, 1, 1) = 2.0;  // polar
    a(1, 2, 1) = I;    // azimuthal
    a(2, 1, 1) = 1.0;
    a(2, 2, 1) = -I;
    Array<cplx, 2> out;
    local_to_cart(2, 0, 0, 2, mask, num, M, a, 1, out);
    // cell 0: (0, i, -2); cell 1: (-i, 0, -2); mean (-i/2, i/2, -2)
    EXPECT_NEAR(std::abs(out(1, 1) - (-0.5 * I)), 0.0, 1e-15);
    EXPECT_NEAR(std::abs(out(1, 2) - 0.5 * I), 0.0, 1e-15);
    EXPECT_NEAR(std::abs(out(1, 3) - cplx{-2.0}), 0.0, 1e-15);
    EXPECT_EQ(out(2, 1), cplx{1.0});
    EXPECT_EQ(out(2, 2), -I);
    EXPECT_EQ(out(2, 3), cplx{});
}

TEST(LoadHrf, ReadsTheWrittenLayoutAndLaterEntriesWin) {
    TempDir dir;
    // Fixed-width layout: count in nine characters, then per entry three
    // six-character integers and six twenty-character reals on one line.
    dir.write("h.txt",
              "        3\n"
              "     1     0     2         1.00000E+00        -2.50000E-01         0.00000E+00"
              "         3.00000E+00        -4.00000E+00         5.00000E-01\n"
              "     0     1     0         7.00000E+00         0.00000E+00         0.00000E+00"
              "         0.00000E+00         0.00000E+00         0.00000E+00\n"
              "     1     0     2         2.00000E+00         0.00000E+00         0.00000E+00"
              "         0.00000E+00         0.00000E+00         1.00000E+00\n");
    CVecGrid h;
    loadhrft(1, 1, 2, (dir / "h.txt").string(), h);
    EXPECT_EQ(h(1, 0, 2, 1), cplx(2.0, 0.0));
    EXPECT_EQ(h(1, 0, 2, 3), cplx(0.0, 1.0));
    EXPECT_EQ(h(0, 1, 0, 1), cplx(7.0, 0.0));
    int nonzero = 0;
    for (const cplx& v : h) nonzero += v != cplx{};
    EXPECT_EQ(nonzero, 3);

    // Writer and reader agree.
    CVecGrid g = make_cvec_grid(2, 1, 0);
    g(2, 1, 0, 2) = {1.5e-3, -2.25};
    g(0, 0, 0, 3) = {-7.0, 0.125};
    savehrft(2, 1, 0, (dir / "g.txt").string(), g);
    CVecGrid back;
    loadhrft(2, 1, 0, (dir / "g.txt").string(), back);
    EXPECT_TRUE(back == g);
    EXPECT_EQ(dir.read("g.txt").substr(0, 10), "        2\n");
}

TEST(LoadHrf, BadEntriesNameFileAndLine) {
    TempDir dir;
    const std::string f = (dir / "bad.txt").string();
    dir.write("bad.txt", "2\n0 0 0 1 0 0 0 0 0\n0 3 0 1 0 0 0 0 0\n");
    CVecGrid h;
    const std::string e = fatal_message([&] { loadhrft(1, 1, 1, f, h); });
    EXPECT_NE(e.find(f + ":3:"), std::string::npos) << e;
    EXPECT_TRUE(holds(e, {"outside the grid"}));
    dir.write("bad.txt", "2\n0 0 0 1 0 0 0 0 0\n");
    EXPECT_THROW(loadhrft(1, 1, 1, f, h), FatalError);  // fewer entries than announced
    dir.write("bad.txt", "1\n0 0 0 1 0 x 0 0 0\n");
    EXPECT_THROW(loadhrft(1, 1, 1, f, h), FatalError);
    EXPECT_THROW(loadhrft(1, 1, 1, (dir / "missing.txt").string(), h), FatalError);
}

TEST(CalcC, SingleSpinCircularModeHasTheHandComputedCoupling) {
    // One cell, m = Ms z, mode (1, i)/sqrt2 in (polar, azimuthal) = (x, y),
    // left vector equal.  Drive h = x:  R = (1, i, 0)/sqrt2, s = 1,
    // S2 = conj(h).R = 1/sqrt2, q = m x h = Ms y, S1 = -q.conj(L) = i Ms/sqrt2,
    // kappa = i Ms / 2.
    Row row(0);
    Modes md(1, 1);
    md.R(1, 1, 1) = md.L(1, 1, 1) = 1.0 / std::sqrt(2.0);
    md.R(1, 2, 1) = md.L(1, 2, 1) = I / std::sqrt(2.0);
    row.drive(1.0, 0.0, 0.0);
    Array<cplx, 1> C;
    calc_c(1, 0, 0, 0, 1, md.R, md.L, row.M, row.mask, row.num, row.h, C);
    EXPECT_NEAR(std::abs(C(1) - 0.5 * kMs * I), 0.0, 1e-12);

    // Independent of how the solver scaled the two vectors.
    md.R(1, 1, 1) *= cplx(3.0, -1.0);
    md.R(1, 2, 1) *= cplx(3.0, -1.0);
    md.L(1, 1, 1) *= cplx(-0.2, 0.7);
    md.L(1, 2, 1) *= cplx(-0.2, 0.7);
    calc_c(1, 0, 0, 0, 1, md.R, md.L, row.M, row.mask, row.num, row.h, C);
    EXPECT_NEAR(std::abs(C(1) - 0.5 * kMs * I), 0.0, 1e-10);

    // The opposite circular drive x - i y does not couple to this mode.
    row.drive(1.0, -I, 0.0);
    calc_c(1, 0, 0, 0, 1, md.R, md.L, row.M, row.mask, row.num, row.h, C);
    EXPECT_NEAR(std::abs(C(1)), 0.0, 1e-12);
    // The co-rotating drive x + i y, under any overall phase e^{ia}, carries
    // it all: S2 = conj(h).R = sqrt2 e^{-ia}, q = Ms e^{ia} (-i, 1, 0),
    // S1 = sqrt2 i Ms e^{ia}, kappa = 2 i Ms: four times the drive x, whose
    // co-rotating half (x + i y)/2 alone couples.
    const cplx phase = std::polar(1.0, 0.7);
    row.drive(phase, phase * I, 0.0);
    calc_c(1, 0, 0, 0, 1, md.R, md.L, row.M, row.mask, row.num, row.h, C);
    EXPECT_NEAR(std::abs(C(1) - 2.0 * kMs * I), 0.0, 1e-10);
}

TEST(CalcC, UniformDriveCouplesOnlyToTheInPhaseMode) {
    // Two cells; mode 1 precesses in phase, mode 2 in antiphase.  A uniform
    // drive has no overlap with the antiphase mode (symmetry), and the in-phase
    // mode over two cells couples like one spin with twice the moment on
    // each side: kappa = 2 * (i Ms / 2) = i Ms.
    Row row(1);
    Modes md(2, 2);
    const double a = 0.5;
    for (int n = 1; n <= 2; ++n) {
        const double sgn = n == 1 ? 1.0 : -1.0;
        md.R(n, 1, 1) = md.L(n, 1, 1) = a;
        md.R(n, 2, 1) = md.L(n, 2, 1) = a * I;
        md.R(n, 1, 2) = md.L(n, 1, 2) = sgn * a;
        md.R(n, 2, 2) = md.L(n, 2, 2) = sgn * a * I;
    }
    row.drive(1.0, 0.0, 0.0);
    Array<cplx, 1> C;
    calc_c(2, 1, 0, 0, 2, md.R, md.L, row.M, row.mask, row.num, row.h, C);
    EXPECT_NEAR(std::abs(C(1) - kMs * I), 0.0, 1e-12);
    EXPECT_NEAR(std::abs(C(2)), 0.0, 1e-12);
}

TEST(CalcC, OrthogonalRightAndLeftVectorsGiveNotANumber) {
    Row row(0);
    Modes md(1, 1);
    md.R(1, 1, 1) = 1.0;
    md.L(1, 2, 1) = 1.0;
    row.drive(1.0, 0.0, 0.0);
    Array<cplx, 1> C;
    calc_c(1, 0, 0, 0, 1, md.R, md.L, row.M, row.mask, row.num, row.h, C);
    EXPECT_TRUE(std::isnan(C(1).real()) || std::isnan(C(1).imag()));
}

TEST(Absorption, LorentzianOfEachModeAndTheTable) {
    Array<cplx, 1> C({Range{1, 2}});
    Array<double, 2> W({Range{1, 2}, Range{1, 2}});
    C(1) = cplx(0.0, 4.0);
    W(1, 1) = 100.0;
    W(1, 2) = 2.0;
    C(2) = cplx(1.0, 1.0);
    W(2, 1) = 300.0;
    W(2, 2) = 5.0;
    // By hand at w = 100: mode 1 gives Im[4i / 2] = 2; mode 2 gives
    // Im[(1+i)/(5 - 200i)] = Im[(1+i)(5+200i)] / (25 + 40000) = 205/40025.
    const double w = 100.0;
    const double extra = 205.0 / 40025.0;
    EXPECT_NEAR(absorption(w, C, W, 2, 0.0), 0.5 * w * (2.0 + extra), 1e-12);
    EXPECT_EQ(absorption(0.0, C, W, 2, 0.0), 0.0);
    // A line narrower than the floor gets the floor as width.
    W(1, 2) = 0.0;
    EXPECT_NEAR(absorption(w, C, W, 1, 4.0), 0.5 * w * 1.0, 1e-12);
    W(1, 2) = 2.0;

    const auto t = absorption_table(C, W, 2, 1.0);
    ASSERT_EQ(t.size(), 601u);  // 0, 1, ..., 600 = 2 * max f
    EXPECT_EQ(t[0].w, 0.0);
    EXPECT_EQ(t[600].w, 600.0);
    EXPECT_EQ(t[150].nearest, 1);
    EXPECT_EQ(t[250].nearest, 2);
    std::size_t peak = 0;
    for (std::size_t i = 0; i < t.size(); ++i) {
        EXPECT_NEAR(t[i].power, absorption(t[i].w, C, W, 2, 1.0), 1e-12);
        if (t[i].power > t[peak].power) peak = i;
    }
    EXPECT_EQ(peak, 100u);
    EXPECT_THROW(absorption_table(C, W, 2, 0.0), FatalError);

    const auto e = absorption_table(C, W, 0, 1.0);
    ASSERT_EQ(e.size(), 1u);
    EXPECT_EQ(e[0].nearest, 0);
}
