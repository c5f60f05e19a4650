#pragma once
// The Bloch matrix (bloch_dense.hpp) as an operator, without storing it:
// y = A x for complex x of length 2N, equal to the assembled matrix times x
// to rounding.  As for ModeOperator (mode_operator.hpp),
//     (A x)_n = (1/w_n) sum_{P_i in n} [ G_i h_i + S_i x_n ],
//     h_i = sum_{P_j} K(P_i - P_j, material of P_j) Q_j x_number(P_j),
// the pair sum now a complex convolution with the Bloch kernel K: circular
// along the periodic axes (K is periodic there, one period of n + 1 cells),
// zero-padded to 2(n + 1) along the others.  The transposed product is the
// convolution with the kernel K(-o)^T, read with the TARGET cell's material
// (the Hermitian kernel, K(-o)^T = conj K(o), gives the same to rounding of
// the lattice sums; the flipped kernel needs no such property).
#include <array>
#include <complex>
#include <memory>
#include <vector>

#include "core/periodic.hpp"
#include "eigen/bloch_kernel.hpp"
#include "eigen/dynamic_matrix.hpp"
#include "eigen/mode_product.hpp"

namespace torix {

namespace detail {
struct BlochPlans;  // FFTW plans and work grids of one operator
struct BlochSpectra;
}  // namespace detail

class BlochOperator : public ModeProduct {
public:
    // The Fourier forms of K (offsets -n..n of every axis) and of its flipped
    // transpose, for every material present.  `in` must outlive the
    // operator.  `kcell` (wave_per_cell) phases the local terms' blocks.
    // Plans FFTW transforms: not beside another planner.
    BlochOperator(const MatrixInput& in, const BlochKernel& K, const Periodicity& p,
                  const std::array<double, 3>& kcell);
    BlochOperator(const BlochOperator&) = delete;
    BlochOperator& operator=(const BlochOperator&) = delete;
    ~BlochOperator() override;

    [[nodiscard]] int N() const { return in_.N; }
    [[nodiscard]] int order() const override { return 2 * in_.N; }
    void apply(const cplx* x, cplx* y) const override;
    void apply_transpose(const cplx* x, cplx* y) const override;

    // The entries of A between cells at most one cell apart along every
    // axis (across the periodic boundaries too), rows averaged, with each
    // cell's far field lumped onto its diagonal block as if the far cells'
    // deviation were its own (see ModeOperator::local_part).
    [[nodiscard]] ComplexSparse local_part() const;

private:
    // out(3 c + a) = sum_j Ker(P_c - P_j) src(3 j + ...) for every magnetic
    // cell c: with `transposed` false the kernel of each source's material,
    // else the flipped kernel of each target's material.
    void convolve(const std::vector<cplx>& src, bool transposed, std::vector<cplx>& out) const;

    MatrixInput in_;
    MagneticCells c_;
    std::vector<std::vector<cplx>> phase_;  // per cell, the phase of each of its local blocks
    std::array<int, 3> L_{};  // grid lengths of the transforms
    std::shared_ptr<const detail::BlochSpectra> spec_;
    std::unique_ptr<detail::BlochPlans> work_;
    const BlochKernel* K_ = nullptr;         // for local_part (outlives the operator with `in`)
    Periodicity p_;
    mutable std::vector<cplx> src_, h_;
};

}  // namespace torix
