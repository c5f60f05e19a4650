#include <gtest/gtest.h>

#include <cmath>

#include "geometry/shapes.hpp"

using namespace torix;

namespace {
int painted(const IntGrid& m) {
    int n = 0;
    for (auto v : m) n += v != 0;
    return n;
}
}  // namespace

TEST(Sphere, UnitRadiusOnACellCentreIsTheCellAndItsFaceNeighbours) {
    IntGrid m = make_int_grid(4, 4, 4);
    int count = -1;
    calcsphere(m, 4, 4, 4, 1, 1, 1, 0, 0, 0, 2, 2, 2, 3, count);
    EXPECT_EQ(count, 7);
    EXPECT_EQ(painted(m), 7);
    EXPECT_EQ(m(2, 2, 2), 3);
    EXPECT_EQ(m(1, 2, 2), 3);
    EXPECT_EQ(m(2, 2, 3), 3);
    EXPECT_EQ(m(1, 1, 2), 0);  // edge neighbour at squared distance 2
}

TEST(Sphere, CountMatchesIndependentLatticeCount) {
    // Cells whose squared index distance from the centre is at most 1.01 r^2;
    // r^2 = 12.96 puts the cells at 13 (such as (7, 6, 4)) inside the margin.
    const double r = 3.6, c = 4.0;
    IntGrid m = make_int_grid(8, 8, 8);
    int count = 0;
    calcsphere(m, 8, 8, 8, r, r, r, 0, 0, 0, c, c, c, 1, count);
    int expect = 0;
    for (int i = 0; i <= 8; ++i)
        for (int j = 0; j <= 8; ++j)
            for (int k = 0; k <= 8; ++k) {
                const double d2 = (i - c) * (i - c) + (j - c) * (j - c) + (k - c) * (k - c);
                if (d2 <= 1.01 * r * r + 1e-9) ++expect;
            }
    EXPECT_EQ(count, expect);
    EXPECT_EQ(m(7, 6, 4), 1);
}

TEST(Sphere, ShellExcludesTheInsideAndZeroHoleMeansFull) {
    IntGrid full = make_int_grid(8, 8, 8), shell = make_int_grid(8, 8, 8), zero = make_int_grid(8, 8, 8);
    int cf = 0, cs = 0, cz = 0;
    calcsphere(full, 8, 8, 8, 4, 4, 4, 0, 0, 0, 4, 4, 4, 1, cf);
    calcsphere(shell, 8, 8, 8, 4, 4, 4, 2, 2, 2, 4, 4, 4, 1, cs);
    calcsphere(zero, 8, 8, 8, 4, 4, 4, 0, 2, 2, 4, 4, 4, 1, cz);
    EXPECT_EQ(shell(4, 4, 4), 0);
    EXPECT_EQ(shell(4, 4, 0), 1);
    EXPECT_LT(cs, cf);
    EXPECT_EQ(cz, cf);
}

TEST(Disk, HeightTestAndExactRadialBound) {
    IntGrid m = make_int_grid(6, 6, 3);
    int count = 0;
    calcdisk(m, 6, 6, 3, 2, 2, 0, 0, 0.0, 3, 3, 1.0, 1, count);  // h = 0, integer z0: one plane
    EXPECT_EQ(m(3, 3, 1), 1);
    EXPECT_EQ(m(3, 3, 0) + m(3, 3, 2), 0);
    EXPECT_EQ(m(5, 3, 1), 1);  // on the bound exactly: included
    EXPECT_EQ(m(5, 4, 1), 0);  // 4/4 + 1/4 > 1
    EXPECT_EQ(count, 13);      // |di|^2 + |dj|^2 <= 4 on the lattice
    IntGrid n = make_int_grid(6, 6, 3);
    calcdisk(n, 6, 6, 3, 2, 2, 0, 0, 0.0, 3, 3, 1.5, 1, count);  // h = 0, z0 between planes: nothing
    EXPECT_EQ(count, 0);
}

TEST(Disk, RingHoleAndPaintingIsCumulative) {
    IntGrid m = make_int_grid(10, 10, 0);
    int c1 = 0, c2 = 0;
    calcdisk(m, 10, 10, 0, 5, 5, 2, 2, 0, 5, 5, 0, 1, c1);
    EXPECT_EQ(m(5, 5, 0), 0);
    EXPECT_EQ(m(5, 9, 0), 1);
    calcslab2(m, 10, 10, 0, 0, 10, 9, 9, 0, 0, 2, c2);
    EXPECT_EQ(c2, 11);
    EXPECT_EQ(m(5, 9, 0), 2);  // overwritten by the later shape
    EXPECT_EQ(m(0, 0, 0), 0);  // outside both shapes
    EXPECT_EQ(m(5, 0, 0), 1);  // on the disk bound, not touched by the slab
}

TEST(Slab, WholeGridEmptyRangeAndClipping) {
    IntGrid m = make_int_grid(2, 3, 1);
    int count = 0;
    calcslab2(m, 2, 3, 1, 0, 2, 0, 3, 0, 1, 5, count);
    EXPECT_EQ(count, 3 * 4 * 2);
    calcslab2(m, 2, 3, 1, 2, 1, 0, 3, 0, 1, 7, count);
    EXPECT_EQ(count, 0);
    // A box reaching beyond the grid on every side paints only the grid.
    calcslab2(m, 2, 3, 1, -5, 50, -1, 9, -3, 3, 9, count);
    EXPECT_EQ(count, 24);
    for (auto v : m) EXPECT_EQ(v, 9);
}
