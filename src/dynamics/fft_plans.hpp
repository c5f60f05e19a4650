#pragma once
// What the two halves of the Fourier-space field share: the Fourier form of
// the tensor (fft_tensor.cpp) and the convolution of M with it
// (fft_field.cpp) use the same FFTW plans and work buffers of one grid, and
// the same layout of the symmetric blocks.  Not for use outside them.
#include <fftw3.h>
#include <omp.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "core/error.hpp"
#include "dynamics/fft_field.hpp"

namespace torix::detail {

// Components kept of the symmetric 3x3 block: xx xy xz yy yz zz, as (row,
// column) pairs with 0-based rows and columns.
constexpr int kRow[6] = {0, 0, 0, 1, 1, 2};
constexpr int kCol[6] = {0, 1, 2, 1, 2, 2};
// A material whose slice differs from material 1's at more offsets than this
// gets a convolution of its own instead of a stencil.
constexpr std::size_t kMaxStencil = 64;
// Loops and transforms smaller than this many points run on one thread.
constexpr std::size_t kParallelPoints = 16384;
inline std::size_t measure_limit = std::size_t{1} << 22;  // set_fft_measure_limit
// Work buffers of fewer complex points than this are planned by estimate:
// on such small grids measuring costs more than the measured plans save
// (the FMR problem's 24 x 24 x 2 cells, 7200 points: a relaxation 0.35 s
// against 0.25 s, a 12-mode SOLVE_MODES 1.19 s against 1.08 s, with its
// thousands of convolutions within 2 % of each other).
constexpr std::size_t kMeasureFloor = std::size_t{1} << 15;

inline int comp(int a, int b) { return 1 + a + 3 * b; }  // 1-based storage component of row a, column b

inline void prepare_fftw_threads(std::size_t points) {
    static const bool once = [] {
        fftw_init_threads();
        return true;
    }();
    (void)once;
    fftw_plan_with_nthreads(points > kParallelPoints ? omp_get_max_threads() : 1);
}


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

}  // namespace torix::detail
