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
#include "core/progress.hpp"

namespace torix {

namespace {

// Components kept of the symmetric 3x3 block: xx xy xz yy yz zz, as (row,
// column) pairs with 0-based rows and columns.
constexpr int kRow[6] = {0, 0, 0, 1, 1, 2};
constexpr int kCol[6] = {0, 1, 2, 1, 2, 2};
// A material whose slice differs from material 1's at more offsets than this
// gets a convolution of its own instead of a stencil.
constexpr std::size_t kMaxStencil = 64;
// Loops and transforms smaller than this many points run on one thread.
constexpr std::size_t kParallelPoints = 16384;
std::size_t measure_limit = std::size_t{1} << 22;
// Work buffers of fewer complex points than this are planned by estimate:
// on such small grids measuring costs more than the measured plans save
// (the FMR problem's 24 x 24 x 2 cells, 7200 points: a relaxation 0.35 s
// against 0.25 s, a 12-mode SOLVE_MODES 1.19 s against 1.08 s, with its
// thousands of convolutions within 2 % of each other).
constexpr std::size_t kMeasureFloor = std::size_t{1} << 15;

inline int comp(int a, int b) { return 1 + a + 3 * b; }  // 1-based storage component of row a, column b

void prepare_fftw_threads(std::size_t points) {
    static const bool once = [] {
        fftw_init_threads();
        return true;
    }();
    (void)once;
    fftw_plan_with_nthreads(points > kParallelPoints ? omp_get_max_threads() : 1);
}

}  // namespace

namespace detail {

// Work buffers hold only the planes k <= nz of the spectra along z: the z
// transforms run column block by column block in a small per-thread buffer,
// fused with the product, so the full padded spectrum of M is never stored.
struct FourierPlans {
    int nx = 0, ny = 0, nz = 0, L1 = 0, L2 = 0, L3 = 0, Lh = 0, nsets = 1;
    std::size_t Fs = 0;      // stored points per component: Lh L2 (nz+1)
    std::size_t rrow = 0;    // real points per component: L1 (ny+1) (nz+1)
    int ncols = 0;           // columns along z: Lh L2
    int block = 0, tail = 0; // columns per block, columns of the last short block
    double* rbuf = nullptr;  // real rows, 3 nsets components
    fftw_complex* cbuf = nullptr;
    fftw_plan fx = nullptr, fy = nullptr, by = nullptr, bx = nullptr;
    fftw_plan fz = nullptr, bz = nullptr, fz_tail = nullptr, bz_tail = nullptr;  // on a column block
    bool planned = false;

    static fftw_plan column_plan(int L3, int B, int nc, int sign, fftw_complex* buf, unsigned flags) {
        fftw_iodim d{L3, B, B};
        fftw_iodim hm[2] = {{B, 1, 1}, {nc, L3 * B, L3 * B}};
        return fftw_plan_guru_dft(1, &d, 2, hm, buf, buf, sign, flags);
    }

    FourierPlans(int nx_, int ny_, int nz_, int L1_, int L2_, int L3_, int nsets_)
        : nx(nx_), ny(ny_), nz(nz_), L1(L1_), L2(L2_), L3(L3_), Lh(L1_ / 2 + 1), nsets(nsets_) {
        Fs = static_cast<std::size_t>(Lh) * L2 * (nz + 1);
        // A single layer uses FFTW's own two-dimensional transforms on the
        // whole padded plane (faster than the pruned stages there).
        rrow = L3 == 1 ? static_cast<std::size_t>(L1) * L2 : static_cast<std::size_t>(L1) * (ny + 1) * (nz + 1);
        ncols = Lh * L2;
        const int nin = 3 * nsets;
        // A column block fills about 128 KiB (it stays in the core's cache);
        // large blocks keep the cost of starting the small transforms low.
        block = std::clamp(static_cast<int>((std::size_t{128} << 10) / (sizeof(fftw_complex) * nin * L3)), 8, 512);
        block = std::min(ncols, block);
        tail = ncols % block;
        rbuf = fftw_alloc_real(rrow * nin);
        cbuf = fftw_alloc_complex(Fs * nin);
        if (!rbuf || !cbuf) throw std::bad_alloc();
    }

    // The plans are made when the first field is evaluated, not with the
    // Fourier form: measuring takes longer than building the tensor on
    // mid-sized grids, and a form that is rebuilt (anisotropy added, tensor
    // loaded) or never used for a field does not pay for it.
    void ensure_planned() {
        if (planned) return;
        const int nin = 3 * nsets;
        prepare_fftw_threads(Fs * nin);
        // Mid-sized grids are planned thoroughly; large ones by estimate,
        // where measuring would cost seconds on a small machine, and small
        // ones, where it would cost more than it saves.
        const std::size_t points = Fs * nin;
        const unsigned flags =
            (points >= kMeasureFloor && points <= measure_limit) ? FFTW_MEASURE : FFTW_ESTIMATE;
        // The z transforms on a column block are small at any grid size:
        // measured unless the whole grid is small.
        const unsigned column_flags = points >= kMeasureFloor ? FFTW_MEASURE : FFTW_ESTIMATE;
        const int Fi = static_cast<int>(Fs);
        const int R = static_cast<int>(rrow);
        const int ny1 = ny + 1, nz1 = nz + 1;
        if (L3 == 1) {
            const int n2[2] = {L2, L1};
            fx = fftw_plan_many_dft_r2c(2, n2, nin, rbuf, nullptr, 1, R, cbuf, nullptr, 1, Fi, flags);
            bx = fftw_plan_many_dft_c2r(2, n2, 3, cbuf, nullptr, 1, Fi, rbuf, nullptr, 1, R, flags);
            if (!fx || !bx) throw FatalError("FFT: cannot plan the transforms for the padded grid " +
                                             std::to_string(L1) + " x " + std::to_string(L2));
            planned = true;
            return;
        }
        for (int dir = 0; dir < 2; ++dir) {
            const int nc = dir == 0 ? nin : 3;
            {  // x: real rows <-> half spectra
                fftw_iodim d{L1, 1, 1};
                if (dir == 0) {
                    fftw_iodim hm[3] = {{ny1, L1, Lh}, {nz1, L1 * ny1, Lh * L2}, {nc, R, Fi}};
                    fx = fftw_plan_guru_dft_r2c(1, &d, 3, hm, rbuf, cbuf, flags);
                } else {
                    fftw_iodim hm[3] = {{ny1, Lh, L1}, {nz1, Lh * L2, L1 * ny1}, {nc, Fi, R}};
                    bx = fftw_plan_guru_dft_c2r(1, &d, 3, hm, cbuf, rbuf, flags);
                }
            }
            {  // y: the planes that hold cells
                fftw_iodim d{L2, Lh, Lh};
                fftw_iodim hm[3] = {{Lh, 1, 1}, {nz1, Lh * L2, Lh * L2}, {nc, Fi, Fi}};
                (dir == 0 ? fy : by) = fftw_plan_guru_dft(1, &d, 3, hm, cbuf, cbuf,
                                                          dir == 0 ? FFTW_FORWARD : FFTW_BACKWARD, flags);
            }
        }
        bool ok = fx && fy && bx && by;
        if (L3 > 1) {  // z on one block of columns, run inside the threads
            fftw_plan_with_nthreads(1);
            fftw_complex* tmp = fftw_alloc_complex(static_cast<std::size_t>(nin) * L3 * block);
            fz = column_plan(L3, block, nin, FFTW_FORWARD, tmp, column_flags);
            bz = column_plan(L3, block, 3, FFTW_BACKWARD, tmp, column_flags);
            ok = ok && fz && bz;
            if (tail > 0) {
                fz_tail = column_plan(L3, tail, nin, FFTW_FORWARD, tmp, column_flags);
                bz_tail = column_plan(L3, tail, 3, FFTW_BACKWARD, tmp, column_flags);
                ok = ok && fz_tail && bz_tail;
            }
            fftw_free(tmp);
        }
        if (!ok)
            throw FatalError("FFT: cannot plan the transforms for the padded grid " + std::to_string(L1) + " x " +
                             std::to_string(L2) + " x " + std::to_string(L3));
        planned = true;
    }
    FourierPlans(const FourierPlans&) = delete;
    FourierPlans& operator=(const FourierPlans&) = delete;
    ~FourierPlans() {
        for (fftw_plan p : {fx, fy, by, bx, fz, bz, fz_tail, bz_tail})
            if (p) fftw_destroy_plan(p);
        fftw_free(rbuf);
        fftw_free(cbuf);
    }
};

}  // namespace detail

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
