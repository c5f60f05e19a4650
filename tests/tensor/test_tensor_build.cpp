// The fast builder against the plain reference filler.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <random>

#include "newell_mpfr.hpp"
#include "tensor_test_util.hpp"

using namespace torix;
using namespace torix::testing;

namespace {

struct Grid {
    int nx, ny, nz;
    double dx, dy, dz;
};

}  // namespace

TEST(TensorBuild, MatchesReferenceOnSmallGrids) {
    const std::array<Grid, 7> grids = {{{0, 0, 0, 5e-7, 5e-7, 5e-7},
                                        {1, 1, 1, 5e-7, 5e-7, 5e-7},
                                        {2, 3, 0, 5e-7, 5e-7, 3e-7},
                                        {4, 3, 2, 5e-7, 4e-7, 3e-7},
                                        {5, 2, 1, 1e-6, 5e-7, 5e-7},
                                        {3, 0, 4, 2e-7, 6e-7, 4e-7},
                                        {6, 6, 0, 5e-7, 5e-7, 1e-7}}};
    const auto A1 = table({1.3e-6}), MS1 = table({800.0});
    const auto A2 = table({1.3e-6, 3.0e-7}), MS2 = table({800.0, 1400.0});
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> u(-3.0, 3.0);
    for (const Grid& g : grids) {
        expect_close(reference(A1, MS1, g.nx, g.ny, g.nz, g.dx, g.dy, g.dz),
                     fast(A1, MS1, g.nx, g.ny, g.nz, g.dx, g.dy, g.dz), "one material");
        // Two materials, both routes adding to the same earlier contents.
        TensorArray ref = make_tensor(g.nx, g.ny, g.nz, 2);
        for (double& v : ref) v = u(rng);
        TensorArray got = ref;
        for (int m = 1; m <= 2; ++m) tensornewall(A2, MS2, ref, g.nx, g.ny, g.nz, g.dx, g.dy, g.dz, m, 2);
        tensorbuild(A2, MS2, got, g.nx, g.ny, g.nz, g.dx, g.dy, g.dz, 2);
        expect_close(ref, got, "two materials, prefilled");
    }
}

// Each thread keeps its own window of planes; how the planes are shared out
// must not change a single bit.
TEST(TensorBuild, SameBitsForAnyNumberOfThreads) {
    const auto A = table({1.3e-6, 3e-7}), MS = table({800.0, 1400.0});
    expect_thread_independent([&] { return fast(A, MS, 9, 4, 2, 5e-7, 4e-7, 3e-7); }, {2, 3, 7});
}

TEST(TensorBuild, MaterialsDifferOnlyByExchangeOnNearestNeighbours) {
    const double dx = 5e-7, dy = 4e-7, dz = 3e-7;
    const auto A = table({0.0, 0.0, 2e-6}), MS = table({800.0, 1000.0, 1000.0});
    const TensorArray T = fast(A, MS, 3, 2, 1, dx, dy, dz);
    const double e[4] = {0.0, 2 * 2e-6 / (1e6 * dx * dx), 2 * 2e-6 / (1e6 * dy * dy), 2 * 2e-6 / (1e6 * dz * dz)};
    for (int i = -3; i <= 4; ++i)
        for (int j = -2; j <= 3; ++j)
            for (int k = -1; k <= 2; ++k)
                for (int c = 1; c <= 9; ++c) {
                    // With A = 0 the slices are identical, whatever MS.
                    EXPECT_EQ(T(i, j, k, c, 1), T(i, j, k, c, 2));
                    const int axis = (std::abs(i) == 1 && j == 0 && k == 0)   ? 1
                                     : (i == 0 && std::abs(j) == 1 && k == 0) ? 2
                                     : (i == 0 && j == 0 && std::abs(k) == 1) ? 3
                                                                               : 0;
                    const bool diagonal = c == 1 || c == 5 || c == 9;
                    const double expect = (axis && diagonal) ? e[axis] : 0.0;
                    EXPECT_NEAR(T(i, j, k, c, 3) - T(i, j, k, c, 2), expect, 1e-12 * (1.0 + expect));
                }
}

// On 64 x 64 x 4 cells the reference's own rounding at far offsets reaches
// about 2e-9 (differences of point values of size (r/d)^3 V); the fast
// builder stays within 1e-12 of the same formulas in 320-bit arithmetic.
TEST(TensorBuild, FarOffsetsAgreeWithExtendedPrecisionFormulas) {
    const double d = 5e-7;
    const auto A = table({0.0}), MS = table({800.0});
    const TensorArray T = fast(A, MS, 63, 63, 3, d, d, d);
    const std::array<std::array<int, 3>, 6> offsets = {
        {{-48, -60, 0}, {48, 60, 0}, {-62, -61, 0}, {64, 1, 4}, {-63, 64, -3}, {0, -63, 2}}};
    for (const auto& o : offsets)
        EXPECT_NEAR(T(o[0], o[1], o[2], 9, 1), newell_exact(o[0], o[1], o[2], d, d, d)[2], 1e-12)
            << o[0] << " " << o[1] << " " << o[2];
}
