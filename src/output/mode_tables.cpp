#include "output/mode_tables.hpp"

#include <cmath>
#include <cstdio>
#include <numbers>

#include "core/records.hpp"
#include "eigen/dynamic_matrix.hpp"
#include "output/number_text.hpp"

namespace torix {

namespace {

constexpr double kPi = std::numbers::pi;

// "%16.8E" items, each after a blank.
void put_reals(std::string& s, std::initializer_list<double> v) {
    for (double x : v) {
        s += ' ';
        append_sci(s, x, 16, 8);
    }
}

// "%5d %5d %5d"
void put_cell(std::string& s, int i, int j, int k) {
    append_int(s, i, 5);
    s += ' ';
    append_int(s, j, 5);
    s += ' ';
    append_int(s, k, 5);
}

double wrap(double d) {
    while (d > kPi) d -= 2.0 * kPi;
    while (d <= -kPi) d += 2.0 * kPi;
    return d;
}

void block_gap(std::string& s, bool first) {
    if (!first) s += "\n\n";
}

}  // namespace

std::string mode_comment(const ModeInput& in, int p) {
    char buf[160];
    const double f = in.W(p, 1), g = in.W(p, 2);
    int n = std::snprintf(buf, sizeof buf, "# mode %d f= %.10E g= %.10E", p, f + 0.0, g + 0.0);
    if (in.gyro != 1.0)
        std::snprintf(buf + n, sizeof buf - static_cast<std::size_t>(n), " f_Hz= %.10E",
                      f * in.gyro / (2.0 * kPi) + 0.0);
    return buf;
}

void print_phases(const ModeInput& in, int p1, int p2, const std::string& phases_name, const std::string& max_name) {
    // Phases of the local components (polar, azimuthal: their frames turn
    // about a pole of the magnetization) and, last, in the fixed frame of
    // the pictures, in which a mode that precesses alike everywhere has one
    // phase.
    std::string ph =
        "# i j k a/amax phase(v1 local polar) phase(v2 local azimuthal) Re(ux) Im(ux) Re(uy) Im(uy) Re(uz) Im(uz) "
        "phase(fixed frame)\n";
    const FixedFrame frame = fixed_frame(in.M, in.MASQUE, in.nx, in.ny, in.nz);
    std::string mx = "# p f g i j k amax participation";
    mx += in.gyro != 1.0 ? " f_Hz\n" : "\n";
    CVecGrid u;
    char buf[64];
    for (int p = p1; p <= p2; ++p) {
        const PhaseRef r = reference_mode(in, p, false, u);
        const FixedPhase fixed = fixed_phase(u, frame, r, in.MASQUE, in.nx, in.ny, in.nz);
        const auto& axis = fixed.axis(frame);
        block_gap(ph, p == p1);
        ph += mode_comment(in, p) + '\n';
        ph += "# fixed-frame phase: of u." + frame.name(fixed.component) + '\n';
        for (int i = 0; i <= in.nx; ++i)
            for (int j = 0; j <= in.ny; ++j)
                for (int k = 0; k <= in.nz; ++k) {
                    if (in.MASQUE(i, j, k) == 0) continue;
                    const auto v = local_components(u, in.M, i, j, k);
                    put_cell(ph, i, j, k);
                    put_reals(ph, {amplitude(u, i, j, k), phase_of(v[0]), phase_of(v[1])});
                    for (int c = 1; c <= 3; ++c) put_reals(ph, {u(i, j, k, c).real(), u(i, j, k, c).imag()});
                    put_reals(ph, {fixed.phase(along(u, i, j, k, axis))});
                    ph += '\n';
                }
        std::snprintf(buf, sizeof buf, "%5d", p);
        mx += buf;
        put_reals(mx, {in.W(p, 1), in.W(p, 2)});
        mx += ' ';
        put_cell(mx, r.i, r.j, r.k);
        put_reals(mx, {r.amax, participation_ratio(u, in.MASQUE, in.nx, in.ny, in.nz)});
        if (in.gyro != 1.0) put_reals(mx, {in.W(p, 1) * in.gyro / (2.0 * kPi)});
        mx += '\n';
    }
    AtomicFile a(phases_name, false), b(max_name, false);
    a.stream() << ph;
    b.stream() << mx;
    a.commit();
    b.commit();
}

void print_slice(const ModeInput& in, int p1, int p2, int axis, int i, int j, int k, const std::string& name) {
    const int top = axis == 1 ? in.nx : axis == 2 ? in.ny : in.nz;
    const double d = axis == 1 ? in.dx : axis == 2 ? in.dy : in.dz;
    const auto cell = [&](int t) {
        return axis == 1 ? std::array<int, 3>{t, j, k} : axis == 2 ? std::array<int, 3>{i, t, k}
                                                                   : std::array<int, 3>{i, j, t};
    };
    std::vector<int> line;
    for (int t = 0; t <= top; ++t) {
        const auto c = cell(t);
        if (in.MASQUE(c[0], c[1], c[2]) != 0) line.push_back(t);
    }
    const int nm = p2 - p1 + 1;
    // amp and phase per (cell of the line, mode)
    std::vector<double> amp(line.size() * static_cast<std::size_t>(nm)), pha(amp.size());
    CVecGrid u;
    for (int p = p1; p <= p2; ++p) {
        reference_mode(in, p, false, u);
        std::vector<std::array<cplx, 2>> v(line.size());
        DominantComponent dom;
        for (std::size_t s = 0; s < line.size(); ++s) {
            const auto c = cell(line[s]);
            v[s] = local_components(u, in.M, c[0], c[1], c[2]);
            dom.add(v[s]);
        }
        const int dc = dom.take() - 1;
        for (std::size_t s = 0; s < line.size(); ++s) {
            const auto c = cell(line[s]);
            const std::size_t at = s * static_cast<std::size_t>(nm) + static_cast<std::size_t>(p - p1);
            amp[at] = amplitude(u, c[0], c[1], c[2]);
            pha[at] = phase_of(v[s][static_cast<std::size_t>(dc)]);
        }
    }
    static const char* axes = "xyz";
    std::string out = "# line along ";
    out += axes[axis - 1];
    char buf[96];
    if (axis == 1) std::snprintf(buf, sizeof buf, " through j= %d k= %d\n", j, k);
    if (axis == 2) std::snprintf(buf, sizeof buf, " through i= %d k= %d\n", i, k);
    if (axis == 3) std::snprintf(buf, sizeof buf, " through i= %d j= %d\n", i, j);
    out += buf;
    for (int p = p1; p <= p2; ++p) out += mode_comment(in, p) + '\n';
    std::snprintf(buf, sizeof buf, "# position(cm), then a/amax and phase of modes %d to %d\n", p1, p2);
    out += buf;
    for (std::size_t s = 0; s < line.size(); ++s) {
        std::snprintf(buf, sizeof buf, "%16.8E", (line[s] + 0.5) * d);
        out += buf;
        for (int q = 0; q < nm; ++q) {
            const std::size_t at = s * static_cast<std::size_t>(nm) + static_cast<std::size_t>(q);
            put_reals(out, {amp[at], pha[at]});
        }
        out += '\n';
    }
    AtomicFile f(name, false);
    f.stream() << out;
    f.commit();
}

int winding_number(const std::vector<double>& phase) {
    const std::size_t n = phase.size();
    if (n < 2) return 0;
    double total = 0.0;
    for (std::size_t s = 0; s < n; ++s) total += wrap(phase[(s + 1) % n] - phase[s]);
    return static_cast<int>(std::lround(total / (2.0 * kPi)));
}

std::vector<AngleSample> angle_profile(const ModeInput& in, const CVecGrid& u, int k, double x0, double y0, double r,
                                       double dtheta, int& index, int& harmonic) {
    const long long n = static_cast<long long>(std::ceil(360.0 / dtheta - 1e-9));
    std::vector<AngleSample> out(static_cast<std::size_t>(n));
    std::vector<std::array<cplx, 2>> v(out.size());
    DominantComponent dom;
    for (long long s = 0; s < n; ++s) {
        const double th = static_cast<double>(s) * dtheta;
        const double x = x0 + r * std::cos(th * kPi / 180.0), y = y0 + r * std::sin(th * kPi / 180.0);
        // Cell centres lie at (i + 1/2) dx.
        const double fx = x / in.dx - 0.5, fy = y / in.dy - 0.5;
        const int i0 = static_cast<int>(std::floor(fx)), j0 = static_cast<int>(std::floor(fy));
        const double tx = fx - i0, ty = fy - j0;
        cplx uc[3] = {};
        double m[3] = {0.0, 0.0, 0.0};
        for (int di = 0; di <= 1; ++di)
            for (int dj = 0; dj <= 1; ++dj) {
                const int i = i0 + di, j = j0 + dj;
                if (i < 0 || i > in.nx || j < 0 || j > in.ny || in.MASQUE(i, j, k) == 0) continue;
                const double w = (di ? tx : 1.0 - tx) * (dj ? ty : 1.0 - ty);
                const double ml = std::hypot(in.M(i, j, k, 1), in.M(i, j, k, 2), in.M(i, j, k, 3));
                for (int c = 0; c < 3; ++c) {
                    uc[c] += w * u(i, j, k, c + 1);
                    if (ml > 0.0) m[c] += w * in.M(i, j, k, c + 1) / ml;
                }
            }
        double R[9];
        local_frame(m, R);
        std::array<cplx, 2> vs{};
        for (int c = 0; c < 3; ++c) {
            vs[0] += R[c] * uc[c];
            vs[1] += R[3 + c] * uc[c];
        }
        v[static_cast<std::size_t>(s)] = vs;
        dom.add(vs);
        auto& o = out[static_cast<std::size_t>(s)];
        o.theta = th;
        o.amplitude = std::sqrt(abs2(uc[0]) + abs2(uc[1]) + abs2(uc[2]));
    }
    const std::size_t dc = static_cast<std::size_t>(dom.take() - 1);
    std::vector<double> ph(out.size());
    for (std::size_t s = 0; s < out.size(); ++s) ph[s] = out[s].phase = phase_of(v[s][dc]);
    index = winding_number(ph);
    harmonic = 0;
    double best = -1.0;
    const int mmax = static_cast<int>(out.size() / 2);
    for (int a = 0; a <= mmax; ++a)
        for (int m : {a, -a}) {
            cplx c{};
            for (std::size_t s = 0; s < out.size(); ++s)
                c += v[s][dc] * std::polar(1.0, -m * out[s].theta * kPi / 180.0);
            // A relative margin keeps ties (standing waves) on the positive m found first.
            if (std::abs(c) > best * (1.0 + 1e-9)) best = std::abs(c), harmonic = m;
        }
    return out;
}

void print_angle(const ModeInput& in, int p1, int p2, int k, double x0, double y0, double r, double dtheta,
                 const std::string& name) {
    std::string out;
    char buf[96];
    std::snprintf(buf, sizeof buf, "# circle r= %.8E about x0= %.8E y0= %.8E in layer k= %d\n", r, x0, y0, k);
    out += buf;
    out += "# theta(deg) amplitude phase\n";
    CVecGrid u;
    for (int p = p1; p <= p2; ++p) {
        reference_mode(in, p, false, u);
        int index = 0, harmonic = 0;
        const auto prof = angle_profile(in, u, k, x0, y0, r, dtheta, index, harmonic);
        block_gap(out, p == p1);
        out += mode_comment(in, p) + " index= " + std::to_string(index) + " harmonic= " + std::to_string(harmonic) +
               '\n';
        for (const auto& s : prof) {
            put_reals(out, {s.theta, s.amplitude, s.phase});
            out += '\n';
        }
    }
    AtomicFile f(name, false);
    f.stream() << out;
    f.commit();
}

void fm3(const VecGrid& M, const IntGrid& MASQUE, const Array<double, 1>& MS, const CVecGrid& uhat, double a,
         double phi, int nx, int ny, int nz, VecGrid& out) {
    out = M;
    const cplx e = std::polar(1.0, phi);
    for (int k = 0; k <= nz; ++k)
        for (int j = 0; j <= ny; ++j)
            for (int i = 0; i <= nx; ++i) {
                const int mat = MASQUE(i, j, k);
                if (mat == 0) continue;
                const double ms = MS(mat);
                double w[3];
                for (int c = 0; c < 3; ++c) w[c] = M(i, j, k, c + 1) / ms + a * (uhat(i, j, k, c + 1) * e).real();
                const double l = std::hypot(w[0], w[1], w[2]);
                if (!(l > 0.0)) continue;  // a cell without M or motion keeps M
                for (int c = 0; c < 3; ++c) out(i, j, k, c + 1) = ms * w[c] / l;
            }
}

void print_mode_vectors(const ModeInput& in, int p, const std::string& name) {
    CVecGrid ur, ul;
    reference_mode(in, p, false, ur);
    reference_mode(in, p, true, ul);
    std::string out = mode_comment(in, p) + '\n';
    out += "# i j k, right: Re(ux) Im(ux) Re(uy) Im(uy) Re(uz) Im(uz), left: the same\n";
    for (int i = 0; i <= in.nx; ++i)
        for (int j = 0; j <= in.ny; ++j)
            for (int k = 0; k <= in.nz; ++k) {
                if (in.MASQUE(i, j, k) == 0) continue;
                put_cell(out, i, j, k);
                for (const CVecGrid* w : {&ur, &ul})
                    for (int c = 1; c <= 3; ++c) put_reals(out, {(*w)(i, j, k, c).real(), (*w)(i, j, k, c).imag()});
                out += '\n';
            }
    AtomicFile f(name, false);
    f.stream() << out;
    f.commit();
}

}  // namespace torix
