#pragma once
// Mode amplitudes from each cell's local frame to Cartesian components.
//
// The local frame of a cell is built from its equilibrium magnetization m:
// column 1 is the polar unit vector (cos t cos p, cos t sin p, -sin t),
// column 2 the azimuthal unit vector (-sin p, cos p, 0), column 3 the
// direction of m.  When |mz| >= 0.9999999 |m| the frame is the identity
// (m along +z) or has cos t = -1, cos p = 1 (m along -z).  The frame is
// the one the dynamic matrix is built in (local_frame of
// eigen/dynamic_matrix.hpp).
#include "core/array.hpp"

namespace torix {

// Cartesian amplitudes of mode p: out(n, k), n = 1..N, k = 1..3, from the
// local amplitudes modes(n, c, p), c = 1 polar, 2 azimuthal.  Each magnetic
// grid cell (nonzero MASQUE, 1 <= NUM <= N) turns the amplitudes of its
// number into x, y, z with its own frame; a number shared by several grid
// cells gets the average of their Cartesian vectors.  Numbers without any
// grid cell stay 0.  `out` is allocated afresh.
void local_to_cart(int nx, int ny, int nz, int N, const IntGrid& MASQUE, const IntGrid& NUM, const VecGrid& M,
                   const Array<cplx, 3>& modes, int p, Array<cplx, 2>& out);

// The same conversion cell by cell: u(i, j, k, 1:3) = R (a1, a2, 0) with R
// the frame of the cell's own magnetization and (a1, a2) = modes(NUM, 1:2,
// p), so cells that share a number keep their own directions.  Empty cells
// and cells without a number in 1..N get 0.  `u` is allocated afresh over
// (0:nx, 0:ny, 0:nz, 1:3).
void local_to_cart(int nx, int ny, int nz, int N, const IntGrid& MASQUE, const IntGrid& NUM, const VecGrid& M,
                   const Array<cplx, 3>& modes, int p, CVecGrid& u);

}  // namespace torix
