// One field evaluation by convolution on box-shaped bodies filling the grid
// (cubic 5 nm cells, Permalloy-like material), against:
//  - the bare FFTW transforms one evaluation needs (three real-to-complex
//    transforms of M and three complex-to-real transforms of H on the full
//    padded grid, plans made once);
//  - the plain route: nine complex spectra of the tensor, full complex
//    transforms of the padded M, a plan made and destroyed around every
//    transform;
//  - the direct sum, on the grids where it is feasible (crossover).
// Grid arguments are nx+1, ny+1, nz+1.  Counters: bytes per cell of the
// Fourier form and of the evaluation's work buffers.
#include <benchmark/benchmark.h>
#include <fftw3.h>
#include <omp.h>

#include <chrono>
#include <memory>
#include <random>
#include <tuple>

#include "dynamics/direct_field.hpp"
#include "dynamics/fft_field.hpp"
#include "tensor/tensor_build.hpp"

namespace {

using namespace torix;

struct Body {
    int nx, ny, nz;
    Array<double, 1> MS{{Range{1, 1}}, 800.0}, A{{Range{1, 1}}, 1.3e-6};
    IntGrid mask;
    TensorArray AIJ;
    FourierTensor F;
    VecGrid M, H;
    double build_s = 0.0;  // aijfft time
};

// The last body is kept for the next benchmark of the same grid (the
// tensor of the largest grid takes a while to build).
Body& body(int lx, int ly, int lz) {
    static std::unique_ptr<Body> slot;
    static std::tuple<int, int, int> key{0, 0, 0};
    if (slot && key == std::tuple{lx, ly, lz}) return *slot;
    slot.reset();
    key = {lx, ly, lz};
    slot = std::make_unique<Body>();
    Body& b = *slot;
    b.nx = lx - 1, b.ny = ly - 1, b.nz = lz - 1;
    b.mask = make_int_grid(b.nx, b.ny, b.nz, 1);
    b.AIJ = make_tensor(b.nx, b.ny, b.nz, 1);
    tensorbuild(b.A, b.MS, b.AIJ, b.nx, b.ny, b.nz, 5e-7, 5e-7, 5e-7, 1);
    std::mt19937_64 g(1);
    std::normal_distribution<double> n(0.0, 1.0);
    b.M = make_vec_grid(b.nx, b.ny, b.nz);
    for (double& v : b.M) v = 800.0 * n(g);
    b.H = make_vec_grid(b.nx, b.ny, b.nz);
    const auto t0 = std::chrono::steady_clock::now();
    if (b.nz == 0)
        aijfft2d(b.AIJ, b.F, b.nx, b.ny, 1);
    else
        aijfft(b.AIJ, b.F, b.nx, b.ny, b.nz, 1);
    b.build_s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    return b;
}

double cells(const Body& b) { return static_cast<double>(b.nx + 1) * (b.ny + 1) * (b.nz + 1); }

void BM_fft_field(benchmark::State& state) {
    Body& b = body(state.range(0), state.range(1), state.range(2));
    for (auto _ : state) {
        calcfieldsfft(b.M, b.MS, {0.0, 0.0, 0.0}, 0.0, b.mask, b.F, b.H, b.nx, b.ny, b.nz, 1);
        benchmark::DoNotOptimize(b.H.data());
    }
    state.counters["spectrum_B_per_cell"] = static_cast<double>(b.F.spectrum_bytes()) / cells(b);
    state.counters["work_B_per_cell"] = static_cast<double>(b.F.work_bytes()) / cells(b);
    state.counters["aijfft_s"] = b.build_s;
}

// The two halves of calcfieldsfft: forward transforms of M; product and
// backward transforms (run on whatever the work buffer holds).
void BM_fft_forward(benchmark::State& state) {
    Body& b = body(state.range(0), state.range(1), state.range(2));
    for (auto _ : state) mfft(b.M, b.mask, b.F);
}
void BM_fft_product_backward(benchmark::State& state) {
    Body& b = body(state.range(0), state.range(1), state.range(2));
    mfft(b.M, b.mask, b.F);
    for (auto _ : state) hfft(b.mask, b.F, b.H);
}

// Forward of M and backward of H, full padded grid, three components each.
void BM_bare_transforms(benchmark::State& state) {
    const int lx = state.range(0), ly = state.range(1), lz = state.range(2);
    const bool two_d = lz == 1;
    const int L1 = 2 * lx, L2 = 2 * ly, L3 = two_d ? 1 : 2 * lz;
    const int Lh = L1 / 2 + 1;
    const std::size_t npad = static_cast<std::size_t>(L1) * L2 * L3, nf = static_cast<std::size_t>(Lh) * L2 * L3;
    double* r = fftw_alloc_real(3 * npad);
    fftw_complex* c = fftw_alloc_complex(3 * nf);
    fftw_init_threads();
    fftw_plan_with_nthreads(omp_get_max_threads());
    const int n3[3] = {L3, L2, L1};
    const int* n = two_d ? n3 + 1 : n3;
    const int rank = two_d ? 2 : 3;
    const unsigned flags = 3 * nf <= (std::size_t{1} << 22) ? FFTW_MEASURE : FFTW_ESTIMATE;
    fftw_plan fwd = fftw_plan_many_dft_r2c(rank, n, 3, r, nullptr, 1, static_cast<int>(npad), c, nullptr, 1,
                                           static_cast<int>(nf), flags);
    fftw_plan bwd = fftw_plan_many_dft_c2r(rank, n, 3, c, nullptr, 1, static_cast<int>(nf), r, nullptr, 1,
                                           static_cast<int>(npad), flags);
    std::fill(r, r + 3 * npad, 0.5);
    for (auto _ : state) {
        fftw_execute(fwd);
        fftw_execute(bwd);
        benchmark::DoNotOptimize(r);
    }
    fftw_destroy_plan(fwd);
    fftw_destroy_plan(bwd);
    fftw_free(r);
    fftw_free(c);
}

// Nine complex spectra, complex transforms, a plan around every transform.
void BM_plain_route(benchmark::State& state) {
    Body& b = body(state.range(0), state.range(1), state.range(2));
    const bool two_d = b.nz == 0;
    const int L1 = 2 * (b.nx + 1), L2 = 2 * (b.ny + 1), L3 = two_d ? 1 : 2 * (b.nz + 1);
    const std::size_t np = static_cast<std::size_t>(L1) * L2 * L3;
    fftw_init_threads();
    fftw_plan_with_nthreads(omp_get_max_threads());
    auto transform = [&](fftw_complex* a, int sign) {
        fftw_plan p = two_d ? fftw_plan_dft_2d(L2, L1, a, a, sign, FFTW_ESTIMATE)
                            : fftw_plan_dft_3d(L3, L2, L1, a, a, sign, FFTW_ESTIMATE);
        fftw_execute(p);
        fftw_destroy_plan(p);
    };
    std::vector<fftw_complex*> spectra(9), mb(3);
    for (int c = 0; c < 9; ++c) {
        spectra[c] = fftw_alloc_complex(np);
        std::fill(reinterpret_cast<double*>(spectra[c]), reinterpret_cast<double*>(spectra[c] + np), 0.0);
        for (int k = -b.nz; k <= (two_d ? 0 : b.nz + 1); ++k)
            for (int j = -b.ny; j <= b.ny + 1; ++j)
                for (int i = -b.nx; i <= b.nx + 1; ++i) {
                    const std::size_t p = (i < 0 ? i + L1 : i) +
                                          static_cast<std::size_t>(L1) * ((j < 0 ? j + L2 : j) +
                                                                          static_cast<std::size_t>(L2) * (k < 0 ? k + L3 : k));
                    spectra[c][p][0] = b.AIJ(i, j, k, c + 1, 1);
                }
        transform(spectra[c], FFTW_FORWARD);
    }
    for (auto& m : mb) m = fftw_alloc_complex(np);
    std::vector<fftw_complex*> hb(3);
    for (auto& h : hb) h = fftw_alloc_complex(np);
    const double scale = 1.0 / static_cast<double>(np);
    for (auto _ : state) {
        for (int c = 0; c < 3; ++c) {
            std::fill(reinterpret_cast<double*>(mb[c]), reinterpret_cast<double*>(mb[c] + np), 0.0);
            for (int k = 0; k <= b.nz; ++k)
                for (int j = 0; j <= b.ny; ++j)
                    for (int i = 0; i <= b.nx; ++i)
                        mb[c][i + static_cast<std::size_t>(L1) * (j + static_cast<std::size_t>(L2) * k)][0] =
                            b.mask(i, j, k) ? b.M(i, j, k, c + 1) : 0.0;
            transform(mb[c], FFTW_FORWARD);
        }
        const std::ptrdiff_t n = static_cast<std::ptrdiff_t>(np);
#pragma omp parallel for schedule(static)
        for (std::ptrdiff_t f = 0; f < n; ++f)
            for (int a = 0; a < 3; ++a) {
                double re = 0.0, im = 0.0;
                for (int c = 0; c < 3; ++c) {
                    const double ar = spectra[a + 3 * c][f][0], ai = spectra[a + 3 * c][f][1];
                    const double br = mb[c][f][0], bi = mb[c][f][1];
                    re += ar * br - ai * bi;
                    im += ai * br + ar * bi;
                }
                hb[a][f][0] = re;
                hb[a][f][1] = im;
            }
        for (int a = 0; a < 3; ++a) {
            transform(hb[a], FFTW_BACKWARD);
            for (int k = 0; k <= b.nz; ++k)
                for (int j = 0; j <= b.ny; ++j)
                    for (int i = 0; i <= b.nx; ++i)
                        if (b.mask(i, j, k))
                            b.H(i, j, k, a + 1) +=
                                scale * hb[a][i + static_cast<std::size_t>(L1) * (j + static_cast<std::size_t>(L2) * k)][0];
        }
        benchmark::DoNotOptimize(b.H.data());
    }
    for (auto* p : spectra) fftw_free(p);
    for (auto* p : mb) fftw_free(p);
    for (auto* p : hb) fftw_free(p);
}

void BM_direct_field(benchmark::State& state) {
    Body& b = body(state.range(0), state.range(1), state.range(2));
    for (auto _ : state) {
        calcfields(b.M, b.MS, {0.0, 0.0, 0.0}, 0.0, b.mask, b.AIJ, b.H, b.nx, b.ny, b.nz, 1);
        benchmark::DoNotOptimize(b.H.data());
    }
}

void big_grids(benchmark::internal::Benchmark* b) {
    b->Args({64, 64, 1})->Args({128, 128, 1})->Args({256, 256, 1})->Args({256, 256, 4})->Args({128, 128, 8})->Args(
        {64, 64, 64});
}
void small_grids(benchmark::internal::Benchmark* b) {
    for (int n : {8, 12, 16, 20, 24, 32, 64}) b->Args({n, n, 1});
}

BENCHMARK(BM_fft_field)->Apply(big_grids)->Apply(small_grids)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_fft_forward)->Apply(big_grids)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_fft_product_backward)->Apply(big_grids)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_bare_transforms)->Apply(big_grids)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_plain_route)->Apply(big_grids)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_direct_field)->Apply(small_grids)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
