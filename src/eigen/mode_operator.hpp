#pragma once
// The dynamic matrix as an operator, without storing it: y = A x for
// complex x of length 2N (rows 2n-1, 2n of cell number n, 0-based 2(n-1)
// and 2(n-1)+1 here), equal to the assembled matrix (dynamic_matrix.hpp)
// times x to rounding.
//
// With Q_j, G_i, S_i the per-cell factors of CellBlocks,
//     (A x)_n = (1/w_n) sum_{P_i in n} [ G_i h_i + S_i x_n ],
//     h_i = sum_{P_j} D(P_i - P_j, material of P_j) Q_j x_number(P_j),
// so the pair sum is the demagnetizing/exchange field of the Cartesian
// deviation Q_j x_j, evaluated with the Fourier convolution of the tensor
// (fft_field.hpp) once for the real and once for the imaginary part; the
// rest is cell by cell.  The Jacobian blocks of the local terms add
// J Q_j x_j to h_i directly.  The transposed product uses that every tensor
// block is the transpose of the block at the opposite offset, D(-r) = D(r)^T
// (symmetric and even: Newell blocks, exchange, anisotropy; antisymmetric
// and odd: the DMI): the pair sum of A^T is then the same convolution read
// with the TARGET cell's material, one convolution per material present.
#include <array>
#include <cstddef>
#include <vector>

#include "core/array.hpp"
#include "dynamics/fft_field.hpp"
#include "eigen/dynamic_matrix.hpp"
#include "eigen/mode_product.hpp"

namespace torix {

class ModeOperator : public ModeProduct {
public:
    // Builds the frames, the per-cell factors and a Fourier form of in.AIJ of
    // its own (so anisotropy added to a Fourier form alone, which the
    // assembled matrix does not see, stays out as well).  `in` must outlive
    // the operator.  `threads`: the threads its products will run on (0: as
    // many as the run has), which decides whether the real and imaginary
    // convolutions of a product run at once.
    explicit ModeOperator(const MatrixInput& in, int threads = 0);
    // A plain copy would share the work buffers.
    ModeOperator(const ModeOperator&) = delete;
    ModeOperator& operator=(const ModeOperator&) = delete;

    [[nodiscard]] int N() const { return in_.N; }
    [[nodiscard]] int order() const override { return 2 * in_.N; }
    // False when some tensor block is not the transpose of the block at the
    // opposite offset, D(-r) != D(r)^T: apply_transpose is then not the
    // transpose.
    [[nodiscard]] bool reciprocal_tensor() const { return reciprocal_; }

    // y = A x and y = A^T x (x, y of length 2N, not overlapping).  One
    // product at a time: the Fourier form's work buffers are shared.
    void apply(const cplx* x, cplx* y) const override;
    void apply_transpose(const cplx* x, cplx* y) const override;

    // The entries of A between grid cells at most `radius` apart along
    // every axis (rows averaged as in A): a sparse local part, for a
    // preconditioner.  Cells of one number share their rows.  With
    // lump_far, each cell's diagonal block also gets the far cells' tensor
    // blocks as if their deviation were the cell's own, G_i (sum over far
    // P_j of D) Q_i: the part of the long-range dipolar field that a
    // smooth mode sees (the film's demagnetizing field), which the near
    // blocks alone miss.
    // Only the rows of numbers n_begin..n_end-1 (1-based; n_end 0: to N)
    // are filled, the others left empty (a rank's share of the rows).
    [[nodiscard]] SparseMatrix local_part(int radius, bool lump_far = false, int n_begin = 1, int n_end = 0) const;

    // Bytes held by the operator (factors, scratch grids, Fourier form).
    [[nodiscard]] std::size_t bytes() const;

private:
    // Pair sum of lane `lane`'s Cartesian grid field V_[lane] (zero outside
    // magnetic cells) into out[3 c + k] for magnetic cell c, with the
    // sources read as `mask` says (the model's mask, or every magnetic cell
    // as material m); only cells of material m are written when m > 0.
    void convolve(int lane, const IntGrid& mask, int m, std::vector<double>& out) const;
    // The mask for material m's convolution of the transposed product (the
    // model's own for one material).
    const IntGrid& mask_as(int m) const;
    // Scratch grids and per-cell buffers, and whether the lanes run at once
    // (the second lane's Fourier form made then), for `threads` threads.
    void prepare_work(int threads);

    MatrixInput in_;
    bool reciprocal_ = true;
    MagneticCells c_;  // magnetic cells, their factors and materials
    // Two lanes, one for the real and one for the imaginary part of a
    // product, each with its own grids and, when they run at the same time
    // on two threads, its own Fourier form (work buffers); otherwise both
    // use F_[0].
    std::array<FourierTensor, 2> F_;
    mutable std::array<VecGrid, 2> V_, Hd_;        // scratch grids of one convolution per lane
    bool lanes_parallel_ = false;                  // grid large enough for the lanes to run on two threads
    mutable IntGrid fake_;                         // every magnetic cell as one material
    mutable std::vector<double> hre_, him_;        // pair sums per cell, 3 each
    mutable std::vector<cplx> u_;                  // per-cell 3-vectors of the transposed product
    // The local terms' blocks seen from their source cell (target index and
    // J), for the transposed product.
    std::vector<std::vector<LocalBlock>> local_in_;
};

}  // namespace torix
