#include "eigen/bloch_dense.hpp"

#include <algorithm>
#include <ctime>
#include <numeric>
#include <vector>

#include "core/console.hpp"

extern "C" void zgeevx_(const char* balanc, const char* jobvl, const char* jobvr, const char* sense, const int* n,
                        std::complex<double>* a, const int* lda, std::complex<double>* w, std::complex<double>* vl,
                        const int* ldvl, std::complex<double>* vr, const int* ldvr, int* ilo, int* ihi, double* scale,
                        double* abnrm, double* rconde, double* rcondv, std::complex<double>* work, const int* lwork,
                        double* rwork, int* info, std::size_t, std::size_t, std::size_t, std::size_t);

namespace torix {

void assemble_dense_bloch(const MatrixInput& in, const BlochKernel& K, const std::array<double, 3>& kcell, cplx* A) {
    const MagneticCells c = magnetic_cells(in);
    const int N = in.N;
    const std::size_t n2 = 2 * static_cast<std::size_t>(N);
    const std::ptrdiff_t cs = K.stride(3);
    const std::size_t ncell = c.size();
#pragma omp parallel
    {
        std::vector<cplx> r1(n2), r2(n2);
#pragma omp for schedule(static)
        for (int n = 1; n <= N; ++n) {
            std::fill(r1.begin(), r1.end(), cplx{});
            std::fill(r2.begin(), r2.end(), cplx{});
            for (int i : c.of_number[n]) {
                const auto& G = c.blk[i].G;
                for (std::size_t j = 0; j < ncell; ++j) {
                    const cplx* d = &K(c.x[i] - c.x[j], c.y[i] - c.y[j], c.z[i] - c.z[j], 1, c.mat[j]);
                    cplx E[6];  // G K (2x3)
                    for (int col = 0; col < 3; ++col) {
                        const cplx d0 = d[(3 * col) * cs], d1 = d[(3 * col + 1) * cs], d2 = d[(3 * col + 2) * cs];
                        E[0 + 2 * col] = G[0] * d0 + G[2] * d1 + G[4] * d2;
                        E[1 + 2 * col] = G[1] * d0 + G[3] * d1 + G[5] * d2;
                    }
                    const auto& Q = c.blk[j].Q;
                    cplx b11 = E[0] * Q[0] + E[2] * Q[1] + E[4] * Q[2];
                    cplx b21 = E[1] * Q[0] + E[3] * Q[1] + E[5] * Q[2];
                    cplx b12 = E[0] * Q[3] + E[2] * Q[4] + E[4] * Q[5];
                    cplx b22 = E[1] * Q[3] + E[3] * Q[4] + E[5] * Q[5];
                    if (j == static_cast<std::size_t>(i)) {
                        const auto& S = c.blk[i].S;
                        b11 += S[0], b21 += S[1], b12 += S[2], b22 += S[3];
                    }
                    const std::size_t col = 2 * static_cast<std::size_t>(c.num[j] - 1);
                    r1[col] += b11, r2[col] += b21, r1[col + 1] += b12, r2[col + 1] += b22;
                }
                // The local terms: real blocks, phased by their offset.
                for (const LocalBlock& b : c.local[i]) {
                    const auto B = local_block(c.blk[i], b, c.blk[b.source]);
                    const cplx ph = local_phase(b, kcell);
                    const std::size_t col = 2 * static_cast<std::size_t>(c.num[b.source] - 1);
                    r1[col] += ph * B[0], r2[col] += ph * B[1], r1[col + 1] += ph * B[2], r2[col + 1] += ph * B[3];
                }
            }
            const double w = in.w(n);
            const std::size_t r = 2 * static_cast<std::size_t>(n - 1);
            for (std::size_t col = 0; col < n2; ++col) {
                A[r + col * n2] = r1[col] / w;
                A[r + 1 + col * n2] = r2[col] / w;
            }
        }
    }
}

void solve_dense_bloch(int N, cplx* A, int nsel, ModeOutput out) {
    int n = 2 * N;
    const std::size_t nn = static_cast<std::size_t>(n);
    std::vector<cplx> W(nn), VL(nn * nn), VR(nn * nn);
    if (n > 0) {
        std::vector<double> scale(nn), rconde(nn), rcondv(nn), rwork(2 * nn);
        int ilo = 0, ihi = 0, info = 0, lwork = -1;
        double abnrm = 0.0;
        cplx query;
        zgeevx_("B", "V", "V", "N", &n, A, &n, W.data(), VL.data(), &n, VR.data(), &n, &ilo, &ihi, scale.data(),
                &abnrm, rconde.data(), rcondv.data(), &query, &lwork, rwork.data(), &info, 1, 1, 1, 1);
        lwork = std::max(2 * n, static_cast<int>(query.real()));
        std::vector<cplx> work(static_cast<std::size_t>(lwork));
        zgeevx_("B", "V", "V", "N", &n, A, &n, W.data(), VL.data(), &n, VR.data(), &n, &ilo, &ihi, scale.data(),
                &abnrm, rconde.data(), rcondv.data(), work.data(), &lwork, rwork.data(), &info, 1, 1, 1, 1);
    }
    std::vector<int> keep;
    for (int q = 0; q < n; ++q)
        if (W[q].imag() > 0.0) keep.push_back(q);
    std::stable_sort(keep.begin(), keep.end(), [&W](int a, int b) { return W[a].imag() < W[b].imag(); });
    if (static_cast<int>(keep.size()) > std::max(nsel, 0)) keep.resize(static_cast<std::size_t>(std::max(nsel, 0)));
    const int kept = static_cast<int>(keep.size());
    allocate_modes(out, N, kept);
    for (int p = 1; p <= kept; ++p) {
        const int q = keep[p - 1];
        out.W(p, 1) = W[q].imag();
        out.W(p, 2) = -W[q].real();
        out.ZOUT(p) = q + 1;
        for (int c = 1; c <= N; ++c)
            for (int k = 1; k <= 2; ++k) {
                const std::size_t r = 2 * static_cast<std::size_t>(c - 1) + (k - 1);
                out.MODES(c, k, p) = VR[r + q * nn];
                out.MODESL(c, k, p) = VL[r + q * nn];
            }
    }
}

void calcmatrix_bloch(const BlochProblem& p, int nsel, ModeOutput out) {
    if (is_zero(p.k)) {
        calcmatrix(p.in, nsel, out);
        return;
    }
    const std::clock_t t0 = std::clock();
    const int n = 2 * p.in.N;
    std::vector<cplx> A(static_cast<std::size_t>(n) * static_cast<std::size_t>(n));
    {
        const BlochKernel K = bloch_kernel(p.in.AIJ, p.neighbours, p.lattice, p.k);
        assemble_dense_bloch(p.in, K, wave_per_cell(p.lattice, p.k), A.data());
    }
    const std::clock_t t1 = std::clock();
    say("matrix prepared in", static_cast<double>(t1 - t0) / CLOCKS_PER_SEC);
    solve_dense_bloch(p.in.N, A.data(), nsel, out);
    say("matrix solved in", static_cast<double>(std::clock() - t1) / CLOCKS_PER_SEC);
}

}  // namespace torix
