#include "interpreter/notices.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <utility>

#include "core/error.hpp"
#include "interpreter/session.hpp"

namespace torix {

namespace {

std::string upper(std::string_view s) {
    std::string u(s);
    for (char& c : u)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return u;
}

// "%.3g" of v.
std::string g3(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3g", v);
    return buf;
}

// A length in cm shown in nm, "%.4g".
std::string nm(double cm) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.4g", cm * 1e7);
    return buf;
}

}  // namespace

int edit_distance(std::string_view a, std::string_view b) {
    const std::size_t n = a.size(), m = b.size();
    std::vector<int> d((n + 1) * (m + 1));
    const auto at = [m, &d](std::size_t i, std::size_t j) -> int& { return d[i * (m + 1) + j]; };
    for (std::size_t i = 0; i <= n; ++i) at(i, 0) = static_cast<int>(i);
    for (std::size_t j = 0; j <= m; ++j) at(0, j) = static_cast<int>(j);
    for (std::size_t i = 1; i <= n; ++i)
        for (std::size_t j = 1; j <= m; ++j) {
            const int cost = a[i - 1] == b[j - 1] ? 0 : 1;
            int v = std::min({at(i - 1, j) + 1, at(i, j - 1) + 1, at(i - 1, j - 1) + cost});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) v = std::min(v, at(i - 2, j - 2) + 1);
            at(i, j) = v;
        }
    return at(n, m);
}

std::string closest_keyword(std::string_view word, const std::vector<std::string>& names) {
    const std::string w = upper(word);
    for (const std::string& k : names)
        if (k == w) return k;
    // Compared in upper case, so "Solve_Matrx" still finds its keyword.
    const int limit = w.size() <= 4 ? 1 : 2;
    int best = limit + 1;
    std::string found;
    for (const std::string& k : names) {
        const int dist = edit_distance(w, k);
        if (dist > limit) continue;
        if (dist < best) {
            best = dist;
            found = k;
        } else if (dist == best) {
            found += " or " + k;
        }
    }
    return found;
}

std::string skipped_line_message(std::string_view word, const std::vector<std::string>& names) {
    std::string m = "line skipped: \"" + std::string(word) + "\" ";
    if (parse_real(word)) {
        m += "is a number where a command keyword is expected (a parameter line too many above, or a "
             "misspelt keyword above it?)";
        return m;
    }
    const std::string k = closest_keyword(word, names);
    if (!k.empty() && k == upper(word))
        return m + "is not a command: keywords are upper case (did you mean " + k + "?)";
    m += "is not a command";
    if (!k.empty()) m += " (did you mean " + k + "?)";
    return m;
}

std::vector<std::string> model_summary(const ModelState& st) {
    std::vector<std::string> out;
    const auto line = [&out](std::string s) { out.push_back("model: " + std::move(s)); };
    const auto warn = [&out](std::string s) { out.push_back("model: warning: " + std::move(s)); };
    const auto length_check = [&warn](const std::string& what, double v) {
        if (v > 1.0)
            warn(what + " = " + g3(v) + " cm is above 1 cm: lengths are in cm (5 nm is 5e-7)");
        else if (v != 0.0 && std::abs(v) < 1e-9)
            warn(what + " = " + g3(v) + " cm is below 1e-9 cm: lengths are in cm (5 nm is 5e-7)");
    };
    length_check("the cell size dx", st.dx);
    length_check("the cell size dy", st.dy);
    length_check("the cell size dz", st.dz);
    if (!st.MASQUE.allocated()) {
        line("no cell mask yet");
        return out;
    }
    const int cx = st.nx + 1, cy = st.ny + 1, cz = st.nz + 1;
    line("grid " + std::to_string(cx) + " x " + std::to_string(cy) + " x " + std::to_string(cz) + " cells of " +
         nm(st.dx) + " x " + nm(st.dy) + " x " + nm(st.dz) + " nm, " + nm(cx * st.dx) + " x " + nm(cy * st.dy) +
         " x " + nm(cz * st.dz) + " nm in all");
    length_check("the sample extent Lx", st.Lx);
    length_check("the sample extent Ly", st.Ly);
    length_check("the sample extent Lz", st.Lz);

    static const char* const kKinds[] = {"", "ring", "sphere", "box", "elliptic disk"};
    for (std::size_t s = 0; s < st.shapes.size(); ++s) {
        const ShapeNote& z = st.shapes[s];
        std::string l = "shape " + std::to_string(s + 1) + " (" + kKinds[z.kind] + ", material " +
                        std::to_string(z.material) + "): asked " + nm(z.x) + " x " + nm(z.y) + " x " + nm(z.z) +
                        " nm";
        if (z.kind == 1) l += " (hole " + nm(z.inner) + " nm)";
        if (z.cells == 0) {
            l += ", painted no cell";
        } else {
            const double px = (z.i2 - z.i1 + 1) * st.dx, py = (z.j2 - z.j1 + 1) * st.dy,
                         pz = (z.k2 - z.k1 + 1) * st.dz;
            l += ", painted " + nm(px) + " x " + nm(py) + " x " + nm(pz) + " nm in " + std::to_string(z.cells) +
                 " cells";
            // A painted extent a cell short of the asked one is the staircase
            // of a curved edge; more than that is worth a look.
            const bool short_x = px < z.x - 0.5 * st.dx, short_y = py < z.y - 0.5 * st.dy;
            if (short_x || short_y) l += " (smaller than asked: the cells whose centres lie inside are painted)";
        }
        line(l);
        length_check("shape " + std::to_string(s + 1) + "'s extent x", z.x);
        length_check("shape " + std::to_string(s + 1) + "'s extent y", z.y);
        length_check("shape " + std::to_string(s + 1) + "'s extent z", z.z);
    }

    std::vector<std::int64_t> count(static_cast<std::size_t>(std::max(st.nmat, 0)) + 1, 0);
    std::int64_t beyond = 0;
    for (std::int32_t q : st.MASQUE) {
        if (q == 0) continue;
        if (q >= 1 && q <= st.nmat)
            ++count[static_cast<std::size_t>(q)];
        else
            ++beyond;
    }
    if (beyond > 0) warn(std::to_string(beyond) + " magnetic cells carry a material beyond the table of LOAD_MAT");
    const double side = std::max({st.dx, st.dy, st.dz});
    for (int m = 1; m <= st.nmat; ++m) {
        const double ms = st.MS(m), a = st.A(m);
        std::string l = "material " + std::to_string(m) + ": " + std::to_string(count[static_cast<std::size_t>(m)]) +
                        " magnetic cells, MS " + g3(ms) + " emu/cm^3, A " + g3(a) + " erg/cm";
        if (ms > 0.0 && a > 0.0) {
            // Exchange length sqrt(2 A / (mu0 MS^2)) in SI is sqrt(A / (2 pi MS^2)) in Gaussian units.
            const double lex = std::sqrt(a / (2.0 * std::numbers::pi * ms * ms));
            l += ", exchange length " + nm(lex) + " nm; the largest cell side is " + g3(side / lex) + " of it";
            if (side > lex) l += " (cells larger than the exchange length do not resolve exchange-dominated modes)";
        }
        line(l);
        if (ms > 2e4)
            warn("MS(" + std::to_string(m) + ") = " + g3(ms) +
                 " is above 2e4 emu/cm^3: MS is in emu/cm^3 (8e5 A/m is 800 emu/cm^3)");
        if (a != 0.0 && (a < 1e-8 || a > 1e-4))
            warn("A(" + std::to_string(m) + ") = " + g3(a) +
                 " is outside 1e-8 to 1e-4 erg/cm: A is in erg/cm (1.3e-11 J/m is 1.3e-6 erg/cm)");
    }
    if (st.nmat == 0) line("no material table yet (LOAD_MAT)");
    return out;
}

Equilibrium check_equilibrium(ModelState& st) {
    Equilibrium e;
    try {
        need_field_inputs(st);
    } catch (const FatalError&) {
        return e;  // the solve itself says what is missing
    }
    VecGrid held = st.H;
    compute_field(st);
    std::swap(held, st.H);
    const VecGrid& now = held;
    double hmax = 0.0, dmax = 0.0;
    for (int k = 0; k <= st.nz; ++k)
        for (int j = 0; j <= st.ny; ++j)
            for (int i = 0; i <= st.nx; ++i) {
                if (st.MASQUE(i, j, k) == 0) continue;
                double m[3], h[3], d2 = 0.0;
                for (int a = 0; a < 3; ++a) {
                    m[a] = st.M(i, j, k, a + 1);
                    h[a] = now(i, j, k, a + 1);
                    const double d = st.H(i, j, k, a + 1) - h[a];
                    d2 += d * d;
                }
                const double hn = std::sqrt(h[0] * h[0] + h[1] * h[1] + h[2] * h[2]);
                const double mn = std::sqrt(m[0] * m[0] + m[1] * m[1] + m[2] * m[2]);
                const double held = std::hypot(st.H(i, j, k, 1), st.H(i, j, k, 2), st.H(i, j, k, 3));
                hmax = std::max(hmax, hn);
                dmax = std::max(dmax, std::sqrt(d2));
                if (held == 0.0 || hn == 0.0 || mn == 0.0) {
                    ++e.zero_field_cells;
                    continue;
                }
                const double cx = m[1] * h[2] - m[2] * h[1], cy = m[2] * h[0] - m[0] * h[2],
                             cz = m[0] * h[1] - m[1] * h[0];
                const double t = std::sqrt(cx * cx + cy * cy + cz * cz) / (mn * hn);
                if (t > e.torque || e.i < 0) e.torque = t, e.i = i, e.j = j, e.k = k;
            }
    e.stale = hmax > 0.0 ? dmax / hmax : 0.0;
    e.checked = true;
    return e;
}

// The relaxation's last field and a fresh one differ by rounding (1e-5 of
// the largest field on a film of 10^4 cells by the Fourier route); a
// changed applied field or a loaded state differ by much more.
constexpr double kStaleWarning = 1e-3;

std::vector<std::string> equilibrium_lines(const Equilibrium& e, std::string_view keyword) {
    std::vector<std::string> out;
    if (!e.checked) return out;
    const std::string k(keyword);
    if (e.i >= 0) {
        std::string l = k + ": equilibrium: largest |m x H|/|H| " + g3(e.torque) + " at cell (" +
                        std::to_string(e.i) + "," + std::to_string(e.j) + "," + std::to_string(e.k) + ")";
        out.push_back(l);
        if (e.torque > kTorqueWarning)
            out.push_back(k + ": warning: the magnetization is not at equilibrium (torque above " + g3(kTorqueWarning) +
                          "): modes found around it may grow; run RELAX before the solve (for instance "
                          "\"RELAX\" with \"1 1e-6 0.1\"), or more passes of it");
    }
    if (e.zero_field_cells > 0)
        out.push_back(k + ": warning: " + std::to_string(e.zero_field_cells) +
                      " magnetic cells have no field or no magnetization: the solve needs the field of the state "
                      "(INIT_M, then RELAX or CALC_FIELD)");
    if (e.stale > kStaleWarning)
        out.push_back(k + ": warning: the field held for the solve differs from the field of the present "
                          "magnetization and applied field by " +
                      g3(e.stale) +
                      " of its largest value (applied field changed or M loaded after the last RELAX?); run "
                      "RELAX or CALC_FIELD before the solve");
    return out;
}

std::vector<std::string> growing_mode_lines(const ModelState& st, std::string_view keyword) {
    std::vector<std::string> out;
    if (st.nmodes <= 0 || !st.W.allocated()) return out;
    // Rounding leaves |g| of order 1e-12 |f| on an undamped solve.
    std::string list;
    int n = 0;
    double worst = 0.0;
    for (int p = 1; p <= st.nmodes && p <= st.W.hi(0); ++p) {
        const double f = st.W(p, 1), g = st.W(p, 2);
        if (!(g < -1e-6 * std::max(std::abs(f), 1.0))) continue;
        ++n;
        worst = std::min(worst, g);
        if (n <= 10) list += (n > 1 ? ", " : "") + std::to_string(p) + " (g " + g3(g) + " Oe)";
    }
    if (n == 0) return out;
    if (n > 10) list += ", ...";
    out.push_back(std::string(keyword) + ": warning: " + std::to_string(n) +
                  (n == 1 ? " mode grows" : " modes grow") + " (negative decay rate): " + list +
                  "; the state is not a minimum of the energy: relax it (RELAX, from a state nearer the "
                  "expected one with INIT_M if need be) and solve again");
    return out;
}

}  // namespace torix
