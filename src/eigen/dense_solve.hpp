#pragma once
// Dense eigen solve of the dynamic matrix and the ordering of the modes.
//
// Sign convention of the stored modes: for mode p with W(p,1) = f_p > 0 and
// W(p,2) = g_p, the right vector v (MODES(:,:,p), rows 2n-1+c-1 for cell n,
// component c) satisfies A v = (-g_p + i f_p) v, and the left vector u
// (MODESL) satisfies u^H A = (-g_p + i f_p) u^H.
#include <cstdint>
#include <vector>

#include "core/array.hpp"
#include "eigen/dynamic_matrix.hpp"

namespace torix {

// Where a solve stores its modes (the ModeSet arrays of the model state).
struct ModeOutput {
    int& nmodes;
    Array<double, 2>& W;       // (1:nmodes, 1:2): f, g
    Array<double, 1>& PHASES;  // (1:nmodes): 0
    Array<double, 1>& ZOUT;    // (1:nmodes): solver position of the mode
    Array<cplx, 3>& MODES;     // (1:N, 1:2, 1:nmodes) right vectors
    Array<cplx, 3>& MODESL;    // (1:N, 1:2, 1:nmodes) left vectors
};

// Allocates the ModeSet arrays of `kept` modes over N numbers, zeroed, and
// sets the mode count.
inline void allocate_modes(ModeOutput& out, int N, int kept) {
    out.nmodes = kept;
    out.W.allocate({Range{1, kept}, Range{1, 2}}, 0.0);
    out.MODES.allocate({Range{1, N}, Range{1, 2}, Range{1, kept}}, cplx{});
    out.MODESL.allocate({Range{1, N}, Range{1, 2}, Range{1, kept}}, cplx{});
    out.ZOUT.allocate({Range{1, kept}}, 0.0);
    out.PHASES.allocate({Range{1, kept}}, 0.0);
}

// Result of one dgeevx call in LAPACK's packing.
struct DenseEigen {
    std::vector<double> WR, WI, VL, VR;  // VL, VR column-major n x n
};

// dgeevx with balancing ('B'), both vector sets, no condition numbers and
// LWORK = 25 n; A (order n, column-major) is overwritten.  INFO is returned
// but not acted on.
int dense_eigen(int n, double* A, DenseEigen& out);

// Selection of up to nsel modes from the odd solver positions 1, 3, ...,
// 2N-1 by increasing |WI| (equal keys by increasing position, WI = 0 never
// taken).  Entry p-1 is q (position 2q-1 of mode p), or -1 when no mode was
// found for that place; the list has min(nsel, N) places, since places
// beyond N could never be filled.  WR, WI are 0-based arrays of length 2N.
std::vector<int> select_modes(const double* WR, const double* WI, int N, int nsel);

// Orders and stores the modes of one eigenvector matrix V (order 2N,
// column-major, LAPACK packing): W (1:nmodes, 1:2), vectors (1:N, 1:2,
// 1:nmodes), ZOUT = the odd solver position 2q-1.  Places without a mode are
// not stored; returns nmodes.  When the odd member of the selected pair has
// a negative imaginary part, the pair sits at positions 2q-2, 2q-1: the
// stored vector is then column 2q-2 + i column 2q-1, the eigenvector of
// the positive-frequency member.
int sort(const double* WR, const double* WI, const double* V, int N, int nsel, Array<double, 2>& W,
         Array<cplx, 3>& vectors, Array<double, 1>& ZOUT);

// Builds the matrix, solves it densely and stores the modes (right and
// left), printing "matrix prepared in" and "matrix solved in" with the
// processor seconds of each step.
void calcmatrix(const MatrixInput& in, int nsel, ModeOutput out);

}  // namespace torix
