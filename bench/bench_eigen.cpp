// Eigenmode benchmarks: dynamic-matrix assembly, the whole dense solve
// (assembly, dgeevx, ordering) with its peak memory, and one operator
// product of each iterative kind.
//
// Models: boxes of cubic 5 nm cells, permalloy-like (MS 800, A 1.3e-6),
// magnetization tilted from z cell by cell so that the frames differ.
//   N = 200: 10x10x2, 800: 20x20x2, 1600: 20x20x4, 6400: 40x40x4.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cmath>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>

#include "core/array.hpp"
#include "eigen/arnoldi.hpp"
#include "eigen/deg.hpp"
#include "eigen/dense_solve.hpp"
#include "eigen/dynamic_matrix.hpp"
#include "geometry/numbering.hpp"
#include "tensor/tensor_build.hpp"

using namespace torix;

extern "C" void dgemv_(const char*, const int*, const int*, const double*, const double*, const int*, const double*,
                       const int*, const double*, double*, const int*, std::size_t);

// The product of the dense kind: dgemv as solvear forms it.
void dense_apply(const double* A, int n, const double* x, double* y) {
    const double one = 1.0, zero = 0.0;
    const int inc = 1;
    dgemv_("N", &n, &n, &one, A, &n, x, &inc, &zero, y, &inc, 1);
}


namespace {

struct BenchModel {
    int nx, ny, nz, N = 0;
    Array<double, 1> MS, A;
    IntGrid MASQUE, NUM;
    VecGrid M, H;
    TensorArray AIJ;
    Array<std::int32_t, 1> DEGR;
    MatrixInput input() const {
        return MatrixInput{MASQUE, NUM, M, H, {0.0, 0.0, 0.0}, -0.01, MS, AIJ, DEGR, nx, ny, nz, N};
    }
};

BenchModel& model(int N) {
    static std::map<int, std::unique_ptr<BenchModel>> cache;
    auto& slot = cache[N];
    if (slot) return *slot;
    slot = std::make_unique<BenchModel>();
    BenchModel& m = *slot;
    switch (N) {
        case 200: m.nx = 9, m.ny = 9, m.nz = 1; break;
        case 800: m.nx = 19, m.ny = 19, m.nz = 1; break;
        case 1600: m.nx = 19, m.ny = 19, m.nz = 3; break;
        default: m.nx = 39, m.ny = 39, m.nz = 3; break;
    }
    const double d = 5e-7;
    m.MS.allocate({Range{1, 1}}, 800.0);
    m.A.allocate({Range{1, 1}}, 1.3e-6);
    m.MASQUE = make_int_grid(m.nx, m.ny, m.nz, 1);
    m.AIJ = make_tensor(m.nx, m.ny, m.nz, 1);
    tensorbuild(m.A, m.MS, m.AIJ, m.nx, m.ny, m.nz, d, d, d, 1);
    m.M = make_vec_grid(m.nx, m.ny, m.nz);
    m.H = make_vec_grid(m.nx, m.ny, m.nz);
    for (int z = 0; z <= m.nz; ++z)
        for (int y = 0; y <= m.ny; ++y)
            for (int x = 0; x <= m.nx; ++x) {
                const double t = 0.3 * std::sin(0.4 * x + 0.3 * y), p = 0.2 * z + 0.1 * x;
                const double u[3] = {std::sin(t) * std::cos(p), std::sin(t) * std::sin(p), std::cos(t)};
                for (int c = 1; c <= 3; ++c) {
                    m.M(x, y, z, c) = 800.0 * u[c - 1];
                    m.H(x, y, z, c) = 5000.0 * u[c - 1];
                }
            }
    m.NUM = make_int_grid(m.nx, m.ny, m.nz);
    number(m.MASQUE, m.NUM, m.nx, m.ny, m.nz, m.N, 1, 1, 1);
    std::ostringstream sink;
    deg(m.MASQUE, m.NUM, m.nx, m.ny, m.nz, m.N, m.DEGR, sink);
    return m;
}

double peak_rss_mib() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_maxrss) / 1024.0;
}

void BM_Assembly(benchmark::State& state) {
    const BenchModel& m = model(static_cast<int>(state.range(0)));
    const std::size_t n = 2 * static_cast<std::size_t>(m.N);
    std::vector<double> A(n * n);
    for (auto _ : state) {
        assemble_dense(m.input(), A.data());
        benchmark::DoNotOptimize(A.data());
    }
    state.counters["N"] = m.N;
}
BENCHMARK(BM_Assembly)->Arg(200)->Arg(800)->Arg(1600)->Unit(benchmark::kMillisecond)->UseRealTime();

// The whole dense path of SOLVE_MATRIX: assembly, dgeevx, both orderings.
void BM_SolveMatrix(benchmark::State& state) {
    const BenchModel& m = model(static_cast<int>(state.range(0)));
    const double n = 2.0 * m.N;
    for (auto _ : state) {
        int nmodes = 0;
        Array<double, 2> W;
        Array<double, 1> PH, Z;
        Array<cplx, 3> R, L;
        std::ostringstream cap;
        auto* old = std::cout.rdbuf(cap.rdbuf());
        calcmatrix(m.input(), 20, ModeOutput{nmodes, W, PH, Z, R, L});
        std::cout.rdbuf(old);
        benchmark::DoNotOptimize(W.data());
    }
    state.counters["N"] = m.N;
    state.counters["peak_rss_MiB"] = peak_rss_mib();
    // A, VL, VR (order 2N each) and the work array of 25 * 2N doubles.
    state.counters["arrays_MiB"] = (3.0 * n * n + 25.0 * n) * 8.0 / (1024.0 * 1024.0);
}
BENCHMARK(BM_SolveMatrix)->Arg(200)->Arg(800)->Arg(1600)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_DenseProduct(benchmark::State& state) {
    const BenchModel& m = model(static_cast<int>(state.range(0)));
    const int n = 2 * m.N;
    std::vector<double> A(static_cast<std::size_t>(n) * n);
    assemble_dense(m.input(), A.data());
    std::vector<double> x(n, 1.0), y(n);
    for (int k = 0; k < n; ++k) x[k] = std::sin(0.1 * k);
    for (auto _ : state) {
        dense_apply(A.data(), n, x.data(), y.data());
        benchmark::DoNotOptimize(y.data());
    }
    state.counters["N"] = m.N;
}
BENCHMARK(BM_DenseProduct)->Arg(1600)->Arg(6400)->Unit(benchmark::kMillisecond)->UseRealTime();

// Element list with elements of |value| <= range(1) Oe dropped.
void BM_SparseProduct(benchmark::State& state) {
    const BenchModel& m = model(static_cast<int>(state.range(0)));
    const int n = 2 * m.N;
    SparseMatrix S;
    assemble_sparse(m.input(), static_cast<double>(state.range(1)), S);
    std::vector<double> x(n), y(n);
    for (int k = 0; k < n; ++k) x[k] = std::sin(0.1 * k);
    for (auto _ : state) {
        sparse_product(S, x.data(), y.data());
        benchmark::DoNotOptimize(y.data());
    }
    state.counters["N"] = m.N;
    state.counters["elements"] = static_cast<double>(S.count());
}
BENCHMARK(BM_SparseProduct)
    ->Args({1600, 0})
    ->Args({1600, 1})
    ->Args({6400, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
