#pragma once
// The dynamic matrix: the Landau-Lifshitz equation linearised around the
// equilibrium, in a local frame attached to each numbered cell.
//
// Rows and columns 2n-1, 2n (1-based) belong to cell number n: component 1
// along the polar unit vector, component 2 along the azimuthal unit vector
// of the cell's equilibrium magnetization.  For a target cell P_i and a
// source cell P_j the 2x2 block added at (number(P_i), number(P_j)) is the
// upper-left part of
//     R_i^T [ (I + alpha/Ms_i [m_i x]) ([m_i x] D - delta_ij [h_i x]) - delta_ij c_i I ] R_j
// with D the tensor block read at offset P_i - P_j in the source cell's
// material, h_i the equilibrium effective field, c_i = m_i . happ / Ms_i.
// Rows of a number carried by w grid cells are divided by w afterwards
// (rows averaged, columns summed).  No gyromagnetic factor enters: the
// eigenvalues are in Oe.  The local field terms (local_terms.hpp) enter
// through their Jacobian blocks J (dH/dM), each added exactly as a tensor
// block D, as G_i J Q_j below.
#include <array>
#include <cstdint>
#include <vector>

#include "core/array.hpp"
#include "dynamics/local_terms.hpp"

namespace torix {

// Everything the assembly reads.  `happ` is the applied-field vector of the
// c_i term, `alpha` the damping constant.
struct MatrixInput {
    const IntGrid& MASQUE;
    const IntGrid& NUM;
    const VecGrid& M;
    const VecGrid& H;
    std::array<double, 3> happ;
    double alpha;
    const Array<double, 1>& MS;
    const TensorArray& AIJ;
    const Array<std::int32_t, 1>& w;  // multiplicities 1..N
    int nx, ny, nz, N;
    const LocalTerms* terms = nullptr;  // the field terms beside the tensor (none when null)
};

// Local frame of a magnetization vector: R (column-major, R[k + 3c] is row
// k, column c, 0-based) with columns polar, azimuthal, m direction.
void local_frame(const double m[3], double R[9]);

// The per-grid-cell factors of the matrix.  With Q_j the first two columns
// of R_j (3x2), G_i rows 1, 2 of R_i^T (I + alpha/Ms [m_i x]) [m_i x] (2x3)
// and S_i the upper-left 2x2 part of R_i^T (-(I + alpha/Ms [m_i x]) [h_i x]
// - c_i I) R_i, the block of the pair (P_i, P_j) is G_i D Q_j, plus S_i when
// P_j is P_i.  All column-major.
struct CellBlocks {
    std::array<double, 6> Q{};
    std::array<double, 6> G{};
    std::array<double, 4> S{};
};
CellBlocks cell_blocks(const double m[3], const double h[3], double ms, double alpha,
                       const std::array<double, 3>& happ);

// A Jacobian block of the local terms seen from its target cell: the
// source cell (an index into MagneticCells) and dH(target)/dM(source).
struct LocalBlock {
    int source = 0;
    std::array<double, 9> J{};  // column-major
    std::array<int, 3> offset{0, 0, 0};  // target minus the source's image, in cells (for Bloch phases)
};

// The magnetic cells of a model in grid order (x outermost, z innermost)
// with their per-cell factors and the cells that carry each number: what
// the assembled matrix and the matrix-free operator both start from.
// `local` holds, per target cell, the Jacobian blocks of the local terms
// (empty without terms); the pair (i, j) adds G_i J Q_j for each.
struct MagneticCells {
    std::vector<int> x, y, z, num, mat;
    std::vector<CellBlocks> blk;
    std::vector<std::vector<LocalBlock>> local;
    std::vector<std::vector<int>> of_number;  // 1..N: indices (into the lists above) of the number's cells
    std::vector<int> materials;               // the materials present, increasing
    [[nodiscard]] std::size_t size() const { return x.size(); }
};
MagneticCells magnetic_cells(const MatrixInput& in);
// The 2x2 block G_i J Q_j of one local Jacobian block (column-major).
std::array<double, 4> local_block(const CellBlocks& target, const LocalBlock& b, const CellBlocks& source);

// Rows of the dynamic matrix, number by number.  The frames and the per-cell
// products are built once; rows(n, buf) is then safe to call from several
// threads at once and always gives the same bits.
class MatrixRows {
public:
    explicit MatrixRows(const MatrixInput& in);
    [[nodiscard]] int N() const { return N_; }
    [[nodiscard]] int order() const { return 2 * N_; }
    // Writes rows 2n-1 and 2n (already divided by w(n)) into buf, row-major:
    // buf[r * 2N + col], r = 0, 1, col = 0..2N-1.
    void rows(int n, double* buf) const;

private:
    int N_ = 0;
    const TensorArray& AIJ_;
    std::ptrdiff_t cstride_ = 0;
    MagneticCells c_;
    std::vector<int> w_;
};

// Dense matrix, column-major, order 2N, assembled in parallel over numbers.
void assemble_dense(const MatrixInput& in, double* A);

// Element list of the matrix, sorted by row, then column.  Elements with
// |value| <= threshold (absolute, Oe) are left out; row_start has 2N+1
// entries (0-based positions of each row's first element).
struct SparseMatrix {
    int n = 0;
    std::vector<std::int32_t> row, col;  // 1-based
    std::vector<double> val;
    std::vector<std::int64_t> row_start;
    [[nodiscard]] std::int64_t count() const { return static_cast<std::int64_t>(val.size()); }
};
void assemble_sparse(const MatrixInput& in, double threshold, SparseMatrix& S);

// y = S x (y(row_k) += value_k x(col_k), row by row in element order).
void sparse_product(const SparseMatrix& S, const double* x, double* y);
// The element list of the transposed matrix, in the same sorted form.
SparseMatrix transpose(const SparseMatrix& S);

}  // namespace torix
