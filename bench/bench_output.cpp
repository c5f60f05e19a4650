// Driven-response couplings and VRML scenes: calc_c for 10 modes over bodies
// of 1000 and 8000 cells (reports cell-mode visits per second), and a
// reduced scene of a 64 x 64 x 8 grid (cells per second).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <random>
#include <string>
#include <unistd.h>

#include "output/response.hpp"
#include "output/vrml.hpp"

namespace {

using namespace torix;

struct Body {
    int n = 0, N = 0;
    IntGrid mask, num;
    VecGrid M;
    CVecGrid h;
    Array<cplx, 3> R, L;
};

// Cube of n^3 magnetic cells with random magnetization, drive and modes.
Body make_body(int n, int nmodes) {
    Body b;
    b.n = n - 1;
    b.N = n * n * n;
    b.mask = make_int_grid(b.n, b.n, b.n, 1);
    b.num = make_int_grid(b.n, b.n, b.n);
    b.M = make_vec_grid(b.n, b.n, b.n);
    b.h = make_cvec_grid(b.n, b.n, b.n);
    std::mt19937_64 g(7);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    int id = 0;
    for (int i = 0; i <= b.n; ++i)
        for (int j = 0; j <= b.n; ++j)
            for (int k = 0; k <= b.n; ++k) b.num(i, j, k) = ++id;
    for (double& v : b.M) v = 800.0 * u(g);
    for (cplx& v : b.h) v = {u(g), u(g)};
    b.R.allocate({Range{1, b.N}, Range{1, 2}, Range{1, nmodes}});
    b.L.allocate({Range{1, b.N}, Range{1, 2}, Range{1, nmodes}});
    for (cplx& v : b.R) v = {u(g), u(g)};
    for (cplx& v : b.L) v = {u(g), u(g)};
    return b;
}

void BM_calc_c(benchmark::State& state) {
    const int nmodes = 10;
    const Body b = make_body(static_cast<int>(state.range(0)), nmodes);
    Array<cplx, 1> C;
    for (auto _ : state) {
        calc_c(nmodes, b.n, b.n, b.n, b.N, b.R, b.L, b.M, b.mask, b.num, b.h, C);
        benchmark::DoNotOptimize(C.data());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(b.N) * nmodes);
}
BENCHMARK(BM_calc_c)->Arg(10)->Arg(20)->Unit(benchmark::kMillisecond);

void BM_print_red_m(benchmark::State& state) {
    const int f = static_cast<int>(state.range(0));
    const int nx = 63, ny = 63, nz = 7;
    IntGrid mask = make_int_grid(nx, ny, nz, 1);
    VecGrid F = make_vec_grid(nx, ny, nz);
    std::mt19937_64 g(3);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (double& v : F) v = u(g);
    const std::string name = "/tmp/torix-bench-" + std::to_string(::getpid()) + ".wrl";
    for (auto _ : state) print_red_m(nx, ny, nz, mask, F, 0, 1, f, f, 1, name);
    std::remove(name.c_str());
    state.SetItemsProcessed(state.iterations() * (nx + 1) * (ny + 1) * (nz + 1));
}
BENCHMARK(BM_print_red_m)->Arg(1)->Arg(4)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
