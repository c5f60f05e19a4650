// Refined numberings: cells near an axis numbered singly, blocks elsewhere.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "geometry/mask_files.hpp"
#include "geometry/numbering.hpp"
#include "geometry/numbering_r.hpp"
#include "geometry/shapes.hpp"
#include "test_util.hpp"

using namespace torix;

namespace {

// A disk of diameter 12 cells, 2 layers, in a 14 x 14 x 2 grid.
IntGrid disk(int& count) {
    IntGrid mask = make_int_grid(13, 13, 1, 0);
    count = 0;
    calcdisk(mask, 13, 13, 1, 5.5, 5.5, 0.0, 0.0, 1.0, 6.5, 6.5, 0.0, 1, count);
    return mask;
}

}  // namespace

// 4 x 4 cells, 2 x 2 blocks, the four centre cells inner (0.707 <= 0.75).
// Blocks are walked x outermost; within a block i outer: an inner cell takes
// the next number when met, the outer cells one number at the first of them.
TEST(NumberR, InnerCellsSinglyBlocksShared) {
    const IntGrid mask = make_int_grid(3, 3, 0, 1);
    IntGrid num = make_int_grid(3, 3, 0);
    int N = 0;
    number_r(mask, num, 3, 3, 0, N, 0.75e-7, 2, 2, 1, 1e-7, 1e-7);
    EXPECT_EQ(N, 8);
    const int want[4][4] = {// want[i][j]
                            {1, 1, 3, 3},
                            {1, 2, 4, 3},
                            {5, 6, 7, 8},
                            {5, 5, 8, 8}};
    for (int i = 0; i <= 3; ++i)
        for (int j = 0; j <= 3; ++j) EXPECT_EQ(num(i, j, 0), want[i][j]) << i << " " << j;
}

// r covering the body gives every cell a number of its own: with blocks of
// one cell the fine numbering itself, with larger blocks the same cells in
// block order.  A negative r gives the plain blocks.
TEST(NumberR, LimitsAreTheFineAndTheBlockNumbering) {
    int count = 0;
    const IntGrid mask = disk(count);
    IntGrid fine = make_int_grid(13, 13, 1), got = make_int_grid(13, 13, 1);
    int Nf = 0, N = 0;
    number(mask, fine, 13, 13, 1, Nf, 1, 1, 1);
    number_r(mask, got, 13, 13, 1, N, 1.0, 1, 1, 1, 5e-7, 5e-7);
    EXPECT_EQ(N, count);
    EXPECT_TRUE(got == fine);

    number_r(mask, got, 13, 13, 1, N, 1.0, 3, 3, 2, 5e-7, 5e-7);
    EXPECT_EQ(N, count);
    std::vector<int> seen(static_cast<std::size_t>(N) + 1, 0);
    for (const auto n : got) ++seen[static_cast<std::size_t>(n)];
    EXPECT_TRUE(std::all_of(seen.begin() + 1, seen.end(), [](int c) { return c == 1; }));

    IntGrid blocks = make_int_grid(13, 13, 1);
    number(mask, blocks, 13, 13, 1, Nf, 3, 3, 2);
    number_r(mask, got, 13, 13, 1, N, -1.0, 3, 3, 2, 5e-7, 5e-7);
    EXPECT_EQ(N, Nf);
    EXPECT_TRUE(got == blocks);
}

// SET_SCALE_R2 about the grid's centre (cm from the low edge) numbers as
// SET_SCALE_R does, and "masque1.txt" holds each cell's multiplicity.
TEST(NumberR, AxisInCentimetresAndTheMultiplicityMask) {
    int count = 0;
    const IntGrid mask = disk(count);
    const double d = 5e-7, r = 2.2e-6;
    IntGrid a = make_int_grid(13, 13, 1), b = make_int_grid(13, 13, 1);
    int Na = 0, Nb = 0;
    number_r(mask, a, 13, 13, 1, Na, r, 3, 3, 1, d, d);
    TempDir dir;
    {
        const InDir in(dir);
        number_r2(mask, b, 13, 13, 1, Nb, 7 * d, 7 * d, r, 3, 3, 1, d, d);
    }
    EXPECT_EQ(Nb, Na);
    EXPECT_TRUE(a == b);
    EXPECT_LT(Na, count);
    IntGrid mult = make_int_grid(13, 13, 1);
    loadmasquet2(mult, 13, 13, 1, (dir.path() / "masque1.txt").string());
    std::vector<int> w(static_cast<std::size_t>(Na) + 1, 0);
    for (const auto n : a) ++w[static_cast<std::size_t>(n)];
    for_cells(13, 13, 1, [&](int i, int j, int k) {
        const int want = mask(i, j, k) ? w[static_cast<std::size_t>(a(i, j, k))] : 0;
        EXPECT_EQ(mult(i, j, k), want) << i << " " << j << " " << k;
    });
    // Cells near the axis are single, a cell beyond r (4.5 cells) shares its block.
    EXPECT_EQ(mult(6, 6, 0), 1);
    EXPECT_GT(mult(6, 2, 0), 1);
}
