#pragma once
// Iterative eigen solve of the dynamic matrix: a few modes of smallest
// eigenvalue modulus (the lowest frequencies) by the implicitly restarted
// Arnoldi method, with the matrix held densely (`solvear`) or as an element
// list (`solvears`).
//
// Left vectors: the Arnoldi run gives right vectors only.  The left vectors
// come from a second, silent run on the transposed operator; each right
// mode takes the left mode whose eigenvalue is nearest to its own (a left
// vector stays zero when the second run found no partner).  The modes then
// follow the sign convention of the dense solve (see dense_solve.hpp).
#include <functional>

#include "core/array.hpp"
#include "eigen/dense_solve.hpp"
#include "eigen/dynamic_matrix.hpp"

namespace torix {

// y = OP x for vectors of length n.
using Product = std::function<void(const double* x, double* y)>;

// The reverse-communication loop, the Ritz vectors and the residual table.
// V must be (1:n, 1:ncv) and D (1:ncv, 1:3); returns the number of converged
// Ritz values (0 after a failure).  With `verbose` the console shows the
// Ritz table and the run summary.
int arnoldi(const Product& op, int n, int nev, int ncv, Array<double, 2>& V, Array<double, 2>& D, bool verbose);

// Dense operator (column-major, order n), products with dgemv.
int solvear(const double* A, int n, int nev, int ncv, Array<double, 2>& V, Array<double, 2>& D);
// Element-list operator.
int solvears(const SparseMatrix& S, int n, int nev, int ncv, Array<double, 2>& V, Array<double, 2>& D);

// Orders the converged Ritz values like `sort`: each complex-conjugate pair
// gives one mode with f = |Im|, g = -Re and the eigenvector of the +f member;
// real Ritz values are skipped; modes by increasing f (equal f by position);
// at most nsel are kept.  ZOUT = the Ritz position of the pair's first
// column.  Returns nmodes.
int sort_ar(const Array<double, 2>& D, const Array<double, 2>& V, int nconv, int N, int nsel, Array<double, 2>& W,
            Array<cplx, 3>& vectors, Array<double, 1>& ZOUT);

// Dense-operator path: builds the matrix, prints "matrix created", solves,
// prints "matrix solved", orders and stores nev/2 modes.
void calcmatrix_ns(const MatrixInput& in, int nev, int ncv, ModeOutput out, Array<double, 2>& D,
                   Array<double, 2>& V);
// Element-list path: as calcmatrix_ns, dropping elements with
// |value| <= threshold (Oe) and printing " elements" with their count.
void calcmatrix_s(const MatrixInput& in, int nev, int ncv, double threshold, ModeOutput out, Array<double, 2>& D,
                  Array<double, 2>& V);

}  // namespace torix
