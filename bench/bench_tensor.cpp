// Building the interaction tensor: the fast builder on three grids and the
// plain reference filler on the middle one.  Cells of 5e-7 cm, one material
// (A = 1.3e-6 erg/cm, MS = 800 emu/cm^3).  Run with OMP_NUM_THREADS set to
// the cores to use.
#include <benchmark/benchmark.h>

#include <quadmath.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "../tests/tensor/newell_mpfr.hpp"

#include "tensor/newell.hpp"
#include "tensor/tensor_accurate.hpp"
#include "tensor/tensor_build.hpp"

using namespace torix;

namespace {

constexpr double kCell = 5e-7;

Array<double, 1> one(double v) { return Array<double, 1>({Range{1, 1}}, v); }

// Grid of cx x cy x cz cells.
void BM_TensorBuild(benchmark::State& state) {
    const int nx = static_cast<int>(state.range(0)) - 1, ny = static_cast<int>(state.range(1)) - 1,
              nz = static_cast<int>(state.range(2)) - 1;
    const auto A = one(1.3e-6), MS = one(800.0);
    TensorArray T = make_tensor(nx, ny, nz, 1);
    for (auto _ : state) {
        T.fill(0.0);
        tensorbuild(A, MS, T, nx, ny, nz, kCell, kCell, kCell, 1);
        benchmark::DoNotOptimize(T.data());
    }
    state.counters["offsets"] = static_cast<double>(T.size() / 9);
}

// The accurate builder (TENSOR_CREATE kind > 0) with the automatic switch
// and terms at the default accuracy 1e-12, on the same grids.
void BM_TensorAccurate(benchmark::State& state) {
    const int nx = static_cast<int>(state.range(0)) - 1, ny = static_cast<int>(state.range(1)) - 1,
              nz = static_cast<int>(state.range(2)) - 1;
    const auto A = one(1.3e-6), MS = one(800.0);
    TensorArray T = make_tensor(nx, ny, nz, 1);
    for (auto _ : state) {
        T.fill(0.0);
        calctensorc(A, MS, T, nx, ny, nz, kCell, kCell, kCell, 1, 1, 0, 0, 0.0);
        benchmark::DoNotOptimize(T.data());
    }
    state.counters["offsets"] = static_cast<double>(T.size() / 9);
}

// The reference on the same grid; the counters give the largest deviation
// of the fast builder from it, relative to the largest entry, with exchange
// and without (A = 0, largest entry 4 pi / 3).
void BM_TensorReference(benchmark::State& state) {
    const int nx = static_cast<int>(state.range(0)) - 1, ny = static_cast<int>(state.range(1)) - 1,
              nz = static_cast<int>(state.range(2)) - 1;
    const auto MS = one(800.0);
    TensorArray T = make_tensor(nx, ny, nz, 1);
    for (auto _ : state) {
        T.fill(0.0);
        tensornewall(one(1.3e-6), MS, T, nx, ny, nz, kCell, kCell, kCell, 1, 1);
        benchmark::DoNotOptimize(T.data());
    }
    const auto deviation = [&](double Aval, const TensorArray& ref) {
        TensorArray F = make_tensor(nx, ny, nz, 1);
        tensorbuild(one(Aval), MS, F, nx, ny, nz, kCell, kCell, kCell, 1);
        double big = 0.0, dev = 0.0;
        for (std::size_t n = 0; n < ref.size(); ++n) {
            big = std::max(big, std::fabs(ref.data()[n]));
            dev = std::max(dev, std::fabs(ref.data()[n] - F.data()[n]));
        }
        return dev / big;
    };
    state.counters["dev_rel_exchange"] = deviation(1.3e-6, T);
    T.fill(0.0);
    tensornewall(one(0.0), MS, T, nx, ny, nz, kCell, kCell, kCell, 1, 1);
    state.counters["dev_rel_dipolar"] = deviation(0.0, T);
}

// Largest deviation of the block at offset (i, j, k) of a built tensor from
// the 320-bit value, relative to the block's largest entry.
double block_error(const TensorArray& T, int i, int j, int k) {
    const auto want = testing::newell_exact(i, j, k, kCell, kCell, kCell);
    const double got[6] = {T(i, j, k, 1, 1), T(i, j, k, 5, 1), T(i, j, k, 9, 1),
                           T(i, j, k, 4, 1), T(i, j, k, 7, 1), T(i, j, k, 8, 1)};
    double big = 0.0, err = 0.0;
    for (int n = 0; n < 6; ++n) {
        big = std::max(big, std::fabs(want[n]));
        err = std::max(err, std::fabs(got[n] - want[n]));
    }
    return err / big;
}

// Accuracy against distance: the block at (R, 0, 0) (argument 0) or at
// (R, R, 0) (argument 1) of both builders, on the smallest grid that holds
// it, against Newell's formulas in 320-bit arithmetic.  Cubic cells, A = 0.
void BM_TensorAccuracy(benchmark::State& state) {
    const int R = static_cast<int>(state.range(0));
    const bool diagonal = state.range(1) != 0;
    const int nx = R - 1, ny = diagonal ? R - 1 : 0, nz = 0;
    const auto A = one(0.0), MS = one(800.0);
    TensorArray k0 = make_tensor(nx, ny, nz, 1), k1 = make_tensor(nx, ny, nz, 1);
    for (auto _ : state) {
        k0.fill(0.0);
        k1.fill(0.0);
        tensorbuild(A, MS, k0, nx, ny, nz, kCell, kCell, kCell, 1);
        calctensorc(A, MS, k1, nx, ny, nz, kCell, kCell, kCell, 1, 1, 0, 0, 0.0);
    }
    const int j = diagonal ? R : 0;
    state.counters["err_kind0"] = block_error(k0, R, j, 0);
    state.counters["err_accurate"] = block_error(k1, R, j, 0);
}

// Aharoni's demagnetizing factor D_z of the prism 2a x 2b x 2c
// (J. Appl. Phys. 83, 3432 (1998)), in quadruple precision.
double aharoni_z(double ad, double bd, double cd) {
    using Q = __float128;
    const Q a = ad, b = bd, c = cd;
    const Q abc = sqrtq(a * a + b * b + c * c), ab = sqrtq(a * a + b * b), bc = sqrtq(b * b + c * c),
            ac = sqrtq(a * a + c * c);
    const Q s = (b * b - c * c) / (2 * b * c) * logq((abc - a) / (abc + a)) +
                (a * a - c * c) / (2 * a * c) * logq((abc - b) / (abc + b)) + b / (2 * c) * logq((ab + a) / (ab - a)) +
                a / (2 * c) * logq((ab + b) / (ab - b)) + c / (2 * a) * logq((bc - b) / (bc + b)) +
                c / (2 * b) * logq((ac - a) / (ac + a)) + 2 * atanq(a * b / (c * abc)) +
                (a * a * a + b * b * b - 2 * c * c * c) / (3 * a * b * c) +
                (a * a + b * b - 2 * c * c) / (3 * a * b * c) * abc + c / (a * b) * (ac + bc) -
                (ab * ab * ab + bc * bc * bc + ac * ac * ac) / (3 * a * b * c);
    return static_cast<double>(s / acosq(Q(-1)));
}

// Mean demagnetizing factor N_zz of a uniformly magnetized film of
// cx x cy x 1 cubic cells from each builder's tensor: the mean over the
// cells of the sum over the cells, -(1 / 4 pi N) sum over offsets of
// (cx - |i|)(cy - |j|) T_zz(i, j, 0), against the prism's exact value.
void BM_ThinFilmNzz(benchmark::State& state) {
    const int cx = static_cast<int>(state.range(0)), cy = cx;
    const auto A = one(0.0), MS = one(800.0);
    TensorArray k0 = make_tensor(cx - 1, cy - 1, 0, 1), k1 = make_tensor(cx - 1, cy - 1, 0, 1);
    for (auto _ : state) {
        k0.fill(0.0);
        k1.fill(0.0);
        tensorbuild(A, MS, k0, cx - 1, cy - 1, 0, kCell, kCell, kCell, 1);
        calctensorc(A, MS, k1, cx - 1, cy - 1, 0, kCell, kCell, kCell, 1, 1, 0, 0, 0.0);
    }
    const auto mean = [&](const TensorArray& T, int c) {
        long double sum = 0.0L;
        for (int i = 1 - cx; i <= cx - 1; ++i)
            for (int j = 1 - cy; j <= cy - 1; ++j)
                sum += static_cast<long double>(cx - std::abs(i)) * (cy - std::abs(j)) * T(i, j, 0, c, 1);
        return static_cast<double>(-sum / (4.0L * 3.14159265358979323846264L * cx * cy));
    };
    const double zz = aharoni_z(cx / 2.0, cy / 2.0, 0.5), xx = aharoni_z(cy / 2.0, 0.5, cx / 2.0);
    state.counters["Nzz_exact"] = zz;
    state.counters["Nzz_kind0_minus_exact"] = mean(k0, 9) - zz;
    state.counters["Nzz_accurate_minus_exact"] = mean(k1, 9) - zz;
    state.counters["Nxx_exact"] = xx;
    state.counters["Nxx_kind0_minus_exact"] = mean(k0, 1) - xx;
    state.counters["Nxx_accurate_minus_exact"] = mean(k1, 1) - xx;
}

}  // namespace

BENCHMARK(BM_TensorBuild)->Args({32, 32, 1})->Args({64, 64, 4})->Args({128, 128, 8})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TensorAccurate)->Args({32, 32, 1})->Args({64, 64, 4})->Args({128, 128, 8})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TensorReference)->Args({64, 64, 4})->Iterations(1)->Unit(benchmark::kMillisecond);

BENCHMARK(BM_TensorAccuracy)
    ->ArgsProduct({{1, 2, 5, 10, 20, 50, 120, 300, 600, 1000}, {0}})
    ->ArgsProduct({{1, 5, 20, 50, 120, 300}, {1}})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ThinFilmNzz)->Arg(64)->Arg(256)->Arg(1024)->Iterations(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
