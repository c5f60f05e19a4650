#include <gtest/gtest.h>

#include <sstream>

#include "eigen/deg.hpp"
#include "geometry/numbering.hpp"

using namespace torix;

TEST(Number, SingleCellsAreNumberedZFastest) {
    IntGrid mask = make_int_grid(1, 1, 1, 1), num = make_int_grid(1, 1, 1);
    int N = 0;
    number(mask, num, 1, 1, 1, N, 1, 1, 1);
    EXPECT_EQ(N, 8);
    EXPECT_EQ(num(0, 0, 0), 1);
    EXPECT_EQ(num(0, 0, 1), 2);
    EXPECT_EQ(num(0, 1, 0), 3);
    EXPECT_EQ(num(0, 1, 1), 4);
    EXPECT_EQ(num(1, 0, 0), 5);
    EXPECT_EQ(num(1, 1, 1), 8);
}

TEST(Number, BlocksShareNumbersEmptyBlocksConsumeNoneEmptyMaskClears) {
    IntGrid mask = make_int_grid(1, 1, 1, 1), num = make_int_grid(1, 1, 1);
    int N = 0;
    number(mask, num, 1, 1, 1, N, 2, 2, 2);
    EXPECT_EQ(N, 1);
    for (auto v : num) EXPECT_EQ(v, 1);

    // nx = 2, bx = 2: the second x block holds only the plane i = 2.
    IntGrid m2 = make_int_grid(2, 0, 0), n2 = make_int_grid(2, 0, 0);
    m2(0, 0, 0) = 1;
    m2(2, 0, 0) = 4;
    number(m2, n2, 2, 0, 0, N, 2, 1, 1);
    EXPECT_EQ(N, 2);
    EXPECT_EQ(n2(0, 0, 0), 1);
    EXPECT_EQ(n2(1, 0, 0), 0);
    EXPECT_EQ(n2(2, 0, 0), 2);

    // A hole in the middle: the empty block is skipped.
    IntGrid m3 = make_int_grid(2, 0, 0, 1), n3 = make_int_grid(2, 0, 0);
    m3(1, 0, 0) = 0;
    number(m3, n3, 2, 0, 0, N, 1, 1, 1);
    EXPECT_EQ(N, 2);
    EXPECT_EQ(n3(2, 0, 0), 2);

    // An empty mask: no numbers, stale values cleared.
    IntGrid m4 = make_int_grid(3, 3, 0), n4 = make_int_grid(3, 3, 0, 99);
    number(m4, n4, 3, 3, 0, N, 1, 1, 1);
    EXPECT_EQ(N, 0);
    for (auto v : n4) EXPECT_EQ(v, 0);
}

TEST(Deg, CountsMultiplicitiesAndWritesTheZeroPlaneMap) {
    // 3 x 2 x 2 grid, one empty cell at (1, 0, 0); blocks of 2 along x.
    IntGrid mask = make_int_grid(2, 1, 1, 1), num = make_int_grid(2, 1, 1);
    mask(1, 0, 0) = 0;
    int N = 0;
    number(mask, num, 2, 1, 1, N, 2, 1, 1);
    Array<std::int32_t, 1> w;
    std::ostringstream map;
    deg(mask, num, 2, 1, 1, N, w, map);
    int total = 0;
    for (int n = 1; n <= N; ++n) total += w(n);
    EXPECT_EQ(total, 11);
    EXPECT_EQ(w(num(0, 0, 0)), 1);  // its block partner (1,0,0) is empty
    EXPECT_EQ(w(num(0, 1, 0)), 2);
    EXPECT_EQ(w(num(2, 0, 0)), 1);
    EXPECT_EQ(map.str(), " 1NO 1\n 2 2 1\n");
}

TEST(Number, BlocksUpToTheIntLimitCoverTheGridAsOneBlock) {
    // A block larger than the grid along every axis holds every cell: one number.
    IntGrid mask = make_int_grid(2, 1, 1, 1), num = make_int_grid(2, 1, 1, 0);
    int N = -1;
    number(mask, num, 2, 1, 1, N, 2147483647, 2147483647, 2147483647);
    EXPECT_EQ(N, 1);
    for (auto v : num) EXPECT_EQ(v, 1);
    // Blocks along x only: each of the 2 x 2 rows along x is one block, as with a block of 3 cells.
    IntGrid ref = make_int_grid(2, 1, 1, 0);
    int Nref = -1;
    number(mask, ref, 2, 1, 1, Nref, 3, 1, 1);
    number(mask, num, 2, 1, 1, N, 2147483647, 1, 1);
    EXPECT_EQ(N, Nref);
    EXPECT_EQ(N, 4);
    EXPECT_TRUE(num == ref);
}
