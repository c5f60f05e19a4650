#pragma once
// Incomplete LU with k fill levels of a sparse matrix of 2 x 2 blocks, whose
// triangular solves run in parallel over parts of the matrix.
//
// The block rows (one per pair of numbers) are split into `parts` ranges of
// consecutive rows; the rows coupled to another range form the separator.
// Each range without its separator rows comes first, in its own order, the
// separator last: no entry, original or fill, then joins two ranges (a fill
// entry (i, j) needs a pivot before both, and every earlier pivot of i's
// range couples only to that range and the separator), so the ranges are
// factored and solved independently and the separator after them.  Level of
// fill as in Saad, "Iterative Methods for Sparse Linear Systems" (2nd ed.,
// 2003), section 10.3.3; the pivots are whole 2 x 2 blocks, so that an
// undamped number's block [[0, b], [c, 0]] is a regular pivot.
//
// The parts follow the size of the matrix alone, never the thread count,
// and each row is computed by one thread in a fixed order: the solves give
// the same bits on any number of threads.
#include <array>
#include <complex>
#include <cstdint>
#include <vector>

#include "eigen/mode_product.hpp"

namespace torix {

class BlockILU {
public:
    // The incomplete LU of S - sigma I (S of even order, both rows of a
    // pair holding the same block columns) with `levels` fill levels, the
    // rows split into `parts` ranges (0: chosen from the size).  A singular
    // pivot block is a FatalError.
    BlockILU(const ComplexSparse& S, cplx sigma, int levels, int parts = 0);
    // y = (L U)^-1 x and y = (L U)^-T x (transpose, not conjugate), vectors of
    // the order of S; x and y may not overlap.
    void solve(const cplx* x, cplx* y) const;
    void solve_transpose(const cplx* x, cplx* y) const;
    [[nodiscard]] int parts() const { return static_cast<int>(range_.size()) - 2; }
    [[nodiscard]] std::int64_t blocks() const { return static_cast<std::int64_t>(lcol_.size() + ucol_.size() + nb_); }
    // The block row of each position of the factor's order (old index).
    [[nodiscard]] const std::vector<int>& order() const { return old_; }

    using Block = std::array<cplx, 4>;  // column-major 2 x 2

private:
    int nb_ = 0;
    std::vector<int> old_;          // new position -> block row of S
    std::vector<int> range_;        // positions: part p is [range_[p], range_[p+1]), the separator the last range
    std::vector<std::int64_t> ls_;  // strictly lower part, rows by new position, columns increasing
    std::vector<int> lcol_;
    std::vector<Block> lval_;
    std::vector<std::int64_t> us_;  // strictly upper part
    std::vector<int> ucol_;
    std::vector<Block> uval_;
    std::vector<Block> dinv_;  // inverses of the pivot blocks
    std::vector<int> slot_;    // block row of S -> its place in the separator, or -1
};

// The parts for a matrix of nb block rows: one below 5·10^4, two below
// 2·10^5, four from there.
int ilu_parts(int nb);

}  // namespace torix
