#pragma once
// What the matrix-free solve needs of an operator of order 2N: its
// products with a complex vector and with the transposed operator, and a
// sparse local part of it for the preconditioner.
#include <cstdint>
#include <vector>

#include "core/array.hpp"
#include "eigen/dynamic_matrix.hpp"

namespace torix {

class ModeProduct {
public:
    virtual ~ModeProduct() = default;
    [[nodiscard]] virtual int order() const = 0;
    // y = A x and y = A^T x (x, y of length order(), not overlapping).
    virtual void apply(const cplx* x, cplx* y) const = 0;
    virtual void apply_transpose(const cplx* x, cplx* y) const = 0;
    // Whether the rows are shared out over the ranks: every rank then calls
    // the products together, with x and y its own rows
    // [first_row(), first_row() + local_rows()) of the vectors.
    [[nodiscard]] virtual bool shared() const { return false; }
    [[nodiscard]] virtual int first_row() const { return 0; }
    [[nodiscard]] virtual int local_rows() const { return order(); }
    // How far past its own rows a rank's factor of the preconditioner
    // reaches on either side, in rows (shared rows only).
    [[nodiscard]] virtual int overlap_rows() const { return 0; }

protected:
    ModeProduct() = default;
    ModeProduct(const ModeProduct&) = default;
    ModeProduct& operator=(const ModeProduct&) = default;
};

// A sparse complex matrix of order n sorted by row, then column: row r
// holds the entries row_start[r] .. row_start[r+1]-1, columns 0-based.
struct ComplexSparse {
    int n = 0;
    std::vector<std::int64_t> row_start;
    std::vector<std::int32_t> col;
    std::vector<cplx> val;
};

// The same matrix with complex entries.
ComplexSparse complex_sparse(const SparseMatrix& S);
// Rows and columns first..first+count-1 of S, numbered from 0.
ComplexSparse diagonal_block(const ComplexSparse& S, int first, int count);

}  // namespace torix
