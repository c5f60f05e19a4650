#include "eigen/mode_operator.hpp"

#include "eigen/mode_rows.hpp"

#include <algorithm>
#include <cmath>
#include <exception>
#include <utility>

#include <omp.h>

namespace torix {

namespace {
// Loops over fewer cells run on one thread: on a busy machine a thread team
// costs more than the work of a small model.
constexpr std::size_t kParallelCells = 4096;
// Padded grids of at least this many points run the real and imaginary
// convolutions of a product on two threads: below it, waking the second
// thread costs more than it saves.
constexpr std::size_t kParallelLanePoints = 4096;
// Above this many padded points the transforms themselves use every thread
// (fft_field.cpp); there the lanes are used only when the run has exactly
// two threads, since a lane runs its transforms on one.
constexpr std::size_t kFftThreadedPoints = 16384;

// work(0) and work(1), on two threads when `parallel`.  Nothing may leave an
// OpenMP region by an exception: the first one caught is thrown after it.
template <class Work>
void run_lanes(bool parallel, const Work& work) {
    std::exception_ptr failed[2];
#pragma omp parallel for schedule(static) num_threads(2) if (parallel)
    for (int part = 0; part < 2; ++part) {
        try {
            work(part);
        } catch (...) {
            failed[part] = std::current_exception();
        }
    }
    for (const std::exception_ptr& e : failed)
        if (e) std::rethrow_exception(e);
}
}  // namespace

ModeOperator::ModeOperator(const MatrixInput& in, int threads) : in_(in), c_(magnetic_cells(in)) {
    const int nx = in.nx, ny = in.ny, nz = in.nz;
    const int nmat = in.MS.extent(0);
    if (nz == 0)
        aijfft2d(in.AIJ, F_[0], nx, ny, nmat);
    else
        aijfft(in.AIJ, F_[0], nx, ny, nz, nmat);
    prepare_work(threads);
    local_in_ = blocks_by_source(c_);
    // Reciprocal blocks: D(-r)_ba = D(r)_ab over the offsets a grid pair can
    // take, to rounding of the largest entry.
    double big = 0.0;
    const TensorArray& T = in.AIJ;
    for (int m : c_.materials)
        for (int c = 1; c <= 9; ++c)
            for (int k = -nz; k <= nz; ++k)
                for (int j = -ny; j <= ny; ++j)
                    for (int i = -nx; i <= nx; ++i) big = std::max(big, std::abs(T(i, j, k, c, m)));
    const double tol = 1e-13 * big;
    for (int m : c_.materials)
        for (int a = 0; a < 3 && reciprocal_; ++a)
            for (int b = 0; b < 3 && reciprocal_; ++b)
                for (int k = -nz; k <= nz && reciprocal_; ++k)
                    for (int j = -ny; j <= ny && reciprocal_; ++j)
                        for (int i = -nx; i <= nx; ++i)
                            if (std::abs(T(i, j, k, 1 + a + 3 * b, m) - T(-i, -j, -k, 1 + b + 3 * a, m)) > tol) {
                                reciprocal_ = false;
                                break;
                            }
}

void ModeOperator::prepare_work(int threads) {
    // Two lanes at once only where the products have two threads
    // (OMP_NUM_THREADS=1 is kept), where a lane's loops and transforms then
    // run on one thread (one active level of parallelism below the lanes)
    // and where that does not take threads from the transforms (more than
    // two threads on a large grid).  The second lane's Fourier form exists
    // only then.
    const std::size_t points = static_cast<std::size_t>(F_[0].L1) * F_[0].L2 * F_[0].L3;
    if (threads <= 0) threads = omp_get_max_threads();
    lanes_parallel_ = points >= kParallelLanePoints && threads > 1 && omp_get_max_active_levels() <= 1 &&
                      (threads == 2 || points <= kFftThreadedPoints);
    if (lanes_parallel_) F_[1] = concurrent_copy(F_[0]);
    for (int lane = 0; lane < 2; ++lane) {
        V_[lane] = make_vec_grid(in_.nx, in_.ny, in_.nz, 0.0);
        Hd_[lane] = make_vec_grid(in_.nx, in_.ny, in_.nz, 0.0);
    }
    if (c_.materials.size() > 1) fake_ = make_int_grid(in_.nx, in_.ny, in_.nz, 0);
    const std::size_t nc = c_.size();
    hre_.assign(3 * nc, 0.0);
    him_.assign(3 * nc, 0.0);
    u_.assign(3 * nc, cplx{});
}

std::size_t ModeOperator::bytes() const {
    const std::size_t nc = c_.size();
    return nc * (5 * sizeof(int) + sizeof(CellBlocks) + 6 * sizeof(double) + 3 * sizeof(cplx)) +
           2 * (V_[0].size() + Hd_[0].size()) * sizeof(double) + fake_.size() * sizeof(std::int32_t) +
           (lanes_parallel_ ? 2 : 1) * (F_[0].spectrum_bytes() + F_[0].work_bytes());
}

const IntGrid& ModeOperator::mask_as(int m) const {
    if (c_.materials.size() == 1) return in_.MASQUE;
    // Every magnetic cell reads as material m: the convolution then uses
    // material m's slice for all sources.
    const std::size_t nc = c_.size();
#pragma omp parallel for schedule(static) if (nc > kParallelCells)
    for (std::size_t c = 0; c < nc; ++c) fake_(c_.x[c], c_.y[c], c_.z[c]) = m;
    return fake_;
}

void ModeOperator::convolve(int lane, const IntGrid& mask, int m, std::vector<double>& out) const {
    VecGrid& Hd = Hd_[lane];
    Hd.fill(0.0);
    calcfieldsfft(V_[lane], in_.MS, {0.0, 0.0, 0.0}, 0.0, mask, F_[lanes_parallel_ ? lane : 0], Hd, in_.nx, in_.ny, in_.nz,
                  in_.MS.extent(0));
    const std::ptrdiff_t nc = static_cast<std::ptrdiff_t>(c_.size());
#pragma omp parallel for schedule(static) if (c_.size() > kParallelCells)
    for (std::ptrdiff_t c = 0; c < nc; ++c) {
        if (m > 0 && c_.mat[c] != m) continue;
        for (int k = 0; k < 3; ++k) out[3 * c + k] = Hd(c_.x[c], c_.y[c], c_.z[c], k + 1);
    }
}

void ModeOperator::apply(const cplx* x, cplx* y) const {
    const std::ptrdiff_t nc = static_cast<std::ptrdiff_t>(c_.size());
    // Lane 0 the real part, lane 1 the imaginary part.  Inside a lane that
    // runs on a thread of its own the loops below are not split again.
    run_lanes(lanes_parallel_, [&](int part) {
#pragma omp parallel for schedule(static) if (c_.size() > kParallelCells)
        for (std::ptrdiff_t c = 0; c < nc; ++c) {
            const auto& Q = c_.blk[c].Q;
            const std::size_t r = 2 * static_cast<std::size_t>(c_.num[c] - 1);
            const double a = part == 0 ? x[r].real() : x[r].imag();
            const double b = part == 0 ? x[r + 1].real() : x[r + 1].imag();
            for (int k = 0; k < 3; ++k) V_[part](c_.x[c], c_.y[c], c_.z[c], k + 1) = Q[k] * a + Q[k + 3] * b;
        }
        convolve(part, in_.MASQUE, 0, part == 0 ? hre_ : him_);
    });
    product_rows(in_, c_, hre_.data(), him_.data(), 3, x, y, 1, in_.N + 1);
}

void ModeOperator::apply_transpose(const cplx* x, cplx* y) const {
    // A^T x = Q^T D^T G^T (W^-1 x) + S^T W^-1 x, cell by cell.
    const std::ptrdiff_t nc = static_cast<std::ptrdiff_t>(c_.size());
    transposed_sources(in_, c_, x, u_.data(), 0, c_.size());
    run_lanes(lanes_parallel_, [&](int part) {
#pragma omp parallel for schedule(static) if (c_.size() > kParallelCells)
        for (std::ptrdiff_t c = 0; c < nc; ++c)
            for (int k = 0; k < 3; ++k) {
                const cplx u = u_[3 * c + k];
                V_[part](c_.x[c], c_.y[c], c_.z[c], k + 1) = part == 0 ? u.real() : u.imag();
            }
    });
    // One convolution per material present, each read with every source as
    // that material and kept on that material's cells (the mask is set
    // before the lanes start; one material reads the model's own mask).
    for (int m : c_.materials) {
        const IntGrid& mask = mask_as(m);
        run_lanes(lanes_parallel_, [&](int part) { convolve(part, mask, m, part == 0 ? hre_ : him_); });
    }
    transposed_rows(in_, c_, local_in_, hre_.data(), him_.data(), 3, u_.data(), x, y, 1, in_.N + 1);
}

SparseMatrix ModeOperator::local_part(int radius, bool lump_far, int n_begin, int n_end) const {
    const int N = in_.N, nx = in_.nx, ny = in_.ny, nz = in_.nz;
    if (n_end <= 0) n_end = N + 1;
    IntGrid index = make_int_grid(nx, ny, nz, -1);
    const std::size_t ncell = c_.size();
    for (std::size_t c = 0; c < ncell; ++c) index(c_.x[c], c_.y[c], c_.z[c]) = static_cast<int>(c);
    const TensorArray& T = in_.AIJ;
    const std::ptrdiff_t cstride = T.stride(3);
    // Sum of the tensor blocks over all sources, per target cell and column
    // (far[9 c + a + 3 b]): the field of a unit magnetization along b on every
    // magnetic cell.  The near blocks are subtracted below.
    std::vector<double> far;
    if (lump_far) {
        far.assign(9 * ncell, 0.0);
        std::vector<double> col(3 * ncell);
        for (int b = 0; b < 3; ++b) {
            V_[0].fill(0.0);
            for (std::size_t c = 0; c < ncell; ++c) V_[0](c_.x[c], c_.y[c], c_.z[c], b + 1) = 1.0;
            convolve(0, in_.MASQUE, 0, col);
            for (std::size_t c = 0; c < ncell; ++c)
                for (int a = 0; a < 3; ++a) far[9 * c + a + 3 * b] = col[3 * c + a];
        }
        V_[0].fill(0.0);
    }
    struct Row {
        std::vector<std::int32_t> col;  // 0-based number - 1 of the source
        std::vector<double> v[2];       // the two rows, 2 columns per source number
    };
    std::vector<Row> rows(static_cast<std::size_t>(N));
#pragma omp parallel for schedule(static) if (c_.size() > kParallelCells)
    for (int n = n_begin; n < n_end; ++n) {
        std::vector<std::pair<int, std::array<double, 4>>> acc;
        for (int i : c_.of_number[n]) {
            const auto& G = c_.blk[i].G;
            const int xi = c_.x[i], yi = c_.y[i], zi = c_.z[i];
            for (int sz = std::max(0, zi - radius); sz <= std::min(nz, zi + radius); ++sz)
                for (int sy = std::max(0, yi - radius); sy <= std::min(ny, yi + radius); ++sy)
                    for (int sx = std::max(0, xi - radius); sx <= std::min(nx, xi + radius); ++sx) {
                        const int j = index(sx, sy, sz);
                        if (j < 0) continue;
                        const double* d = T.data() + T.linear(xi - sx, yi - sy, zi - sz, 1, c_.mat[j]);
                        double E[6];
                        for (int c = 0; c < 3; ++c) {
                            const double d0 = d[(3 * c) * cstride], d1 = d[(3 * c + 1) * cstride],
                                         d2 = d[(3 * c + 2) * cstride];
                            E[2 * c] = G[0] * d0 + G[2] * d1 + G[4] * d2;
                            E[2 * c + 1] = G[1] * d0 + G[3] * d1 + G[5] * d2;
                        }
                        const auto& Q = c_.blk[j].Q;
                        std::array<double, 4> B{E[0] * Q[0] + E[2] * Q[1] + E[4] * Q[2],
                                                E[1] * Q[0] + E[3] * Q[1] + E[5] * Q[2],
                                                E[0] * Q[3] + E[2] * Q[4] + E[4] * Q[5],
                                                E[1] * Q[3] + E[3] * Q[4] + E[5] * Q[5]};
                        if (j == i)
                            for (int k = 0; k < 4; ++k) B[k] += c_.blk[i].S[k];
                        acc.emplace_back(c_.num[j] - 1, B);
                        if (lump_far)
                            for (int c = 0; c < 9; ++c) far[9 * i + c] -= d[c * cstride];
                    }
            // The local terms' blocks, whatever their distance: they are
            // exact entries of A.
            for (const LocalBlock& b : c_.local[i])
                acc.emplace_back(c_.num[b.source] - 1, local_block(c_.blk[i], b, c_.blk[b.source]));
            if (lump_far) {
                // G_i F Q_i with F the far sum.
                const double* F = &far[9 * i];
                const auto& Q = c_.blk[i].Q;
                double E[6];
                for (int c = 0; c < 3; ++c) {
                    E[2 * c] = G[0] * F[3 * c] + G[2] * F[3 * c + 1] + G[4] * F[3 * c + 2];
                    E[2 * c + 1] = G[1] * F[3 * c] + G[3] * F[3 * c + 1] + G[5] * F[3 * c + 2];
                }
                acc.emplace_back(n - 1, std::array<double, 4>{E[0] * Q[0] + E[2] * Q[1] + E[4] * Q[2],
                                                              E[1] * Q[0] + E[3] * Q[1] + E[5] * Q[2],
                                                              E[0] * Q[3] + E[2] * Q[4] + E[4] * Q[5],
                                                              E[1] * Q[3] + E[3] * Q[4] + E[5] * Q[5]});
            }
        }
        std::stable_sort(acc.begin(), acc.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
        Row& row = rows[n - 1];
        const double w = in_.w(n);
        for (std::size_t k = 0; k < acc.size();) {
            std::array<double, 4> B{};
            const int col = acc[k].first;
            for (; k < acc.size() && acc[k].first == col; ++k)
                for (int e = 0; e < 4; ++e) B[e] += acc[k].second[e];
            row.col.push_back(col);
            row.v[0].push_back(B[0] / w), row.v[0].push_back(B[2] / w);
            row.v[1].push_back(B[1] / w), row.v[1].push_back(B[3] / w);
        }
    }
    SparseMatrix S;
    S.n = 2 * N;
    S.row_start.assign(static_cast<std::size_t>(S.n) + 1, 0);
    for (int n = 1; n <= N; ++n)
        for (int r = 0; r < 2; ++r) {
            const int row = 2 * (n - 1) + r;
            const Row& R = rows[n - 1];
            for (std::size_t k = 0; k < R.col.size(); ++k)
                for (int c = 0; c < 2; ++c) {
                    S.row.push_back(row + 1);
                    S.col.push_back(2 * R.col[k] + c + 1);
                    S.val.push_back(R.v[r][2 * k + c]);
                }
            S.row_start[row + 1] = S.count();
        }
    return S;
}

ComplexSparse complex_sparse(const SparseMatrix& S) {
    ComplexSparse C;
    C.n = S.n;
    C.row_start = S.row_start;
    C.col.resize(S.col.size());
    C.val.resize(S.val.size());
    for (std::size_t k = 0; k < S.col.size(); ++k) C.col[k] = S.col[k] - 1, C.val[k] = S.val[k];
    return C;
}

ComplexSparse diagonal_block(const ComplexSparse& S, int first, int count) {
    ComplexSparse B;
    B.n = count;
    B.row_start.assign(static_cast<std::size_t>(count) + 1, 0);
    for (int r = 0; r < count; ++r) {
        for (std::int64_t k = S.row_start[first + r]; k < S.row_start[first + r + 1]; ++k)
            if (S.col[k] >= first && S.col[k] < first + count) {
                B.col.push_back(S.col[k] - first);
                B.val.push_back(S.val[k]);
            }
        B.row_start[r + 1] = static_cast<std::int64_t>(B.col.size());
    }
    return B;
}

}  // namespace torix
