#include "eigen/dynamic_matrix.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>

#include <omp.h>

namespace torix {

namespace {

// 3x3 matrices are column-major: a[k + 3 c].
using Mat3 = std::array<double, 9>;

Mat3 cross_matrix(const double v[3]) {
    // [v x] u = v x u
    return Mat3{0.0, v[2], -v[1], -v[2], 0.0, v[0], v[1], -v[0], 0.0};
}

Mat3 mul(const Mat3& a, const Mat3& b) {
    Mat3 r{};
    for (int c = 0; c < 3; ++c)
        for (int k = 0; k < 3; ++k) {
            double s = 0.0;
            for (int l = 0; l < 3; ++l) s += a[k + 3 * l] * b[l + 3 * c];
            r[k + 3 * c] = s;
        }
    return r;
}

}  // namespace

void local_frame(const double m[3], double R[9]) {
    const double mx = m[0], my = m[1], mz = m[2];
    const double r = std::sqrt(mx * mx + my * my + mz * mz);
    double ct, st, cp, sp;
    if (std::abs(mz) < 0.9999999 * r) {
        ct = mz / r;
        const double s = std::sqrt(mx * mx + my * my);
        cp = mx / s;
        sp = my / s;
        st = s / r;
    } else if (mz > 0.0) {
        ct = 1.0, st = 0.0, cp = 1.0, sp = 0.0;
    } else {
        ct = -1.0, st = 0.0, cp = 1.0, sp = 0.0;
    }
    R[0] = ct * cp, R[1] = ct * sp, R[2] = -st;   // polar
    R[3] = -sp, R[4] = cp, R[5] = 0.0;             // azimuthal
    R[6] = st * cp, R[7] = st * sp, R[8] = ct;     // along m
}

CellBlocks cell_blocks(const double m[3], const double h[3], double ms, double alpha,
                       const std::array<double, 3>& happ) {
    CellBlocks b;
    double Rr[9];
    local_frame(m, Rr);
    Mat3 R;
    std::memcpy(R.data(), Rr, sizeof Rr);
    b.Q = {R[0], R[1], R[2], R[3], R[4], R[5]};

    // P = I + (alpha / Ms) [m x]
    const Mat3 X = cross_matrix(m);
    Mat3 P = X;
    for (double& v : P) v *= alpha / ms;
    P[0] += 1.0, P[4] += 1.0, P[8] += 1.0;
    const Mat3 K = mul(P, X);               // (I + a[m x]) [m x]
    const Mat3 L = mul(P, cross_matrix(h));  // (I + a[m x]) [h x]
    const double ci = (m[0] * happ[0] + m[1] * happ[1] + m[2] * happ[2]) / ms;
    for (int r = 0; r < 2; ++r)
        for (int c = 0; c < 3; ++c) {
            double s = 0.0;
            for (int k = 0; k < 3; ++k) s += R[k + 3 * r] * K[k + 3 * c];
            b.G[r + 2 * c] = s;
        }
    // Self block: R^T (-L - ci I) R, upper-left 2x2.
    for (int r = 0; r < 2; ++r)
        for (int c = 0; c < 2; ++c) {
            double s = 0.0;
            for (int k = 0; k < 3; ++k) {
                double t = 0.0;
                for (int l = 0; l < 3; ++l) t -= L[k + 3 * l] * R[l + 3 * c];
                t -= ci * R[k + 3 * c];
                s += R[k + 3 * r] * t;
            }
            b.S[r + 2 * c] = s;
        }
    return b;
}

MagneticCells magnetic_cells(const MatrixInput& in) {
    MagneticCells c;
    c.of_number.assign(static_cast<std::size_t>(in.N) + 1, {});
    std::vector<bool> seen(static_cast<std::size_t>(std::max(in.MS.extent(0), 0)) + 1, false);
    for (int x = 0; x <= in.nx; ++x)
        for (int y = 0; y <= in.ny; ++y)
            for (int z = 0; z <= in.nz; ++z) {
                const int mat = in.MASQUE(x, y, z);
                if (mat == 0) continue;
                const int idx = static_cast<int>(c.x.size());
                const int num = in.NUM(x, y, z);
                c.x.push_back(x), c.y.push_back(y), c.z.push_back(z);
                c.num.push_back(num), c.mat.push_back(mat);
                c.of_number[num].push_back(idx);
                if (!seen[mat]) seen[mat] = true, c.materials.push_back(mat);
                const double m[3] = {in.M(x, y, z, 1), in.M(x, y, z, 2), in.M(x, y, z, 3)};
                const double h[3] = {in.H(x, y, z, 1), in.H(x, y, z, 2), in.H(x, y, z, 3)};
                c.blk.push_back(cell_blocks(m, h, in.MS(mat), in.alpha, in.happ));
            }
    std::sort(c.materials.begin(), c.materials.end());
    c.local.assign(c.size(), {});
    if (in.terms != nullptr && !in.terms->empty()) {
        // Grid point -> cell index.
        const std::int64_t sx = in.nx + 1, sy = in.ny + 1;
        std::vector<int> index(static_cast<std::size_t>(sx * sy * (in.nz + 1)), -1);
        for (std::size_t k = 0; k < c.size(); ++k) index[c.x[k] + sx * (c.y[k] + sy * c.z[k])] = static_cast<int>(k);
        for (const FieldJacobianBlock& b : local_jacobian(*in.terms, in.M, in.MS, in.MASQUE)) {
            const int t = index[b.target], s = index[b.source];
            const std::array<int, 3> o{c.x[t] - c.x[s] - b.shift[0] * (in.nx + 1),
                                       c.y[t] - c.y[s] - b.shift[1] * (in.ny + 1),
                                       c.z[t] - c.z[s] - b.shift[2] * (in.nz + 1)};
            c.local[t].push_back(LocalBlock{s, b.J, o});
        }
    }
    return c;
}

std::array<double, 4> local_block(const CellBlocks& target, const LocalBlock& b, const CellBlocks& source) {
    const auto& G = target.G;
    const auto& J = b.J;
    const auto& Q = source.Q;
    double E[6];  // G J (2x3)
    for (int c = 0; c < 3; ++c) {
        E[2 * c] = G[0] * J[3 * c] + G[2] * J[3 * c + 1] + G[4] * J[3 * c + 2];
        E[2 * c + 1] = G[1] * J[3 * c] + G[3] * J[3 * c + 1] + G[5] * J[3 * c + 2];
    }
    return {E[0] * Q[0] + E[2] * Q[1] + E[4] * Q[2], E[1] * Q[0] + E[3] * Q[1] + E[5] * Q[2],
            E[0] * Q[3] + E[2] * Q[4] + E[4] * Q[5], E[1] * Q[3] + E[3] * Q[4] + E[5] * Q[5]};
}

MatrixRows::MatrixRows(const MatrixInput& in) : N_(in.N), AIJ_(in.AIJ), c_(magnetic_cells(in)) {
    cstride_ = in.AIJ.allocated() ? in.AIJ.stride(3) : 0;
    w_.assign(static_cast<std::size_t>(N_) + 1, 1);
    for (int n = 1; n <= N_; ++n) w_[n] = in.w(n);
}

void MatrixRows::rows(int n, double* buf) const {
    const std::size_t n2 = 2 * static_cast<std::size_t>(N_);
    std::fill(buf, buf + 2 * n2, 0.0);
    double* r1 = buf;
    double* r2 = buf + n2;
    const std::size_t ncell = c_.size();
    const double* aij = AIJ_.data();
    for (int i : c_.of_number[n]) {
        const auto& G = c_.blk[i].G;
        const int xi = c_.x[i], yi = c_.y[i], zi = c_.z[i];
        for (std::size_t j = 0; j < ncell; ++j) {
            const double* d = aij + AIJ_.linear(xi - c_.x[j], yi - c_.y[j], zi - c_.z[j], 1, c_.mat[j]);
            // E = G D (2x3)
            double E[6];
            for (int c = 0; c < 3; ++c) {
                const double d0 = d[(3 * c + 0) * cstride_], d1 = d[(3 * c + 1) * cstride_],
                             d2 = d[(3 * c + 2) * cstride_];
                E[0 + 2 * c] = G[0] * d0 + G[2] * d1 + G[4] * d2;
                E[1 + 2 * c] = G[1] * d0 + G[3] * d1 + G[5] * d2;
            }
            // B = E Q_j (2x2)
            const auto& Q = c_.blk[j].Q;
            double b11 = E[0] * Q[0] + E[2] * Q[1] + E[4] * Q[2];
            double b21 = E[1] * Q[0] + E[3] * Q[1] + E[5] * Q[2];
            double b12 = E[0] * Q[3] + E[2] * Q[4] + E[4] * Q[5];
            double b22 = E[1] * Q[3] + E[3] * Q[4] + E[5] * Q[5];
            if (j == static_cast<std::size_t>(i)) {
                const auto& S = c_.blk[i].S;
                b11 += S[0], b21 += S[1], b12 += S[2], b22 += S[3];
            }
            const std::size_t col = 2 * static_cast<std::size_t>(c_.num[j] - 1);
            r1[col] += b11;
            r2[col] += b21;
            r1[col + 1] += b12;
            r2[col + 1] += b22;
        }
        for (const LocalBlock& b : c_.local[i]) {
            const auto B = local_block(c_.blk[i], b, c_.blk[b.source]);
            const std::size_t col = 2 * static_cast<std::size_t>(c_.num[b.source] - 1);
            r1[col] += B[0];
            r2[col] += B[1];
            r1[col + 1] += B[2];
            r2[col + 1] += B[3];
        }
    }
    const double w = w_[n];
    if (w != 1.0)
        for (std::size_t k = 0; k < 2 * n2; ++k) buf[k] /= w;
}

void assemble_dense(const MatrixInput& in, double* A) {
    const MatrixRows mr(in);
    const int N = in.N;
    const std::size_t n2 = 2 * static_cast<std::size_t>(N);
#pragma omp parallel
    {
        std::vector<double> buf(2 * n2);
#pragma omp for schedule(static)
        for (int n = 1; n <= N; ++n) {
            mr.rows(n, buf.data());
            const std::size_t r = 2 * static_cast<std::size_t>(n - 1);
            for (std::size_t c = 0; c < n2; ++c) {
                A[r + c * n2] = buf[c];
                A[r + 1 + c * n2] = buf[n2 + c];
            }
        }
    }
}

void assemble_sparse(const MatrixInput& in, double threshold, SparseMatrix& S) {
    const MatrixRows mr(in);
    const int N = in.N;
    const std::size_t n2 = 2 * static_cast<std::size_t>(N);
    struct Part {
        std::vector<std::int32_t> col;
        std::vector<double> val;
        std::int64_t split = 0;  // elements of the first row
    };
    std::vector<Part> parts(static_cast<std::size_t>(N));
#pragma omp parallel
    {
        std::vector<double> buf(2 * n2);
#pragma omp for schedule(static)
        for (int n = 1; n <= N; ++n) {
            mr.rows(n, buf.data());
            Part& p = parts[n - 1];
            for (int r = 0; r < 2; ++r) {
                for (std::size_t c = 0; c < n2; ++c) {
                    const double v = buf[r * n2 + c];
                    if (std::abs(v) > threshold) {
                        p.col.push_back(static_cast<std::int32_t>(c + 1));
                        p.val.push_back(v);
                    }
                }
                if (r == 0) p.split = static_cast<std::int64_t>(p.val.size());
            }
        }
    }
    std::int64_t total = 0;
    for (const Part& p : parts) total += static_cast<std::int64_t>(p.val.size());
    S.n = static_cast<int>(n2);
    S.row.clear(), S.col.clear(), S.val.clear();
    S.row.reserve(total), S.col.reserve(total), S.val.reserve(total);
    S.row_start.assign(n2 + 1, 0);
    for (int n = 1; n <= N; ++n) {
        Part& p = parts[n - 1];
        const std::int32_t r1 = 2 * n - 1;
        S.row_start[r1 - 1] = static_cast<std::int64_t>(S.val.size());
        S.row_start[r1] = static_cast<std::int64_t>(S.val.size()) + p.split;
        for (std::size_t k = 0; k < p.val.size(); ++k) {
            S.row.push_back(static_cast<std::int64_t>(k) < p.split ? r1 : r1 + 1);
            S.col.push_back(p.col[k]);
            S.val.push_back(p.val[k]);
        }
        Part().col.swap(p.col);
        Part().val.swap(p.val);
    }
    S.row_start[n2] = static_cast<std::int64_t>(S.val.size());
}

void sparse_product(const SparseMatrix& S, const double* x, double* y) {
    const int n = S.n;
    const std::int32_t* col = S.col.data();
    const double* val = S.val.data();
#pragma omp parallel for schedule(static)
    for (int r = 0; r < n; ++r) {
        double s = 0.0;
        for (std::int64_t k = S.row_start[r]; k < S.row_start[r + 1]; ++k) s += val[k] * x[col[k] - 1];
        y[r] = s;
    }
}

SparseMatrix transpose(const SparseMatrix& S) {
    SparseMatrix T;
    T.n = S.n;
    const std::int64_t nnz = S.count();
    T.row_start.assign(static_cast<std::size_t>(S.n) + 1, 0);
    for (std::int64_t k = 0; k < nnz; ++k) ++T.row_start[S.col[k]];
    for (int r = 0; r < S.n; ++r) T.row_start[r + 1] += T.row_start[r];
    T.row.resize(nnz), T.col.resize(nnz), T.val.resize(nnz);
    std::vector<std::int64_t> next(T.row_start.begin(), T.row_start.end() - 1);
    // Elements of S come sorted by row, so each transposed row fills in
    // increasing column order.
    for (std::int64_t k = 0; k < nnz; ++k) {
        const std::int64_t p = next[S.col[k] - 1]++;
        T.row[p] = S.col[k];
        T.col[p] = S.row[k];
        T.val[p] = S.val[k];
    }
    return T;
}

}  // namespace torix
