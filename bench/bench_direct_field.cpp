// One direct-sum field evaluation for bodies of 300, 1000 and 3000 magnetic
// cells (a flat box of cubic cells inside a grid with an empty border).
// Reports cell pairs per second.
#include <benchmark/benchmark.h>

#include <random>

#include "dynamics/direct_field.hpp"

namespace {

using namespace torix;

struct Body {
    int nx, ny, nz;
    IntGrid mask;
    TensorArray AIJ;
    VecGrid M, H;
    Array<double, 1> MS;
};

// Box of lx x ly x lz magnetic cells with one empty cell around it; the
// tensor holds arbitrary values (speed does not depend on them).
Body make_body(int lx, int ly, int lz) {
    Body b;
    b.nx = lx + 1, b.ny = ly + 1, b.nz = lz + 1;
    b.mask = make_int_grid(b.nx, b.ny, b.nz);
    for (int k = 1; k <= lz; ++k)
        for (int j = 1; j <= ly; ++j)
            for (int i = 1; i <= lx; ++i) b.mask(i, j, k) = 1;
    b.AIJ = make_tensor(b.nx, b.ny, b.nz, 1);
    std::mt19937_64 g(1);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (double& v : b.AIJ) v = u(g);
    b.M = make_vec_grid(b.nx, b.ny, b.nz);
    for (double& v : b.M) v = 800.0 * u(g);
    b.H = make_vec_grid(b.nx, b.ny, b.nz);
    b.MS = Array<double, 1>({Range{1, 1}}, 800.0);
    return b;
}

void BM_calcfields(benchmark::State& state) {
    const int cells = static_cast<int>(state.range(0));
    // 300 = 15 x 10 x 2, 1000 = 25 x 20 x 2, 3000 = 30 x 25 x 4
    Body b = cells == 300 ? make_body(15, 10, 2) : cells == 1000 ? make_body(25, 20, 2) : make_body(30, 25, 4);
    for (auto _ : state) {
        calcfields(b.M, b.MS, {0.0, 0.0, 0.0}, 0.0, b.mask, b.AIJ, b.H, b.nx, b.ny, b.nz, 1);
        benchmark::DoNotOptimize(b.H.data());
    }
    const double pairs = static_cast<double>(cells) * cells;
    state.counters["pairs_per_s"] = benchmark::Counter(pairs, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_calcfields)->Arg(300)->Arg(1000)->Arg(3000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
