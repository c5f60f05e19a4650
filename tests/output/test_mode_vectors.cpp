#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <numbers>
#include <random>

#include "output/mode_drawings.hpp"
#include "output/mode_tables.hpp"
#include "output/mode_vectors.hpp"
#include "output/number_text.hpp"
#include "test_util.hpp"

using namespace torix;

namespace {

const cplx I{0.0, 1.0};
constexpr double kPi = std::numbers::pi;

double dist(cplx a, cplx b) { return std::abs(a - b); }

// A grid with every cell magnetic and numbered 1.. in storage order, m along
// +z, and one mode of zero amplitudes.
struct Grid {
    int nx, ny, nz, N;
    IntGrid mask, num;
    VecGrid M;
    Array<cplx, 3> modes;
    Grid(int x, int y, int z)
        : nx(x), ny(y), nz(z), N((x + 1) * (y + 1) * (z + 1)), mask(make_int_grid(x, y, z, 1)),
          num(make_int_grid(x, y, z)), M(make_vec_grid(x, y, z)),
          modes({Range{1, N}, Range{1, 2}, Range{1, 1}}, cplx{}) {
        int n = 0;
        for_cells(nx, ny, nz, [&](int i, int j, int k) {
            num(i, j, k) = ++n;
            M(i, j, k, 3) = 800.0;
        });
    }
    void set(int i, int j, int k, cplx v1, cplx v2) {
        modes(num(i, j, k), 1, 1) = v1;
        modes(num(i, j, k), 2, 1) = v2;
    }
    CVecGrid u() const {
        CVecGrid out;
        mode_vector(nx, ny, nz, N, mask, num, M, modes, 1, out);
        return out;
    }
};

}  // namespace

// Frames worked by hand: m along +x has polar -z and azimuthal +y, m along +y
// polar -z and azimuthal -x; a number shared by both keeps each cell's own
// direction, unlike the per-number average.
TEST(ModeVector, EachCellUsesItsOwnFrameAndEmptyCellsAreZero) {
    Grid g(2, 0, 0);
    g.num(1, 0, 0) = 1;  // cells 0 and 1 share number 1
    g.M(0, 0, 0, 1) = 800.0, g.M(0, 0, 0, 3) = 0.0;
    g.M(1, 0, 0, 2) = 800.0, g.M(1, 0, 0, 3) = 0.0;
    g.set(0, 0, 0, 2.0, I);
    g.mask(2, 0, 0) = 0;
    g.set(2, 0, 0, 5.0, 5.0);  // amplitudes of an empty cell never show
    const CVecGrid u = g.u();
    EXPECT_LT(dist(u(0, 0, 0, 1), 0.0) + dist(u(0, 0, 0, 2), I) + dist(u(0, 0, 0, 3), -2.0), 1e-15);
    EXPECT_LT(dist(u(1, 0, 0, 1), -I) + dist(u(1, 0, 0, 2), 0.0) + dist(u(1, 0, 0, 3), -2.0), 1e-15);
    for (int c = 1; c <= 3; ++c) EXPECT_EQ(u(2, 0, 0, c), cplx{});
    EXPECT_NEAR(amplitude(u, 0, 0, 0), std::sqrt(5.0), 1e-15);
    // The projection on the frame gives the stored amplitudes back.
    const auto v = local_components(u, g.M, 1, 0, 0);
    EXPECT_LT(dist(v[0], 2.0) + dist(v[1], I), 1e-15);
}

// The reference is the largest amplitude; among equal ones the first with x
// outermost, so (0, 1, 0) precedes (1, 0, 0) although it lies later in
// storage.  The larger local component there becomes real and positive.
TEST(ModeVector, PhaseReferenceLargestCellFirstInGridOrder) {
    Grid g(1, 1, 0);
    g.set(0, 0, 0, 0.1, 0.2);
    g.set(1, 0, 0, 0.3 * I, -0.4);  // amplitude 0.5
    g.set(0, 1, 0, 0.4 * I, 0.3);   // amplitude 0.5
    g.set(1, 1, 0, 0.1, 0.0);
    CVecGrid u = g.u();
    const PhaseRef r = find_phase(u, g.M, g.mask, g.nx, g.ny, g.nz);
    EXPECT_EQ(r.i, 0);
    EXPECT_EQ(r.j, 1);
    EXPECT_EQ(r.k, 0);
    EXPECT_NEAR(r.amax, 0.5, 1e-15);
    EXPECT_EQ(r.component, 1);
    EXPECT_LT(dist(r.factor, -I), 1e-15);  // -i (0.4 i) = 0.4
    normalise_mode(u, r);
    const auto v = local_components(u, g.M, 0, 1, 0);
    EXPECT_LT(dist(v[0], 0.8), 1e-15);
    EXPECT_LT(dist(v[1], -0.6 * I), 1e-15);
    EXPECT_NEAR(amplitude(u, 1, 0, 0), 1.0, 1e-15);
    // Phases relative to the reference: cell (1, 0, 0) had 0.3 i -> 0.3.
    EXPECT_NEAR(phase_of(local_components(u, g.M, 1, 0, 0)[0]), 0.0, 1e-15);
    EXPECT_NEAR(phase_of(local_components(u, g.M, 1, 0, 0)[1]), kPi / 2.0, 1e-15);

    // Component 2 wins when it is larger: -0.5 becomes +0.5 with factor -1.
    Grid h(0, 0, 0);
    h.set(0, 0, 0, 0.3 * I, -0.5);
    const PhaseRef s = find_phase(h.u(), h.M, h.mask, 0, 0, 0);
    EXPECT_EQ(s.component, 2);
    EXPECT_LT(dist(s.factor, -1.0), 1e-15);

    // A zero mode: the first magnetic cell, factor 1.
    Grid z(1, 0, 0);
    z.mask(0, 0, 0) = 0;
    const PhaseRef t = find_phase(z.u(), z.M, z.mask, 1, 0, 0);
    EXPECT_EQ(t.i, 1);
    EXPECT_EQ(t.amax, 0.0);
    EXPECT_EQ(t.factor, cplx{1.0});
}

TEST(ModeVector, ParticipationRatioOfUniformLocalisedAndTwoLevelModes) {
    Grid g(3, 2, 1);  // 24 cells
    for_cells(3, 2, 1, [&](int i, int j, int k) { g.set(i, j, k, 0.3 * std::exp(I * double(i + j)), 0.0); });
    EXPECT_NEAR(participation_ratio(g.u(), g.mask, 3, 2, 1), 1.0, 1e-14);
    for_cells(3, 2, 1, [&](int i, int j, int k) { g.set(i, j, k, 0.0, 0.0); });
    g.set(2, 1, 1, 0.0, I);
    EXPECT_NEAR(participation_ratio(g.u(), g.mask, 3, 2, 1), 1.0 / 24.0, 1e-15);
    // Half the cells at amplitude 1, half at 2: (12 + 48)^2 / (24 (12 + 192)).
    for_cells(3, 2, 1, [&](int i, int j, int k) { g.set(i, j, k, k == 0 ? 1.0 : 2.0, 0.0); });
    EXPECT_NEAR(participation_ratio(g.u(), g.mask, 3, 2, 1), 3600.0 / (24.0 * 204.0), 1e-14);
    // Empty cells do not count.
    for_cells(3, 2, 1, [&](int i, int j, int k) { g.mask(i, j, k) = k == 0 ? 1 : 0; });
    EXPECT_NEAR(participation_ratio(g.u(), g.mask, 3, 2, 1), 1.0, 1e-14);
}

TEST(ModeVector, PhasesLieInTheHalfOpenInterval) {
    EXPECT_EQ(phase_of(cplx{-1.0, -0.0}), kPi);
    EXPECT_EQ(phase_of(cplx{-1.0, 0.0}), kPi);
    EXPECT_FALSE(std::signbit(phase_of(cplx{1.0, -0.0})));
    EXPECT_EQ(phase_of(cplx{}), 0.0);
    EXPECT_NEAR(phase_of(std::exp(I * 3.0)), 3.0, 1e-15);
    EXPECT_NEAR(phase_of(std::exp(I * 4.0)), 4.0 - 2.0 * kPi, 1e-15);
}


// Projections average u over the magnetic cells of each column; the top
// view keeps one panel per layer.  Grid 2 x 1 x 2, m along +z, v2 = 0:
// column (0, 0) holds v1 = 1 (k = 0) and 0.5 i (k = 1); cell (1, 0, 1) is
// empty, so column (1, 0) is cell (1, 0, 0) alone with v1 = -0.5.
TEST(ModeDrawing, ProjectionAveragesColumnsAndTopViewKeepsLayers) {
    Grid g(1, 0, 1);
    g.set(0, 0, 0, 1.0, 0.0);
    g.set(0, 0, 1, 0.5 * I, 0.0);
    g.set(1, 0, 0, -0.5, 0.0);
    g.mask(1, 0, 1) = 0;
    Array<double, 2> W({Range{1, 1}, Range{1, 2}}, 0.0);
    W(1, 1) = 100.0;
    const ModeInput in{1, 0, 1, g.N, 1, 5e-7, 5e-7, 5e-7, 1.0, g.mask, g.num, g.M, W, g.modes, g.modes};
    const ModePicture z = drawmode_proj(in, 1, 3);
    ASSERT_EQ(z.panels.size(), 1u);
    const ModePanel& P = z.panels[0];
    EXPECT_EQ(P.nh, 2);
    EXPECT_EQ(P.nv, 1);
    EXPECT_LT(dist(P.uh[0], (1.0 + 0.5 * I) / 2.0), 1e-15);  // reference (0,0,0): factor 1, amax 1
    EXPECT_LT(dist(P.uh[1], -0.5), 1e-15);
    EXPECT_EQ(P.uv[0], cplx{});
    EXPECT_NEAR(P.phase[1], kPi, 1e-15);
    EXPECT_EQ(z.component, 1);
    // Along x: y right (1 sample), z up (2 samples); sample k averages i = 0, 1.
    const ModePicture x = drawmode_proj(in, 1, 1);
    EXPECT_EQ(x.panels[0].nh, 1);
    EXPECT_EQ(x.panels[0].nv, 2);
    EXPECT_LT(dist(x.panels[0].amp[0], 0.25), 1e-15);  // (1 - 0.5) / 2
    EXPECT_LT(dist(x.panels[0].amp[1], 0.5), 1e-15);   // 0.5 i alone
    EXPECT_EQ(x.panels[0].uh[0], cplx{});              // y components: none
    const ModePicture top = drawmode(in, 1);
    ASSERT_EQ(top.panels.size(), 2u);
    EXPECT_EQ(top.panels[1].present[1], 0);
    EXPECT_NEAR(top.panels[1].amp[0], 0.5, 1e-15);
    EXPECT_NEAR(top.panels[1].phase[0], kPi / 2.0, 1e-15);
    EXPECT_EQ(drawing_name(7), "mode007");
    EXPECT_EQ(drawing_name(1234, 2), "mode1234_y");
}

TEST(ModeTables, WindingNumberCountsTurnsBothWays) {
    std::vector<double> ph;
    for (int s = 0; s < 36; ++s) ph.push_back(phase_of(std::exp(I * (-4.0 * 2.0 * kPi * s / 36.0))));
    EXPECT_EQ(winding_number(ph), -4);
    for (double& p : ph) p = -p;
    EXPECT_EQ(winding_number(ph), 4);
    EXPECT_EQ(winding_number(std::vector<double>(10, 1.0)), 0);
}

// The fast number text against printf, its reference: the same characters
// for ordinary values, rounding ties, tiny and huge exponents; -0 as 0.
TEST(NumberText, MatchesPrintf) {
    std::mt19937_64 g(3);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<double> v{0.0, 1.0, -1.0, 0.5, 2.5e-7, 1.000000005, 0.0005, 0.0015, 123456.5, 9.999999999, -7.0625,
                          1e-300, 3e300, 799.9999999999999};
    for (int n = 0; n < 2000; ++n) v.push_back(u(g) * std::pow(10.0, static_cast<int>(40 * u(g))));
    char buf[400];
    for (double x : v) {
        std::string s;
        append_sci(s, x, 16, 8);
        std::snprintf(buf, sizeof buf, "%16.8E", x);
        EXPECT_EQ(s, buf) << x;
        s.clear();
        append_fixed(s, x, 3);
        std::snprintf(buf, sizeof buf, "%.3f", x);
        if (std::string(buf) == "-0.000") std::snprintf(buf, sizeof buf, "0.000");
        EXPECT_EQ(s, buf) << x;
    }
    std::string s;
    append_sci(s, -0.0, 16, 8);
    append_fixed(s, -0.0004, 3);
    append_int(s, -42, 5);
    EXPECT_EQ(s, "  0.00000000E+000.000  -42");
}
