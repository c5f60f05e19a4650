// Convolution field with real-to-complex FFTs on the doubled grid.
//
// Forward transform of M, pruned: the padded copy of M is zero outside the
// first (nx+1)(ny+1)(nz+1) points, so the x transforms run only over the
// rows that hold cells and the y transforms only over the planes that hold
// cells.  The z transforms, the product with the tensor spectra and the
// inverse z transforms then run together on blocks of columns that stay in
// cache, so only the planes k <= nz of any spectrum are ever stored.
// Backward: y over those planes, x over the rows of the cells.  The pruned
// stages give the same numbers as full transforms.
#include "dynamics/fft_field.hpp"

#include <fftw3.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

#include "core/error.hpp"
#include "dynamics/fft_plans.hpp"

namespace torix {

using namespace detail;  // the shared plans and block layout (fft_plans.hpp)

namespace {

// Adds the symmetric block stored at kb (six components ns apart) times
// (m0, m1, m2) to (h0, h1, h2).  Real spectra stored on half planes take
// the signs sy, sz of the mirrored planes (xy, yz odd in y; xz, yz odd in z);
// complex spectra are stored whole.
template <bool Real>
inline void block_product(const double* kre, const cplx* kcx, std::size_t kb, std::size_t ns, double sy, double sz,
                          cplx m0, cplx m1, cplx m2, cplx& h0, cplx& h1, cplx& h2) {
    if constexpr (Real) {
        const double xx = kre[kb], xy = sy * kre[kb + ns], xz = sz * kre[kb + 2 * ns];
        const double yy = kre[kb + 3 * ns], yz = sy * sz * kre[kb + 4 * ns], zz = kre[kb + 5 * ns];
        h0 += xx * m0 + xy * m1 + xz * m2;
        h1 += xy * m0 + yy * m1 + yz * m2;
        h2 += xz * m0 + yz * m1 + zz * m2;
    } else {
        const cplx xx = kcx[kb], xy = kcx[kb + ns], xz = kcx[kb + 2 * ns];
        const cplx yy = kcx[kb + 3 * ns], yz = kcx[kb + 4 * ns], zz = kcx[kb + 5 * ns];
        h0 += xx * m0 + xy * m1 + xz * m2;
        h1 += xy * m0 + yy * m1 + yz * m2;
        h2 += xz * m0 + yz * m1 + zz * m2;
    }
}

// The z transforms and the product, column block by column block: a block
// of B consecutive columns (x fastest, then y) of every component is copied
// into a per-thread buffer laid out [component][kz][column], the planes
// kz > nz being zero, transformed along z, multiplied by the tensor spectra
// (field components 0..2 written in place), transformed back, and the
// planes kz <= nz copied back into the work buffer.
// Single layer: no z transforms, the product runs in place on the work
// buffer.
template <bool Real>
void plane_product(const FourierTensor& F, detail::FourierPlans& P) {
    const std::size_t nf = F.frequencies();
    const std::size_t ns = static_cast<std::size_t>(F.Lh) * F.Ky * F.Kz;  // stored per component
    const int nsets = P.nsets;
    const double* kre = F.spec_re.data();
    const cplx* kcx = F.spec_c.data();
    const std::int32_t* colmap = F.colmap.data();
    const std::uint8_t* yflip = F.yflip.data();
    fftw_complex* cb = P.cbuf;
    const std::ptrdiff_t n = static_cast<std::ptrdiff_t>(nf);
#pragma omp parallel for schedule(static) if (nf > kParallelPoints)
    for (std::ptrdiff_t f = 0; f < n; ++f) {
        cplx h0 = 0.0, h1 = 0.0, h2 = 0.0;
        const std::size_t fs = static_cast<std::size_t>(colmap[f]);
        const double sy = yflip[f] ? -1.0 : 1.0;
        for (int s = 0; s < nsets; ++s) {
            const std::size_t mb = static_cast<std::size_t>(3 * s) * nf + f;
            const cplx m0(cb[mb][0], cb[mb][1]);
            const cplx m1(cb[mb + nf][0], cb[mb + nf][1]);
            const cplx m2(cb[mb + 2 * nf][0], cb[mb + 2 * nf][1]);
            const std::size_t kb = static_cast<std::size_t>(6 * s) * ns + fs;
            block_product<Real>(kre, kcx, kb, ns, sy, 1.0, m0, m1, m2, h0, h1, h2);
        }
        cb[f][0] = h0.real();
        cb[f][1] = h0.imag();
        cb[f + nf][0] = h1.real();
        cb[f + nf][1] = h1.imag();
        cb[f + 2 * nf][0] = h2.real();
        cb[f + 2 * nf][1] = h2.imag();
    }
}

template <bool Real>
void column_pass(const FourierTensor& F, detail::FourierPlans& P) {
    const std::size_t nf = F.frequencies();
    const std::size_t ns = static_cast<std::size_t>(F.Lh) * F.Ky * F.Kz;  // stored per component
    const std::size_t splane = static_cast<std::size_t>(F.Lh) * F.Ky;      // stored per kz plane
    const int nsets = P.nsets, nin = 3 * nsets, L3 = F.L3, nz1 = F.nz + 1;
    const std::size_t plane = static_cast<std::size_t>(P.ncols);
    const double* kre = F.spec_re.data();
    const cplx* kcx = F.spec_c.data();
    const std::int32_t* colmap = F.colmap.data();
    const std::uint8_t* yflip = F.yflip.data();
    const bool zfold = F.Kz < L3;
    const int nblocks = (P.ncols + P.block - 1) / P.block;
    const bool par = nf > kParallelPoints;
#pragma omp parallel if (par)
    {
        fftw_complex* loc = fftw_alloc_complex(static_cast<std::size_t>(nin) * L3 * P.block);
#pragma omp for schedule(static)
        for (int blk = 0; blk < nblocks; ++blk) {
            const int c0 = blk * P.block;
            const int B = std::min(P.block, P.ncols - c0);
            const std::size_t cs = static_cast<std::size_t>(L3) * B;  // component stride in loc
            for (int c = 0; c < nin; ++c) {
                for (int k = 0; k < nz1; ++k)
                    std::memcpy(loc + c * cs + static_cast<std::size_t>(k) * B, P.cbuf + P.Fs * c + plane * k + c0,
                                B * sizeof(fftw_complex));
                if (L3 > nz1)
                    std::memset(loc + c * cs + static_cast<std::size_t>(nz1) * B, 0,
                                static_cast<std::size_t>(L3 - nz1) * B * sizeof(fftw_complex));
            }
            if (L3 > 1) fftw_execute_dft(B == P.block ? P.fz : P.fz_tail, loc, loc);
            for (int kz = 0; kz < L3; ++kz) {
                const bool zf = zfold && kz > L3 / 2;
                const std::size_t zoff = splane * static_cast<std::size_t>(zf ? L3 - kz : kz);
                const double sz = zf ? -1.0 : 1.0;
                for (int b = 0; b < B; ++b) {
                    const std::size_t f = static_cast<std::size_t>(colmap[c0 + b]) + zoff;
                    const double sy = yflip[c0 + b] ? -1.0 : 1.0;
                    const std::size_t l = static_cast<std::size_t>(kz) * B + b;
                    cplx h0 = 0.0, h1 = 0.0, h2 = 0.0;
                    for (int s = 0; s < nsets; ++s) {
                        const fftw_complex* ms = loc + 3 * s * cs + l;
                        const cplx m0(ms[0][0], ms[0][1]);
                        const cplx m1(ms[cs][0], ms[cs][1]);
                        const cplx m2(ms[2 * cs][0], ms[2 * cs][1]);
                        const std::size_t kb = static_cast<std::size_t>(6 * s) * ns + f;
                        block_product<Real>(kre, kcx, kb, ns, sy, sz, m0, m1, m2, h0, h1, h2);
                    }
                    fftw_complex* hs = loc + l;
                    hs[0][0] = h0.real();
                    hs[0][1] = h0.imag();
                    hs[cs][0] = h1.real();
                    hs[cs][1] = h1.imag();
                    hs[2 * cs][0] = h2.real();
                    hs[2 * cs][1] = h2.imag();
                }
            }
            if (L3 > 1) fftw_execute_dft(B == P.block ? P.bz : P.bz_tail, loc, loc);
            for (int c = 0; c < 3; ++c)
                for (int k = 0; k < nz1; ++k)
                    std::memcpy(P.cbuf + P.Fs * c + plane * k + c0, loc + c * cs + static_cast<std::size_t>(k) * B,
                                B * sizeof(fftw_complex));
        }
        fftw_free(loc);
    }
}

void check_grid(const FourierTensor& F, int nx, int ny, int nz) {
    if (!F.ready || !F.plans) throw FatalError("FFT field: the Fourier form of the tensor has not been prepared");
    if (F.nx != nx || F.ny != ny || F.nz != nz)
        throw FatalError("FFT field: the Fourier form was prepared for another grid");
}

}  // namespace

void mfft(const VecGrid& M, const IntGrid& mask, const FourierTensor& F) {
    detail::FourierPlans& P = *F.plans;
    P.ensure_planned();
    const int nx = F.nx, ny = F.ny, nz = F.nz, L1 = F.L1, L2 = F.L2, Lh = F.Lh;
    const int nsets = P.nsets;
    // Padded real rows of each set's magnetization: M on the set's cells,
    // zero on empty cells, on other sets' cells and on the padding.
    const int rows = (ny + 1) * (nz + 1);
    const int ntask = 3 * nsets * rows;
#pragma omp parallel for schedule(static) if (P.rrow * nsets > kParallelPoints)
    for (int t = 0; t < ntask; ++t) {
        const int c = t / rows, jk = t % rows;
        const int j = jk % (ny + 1), k = jk / (ny + 1);
        const int s = c / 3, b = c % 3 + 1;
        const int want = F.set_material[s];
        double* row = P.rbuf + P.rrow * c + static_cast<std::size_t>(L1) * jk;
        const std::int32_t* qrow = mask.data() + mask.linear(0, j, k);
        const double* mrow = M.data() + M.linear(0, j, k, b);
        if (want == 0)
            for (int i = 0; i <= nx; ++i) row[i] = qrow[i] != 0 ? mrow[i] : 0.0;
        else
            for (int i = 0; i <= nx; ++i) row[i] = qrow[i] == want ? mrow[i] : 0.0;
        std::fill(row + nx + 1, row + L1, 0.0);
    }
    const int nin = 3 * nsets;
    if (F.L3 == 1) {  // whole padded plane: the rows j > ny are zero
        const std::size_t used = static_cast<std::size_t>(L1) * (ny + 1);
        for (int c = 0; c < nin; ++c) std::fill(P.rbuf + P.rrow * c + used, P.rbuf + P.rrow * (c + 1), 0.0);
        fftw_execute(P.fx);
        return;
    }
    fftw_execute(P.fx);
    // The rows j > ny of every plane are zero before the y transforms.
    const std::size_t ytail = static_cast<std::size_t>(Lh) * (L2 - ny - 1);
    if (ytail > 0)
        for (int c = 0; c < nin; ++c)
            for (int k = 0; k <= nz; ++k)
                std::memset(P.cbuf + P.Fs * c + static_cast<std::size_t>(Lh) * ((ny + 1) + static_cast<std::size_t>(L2) * k),
                            0, ytail * sizeof(fftw_complex));
    fftw_execute(P.fy);
}

void hfft(const IntGrid& mask, const FourierTensor& F, VecGrid& H) {
    detail::FourierPlans& P = *F.plans;
    P.ensure_planned();
    if (F.L3 == 1) {
        if (F.real_spectrum)
            plane_product<true>(F, P);
        else
            plane_product<false>(F, P);
        fftw_execute(P.bx);
    } else {
        if (F.real_spectrum)
            column_pass<true>(F, P);
        else
            column_pass<false>(F, P);
        fftw_execute(P.by);
        fftw_execute(P.bx);
    }
    const double scale = 1.0 / (static_cast<double>(F.L1) * F.L2 * F.L3);
    const int nx = F.nx, ny = F.ny, nz = F.nz, L1 = F.L1;
    const int rows = (ny + 1) * (nz + 1);
#pragma omp parallel for schedule(static) if (P.rrow > kParallelPoints)
    for (int jk = 0; jk < rows; ++jk) {
        const int j = jk % (ny + 1), k = jk / (ny + 1);
        const std::int32_t* qrow = mask.data() + mask.linear(0, j, k);
        for (int a = 1; a <= 3; ++a) {
            const double* row = P.rbuf + P.rrow * (a - 1) + static_cast<std::size_t>(L1) * jk;
            double* hrow = H.data() + H.linear(0, j, k, a);
            for (int i = 0; i <= nx; ++i)
                if (qrow[i] != 0) hrow[i] += scale * row[i];
        }
    }
}

void calcfieldsfft(const VecGrid& M, const Array<double, 1>& MS, const std::array<double, 3>& MP, double s,
                   const IntGrid& mask, const FourierTensor& AIJ_FFT, VecGrid& H, int nx, int ny, int nz, int /*n*/) {
    check_grid(AIJ_FFT, nx, ny, nz);
    const FourierTensor& F = AIJ_FFT;
    mfft(M, mask, F);
    hfft(mask, F, H);

    // Stencils: the parts of the other materials' slices that differ from
    // material 1's, read with the source cell's material.
    std::vector<int> with_stencil;
    for (int m = 1; m <= F.nmat; ++m)
        if (!F.stencil[m].empty()) with_stencil.push_back(m);
    const int rows = (ny + 1) * (nz + 1);
    const bool par = static_cast<std::size_t>(rows) * (nx + 1) > kParallelPoints;
    if (!with_stencil.empty()) {
#pragma omp parallel for schedule(static) if (par)
        for (int jk = 0; jk < rows; ++jk) {
            const int j = jk % (ny + 1), k = jk / (ny + 1);
            for (int i = 0; i <= nx; ++i) {
                if (mask(i, j, k) == 0) continue;
                double h[3] = {0.0, 0.0, 0.0};
                for (int m : with_stencil)
                    for (const auto& e : F.stencil[m]) {
                        const int si = i - e.di, sj = j - e.dj, sk = k - e.dk;
                        if (si < 0 || si > nx || sj < 0 || sj > ny || sk < 0 || sk > nz) continue;
                        if (mask(si, sj, sk) != m) continue;
                        const double m0 = M(si, sj, sk, 1), m1 = M(si, sj, sk, 2), m2 = M(si, sj, sk, 3);
                        for (int a = 0; a < 3; ++a) h[a] += e.c[a] * m0 + e.c[a + 3] * m1 + e.c[a + 6] * m2;
                    }
                for (int a = 0; a < 3; ++a) H(i, j, k, a + 1) += h[a];
            }
        }
    }

    // Vector-product term M x (s H - MP) / MS, with the field after the
    // tensor part.
    if (s != 0.0 || MP[0] != 0.0 || MP[1] != 0.0 || MP[2] != 0.0) {
#pragma omp parallel for schedule(static) if (par)
        for (int jk = 0; jk < rows; ++jk) {
            const int j = jk % (ny + 1), k = jk / (ny + 1);
            for (int i = 0; i <= nx; ++i) {
                const int q = mask(i, j, k);
                if (q == 0) continue;
                const double m0 = M(i, j, k, 1), m1 = M(i, j, k, 2), m2 = M(i, j, k, 3);
                const double b0 = s * H(i, j, k, 1) - MP[0];
                const double b1 = s * H(i, j, k, 2) - MP[1];
                const double b2 = s * H(i, j, k, 3) - MP[2];
                const double ms = MS(q);
                H(i, j, k, 1) += (m1 * b2 - m2 * b1) / ms;
                H(i, j, k, 2) += (m2 * b0 - m0 * b2) / ms;
                H(i, j, k, 3) += (m0 * b1 - m1 * b0) / ms;
            }
        }
    }
}

}  // namespace torix
