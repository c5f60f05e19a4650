#include "dynamics/timestep.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "core/console.hpp"
#include "core/error.hpp"
#include "dynamics/applied_field.hpp"
#include "dynamics/init_state.hpp"
#include "dynamics/relax.hpp"
#include "dynamics/trajectory.hpp"

namespace torix {

void set_timestep(const VecGrid& HINIT, const CVecGrid& HRF, const Array<double, 1>& MS,
                  const std::array<double, 3>& MP, double s, const TensorArray& AIJ, const FourierTensor& AIJ_FFT,
                  const IntGrid& MASQUE, int nx, int ny, int nz, int n, double& dt, double timescale,
                  const LocalTerms& terms) {
    VecGrid start = make_vec_grid(nx, ny, nz);
    initrandom(start, MS, MASQUE, nx, ny, nz);
    const Drive drive{HINIT, HRF, false, 0.0};
    VecGrid H = make_vec_grid(nx, ny, nz);
    inith(HINIT, HRF, false, 0.0, 0.0, H, nx, ny, nz);

    const std::ptrdiff_t np = static_cast<std::ptrdiff_t>(MASQUE.size());
    const std::int32_t* q = MASQUE.data();
    std::int64_t ncell = 0;
    for (std::ptrdiff_t p = 0; p < np; ++p)
        if (q[p] != 0) ++ncell;
    if (ncell == 0) throw FatalError("SET_TIMESTEP: no magnetic cell to choose a time step for");
    const int method = ncell > 300 ? kMethodFft : kMethodDirect;
    field_by_method(method, start, MS, MP, s, MASQUE, AIJ, AIJ_FFT, H, nx, ny, nz, n, terms);

    double hmax = 0.0;
    const double* h = H.data();
    for (std::ptrdiff_t p = 0; p < np; ++p)
        if (q[p] != 0)
            hmax = std::max(hmax, std::sqrt(h[p] * h[p] + h[p + np] * h[p + np] + h[p + 2 * np] * h[p + 2 * np]));
    if (!(hmax > 0.0)) throw FatalError("SET_TIMESTEP: the field is zero on every magnetic cell");
    dt = 1.0 / (16.0 * hmax);
    // An infinite field, or one so large that the step is zero, would double
    // a zero step for ever below.
    if (!(dt > 0.0))
        throw FatalError("SET_TIMESTEP: the field reaches " + format_real(hmax) +
                         " Oe on a magnetic cell, too large to choose a time step for");
    say(dt / timescale);

    const double T = 128.0 * dt;
    VecGrid ref = start;
    fm(ref, MS, MP, s, MASQUE, AIJ, AIJ_FFT, drive, H, nx, ny, nz, n, method, T, dt, timescale, "test.dat", terms);
    VecGrid trial;
    while (2.0 * dt <= T * (1.0 + 1e-12)) {
        dt *= 2.0;
        trial = start;
        fm(trial, MS, MP, s, MASQUE, AIJ, AIJ_FFT, drive, H, nx, ny, nz, n, method, T, dt, timescale, "", terms);
        const double* a = trial.data();
        const double* b = ref.data();
        double sum = 0.0;
        for (std::ptrdiff_t p = 0; p < np; ++p)
            if (q[p] != 0)
                sum += (std::abs(a[p] - b[p]) + std::abs(a[p + np] - b[p + np]) +
                        std::abs(a[p + 2 * np] - b[p + 2 * np])) /
                       MS(q[p]);
        const double deviation = sum / static_cast<double>(ncell);
        say(dt / timescale, deviation);
        if (!(deviation <= 0.01)) {
            dt *= 0.5;
            return;
        }
    }
}

}  // namespace torix
