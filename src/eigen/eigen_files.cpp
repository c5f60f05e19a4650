#include "eigen/eigen_files.hpp"

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "core/console.hpp"
#include "core/error.hpp"
#include "core/records.hpp"

namespace torix {

namespace {

void record(RecordWriter& w, std::int32_t key, double a, double b, double c, double d) {
    w.i32(key);
    w.f64(a);
    w.f64(b);
    w.f64(c);
    w.f64(d);
    w.end_record();
}

}  // namespace

void savemodes(int nmodes, int N, const IntGrid& NUM, const IntGrid& MASQUE, int nx, int ny, int nz,
               const std::string& fname, const Array<double, 2>& W, const Array<cplx, 3>& modes) {
    RecordWriter w(fname, kEigenRecord);
    record(w, N, static_cast<double>(nmodes), 0.0, 0.0, 0.0);
    for (int x = 0; x <= nx; ++x)
        for (int y = 0; y <= ny; ++y)
            for (int z = 0; z <= nz; ++z)
                if (MASQUE(x, y, z) > 0) record(w, x, y, z, NUM(x, y, z), 0.0);
    record(w, -1, -1.0, 0.0, -1.0, 0.0);
    for (int p = 1; p <= nmodes; ++p) {
        record(w, p, W(p, 1), W(p, 2), W(p, 1), W(p, 2));
        for (int n = 1; n <= N; ++n) {
            const cplx a = modes(n, 1, p), b = modes(n, 2, p);
            record(w, n, a.real(), a.imag(), b.real(), b.imag());
        }
    }
    w.commit();
}

void savemodest(int nmodes, const IntGrid& NUM, const IntGrid& MASQUE, int nx, int ny, int nz,
                const std::string& fname, const Array<double, 2>& W, const Array<cplx, 3>& modes) {
    AtomicFile f(fname, false);
    auto& out = f.stream();
    char buf[128];
    for (int p = 1; p <= nmodes; ++p) {
        out << " (" << format_real(W(p, 1)) << ',' << format_real(W(p, 2)) << ")\n";
        for (int x = 0; x <= nx; ++x)
            for (int y = 0; y <= ny; ++y)
                for (int z = 0; z <= nz; ++z) {
                    if (MASQUE(x, y, z) == 0) continue;
                    const int n = NUM(x, y, z);
                    const cplx a = modes(n, 1, p), b = modes(n, 2, p);
                    std::snprintf(buf, sizeof buf, "%6d%6d%6d%15.6E%15.6E%15.6E%15.6E\n", x, y, z, a.real(), a.imag(),
                                  b.real(), b.imag());
                    out << buf;
                }
    }
    f.commit();
}

void loadmodes(const std::string& fname, int& N, int& nmodes, Array<double, 2>& W, Array<cplx, 3>& modes) {
    RecordReader r(fname, kEigenRecord);
    r.require(1, "the header record");
    r.seek(1);
    N = r.i32();
    const double fm = r.f64();
    if (N < 0) r.fail("record 1: negative cell count " + std::to_string(N));
    if (!(fm >= 0.0 && fm < 2.0e9 && fm == std::floor(fm)))
        r.fail("record 1: the mode count " + format_real(fm) + " is not a whole number of at least 0");
    nmodes = static_cast<int>(fm);
    std::int64_t sep = 0;
    for (std::int64_t rec = 2; rec <= r.records(); ++rec) {
        r.seek(rec);
        if (r.i32() == -1) {
            sep = rec;
            break;
        }
    }
    if (sep == 0) r.fail("no separator record (key -1) after the cell records");
    const std::int64_t need = sep + static_cast<std::int64_t>(nmodes) * (static_cast<std::int64_t>(N) + 1);
    r.require(need, "the mode records (" + std::to_string(nmodes) + " x " + std::to_string(std::int64_t{N} + 1) +
                        " after the separator at record " + std::to_string(sep) + ")");
    W.allocate({Range{1, nmodes}, Range{1, 2}}, 0.0);
    modes.allocate({Range{1, N}, Range{1, 2}, Range{1, nmodes}}, cplx{0.0, 0.0});
    std::int64_t rec = sep;
    for (int p = 1; p <= nmodes; ++p) {
        r.seek(++rec);
        if (const int key = r.i32(); key != p)
            r.fail("record " + std::to_string(rec) + ": expected the header of mode " + std::to_string(p) +
                   ", found key " + std::to_string(key));
        W(p, 1) = r.f64();
        W(p, 2) = r.f64();
        for (int n = 1; n <= N; ++n) {
            r.seek(++rec);
            if (const int key = r.i32(); key != n)
                r.fail("record " + std::to_string(rec) + ": expected cell number " + std::to_string(n) +
                       " of mode " + std::to_string(p) + ", found key " + std::to_string(key));
            const double ar = r.f64(), ai = r.f64(), br = r.f64(), bi = r.f64();
            modes(n, 1, p) = cplx(ar, ai);
            modes(n, 2, p) = cplx(br, bi);
        }
    }
}

void save_mode_wavevector(const std::string& fname, const std::array<double, 3>& k) {
    if (k[0] == 0.0 && k[1] == 0.0 && k[2] == 0.0) {
        std::error_code ignored;
        std::filesystem::remove(fname, ignored);
        return;
    }
    AtomicFile f(fname, false);
    char buf[96];
    std::snprintf(buf, sizeof buf, "%.17g %.17g %.17g\n", k[0], k[1], k[2]);
    f.stream() << "# wave vector kx ky kz (rad/cm) of the modes in eig.dat and eigl.dat\n" << buf;
    f.commit();
}

std::array<double, 3> load_mode_wavevector(const std::string& fname) {
    std::array<double, 3> k{0.0, 0.0, 0.0};
    std::ifstream in(fname);
    if (!in) return k;
    std::string line;
    int no = 0;
    while (std::getline(in, line)) {
        ++no;
        if (!line.empty() && line[0] == '#') continue;
        std::istringstream ls(line);
        std::string extra;
        if (!(ls >> k[0] >> k[1] >> k[2]) || (ls >> extra) || !std::isfinite(k[0]) || !std::isfinite(k[1]) ||
            !std::isfinite(k[2]))
            throw FatalError(fname + ": line " + std::to_string(no) + ": expected three reals kx ky kz (rad/cm), found \"" +
                             line + "\"");
        return k;
    }
    throw FatalError(fname + ": expected a line of three reals kx ky kz (rad/cm), found none");
}

}  // namespace torix
