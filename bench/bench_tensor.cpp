// Building the interaction tensor: the fast builder on three grids and the
// plain reference filler on the middle one.  Cells of 5e-7 cm, one material
// (A = 1.3e-6 erg/cm, MS = 800 emu/cm^3).  Run with OMP_NUM_THREADS set to
// the cores to use.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>

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

}  // namespace

BENCHMARK(BM_TensorBuild)->Args({32, 32, 1})->Args({64, 64, 4})->Args({128, 128, 8})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TensorAccurate)->Args({32, 32, 1})->Args({64, 64, 4})->Args({128, 128, 8})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TensorReference)->Args({64, 64, 4})->Iterations(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
