#include "tensor/tensor_accurate.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "tensor/quad.hpp"

namespace torix {

namespace {

using Quad = __float128;

// The expansion error, relative to 2 V / |r|^3, is taken as
// kErrorScale (d / |r|)^(2 terms), d the largest cell side.  Measured against
// 320-bit values for cubes, flat (5 x 5 x 3) and long (3 x 3 x 20) cells
// the factor is below 30 from |r| = 3 d on; 100 leaves room.
constexpr double kErrorScale = 100.0;
// The truncation error is held this far below the accuracy asked for.
// Unlike rounding errors, truncation errors of neighbouring offsets have one
// sign, so in a sum over many offsets (a body's mean field) they add up.
constexpr double kTruncationMargin = 1e-4;

// Newell's six point functions at one point (x, y, z >= 0), in the order of
// the tensor components they give: fs(x, y, z), fs(y, x, z), fs(z, x, y),
// gs(x, y, z), gs(x, z, y), gs(y, z, x).  They share one R, three inverse
// hyperbolic sines and three arc tangents.  The coordinates are exact
// multiples of the cell sizes, so a coordinate is either 0 or at least a
// cell size: a term whose inverse hyperbolic sine or arc tangent has a zero
// denominator has a zero coefficient and is dropped.
void point_values(Quad x, Quad y, Quad z, Quad out[6]) {
    const Quad v[3] = {x, y, z};
    const Quad sq[3] = {x * x, y * y, z * z};
    const Quad R = sqrtq(sq[0] + sq[1] + sq[2]);
    Quad h[3], t[3];
    for (int a = 0; a < 3; ++a) {
        const int b = (a + 1) % 3, c = (a + 2) % 3;
        const Quad den = sqrtq(sq[b] + sq[c]);
        h[a] = den > 0 ? asinhq(v[a] / den) : Quad(0);
        t[a] = v[a] != 0 ? atanq(v[b] * v[c] / (v[a] * R)) : Quad(0);
    }
    const auto fsp = [&](int a, int b, int c) {
        return (v[b] / 2) * (sq[c] - sq[a]) * h[b] + (v[c] / 2) * (sq[b] - sq[a]) * h[c] - v[a] * v[b] * v[c] * t[a] +
               (R / 6) * (2 * sq[a] - sq[b] - sq[c]);
    };
    const auto gsp = [&](int a, int b, int c) {
        return (v[a] / 6) * (3 * sq[c] - sq[a]) * h[b] + (v[b] / 6) * (3 * sq[c] - sq[b]) * h[a] +
               v[a] * v[b] * v[c] * h[c] - v[a] * v[b] * R / 3 - (sq[c] * v[c] / 6) * t[c] -
               (v[c] * sq[b] / 2) * t[b] - (v[c] * sq[a] / 2) * t[a];
    };
    out[0] = fsp(0, 1, 2);
    out[1] = fsp(1, 0, 2);
    out[2] = fsp(2, 0, 1);
    out[3] = gsp(0, 1, 2);
    out[4] = gsp(0, 2, 1);
    out[5] = gsp(1, 2, 0);
}

// Parity of the point functions: xy odd in x and y, xz odd in x and z, yz
// odd in y and z, the diagonal ones even.
constexpr bool kOddX[6] = {false, false, false, true, true, false};
constexpr bool kOddY[6] = {false, false, false, true, false, true};
constexpr bool kOddZ[6] = {false, false, false, false, true, true};

// The tensor block of offset (i, j, k >= 0): minus the 27-point second
// difference (weights -1, 2, -1 per axis) of the point values over V.
// fetch(p, q, r, vals) gives the six values at the point (p dx, q dy, r dz),
// p, q, r >= 0; index -1 is the mirror image of 1.
template <class Fetch>
void newell_stencil(int i, int j, int k, Quad V, Fetch&& fetch, double out[6]) {
    constexpr int w[3] = {-1, 2, -1};
    Quad S[6] = {0, 0, 0, 0, 0, 0};
    for (int a = -1; a <= 1; ++a)
        for (int b = -1; b <= 1; ++b)
            for (int c = -1; c <= 1; ++c) {
                const int p = i + a, q = j + b, r = k + c;
                Quad val[6];
                fetch(std::abs(p), std::abs(q), std::abs(r), val);
                const int wt = w[a + 1] * w[b + 1] * w[c + 1];
                for (int n = 0; n < 6; ++n) {
                    const bool flip = (p < 0 && kOddX[n]) != ((q < 0 && kOddY[n]) != (r < 0 && kOddZ[n]));
                    S[n] += (flip ? -wt : wt) * val[n];
                }
            }
    for (int n = 0; n < 6; ++n) out[n] = static_cast<double>(-S[n] / V);
}

Quad quad_volume(double dx, double dy, double dz) { return Quad(dx) * Quad(dy) * Quad(dz); }

double largest_side(double dx, double dy, double dz) { return std::max({dx, dy, dz}); }

// Smallest whole distance n >= 2 (in largest cell sides) at which `terms`
// terms reach the relative accuracy rtol.
int switch_for(int terms, double rtol) {
    const double need = std::log(2.0 * kErrorScale / (kTruncationMargin * rtol)) / (2.0 * terms);
    const double n = std::ceil(std::exp(need));
    return static_cast<int>(std::clamp(n, 2.0, 1.0e6));
}

}  // namespace

AccuratePlan plan_accurate(double dx, double dy, double dz, int n1, int n2, double r) {
    AccuratePlan p;
    p.dx = dx, p.dy = dy, p.dz = dz;
    p.rtol = r > 0.0 ? r : 1e-12;
    p.terms = n2 > 0 ? std::min(n2, kMaxTerms) : 0;
    p.switch_cells = n1 > 0 ? n1 : switch_for(p.terms > 0 ? p.terms : kMaxTerms, p.rtol);
    p.switch_dist = p.switch_cells * largest_side(dx, dy, dz);
    return p;
}

double expansion_error(const AccuratePlan& plan, double dist, int terms) {
    const double q = std::pow(largest_side(plan.dx, plan.dy, plan.dz) / dist, 2.0);
    return 2.0 * kErrorScale * std::pow(q, terms);
}

int expansion_terms(const AccuratePlan& plan, double dist) {
    if (plan.terms > 0) return plan.terms;
    const double target = kTruncationMargin * plan.rtol;
    int terms = 1;
    while (terms < kMaxTerms && expansion_error(plan, dist, terms) > target) ++terms;
    return terms;
}

void expansion_block(int i, int j, int k, double dx, double dy, double dz, int terms, double out[6]) {
    expansion_block_at(i * dx, j * dy, k * dz, dx, dy, dz, terms, out);
}

void expansion_block_at(double X, double Y, double Z, double dx, double dy, double dz, int terms, double out[6]) {
    const double dist = std::sqrt(X * X + Y * Y + Z * Z);
    const double u[3] = {X / dist, Y / dist, Z / dist};
    const int K = 2 * (std::clamp(terms, 1, kMaxTerms) - 1);  // highest moment order
    const int L = K + 2;                                      // highest derivative order
    const int n1 = L + 1;
    // D(a, b, c) = d_x^a d_y^b d_z^c (1/|r|) at the unit vector u (|r| = 1),
    // from |k| D_k + (2|k| - 1) sum_i k_i u_i D_{k-e_i}
    //            + (|k| - 1) sum_i k_i (k_i - 1) D_{k-2e_i} = 0.
    std::array<double, (2 * kMaxTerms + 1) * (2 * kMaxTerms + 1) * (2 * kMaxTerms + 1)> D;
    const auto at = [n1](int a, int b, int c) { return (a * n1 + b) * n1 + c; };
    D[at(0, 0, 0)] = 1.0;
    for (int n = 1; n <= L; ++n)
        for (int a = 0; a <= n; ++a)
            for (int b = 0; a + b <= n; ++b) {
                const int c = n - a - b;
                double first = 0.0, second = 0.0;
                if (a >= 1) first += a * u[0] * D[at(a - 1, b, c)];
                if (b >= 1) first += b * u[1] * D[at(a, b - 1, c)];
                if (c >= 1) first += c * u[2] * D[at(a, b, c - 1)];
                if (a >= 2) second += a * (a - 1) * D[at(a - 2, b, c)];
                if (b >= 2) second += b * (b - 1) * D[at(a, b - 2, c)];
                if (c >= 2) second += c * (c - 1) * D[at(a, b, c - 2)];
                D[at(a, b, c)] = -((2 * n - 1) * first + (n - 1) * second) / n;
            }
    // Moment weights w_p = 2 h^p / (p + 2)! of the triangle distribution of
    // half-width h = d / |r| (even p only).
    std::array<double, 2 * kMaxTerms + 1> w[3];
    const double h[3] = {dx / dist, dy / dist, dz / dist};
    for (int ax = 0; ax < 3; ++ax) {
        double fact = 2.0, pw = 1.0;  // (p + 2)!, h^p
        for (int p = 0; p <= K; ++p) {
            if (p % 2 == 0) w[ax][p] = 2.0 * pw / fact;
            fact *= (p + 3);
            pw *= h[ax];
        }
    }
    constexpr int pair[6][2] = {{0, 0}, {1, 1}, {2, 2}, {0, 1}, {0, 2}, {1, 2}};
    double sum[6] = {0, 0, 0, 0, 0, 0};
    // Highest orders first: the small terms are added before the large ones.
    for (int p = K; p >= 0; p -= 2)
        for (int q = K - p; q >= 0; q -= 2)
            for (int s = K - p - q; s >= 0; s -= 2) {
                const double wt = w[0][p] * w[1][q] * w[2][s];
                for (int n = 0; n < 6; ++n) {
                    int e[3] = {p, q, s};
                    ++e[pair[n][0]];
                    ++e[pair[n][1]];
                    sum[n] += wt * D[at(e[0], e[1], e[2])];
                }
            }
    const double scale = dx * dy * dz / (dist * dist * dist);
    for (int n = 0; n < 6; ++n) out[n] = scale * sum[n];
}

void newell_block_quad(int i, int j, int k, double dx, double dy, double dz, double out[6]) {
    const auto fetch = [&](int p, int q, int r, Quad val[6]) {
        point_values(Quad(p) * Quad(dx), Quad(q) * Quad(dy), Quad(r) * Quad(dz), val);
    };
    newell_stencil(std::abs(i), std::abs(j), std::abs(k), quad_volume(dx, dy, dz), fetch, out);
    // Back from the octant to the offset's own signs.
    if (i < 0) out[3] = -out[3], out[4] = -out[4];
    if (j < 0) out[3] = -out[3], out[5] = -out[5];
    if (k < 0) out[4] = -out[4], out[5] = -out[5];
}

void accurate_block(const AccuratePlan& plan, int i, int j, int k, double out[6]) {
    const double X = i * plan.dx, Y = j * plan.dy, Z = k * plan.dz;
    const double dist = std::sqrt(X * X + Y * Y + Z * Z);
    if (dist < plan.switch_dist || dist == 0.0)
        newell_block_quad(i, j, k, plan.dx, plan.dy, plan.dz, out);
    else
        expansion_block(i, j, k, plan.dx, plan.dy, plan.dz, expansion_terms(plan, dist), out);
}

void calctensorc(const Array<double, 1>& A, const Array<double, 1>& MS, TensorArray& AIJ, int nx, int ny, int nz,
                 double dx, double dy, double dz, int m, int /*nmat*/, int n1, int n2, double r) {
    if (nx < 0 || ny < 0 || nz < 0) return;
    const AccuratePlan plan = plan_accurate(dx, dy, dz, n1, n2, r);
    const auto dist_of = [&](int i, int j, int k) {
        const double X = i * dx, Y = j * dy, Z = k * dz;
        return std::sqrt(X * X + Y * Y + Z * Z);
    };
    const auto near = [&](int i, int j, int k) {
        const double d = dist_of(i, j, k);
        return d < plan.switch_dist || d == 0.0;
    };

    // Point values of the near offsets, shared by their stencils: the point
    // (p, q, r) is needed when its neighbour nearest to the origin is near.
    const auto reach = [](double sw, double d, int n) {
        return std::min(n + 1, static_cast<int>(std::min(std::ceil(sw / d), 2.0e9))) + 1;
    };
    const int P = reach(plan.switch_dist, dx, nx), Q = reach(plan.switch_dist, dy, ny),
              R = reach(plan.switch_dist, dz, nz);
    const std::size_t np = static_cast<std::size_t>(P + 1), nq = static_cast<std::size_t>(Q + 1),
                      nr = static_cast<std::size_t>(R + 1);
    std::vector<Quad> table(6 * np * nq * nr);
    const auto slot = [&](int p, int q, int s) {
        return 6 * ((static_cast<std::size_t>(p) * nq + static_cast<std::size_t>(q)) * nr + static_cast<std::size_t>(s));
    };
#pragma omp parallel for schedule(static)
    for (int p = 0; p <= P; ++p)
        for (int q = 0; q <= Q; ++q)
            for (int s = 0; s <= R; ++s)
                if (near(std::max(p - 1, 0), std::max(q - 1, 0), std::max(s - 1, 0)))
                    point_values(Quad(p) * Quad(dx), Quad(q) * Quad(dy), Quad(s) * Quad(dz), &table[slot(p, q, s)]);
    const Quad V = quad_volume(dx, dy, dz);
    const auto fetch = [&](int p, int q, int s, Quad val[6]) {
        const Quad* t = &table[slot(p, q, s)];
        for (int n = 0; n < 6; ++n) val[n] = t[n];
    };

    const double ms2 = MS(m) * MS(m);
    const double ex = 2.0 * A(m) / (ms2 * dx * dx), ey = 2.0 * A(m) / (ms2 * dy * dy),
                 ez = 2.0 * A(m) / (ms2 * dz * dz);
    const std::ptrdiff_t sc = AIJ.stride(3);  // from one component to the next
    // Planes near i = 0 cost more (the near region, more terms), so they are
    // dealt out one by one rather than in halves.
#pragma omp parallel for schedule(static, 1)
    for (int i = 0; i <= nx + 1; ++i)
        for (int j = 0; j <= ny + 1; ++j)
            for (int k = 0; k <= nz + 1; ++k) {
                double v[6];
                if (near(i, j, k))
                    newell_stencil(i, j, k, V, fetch, v);
                else
                    expansion_block(i, j, k, dx, dy, dz, expansion_terms(plan, dist_of(i, j, k)), v);
                const double e = (i == 1 && j == 0 && k == 0)   ? ex
                                 : (i == 0 && j == 1 && k == 0) ? ey
                                 : (i == 0 && j == 0 && k == 1) ? ez
                                                                : 0.0;
                // Mirror images: -i exists for 1 <= i <= nx, likewise j, k.
                const int mi = (i >= 1 && i <= nx) ? 2 : 1, mj = (j >= 1 && j <= ny) ? 2 : 1,
                          mk = (k >= 1 && k <= nz) ? 2 : 1;
                for (int a1 = 0; a1 < mi; ++a1)
                    for (int a2 = 0; a2 < mj; ++a2)
                        for (int a3 = 0; a3 < mk; ++a3) {
                            const int I = a1 ? -i : i, J = a2 ? -j : j, K = a3 ? -k : k;
                            const double s1 = a1 ? -1.0 : 1.0, s2 = a2 ? -1.0 : 1.0, s3 = a3 ? -1.0 : 1.0;
                            double* c = &AIJ(I, J, K, 1, m);
                            c[0 * sc] += v[0];
                            c[4 * sc] += v[1];
                            c[8 * sc] += v[2];
                            c[3 * sc] += v[3] * (s1 * s2);
                            c[6 * sc] += v[4] * (s1 * s3);
                            c[7 * sc] += v[5] * (s2 * s3);
                            c[1 * sc] = c[3 * sc];
                            c[2 * sc] = c[6 * sc];
                            c[5 * sc] = c[7 * sc];
                            if (e != 0.0) {
                                c[0 * sc] += e;
                                c[4 * sc] += e;
                                c[8 * sc] += e;
                            }
                        }
            }
}

}  // namespace torix
