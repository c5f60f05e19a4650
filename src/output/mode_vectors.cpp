#include "output/mode_vectors.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numbers>

#include "eigen/dynamic_matrix.hpp"
#include "geometry/local_to_cart.hpp"

namespace torix {

void mode_vector(int nx, int ny, int nz, int N, const IntGrid& MASQUE, const IntGrid& NUM, const VecGrid& M,
                 const Array<cplx, 3>& modes, int p, CVecGrid& u) {
    local_to_cart(nx, ny, nz, N, MASQUE, NUM, M, modes, p, u);
}

double amplitude(const CVecGrid& u, int i, int j, int k) {
    return std::sqrt(abs2(u(i, j, k, 1)) + abs2(u(i, j, k, 2)) + abs2(u(i, j, k, 3)));
}

std::array<cplx, 2> local_components(const CVecGrid& u, const VecGrid& M, int i, int j, int k) {
    const double m[3] = {M(i, j, k, 1), M(i, j, k, 2), M(i, j, k, 3)};
    double R[9];
    local_frame(m, R);
    std::array<cplx, 2> v{};
    for (int c = 0; c < 3; ++c) {
        v[0] += R[c] * u(i, j, k, c + 1);
        v[1] += R[3 + c] * u(i, j, k, c + 1);
    }
    return v;
}

PhaseRef find_phase(const CVecGrid& u, const VecGrid& M, const IntGrid& MASQUE, int nx, int ny, int nz) {
    PhaseRef r;
    double best = -1.0;
    for (int i = 0; i <= nx; ++i)
        for (int j = 0; j <= ny; ++j)
            for (int k = 0; k <= nz; ++k) {
                if (MASQUE(i, j, k) == 0) continue;
                const double a = amplitude(u, i, j, k);
                if (a > best) {  // strict: the first of equal amplitudes stays
                    best = a;
                    r.i = i, r.j = j, r.k = k;
                }
            }
    if (r.i < 0) return r;
    r.amax = best;
    const auto v = local_components(u, M, r.i, r.j, r.k);
    r.component = std::abs(v[1]) > std::abs(v[0]) ? 2 : 1;
    const cplx z = v[static_cast<std::size_t>(r.component - 1)];
    if (std::abs(z) > 0.0) r.factor = std::conj(z) / std::abs(z);
    return r;
}

void normalise_mode(CVecGrid& u, const PhaseRef& ref) {
    const cplx s = ref.amax > 0.0 ? ref.factor / ref.amax : ref.factor;
    for (cplx& z : u) z *= s;
}

double participation_ratio(const CVecGrid& u, const IntGrid& MASQUE, int nx, int ny, int nz) {
    double s2 = 0.0, s4 = 0.0;
    long long n = 0;
    for (int k = 0; k <= nz; ++k)
        for (int j = 0; j <= ny; ++j)
            for (int i = 0; i <= nx; ++i) {
                if (MASQUE(i, j, k) == 0) continue;
                const double a2 = abs2(u(i, j, k, 1)) + abs2(u(i, j, k, 2)) + abs2(u(i, j, k, 3));
                s2 += a2;
                s4 += a2 * a2;
                ++n;
            }
    if (n == 0 || !(s4 > 0.0)) return 0.0;
    return s2 * s2 / (static_cast<double>(n) * s4);
}

PhaseRef reference_mode(const ModeInput& in, int p, bool left, CVecGrid& u) {
    mode_vector(in.nx, in.ny, in.nz, in.N, in.MASQUE, in.NUM, in.M, left ? in.MODESL : in.MODES, p, u);
    const PhaseRef r = find_phase(u, in.M, in.MASQUE, in.nx, in.ny, in.nz);
    normalise_mode(u, r);
    return r;
}

double phase_of(cplx z) {
    if (z == cplx{}) return 0.0;
    const double a = std::atan2(z.imag(), z.real());
    // atan2 gives -pi for a negative real part with imaginary part -0.
    return a <= -std::numbers::pi ? std::numbers::pi : a + 0.0;
}

FixedFrame fixed_frame(const VecGrid& M, const IntGrid& MASQUE, int nx, int ny, int nz) {
    FixedFrame f;
    double s[3] = {0.0, 0.0, 0.0};
    long long cells = 0;
    for (int k = 0; k <= nz; ++k)
        for (int j = 0; j <= ny; ++j)
            for (int i = 0; i <= nx; ++i) {
                if (MASQUE(i, j, k) == 0) continue;
                ++cells;
                const double l = std::hypot(M(i, j, k, 1), M(i, j, k, 2), M(i, j, k, 3));
                if (l > 0.0)
                    for (int c = 0; c < 3; ++c) s[c] += M(i, j, k, c + 1) / l;
            }
    const double l = std::hypot(s[0], s[1], s[2]);
    f.aligned = cells > 0 && l >= 0.5 * static_cast<double>(cells);
    if (!(l > 1e-9 * std::max(1.0, std::abs(s[0]) + std::abs(s[1]) + std::abs(s[2])))) return f;
    for (int c = 0; c < 3; ++c) f.mean[static_cast<std::size_t>(c)] = s[c] / l;
    const auto& m = f.mean;
    int a = 0;
    for (int c = 1; c < 3; ++c)
        if (std::abs(m[static_cast<std::size_t>(c)]) < std::abs(m[static_cast<std::size_t>(a)])) a = c;
    std::array<double, 3> e{0.0, 0.0, 0.0};
    e[static_cast<std::size_t>(a)] = 1.0;
    const double d = m[static_cast<std::size_t>(a)];
    for (std::size_t c = 0; c < 3; ++c) e[c] -= d * m[c];
    const double el = std::hypot(e[0], e[1], e[2]);
    for (double& x : e) x /= el;
    f.e1 = e;
    f.e2 = {m[1] * e[2] - m[2] * e[1], m[2] * e[0] - m[0] * e[2], m[0] * e[1] - m[1] * e[0]};
    // e2 points along the positive side of its largest component, so that
    // the legends name "y" rather than "-y" (a phase changes by pi with it).
    std::size_t big = 0;
    for (std::size_t c = 1; c < 3; ++c)
        if (std::abs(f.e2[c]) > std::abs(f.e2[big]) + 1e-12) big = c;
    if (f.e2[big] < 0.0)
        for (double& x : f.e2) x = -x;
    return f;
}

std::string FixedFrame::name(int c) const {
    const auto& e = c == 1 ? e1 : e2;
    for (std::size_t a = 0; a < 3; ++a) {
        if (std::abs(std::abs(e[a]) - 1.0) > 1e-6) continue;
        return std::string(e[a] < 0.0 ? "-" : "") + "xyz"[a];
    }
    char buf[64];
    std::snprintf(buf, sizeof buf, "(%.3g,%.3g,%.3g)", e[0] + 0.0, e[1] + 0.0, e[2] + 0.0);
    return buf;
}

double FixedPhase::phase(cplx w) const { return phase_of(w * unit); }

FixedPhase fixed_phase(const CVecGrid& u, const FixedFrame& f, const PhaseRef& ref, const IntGrid& MASQUE, int nx,
                       int ny, int nz) {
    FixedPhase p;
    double s1 = 0.0, s2 = 0.0;
    for (int k = 0; k <= nz; ++k)
        for (int j = 0; j <= ny; ++j)
            for (int i = 0; i <= nx; ++i) {
                if (MASQUE(i, j, k) == 0) continue;
                s1 += abs2(along(u, i, j, k, f.e1));
                s2 += abs2(along(u, i, j, k, f.e2));
            }
    p.component = s1 >= s2 ? 1 : 2;
    if (ref.i >= 0) {
        const cplx w = along(u, ref.i, ref.j, ref.k, p.axis(f));
        const double a = std::abs(w);
        if (a > 0.0) p.unit = std::conj(w) / a;
    }
    return p;
}

}  // namespace torix
