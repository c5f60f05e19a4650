#pragma once
// The block tensor (TENSOR_MACRO): the interaction between blocks of
// bx x by x bz cells, the cells of the present block numbering.
#include "core/array.hpp"

namespace torix {

// Fills M (laid out as make_tensor(Bx - 1, By - 1, Bz - 1, 1), with
// Bx = (nx + bx) / bx blocks along x, likewise By, Bz) from slice m of the
// cell tensor AIJ: for block offset (I, J, K),
//   M(I, J, K) = 1 / (bx by bz) * sum over the cells t of the target block
//                of the sum over the cells s of the source block of T(t - s),
// the mean field over a block from a uniformly magnetized full source
// block, per unit magnetization.  Per axis the pair sum is the sum over
// d = -(b-1)..b-1 of (b - |d|) T(I b + d).  A cell offset outside the
// tensor's range is taken from its mirror -r (the tensor is even under
// inversion) when that lies inside, else (pairs that reach beyond the grid
// in a full block) from the dipolar kernel of calctensorc.  With blocks of
// one cell M is the slice.  Cell sizes in cm; block sizes >= 1.
void blocktensor(const TensorArray& AIJ, int nx, int ny, int nz, double dx, double dy, double dz, int bx, int by,
                 int bz, int m, TensorArray& M);

// blocktensor of slice m, written to "macro.dat" (the binary tensor file
// over block offsets, header Bx - 1, By - 1) and "macro.txt" (its text form).
void calcmacro(const TensorArray& AIJ, int nx, int ny, int nz, double dx, double dy, double dz, int bx, int by,
               int bz, int m);

}  // namespace torix
