// The accurate builder against Newell's formulas in 320-bit arithmetic, the
// published unit-cube factors, and the plain filler on small grids.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <string>
#include <vector>

#include "interpreter/command_table.hpp"
#include "newell_mpfr.hpp"
#include "tensor/tensor_accurate.hpp"
#include "tensor/tensor_files.hpp"
#include "tensor_test_util.hpp"

using namespace torix;
using namespace torix::testing;

namespace {

constexpr double kPi = 3.14159265358979323846;

struct Cell {
    double dx, dy, dz;
    const char* name;
};
constexpr std::array<Cell, 3> kCells = {{{5e-7, 5e-7, 5e-7, "5x5x5 nm"},
                                         {5e-7, 5e-7, 3e-7, "5x5x3 nm"},
                                         {3e-7, 3e-7, 2e-6, "3x3x20 nm"}}};

}  // namespace

// Demagnetizing factors of the unit cube (the tensor holds -4 pi times
// them), as published with their 12 digits.
TEST(TensorAccurate, PublishedUnitCubeFactors) {
    const AccuratePlan plan = plan_accurate(1.0, 1.0, 1.0, 0, 0, 0.0);
    const auto factor = [&](int i, int j, int k, int c) {
        double b[6];
        accurate_block(plan, i, j, k, b);
        return -b[c] / (4.0 * kPi);
    };
    EXPECT_NEAR(factor(1, 0, 0, 0), -0.135017180544, 1e-12);
    EXPECT_NEAR(factor(1, 1, 0, 0), -0.013785762048, 1e-12);
    EXPECT_NEAR(factor(1, 1, 0, 3), -0.045564822639, 1e-12);
    EXPECT_NEAR(factor(1, 1, 1, 3), -0.016062127811, 1e-12);
    EXPECT_NEAR(factor(20, 0, 0, 0), -1.98943e-5, 5e-11);  // beyond the switch: the expansion
    EXPECT_NEAR(factor(0, 0, 0, 0), 1.0 / 3.0, 1e-15);
}

// Every entry within 1e-12 relative, or 1e-15 of the self term absolute, of
// the 320-bit value, from the self term out to 1000 cells, on both sides of
// the switch and in several directions, for cubic, flat and long cells.
TEST(TensorAccurate, MatchesArbitraryPrecisionOutToAThousandCells) {
    const std::vector<std::array<int, 3>> offsets = {
        {0, 0, 0},   {1, 0, 0},    {0, 1, 1},     {2, 1, 1},      {3, 0, 2},       {4, 3, 0},       {3, 3, 3},
        {5, 2, 4},   {7, 1, 0},    {9, 6, 2},     {14, 0, 0},     {0, 0, 17},      {23, 19, 4},     {40, 31, 2},
        {67, 0, 5},  {120, 0, 0},  {0, 0, 120},   {150, 101, 7},  {300, 0, 0},     {311, 211, 99},  {600, 400, 3},
        {0, 1000, 0}, {1000, 0, 0}, {577, 577, 577}, {1000, 999, 1}, {-37, 25, -8}, {12, -700, 64}};
    for (const Cell& c : kCells) {
        const AccuratePlan plan = plan_accurate(c.dx, c.dy, c.dz, 0, 0, 0.0);
        const auto self = newell_exact(0, 0, 0, c.dx, c.dy, c.dz);
        const double floor = 1e-15 * std::max({std::fabs(self[0]), std::fabs(self[1]), std::fabs(self[2])});
        for (const auto& o : offsets) {
            double got[6];
            accurate_block(plan, o[0], o[1], o[2], got);
            const auto want = newell_exact(o[0], o[1], o[2], c.dx, c.dy, c.dz);
            double block = 0.0;
            for (int n = 0; n < 6; ++n) block = std::max(block, std::fabs(want[n]));
            for (int n = 0; n < 6; ++n) {
                const double err = std::fabs(got[n] - want[n]);
                // The required accuracy; and by design (truncation held 1e-4
                // below r) rounding level: 1e-14 of the block's largest entry.
                EXPECT_LE(err, std::max(1e-12 * std::fabs(want[n]), floor))
                    << c.name << " offset (" << o[0] << ", " << o[1] << ", " << o[2] << ") component " << n
                    << ": got " << got[n] << ", exact " << want[n];
                EXPECT_LE(err, 1e-14 * block) << c.name << " offset (" << o[0] << ", " << o[1] << ", " << o[2] << ")";
            }
        }
    }
}

// A fixed switch and a fixed number of terms are obeyed; the automatic
// switch moves out when more accuracy is asked for.
TEST(TensorAccurate, PlanFollowsTheLine) {
    const AccuratePlan p = plan_accurate(3e-7, 3e-7, 2e-6, 7, 3, 1e-9);
    EXPECT_EQ(p.switch_cells, 7);
    EXPECT_DOUBLE_EQ(p.switch_dist, 7 * 2e-6);
    EXPECT_EQ(expansion_terms(p, 1e-4), 3);
    const AccuratePlan a = plan_accurate(5e-7, 5e-7, 5e-7, 0, 0, 0.0);
    EXPECT_DOUBLE_EQ(a.rtol, 1e-12);
    EXPECT_LT(a.switch_cells, plan_accurate(5e-7, 5e-7, 5e-7, 0, 0, 1e-16).switch_cells);
    EXPECT_LT(a.switch_cells, plan_accurate(5e-7, 5e-7, 5e-7, 0, 4, 0.0).switch_cells);
    // One term is the point dipole: 2 V / r^3 along the axis.
    double b[6];
    expansion_block(10, 0, 0, 5e-7, 5e-7, 5e-7, 1, b);
    EXPECT_NEAR(b[0], 2.0 / 1000.0, 1e-18);
    EXPECT_NEAR(b[1], -1.0 / 1000.0, 1e-18);
    EXPECT_EQ(b[3], 0.0);
}

// On small grids the plain filler keeps ten digits: the whole slice layout
// (mirror signs, copies 2 = 4, 3 = 7, 6 = 8, exchange, accumulation into
// what the slice holds) agrees with it, with the switch placed so that both
// routes fill part of the grid.
TEST(TensorAccurate, SlicesMatchThePlainFillerOnSmallGrids) {
    const auto A = table({1.3e-6, 3e-7}), MS = table({800.0, 1400.0});
    struct G {
        int nx, ny, nz;
        double dx, dy, dz;
        int n1;
    };
    for (const G& g : {G{6, 5, 3, 5e-7, 5e-7, 3e-7, 3}, G{4, 0, 2, 2e-7, 6e-7, 4e-7, 0}, G{9, 9, 0, 5e-7, 5e-7, 5e-7, 3}}) {
        const TensorArray ref = reference(A, MS, g.nx, g.ny, g.nz, g.dx, g.dy, g.dz);
        TensorArray T = make_tensor(g.nx, g.ny, g.nz, 2);
        for (int m = 1; m <= 2; ++m) calctensorc(A, MS, T, g.nx, g.ny, g.nz, g.dx, g.dy, g.dz, m, 2, g.n1, 0, 0.0);
        expect_close(ref, T, std::to_string(g.nx) + " x " + std::to_string(g.ny) + " x " + std::to_string(g.nz));
        // Every offset of the slice is the block of that offset.
        const AccuratePlan plan = plan_accurate(g.dx, g.dy, g.dz, g.n1, 0, 0.0);
        for (int i = -g.nx; i <= g.nx + 1; ++i)
            for (int j = -g.ny; j <= g.ny + 1; ++j)
                for (int k = -g.nz; k <= g.nz + 1; ++k) {
                    double b[6];
                    accurate_block(plan, i, j, k, b);
                    ASSERT_EQ(T(i, j, k, 4, 1), b[3]);
                    ASSERT_EQ(T(i, j, k, 2, 1), b[3]);
                    ASSERT_EQ(T(i, j, k, 7, 2), b[4]);
                    ASSERT_EQ(T(i, j, k, 6, 2), b[5]);
                }
    }
}

TEST(TensorAccurate, SameBitsForAnyNumberOfThreads) {
    const auto A = table({1.3e-6}), MS = table({800.0});
    expect_thread_independent([&] {
        TensorArray T = make_tensor(20, 13, 2, 1);
        calctensorc(A, MS, T, 20, 13, 2, 5e-7, 5e-7, 3e-7, 1, 1, 0, 0, 0.0);
        return T;
    });
}

// TENSOR_CREATE 0 still builds the Newell tensor of the fast builder, bit for
// bit; kind 1 builds calctensorc's with the values of its second line.
TEST(TensorAccurate, TensorCreateKinds) {
    TempDir d;
    const std::string head = "SET_CELL\n5e-7 5e-7 3e-7\nMASQUE_CREATE\n4e-6 3e-6 9e-7\nLOAD_MAT\n1\n1.3e-6 800\n";
    const std::string out = run_in(d, head + "TENSOR_CREATE\n0\nTENSOR_SAVE\n2 1 k0.bin\nTENSOR_CREATE\n1\n3 0 1e-12\n"
                                             "TENSOR_SAVE\n2 1 k1.bin\nEND\n");
    EXPECT_EQ(out, " SET_CELL ok\n MASQUE_CREATE ok\n LOAD_MAT ok\n TENSOR_CREATE ok\n TENSOR_SAVE ok\n"
                   " TENSOR_CREATE ok\n TENSOR_SAVE ok\n");
    const int nx = 7, ny = 5, nz = 2;
    TensorArray k0 = make_tensor(nx, ny, nz, 1), k1 = make_tensor(nx, ny, nz, 1);
    loadtensor(k0, nx, ny, nz, 1, 1, (d.path() / "k0.bin").string());
    loadtensor(k1, nx, ny, nz, 1, 1, (d.path() / "k1.bin").string());
    const auto A = table({1.3e-6}), MS = table({800.0});
    EXPECT_TRUE(k0 == fast(A, MS, nx, ny, nz, 5e-7, 5e-7, 3e-7));
    TensorArray c = make_tensor(nx, ny, nz, 1);
    calctensorc(A, MS, c, nx, ny, nz, 5e-7, 5e-7, 3e-7, 1, 1, 3, 0, 1e-12);
    EXPECT_TRUE(k1 == c);
}

// A switch and a number of terms that cannot reach r build the tensor as
// asked, with a warning on standard error; the automatic choice warns not.
TEST(TensorAccurate, ShortExpansionWarns) {
    TempDir d;
    const std::string head = "SET_CELL\n5e-7 5e-7 5e-7\nMASQUE_CREATE\n4e-6 4e-6 5e-7\nLOAD_MAT\n1\n1.3e-6 800\n";
    const auto err_of = [&](const std::string& line) {
        ModelState st;
        std::string err;
        run_in(d, st, head + "TENSOR_CREATE\n1\n" + line + "\nEND\n", &err);
        return err;
    };
    EXPECT_NE(err_of("2 3 1e-12").find("TENSOR_CREATE: warning: at the switch distance of 2 cell sides"),
              std::string::npos);
    EXPECT_EQ(err_of("0 0 0").find("warning"), std::string::npos);
    EXPECT_EQ(err_of("12 0 1e-12").find("warning"), std::string::npos);
}
