// The driven-response commands run by the program on a single cubic cell.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "test_util.hpp"

using namespace torix;

namespace {

// One 5 nm cube (Ms = 800, no exchange) magnetized along z in 1000 Oe.  A
// cube's demagnetizing factors are all 1/3, so its one mode precesses at the
// Kittel frequency of a sphere, f = H0 = 1000 Oe.
const char* kHead =
    "SET_CELL\n5e-7 5e-7 5e-7\nLOAD_MAT\n1\n0 800\nMASQUE_CREATE\n5e-7 5e-7 5e-7\n"
    "ADD_SHAPE\n3\n5e-7 5e-7 5e-7 0 0 0 1\nTENSOR_CREATE\n0\nINIT_M\n4\nADD_EXT_FIELD\n1\n0 0 1000\n"
    "CALC_FIELD\nSOLVE_MATRIX\n1\n";

}  // namespace

TEST(ResponseCommands, SingleCellCouplingFromEveryKindOfDrivingField) {
    TempDir dir;
    dir.write("hrf.txt", "1\n0 0 0  1 0  0 0  0 0\n");
    dir.write("input.dat", std::string(kHead) +
                               "SET_HRF\n1\n1 0 0 0 0 0\nCALC_C\nPRINT_C\nc1.txt\n"
                               "SET_HRF\n2\n1 0 0\nCALC_C\nPRINT_C\nc2.txt\n"
                               "SET_HRF\n3\n1 hrf.txt\nCALC_C\nPRINT_C\nc3.txt\n"
                               "PRINT_ABS\nabs.txt\n10\nEND\n");
    const RunResult r = run_torix(dir);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(holds(r.out, {" SET_HRF ok\n", " CALC_C ok\n", " PRINT_C ok\n", " PRINT_ABS ok\n"}));

    // The three kinds describe the same field h = x: identical files.
    const std::string c1 = dir.read("c1.txt");
    EXPECT_EQ(dir.read("c2.txt"), c1);
    EXPECT_EQ(dir.read("c3.txt"), c1);
    const auto c = number_rows(c1);  // p, Re kappa, Im kappa, f, g
    ASSERT_EQ(c.size(), 1u);
    EXPECT_EQ(c[0][0], 1);
    EXPECT_NEAR(c[0][3], 1000.0, 1e-6 * 1000.0);
    // Circular precession of one spin: kappa = i Ms / 2 for h = x.
    EXPECT_NEAR(c[0][2], 400.0, 1e-6 * 400.0);
    EXPECT_NEAR(c[0][1], 0.0, 1e-6 * 400.0);
    // Absorption: samples 0, 10, ..., 2000; the line (undamped, so of the
    // width of one step) peaks at sample 100, w = 1000.
    const auto abs = number_rows(dir.read("abs.txt"));  // w, power, nearest mode
    ASSERT_EQ(abs.size(), 201u);
    std::size_t peak = 0;
    for (std::size_t n = 0; n < abs.size(); ++n) {
        EXPECT_NEAR(abs[n][0], 10.0 * n, 1e-9);
        EXPECT_EQ(abs[n][2], 1);
        if (abs[n][1] > abs[peak][1]) peak = n;
    }
    EXPECT_EQ(peak, 100u);
    const double best = abs[peak][1];
    // At resonance (w/2) Im kappa / G with G = max(g, step) = 10.
    EXPECT_NEAR(best, 500.0 * 400.0 / 10.0, 1e-4 * best);
}
