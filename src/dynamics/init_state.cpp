#include "dynamics/init_state.hpp"

#include <cmath>
#include <cstdint>
#include <random>

namespace torix {

namespace {

constexpr double kCoreRadius = 0.9;  // cells within this distance of the axis form the core

// Vortex rule for one cell at (i, j) about (x0, y0); sense +1 clockwise seen
// from +z, -1 anticlockwise.
inline void vortex_cell(double* m, std::ptrdiff_t p, std::ptrdiff_t cs, double ms, int i, int j, double x0, double y0,
                        double sense) {
    const double rx = i - x0, ry = j - y0;
    const double rho = std::sqrt(rx * rx + ry * ry);
    if (rho <= kCoreRadius) {
        m[p + 2 * cs] = ms;
    } else {
        m[p] = sense * ry * ms / rho;
        m[p + cs] = -sense * rx * ms / rho;
    }
}

}  // namespace

void initdir(VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask, int nx, int ny, int nz, double ux,
             double uy, double uz) {
    const std::int64_t plane = static_cast<std::int64_t>(nx + 1) * (ny + 1);
    const std::ptrdiff_t cs = M.stride(3);
    double* m = M.data() + M.linear(0, 0, 0, 1);
    const std::int32_t* q = mask.data();
    const double u[3] = {ux, uy, uz};
    for (int a = 0; a < 3; ++a)
        for (std::int64_t p = 0; p < plane * (nz + 1); ++p) m[p + a * cs] = u[a];
#pragma omp parallel for schedule(static)
    for (int k = 0; k <= nz; ++k)
        for (std::int64_t p = k * plane; p < (k + 1) * plane; ++p) {
            if (q[p] == 0) continue;
            const double x = m[p], y = m[p + cs], z = m[p + 2 * cs];
            const double len = std::sqrt(x * x + y * y + z * z);
            const double ms = MS(q[p]);
            m[p] = x * ms / len;
            m[p + cs] = y * ms / len;
            m[p + 2 * cs] = z * ms / len;
        }
}

void initvortex(VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask, int nx, int ny, int nz, double x0,
                double y0) {
    M.fill(0.0);
    const std::ptrdiff_t cs = M.stride(3);
    double* m = M.data() + M.linear(0, 0, 0, 1);
    const std::int32_t* q = mask.data();
#pragma omp parallel for schedule(static)
    for (int k = 0; k <= nz; ++k)
        for (int j = 0; j <= ny; ++j)
            for (int i = 0; i <= nx; ++i) {
                const std::ptrdiff_t p = mask.linear(i, j, k);
                if (q[p] != 0) vortex_cell(m, p, cs, MS(q[p]), i, j, x0, y0, 1.0);
            }
}

void initvortex9(VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask, int nx, int ny, int nz, double x1,
                 double y1, double x2, double y2) {
    M.fill(0.0);
    const std::ptrdiff_t cs = M.stride(3);
    double* m = M.data() + M.linear(0, 0, 0, 1);
    const std::int32_t* q = mask.data();
    const double xs = 0.5 * (x1 + x2);
    // First vortex: cells with i < xs, clockwise.
#pragma omp parallel for schedule(static)
    for (int k = 0; k <= nz; ++k)
        for (int j = 0; j <= ny; ++j)
            for (int i = 0; i <= nx && i < xs; ++i) {
                const std::ptrdiff_t p = mask.linear(i, j, k);
                if (q[p] != 0) vortex_cell(m, p, cs, MS(q[p]), i, j, x1, y1, 1.0);
            }
    // Second vortex: cells with i >= xs, anticlockwise.
#pragma omp parallel for schedule(static)
    for (int k = 0; k <= nz; ++k)
        for (int j = 0; j <= ny; ++j)
            for (int i = 0; i <= nx; ++i) {
                if (i < xs) continue;
                const std::ptrdiff_t p = mask.linear(i, j, k);
                if (q[p] != 0) vortex_cell(m, p, cs, MS(q[p]), i, j, x2, y2, -1.0);
            }
}

void initrandom(VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask, int nx, int ny, int nz) {
    std::mt19937_64 gen(kRandomSeed);
    auto uniform = [&gen]() { return static_cast<double>(gen() >> 11) * 0x1.0p-53; };
    M.fill(0.0);
    const std::ptrdiff_t cs = M.stride(3);
    double* m = M.data() + M.linear(0, 0, 0, 1);
    const std::int32_t* q = mask.data();
    const std::int64_t ncell = static_cast<std::int64_t>(nx + 1) * (ny + 1) * (nz + 1);
    for (std::int64_t p = 0; p < ncell; ++p) {
        if (q[p] == 0) continue;
        const double u1 = uniform();
        const double u2 = uniform();
        const double u3 = uniform();
        const double vx = u1 - 0.5, vy = u2 - 0.5, vz = u3 - 0.5;
        const double len = std::sqrt(vx * vx + vy * vy + vz * vz);
        const double ms = MS(q[p]);
        m[p] = ms * vx / len;
        m[p + cs] = ms * vy / len;
        m[p + 2 * cs] = ms * vz / len;
    }
}

}  // namespace torix
