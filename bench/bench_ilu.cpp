// The triangular solves of the inner solves' preconditioner: PETSc's
// incomplete LU against BlockILU in one part and in 16 parts (on 1 and 2
// threads), ILU(6) of a film's stencil (9 neighbours, 2 x 2 blocks) of
// n x n cells.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <random>

#include "eigen/block_ilu.hpp"
#include "eigen/slepc_parts.hpp"
#include "eigen/slepc_solve.hpp"

using namespace torix;

namespace {

ComplexSparse film(int n) {
    std::mt19937 gen(1);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    ComplexSparse S;
    S.n = 2 * n * n;
    S.row_start.push_back(0);
    for (int b = 0; b < n * n; ++b)
        for (int i = 0; i < 2; ++i) {
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) {
                    const int x = b % n + dx, y = b / n + dy;
                    if (x < 0 || x >= n || y < 0 || y >= n) continue;
                    for (int j = 0; j < 2; ++j) {
                        S.col.push_back(2 * (x + n * y) + j);
                        S.val.emplace_back(0.3 * u(gen) + (dx == 0 && dy == 0 && i != j ? 5.0 : 0.0), 0.3 * u(gen));
                    }
                }
            S.row_start.push_back(static_cast<std::int64_t>(S.col.size()));
        }
    return S;
}

const cplx kSigma(0.1, 2.0);

void BM_PetscIluSolve(benchmark::State& state) {
    start_petsc();
    const ComplexSparse S = film(static_cast<int>(state.range(0)));
    slepc::OwnedMat P, F;
    slepc::local_matrix(S, kSigma, P, PETSC_COMM_SELF);
    slepc::ilu_factor(P.h, 6, F);
    slepc::OwnedVec x, y;
    slepc::check(MatCreateVecs(P.h, &x.h, &y.h), "MatCreateVecs");
    slepc::check(VecSet(x.h, 1.0), "VecSet");
    for (auto _ : state) slepc::check(MatSolve(F.h, x.h, y.h), "MatSolve");
}
BENCHMARK(BM_PetscIluSolve)->Arg(200)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime();

// Arguments: n, parts, threads.
void BM_BlockIluSolve(benchmark::State& state) {
    const ComplexSparse S = film(static_cast<int>(state.range(0)));
    const BlockILU ilu(S, kSigma, 6, static_cast<int>(state.range(1)));
    std::vector<cplx> x(static_cast<std::size_t>(S.n), 1.0), y(x.size());
    const int threads = omp_get_max_threads();
    omp_set_num_threads(static_cast<int>(state.range(2)));
    for (auto _ : state) ilu.solve(x.data(), y.data());
    omp_set_num_threads(threads);
}
BENCHMARK(BM_BlockIluSolve)
    ->Args({200, 1, 1})
    ->Args({200, 16, 2})
    ->Args({1000, 1, 1})
    ->Args({1000, 16, 1})
    ->Args({1000, 16, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
