// The Fourier form of the interaction tensor (aijfft, aijfft2d): the
// spectra of its slices on the doubled grid, the short-range stencils that
// stand in for what differs little between slices (and for the
// antisymmetric part), and the FFTW plans of the grid.  The convolution
// that uses them is in fft_field.cpp.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

#include "core/error.hpp"
#include "core/progress.hpp"
#include "dynamics/fft_plans.hpp"

namespace torix {

using namespace detail;  // the shared plans and block layout (fft_plans.hpp)

void set_fft_measure_limit(std::size_t points) { measure_limit = points; }

std::size_t FourierTensor::spectrum_bytes() const {
    return spec_re.size() * sizeof(double) + spec_c.size() * sizeof(cplx);
}

std::size_t FourierTensor::work_bytes() const {
    if (!plans) return 0;
    const int nin = 3 * plans->nsets;
    const std::size_t column = static_cast<std::size_t>(nin) * plans->L3 * plans->block * sizeof(fftw_complex);
    return plans->rrow * nin * sizeof(double) + plans->Fs * nin * sizeof(fftw_complex) +
           column * static_cast<std::size_t>(omp_get_max_threads());
}

namespace {

void build_fourier(const TensorArray& AIJ, FourierTensor& F, int nx, int ny, int nz, int nmat, bool two_d) {
    if (two_d && nz != 0) throw FatalError("FFT: the two-dimensional Fourier form needs a single layer (nz = 0)");
    if (AIJ.lo(0) > -nx || AIJ.hi(0) < nx || AIJ.lo(1) > -ny || AIJ.hi(1) < ny || AIJ.lo(2) > -nz ||
        AIJ.hi(2) < nz || AIJ.extent(4) < nmat || nmat < 1)
        throw FatalError("FFT: the interaction tensor does not cover the grid and materials");

    F = FourierTensor{};
    F.two_d = two_d;
    F.nx = nx;
    F.ny = ny;
    F.nz = nz;
    F.nmat = nmat;
    F.L1 = 2 * nx + 2;
    F.L2 = 2 * ny + 2;
    F.L3 = two_d ? 1 : 2 * nz + 2;
    F.Lh = F.L1 / 2 + 1;
    const std::size_t nf = F.frequencies();

    // Largest entry, the scale of the tolerances below.
    double big = 0.0;
    for (int c = 1; c <= 9; ++c)
        for (int m = 1; m <= nmat; ++m)
            for (int k = -nz; k <= nz; ++k)
                for (int j = -ny; j <= ny; ++j)
                    for (int i = -nx; i <= nx; ++i) big = std::max(big, std::abs(AIJ(i, j, k, c, m)));
    const double tol = 1e-14 * big;

    // The convolution takes the symmetric part of every block; the
    // antisymmetric part (the DMI, on the nearest-neighbour offsets and
    // their periodic images) is short-range and joins the source material's
    // stencil, so the spectra stay real for a kernel even under r -> -r.
    auto sym = [&](int i, int j, int k, int a, int b, int m) {
        return 0.5 * (AIJ(i, j, k, comp(a, b), m) + AIJ(i, j, k, comp(b, a), m));
    };
    auto anti = [&](int i, int j, int k, int a, int b, int m) {
        return 0.5 * (AIJ(i, j, k, comp(a, b), m) - AIJ(i, j, k, comp(b, a), m));
    };

    // Differences of every material's slice from material 1's.
    F.set_material.push_back(0);
    F.stencil.assign(static_cast<std::size_t>(nmat) + 1, {});
    for (int m = 2; m <= nmat; ++m) {
        std::vector<FourierTensor::StencilEntry> diff;
        bool dense = false;
        for (int k = -nz; k <= nz && !dense; ++k)
            for (int j = -ny; j <= ny && !dense; ++j)
                for (int i = -nx; i <= nx && !dense; ++i) {
                    FourierTensor::StencilEntry e{i, j, k, {}};
                    bool differs = false;
                    for (int a = 0; a < 3; ++a)
                        for (int b = 0; b < 3; ++b) {
                            const double d = sym(i, j, k, a, b, m) - sym(i, j, k, a, b, 1);
                            e.c[a + 3 * b] = d;
                            if (std::abs(d) > tol) differs = true;
                        }
                    if (!differs) continue;
                    diff.push_back(e);
                    if (diff.size() > kMaxStencil) dense = true;
                }
        if (dense)
            F.set_material.push_back(m);
        else
            F.stencil[m] = std::move(diff);
    }
    // The antisymmetric parts, into the stencils.
    for (int m = 1; m <= nmat; ++m) {
        std::size_t count = 0;
        for (int k = -nz; k <= nz; ++k)
            for (int j = -ny; j <= ny; ++j)
                for (int i = -nx; i <= nx; ++i) {
                    bool has = false;
                    for (int a = 0; a < 3 && !has; ++a)
                        for (int b = a + 1; b < 3; ++b)
                            if (std::abs(anti(i, j, k, a, b, m)) > tol) has = true;
                    if (!has) continue;
                    if (++count > kMaxStencil)
                        throw FatalError("FFT: the interaction tensor of material " + std::to_string(m) +
                                         " has an antisymmetric part at more than " + std::to_string(kMaxStencil) +
                                         " offsets (only a short-range one, such as the DMI, is supported)");
                    auto& list = F.stencil[m];
                    auto it = std::find_if(list.begin(), list.end(),
                                           [&](const auto& e) { return e.di == i && e.dj == j && e.dk == k; });
                    if (it == list.end()) {
                        list.push_back(FourierTensor::StencilEntry{i, j, k, {}});
                        it = list.end() - 1;
                    }
                    for (int a = 0; a < 3; ++a)
                        for (int b = 0; b < 3; ++b) it->c[a + 3 * b] += anti(i, j, k, a, b, m);
                }
    }
    const int nsets = static_cast<int>(F.set_material.size());

    // Spectra of the kernels: set 0 the slice of material 1, set s the
    // difference of material set_material[s].  Offset d sits at index d
    // (d >= 0) or L + d (d < 0).
    const std::size_t npad = static_cast<std::size_t>(F.L1) * F.L2 * F.L3;
    double* kr = fftw_alloc_real(npad);
    fftw_complex* kc = fftw_alloc_complex(nf);
    if (!kr || !kc) throw std::bad_alloc();
    prepare_fftw_threads(npad);
    fftw_plan plan = two_d ? fftw_plan_dft_r2c_2d(F.L2, F.L1, kr, kc, FFTW_ESTIMATE)
                           : fftw_plan_dft_r2c_3d(F.L3, F.L2, F.L1, kr, kc, FFTW_ESTIMATE);
    std::vector<cplx> all(static_cast<std::size_t>(nsets) * 6 * nf);
    Progress progress("Fourier form of the tensor");
    for (int s = 0; s < nsets; ++s) {
        const int m = F.set_material[s];
        for (int q = 0; q < 6; ++q) {
            progress.fraction((6.0 * s + q) / (6.0 * nsets));
            // The middle planes (offset n+1) are never read by the
            // convolution and stay zero, which keeps the kernel even.
            std::fill(kr, kr + npad, 0.0);
            for (int k = -nz; k <= nz; ++k) {
                const int pk = k >= 0 ? k : k + F.L3;
                for (int j = -ny; j <= ny; ++j) {
                    const int pj = j >= 0 ? j : j + F.L2;
                    double* row = kr + static_cast<std::size_t>(F.L1) * (pj + static_cast<std::size_t>(F.L2) * pk);
                    for (int i = -nx; i <= nx; ++i) {
                        const int pi = i >= 0 ? i : i + F.L1;
                        const double v1 = sym(i, j, k, kRow[q], kCol[q], 1);
                        row[pi] = m == 0 ? v1 : sym(i, j, k, kRow[q], kCol[q], m) - v1;
                    }
                }
            }
            fftw_execute(plan);
            cplx* dst = all.data() + (static_cast<std::size_t>(s) * 6 + q) * nf;
            for (std::size_t f = 0; f < nf; ++f) dst[f] = cplx(kc[f][0], kc[f][1]);
        }
    }
    fftw_destroy_plan(plan);
    fftw_free(kr);
    fftw_free(kc);

    // A kernel even under d -> -d has a real spectrum: keep the real parts.
    double re_max = 0.0, im_max = 0.0;
    for (const cplx& z : all) {
        re_max = std::max(re_max, std::abs(z.real()));
        im_max = std::max(im_max, std::abs(z.imag()));
    }
    F.real_spectrum = im_max <= 1e-12 * re_max;

    // Half planes along y and z, when every component has its parity.
    const int L2 = F.L2, L3 = F.L3, Lh = F.Lh;
    const std::size_t plane = static_cast<std::size_t>(Lh) * L2;
    constexpr bool yodd[6] = {false, true, false, false, true, false};
    constexpr bool zodd[6] = {false, false, true, false, true, false};
    bool fold = F.real_spectrum;
    for (int s = 0; s < nsets && fold; ++s)
        for (int q = 0; q < 6 && fold; ++q) {
            const cplx* base = all.data() + (static_cast<std::size_t>(s) * 6 + q) * nf;
            for (int kz = 0; kz < L3 && fold; ++kz) {
                const bool zf = kz > L3 / 2;
                const int kz2 = zf ? L3 - kz : kz;
                for (int ky = 0; ky < L2 && fold; ++ky) {
                    const bool yf = ky > L2 / 2;
                    const int ky2 = yf ? L2 - ky : ky;
                    const double sg = ((yf && yodd[q]) != (zf && zodd[q])) ? -1.0 : 1.0;
                    const cplx* a = base + Lh * static_cast<std::size_t>(ky) + plane * kz;
                    const cplx* b = base + Lh * static_cast<std::size_t>(ky2) + plane * kz2;
                    for (int x = 0; x < Lh; ++x)
                        if (std::abs(a[x].real() - sg * b[x].real()) > 1e-12 * re_max) {
                            fold = false;
                            break;
                        }
                }
            }
        }
    F.Ky = fold ? L2 / 2 + 1 : L2;
    F.Kz = fold ? L3 / 2 + 1 : L3;
    F.colmap.resize(plane);
    F.yflip.resize(plane);
    for (std::size_t col = 0; col < plane; ++col) {
        const int x = static_cast<int>(col % Lh), ky = static_cast<int>(col / Lh);
        const bool yf = fold && ky > L2 / 2;
        F.colmap[col] = x + Lh * (yf ? L2 - ky : ky);
        F.yflip[col] = yf ? 1 : 0;
    }
    if (F.real_spectrum) {
        const std::size_t ns = static_cast<std::size_t>(Lh) * F.Ky * F.Kz;
        F.spec_re.resize(static_cast<std::size_t>(nsets) * 6 * ns);
        for (int sq = 0; sq < nsets * 6; ++sq)
            for (int kz = 0; kz < F.Kz; ++kz)
                for (int ky = 0; ky < F.Ky; ++ky)
                    for (int x = 0; x < Lh; ++x)
                        F.spec_re[sq * ns + x + Lh * (static_cast<std::size_t>(ky) + static_cast<std::size_t>(F.Ky) * kz)] =
                            all[sq * nf + x + Lh * static_cast<std::size_t>(ky) + plane * kz].real();
    } else {
        F.spec_c = std::move(all);
    }

    F.plans = std::make_shared<detail::FourierPlans>(nx, ny, nz, F.L1, F.L2, F.L3, nsets);
    F.ready = true;
}

}  // namespace

void aijfft(const TensorArray& AIJ, FourierTensor& F, int nx, int ny, int nz, int nmat) {
    build_fourier(AIJ, F, nx, ny, nz, nmat, false);
}

void aijfft2d(const TensorArray& AIJ, FourierTensor& F, int nx, int ny, int nmat) {
    build_fourier(AIJ, F, nx, ny, 0, nmat, true);
}

FourierTensor concurrent_copy(const FourierTensor& F) {
    if (!F.ready || !F.plans) throw FatalError("FFT: the Fourier form of the tensor has not been prepared");
    FourierTensor G = F;
    G.plans = std::make_shared<detail::FourierPlans>(F.nx, F.ny, F.nz, F.L1, F.L2, F.L3, F.plans->nsets);
    F.plans->ensure_planned();
    G.plans->ensure_planned();
    return G;
}

void add_anisotropy_fourier(FourierTensor& F, const Array<double, 1>& MS, int m, double ux, double uy, double uz,
                            double K) {
    if (!F.ready) throw FatalError("ADD_ANISOTROPY_FIELD: the Fourier form of the tensor has not been prepared");
    if (m < 1 || m > F.nmat)
        throw FatalError("ADD_ANISOTROPY_FIELD: material " + std::to_string(m) + " is not between 1 and " +
                         std::to_string(F.nmat));
    const double kp = K / (MS(m) * MS(m));
    const double u[3] = {ux, uy, uz};
    auto& list = F.stencil[m];
    auto it = std::find_if(list.begin(), list.end(), [](const auto& e) { return e.di == 0 && e.dj == 0 && e.dk == 0; });
    if (it == list.end()) {
        list.push_back(FourierTensor::StencilEntry{});
        it = list.end() - 1;
    }
    for (int a = 0; a < 3; ++a)
        for (int b = 0; b < 3; ++b) it->c[a + 3 * b] += kp * u[a] * u[b];
}

}  // namespace torix
