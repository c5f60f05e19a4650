#pragma once
// Fourier form of the interaction tensor and the convolution field.
//
// The dipolar part of the field is a convolution of the tensor with the
// magnetization over the grid; it is evaluated on a grid doubled along each
// axis (L = 2(n+1) points) with real-to-complex FFTs (FFTW with OpenMP
// threads).  Materials share the dipolar kernel and differ only where their
// tensor slices differ (the exchange on the six nearest-neighbour offsets,
// an anisotropy self term): the kernel of material 1 is convolved once for
// all magnetic cells, and the difference of every other material's slice is
// added as a short stencil read with the SOURCE cell's material.  A material
// whose slice differs from material 1 at many offsets gets a convolution of
// its own (its cells only, with the spectrum of the difference).  The
// convolution takes the symmetric part of every block; an antisymmetric
// part (the DMI: odd in the offset, on the nearest-neighbour offsets) joins
// the stencil of its material, so the spectra of the even kernel stay real.
// The result equals the direct sum to rounding for any mask.
//
// The plans are made once per grid, when the Fourier form is built, and
// reused by every evaluation; the work buffers live in the Fourier form, so
// two evaluations on the same form must not run at the same time (see
// concurrent_copy).
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "core/array.hpp"

namespace torix {

namespace detail {
struct FourierPlans;  // FFTW plans and work buffers of one grid
}

struct FourierTensor {
    struct StencilEntry {
        int di = 0, dj = 0, dk = 0;          // offset target - source
        std::array<double, 9> c{};           // 3x3 block, column by column
    };

    bool ready = false;
    bool two_d = false;        // single layer: two-dimensional transforms (L3 = 1)
    bool real_spectrum = true; // kernel even under r -> -r: spectra stored as reals
    int nx = -1, ny = -1, nz = -1, nmat = 0;
    int L1 = 0, L2 = 0, L3 = 0;  // padded lengths
    int Lh = 0;                  // L1 / 2 + 1 (half spectrum along x)

    // Source sets: set 0 is every magnetic cell with the kernel of material
    // 1; set s > 0 holds the cells of material set_material[s] with the
    // difference of that material's slice.  Per set, six components
    // (xx xy xz yy yz zz) of Lh * L2 * L3 frequencies each.
    std::vector<int> set_material;
    std::vector<double> spec_re;            // real spectra
    std::vector<cplx> spec_c;               // complex spectra (real_spectrum false)
    // Real spectra of kernels with a definite parity along y and z in every
    // component (the Newell tensor: xy, yz odd in y; xz, yz odd in z) are
    // kept for ky <= L2/2 and kz <= L3/2 only; the other half planes follow
    // with the component's sign.  Ky, Kz: stored extents; per column
    // x + Lh ky of the full spectrum, colmap gives the stored column and
    // yflip marks ky > L2/2.
    int Ky = 0, Kz = 0;
    std::vector<std::int32_t> colmap;
    std::vector<std::uint8_t> yflip;

    // Per material 1..nmat (index 0 unused): offsets where its slice differs
    // from material 1's, read with that material as the source.
    std::vector<std::vector<StencilEntry>> stencil;

    std::shared_ptr<detail::FourierPlans> plans;

    [[nodiscard]] std::size_t frequencies() const {
        return static_cast<std::size_t>(Lh) * static_cast<std::size_t>(L2) * static_cast<std::size_t>(L3);
    }
    // Bytes held by the spectra and by the work buffers of one evaluation.
    [[nodiscard]] std::size_t spectrum_bytes() const;
    [[nodiscard]] std::size_t work_bytes() const;
};

// Plans for work buffers of 2^15 up to this many complex points are made
// with FFTW_MEASURE, others with FFTW_ESTIMATE (measuring costs seconds on
// large grids, and more than it saves on small ones).  Default 2^22.
// Affects Fourier forms built afterwards.
void set_fft_measure_limit(std::size_t points);

// Builds the Fourier form of AIJ (offsets -nx..nx+1, ..., 9 components,
// nmat materials) for three-dimensional transforms.  A slice whose
// antisymmetric part reaches more than 64 offsets is a FatalError.
void aijfft(const TensorArray& AIJ, FourierTensor& F, int nx, int ny, int nz, int nmat);
// The same for a single layer (nz = 0) with two-dimensional transforms.
void aijfft2d(const TensorArray& AIJ, FourierTensor& F, int nx, int ny, int nmat);

// Adds to the Fourier form alone the uniaxial self term K' u u^T of
// material m, K' = K / MS(m)^2: every cell of material m receives the extra
// field K' (u . M) u.  Its spectrum is the same at every frequency, so it is
// kept as a self entry of the material's stencil.  AIJ is not changed.
void add_anisotropy_fourier(FourierTensor& F, const Array<double, 1>& MS, int m, double ux, double uy, double uz,
                            double K);

// A Fourier form with the spectra of F and work buffers and plans of its
// own, planned at once: evaluations on F and on the copy may then run at
// the same time (on different threads; FFTW's planner is not thread-safe,
// executing plans is).  F must be ready; its own plans are made as well.
FourierTensor concurrent_copy(const FourierTensor& F);

// The effective field with the convolution: H (holding the applied field on
// entry) gains the tensor field of M on every magnetic cell, then the
// vector-product term M x (s H - MP) / MS.  Same result as calcfields.
void calcfieldsfft(const VecGrid& M, const Array<double, 1>& MS, const std::array<double, 3>& MP, double s,
                   const IntGrid& mask, const FourierTensor& AIJ_FFT, VecGrid& H, int nx, int ny, int nz, int n);

// The steps of calcfieldsfft, exposed for the benchmark: the spectra of M
// into the form's work buffer, and the product plus backward transforms that
// add the convolution (without stencil or vector term) to H.
void mfft(const VecGrid& M, const IntGrid& mask, const FourierTensor& F);
void hfft(const IntGrid& mask, const FourierTensor& F, VecGrid& H);

}  // namespace torix
