#pragma once
// Following mode branches from one solve to the next (along a path of wave
// vectors or applied fields), by the overlap of the mode vectors rather than
// by frequency order, so that branches keep their identity where they cross.
//
// The weight of new mode i continuing old mode j is the share of the old
// right vector r_j carried by the new mode i in the biorthogonal expansion
// r_j = sum_i c_ij r_i (c_ij = l_i^H r_j / l_i^H r_i, l_i the new left
// vector), measured in the norm of the vectors:
//   w_ij = |c_ij| |r_i| / |r_j|,
// so that w = 1 for an unchanged mode and w -> 0 for a mode unrelated to it.
// Branches are then paired so that the sum of the weights is largest
// (Kuhn's assignment method, Naval Res. Logist. Q. 2, 83 (1955)), and a pair
// whose weight is below `min_weight` is not taken.
//
// Mode arrays are laid out as the ModeSet keeps them: (n, c, p), cell number
// n = 1..N, local component c = 1..2, mode p = 1..nmodes.  Both solves must
// use the same numbering (same N); the local frames are taken as they are,
// which suits paths along which the equilibrium changes little per step.
#include <vector>

#include "core/array.hpp"

namespace torix {

// weights[(i - 1) * nold + (j - 1)] = w_ij for new mode i = 1..nnew and old
// mode j = 1..nold.  A new mode whose left and right vectors are orthogonal
// (no biorthogonal expansion) gets weight 0 with every old mode.
std::vector<double> branch_weights(const Array<cplx, 3>& old_right, int nold, const Array<cplx, 3>& new_right,
                                   const Array<cplx, 3>& new_left, int nnew);

// For each new mode i = 1..nnew, the old mode j (1..nold) it continues, or 0
// when it starts a new branch.  Each old mode is continued at most once.
std::vector<int> match_branches(const std::vector<double>& weights, int nnew, int nold, double min_weight);

}  // namespace torix
