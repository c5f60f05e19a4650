#include "dynamics/direct_field.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace torix {

namespace {

// Levi-Civita symbol eps(i, j, k) over indices 0..2.
constexpr int levi_civita(int i, int j, int k) {
    if (i == j || j == k || i == k) return 0;
    return ((j - i + 3) % 3 == 1) ? 1 : -1;
}

// One source cell of the dipolar sum: its magnetization and the position,
// relative to a target's base, of the 3x3 block it meets in the packed
// tensor (the block of offset r - r' is at tbase(r) + toff(r')).
struct Source {
    double mx, my, mz;
    std::int64_t toff;
};

}  // namespace

void calcfields(const VecGrid& M, const Array<double, 1>& MS, const std::array<double, 3>& MP, double s,
                const IntGrid& mask, const TensorArray& AIJ, VecGrid& H, int nx, int ny, int nz, int n) {
    (void)n;
    const std::int64_t sx = nx + 1, sy = ny + 1, sz = nz + 1;
    const std::int64_t ncell = sx * sy * sz;
    if (ncell <= 0) return;
    const std::int32_t* q = mask.data();
    const std::ptrdiff_t cs = M.stride(3);  // component stride of M and H
    const double* m = M.data() + M.linear(0, 0, 0, 1);
    double* h = H.data() + H.linear(0, 0, 0, 1);

    // Magnetic cells in storage order, their bounding box and materials.
    std::vector<std::int64_t> cells;
    int ilo = nx, ihi = 0, jlo = ny, jhi = 0, klo = nz, khi = 0;
    int qmax = 0;
    for (int k = 0; k <= nz; ++k)
        for (int j = 0; j <= ny; ++j)
            for (int i = 0; i <= nx; ++i) {
                const std::int64_t p = i + sx * (j + sy * k);
                if (q[p] == 0) continue;
                cells.push_back(p);
                ilo = std::min(ilo, i), ihi = std::max(ihi, i);
                jlo = std::min(jlo, j), jhi = std::max(jhi, j);
                klo = std::min(klo, k), khi = std::max(khi, k);
                qmax = std::max(qmax, q[p]);
            }
    const std::int64_t nc = static_cast<std::int64_t>(cells.size());
    if (nc == 0) return;

    // Packed tensor: only the offsets that occur between magnetic cells,
    // -(ihi-ilo)..(ihi-ilo) and so on, each offset's nine components
    // contiguous, one slice per material 1..qmax.
    const int bx = ihi - ilo, by = jhi - jlo, bz = khi - klo;
    const std::int64_t px = 2 * bx + 1, py = 2 * by + 1, pz = 2 * bz + 1;
    const std::int64_t slice = px * py * pz * 9;
    std::vector<double> T(static_cast<std::size_t>(slice * qmax));
    const std::ptrdiff_t tcs = AIJ.stride(3);
    for (int mat = 1; mat <= qmax; ++mat) {
        double* dst = T.data() + (mat - 1) * slice;
        for (int ok = -bz; ok <= bz; ++ok)
            for (int oj = -by; oj <= by; ++oj)
                for (int oi = -bx; oi <= bx; ++oi) {
                    const double* src = AIJ.data() + AIJ.linear(oi, oj, ok, 1, mat);
                    for (int c = 0; c < 9; ++c) dst[c] = src[c * tcs];
                    dst += 9;
                }
    }

    // Sources and target bases.  Packed offset of (oi, oj, ok) is
    // 9 ((oi + bx) + px ((oj + by) + py (ok + bz))); it splits into a target
    // part 9 (i + px (j + py k)) plus a source part.
    std::vector<Source> src(static_cast<std::size_t>(nc));
    std::vector<std::int64_t> tbase(static_cast<std::size_t>(nc));
    std::vector<std::int64_t> pos(static_cast<std::size_t>(nc));
    const std::int64_t centre = 9 * (bx + px * (by + py * bz));
    for (std::int64_t c = 0; c < nc; ++c) {
        const std::int64_t p = cells[c];
        const std::int64_t i = p % sx - ilo, j = (p / sx) % sy - jlo, k = p / (sx * sy) - klo;
        const std::int64_t rel = 9 * (i + px * (j + py * k));
        tbase[c] = rel + centre;
        src[c] = Source{m[p], m[p + cs], m[p + 2 * cs], (q[p] - 1) * slice - rel};
        pos[c] = p;
    }

    // Per target: 1. the dipolar sum over all sources; then, with that
    // target's field after the sum, 2-5. the vector-product term
    // B = s H - MP, A = M x B, H += A / MS(q).  The term of one target needs
    // only that target's own field, so both steps share one parallel loop.
    const double* Tp = T.data();
    const Source* sp = src.data();
    const double mp[3] = {MP[0], MP[1], MP[2]};
#pragma omp parallel for schedule(static) if (nc * nc >= 4096)
    for (std::int64_t t = 0; t < nc; ++t) {
        const double* base = Tp + tbase[t];
        const std::int64_t p = pos[t];
        double hx = h[p], hy = h[p + cs], hz = h[p + 2 * cs];
        for (std::int64_t u = 0; u < nc; ++u) {
            const Source& so = sp[u];
            const double* b = base + so.toff;
            hx += b[0] * so.mx + b[3] * so.my + b[6] * so.mz;
            hy += b[1] * so.mx + b[4] * so.my + b[7] * so.mz;
            hz += b[2] * so.mx + b[5] * so.my + b[8] * so.mz;
        }
        const double hv[3] = {hx, hy, hz};
        const double mv[3] = {m[p], m[p + cs], m[p + 2 * cs]};
        double bv[3], av[3] = {0.0, 0.0, 0.0};
        for (int a = 0; a < 3; ++a) bv[a] = s * hv[a] - mp[a];
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                for (int k = 0; k < 3; ++k) {
                    const int e = levi_civita(i, j, k);
                    if (e != 0) av[i] += e * mv[j] * bv[k];
                }
        const double ms = MS(q[p]);
        for (int a = 0; a < 3; ++a) h[p + a * cs] = hv[a] + av[a] / ms;
    }
}

void rescale_to_ms(VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask) {
    const std::int64_t plane = static_cast<std::int64_t>(M.extent(0)) * M.extent(1), sz = M.extent(2);
    const std::int32_t* q = mask.data();
    const std::ptrdiff_t cs = M.stride(3);
    double* m = M.data() + M.linear(M.lo(0), M.lo(1), M.lo(2), 1);
#pragma omp parallel for schedule(static) if (plane * sz > 16384)
    for (std::int64_t k = 0; k < sz; ++k)
        for (std::int64_t p = k * plane; p < (k + 1) * plane; ++p) {
            if (q[p] == 0) continue;
            const double x = m[p], y = m[p + cs], z = m[p + 2 * cs];
            const double f = MS(q[p]) / std::sqrt(x * x + y * y + z * z);
            m[p] = x * f;
            m[p + cs] = y * f;
            m[p + 2 * cs] = z * f;
        }
}

void alignfields(VecGrid& M, const VecGrid& H, const VecGrid& Mprev, const Array<double, 1>& MS, const IntGrid& mask,
                 double alpha, int nx, int ny, int nz) {
    const std::int64_t sx = nx + 1, sy = ny + 1, sz = nz + 1;
    const std::int64_t plane = sx * sy;
    const std::int32_t* q = mask.data();
    const std::ptrdiff_t cs = M.stride(3);
    double* m = M.data() + M.linear(0, 0, 0, 1);
    const double* h = H.data() + H.linear(0, 0, 0, 1);
    const double* mo = Mprev.data() + Mprev.linear(0, 0, 0, 1);
    const double beta = 1.0 - alpha;
    const bool par = plane * sz > 16384;  // small grids: one thread
#pragma omp parallel for schedule(static) if (par)
    for (std::int64_t k = 0; k < sz; ++k)
        for (std::int64_t p = k * plane; p < (k + 1) * plane; ++p) {
            if (q[p] == 0) continue;
            for (int a = 0; a < 3; ++a) m[p + a * cs] = alpha * h[p + a * cs] + beta * mo[p + a * cs];
        }
    rescale_to_ms(M, MS, mask);
}

}  // namespace torix
