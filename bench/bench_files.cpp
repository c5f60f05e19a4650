// Files for field tools: one mode of a 256 x 256 x 4 grid (262144 magnetic
// cells, each its own number, a tilted magnetization and a synthetic mode)
// written as an OVF 2.0 binary pair (savemodeovf) and as VTK image data
// (savemodevti), the Cartesian mode vector and its phase reference
// included; and M alone as OVF binary 8 and text (saveovf).  Files go to the
// system's temporary directory.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <unistd.h>

#include "output/mode_files.hpp"
#include "output/ovf.hpp"

namespace {

using namespace torix;

struct Model {
    int nx = 255, ny = 255, nz = 3, N = 0;
    IntGrid mask, num;
    VecGrid M;
    Array<cplx, 3> modes;
};

const Model& model() {
    static const Model m = [] {
        Model b;
        b.mask = make_int_grid(b.nx, b.ny, b.nz, 1);
        b.num = make_int_grid(b.nx, b.ny, b.nz);
        b.M = make_vec_grid(b.nx, b.ny, b.nz);
        std::mt19937_64 g(5);
        std::uniform_real_distribution<double> u(-1.0, 1.0);
        for (int k = 0; k <= b.nz; ++k)
            for (int j = 0; j <= b.ny; ++j)
                for (int i = 0; i <= b.nx; ++i) {
                    b.num(i, j, k) = ++b.N;
                    const double t = 0.3 * std::sin(0.05 * i) + 0.2 * std::cos(0.07 * j), p = 0.01 * (i + j);
                    b.M(i, j, k, 1) = 800.0 * std::sin(t) * std::cos(p);
                    b.M(i, j, k, 2) = 800.0 * std::sin(t) * std::sin(p);
                    b.M(i, j, k, 3) = 800.0 * std::cos(t);
                }
        b.modes.allocate({Range{1, b.N}, Range{1, 2}, Range{1, 1}});
        for (cplx& v : b.modes) v = {u(g), u(g)};
        return b;
    }();
    return m;
}

std::string scratch(const char* name) {
    return (std::filesystem::temp_directory_path() / ("torix-bench-" + std::to_string(::getpid()) + "-" + name))
        .string();
}

void BM_mode_ovf_pair(benchmark::State& state) {
    const Model& m = model();
    const std::string re = scratch("re.ovf"), im = scratch("im.ovf");
    for (auto _ : state)
        savemodeovf(re, im, 1, m.nx, m.ny, m.nz, 5e-7, 5e-7, 5e-7, m.N, m.mask, m.num, m.M, m.modes, 1000.0, 10.0);
    state.counters["MB"] = 2.0 * static_cast<double>(std::filesystem::file_size(re)) / 1e6;
    std::remove(re.c_str());
    std::remove(im.c_str());
}
BENCHMARK(BM_mode_ovf_pair)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_mode_vti(benchmark::State& state) {
    const Model& m = model();
    const std::string name = scratch("mode.vti");
    for (auto _ : state)
        savemodevti(name, 1, m.nx, m.ny, m.nz, 5e-7, 5e-7, 5e-7, m.N, m.mask, m.num, m.M, m.modes, 1000.0, 10.0,
                    1000.0);
    state.counters["MB"] = static_cast<double>(std::filesystem::file_size(name)) / 1e6;
    std::remove(name.c_str());
}
BENCHMARK(BM_mode_vti)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ovf_m(benchmark::State& state) {
    const Model& m = model();
    const bool binary = state.range(0) == 1;
    const std::string name = scratch("m.ovf");
    const OvfLabels lab{"M", "", {"M_x", "M_y", "M_z"}, {"A/m", "A/m", "A/m"}};
    for (auto _ : state) saveovf(name, m.M, m.mask, m.nx, m.ny, m.nz, 5e-7, 5e-7, 5e-7, 1000.0, lab, binary);
    state.counters["MB"] = static_cast<double>(std::filesystem::file_size(name)) / 1e6;
    std::remove(name.c_str());
}
BENCHMARK(BM_ovf_m)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
