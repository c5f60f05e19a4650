#include "eigen/bloch_operator.hpp"

#include "eigen/bloch_dense.hpp"

#include <algorithm>
#include <set>

#include <fftw3.h>

namespace torix {

namespace detail {

struct BlochSpectra {
    std::size_t points = 0;
    // [material][component 0..8][frequency], forward and flipped-transposed.
    std::vector<std::vector<std::vector<cplx>>> fwd, tr;
};

struct BlochPlans {
    std::size_t points = 0;
    std::array<fftw_complex*, 3> grid{};  // one transform grid per component
    std::array<fftw_complex*, 3> acc{};   // sums of products in Fourier space
    fftw_plan forward = nullptr, backward = nullptr;

    explicit BlochPlans(const std::array<int, 3>& L) {
        points = static_cast<std::size_t>(L[0]) * L[1] * L[2];
        for (auto* g : {&grid, &acc})
            for (auto& p : *g) {
                p = fftw_alloc_complex(points);
                if (p == nullptr) throw std::bad_alloc();
            }
        // FFTW's last index runs fastest; the grid's first one does here.
        forward = fftw_plan_dft_3d(L[2], L[1], L[0], grid[0], grid[0], FFTW_FORWARD, FFTW_ESTIMATE);
        backward = fftw_plan_dft_3d(L[2], L[1], L[0], grid[0], grid[0], FFTW_BACKWARD, FFTW_ESTIMATE);
    }
    BlochPlans(const BlochPlans&) = delete;
    BlochPlans& operator=(const BlochPlans&) = delete;
    ~BlochPlans() {
        fftw_destroy_plan(forward);
        fftw_destroy_plan(backward);
        for (auto* g : {&grid, &acc})
            for (auto* p : *g) fftw_free(p);
    }
    cplx* at(int c) { return reinterpret_cast<cplx*>(grid[c]); }
    cplx* sum(int c) { return reinterpret_cast<cplx*>(acc[c]); }
};

}  // namespace detail

namespace {

// Grid index of offset or cell (i, j, l), wrapped onto the transform grid.
inline std::size_t wrap(const std::array<int, 3>& L, int i, int j, int l) {
    const auto w = [](int v, int n) { return static_cast<std::size_t>(((v % n) + n) % n); };
    return w(i, L[0]) + static_cast<std::size_t>(L[0]) * (w(j, L[1]) + static_cast<std::size_t>(L[1]) * w(l, L[2]));
}

}  // namespace

BlochOperator::BlochOperator(const MatrixInput& in, const BlochKernel& K, const Periodicity& p,
                             const std::array<double, 3>& kcell)
    : in_(in), c_(magnetic_cells(in)), K_(&K), p_(p) {
    phase_.resize(c_.size());
    for (std::size_t c = 0; c < c_.size(); ++c)
        for (const LocalBlock& b : c_.local[c]) phase_[c].push_back(local_phase(b, kcell));
    const int n[3] = {in.nx, in.ny, in.nz};
    for (int a = 0; a < 3; ++a) L_[a] = p.along(a) ? n[a] + 1 : 2 * (n[a] + 1);
    work_ = std::make_unique<detail::BlochPlans>(L_);
    auto spec = std::make_shared<detail::BlochSpectra>();
    spec->points = work_->points;
    const int nmat = in.MS.extent(0);
    spec->fwd.assign(static_cast<std::size_t>(nmat) + 1, {});
    spec->tr.assign(static_cast<std::size_t>(nmat) + 1, {});
    // Offsets -n..n along open axes; one period 0..n along periodic ones
    // (the other offsets of the range are the same values again).
    int lo[3];
    for (int a = 0; a < 3; ++a) lo[a] = p.along(a) ? 0 : -n[a];
    const double scale = 1.0 / static_cast<double>(work_->points);
    for (int m : c_.materials) {
        for (int t = 0; t < 2; ++t) {
            auto& dst = (t == 0 ? spec->fwd : spec->tr)[m];
            dst.assign(9, std::vector<cplx>(work_->points));
            for (int a = 0; a < 3; ++a)
                for (int b = 0; b < 3; ++b) {
                    cplx* g = work_->at(0);
                    std::fill(g, g + work_->points, cplx{});
                    for (int l = lo[2]; l <= n[2]; ++l)
                        for (int j = lo[1]; j <= n[1]; ++j)
                            for (int i = lo[0]; i <= n[0]; ++i)
                                // Transposed: Ker(o)_ab = K(-o)_ba.
                                g[wrap(L_, i, j, l)] =
                                    t == 0 ? K(i, j, l, 1 + a + 3 * b, m) : K(-i, -j, -l, 1 + b + 3 * a, m);
                    fftw_execute_dft(work_->forward, work_->grid[0], work_->grid[0]);
                    auto& out = dst[a + 3 * b];
                    for (std::size_t q = 0; q < work_->points; ++q) out[q] = g[q] * scale;
                }
        }
    }
    spec_ = std::move(spec);
}

BlochOperator::~BlochOperator() = default;

void BlochOperator::convolve(const std::vector<cplx>& src, bool transposed, std::vector<cplx>& out) const {
    detail::BlochPlans& w = *work_;
    const std::size_t ncell = c_.size(), P = w.points;
    out.assign(3 * ncell, cplx{});
    const auto& mats = c_.materials;
    const auto scatter = [&](int m) {
        for (int a = 0; a < 3; ++a) std::fill(w.at(a), w.at(a) + P, cplx{});
        for (std::size_t c = 0; c < ncell; ++c)
            if (m == 0 || c_.mat[c] == m)
                for (int a = 0; a < 3; ++a) w.at(a)[wrap(L_, c_.x[c], c_.y[c], c_.z[c])] = src[3 * c + a];
        for (int a = 0; a < 3; ++a) fftw_execute_dft(w.forward, w.grid[a], w.grid[a]);
    };
    const auto multiply = [&](const std::vector<std::vector<cplx>>& ker, bool add) {
        for (int a = 0; a < 3; ++a) {
            cplx* s = w.sum(a);
            const cplx *k0 = ker[a].data(), *k1 = ker[a + 3].data(), *k2 = ker[a + 6].data();
            const cplx *g0 = w.at(0), *g1 = w.at(1), *g2 = w.at(2);
            for (std::size_t q = 0; q < P; ++q) {
                const cplx v = k0[q] * g0[q] + k1[q] * g1[q] + k2[q] * g2[q];
                s[q] = add ? s[q] + v : v;
            }
        }
    };
    const auto gather = [&](int m) {
        for (int a = 0; a < 3; ++a) fftw_execute_dft(w.backward, w.acc[a], w.acc[a]);
        for (std::size_t c = 0; c < ncell; ++c)
            if (m == 0 || c_.mat[c] == m)
                for (int a = 0; a < 3; ++a) out[3 * c + a] = w.sum(a)[wrap(L_, c_.x[c], c_.y[c], c_.z[c])];
    };
    if (!transposed) {
        // Sources by material, each with its own kernel, summed in Fourier space.
        for (std::size_t k = 0; k < mats.size(); ++k) {
            scatter(mats.size() == 1 ? 0 : mats[k]);
            multiply(spec_->fwd[mats[k]], k > 0);
        }
        gather(0);
    } else {
        scatter(0);
        for (int m : mats) {
            multiply(spec_->tr[m], false);
            gather(mats.size() == 1 ? 0 : m);
        }
    }
}

void BlochOperator::apply(const cplx* x, cplx* y) const {
    const std::size_t ncell = c_.size();
    src_.assign(3 * ncell, cplx{});
    for (std::size_t c = 0; c < ncell; ++c) {
        const auto& Q = c_.blk[c].Q;
        const std::size_t r = 2 * static_cast<std::size_t>(c_.num[c] - 1);
        for (int a = 0; a < 3; ++a) src_[3 * c + a] = Q[a] * x[r] + Q[a + 3] * x[r + 1];
    }
    convolve(src_, false, h_);
    // The local terms' blocks J act on the Cartesian deviations directly.
    for (std::size_t c = 0; c < ncell; ++c)
        for (std::size_t l = 0; l < c_.local[c].size(); ++l) {
            const LocalBlock& b = c_.local[c][l];
            const cplx* v = &src_[3 * static_cast<std::size_t>(b.source)];
            const cplx ph = phase_[c][l];
            for (int a = 0; a < 3; ++a)
                h_[3 * c + a] += ph * (b.J[a] * v[0] + b.J[a + 3] * v[1] + b.J[a + 6] * v[2]);
        }
    std::fill(y, y + order(), cplx{});
    for (std::size_t c = 0; c < ncell; ++c) {
        const auto& G = c_.blk[c].G;
        const auto& S = c_.blk[c].S;
        const std::size_t r = 2 * static_cast<std::size_t>(c_.num[c] - 1);
        const cplx* h = &h_[3 * c];
        y[r] += G[0] * h[0] + G[2] * h[1] + G[4] * h[2] + S[0] * x[r] + S[2] * x[r + 1];
        y[r + 1] += G[1] * h[0] + G[3] * h[1] + G[5] * h[2] + S[1] * x[r] + S[3] * x[r + 1];
    }
    for (int n = 1; n <= in_.N; ++n) {
        const double w = in_.w(n);
        y[2 * (n - 1)] /= w, y[2 * (n - 1) + 1] /= w;
    }
}

void BlochOperator::apply_transpose(const cplx* x, cplx* y) const {
    // A^T = sum over cells of [Q^T Ker^T G^T + S^T] with x first divided by w.
    const std::size_t ncell = c_.size();
    src_.assign(3 * ncell, cplx{});
    std::fill(y, y + order(), cplx{});
    for (std::size_t c = 0; c < ncell; ++c) {
        const auto& G = c_.blk[c].G;
        const auto& S = c_.blk[c].S;
        const int n = c_.num[c];
        const std::size_t r = 2 * static_cast<std::size_t>(n - 1);
        const double w = in_.w(n);
        const cplx g0 = x[r] / w, g1 = x[r + 1] / w;
        for (int a = 0; a < 3; ++a) src_[3 * c + a] = G[2 * a] * g0 + G[2 * a + 1] * g1;
        y[r] += S[0] * g0 + S[1] * g1;
        y[r + 1] += S[2] * g0 + S[3] * g1;
    }
    convolve(src_, true, h_);
    // J^T of the local terms' blocks, from their target to their source.
    for (std::size_t c = 0; c < ncell; ++c)
        for (std::size_t l = 0; l < c_.local[c].size(); ++l) {
            const LocalBlock& b = c_.local[c][l];
            const cplx* u = &src_[3 * c];
            cplx* t = &h_[3 * static_cast<std::size_t>(b.source)];
            const cplx ph = phase_[c][l];
            for (int k = 0; k < 3; ++k)
                t[k] += ph * (b.J[3 * k] * u[0] + b.J[3 * k + 1] * u[1] + b.J[3 * k + 2] * u[2]);
        }
    for (std::size_t c = 0; c < ncell; ++c) {
        const auto& Q = c_.blk[c].Q;
        const std::size_t r = 2 * static_cast<std::size_t>(c_.num[c] - 1);
        const cplx* h = &h_[3 * c];
        y[r] += Q[0] * h[0] + Q[1] * h[1] + Q[2] * h[2];
        y[r + 1] += Q[3] * h[0] + Q[4] * h[1] + Q[5] * h[2];
    }
}

ComplexSparse BlochOperator::local_part() const {
    const BlochKernel& K = *K_;
    const std::size_t ncell = c_.size();
    const int n[3] = {in_.nx, in_.ny, in_.nz};
    IntGrid where = make_int_grid(in_.nx, in_.ny, in_.nz, -1);
    for (std::size_t c = 0; c < ncell; ++c) where(c_.x[c], c_.y[c], c_.z[c]) = static_cast<int>(c);
    // Every cell's sum of K over all sources, column by column: the field of
    // a uniform unit deviation along each axis.
    std::vector<std::array<cplx, 9>> all(ncell);
    for (int b = 0; b < 3; ++b) {
        std::vector<cplx> src(3 * ncell, cplx{}), out;
        for (std::size_t c = 0; c < ncell; ++c) src[3 * c + b] = 1.0;
        convolve(src, false, out);
        for (std::size_t c = 0; c < ncell; ++c)
            for (int a = 0; a < 3; ++a) all[c][a + 3 * b] = out[3 * c + a];
    }
    const std::size_t n2 = 2 * static_cast<std::size_t>(in_.N);
    // Rows of one number: column -> 2x2 block (row-major r * 2 + col).
    std::vector<std::vector<std::pair<int, std::array<cplx, 4>>>> rows(static_cast<std::size_t>(in_.N) + 1);
    for (int num = 1; num <= in_.N; ++num) {
        std::vector<std::pair<int, std::array<cplx, 4>>> blocks;
        const auto add = [&blocks](int col, const std::array<cplx, 4>& b) {
            for (auto& e : blocks)
                if (e.first == col) {
                    for (int q = 0; q < 4; ++q) e.second[q] += b[q];
                    return;
                }
            blocks.emplace_back(col, b);
        };
        for (int i : c_.of_number[num]) {
            const auto& G = c_.blk[i].G;
            std::array<cplx, 9> far = all[i];
            std::set<int> seen;
            for (int dz = -1; dz <= 1; ++dz)
                for (int dy = -1; dy <= 1; ++dy)
                    for (int dx = -1; dx <= 1; ++dx) {
                        int q[3] = {c_.x[i] + dx, c_.y[i] + dy, c_.z[i] + dz};
                        bool ok = true;
                        for (int a = 0; a < 3; ++a) {
                            if (p_.along(a)) q[a] = ((q[a] % (n[a] + 1)) + n[a] + 1) % (n[a] + 1);
                            ok = ok && q[a] >= 0 && q[a] <= n[a];
                        }
                        if (!ok) continue;
                        const int j = where(q[0], q[1], q[2]);
                        if (j < 0 || !seen.insert(j).second) continue;
                        const cplx* d = &K(c_.x[i] - c_.x[j], c_.y[i] - c_.y[j], c_.z[i] - c_.z[j], 1, c_.mat[j]);
                        const std::ptrdiff_t cs = K.stride(3);
                        std::array<cplx, 9> D;
                        for (int e = 0; e < 9; ++e) D[e] = d[e * cs], far[e] -= D[e];
                        const auto& Q = c_.blk[j].Q;
                        std::array<cplx, 4> b{};
                        for (int r = 0; r < 2; ++r)
                            for (int col = 0; col < 2; ++col) {
                                cplx s = 0.0;
                                for (int a = 0; a < 3; ++a)
                                    for (int e = 0; e < 3; ++e) s += G[r + 2 * a] * D[a + 3 * e] * Q[e + 3 * col];
                                b[r * 2 + col] = s;
                            }
                        if (j == i) {
                            const auto& S = c_.blk[i].S;
                            b[0] += S[0], b[1] += S[2], b[2] += S[1], b[3] += S[3];
                        }
                        add(c_.num[j], b);
                    }
            // The local terms' blocks, whatever their distance.
            for (std::size_t l = 0; l < c_.local[i].size(); ++l) {
                const LocalBlock& lb = c_.local[i][l];
                const auto B = local_block(c_.blk[i], lb, c_.blk[lb.source]);
                const cplx ph = phase_[i][l];
                add(c_.num[lb.source], std::array<cplx, 4>{ph * B[0], ph * B[2], ph * B[1], ph * B[3]});
            }
            // The far cells' field as if their deviation were this cell's.
            const auto& Q = c_.blk[i].Q;
            std::array<cplx, 4> b{};
            for (int r = 0; r < 2; ++r)
                for (int col = 0; col < 2; ++col) {
                    cplx s = 0.0;
                    for (int a = 0; a < 3; ++a)
                        for (int e = 0; e < 3; ++e) s += G[r + 2 * a] * far[a + 3 * e] * Q[e + 3 * col];
                    b[r * 2 + col] = s;
                }
            add(num, b);
        }
        std::sort(blocks.begin(), blocks.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
        rows[num] = std::move(blocks);
    }
    ComplexSparse S;
    S.n = static_cast<int>(n2);
    S.row_start.assign(n2 + 1, 0);
    for (int num = 1; num <= in_.N; ++num) {
        const double w = in_.w(num);
        for (int r = 0; r < 2; ++r) {
            const std::size_t row = 2 * static_cast<std::size_t>(num - 1) + r;
            S.row_start[row] = static_cast<std::int64_t>(S.val.size());
            for (const auto& [col, b] : rows[num])
                for (int c = 0; c < 2; ++c) {
                    S.col.push_back(2 * (col - 1) + c);
                    S.val.push_back(b[r * 2 + c] / w);
                }
        }
    }
    S.row_start[n2] = static_cast<std::int64_t>(S.val.size());
    return S;
}

}  // namespace torix
