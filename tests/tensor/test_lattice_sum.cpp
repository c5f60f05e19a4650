// Lattice sums of the tensor for periodic bodies: the far-image tails, the
// exact identities of infinite films and rods, and one lattice against a
// coarser one that holds the same images.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <numbers>

#include "tensor/lattice_sum.hpp"
#include "tensor/polylog.hpp"
#include "test_util.hpp"

namespace torix {
namespace {

constexpr double kFourPi = 4.0 * std::numbers::pi;

// sum_{n > M} e^{i n theta} n^-s by brute force, with the (monotone) rest
// beyond N bounded by N^(1-s) / (s-1).
std::complex<double> brute_tail(int s, double theta, int M, long N) {
    std::complex<double> sum = 0.0;
    for (long n = N; n > M; --n) sum += std::polar(std::pow(static_cast<double>(n), -s), n * theta);
    return sum;
}

TEST(LatticeSum, PhasedTailsMatchTheirSeries) {
    // Polylogarithm branch (small s, M), at 0, near 0, mid and at the zone edge.
    for (double th : {0.0, 1e-3, 0.7, std::numbers::pi})
        for (int s : {3, 5}) {
            const long N = 400000;
            const auto ref = brute_tail(s, th, 12, N);
            EXPECT_LT(std::abs(phased_tail(s, th, 12) - ref), 2.0 / std::pow(double(N), s - 1) + 1e-15)
                << "s " << s << " theta " << th;
        }
    // Term-by-term branch (large s and M).
    EXPECT_LT(std::abs(phased_tail(9, 2.0, 3000) - brute_tail(9, 2.0, 3000, 200000)), 1e-13 * std::pow(3001.0, -8));
    EXPECT_NEAR(zeta_int(3), 1.2020569031595942, 1e-15);
    // s = 2 at the zone edge, where the alternating terms are summed exactly
    // in pairs: sum (-1)^n / n^2 = -pi^2 / 12.
    EXPECT_NEAR(phased_tail(2, std::numbers::pi, 0).real(), -std::numbers::pi * std::numbers::pi / 12, 1e-15);
}

// The periodic tensor of one material without exchange.
TensorArray periodic_tensor(const Lattice& lat) {
    TensorArray T = make_tensor(lat.nx, lat.ny, lat.nz, 1);
    tensor_periodic(table({0.0}), table({800.0}), T, lat, 1);
    return T;
}

// Mean over target cells of the field factor of a uniform magnetization
// along c (row sums of the periodic tensor over the cells of one period).
double mean_row_sum(const TensorArray& T, const Lattice& lat, int comp) {
    double s = 0.0;
    int cells = 0;
    for_cells(lat.nx, lat.ny, lat.nz, [&](int i, int j, int k) {
        for_cells(lat.nx, lat.ny, lat.nz, [&](int p, int q, int r) { s += T(i - p, j - q, k - r, comp, 1); });
        ++cells;
    });
    return s / cells;
}

TEST(LatticeSum, InfiniteFilmHasFactorsZeroZeroOne) {
    // One cell per period, several cells per period, non-cubic cells, and a
    // film periodic in x and z (normal along y).
    struct Case {
        Lattice lat;
        int normal;  // tensor component of the normal's diagonal
    };
    const Case cases[] = {{{{1, 1, 0}, 0, 0, 0, 2e-7, 2e-7, 5e-7}, 9},
                          {{{1, 1, 0}, 2, 1, 1, 3e-7, 2e-7, 2.5e-7}, 9},
                          {{{1, 0, 1}, 1, 0, 0, 2e-7, 5e-7, 4e-7}, 5}};
    for (const Case& c : cases) {
        const TensorArray T = periodic_tensor(c.lat);
        for (int comp : {1, 5, 9, 4, 7, 8}) {
            const double expect = comp == c.normal ? -kFourPi : 0.0;
            EXPECT_NEAR(mean_row_sum(T, c.lat, comp), expect, 1e-10 * kFourPi)
                << "grid " << c.lat.nx << " " << c.lat.ny << " " << c.lat.nz << " component " << comp;
        }
    }
}

TEST(LatticeSum, InfiniteRodHasTheFactorsOfItsCrossSection) {
    // Periodic along x; section w (y) by t (z), t = 2 w, one and several cells.
    const auto nyy = [](double w, double t) {
        const double pi = std::numbers::pi;
        return (2 * std::atan(t / w) - (w / (2 * t)) * std::log((w * w + t * t) / (w * w)) +
                (t / (2 * w)) * std::log((w * w + t * t) / (t * t))) /
               pi;
    };
    for (const Lattice& lat : {Lattice{{1, 0, 0}, 0, 0, 0, 3e-7, 2e-7, 4e-7}, Lattice{{1, 0, 0}, 1, 1, 3, 2e-7, 2e-7, 2e-7}}) {
        const double w = (lat.ny + 1) * lat.dy, t = (lat.nz + 1) * lat.dz;
        const TensorArray T = periodic_tensor(lat);
        EXPECT_NEAR(mean_row_sum(T, lat, 1), 0.0, 1e-10 * kFourPi);
        EXPECT_NEAR(mean_row_sum(T, lat, 5), -kFourPi * nyy(w, t), 1e-10 * kFourPi);
        EXPECT_NEAR(mean_row_sum(T, lat, 9), -kFourPi * (1.0 - nyy(w, t)), 1e-10 * kFourPi);
    }
}

// The images of a lattice of period L, seen from a supercell of Q periods:
//   N_k(o) = sum_{q = 0}^{Q-1} Nsuper_k(o - q L) e^{i k q L},
// two sums with different explicit images and tails that must agree.
TEST(LatticeSum, OnePeriodEqualsItsSupercellAtFoldedWaveVectors) {
    struct Case {
        Lattice one;
        int axis, Q;
        std::array<double, 3> k;
    };
    const double d = 2e-7;
    const Case cases[] = {
        {{{1, 0, 0}, 1, 1, 0, d, d, 3e-7}, 0, 4, {0.0, 0.0, 0.0}},
        {{{1, 0, 0}, 1, 1, 0, d, d, 3e-7}, 0, 4, {std::numbers::pi / (2 * 2 * d) + 1e4, 0.0, 0.0}},
        {{{1, 1, 0}, 0, 0, 0, d, d, 5e-7}, 0, 2, {0.0, 0.0, 0.0}},
        {{{1, 1, 0}, 0, 0, 0, d, d, 5e-7}, 0, 2, {2e5, 0.0, 0.0}},
    };
    for (const Case& c : cases) {
        Lattice sup = c.one;
        const int P = c.one.nx + 1;
        sup.nx = c.Q * P - 1;
        std::vector<BlochTensor> b1, bs;
        bloch_dipolar(c.one, {c.k}, b1);
        bloch_dipolar(sup, {c.k}, bs);
        const TensorArray T1 = periodic_tensor(c.one), Ts = periodic_tensor(sup);
        constexpr int comp[6] = {1, 5, 9, 4, 7, 8};
        const double L = P * c.one.dx;
        for (int l = -c.one.nz; l <= c.one.nz; ++l)
            for (int j = -c.one.ny; j <= c.one.ny; ++j)
                for (int i = -c.one.nx; i <= c.one.nx; ++i)
                    for (int n = 0; n < 6; ++n) {
                        const cplx one = T1(i, j, l, comp[n], 1) + b1[0](i, j, l, n + 1);
                        cplx folded = 0.0;
                        for (int q = 0; q < c.Q; ++q) {
                            const int io = i - q * P;
                            // Offsets below the supercell's range are images of those above.
                            const int iw = io < -sup.nx ? io + c.Q * P : io;
                            const cplx wrap = io < -sup.nx ? std::polar(1.0, -c.k[0] * c.Q * L) : cplx(1.0);
                            folded += (Ts(iw, j, l, comp[n], 1) + bs[0](iw, j, l, n + 1)) * wrap *
                                      std::polar(1.0, c.k[0] * q * L);
                        }
                        EXPECT_LT(std::abs(one - folded), 1e-10 * kFourPi)
                            << "offset " << i << " " << j << " " << l << " component " << n << " Q " << c.Q
                            << " k " << c.k[0];
                    }
    }
}

}  // namespace
}  // namespace torix
