#include "output/response.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "core/error.hpp"
#include "core/listio.hpp"
#include "core/records.hpp"
#include "geometry/local_to_cart.hpp"

namespace torix {

void loadhrft(int nx, int ny, int nz, const std::string& name, CVecGrid& hrf) {
    hrf = make_cvec_grid(nx, ny, nz);
    ListReader in(name);
    in.begin("driving field");
    const int K = in.i32("the entry count");
    if (K < 0) in.fail("the entry count " + std::to_string(K) + " is negative");
    for (int e = 1; e <= K; ++e) {
        in.begin("driving field entry " + std::to_string(e));
        const int x = in.i32("x");
        const int y = in.i32("y");
        const int z = in.i32("z");
        double v[6];
        static const char* what[6] = {"Re hx", "Im hx", "Re hy", "Im hy", "Re hz", "Im hz"};
        for (int c = 0; c < 6; ++c) v[c] = in.f64(what[c]);
        if (x < 0 || x > nx || y < 0 || y > ny || z < 0 || z > nz)
            in.fail("cell (" + std::to_string(x) + ", " + std::to_string(y) + ", " + std::to_string(z) +
                    ") lies outside the grid 0.." + std::to_string(nx) + ", 0.." + std::to_string(ny) + ", 0.." +
                    std::to_string(nz));
        for (int c = 1; c <= 3; ++c) hrf(x, y, z, c) = cplx{v[2 * c - 2], v[2 * c - 1]};
    }
}

void savehrft(int nx, int ny, int nz, const std::string& name, const CVecGrid& hrf) {
    std::string body;
    int K = 0;
    char buf[256];
    for (int i = 0; i <= nx; ++i)
        for (int j = 0; j <= ny; ++j)
            for (int k = 0; k <= nz; ++k) {
                const cplx hx = hrf(i, j, k, 1), hy = hrf(i, j, k, 2), hz = hrf(i, j, k, 3);
                if (hx == cplx{} && hy == cplx{} && hz == cplx{}) continue;
                std::snprintf(buf, sizeof buf, "%6d%6d%6d%20.5E%20.5E%20.5E%20.5E%20.5E%20.5E\n", i, j, k, hx.real(),
                              hx.imag(), hy.real(), hy.imag(), hz.real(), hz.imag());
                body += buf;
                ++K;
            }
    AtomicFile f(name, false);
    std::snprintf(buf, sizeof buf, "%9d\n", K);
    f.stream() << buf << body;
    f.commit();
}

void calc_c(int nmodes, int nx, int ny, int nz, int N, const Array<cplx, 3>& MODES, const Array<cplx, 3>& MODESL,
            const VecGrid& M, const IntGrid& MASQUE, const IntGrid& NUM, const CVecGrid& hrf, Array<cplx, 1>& C) {
    C.allocate({Range{1, nmodes}}, cplx{0.0, 0.0});
    Array<cplx, 2> R, L;
    for (int p = 1; p <= nmodes; ++p) {
        local_to_cart(nx, ny, nz, N, MASQUE, NUM, M, MODES, p, R);
        local_to_cart(nx, ny, nz, N, MASQUE, NUM, M, MODESL, p, L);
        // Biorthonormalisation: afterwards sum R.conj(L) = 1.
        cplx s{0.0, 0.0};
        for (int k = 1; k <= 3; ++k)
            for (int n = 1; n <= N; ++n) s += R(n, k) * std::conj(L(n, k));
        const double as = std::abs(s);
        const double rs = std::sqrt(as);
        const cplx lscale = s / (as * rs);
        for (int k = 1; k <= 3; ++k)
            for (int n = 1; n <= N; ++n) {
                R(n, k) /= rs;
                L(n, k) *= lscale;
            }
        cplx S1{0.0, 0.0}, S2{0.0, 0.0};
        for (int x = 0; x <= nx; ++x)
            for (int y = 0; y <= ny; ++y)
                for (int z = 0; z <= nz; ++z) {
                    if (MASQUE(x, y, z) == 0) continue;
                    const int n = NUM(x, y, z);
                    if (n < 1 || n > N) continue;
                    const double m1 = M(x, y, z, 1), m2 = M(x, y, z, 2), m3 = M(x, y, z, 3);
                    const cplx h1 = hrf(x, y, z, 1), h2 = hrf(x, y, z, 2), h3 = hrf(x, y, z, 3);
                    const cplx q1 = m2 * h3 - m3 * h2;
                    const cplx q2 = m3 * h1 - m1 * h3;
                    const cplx q3 = m1 * h2 - m2 * h1;
                    S1 -= q1 * std::conj(L(n, 1)) + q2 * std::conj(L(n, 2)) + q3 * std::conj(L(n, 3));
                    S2 += std::conj(h1) * R(n, 1) + std::conj(h2) * R(n, 2) + std::conj(h3) * R(n, 3);
                }
        C(p) = S1 * S2;
    }
}

double absorption(double w, const Array<cplx, 1>& C, const Array<double, 2>& W, int nmodes, double gmin) {
    cplx sum{0.0, 0.0};
    for (int p = 1; p <= nmodes; ++p) {
        const double G = std::max(W(p, 2), gmin);
        sum += C(p) / cplx{G, w - W(p, 1)};
    }
    return 0.5 * w * sum.imag();
}

std::vector<AbsorptionSample> absorption_table(const Array<cplx, 1>& C, const Array<double, 2>& W, int nmodes,
                                               double dw) {
    if (!(dw > 0.0)) throw FatalError("PRINT_ABS: the frequency step must be positive");
    double fmax = 0.0;
    for (int p = 1; p <= nmodes; ++p) fmax = std::max(fmax, W(p, 1));
    const auto last = static_cast<long long>(std::ceil(2.0 * fmax / dw));
    std::vector<AbsorptionSample> out;
    out.reserve(static_cast<std::size_t>(last + 1));
    for (long long j = 0; j <= last; ++j) {
        AbsorptionSample s;
        s.w = static_cast<double>(j) * dw;
        s.power = absorption(s.w, C, W, nmodes, dw);
        double best = 0.0;
        for (int p = 1; p <= nmodes; ++p) {
            const double d = std::abs(W(p, 1) - s.w);
            if (s.nearest == 0 || d < best) {
                s.nearest = p;
                best = d;
            }
        }
        out.push_back(s);
    }
    return out;
}

}  // namespace torix
