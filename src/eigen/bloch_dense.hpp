#pragma once
// Dense solve of the Bloch problem: the modes of a periodic model at one
// wave vector k.
//
// The unknowns are the periodic part u of the deviation m(r) = u(r) e^{i k.r}
// in each numbered cell's local frame, as for the dynamic matrix
// (dynamic_matrix.hpp), whose block formula is kept with the Bloch kernel K
// (bloch_kernel.hpp) in place of the tensor block D:
//     R_i^T [ (I + alpha/Ms_i [m_i x]) ([m_i x] K - delta_ij [h_i x]) - delta_ij c_i I ] R_j,
// rows of a number averaged, columns summed.  The matrix is complex and not
// Hermitian; its eigenvalues are no longer in pairs -g +- i f.
//
// Time sense: a stored mode moves as Re(u e^{-i f t}) (eigen.md), so the
// deviation of the whole body is Re(u(r) e^{i (k.r - f t)}): a mode with
// f > 0 at k runs along +k.  An eigenvalue -g - i f (f > 0) at k is the mode
// at -k with frequency f (the matrix at -k is the conjugate of the one at
// k), so the modes kept are those with f > 0, by increasing f: all the
// modes at k.  At k = 0 the real path (calcmatrix) runs: the same modes,
// bit for bit, as without a wave vector.
#include <array>

#include "eigen/bloch_kernel.hpp"
#include "eigen/dense_solve.hpp"
#include "eigen/dynamic_matrix.hpp"

namespace torix {

// A model about its equilibrium (as for the solves at k = 0, with the
// periodic tensor in in.AIJ) and the wave vector of the solve.
struct BlochProblem {
    MatrixInput in;
    const NeighbourBlocks& neighbours;  // the nearest-neighbour blocks that in.AIJ holds
    Lattice lattice;
    std::array<double, 3> k{0.0, 0.0, 0.0};  // rad/cm, along periodic axes only
};

// k times the cell size along each axis (rad per cell): what the phases of
// the local terms' blocks need.
[[nodiscard]] inline std::array<double, 3> wave_per_cell(const Lattice& lat, const std::array<double, 3>& k) {
    return {k[0] * lat.dx, k[1] * lat.dy, k[2] * lat.dz};
}

// A local term's block acts on u across its offset o (target minus the
// source's image) with the phase e^{-i k.o}, as the kernel does.
[[nodiscard]] inline cplx local_phase(const LocalBlock& b, const std::array<double, 3>& kcell) {
    return std::polar(1.0, -(kcell[0] * b.offset[0] + kcell[1] * b.offset[1] + kcell[2] * b.offset[2]));
}

// The complex matrix of order 2N, column-major, for the kernel K at the
// wave vector of `kcell` (wave_per_cell).
void assemble_dense_bloch(const MatrixInput& in, const BlochKernel& K, const std::array<double, 3>& kcell, cplx* A);

// Complex eigen solve (zgeevx: balancing, right and left vectors) and the
// modes with f > 0 by increasing f (equal f by solver position), at most
// nsel, stored in `out` with ZOUT the solver position.  A is overwritten.
// Right vectors v: A v = (-g + i f) v; left vectors u: u^H A = (-g + i f) u^H;
// unit norm, largest component real (as LAPACK returns them).
void solve_dense_bloch(int N, cplx* A, int nsel, ModeOutput out);

// The modes at p.k: calcmatrix at k = 0, else the Bloch matrix solved
// densely.  Prints "matrix prepared in" and "matrix solved in" as
// calcmatrix does.
void calcmatrix_bloch(const BlochProblem& p, int nsel, ModeOutput out);

}  // namespace torix
