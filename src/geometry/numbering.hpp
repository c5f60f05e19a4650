#pragma once
// Running numbers of the magnetic cells, block by block.
#include "core/array.hpp"

namespace torix {

// Numbers blocks of bx x by x bz cells (each size >= 1) that hold at least
// one magnetic cell, 1..N, with the z block varying fastest, then y, then x.
// Every magnetic cell of a block gets the block's number; empty cells get 0.
void number(const IntGrid& MASQUE, IntGrid& NUM, int nx, int ny, int nz, int& N, int bx, int by, int bz);

}  // namespace torix
