// The block tensor: blocks of one cell, a direct average over cell pairs, and
// the Newell tensor of cells as large as the blocks.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "interpreter/command_table.hpp"
#include "tensor/anisotropy.hpp"
#include "tensor/macro.hpp"
#include "tensor/tensor_accurate.hpp"
#include "tensor/tensor_files.hpp"
#include "tensor_test_util.hpp"

using namespace torix;
using namespace torix::testing;

namespace {

TensorArray accurate(const Array<double, 1>& A, const Array<double, 1>& MS, int nx, int ny, int nz, double dx,
                     double dy, double dz) {
    const int nmat = A.extent(0);
    TensorArray T = make_tensor(nx, ny, nz, nmat);
    for (int m = 1; m <= nmat; ++m) calctensorc(A, MS, T, nx, ny, nz, dx, dy, dz, m, nmat, 0, 0, 0.0);
    return T;
}

}  // namespace

// Blocks of one cell: the slice itself, exchange and anisotropy included.
TEST(BlockTensor, OneCellBlocksGiveTheSlice) {
    const auto A = table({1.3e-6, 3e-7}), MS = table({800.0, 1400.0});
    const int nx = 5, ny = 3, nz = 1;
    TensorArray T = fast(A, MS, nx, ny, nz, 5e-7, 4e-7, 3e-7);
    double K = 2e5;
    addanisotropy(T, MS, nx, ny, nz, 0.0, 0.6, 0.8, K, 2, 2);
    TensorArray M;
    blocktensor(T, nx, ny, nz, 5e-7, 4e-7, 3e-7, 1, 1, 1, 2, M);
    for (std::size_t n = 0; n < M.size(); ++n) ASSERT_EQ(M.data()[n], (&T(-nx, -ny, -nz, 1, 2))[n]) << n;
}

// Blocks of 2 x 2 x 1 cells: every block offset whose cell pairs lie inside
// the tensor equals the mean over the target block's cells of the sum over
// the source block's cells, summed pair by pair.
TEST(BlockTensor, TwoByTwoBlocksAreThePairAverage) {
    const auto A = table({1.3e-6}), MS = table({800.0});
    const int nx = 7, ny = 5, nz = 2, bx = 2, by = 2, bz = 1;
    const TensorArray T = fast(A, MS, nx, ny, nz, 5e-7, 5e-7, 3e-7);
    TensorArray M;
    blocktensor(T, nx, ny, nz, 5e-7, 5e-7, 3e-7, bx, by, bz, 1, M);
    EXPECT_EQ(M.lo(0), -3);
    EXPECT_EQ(M.hi(0), 4);
    EXPECT_EQ(M.hi(1), 3);
    EXPECT_EQ(M.hi(2), 3);
    int compared = 0;
    for (int I = M.lo(0); I <= M.hi(0); ++I)
        for (int J = M.lo(1); J <= M.hi(1); ++J)
            for (int K = M.lo(2); K <= M.hi(2); ++K) {
                bool in = true;
                double sum[9] = {};
                for (int ti = 0; ti < bx; ++ti)
                    for (int tj = 0; tj < by; ++tj)
                        for (int si = 0; si < bx; ++si)
                            for (int sj = 0; sj < by; ++sj) {
                                const int i = I * bx + ti - si, j = J * by + tj - sj, k = K * bz;
                                if (!T.contains({i, j, k, 1, 1})) {
                                    in = false;
                                    continue;
                                }
                                for (int c = 0; c < 9; ++c) sum[c] += T(i, j, k, c + 1, 1);
                            }
                if (!in) continue;
                ++compared;
                for (int c = 0; c < 9; ++c)
                    EXPECT_NEAR(M(I, J, K, c + 1, 1), sum[c] / (bx * by * bz), 1e-13 * std::fabs(sum[c]) + 1e-15)
                        << I << " " << J << " " << K << " component " << c + 1;
            }
    EXPECT_GT(compared, 100);
}

// Without exchange the block tensor is the Newell tensor of cells as large
// as the blocks (a uniformly magnetized block's mean field), at every block
// offset, also those whose pairs reach beyond the grid.
TEST(BlockTensor, EqualsTheTensorOfBlockSizedCells) {
    const auto A = table({0.0}), MS = table({800.0});
    const double dx = 5e-7, dy = 4e-7, dz = 3e-7;
    const int nx = 8, ny = 6, nz = 2;  // 9 x 7 x 3 cells: the last blocks are partial
    const TensorArray T = accurate(A, MS, nx, ny, nz, dx, dy, dz);
    TensorArray M;
    blocktensor(T, nx, ny, nz, dx, dy, dz, 3, 2, 1, 1, M);
    const TensorArray big = accurate(A, MS, 2, 3, 2, 3 * dx, 2 * dy, dz);
    ASSERT_EQ(M.size(), big.size());
    const double tol = 1e-12 * max_abs(big);
    for (std::size_t n = 0; n < M.size(); ++n) ASSERT_NEAR(M.data()[n], big.data()[n], tol) << n;
}

// TENSOR_MACRO writes the block tensor of the last SET_SCALE's blocks in
// both tensor file forms.
TEST(BlockTensor, CommandWritesBothFiles) {
    TempDir d;
    const std::string out =
        run_in(d, "SET_CELL\n5e-7 5e-7 3e-7\nMASQUE_CREATE\n4e-6 3e-6 6e-7\nADD_SHAPE\n3\n4e-6 3e-6 6e-7 0 0 0 1\n"
                  "LOAD_MAT\n1\n1.3e-6 800\nTENSOR_CREATE\n0\nSET_SCALE\n2 2 1\nTENSOR_MACRO\nEND\n");
    EXPECT_TRUE(holds(out, {" TENSOR_MACRO ok\n"}));
    const auto A = table({1.3e-6}), MS = table({800.0});
    TensorArray want;
    blocktensor(fast(A, MS, 7, 5, 1, 5e-7, 5e-7, 3e-7), 7, 5, 1, 5e-7, 5e-7, 3e-7, 2, 2, 1, 1, want);
    TensorArray bin = make_tensor(3, 2, 1, 1), txt = make_tensor(3, 2, 1, 1);
    loadtensor(bin, 3, 2, 1, 1, 1, (d.path() / "macro.dat").string());
    loadtensort(txt, 3, 2, 1, 1, 1, (d.path() / "macro.txt").string());
    EXPECT_TRUE(bin == want);
    EXPECT_TRUE(txt == want);
}
