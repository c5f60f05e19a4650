#include "dynamics/applied_field.hpp"

#include <cmath>
#include <cstdint>

namespace torix {

void inith(const VecGrid& HINIT, const CVecGrid& HRF, bool rf_set, double omega, double t, VecGrid& H, int nx, int ny,
           int nz) {
    const std::int64_t plane = static_cast<std::int64_t>(nx + 1) * (ny + 1);
    const std::ptrdiff_t cs = H.stride(3);
    // A parallel region costs more than copying a small grid.
    const bool par = plane * (nz + 1) > 16384;
    double* h = H.data() + H.linear(0, 0, 0, 1);
    const double* h0 = HINIT.data() + HINIT.linear(0, 0, 0, 1);
    if (!rf_set) {
#pragma omp parallel for schedule(static) if (par)
        for (int k = 0; k <= nz; ++k)
            for (int a = 0; a < 3; ++a)
                for (std::int64_t p = k * plane; p < (k + 1) * plane; ++p) h[p + a * cs] = h0[p + a * cs];
        return;
    }
    const cplx* rf = HRF.data() + HRF.linear(0, 0, 0, 1);
    const std::ptrdiff_t rcs = HRF.stride(3);
    const double c = std::cos(omega * t), s = std::sin(omega * t);
#pragma omp parallel for schedule(static) if (par)
    for (int k = 0; k <= nz; ++k)
        for (std::int64_t p = k * plane; p < (k + 1) * plane; ++p)
            for (int a = 0; a < 3; ++a) {
                const cplx v = rf[p + a * rcs];
                h[p + a * cs] = h0[p + a * cs] + (v.real() * c - v.imag() * s);
            }
}

}  // namespace torix
