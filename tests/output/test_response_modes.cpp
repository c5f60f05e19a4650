// Couplings and absorption of modes from the full chain: tensor, field,
// dynamic matrix, dense solve.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <sstream>

#include "eigen/eigen_model.hpp"
#include "geometry/local_to_cart.hpp"
#include "geometry/shapes.hpp"
#include "output/response.hpp"

using namespace torix;

namespace {

// A sphere of 5 cells across (5 nm cells, Ms = 800 emu/cm^3) saturated along
// z by H0 = 20 kOe, far above its demagnetizing field 4 pi Ms / 3, aligned
// with its field until it no longer moves; all its modes, decaying (alpha <
// 0 in the matrix's sense of precession).
struct SaturatedSphere : test::Model {
    static constexpr double kMs = 800.0, kH0 = 20000.0;
    int n = 4, ncells = 0;
    test::Modes modes;

    SaturatedSphere() {
        IntGrid ball = make_int_grid(n, n, n);
        calcsphere(ball, n, n, n, 2.0, 2.0, 2.0, 0.0, 0.0, 0.0, 2.0, 2.0, 2.0, 1, ncells);
        static_cast<test::Model&>(*this) =
            test::make_model(n, n, n, 5e-7, 5e-7, 5e-7, {{1.3e-6, kMs}}, [&](int i, int j, int k) { return ball(i, j, k); });
        set_m(*this, [](int, int, int) { return std::array<double, 3>{0.0, 0.0, 1.0}; });
        test::relax_model(*this, {0.0, 0.0, kH0}, 1.0, 0.0, 25);
        set_field(*this, {0.0, 0.0, kH0});
        set_numbering(*this);
        alpha = -0.01;
        calcmatrix(input(), 2 * N, modes.out());
    }

    Array<cplx, 1> couplings(const CVecGrid& h) const {
        Array<cplx, 1> C;
        calc_c(modes.nmodes, n, n, n, N, modes.R, modes.L, M, MASQUE, NUM, h, C);
        return C;
    }

    CVecGrid uniform(cplx hx, cplx hy, cplx hz) const {
        CVecGrid h = make_cvec_grid(n, n, n);
        for_cells(n, n, n, [&](int i, int j, int k) { h(i, j, k, 1) = hx, h(i, j, k, 2) = hy, h(i, j, k, 3) = hz; });
        return h;
    }
};

const SaturatedSphere& sphere() {
    static const SaturatedSphere s;
    return s;
}

int strongest(const Array<cplx, 1>& C, int nmodes) {
    int best = 1;
    for (int p = 2; p <= nmodes; ++p)
        if (std::abs(C(p)) > std::abs(C(best))) best = p;
    return best;
}

}  // namespace

TEST(SaturatedSphere, TransverseDriveCouplesMostToTheKittelMode) {
    const auto& s = sphere();
    ASSERT_EQ(s.ncells, s.N);
    ASSERT_GT(s.modes.nmodes, 3);
    const auto C = s.couplings(s.uniform(1.0, 0.0, 0.0));
    const int p = strongest(C, s.modes.nmodes);
    // Kittel: a sphere precesses uniformly at f = H0 (its demagnetizing
    // factors are equal); the sphere of cubic cells is close to that, within a
    // few per cent of its demagnetizing field scale 4 pi Ms.
    const double fourpims = 4.0 * std::numbers::pi * SaturatedSphere::kMs;
    EXPECT_NEAR(s.modes.W(p, 1), SaturatedSphere::kH0, 0.03 * fourpims);
    // A uniform circular precession of Nc cells couples like one spin of Nc
    // times the moment: kappa = i Ms Nc |h|^2 / 2 for h = x (hand-computed for
    // a single spin, summed over the cells).
    const double macro = SaturatedSphere::kMs * s.ncells / 2.0;
    EXPECT_NEAR(C(p).imag(), macro, 0.03 * macro);
    EXPECT_NEAR(C(p).real(), 0.0, 0.01 * macro);
    // All other modes are non-uniform and couple far less.
    for (int q = 1; q <= s.modes.nmodes; ++q)
        if (q != p) {
            EXPECT_LT(std::abs(C(q)), 0.05 * std::abs(C(p))) << "mode " << q;
        }
    // The same mode answers a drive along y, a quarter period out of phase.
    const auto Cy = s.couplings(s.uniform(0.0, 1.0, 0.0));
    EXPECT_EQ(strongest(Cy, s.modes.nmodes), p);
    EXPECT_NEAR(std::abs(Cy(p) - C(p)), 0.0, 0.01 * macro);
    // Circular drives: the drive x is half x + i y and half x - i y; the one
    // turning with the mode takes all of the coupling (4 kappa(x), |h|^2
    // being 2), the other none.  With dM/dt = -M x H about +z the deviation
    // turns counterclockwise, dm = Re(u e^{-ift}) with u = (1, i) (docs/modes.md).
    Array<cplx, 2> u;
    local_to_cart(s.n, s.n, s.n, s.N, s.MASQUE, s.NUM, s.M, s.modes.R, p, u);
    const int centre = s.NUM(2, 2, 2);
    EXPECT_NEAR(std::abs(u(centre, 2) / u(centre, 1) - cplx(0.0, 1.0)), 0.0, 0.05);
    const auto Cco = s.couplings(s.uniform(1.0, cplx(0.0, 1.0), 0.0));
    const auto Ccounter = s.couplings(s.uniform(1.0, cplx(0.0, -1.0), 0.0));
    EXPECT_NEAR(std::abs(Cco(p) - 4.0 * C(p)), 0.0, 0.03 * macro);
    EXPECT_LT(std::abs(Ccounter(p)), 0.03 * macro);
}

TEST(SaturatedSphere, DriveAlongTheMagnetizationCouplesToNothing) {
    const auto& s = sphere();
    const double macro = SaturatedSphere::kMs * s.ncells / 2.0;
    // Along z everywhere, and along each cell's own m (exactly parallel).
    const auto Cz = s.couplings(s.uniform(0.0, 0.0, cplx(1.0, 0.5)));
    CVecGrid h = make_cvec_grid(s.n, s.n, s.n);
    for (int c = 1; c <= 3; ++c)
        for_cells(s.n, s.n, s.n,
                  [&](int i, int j, int k) { h(i, j, k, c) = cplx(0.3, -1.0) * s.M(i, j, k, c) / s.kMs; });
    const auto Cm = s.couplings(h);
    for (int q = 1; q <= s.modes.nmodes; ++q) {
        EXPECT_LT(std::abs(Cz(q)), 1e-3 * macro) << "mode " << q;
        EXPECT_LT(std::abs(Cm(q)), 1e-12 * macro) << "mode " << q;
    }
}

TEST(SaturatedSphere, AbsorptionPeaksAtTheKittelFrequency) {
    const auto& s = sphere();
    const auto C = s.couplings(s.uniform(1.0, 0.0, 0.0));
    const int p = strongest(C, s.modes.nmodes);
    const double f = s.modes.W(p, 1), g = s.modes.W(p, 2);
    // Decaying mode, line width close to alpha f for the uniform mode.
    EXPECT_GT(g, 0.0);
    EXPECT_NEAR(g, 0.01 * f, 0.2 * 0.01 * f);
    const double dw = f / 400.0;
    const auto t = absorption_table(C, s.modes.W, s.modes.nmodes, dw);
    std::size_t peak = 0;
    for (std::size_t i = 0; i < t.size(); ++i)
        if (t[i].power > t[peak].power) peak = i;
    EXPECT_NEAR(t[peak].w, f, 1.5 * dw);
    EXPECT_EQ(t[peak].nearest, p);
    // Positive at resonance, the line's half-width g: half height at f +- g.
    EXPECT_GT(t[peak].power, 0.0);
    const double top = absorption(f, C, s.modes.W, s.modes.nmodes, 0.0);
    EXPECT_NEAR(absorption(f + g, C, s.modes.W, s.modes.nmodes, 0.0) / top, 0.5, 0.05);
}
