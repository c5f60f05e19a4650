#include "eigen/mode_operator_mpi.hpp"

#include <algorithm>

#include "core/ranks.hpp"
#include "eigen/mode_rows.hpp"

namespace torix {

SlabModeOperator::SlabModeOperator(const MatrixInput& in) : in_(in), c_(magnetic_cells(in)), me_(my_rank()) {
    local_in_ = blocks_by_source(c_);
    numbers_ = split_evenly(static_cast<std::size_t>(in.N), rank_count());
    for (std::size_t first : numbers_) doubles_.push_back(4 * first);  // two complex rows a number
    whole_.assign(2 * static_cast<std::size_t>(in.N), cplx{});
    if (c_.materials.size() == 1 && SlabConvolution::applicable(in.AIJ, c_.materials[0], in.nx, in.ny, in.nz)) {
        slab_ = std::make_unique<SlabConvolution>(MPI_COMM_WORLD, in.AIJ, c_.materials[0], in.nx, in.ny, in.nz, c_.x,
                                                  c_.y, c_.z);
        src_.assign(SlabConvolution::kPerCell * c_.size(), 0.0);
        h_.assign(SlabConvolution::kPerCell * c_.size(), 0.0);
        u_.assign(3 * c_.size(), cplx{});
    } else {
        one_ = std::make_unique<ModeOperator>(in);
        y_whole_.assign(whole_.size(), cplx{});
    }
}

bool SlabModeOperator::gather(const cplx* x, cplx* y, bool transposed) const {
    gather_pieces(reinterpret_cast<const double*>(x), reinterpret_cast<double*>(whole_.data()), doubles_);
    if (!one_) return false;
    transposed ? one_->apply_transpose(whole_.data(), y_whole_.data()) : one_->apply(whole_.data(), y_whole_.data());
    std::copy(y_whole_.begin() + first_row(), y_whole_.begin() + first_row() + local_rows(), y);
    return true;
}

void SlabModeOperator::apply(const cplx* x, cplx* y) const {
    if (gather(x, y, false)) return;
    const int n0 = static_cast<int>(numbers_[me_]) + 1, n1 = static_cast<int>(numbers_[me_ + 1]) + 1;
    constexpr int P = SlabConvolution::kPerCell;
    const auto c0 = static_cast<std::ptrdiff_t>(slab_->first_cell()), c1 = static_cast<std::ptrdiff_t>(slab_->end_cell());
#pragma omp parallel for schedule(static) if (c1 - c0 > 4096)
    for (std::ptrdiff_t c = c0; c < c1; ++c) {
        const auto& Q = c_.blk[c].Q;
        const std::size_t r = 2 * static_cast<std::size_t>(c_.num[c] - 1);
        const cplx a = whole_[r], b = whole_[r + 1];
        for (int k = 0; k < 3; ++k) {
            const cplx v = Q[k] * a + Q[k + 3] * b;
            src_[P * c + k] = v.real();
            src_[P * c + 3 + k] = v.imag();
        }
    }
    slab_->convolve(src_.data(), h_.data());
    product_rows(in_, c_, h_.data(), h_.data() + 3, P, whole_.data(), y, n0, n1);
}

void SlabModeOperator::apply_transpose(const cplx* x, cplx* y) const {
    if (gather(x, y, true)) return;
    const int n0 = static_cast<int>(numbers_[me_]) + 1, n1 = static_cast<int>(numbers_[me_ + 1]) + 1;
    constexpr int P = SlabConvolution::kPerCell;
    // Every cell's u: the local terms' blocks read it across the pieces.
    transposed_sources(in_, c_, whole_.data(), u_.data(), 0, c_.size());
    const auto c0 = static_cast<std::ptrdiff_t>(slab_->first_cell()), c1 = static_cast<std::ptrdiff_t>(slab_->end_cell());
#pragma omp parallel for schedule(static) if (c1 - c0 > 4096)
    for (std::ptrdiff_t c = c0; c < c1; ++c)
        for (int k = 0; k < 3; ++k) {
            src_[P * c + k] = u_[3 * c + k].real();
            src_[P * c + 3 + k] = u_[3 * c + k].imag();
        }
    // One material: the transposed pair sum is the same convolution
    // (mode_operator.hpp).
    slab_->convolve(src_.data(), h_.data());
    transposed_rows(in_, c_, local_in_, h_.data(), h_.data() + 3, P, u_.data(), whole_.data(), y, n0, n1);
}

}  // namespace torix
