#include "output/sweep_files.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "core/records.hpp"
#include "output/response.hpp"

namespace torix {

namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

// Samples per linewidth, the least per step interval, the most in all.
constexpr double kPerWidth = 20.0;
constexpr long long kPerInterval = 20;
constexpr long long kMaxSamples = 2000000;

std::string vec_text(const std::array<double, 3>& v) {
    char buf[128];
    std::snprintf(buf, sizeof buf, "(%.9g, %.9g, %.9g)", v[0], v[1], v[2]);
    return buf;
}

std::string header(const SweepRecord& rec) {
    std::string h = "# SWEEP_FIELD: uniform applied field from " + vec_text(rec.H1) + " to " + vec_text(rec.H2) +
                     " Oe in " + std::to_string(rec.nsteps) + " steps\n";
    h += "# sweep coordinate s = H . e (Oe), e = " + vec_text(rec.e) + "\n";
    h += "# f, g: angular frequency and decay rate of a mode in field units (Oe); GHz: " + rec.gyro_note + "\n";
    return h;
}

// The mode of `step` on branch b, or nullptr.
const SweepMode* on_branch(const SweepStep& step, int b) {
    for (const SweepMode& m : step.modes)
        if (m.branch == b) return &m;
    return nullptr;
}

// Absorption of the branches interpolated at t in [0, 1] of one interval.
double power_at(const SweepStep& a, const SweepStep& b, double t, double w0, double gmin, Array<cplx, 1>& C,
                Array<double, 2>& W) {
    const int n = interpolate_branches(a, b, t, gmin, C, W);
    return absorption(w0, C, W, n, 0.0);
}

}  // namespace

std::array<double, 3> sweep_direction(const std::array<double, 3>& H1, const std::array<double, 3>& H2) {
    std::array<double, 3> e{H2[0] - H1[0], H2[1] - H1[1], H2[2] - H1[2]};
    const double n = std::sqrt(e[0] * e[0] + e[1] * e[1] + e[2] * e[2]);
    int big = 0;
    for (int a = 1; a < 3; ++a)
        if (std::abs(e[a]) > std::abs(e[big])) big = a;
    const double sign = e[big] < 0.0 ? -1.0 : 1.0;
    for (double& c : e) c = sign * c / n + 0.0;
    return e;
}

void write_sweep_table(const std::string& name, const SweepRecord& rec) {
    AtomicFile file(name, false);
    auto& out = file.stream();
    out << header(rec);
    out << "# |kappa|: modulus of the coupling to the driving field (SET_HRF); a branch is one mode followed from "
           "step to step by the overlap of its vectors; nan: no mode of that branch at that step\n";
    for (const SweepStep& st : rec.steps)
        if (st.jump)
            out << "# the state jumped at step " << (&st - rec.steps.data()) << ": new branches start there\n";
    out << "# step Hx Hy Hz s";
    for (int b = 1; b <= rec.nbranches; ++b) {
        const std::string n = std::to_string(b);
        out << " f" << n << " g" << n << " GHz" << n << " kappa" << n;
    }
    out << '\n';
    char buf[64];
    for (std::size_t k = 0; k < rec.steps.size(); ++k) {
        const SweepStep& st = rec.steps[k];
        std::snprintf(buf, sizeof buf, "%5zu", k);
        out << buf;
        auto put = [&](double v) {
            std::snprintf(buf, sizeof buf, " % .9e", v);
            out << buf;
        };
        for (double h : st.H) put(h);
        put(st.s);
        for (int b = 1; b <= rec.nbranches; ++b) {
            const SweepMode* m = on_branch(st, b);
            if (m == nullptr) {
                for (int c = 0; c < 4; ++c) put(kNan);
                continue;
            }
            put(m->f);
            put(m->g);
            put(m->f * rec.ghz_per_oe);
            put(std::abs(m->kappa));
        }
        out << '\n';
    }
    file.commit();
}

double sweep_gmin(double w0) { return 1e-4 * std::abs(w0); }

int interpolate_branches(const SweepStep& a, const SweepStep& b, double t, double gmin, Array<cplx, 1>& C,
                         Array<double, 2>& W) {
    const std::size_t most = a.modes.size() + b.modes.size();
    if (!C.allocated() || C.extent(0) < static_cast<std::ptrdiff_t>(most))
        C.allocate({Range{1, static_cast<int>(std::max<std::size_t>(most, 1))}}, cplx{0.0, 0.0});
    if (!W.allocated() || W.extent(0) < static_cast<std::ptrdiff_t>(most))
        W.allocate({Range{1, static_cast<int>(std::max<std::size_t>(most, 1))}, Range{1, 2}}, 0.0);
    int n = 0;
    auto put = [&](double f, double g, cplx kappa) {
        ++n;
        W(n, 1) = f;
        W(n, 2) = std::max(g, gmin);
        C(n) = kappa;
    };
    for (const SweepMode& ma : a.modes) {
        const SweepMode* mb = on_branch(b, ma.branch);
        if (mb != nullptr)
            put((1.0 - t) * ma.f + t * mb->f, (1.0 - t) * ma.g + t * mb->g, (1.0 - t) * ma.kappa + t * mb->kappa);
        else if (t < 0.5)
            put(ma.f, ma.g, ma.kappa);
    }
    if (t >= 0.5)
        for (const SweepMode& mb : b.modes)
            if (on_branch(a, mb.branch) == nullptr) put(mb.f, mb.g, mb.kappa);
    return n;
}

std::vector<FieldSample> field_absorption(const SweepRecord& rec, double w0) {
    std::vector<FieldSample> out;
    if (rec.steps.size() < 2) return out;
    const double gmin = sweep_gmin(w0);
    const std::size_t intervals = rec.steps.size() - 1;
    // Samples per interval from the narrowest peak that falls in it: a branch
    // whose frequency is linear in s has the Lorentzian width 2 G / |df/ds|
    // in s about the field where f = w0.
    std::vector<long long> count(intervals, kPerInterval);
    long long total = 1;
    for (std::size_t k = 0; k < intervals; ++k) {
        const SweepStep& a = rec.steps[k];
        const SweepStep& b = rec.steps[k + 1];
        const double ds = std::abs(b.s - a.s);
        double narrowest = std::numeric_limits<double>::infinity();
        for (const SweepMode& ma : a.modes) {
            const SweepMode* mb = on_branch(b, ma.branch);
            if (mb == nullptr) continue;
            const double G = std::max(0.5 * (ma.g + mb->g), gmin);
            const double lo = std::min(ma.f, mb->f) - 5.0 * G, hi = std::max(ma.f, mb->f) + 5.0 * G;
            if (w0 < lo || w0 > hi || !(ds > 0.0)) continue;
            const double slope = std::abs(mb->f - ma.f) / ds;
            if (slope > 0.0) narrowest = std::min(narrowest, 2.0 * G / slope);
        }
        if (std::isfinite(narrowest) && narrowest > 0.0)
            count[k] = std::max<long long>(kPerInterval,
                                           static_cast<long long>(std::ceil(std::min(kPerWidth * ds / narrowest, 1e9))));
        total += count[k];
    }
    if (total > kMaxSamples) {
        const double f = static_cast<double>(kMaxSamples) / static_cast<double>(total);
        total = 1;
        for (long long& c : count) {
            c = std::max<long long>(1, static_cast<long long>(static_cast<double>(c) * f));
            total += c;
        }
    }
    out.reserve(static_cast<std::size_t>(total));
    Array<cplx, 1> C;
    Array<double, 2> W;
    for (std::size_t k = 0; k < intervals; ++k) {
        const SweepStep& a = rec.steps[k];
        const SweepStep& b = rec.steps[k + 1];
        const long long n = count[k];
        const bool last = k + 1 == intervals;
        for (long long j = 0; j < n + (last ? 1 : 0); ++j) {
            const double t = static_cast<double>(j) / static_cast<double>(n);
            FieldSample smp;
            smp.s = (1.0 - t) * a.s + t * b.s;
            for (int c = 0; c < 3; ++c) smp.H[c] = (1.0 - t) * a.H[c] + t * b.H[c];
            smp.power = power_at(a, b, t, w0, gmin, C, W);
            out.push_back(smp);
        }
    }
    return out;
}

std::vector<Resonance> find_resonances(const std::vector<FieldSample>& samples) {
    std::vector<FieldSample> v = samples;
    std::stable_sort(v.begin(), v.end(), [](const FieldSample& x, const FieldSample& y) { return x.s < y.s; });
    std::vector<Resonance> out;
    const std::size_t n = v.size();
    if (n < 3) return out;
    double pmax = 0.0;
    for (const FieldSample& x : v)
        if (std::isfinite(x.power)) pmax = std::max(pmax, x.power);
    if (!(pmax > 0.0)) return out;
    for (std::size_t i = 1; i + 1 < n; ++i) {
        const double p = v[i].power;
        if (!(p > v[i - 1].power && p >= v[i + 1].power && p > 1e-3 * pmax)) continue;
        Resonance r;
        // Vertex of the parabola through the three samples.
        const double x0 = v[i - 1].s, x1 = v[i].s, x2 = v[i + 1].s;
        const double y0 = v[i - 1].power, y1 = p, y2 = v[i + 1].power;
        const double d01 = (y1 - y0) / (x1 - x0), d12 = (y2 - y1) / (x2 - x1);
        const double curv = (d12 - d01) / (x2 - x0);
        r.s = x1;
        r.power = p;
        if (curv < 0.0) {
            const double b = d01 - curv * (x0 + x1);
            const double xv = -b / (2.0 * curv);
            if (xv >= x0 && xv <= x2) {
                r.s = xv;
                r.power = y1 + (xv - x1) * (d01 + curv * (xv - x0));
            }
        }
        const double half = 0.5 * r.power;
        double left = kNan, right = kNan;
        for (std::size_t j = i; j > 0; --j)
            if (v[j - 1].power <= half) {
                const double t = (half - v[j - 1].power) / (v[j].power - v[j - 1].power);
                left = v[j - 1].s + t * (v[j].s - v[j - 1].s);
                break;
            }
        for (std::size_t j = i; j + 1 < n; ++j)
            if (v[j + 1].power <= half) {
                const double t = (v[j].power - half) / (v[j].power - v[j + 1].power);
                right = v[j].s + t * (v[j + 1].s - v[j].s);
                break;
            }
        r.fwhm = right - left;
        out.push_back(r);
    }
    return out;
}

void write_field_absorption(const std::string& name, const SweepRecord& rec, double f0_ghz,
                            const std::vector<FieldSample>& samples, const std::vector<Resonance>& peaks) {
    AtomicFile file(name, false);
    auto& out = file.stream();
    out << header(rec);
    char buf[256];
    std::snprintf(buf, sizeof buf, "# absorbed power at f0 = %.9g GHz (w0 = %.9g Oe), modes interpolated linearly "
                                   "between steps along their branches\n",
                  f0_ghz, f0_ghz / rec.ghz_per_oe);
    out << buf << "# s Hx Hy Hz P\n";
    for (const FieldSample& x : samples) {
        std::snprintf(buf, sizeof buf, "% .9e % .9e % .9e % .9e % .9e\n", x.s, x.H[0], x.H[1], x.H[2], x.power);
        out << buf;
    }
    out << "# resonances: " << peaks.size() << "\n# resonance s_res (Oe) FWHM (Oe) P\n";
    for (std::size_t k = 0; k < peaks.size(); ++k) {
        std::snprintf(buf, sizeof buf, "# %zu % .9e % .9e % .9e\n", k + 1, peaks[k].s, peaks[k].fwhm, peaks[k].power);
        out << buf;
    }
    file.commit();
}

}  // namespace torix
