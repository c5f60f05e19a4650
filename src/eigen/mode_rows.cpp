#include "eigen/mode_rows.hpp"

namespace torix {

namespace {
// Loops over fewer cells run on one thread: on a busy machine a thread team
// costs more than the work of a small model.
constexpr std::size_t kParallelCells = 4096;
}  // namespace

void product_rows(const MatrixInput& in, const MagneticCells& c_, const double* re, const double* im, int stride,
                  const cplx* x, cplx* y, int n_begin, int n_end) {
#pragma omp parallel for schedule(static) if (c_.size() > kParallelCells)
    for (int n = n_begin; n < n_end; ++n) {
        const std::size_t r = 2 * static_cast<std::size_t>(n - 1);
        cplx y0 = 0.0, y1 = 0.0;
        for (int c : c_.of_number[n]) {
            const auto& G = c_.blk[c].G;
            const auto& S = c_.blk[c].S;
            const std::size_t p = static_cast<std::size_t>(stride) * c;
            cplx h0{re[p], im[p]}, h1{re[p + 1], im[p + 1]}, h2{re[p + 2], im[p + 2]};
            for (const LocalBlock& b : c_.local[c]) {
                const auto& Q = c_.blk[b.source].Q;
                const std::size_t rs = 2 * static_cast<std::size_t>(c_.num[b.source] - 1);
                const cplx v0 = Q[0] * x[rs] + Q[3] * x[rs + 1], v1 = Q[1] * x[rs] + Q[4] * x[rs + 1],
                           v2 = Q[2] * x[rs] + Q[5] * x[rs + 1];
                const auto& J = b.J;
                h0 += J[0] * v0 + J[3] * v1 + J[6] * v2;
                h1 += J[1] * v0 + J[4] * v1 + J[7] * v2;
                h2 += J[2] * v0 + J[5] * v1 + J[8] * v2;
            }
            y0 += G[0] * h0 + G[2] * h1 + G[4] * h2 + S[0] * x[r] + S[2] * x[r + 1];
            y1 += G[1] * h0 + G[3] * h1 + G[5] * h2 + S[1] * x[r] + S[3] * x[r + 1];
        }
        const double w = in.w(n);
        const std::size_t o = 2 * static_cast<std::size_t>(n - n_begin);
        y[o] = y0 / w;
        y[o + 1] = y1 / w;
    }
}

void transposed_sources(const MatrixInput& in, const MagneticCells& c_, const cplx* x, cplx* u, std::size_t c_begin,
                        std::size_t c_end) {
    const auto b = static_cast<std::ptrdiff_t>(c_begin), e = static_cast<std::ptrdiff_t>(c_end);
#pragma omp parallel for schedule(static) if (c_end - c_begin > kParallelCells)
    for (std::ptrdiff_t c = b; c < e; ++c) {
        const int n = c_.num[c];
        const std::size_t r = 2 * static_cast<std::size_t>(n - 1);
        const double w = in.w(n);
        const cplx z0 = x[r] / w, z1 = x[r + 1] / w;
        const auto& G = c_.blk[c].G;
        for (int k = 0; k < 3; ++k) u[3 * c + k] = G[2 * k] * z0 + G[2 * k + 1] * z1;
    }
}

void transposed_rows(const MatrixInput& in, const MagneticCells& c_, const std::vector<std::vector<LocalBlock>>& local_in,
                     const double* re, const double* im, int stride, const cplx* u_, const cplx* x, cplx* y,
                     int n_begin, int n_end) {
#pragma omp parallel for schedule(static) if (c_.size() > kParallelCells)
    for (int n = n_begin; n < n_end; ++n) {
        const std::size_t r = 2 * static_cast<std::size_t>(n - 1);
        const double w = in.w(n);
        const cplx z0 = x[r] / w, z1 = x[r + 1] / w;
        cplx y0 = 0.0, y1 = 0.0;
        for (int c : c_.of_number[n]) {
            const auto& Q = c_.blk[c].Q;
            const auto& S = c_.blk[c].S;
            const std::size_t p = static_cast<std::size_t>(stride) * c;
            cplx t0{re[p], im[p]}, t1{re[p + 1], im[p + 1]}, t2{re[p + 2], im[p + 2]};
            // J^T u of the blocks whose source is c.
            for (const LocalBlock& b : local_in[c]) {
                const cplx* u = &u_[3 * static_cast<std::size_t>(b.source)];
                const auto& J = b.J;
                t0 += J[0] * u[0] + J[1] * u[1] + J[2] * u[2];
                t1 += J[3] * u[0] + J[4] * u[1] + J[5] * u[2];
                t2 += J[6] * u[0] + J[7] * u[1] + J[8] * u[2];
            }
            y0 += Q[0] * t0 + Q[1] * t1 + Q[2] * t2 + S[0] * z0 + S[1] * z1;
            y1 += Q[3] * t0 + Q[4] * t1 + Q[5] * t2 + S[2] * z0 + S[3] * z1;
        }
        const std::size_t o = 2 * static_cast<std::size_t>(n - n_begin);
        y[o] = y0;
        y[o + 1] = y1;
    }
}

std::vector<std::vector<LocalBlock>> blocks_by_source(const MagneticCells& c_) {
    std::vector<std::vector<LocalBlock>> in(c_.size());
    for (std::size_t t = 0; t < c_.size(); ++t)
        for (const LocalBlock& b : c_.local[t])
            in[b.source].push_back(LocalBlock{static_cast<int>(t), b.J, {-b.offset[0], -b.offset[1], -b.offset[2]}});
    return in;
}

}  // namespace torix
