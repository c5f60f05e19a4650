#pragma once
// The cell-by-cell parts of the operator's products (mode_operator.hpp),
// shared by the one-process operator and the one shared over ranks
// (mode_operator_mpi.hpp): given the pair sums h of every magnetic cell,
// the rows of numbers n_begin..n_end-1 (1-based).  x is the whole vector
// (2N entries); y holds the rows of those numbers only, y[0] the first
// row of n_begin.  The pair sums of cell c: component k of the real part at
// re[stride c + k], of the imaginary part at im[stride c + k].
#include <cstddef>
#include <vector>

#include "eigen/dynamic_matrix.hpp"

namespace torix {

// Rows of A x: (1/w_n) sum over the number's cells of G_i (h_i + J-terms) + S_i x_n.
void product_rows(const MatrixInput& in, const MagneticCells& c, const double* re, const double* im, int stride,
                  const cplx* x, cplx* y, int n_begin, int n_end);

// The deviations of A^T's pair sum, u_c = G_c^T x_n / w_n, for cells
// c_begin..c_end-1 (3 per cell).
void transposed_sources(const MatrixInput& in, const MagneticCells& c, const cplx* x, cplx* u, std::size_t c_begin,
                        std::size_t c_end);

// Rows of A^T x, from the pair sums of u (every cell's u, for the local
// terms' blocks, by source: local_in).
void transposed_rows(const MatrixInput& in, const MagneticCells& c, const std::vector<std::vector<LocalBlock>>& local_in,
                     const double* re, const double* im, int stride, const cplx* u, const cplx* x, cplx* y,
                     int n_begin, int n_end);

// The local terms' blocks seen from their source cell (target index and J).
std::vector<std::vector<LocalBlock>> blocks_by_source(const MagneticCells& c);

}  // namespace torix
