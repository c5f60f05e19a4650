#include "output/mode_vectors.hpp"

#include <cmath>
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

}  // namespace torix
