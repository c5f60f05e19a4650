#include "dynamics/trajectory.hpp"

#include <cmath>
#include <cstdint>
#include <memory>

#include "core/console.hpp"
#include "core/records.hpp"
#include "dynamics/applied_field.hpp"

namespace torix {

std::array<double, 3> mean_reduced(const VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask) {
    const std::ptrdiff_t np = static_cast<std::ptrdiff_t>(mask.size());
    const double* m = M.data();
    const std::int32_t* q = mask.data();
    double sx = 0.0, sy = 0.0, sz = 0.0;
    std::int64_t count = 0;
    for (std::ptrdiff_t p = 0; p < np; ++p) {
        if (q[p] == 0) continue;
        const double ms = MS(q[p]);
        sx += m[p] / ms;
        sy += m[p + np] / ms;
        sz += m[p + 2 * np] / ms;
        ++count;
    }
    if (count == 0) return {0.0, 0.0, 0.0};
    const double c = static_cast<double>(count);
    return {sx / c, sy / c, sz / c};
}

int fm(VecGrid& M, const Array<double, 1>& MS, const std::array<double, 3>& MP, double s, const IntGrid& mask,
       const TensorArray& AIJ, const FourierTensor& AIJ_FFT, const Drive& drive, VecGrid& H, int nx, int ny, int nz,
       int n, int method, double t_end, double dt, double timescale, const std::string& filename,
       const LocalTerms& terms) {
    const int steps = t_end > 0.0 ? static_cast<int>(std::ceil(t_end / dt * (1.0 - 1e-9))) : 0;
    const bool write = !filename.empty();
    AtomicFile* file = nullptr;
    std::unique_ptr<AtomicFile> owner;
    auto line = [&](double t, double E) {
        const auto mm = mean_reduced(M, MS, mask);
        file->stream() << free_line(t / timescale, mm[0], mm[1], mm[2], E) << '\n';
    };
    RkWork work;
    if (write) {
        owner = std::make_unique<AtomicFile>(filename, false);
        file = owner.get();
        VecGrid happ = make_vec_grid(nx, ny, nz);
        inith(drive.HINIT, drive.HRF, drive.rf_set, drive.omega, 0.0, happ, nx, ny, nz);
        H = happ;
        field_by_method(method, M, MS, MP, s, mask, AIJ, AIJ_FFT, H, nx, ny, nz, n, terms);
        line(0.0, energy_measure(M, H, happ, mask, MS, terms));
    }
    for (int step = 0; step < steps; ++step) {
        const double t = step * dt;
        double E = 0.0;
        iterate(M, MS, MP, s, mask, AIJ, AIJ_FFT, drive, H, nx, ny, nz, n, method, t, dt, E, work, terms);
        if (write) line(t + dt, E);
    }
    if (write) owner->commit();
    return steps;
}

}  // namespace torix
