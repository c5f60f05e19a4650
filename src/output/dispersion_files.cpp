#include "output/dispersion_files.hpp"

#include <cmath>
#include <cstdio>

#include "core/records.hpp"
#include "output/svg_plot.hpp"

namespace torix {

namespace {

constexpr double kPerCmToPerUm = 1e-4;

void put(std::string& line, double v) {
    char buf[32];
    if (std::isfinite(v)) std::snprintf(buf, sizeof buf, " %23.15E", v + 0.0);
    else std::snprintf(buf, sizeof buf, " %23s", "nan");
    line += buf;
}

std::string real(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.9g", v + 0.0);
    return buf;
}

}  // namespace

void write_dispersion_table(const std::string& name, const Dispersion& d, double hz_per_oe,
                            const std::string& gyro_note) {
    AtomicFile file(name, false);
    auto& out = file.stream();
    const std::size_t nk = d.k.size();
    const WaveVector& a = d.k.front();
    const WaveVector& b = d.k.back();
    out << "# " << nk << " wave vectors from (" << real(a[0]) << ", " << real(a[1]) << ", " << real(a[2]) << ") to ("
        << real(b[0]) << ", " << real(b[1]) << ", " << real(b[2]) << ") rad/cm; " << d.branches
        << " branches followed by mode overlap; GHz with gamma/2pi = " << real(hz_per_oe * 1e-6) << " MHz/Oe ("
        << gyro_note << ")\n";
    out << "# kx(rad/cm) ky(rad/cm) kz(rad/cm) s(rad/cm)";
    for (int br = 1; br <= d.branches; ++br) {
        const std::string n = std::to_string(br);
        out << " f" << n << "(Oe) g" << n << "(Oe) f" << n << "(GHz)";
    }
    out << '\n';
    for (std::size_t q = 0; q < nk; ++q) {
        std::string line;
        for (int c = 0; c < 3; ++c) put(line, d.k[q][c]);
        put(line, d.s[q]);
        for (int br = 0; br < d.branches; ++br) {
            const double f = d.f[q * d.branches + br];
            put(line, f);
            put(line, d.g[q * d.branches + br]);
            put(line, f * hz_per_oe * 1e-9);
        }
        out << line << '\n';
    }
    file.commit();
}

std::vector<double> path_coordinate(const Dispersion& d) {
    std::vector<double> x;
    if (d.k.empty()) return x;
    const WaveVector& a = d.k.front();
    const WaveVector& b = d.k.back();
    const double len = std::hypot(b[0] - a[0], b[1] - a[1], b[2] - a[2]);
    for (const WaveVector& k : d.k) {
        const double v = len > 0.0 ? (k[0] * (b[0] - a[0]) + k[1] * (b[1] - a[1]) + k[2] * (b[2] - a[2])) / len
                                   : std::hypot(k[0], k[1], k[2]);
        x.push_back(v * kPerCmToPerUm);
    }
    return x;
}

void plot_dispersion_svg(const std::string& name, const Dispersion& d, double hz_per_oe) {
    const std::size_t nk = d.k.size();
    std::vector<std::vector<double>> y(static_cast<std::size_t>(d.branches), std::vector<double>(nk));
    for (int br = 0; br < d.branches; ++br)
        for (std::size_t q = 0; q < nk; ++q) y[br][q] = d.f[q * d.branches + br] * hz_per_oe * 1e-9;
    plot_branches_svg(name, path_coordinate(d), y, "wave vector k (rad/\xc2\xb5m)", "frequency (GHz)",
                      "Spin-wave dispersion");
}

}  // namespace torix
