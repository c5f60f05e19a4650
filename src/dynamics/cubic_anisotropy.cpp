#include "dynamics/cubic_anisotropy.hpp"

#include <cmath>
#include <cstdio>
#include <cstdint>

namespace torix {

namespace {

// Loops over fewer grid points run on one thread.
constexpr std::ptrdiff_t kParallelPoints = 16384;

double dot(const std::array<double, 3>& a, const double b[3]) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

// Direction cosines of m on the crystal axes.
void cosines(const CubicAnisotropy& t, const double m[3], double a[3]) {
    a[0] = dot(t.c1, m);
    a[1] = dot(t.c2, m);
    a[2] = dot(t.c3, m);
}

const std::array<double, 3>& axis(const CubicAnisotropy& t, int i) { return i == 0 ? t.c1 : i == 1 ? t.c2 : t.c3; }

}  // namespace

std::string make_cubic_anisotropy(int m, double K1, double K2, const std::array<double, 3>& a1,
                                  const std::array<double, 3>& a2, CubicAnisotropy& out) {
    const double n1 = std::sqrt(a1[0] * a1[0] + a1[1] * a1[1] + a1[2] * a1[2]);
    const double n2 = std::sqrt(a2[0] * a2[0] + a2[1] * a2[1] + a2[2] * a2[2]);
    if (!(n1 > 0.0) || !std::isfinite(n1)) return "a first axis of zero length";
    if (!(n2 > 0.0) || !std::isfinite(n2)) return "a second axis of zero length";
    const double c = (a1[0] * a2[0] + a1[1] * a2[1] + a1[2] * a2[2]) / (n1 * n2);
    if (!(std::abs(c) <= 1e-6)) {
        char buf[128];
        std::snprintf(buf, sizeof buf,
                      "axes whose angle has the cosine %.6g (at most 1e-6 allowed)", c);
        return buf;
    }
    CubicAnisotropy t;
    t.material = m, t.K1 = K1, t.K2 = K2;
    for (int k = 0; k < 3; ++k) t.c1[k] = a1[k] / n1;
    // The small part of a2 along a1 removed, so that the frame is exactly
    // orthonormal and the energy exactly cubic.
    std::array<double, 3> b;
    for (int k = 0; k < 3; ++k) b[k] = a2[k] / n2 - c * t.c1[k];
    const double nb = std::sqrt(b[0] * b[0] + b[1] * b[1] + b[2] * b[2]);
    for (int k = 0; k < 3; ++k) t.c2[k] = b[k] / nb;
    t.c3 = {t.c1[1] * t.c2[2] - t.c1[2] * t.c2[1], t.c1[2] * t.c2[0] - t.c1[0] * t.c2[2],
            t.c1[0] * t.c2[1] - t.c1[1] * t.c2[0]};
    out = t;
    return {};
}

double cubic_energy_density(const CubicAnisotropy& t, const double m[3]) {
    double a[3];
    cosines(t, m, a);
    const double s1 = a[0] * a[0], s2 = a[1] * a[1], s3 = a[2] * a[2];
    return t.K1 * (s1 * s2 + s2 * s3 + s3 * s1) + t.K2 * s1 * s2 * s3;
}

void cubic_add_field(const CubicAnisotropy& t, double ms, const double M[3], double h[3]) {
    const double m[3] = {M[0] / ms, M[1] / ms, M[2] / ms};
    double a[3];
    cosines(t, m, a);
    const double s[3] = {a[0] * a[0], a[1] * a[1], a[2] * a[2]};
    for (int i = 0; i < 3; ++i) {
        const double sj = s[(i + 1) % 3], sk = s[(i + 2) % 3];
        const double g = 2.0 * t.K1 * a[i] * (sj + sk) + 2.0 * t.K2 * a[i] * sj * sk;  // dw/da_i
        const auto& c = axis(t, i);
        for (int k = 0; k < 3; ++k) h[k] -= g * c[k] / ms;
    }
}

void cubic_add_jacobian(const CubicAnisotropy& t, double ms, const double M[3], double J[9]) {
    const double m[3] = {M[0] / ms, M[1] / ms, M[2] / ms};
    double a[3];
    cosines(t, m, a);
    const double s[3] = {a[0] * a[0], a[1] * a[1], a[2] * a[2]};
    double w2[3][3];  // d2w / da_i da_k
    for (int i = 0; i < 3; ++i) {
        const int j = (i + 1) % 3, k = (i + 2) % 3;
        w2[i][i] = 2.0 * t.K1 * (s[j] + s[k]) + 2.0 * t.K2 * s[j] * s[k];
        const double off = 4.0 * t.K1 * a[i] * a[j] + 4.0 * t.K2 * a[i] * a[j] * s[k];
        w2[i][j] = w2[j][i] = off;
    }
    const double f = -1.0 / (ms * ms);
    for (int i = 0; i < 3; ++i)
        for (int k = 0; k < 3; ++k) {
            const auto& ci = axis(t, i);
            const auto& ck = axis(t, k);
            for (int r = 0; r < 3; ++r)
                for (int c = 0; c < 3; ++c) J[r + 3 * c] += f * w2[i][k] * ci[r] * ck[c];
        }
}

void cubic_field(const CubicAnisotropy& t, const VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask,
                 VecGrid& H) {
    const std::ptrdiff_t np = static_cast<std::ptrdiff_t>(mask.size());
    const std::int32_t* q = mask.data();
    const double* m = M.data();
    double* h = H.data();
    const double ms = MS(t.material);
#pragma omp parallel for schedule(static) if (np > kParallelPoints)
    for (std::ptrdiff_t p = 0; p < np; ++p) {
        if (q[p] != t.material) continue;
        const double v[3] = {m[p], m[p + np], m[p + 2 * np]};
        double f[3] = {0.0, 0.0, 0.0};
        cubic_add_field(t, ms, v, f);
        for (int c = 0; c < 3; ++c) h[p + c * np] += f[c];
    }
}

double cubic_energy(const CubicAnisotropy& t, const VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask) {
    const std::ptrdiff_t np = static_cast<std::ptrdiff_t>(mask.size());
    const std::int32_t* q = mask.data();
    const double* m = M.data();
    const double ms = MS(t.material);
    double e = 0.0;
#pragma omp parallel for schedule(static) if (np > kParallelPoints) reduction(+ : e)
    for (std::ptrdiff_t p = 0; p < np; ++p) {
        if (q[p] != t.material) continue;
        const double v[3] = {m[p] / ms, m[p + np] / ms, m[p + 2 * np] / ms};
        e += cubic_energy_density(t, v);
    }
    return e;
}

void cubic_jacobian(const CubicAnisotropy& t, const VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask,
                    std::vector<FieldJacobianBlock>& out) {
    const std::ptrdiff_t np = static_cast<std::ptrdiff_t>(mask.size());
    const std::int32_t* q = mask.data();
    const double* m = M.data();
    const double ms = MS(t.material);
    for (std::ptrdiff_t p = 0; p < np; ++p) {
        if (q[p] != t.material) continue;
        const double v[3] = {m[p], m[p + np], m[p + 2 * np]};
        FieldJacobianBlock b;
        b.target = b.source = p;
        cubic_add_jacobian(t, ms, v, b.J.data());
        out.push_back(b);
    }
}

}  // namespace torix
