// Initial magnetization states.
#include <gtest/gtest.h>

#include <cmath>

#include "dynamics/init_state.hpp"
#include "test_util.hpp"

namespace torix {
namespace {

// Disk-like mask on (0:nx, 0:ny, 0:1): material 1 in layer 0, 2 in layer 1,
// corners of each layer empty.
IntGrid disk_mask(int nx, int ny) {
    IntGrid m = make_int_grid(nx, ny, 1);
    for_cells(nx, ny, 1,
              [&](int i, int j, int k) { m(i, j, k) = (i == 0 || i == nx) && (j == 0 || j == ny) ? 0 : k + 1; });
    return m;
}

double length(const VecGrid& M, int i, int j, int k) { return std::hypot(M(i, j, k, 1), M(i, j, k, 2), M(i, j, k, 3)); }

// |M| = MS of the cell's material on magnetic cells, 0 on empty ones.
void expect_lengths(const VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask, int nx, int ny, int nz) {
    for_cells(nx, ny, nz, [&](int i, int j, int k) {
        const int q = mask(i, j, k);
        EXPECT_NEAR(length(M, i, j, k), q == 0 ? 0.0 : MS(q), 1e-12 * 800.0) << i << ' ' << j << ' ' << k;
    });
}

TEST(InitState, UniformStateHasMaterialLengthAlongDirection) {
    const auto MS = table({800.0, 1200.0});
    IntGrid mask = disk_mask(3, 2);
    VecGrid M = make_vec_grid(3, 2, 1, 7.0);
    initdir(M, MS, mask, 3, 2, 1, 3.0, 0.0, -4.0);
    for_cells(3, 2, 1, [&](int i, int j, int k) {
        const int q = mask(i, j, k);
        const double f = q == 0 ? 1.0 : MS(q) / 5.0;  // empty cells keep the raw direction
        EXPECT_DOUBLE_EQ(M(i, j, k, 1), 3.0 * f);
        EXPECT_DOUBLE_EQ(M(i, j, k, 2), 0.0);
        EXPECT_DOUBLE_EQ(M(i, j, k, 3), -4.0 * f);
    });
}

TEST(InitState, VortexCoreAndClockwiseCirculation) {
    const auto MS = table({800.0, 1200.0});
    // Odd cell count: the axis passes through cell (4, 3), the only core cell.
    IntGrid mask = disk_mask(8, 6);
    VecGrid M = make_vec_grid(8, 6, 1, 5.0);
    initvortex(M, MS, mask, 8, 6, 1, 4.0, 3.0);
    expect_lengths(M, MS, mask, 8, 6, 1);
    int core = 0;
    for_cells(8, 6, 1, [&](int i, int j, int k) {
        if (mask(i, j, k) == 0) return;
        if (M(i, j, k, 3) != 0.0) {
            ++core;
            EXPECT_EQ(i, 4);
            EXPECT_EQ(j, 3);
            return;
        }
        // In-plane, perpendicular to the radius, clockwise seen from +z: (r x M)_z < 0.
        const double rx = i - 4.0, ry = j - 3.0;
        EXPECT_NEAR(rx * M(i, j, k, 1) + ry * M(i, j, k, 2), 0.0, 1e-9);
        EXPECT_LT(rx * M(i, j, k, 2) - ry * M(i, j, k, 1), 0.0);
    });
    EXPECT_EQ(core, 2);  // one per layer
    EXPECT_DOUBLE_EQ(M(6, 3, 0, 2), -800.0);  // +x of the axis points along -y
    EXPECT_DOUBLE_EQ(M(4, 5, 1, 1), 1200.0);  // +y of the axis points along +x

    // Even cell count: axis between cells, the four nearest (rho = 0.707) form the core.
    IntGrid even = make_int_grid(9, 9, 0, 1);
    VecGrid Me = make_vec_grid(9, 9, 0);
    initvortex(Me, MS, even, 9, 9, 0, 4.5, 4.5);
    int ncore = 0;
    for_cells(9, 9, 0, [&](int i, int j, int) { ncore += Me(i, j, 0, 3) == 800.0; });
    EXPECT_EQ(ncore, 4);
    EXPECT_EQ(Me(4, 4, 0, 3), 800.0);
    EXPECT_EQ(Me(5, 5, 0, 3), 800.0);
}

TEST(InitState, TwoVorticesWithOppositeCirculation) {
    const auto MS = table({800.0, 1200.0});
    IntGrid mask = make_int_grid(11, 5, 0, 1);
    VecGrid M = make_vec_grid(11, 5, 0);
    initvortex9(M, MS, mask, 11, 5, 0, 2.5, 2.5, 8.5, 2.5);
    expect_lengths(M, MS, mask, 11, 5, 0);
    for_cells(11, 5, 0, [&](int i, int j, int) {
        const bool left = i <= 5;
        const double rx = i - (left ? 2.5 : 8.5), ry = j - 2.5;
        if (std::hypot(rx, ry) <= 0.9) {
            EXPECT_EQ(M(i, j, 0, 3), 800.0);
            return;
        }
        // Clockwise on the left, anticlockwise on the right.
        EXPECT_LT((left ? 1.0 : -1.0) * (rx * M(i, j, 0, 2) - ry * M(i, j, 0, 1)), 0.0) << i << "," << j;
    });
}

TEST(InitState, RandomStateIsReproducibleAndNormalised) {
    const auto MS = table({800.0, 1200.0});
    IntGrid mask = disk_mask(6, 5);
    VecGrid a = make_vec_grid(6, 5, 1, 3.0), b = make_vec_grid(6, 5, 1, -1.0);
    initrandom(a, MS, mask, 6, 5, 1);
    initrandom(b, MS, mask, 6, 5, 1);
    EXPECT_TRUE(a == b);
    expect_lengths(a, MS, mask, 6, 5, 1);
    // Directions spread over the sphere: the mean unit vector is short.
    double mean[3] = {0, 0, 0};
    int n = 0;
    for_cells(6, 5, 1, [&](int i, int j, int k) {
        if (const int q = mask(i, j, k); q != 0) {
            for (int c = 0; c < 3; ++c) mean[c] += a(i, j, k, c + 1) / MS(q);
            ++n;
        }
    });
    EXPECT_LT(std::hypot(mean[0], mean[1], mean[2]) / n, 0.3);
    EXPECT_NE(a(1, 1, 0, 1), a(2, 1, 0, 1));  // neighbouring cells differ
}

}  // namespace
}  // namespace torix
