// Fourier form of the tensor: preparation after the tensor changes, and the
// anisotropy added to the Fourier form alone.
#include <string>

#include "core/error.hpp"
#include "dynamics/fft_field.hpp"
#include "interpreter/session.hpp"

namespace torix {

// A single layer (nz = 0) takes the two-dimensional transforms.  Without a
// tensor, or on a grid with an empty extent (no cell, so no field to
// convolve), the Fourier form is dropped.
void refresh_fourier(ModelState& st) {
    if (!st.AIJ.allocated() || st.nmat < 1 || st.nx < 0 || st.ny < 0 || st.nz < 0) {
        st.AIJ_FFT = FourierTensor{};
        return;
    }
    if (st.nz == 0)
        aijfft2d(st.AIJ, st.AIJ_FFT, st.nx, st.ny, st.nmat);
    else
        aijfft(st.AIJ, st.AIJ_FFT, st.nx, st.ny, st.nz, st.nmat);
}

// Line: material m, axis (ux, uy, uz) as given (not normalised), K in
// erg/cm^3.  Adds K / MS(m)^2 u u^T to the self block of material m in the
// Fourier form only: the tensor AIJ, and so the direct sum and the dynamic
// matrix, do not see it, and a later rebuild of the Fourier form (tensor
// created, loaded or given a tensor anisotropy) drops it.
void cmd_add_anisotropy_field(Session& s) {
    s.line();
    const int m = s.in.i32("the material");
    const double ux = s.in.f64("ux"), uy = s.in.f64("uy"), uz = s.in.f64("uz"), K = s.in.f64("K");
    ModelState& st = s.st;
    if (!st.AIJ_FFT.ready)
        throw FatalError(st.LINER + ": no Fourier form of the tensor (TENSOR_CREATE or TENSOR_LOAD first)");
    if (m < 1 || m > st.nmat)
        throw FatalError(st.LINER + ": material " + std::to_string(m) + " is not between 1 and " +
                         std::to_string(st.nmat));
    add_anisotropy_fourier(st.AIJ_FFT, st.MS, m, ux, uy, uz, K);
    s.ack();
}

}  // namespace torix
