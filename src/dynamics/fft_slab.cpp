#include "dynamics/fft_slab.hpp"

#include <fftw3-mpi.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

#include "core/error.hpp"
#include "dynamics/fft_plans.hpp"

namespace torix {

using detail::comp;
using detail::kCol;
using detail::kRow;

struct SlabConvolution::Plans {
    fftw_complex* buf = nullptr;  // in place: real rows padded to 2 (Llast/2 + 1)
    fftw_plan forward = nullptr, backward = nullptr;
    ~Plans() {
        if (forward) fftw_destroy_plan(forward);
        if (backward) fftw_destroy_plan(backward);
        fftw_free(buf);
    }
};

bool SlabConvolution::applicable(const TensorArray& AIJ, int m, int nx, int ny, int nz) {
    double big = 0.0, asym = 0.0;
    for (int k = -nz; k <= nz; ++k)
        for (int j = -ny; j <= ny; ++j)
            for (int i = -nx; i <= nx; ++i)
                for (int a = 0; a < 3; ++a)
                    for (int b = 0; b < 3; ++b) {
                        big = std::max(big, std::abs(AIJ(i, j, k, comp(a, b), m)));
                        asym = std::max(asym, std::abs(AIJ(i, j, k, comp(a, b), m) - AIJ(i, j, k, comp(b, a), m)));
                    }
    return asym <= 1e-13 * big;
}

namespace {
// FFTW's MPI layer, once per process, after MPI (and with FFTW's threads).
void start_fftw_mpi() {
    static const bool once = [] {
        detail::prepare_fftw_threads(0);
        fftw_mpi_init();
        return true;
    }();
    (void)once;
}
}  // namespace

SlabConvolution::SlabConvolution(MPI_Comm comm, const TensorArray& AIJ, int m, int nx, int ny, int nz,
                                 const std::vector<int>& cx, const std::vector<int>& cy, const std::vector<int>& cz)
    : comm_(comm), nx_(nx), ny_(ny), nz_(nz), cx_(cx), cy_(cy), cz_(cz) {
    MPI_Comm_rank(comm, &rank_);
    MPI_Comm_size(comm, &size_);
    start_fftw_mpi();
    L1_ = 2 * nx + 2;
    L2_ = 2 * ny + 2;
    L3_ = nz == 0 ? 1 : 2 * nz + 2;
    Llast_ = nz == 0 ? L2_ : L3_;
    const int rank = nz == 0 ? 2 : 3;
    const ptrdiff_t real_n[3] = {L1_, nz == 0 ? Llast_ : L2_, L3_};
    const ptrdiff_t half = Llast_ / 2 + 1;
    const ptrdiff_t complex_n[3] = {L1_, nz == 0 ? half : L2_, half};
    // The spectra stay transposed (split along the second axis): the product
    // with the kernel is point by point, and the kernel is transformed with
    // the same plan, so the backward transform can start from that layout
    // and two of the four global transposes of a convolution are saved.
    ptrdiff_t n1l = 0, n1start = 0;
    const ptrdiff_t alloc = fftw_mpi_local_size_many_transposed(rank, complex_n, kPerCell, FFTW_MPI_DEFAULT_BLOCK,
                                                                FFTW_MPI_DEFAULT_BLOCK, comm, &nxl_, &x0_, &n1l,
                                                                &n1start);
    points_ = static_cast<std::size_t>(n1l) * L1_ * (nz == 0 ? 1 : half);

    // Every rank's first plane, hence its first cell (cells run x outermost).
    std::vector<long long> starts(static_cast<std::size_t>(size_));
    const long long mine = x0_;
    MPI_Allgather(&mine, 1, MPI_LONG_LONG, starts.data(), 1, MPI_LONG_LONG, comm);
    cell_start_.assign(static_cast<std::size_t>(size_) + 1, cx.size());
    for (int r = 0; r < size_; ++r) {
        const auto from = std::lower_bound(cx.begin(), cx.end(), static_cast<int>(std::min<long long>(starts[r], nx + 1)));
        cell_start_[r] = static_cast<std::size_t>(from - cx.begin());
    }
    for (int r = size_ - 1; r >= 0; --r) cell_start_[r] = std::min(cell_start_[r], cell_start_[r + 1]);
    for (int r = 0; r < size_; ++r) {
        counts_.push_back(static_cast<int>((cell_start_[r + 1] - cell_start_[r]) * kPerCell));
        displs_.push_back(static_cast<int>(cell_start_[r] * kPerCell));
    }

    plans_ = std::make_unique<Plans>();
    plans_->buf = fftw_alloc_complex(static_cast<std::size_t>(std::max<ptrdiff_t>(alloc, 1)));
    if (!plans_->buf) throw std::bad_alloc();
    fftw_plan_with_nthreads(omp_get_max_threads());
    // Measured plans on mid-sized grids as in the one-process route; FFTW
    // measures collectively, so every rank plans alike.
    const std::size_t total = static_cast<std::size_t>(L1_) * L2_ * L3_ * kPerCell;
    const unsigned flags = (total >= detail::kMeasureFloor && total <= detail::measure_limit) ? FFTW_MEASURE
                                                                                                : FFTW_ESTIMATE;
    double* rbuf = reinterpret_cast<double*>(plans_->buf);
    plans_->forward = fftw_mpi_plan_many_dft_r2c(rank, real_n, kPerCell, FFTW_MPI_DEFAULT_BLOCK,
                                                 FFTW_MPI_DEFAULT_BLOCK, rbuf, plans_->buf, comm,
                                                 flags | FFTW_MPI_TRANSPOSED_OUT);
    plans_->backward = fftw_mpi_plan_many_dft_c2r(rank, real_n, kPerCell, FFTW_MPI_DEFAULT_BLOCK,
                                                  FFTW_MPI_DEFAULT_BLOCK, plans_->buf, rbuf, comm,
                                                  flags | FFTW_MPI_TRANSPOSED_IN);
    if (!plans_->forward || !plans_->backward)
        throw FatalError("FFT: cannot plan the distributed transforms for the padded grid " + std::to_string(L1_) +
                         " x " + std::to_string(L2_) + " x " + std::to_string(L3_));

    // The kernel's six components on this rank's planes, transformed with
    // the same plan (six fields per point, as the two lanes' deviations).
    const std::size_t row = 2 * static_cast<std::size_t>(half);  // padded real row
    const std::size_t reals = static_cast<std::size_t>(nxl_) * (nz == 0 ? 1 : L2_) * row * kPerCell;
    std::fill(rbuf, rbuf + reals, 0.0);
    const double scale = 1.0 / (static_cast<double>(L1_) * L2_ * L3_);
    auto offset = [](int p, int L, int n) { return p <= n ? p : (p - L >= -n ? p - L : n + 1); };
    for (ptrdiff_t p = 0; p < nxl_; ++p) {
        const int i = offset(static_cast<int>(x0_ + p), L1_, nx);
        if (i > nx) continue;
        for (int q = 0; q < L2_; ++q) {
            const int j = offset(q, L2_, ny);
            if (j > ny) continue;
            for (int s = 0; s < L3_; ++s) {
                const int k = nz == 0 ? 0 : offset(s, L3_, nz);
                if (k > nz) continue;
                const std::size_t at = nz == 0 ? (p * row + q) : ((p * L2_ + q) * row + s);
                for (int c = 0; c < 6; ++c)
                    rbuf[at * kPerCell + c] = scale * 0.5 *
                                              (AIJ(i, j, k, comp(kRow[c], kCol[c]), m) +
                                               AIJ(i, j, k, comp(kCol[c], kRow[c]), m));
            }
        }
    }
    fftw_execute(plans_->forward);
    // An even kernel's spectrum is real: the imaginary parts are rounding.
    kernel_.resize(points_ * 6);
    for (std::size_t f = 0; f < points_; ++f)
        for (int c = 0; c < 6; ++c) kernel_[6 * f + c] = plans_->buf[f * kPerCell + c][0];
}

SlabConvolution::~SlabConvolution() = default;

std::size_t SlabConvolution::bytes() const {
    return kernel_.size() * sizeof(double) + points_ * kPerCell * sizeof(fftw_complex);
}

void SlabConvolution::convolve(const double* src, double* out) {
    const std::size_t half = static_cast<std::size_t>(Llast_ / 2 + 1), row = 2 * half;
    const std::size_t reals = static_cast<std::size_t>(nxl_) * (nz_ == 0 ? 1 : L2_) * row * kPerCell;
    double* rbuf = reinterpret_cast<double*>(plans_->buf);
    std::fill(rbuf, rbuf + reals, 0.0);
    const std::size_t c0 = first_cell(), c1 = end_cell();
    auto at = [&](std::size_t c) {
        const std::size_t p = static_cast<std::size_t>(cx_[c] - x0_);
        return nz_ == 0 ? (p * row + cy_[c]) : ((p * L2_ + cy_[c]) * row + cz_[c]);
    };
    const bool threads = points_ > detail::kParallelPoints;
#pragma omp parallel for schedule(static) if (threads)
    for (std::size_t c = c0; c < c1; ++c) std::memcpy(rbuf + at(c) * kPerCell, src + kPerCell * c, sizeof(double) * kPerCell);
    fftw_execute(plans_->forward);
    fftw_complex* f = plans_->buf;
#pragma omp parallel for schedule(static) if (threads)
    for (std::size_t p = 0; p < points_; ++p) {
        const double* K = &kernel_[6 * p];
        fftw_complex* v = f + p * kPerCell;
        for (int lane = 0; lane < kLanes; ++lane) {
            fftw_complex* m = v + 3 * lane;
            double h[3][2];
            for (int part = 0; part < 2; ++part) {
                const double mx = m[0][part], my = m[1][part], mz = m[2][part];
                h[0][part] = K[0] * mx + K[1] * my + K[2] * mz;
                h[1][part] = K[1] * mx + K[3] * my + K[4] * mz;
                h[2][part] = K[2] * mx + K[4] * my + K[5] * mz;
            }
            for (int a = 0; a < 3; ++a) m[a][0] = h[a][0], m[a][1] = h[a][1];
        }
    }
    fftw_execute(plans_->backward);
#pragma omp parallel for schedule(static) if (threads)
    for (std::size_t c = c0; c < c1; ++c) std::memcpy(out + kPerCell * c, rbuf + at(c) * kPerCell, sizeof(double) * kPerCell);
    // Every rank's cells to every rank, in place.
    MPI_Allgatherv(MPI_IN_PLACE, 0, MPI_DATATYPE_NULL, out, counts_.data(), displs_.data(), MPI_DOUBLE, comm_);
}

}  // namespace torix
