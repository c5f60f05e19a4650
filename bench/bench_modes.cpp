// Mode tables and drawings on a 64 x 64 x 4 model with 20 synthetic modes
// (smooth amplitudes and phases over a vortex-like magnetization): the work
// of PRINT_PHASES 1 20 and DRAW_MODES 1 20 (EPS and PNG), and of both, in a
// scratch directory.  Reports cell-mode visits per second.
#include <benchmark/benchmark.h>

#include <cmath>
#include <filesystem>
#include <random>
#include <string>
#include <unistd.h>

#include "output/mode_drawings.hpp"
#include "output/mode_tables.hpp"

namespace {

using namespace torix;

struct Model {
    int nx = 63, ny = 63, nz = 3, N = 0, nmodes = 20;
    IntGrid mask, num;
    VecGrid M;
    Array<double, 2> W;
    Array<cplx, 3> R, L;
    Model() {
        mask = make_int_grid(nx, ny, nz, 1);
        num = make_int_grid(nx, ny, nz);
        M = make_vec_grid(nx, ny, nz);
        for (int i = 0; i <= nx; ++i)
            for (int j = 0; j <= ny; ++j)
                for (int k = 0; k <= nz; ++k) {
                    num(i, j, k) = ++N;
                    const double x = i - 31.5, y = j - 31.5, r = std::hypot(x, y);
                    const double mz = std::exp(-r * r / 8.0);
                    const double s = std::sqrt(1.0 - mz * mz);
                    M(i, j, k, 1) = 800.0 * s * y / r;
                    M(i, j, k, 2) = -800.0 * s * x / r;
                    M(i, j, k, 3) = 800.0 * mz;
                }
        W.allocate({Range{1, nmodes}, Range{1, 2}});
        R.allocate({Range{1, N}, Range{1, 2}, Range{1, nmodes}});
        L.allocate({Range{1, N}, Range{1, 2}, Range{1, nmodes}});
        for (int p = 1; p <= nmodes; ++p) {
            W(p, 1) = 100.0 * p;
            W(p, 2) = 1.0;
            for (int i = 0; i <= nx; ++i)
                for (int j = 0; j <= ny; ++j)
                    for (int k = 0; k <= nz; ++k) {
                        const double x = i - 31.5, y = j - 31.5, r = std::hypot(x, y);
                        const cplx e = std::polar(std::sin(0.05 * p * r) + 0.1, (p % 5 - 2) * std::atan2(y, x));
                        R(num(i, j, k), 1, p) = e;
                        R(num(i, j, k), 2, p) = 0.3 * e * cplx{0.0, 1.0};
                        L(num(i, j, k), 1, p) = std::conj(e);
                        L(num(i, j, k), 2, p) = 0.3 * std::conj(e);
                    }
        }
    }
    [[nodiscard]] ModeInput input() const {
        return ModeInput{nx, ny, nz, N, nmodes, 5e-7, 5e-7, 5e-7, 1.76e7, mask, num, M, W, R, L};
    }
};

// Runs the benchmark body inside a scratch directory.
struct Scratch {
    std::filesystem::path old = std::filesystem::current_path();
    std::filesystem::path dir =
        std::filesystem::temp_directory_path() / ("torix-bench-modes-" + std::to_string(getpid()));
    Scratch() {
        std::filesystem::create_directories(dir);
        std::filesystem::current_path(dir);
    }
    ~Scratch() {
        std::filesystem::current_path(old);
        std::filesystem::remove_all(dir);
    }
};

void run(benchmark::State& state, bool print, bool drawing) {
    const Model m;
    const ModeInput in = m.input();
    Scratch s;
    for (auto _ : state) {
        if (print) print_phases(in, 1, m.nmodes, "phases.dat", "modesmax.dat");
        if (drawing)
            for (int p = 1; p <= m.nmodes; ++p) {
                const ModePicture pic = drawmode(in, p);
                write_mode_eps(pic, 1.0, drawing_name(p) + ".eps");
                write_mode_png(pic, drawing_name(p) + ".png");
            }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(m.N) * m.nmodes);
}

void BM_print_phases(benchmark::State& state) { run(state, true, false); }
void BM_draw_modes(benchmark::State& state) { run(state, false, true); }
void BM_draw_and_print(benchmark::State& state) { run(state, true, true); }
BENCHMARK(BM_print_phases)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_draw_modes)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_draw_and_print)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
