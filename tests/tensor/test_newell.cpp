// Physics of the interaction tensor, checked on the reference filler and on
// the fast builder alike: self terms against the closed demagnetizing
// factors of a box, separated cells against a quadrature of the dipole
// kernel, symmetry, far field.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <functional>
#include <numbers>
#include <vector>

#include "tensor_test_util.hpp"

using namespace torix;
using namespace torix::testing;

namespace {

constexpr double kPi = std::numbers::pi;

using Builder = std::function<TensorArray(const Array<double, 1>&, const Array<double, 1>&, int, int, int, double,
                                          double, double)>;
const std::array<std::pair<const char*, Builder>, 2> kBuilders = {{{"reference", reference}, {"fast", fast}}};

// Gauss-Legendre nodes and weights on [-1, 1] (Newton on P_n; the last
// pass leaves p0 = P_{n-1}(t), p1 = P_n(t) at the converged node).
void gauss_legendre(int n, std::vector<double>& x, std::vector<double>& w) {
    x.assign(n, 0.0);
    w.assign(n, 0.0);
    for (int i = 0; i < n; ++i) {
        double t = std::cos(kPi * (i + 0.75) / (n + 0.5)), dp = 1.0;
        for (int it = 0; it < 100; ++it) {
            double p0 = 1.0, p1 = t;
            for (int k = 2; k <= n; ++k) {
                const double p2 = ((2 * k - 1) * t * p1 - (k - 1) * p0) / k;
                p0 = p1;
                p1 = p2;
            }
            dp = n * (t * p1 - p0) / (t * t - 1.0);
            const double dt = p1 / dp;
            t -= dt;
            if (std::fabs(dt) < 1e-16) break;
        }
        x[i] = t;
        w[i] = 2.0 / ((1.0 - t * t) * dp * dp);
    }
}

// Field at a target cell (average over it) per unit magnetization of a
// source cell at offset o (in cells): (1/V) double integral over both cells
// of the dipole kernel (3 r_a r_b - delta_ab r^2) / r^5.  The double
// integral is a single one over the separation s with the weight
// prod_d (d_d - |s_d - o_d d_d|), integrated by Gauss-Legendre on the two
// halves of each axis (the weight has a kink at the centre).
std::array<std::array<double, 3>, 3> dipole_quadrature(const std::array<int, 3>& o, const std::array<double, 3>& d) {
    std::vector<double> gx, gw;
    gauss_legendre(20, gx, gw);
    std::array<std::vector<double>, 3> s, w;
    for (int a = 0; a < 3; ++a)
        for (int half = 0; half < 2; ++half)
            for (std::size_t n = 0; n < gx.size(); ++n) {
                const double c = o[a] * d[a] + (half ? 0.5 : -0.5) * d[a];
                const double t = c + 0.5 * d[a] * gx[n];
                s[a].push_back(t);
                w[a].push_back(0.5 * d[a] * gw[n] * (d[a] - std::fabs(t - o[a] * d[a])));
            }
    std::array<std::array<double, 3>, 3> N{};
    for (std::size_t i = 0; i < s[0].size(); ++i)
        for (std::size_t j = 0; j < s[1].size(); ++j)
            for (std::size_t k = 0; k < s[2].size(); ++k) {
                const double r[3] = {s[0][i], s[1][j], s[2][k]};
                const double r2 = r[0] * r[0] + r[1] * r[1] + r[2] * r[2];
                const double r5 = r2 * r2 * std::sqrt(r2);
                const double wt = w[0][i] * w[1][j] * w[2][k];
                for (int a = 0; a < 3; ++a)
                    for (int b = 0; b < 3; ++b) N[a][b] += wt * (3.0 * r[a] * r[b] - (a == b ? r2 : 0.0)) / r5;
            }
    const double V = d[0] * d[1] * d[2];
    for (auto& row : N)
        for (double& v : row) v /= V;
    return N;
}

double entry(const TensorArray& T, int i, int j, int k, int a, int b, int m = 1) {
    return T(i, j, k, a + 3 * (b - 1), m);
}

}  // namespace

TEST(NewellKernels, ZeroArgumentsGiveZero) {
    EXPECT_EQ(fs(0.0, 0.0, 0.0), 0.0);
    EXPECT_EQ(gs(0.0, 0.0, 0.0), 0.0);
    // Zero coordinates elsewhere stay finite thanks to the thresholds.
    EXPECT_TRUE(std::isfinite(fs(0.0, 1e-6, 0.0)));
    EXPECT_TRUE(std::isfinite(gs(0.0, 0.0, 1e-6)));
    EXPECT_TRUE(std::isfinite(gs(1e-6, 0.0, 0.0)));
}

TEST(NewellTensor, SelfTermsOfBoxesMatchClosedDemagnetizingFactors) {
    const auto A = table({0.0}), MS = table({800.0});
    // A cube first: its factors are 1/3 each.
    const std::array<std::array<double, 3>, 5> boxes = {
        {{5e-7, 5e-7, 5e-7}, {5e-7, 5e-7, 3e-7}, {1e-6, 5e-7, 5e-7}, {2e-7, 6e-7, 1.4e-6}, {3e-7, 1e-7, 2e-7}}};
    for (const auto& d : boxes) {
        const double a = d[0] / 2, b = d[1] / 2, c = d[2] / 2;
        const double N[3] = {aharoni_nz(b, c, a), aharoni_nz(c, a, b), aharoni_nz(a, b, c)};
        ASSERT_NEAR(N[0] + N[1] + N[2], 1.0, 1e-12);  // the closed form itself
        for (const auto& [name, build] : kBuilders) {
            const TensorArray T = build(A, MS, 0, 0, 0, d[0], d[1], d[2]);
            double trace = 0.0;
            for (int c2 = 1; c2 <= 3; ++c2) {
                EXPECT_NEAR(entry(T, 0, 0, 0, c2, c2), -4.0 * kPi * N[c2 - 1], 1e-10)
                    << name << " box " << d[0] << " " << d[1] << " " << d[2] << " component " << c2;
                trace += entry(T, 0, 0, 0, c2, c2);
            }
            EXPECT_NEAR(trace, -4.0 * kPi, 1e-11) << name;
            EXPECT_NEAR(entry(T, 0, 0, 0, 1, 2), 0.0, 1e-12) << name;
            EXPECT_NEAR(entry(T, 0, 0, 0, 1, 3), 0.0, 1e-12) << name;
            EXPECT_NEAR(entry(T, 0, 0, 0, 2, 3), 0.0, 1e-12) << name;
        }
    }
}

TEST(NewellTensor, SeparatedCellsMatchQuadratureOfDipoleKernel) {
    const auto A = table({0.0}), MS = table({800.0});
    const std::array<std::array<double, 3>, 2> cells = {{{5e-7, 5e-7, 5e-7}, {5e-7, 4e-7, 3e-7}}};
    const std::array<std::array<int, 3>, 6> offsets = {
        {{2, 0, 0}, {0, -3, 1}, {2, 2, 1}, {3, -2, 4}, {-5, 1, -2}, {1, 4, -3}}};
    for (const auto& d : cells)
        for (const auto& [name, build] : kBuilders) {
            const TensorArray T = build(A, MS, 5, 5, 5, d[0], d[1], d[2]);
            for (const auto& o : offsets) {
                const auto N = dipole_quadrature(o, d);
                double scale = 0.0;
                for (const auto& row : N)
                    for (double v : row) scale = std::max(scale, std::fabs(v));
                for (int a = 1; a <= 3; ++a)
                    for (int b = 1; b <= 3; ++b)
                        EXPECT_NEAR(entry(T, o[0], o[1], o[2], a, b), N[a - 1][b - 1], 1e-8 * scale)
                            << name << " offset " << o[0] << " " << o[1] << " " << o[2] << " entry " << a << b;
            }
        }
}

TEST(NewellTensor, SymmetricBlocksAndParityUnderReflection) {
    const auto A = table({1.3e-6}), MS = table({800.0});
    const int nx = 3, ny = 2, nz = 1;
    for (const auto& [name, build] : kBuilders) {
        const TensorArray T = build(A, MS, nx, ny, nz, 5e-7, 4e-7, 3e-7);
        const double tol = 1e-12 * max_abs(T);
        for (int i = -nx; i <= nx + 1; ++i)
            for (int j = -ny; j <= ny + 1; ++j)
                for (int k = -nz; k <= nz + 1; ++k) {
                    EXPECT_EQ(T(i, j, k, 2, 1), T(i, j, k, 4, 1));
                    EXPECT_EQ(T(i, j, k, 3, 1), T(i, j, k, 7, 1));
                    EXPECT_EQ(T(i, j, k, 6, 1), T(i, j, k, 8, 1));
                    if (-i < -nx || -i > nx + 1) continue;
                    // Reflection x -> -x: xx, yy, zz, yz even; xy, xz odd.
                    const double sgn[10] = {0, 1, -1, -1, -1, 1, 1, -1, 1, 1};
                    for (int c = 1; c <= 9; ++c)
                        EXPECT_NEAR(T(-i, j, k, c, 1), sgn[c] * T(i, j, k, c, 1), tol)
                            << name << " " << i << " " << j << " " << k << " c " << c;
                }
    }
}

TEST(NewellTensor, FarFieldApproachesPointDipole) {
    const auto A = table({0.0}), MS = table({800.0});
    const double d = 5e-7, V = d * d * d;
    for (const auto& [name, build] : kBuilders) {
        const TensorArray T = build(A, MS, 20, 10, 0, d, d, d);
        const auto dipole = [&](int i, int j, int a, int b) {
            const double r[3] = {i * d, j * d, 0.0};
            const double rr = std::hypot(r[0], r[1]);
            return V * (3.0 * r[a - 1] * r[b - 1] / (rr * rr) - (a == b ? 1.0 : 0.0)) / (rr * rr * rr);
        };
        // Two cubes have no quadrupole moment: the first correction to the
        // point dipole falls off as (d / r)^4 relative to it.
        double rel[3];
        int n = 0;
        for (int i : {5, 10, 20}) {
            rel[n] = std::fabs(entry(T, i, 0, 0, 1, 1) / dipole(i, 0, 1, 1) - 1.0);
            EXPECT_LT(rel[n], 1.0 / std::pow(i, 4)) << name << " xx at " << i;
            EXPECT_NEAR(entry(T, i, 0, 0, 2, 2) / dipole(i, 0, 2, 2), 1.0, 1.0 / std::pow(i, 4)) << name;
            ++n;
        }
        EXPECT_NEAR(rel[0] / rel[1], 16.0, 3.0) << name;
        EXPECT_NEAR(rel[1] / rel[2], 16.0, 3.0) << name;
        EXPECT_NEAR(entry(T, 10, 10, 0, 1, 2) / dipole(10, 10, 1, 2), 1.0, 1e-4) << name;
        EXPECT_NEAR(entry(T, -10, 10, 0, 1, 2) / dipole(-10, 10, 1, 2), 1.0, 1e-4) << name;
    }
}
