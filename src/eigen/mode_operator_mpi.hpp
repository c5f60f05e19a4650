#pragma once
// The operator of mode_operator.hpp with its rows shared out over every
// rank of the run: rank r holds the rows of the numbers in its piece
// (split_evenly, ranks.hpp), and every product is collective.  A product
// gathers x whole on every rank (the local terms and the pair sums read
// neighbours across the pieces), forms the deviations of the rank's slab of
// cells, convolves them with the tensor on the slabs (fft_slab.hpp), and
// writes the rank's rows.  A model whose tensor that route does not take
// (several materials, the DMI) convolves on each rank whole instead, with
// the one-process operator, and still shares the rows, the factor of the
// preconditioner and the Krylov bases.
#include <memory>
#include <optional>
#include <vector>

#include "dynamics/fft_slab.hpp"
#include "eigen/dynamic_matrix.hpp"
#include "eigen/mode_operator.hpp"
#include "eigen/mode_product.hpp"

namespace torix {

class SlabModeOperator : public ModeProduct {
public:
    // Collective.  `in` must outlive the operator.
    explicit SlabModeOperator(const MatrixInput& in);

    [[nodiscard]] int order() const override { return 2 * in_.N; }
    [[nodiscard]] bool shared() const override { return true; }
    [[nodiscard]] int first_row() const override { return static_cast<int>(2 * numbers_[me_]); }
    [[nodiscard]] int local_rows() const override { return static_cast<int>(2 * (numbers_[me_ + 1] - numbers_[me_])); }
    // The rows of kOverlapPlanes planes of cells across x (the axis along
    // which the rows are split, for the grid order): a 200 x 200 film on
    // two ranks took 4336 operator products with none (each rank's factor
    // its own rows only), 2139 with 2 planes, 1758 with 5, and 1660 with 10
    // and with 50, as many as on one rank.
    static constexpr int kOverlapPlanes = 12;
    [[nodiscard]] int overlap_rows() const override { return 2 * overlap_numbers(in_); }
    static int overlap_numbers(const MatrixInput& in) { return kOverlapPlanes * ((in.N + in.nx) / (in.nx + 1)); }
    // Whether the convolution runs on slabs (else whole on every rank).
    [[nodiscard]] bool slabs() const { return slab_ != nullptr; }

    // Collective; x and y this rank's rows.
    void apply(const cplx* x, cplx* y) const override;
    void apply_transpose(const cplx* x, cplx* y) const override;

private:
    // x's rows from every rank, into whole_; when the convolution is not on
    // slabs, also this rank's rows of the whole operator's product (A x, or
    // A^T x when `transposed`) into y, and true.
    bool gather(const cplx* x, cplx* y, bool transposed) const;

    MatrixInput in_;
    MagneticCells c_;
    std::vector<std::vector<LocalBlock>> local_in_;
    int me_ = 0;
    std::vector<std::size_t> numbers_;  // per rank, its first number - 1
    std::vector<std::size_t> doubles_;  // the same in doubles of x, for gather_pieces
    std::unique_ptr<SlabConvolution> slab_;
    std::unique_ptr<ModeOperator> one_;  // the whole product on every rank, when not on slabs
    mutable std::vector<cplx> whole_, y_whole_;  // x gathered; A x whole (not on slabs)
    mutable std::vector<double> src_, h_;        // per cell: the two lanes' deviations and pair sums
    mutable std::vector<cplx> u_;                // per cell: the transposed product's deviations
};

}  // namespace torix
