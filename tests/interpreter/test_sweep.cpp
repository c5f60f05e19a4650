// Field sweeps run in-process, checked against formulas derived without the
// program: Kittel's frequency with the cell's demagnetizing factors from
// Aharoni's closed form, the Lorentzian width of the field-swept absorption,
// uncoupled branches that cross, and the two branches of a hysteresis loop.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <sstream>

#include "output/sweep_files.hpp"
#include "test_util.hpp"

using namespace torix;

namespace {

constexpr double kPi = std::numbers::pi;

// The "# k s_res fwhm P" lines at the end of an absorption file.
std::vector<std::array<double, 2>> resonances(const std::string& text) {
    std::vector<std::array<double, 2>> out;
    std::istringstream in(text);
    bool list = false;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("# resonance s_res", 0) == 0) {
            list = true;
            continue;
        }
        if (!list) continue;
        std::istringstream ls(line.substr(1));
        int k = 0;
        double s = 0, w = 0;
        ls >> k >> s >> w;
        out.push_back({s, w});
    }
    return out;
}

// One cell dx x dy x dz (cm) of MS = 800 magnetized along x.
std::string one_cell(double dx, double dy, double dz) {
    std::ostringstream s;
    s << "SET_CELL\n" << dx << " " << dy << " " << dz << "\nMASQUE_CREATE\n" << dx << " " << dy << " " << dz
      << "\nLOAD_MAT\n1\n1.3e-6 800\nADD_SHAPE\n3\n" << dx << " " << dy << " " << dz
      << " 0 0 0 1\nTENSOR_CREATE\n0\nINIT_M\n2\n1 0 0\n";
    return s.str();
}

double kittel(double H, double Nx, double Ny, double Nz, double Ms) {
    return std::sqrt((H + 4 * kPi * Ms * (Ny - Nx)) * (H + 4 * kPi * Ms * (Nz - Nx)));
}

}  // namespace

// One cell of 5 x 4 x 3 nm, undamped, swept from 500 to 3000 Oe along x:
// Kittel's frequency with the cell's own demagnetizing factors at each
// step, in GHz at the default ratio, and no absorption without a frequency.
// Then damped and driven, with the ratio of SET_GYRO, from 2000 to 5000 Oe
// at 12 GHz: a Lorentzian in the frequency whose centre moves with the
// field is a Lorentzian in the field of full width 2 g / (df/dH).
TEST(SweepField, OneCellFollowsKittelAndItsAbsorptionIsALorentzianInTheField) {
    TempDir d;
    ModelState st;
    const double dx = 5e-7, dy = 4e-7, dz = 3e-7;
    const double gyro = 1.76e7, f0 = 12.0;  // GHz
    run_in(d, st,
           one_cell(dx, dy, dz) + "ADD_EXT_FIELD\n1\n100 0 0\nRELAX\n1 1e-12 0.1\nSWEEP_FIELD\n500 0 0 3000 0 0 5\n"
                                  "1 1 0\nkittel\nSET_GYRO\n1.76e7\nSET_BETA\n0.001\nSET_HRF\n2\n0 1 0\n"
                                  "SWEEP_FIELD\n2000 0 0 5000 0 0 60\n1 1 12\nk\nEND\n");
    const double Nx = aharoni_nz(dy, dz, dx), Ny = aharoni_nz(dx, dz, dy), Nz = aharoni_nz(dx, dy, dz);
    const auto tk = number_rows(d.read("kittel"));
    ASSERT_EQ(tk.size(), 6u);
    for (std::size_t k = 0; k < tk.size(); ++k) {
        const double H = 500.0 + 500.0 * static_cast<double>(k);
        ASSERT_EQ(tk[k].size(), 9u);
        EXPECT_DOUBLE_EQ(tk[k][1], H);
        EXPECT_DOUBLE_EQ(tk[k][4], H);  // the sweep coordinate
        const double f = kittel(H, Nx, Ny, Nz, 800.0);
        EXPECT_NEAR(tk[k][5], f, 1e-8 * f) << "step " << k;
        EXPECT_NEAR(tk[k][7], tk[k][5] * 2.8e-3, 1e-9 * tk[k][7]);  // GHz at 2.8 MHz/Oe without SET_GYRO
    }
    EXPECT_FALSE(d.exists("kittel_fmr.txt"));
    // The state ends at the last H2: the applied field replaced, not added to.
    EXPECT_DOUBLE_EQ(st.HINIT(0, 0, 0, 1), 5000.0);
    ASSERT_EQ(st.nmodes, 1);
    const double w0 = f0 * 2e9 * kPi / gyro;
    // The resonance field from Kittel's formula, by bisection.
    double lo = 2000, hi = 5000;
    for (int i = 0; i < 200; ++i) (kittel(0.5 * (lo + hi), Nx, Ny, Nz, 800) < w0 ? lo : hi) = 0.5 * (lo + hi);
    const double Hres = 0.5 * (lo + hi);
    const double a = 4 * kPi * 800 * (Ny - Nx), b = 4 * kPi * 800 * (Nz - Nx);
    const double slope = (2 * Hres + a + b) / (2 * w0);  // df/dH at resonance
    // g at the resonance from the table, linear between the steps around it.
    const auto t = number_rows(d.read("k"));
    ASSERT_EQ(t.size(), 61u);
    EXPECT_NEAR(st.W(1, 1), t.back()[5], 1e-9 * t.back()[5]);  // the table holds ten digits
    const auto k = static_cast<std::size_t>((Hres - 2000) / 50);
    const double g = t[k][6] + (t[k + 1][6] - t[k][6]) * (Hres - t[k][4]) / 50.0;
    ASSERT_GT(g, 0.0);
    const std::string fmr = d.read("k_fmr.txt");
    const auto peaks = resonances(fmr);
    ASSERT_EQ(peaks.size(), 1u) << fmr.substr(0, 400);
    EXPECT_NEAR(peaks[0][0], Hres, 0.01 * 2 * g / slope);
    EXPECT_NEAR(peaks[0][1], 2 * g / slope, 0.01 * 2 * g / slope);
    // At least 20 samples per width at the peak: the line (alpha = 0.001) is
    // narrower than the 20 samples that every step interval gets.
    const auto samples = number_rows(fmr);
    std::size_t top = 0;
    for (std::size_t i = 0; i < samples.size(); ++i)
        if (samples[i][4] > samples[top][4]) top = i;
    ASSERT_LT(top + 1, samples.size());
    const double spacing = samples[top + 1][0] - samples[top][0];
    EXPECT_LT(spacing, 1.05 * 2 * g / slope / 20) << spacing << " " << 2 * g / slope;
    EXPECT_LT(spacing, 0.5 * 50.0 / 20) << spacing << ": denser than the floor of 20 samples per 50 Oe step";
    // Frequencies in GHz with the ratio of SET_GYRO.
    EXPECT_NEAR(t[0][7], t[0][5] * gyro / (2e9 * kPi), 1e-9 * t[0][7]);
    // The pictures: one branch of 61 markers, f0 marked, the absorption
    // curve below; the map a 900 x 600 PNG.
    const std::string svg = d.read("k.svg");
    const auto count = [&](const std::string& what) { return count_of(svg, what); };
    EXPECT_EQ(count("class=\"branch\""), 1u);
    EXPECT_EQ(count("class=\"marker\""), 61u);
    EXPECT_EQ(count("id=\"f0\""), 1u);
    EXPECT_EQ(count("id=\"curve\""), 1u);
    const std::string png = d.read("k_map.png");
    ASSERT_GT(png.size(), 24u);
    EXPECT_EQ(png.substr(1, 3), "PNG");
    auto be32 = [&](std::size_t at) {
        return (static_cast<unsigned char>(png[at]) << 24) | (static_cast<unsigned char>(png[at + 1]) << 16) |
               (static_cast<unsigned char>(png[at + 2]) << 8) | static_cast<unsigned char>(png[at + 3]);
    };
    EXPECT_EQ(be32(16), 900u);
    EXPECT_EQ(be32(20), 600u);
}

// The matrix-free and the dense solver give one table: the same branches,
// frequencies and couplings (a 40 x 20 x 5 nm box swept along its short
// side).
TEST(SweepField, MatrixFreeAndDenseSweepsAgree) {
    TempDir d;
    ModelState st;
    const std::string model =
        "SET_CELL\n5e-7 5e-7 5e-7\nMASQUE_CREATE\n40e-7 20e-7 5e-7\nLOAD_MAT\n1\n1.3e-6 800\n"
        "ADD_SHAPE\n3\n40e-7 20e-7 5e-7 0 0 0 1\nTENSOR_CREATE\n0\nINIT_M\n2\n0 1 0\nSET_BETA\n0.01\n"
        "SET_HRF\n2\n0 0 1\nRELAX\n1 1e-12 0.1\n";
    run_in(d, st, model + "SWEEP_FIELD\n0 1500 0 0 3000 0 3\n6 1 0\ndense\nSWEEP_FIELD\n0 1500 0 0 3000 0 3\n6 0 0\n"
                       "free\nEND\n");
    const auto a = number_rows(d.read("dense")), b = number_rows(d.read("free"));
    ASSERT_EQ(a.size(), 4u);
    ASSERT_EQ(b.size(), a.size());
    for (std::size_t k = 0; k < a.size(); ++k) {
        ASSERT_EQ(a[k].size(), b[k].size());
        for (std::size_t c = 5; c < a[k].size(); c += 4) {
            EXPECT_NEAR(b[k][c], a[k][c], 1e-7 * a[k][c]) << k << " " << c;          // f
            EXPECT_NEAR(b[k][c + 1], a[k][c + 1], 1e-6 * a[k][c + 1]) << k << " " << c;  // g
            EXPECT_NEAR(b[k][c + 3], a[k][c + 3], 1e-5 * a[k][c + 3] + 1e-9) << k << " " << c;  // |kappa|
        }
    }
}

// Two cells twenty cells apart, one with an easy axis along the field
// (f = H + HK1) and one with a hard axis across it (f = sqrt(H (H + HK2))):
// their branches cross near H = 250 Oe, and each keeps its own cell.
TEST(SweepField, CrossingBranchesKeepTheirIdentity) {
    TempDir d;
    ModelState st;
    run_in(d, st,
        "SET_CELL\n5e-7 5e-7 5e-7\nMASQUE_CREATE\n105e-7 5e-7 5e-7\nLOAD_MAT\n2\n1.3e-6 800\n1.3e-6 800\n"
        "ADD_SHAPE\n3\n5e-7 5e-7 5e-7 0 0 0 1\nADD_SHAPE\n3\n5e-7 5e-7 5e-7 100e-7 0 0 2\nTENSOR_CREATE\n0\n"
        "ADD_ANISOTROPY\n1 1 0 0 4e5\nADD_ANISOTROPY\n2 0 0 1 -1.6e6\nINIT_M\n2\n1 0 0\nRELAX\n1 1e-12 0.1\n"
        "SWEEP_FIELD\n110 0 0 1010 0 0 18\n2 1 0\nk\nEND\n");
    const auto t = number_rows(d.read("k"));
    ASSERT_EQ(t.size(), 19u);
    ASSERT_EQ(t[0].size(), 13u);  // two branches throughout
    int on_a = 0;                 // the branch of the easy-axis cell
    for (int b = 0; b < 2; ++b)
        if (std::abs(t[0][5 + 4 * b] - (110 + 500)) < 2) on_a = b;
    const int on_b = 1 - on_a;
    for (const auto& r : t) {
        const double H = r[1];
        EXPECT_NEAR(r[5 + 4 * on_a], H + 500, 2.0) << H;
        EXPECT_NEAR(r[5 + 4 * on_b], std::sqrt(H * (H + 2000)), 2.0) << H;
    }
    // Below the crossing the easy-axis branch is the upper one, above it the lower.
    EXPECT_GT(t.front()[5 + 4 * on_a], t.front()[5 + 4 * on_b]);
    EXPECT_LT(t.back()[5 + 4 * on_a], t.back()[5 + 4 * on_b]);
    // The last step's modes, by profile: the lower one lives on the easy-axis cell.
    ASSERT_EQ(st.nmodes, 2);
    const int na = st.NUM(0, 0, 0), nb = st.NUM(20, 0, 0);
    auto share = [&](int p, int n) {
        double in = 0, all = 0;
        for (int m = 1; m <= st.ncells; ++m)
            for (int c = 1; c <= 2; ++c) {
                const double v = std::norm(st.MODES(m, c, p));
                all += v;
                if (m == n) in += v;
            }
        return in / all;
    };
    EXPECT_GT(share(1, na), 0.99);
    EXPECT_GT(share(2, nb), 0.99);
}

// A cube cell with an easy axis along x in a field slightly off the axis:
// swept down from +1000 to -1000 Oe it switches near -0.83 HK, swept back
// up near +0.83 HK (Stoner-Wohlfarth).  Between, the two sweeps sit on
// different branches: f ~ HK - |H| before switching, HK + |H| after
// (HK = 500 Oe).
TEST(SweepField, DownAndUpThroughTheSwitchingFieldShowHysteresis) {
    TempDir d;
    ModelState st;
    std::string err;
    run_in(d, st,
        "SET_CELL\n5e-7 5e-7 5e-7\nMASQUE_CREATE\n5e-7 5e-7 5e-7\nLOAD_MAT\n1\n1.3e-6 800\n"
        "ADD_SHAPE\n3\n5e-7 5e-7 5e-7 0 0 0 1\nTENSOR_CREATE\n0\nADD_ANISOTROPY\n1 1 0 0 4e5\nINIT_M\n2\n1 0 0\n"
        "RELAX\n1 1e-13 0.05\nSWEEP_FIELD\n1000 50 0 -1000 -50 0 20\n1 1 0\ndown\n"
        "SWEEP_FIELD\n-1000 -50 0 1000 50 0 20\n1 1 0\nup\nEND\n",
        &err);
    const auto down = number_rows(d.read("down")), up = number_rows(d.read("up"));
    ASSERT_EQ(down.size(), 21u);
    ASSERT_EQ(up.size(), 21u);
    // The coordinate is the signed field along (1, 0.05, 0) in both sweeps.
    EXPECT_NEAR(down[0][4], std::hypot(1000.0, 50.0), 1e-6);
    EXPECT_NEAR(up[0][4], -std::hypot(1000.0, 50.0), 1e-6);
    // Down step 12 and up step 8 are both at H = -200 along the axis.
    const auto f_at = [](const std::vector<double>& r) {
        for (std::size_t c = 5; c < r.size(); c += 4)
            if (std::isfinite(r[c])) return r[c];
        return std::nan("");
    };
    EXPECT_NEAR(f_at(down[12]), 300.0, 10.0);
    EXPECT_NEAR(f_at(up[8]), 700.0, 10.0);
    // Both ends agree: above the switching field the states meet.
    EXPECT_NEAR(f_at(down[0]), f_at(up[20]), 1e-6 * f_at(down[0]));
    // Each sweep switches once, between -400 and -500 Oe (steps 14, 15) down
    // and between 400 and 500 Oe up; the jump is reported and starts new branches.
    EXPECT_TRUE(holds(err, {"SWEEP_FIELD: step 15 of 20", "the magnetization jumped"}));
    EXPECT_NE(d.read("down").find("# the state jumped at step 15:"), std::string::npos);
    EXPECT_NE(d.read("up").find("# the state jumped at step 15:"), std::string::npos);
    EXPECT_TRUE(std::isnan(down[15][5]));  // branch 1 ends at the jump
    EXPECT_TRUE(std::isfinite(down[15][9]));
    EXPECT_GT(st.M(0, 0, 0, 1), 790.0);  // back along +x
}
