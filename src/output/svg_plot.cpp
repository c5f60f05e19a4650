#include "output/svg_plot.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "core/records.hpp"
#include "output/svg_parts.hpp"

namespace torix {

namespace svg {

namespace {
constexpr double kWidth = 900.0, kHeight = 600.0;
constexpr double kTop = 70.0, kBottom = 520.0, kLeft = 100.0;

}  // namespace

std::string esc(const std::string& s) {
    std::string out;
    for (char c : s) {
        if (c == '&') out += "&amp;";
        else if (c == '<') out += "&lt;";
        else if (c == '>') out += "&gt;";
        else if (c == '"') out += "&quot;";
        else out += c;
    }
    return out;
}

std::string num(double v, int digits) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.*f", digits, v);
    return buf;
}

std::string short_num(double v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.5g", v);
    return buf;
}

// A data range widened to a non-empty finite interval.
void widen(double& lo, double& hi) {
    if (!std::isfinite(lo) || !std::isfinite(hi)) lo = 0.0, hi = 1.0;
    if (hi <= lo) {
        const double m = std::max(std::abs(lo), 1.0);
        lo -= 0.5 * m;
        hi += 0.5 * m;
    }
}

namespace {

// Power of ten shown once in the axis label when tick labels would be long.
int common_exponent(double lo, double hi) {
    const double m = std::max(std::abs(lo), std::abs(hi));
    if (m == 0.0) return 0;
    const int e = static_cast<int>(std::floor(std::log10(m)));
    return (e >= 4 || e <= -3) ? e : 0;
}

}  // namespace

// One axis: line, ticks with labels, and the axis label.
void axis(std::string& s, bool horizontal, const Scale& sc, const std::string& label, double other, bool integer) {
    double step = 0.0;
    auto ticks = nice_ticks(sc.lo, sc.hi, horizontal ? 8 : 6, step);
    if (integer && step < 1.0) {
        step = 1.0;
        ticks.clear();
        for (double t = std::ceil(sc.lo); t <= sc.hi; t += 1.0) ticks.push_back(t);
    }
    const int e = integer ? 0 : common_exponent(sc.lo, sc.hi);
    const double f = std::pow(10.0, -e);
    const int digits = std::max(0, -static_cast<int>(std::floor(std::log10(step * f) + 1e-9)));
    s += std::string("<g id=\"") + (horizontal ? "x-axis" : "y-axis") + "\">\n";
    if (horizontal)
        s += "<line class=\"axis\" x1=\"" + num(sc.p0) + "\" y1=\"" + num(other) + "\" x2=\"" + num(sc.p1) + "\" y2=\"" +
             num(other) + "\" stroke=\"black\" stroke-width=\"1.5\"/>\n";
    else
        s += "<line class=\"axis\" x1=\"" + num(other) + "\" y1=\"" + num(sc.p0) + "\" x2=\"" + num(other) + "\" y2=\"" +
             num(sc.p1) + "\" stroke=\"black\" stroke-width=\"1.5\"/>\n";
    for (double t : ticks) {
        const double p = sc(t);
        const std::string text = num(t * f + 0.0, digits);
        s += "<g class=\"tick\">";
        if (horizontal)
            s += "<line x1=\"" + num(p) + "\" y1=\"" + num(other) + "\" x2=\"" + num(p) + "\" y2=\"" + num(other + 6) +
                 "\" stroke=\"black\"/><text x=\"" + num(p) + "\" y=\"" + num(other + 22) +
                 "\" text-anchor=\"middle\">" + text + "</text>";
        else
            s += "<line x1=\"" + num(other - 6) + "\" y1=\"" + num(p) + "\" x2=\"" + num(other) + "\" y2=\"" + num(p) +
                 "\" stroke=\"black\"/><text x=\"" + num(other - 10) + "\" y=\"" + num(p + 5) +
                 "\" text-anchor=\"end\">" + text + "</text>";
        s += "</g>\n";
    }
    // A common power of ten goes in front of the unit: "frequency (10^4 Oe)".
    std::string lab = esc(label);
    if (e != 0) {
        const std::string pow = "10<tspan class=\"exponent\" baseline-shift=\"super\" font-size=\"11\">" + std::to_string(e) + "</tspan>";
        const std::size_t open = lab.rfind('(');
        if (open != std::string::npos && lab.back() == ')') lab.insert(open + 1, pow + " ");
        else lab += " (" + pow + ")";
    }
    if (horizontal)
        s += "<text class=\"label\" x=\"" + num(0.5 * (sc.p0 + sc.p1)) + "\" y=\"" + num(other + 50) +
             "\" text-anchor=\"middle\" font-size=\"16\">" + lab + "</text>\n";
    else
        s += "<text class=\"label\" x=\"" + num(other - 70) + "\" y=\"" + num(0.5 * (sc.p0 + sc.p1)) +
             "\" text-anchor=\"middle\" font-size=\"16\" transform=\"rotate(-90 " + num(other - 70) + " " +
             num(0.5 * (sc.p0 + sc.p1)) + ")\">" + lab + "</text>\n";
    s += "</g>\n";
}

namespace {

std::string head(const std::string& title) {
    std::string s = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    s += "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + num(kWidth, 0) + "\" height=\"" + num(kHeight, 0) +
         "\" viewBox=\"0 0 " + num(kWidth, 0) + " " + num(kHeight, 0) +
         "\" font-family=\"Helvetica, Arial, sans-serif\" font-size=\"13\">\n";
    s += "<title>" + esc(title) + "</title>\n";
    s += "<rect x=\"0\" y=\"0\" width=\"" + num(kWidth, 0) + "\" height=\"" + num(kHeight, 0) + "\" fill=\"white\"/>\n";
    s += "<text id=\"title\" x=\"" + num(kWidth / 2) + "\" y=\"32\" text-anchor=\"middle\" font-size=\"18\">" +
         esc(title) + "</text>\n";
    return s;
}

// The document head and the frame of the plot area, which ends at `right`.
std::string framed(const std::string& title, double right) {
    return head(title) + "<rect x=\"" + num(kLeft) + "\" y=\"" + num(kTop) + "\" width=\"" + num(right - kLeft) +
           "\" height=\"" + num(kBottom - kTop) + "\" fill=\"none\" stroke=\"#bbbbbb\"/>\n";
}

}  // namespace

// A value range made non-empty and given room of `fraction` above (and
// below, when it reaches under zero), so that the data do not touch the frame.
void pad_range(double& lo, double& hi, double fraction) {
    if (hi == lo) hi = lo + 1.0;
    const double pad = fraction * (hi - lo);
    hi += pad;
    if (lo < 0.0) lo -= pad;
}

void write(const std::string& name, const std::string& s) {
    AtomicFile file(name, false);
    file.stream() << s << "</svg>\n";
    file.commit();
}

// Perceptually even colour scale from dark violet (0) through teal to
// yellow (1), anchored at five points of the viridis map.
std::string colour_of(double t) {
    static const double c[5][3] = {{68, 1, 84}, {59, 82, 139}, {33, 145, 140}, {94, 201, 98}, {253, 231, 37}};
    if (!std::isfinite(t)) t = 0.0;
    t = std::clamp(t, 0.0, 1.0) * 4.0;
    const int i = std::min(3, static_cast<int>(t));
    const double w = t - i;
    char buf[16];
    std::snprintf(buf, sizeof buf, "#%02x%02x%02x", static_cast<int>(std::lround(c[i][0] + w * (c[i + 1][0] - c[i][0]))),
                  static_cast<int>(std::lround(c[i][1] + w * (c[i + 1][1] - c[i][1]))),
                  static_cast<int>(std::lround(c[i][2] + w * (c[i + 1][2] - c[i][2]))));
    return buf;
}

}  // namespace svg

using namespace svg;

std::vector<double> nice_ticks(double lo, double hi, int target, double& step) {
    const double raw = (hi - lo) / std::max(1, target);
    const double mag = std::pow(10.0, std::floor(std::log10(raw)));
    step = mag;
    for (double m : {1.0, 2.0, 5.0, 10.0})
        if (m * mag >= raw) {
            step = m * mag;
            break;
        }
    std::vector<double> t;
    const double first = std::ceil(lo / step - 1e-9);
    for (double k = first; k * step <= hi + 1e-9 * step; k += 1.0) t.push_back(k * step);
    if (t.size() < 2 && step > mag) {  // too coarse for a narrow range: halve once
        step /= 2.0;
        t.clear();
        for (double k = std::ceil(lo / step - 1e-9); k * step <= hi + 1e-9 * step; k += 1.0) t.push_back(k * step);
    }
    return t;
}

void plot_absorption_svg(const std::string& name, const std::vector<double>& x, const std::vector<double>& y,
                         const std::vector<double>& mode_x, const std::string& xlabel, const std::string& ylabel,
                         const std::string& title) {
    constexpr double right = 870.0;
    double xlo = 0.0, xhi = x.empty() ? 1.0 : x.back();
    for (double m : mode_x) xhi = std::max(xhi, m);
    widen(xlo, xhi);
    double ylo = 0.0, yhi = 0.0;
    for (double v : y)
        if (std::isfinite(v)) ylo = std::min(ylo, v), yhi = std::max(yhi, v);
    pad_range(ylo, yhi, 0.08);
    const Scale sx{xlo, xhi, kLeft, right};
    const Scale sy{ylo, yhi, kBottom, kTop};

    std::string s = framed(title, right);
    // Mode markers first, so that the curve is drawn over them.  Numbers go
    // into three rows under the top edge; a number that would overlap its
    // row's previous one moves down a row, or is left out when all are taken.
    s += "<g id=\"modes\">\n";
    double row_end[3] = {-1e9, -1e9, -1e9};
    for (std::size_t p = 0; p < mode_x.size(); ++p) {
        const double m = mode_x[p];
        if (!(m >= xlo && m <= xhi)) continue;
        const double px = sx(m);
        const std::string n = std::to_string(p + 1);
        const double half = 3.8 * static_cast<double>(n.size()) + 2.0;
        s += "<g class=\"mode\"><title>mode " + n + ": " + short_num(m) + "</title><line x1=\"" + num(px) + "\" y1=\"" +
             num(kBottom) + "\" x2=\"" + num(px) + "\" y2=\"" + num(kTop) +
             "\" stroke=\"#d62728\" stroke-width=\"1\" stroke-dasharray=\"4 3\" opacity=\"0.7\"/>";
        for (int r = 0; r < 3; ++r) {
            if (px - half < row_end[r]) continue;
            row_end[r] = px + half;
            s += "<text x=\"" + num(px) + "\" y=\"" + num(kTop + 14 + 14 * r) +
                 "\" text-anchor=\"middle\" font-size=\"11\" fill=\"#d62728\">" + n + "</text>";
            break;
        }
        s += "</g>\n";
    }
    s += "</g>\n";
    if (ylo < 0.0)
        s += "<line class=\"zero\" x1=\"" + num(kLeft) + "\" y1=\"" + num(sy(0.0)) + "\" x2=\"" + num(right) + "\" y2=\"" +
             num(sy(0.0)) + "\" stroke=\"#888888\" stroke-width=\"0.8\"/>\n";
    s += "<polyline id=\"curve\" fill=\"none\" stroke=\"#1f4e9c\" stroke-width=\"1.8\" stroke-linejoin=\"round\" points=\"";
    for (std::size_t k = 0; k < x.size() && k < y.size(); ++k) {
        if (!std::isfinite(y[k])) continue;
        s += num(sx(x[k])) + "," + num(sy(y[k])) + (k + 1 < x.size() ? " " : "");
    }
    s += "\"/>\n";
    axis(s, true, sx, xlabel, kBottom, false);
    axis(s, false, sy, ylabel, kLeft, false);
    write(name, s);
}

void plot_modes_svg(const std::string& name, const std::vector<double>& f, const std::vector<double>& g,
                    const std::vector<double>& colour, const std::string& ylabel, const std::string& colour_label,
                    const std::string& title) {
    constexpr double right = 760.0;
    const std::size_t n = f.size();
    double xlo = 0.5, xhi = static_cast<double>(std::max<std::size_t>(n, 2)) + 0.5;
    // The frequency axis spans the modes and their bars (not from zero), so
    // modes close together stay apart.
    double ylo = HUGE_VAL, yhi = -HUGE_VAL;
    for (std::size_t p = 0; p < n; ++p) {
        const double e = p < g.size() && std::isfinite(g[p]) ? std::abs(g[p]) : 0.0;
        if (!std::isfinite(f[p])) continue;
        ylo = std::min(ylo, f[p] - e);
        yhi = std::max(yhi, f[p] + e);
    }
    if (ylo > yhi) ylo = yhi = 0.0;
    if (yhi == ylo) yhi = ylo + std::max(std::abs(ylo), 1.0) * 0.1, ylo -= std::max(std::abs(ylo), 1.0) * 0.1;
    const double ypad = 0.06 * (yhi - ylo);
    ylo -= ypad, yhi += ypad;
    widen(xlo, xhi);
    const Scale sx{xlo, xhi, kLeft, right};
    const Scale sy{ylo, yhi, kBottom, kTop};

    std::string s = framed(title, right);
    s += "<g id=\"modes\">\n";
    const double r = n > 200 ? 2.5 : 5.0;
    for (std::size_t p = 0; p < n; ++p) {
        if (!std::isfinite(f[p])) continue;
        const double e = p < g.size() && std::isfinite(g[p]) ? std::abs(g[p]) : 0.0;
        const double c = p < colour.size() ? colour[p] : 0.0;
        const double px = sx(static_cast<double>(p + 1)), py = sy(f[p]);
        s += "<g class=\"mode\"><title>mode " + std::to_string(p + 1) + ": f = " + short_num(f[p]) +
             ", g = " + short_num(e) + ", " + esc(colour_label) + " = " + short_num(c) + "</title>";
        const double top = sy(f[p] + e), bottom = sy(f[p] - e);
        s += "<line class=\"errorbar\" x1=\"" + num(px) + "\" y1=\"" + num(top) + "\" x2=\"" + num(px) + "\" y2=\"" +
             num(bottom) + "\" stroke=\"#444444\" stroke-width=\"1.2\"/>";
        for (double yb : {top, bottom})
            s += "<line x1=\"" + num(px - 4) + "\" y1=\"" + num(yb) + "\" x2=\"" + num(px + 4) + "\" y2=\"" + num(yb) +
                 "\" stroke=\"#444444\" stroke-width=\"1.2\"/>";
        s += "<circle class=\"marker\" cx=\"" + num(px) + "\" cy=\"" + num(py) + "\" r=\"" + num(r, 1) + "\" fill=\"" +
             colour_of(c) + "\" stroke=\"black\" stroke-width=\"0.6\"/></g>\n";
    }
    s += "</g>\n";
    axis(s, true, sx, "mode number", kBottom, true);
    axis(s, false, sy, ylabel, kLeft, false);
    // Colour bar: 0 at the bottom, 1 at the top.
    const double bx = 800.0, bw = 22.0;
    s += "<g id=\"colorbar\">\n<defs><linearGradient id=\"scale\" x1=\"0\" y1=\"1\" x2=\"0\" y2=\"0\">";
    for (int k = 0; k <= 8; ++k)
        s += "<stop offset=\"" + num(k / 8.0, 3) + "\" stop-color=\"" + colour_of(k / 8.0) + "\"/>";
    s += "</linearGradient></defs>\n<rect x=\"" + num(bx) + "\" y=\"" + num(kTop) + "\" width=\"" + num(bw) +
         "\" height=\"" + num(kBottom - kTop) + "\" fill=\"url(#scale)\" stroke=\"black\" stroke-width=\"0.8\"/>\n";
    for (double t : {0.0, 0.25, 0.5, 0.75, 1.0}) {
        const double py = kBottom + t * (kTop - kBottom);
        s += "<g class=\"tick\"><line x1=\"" + num(bx + bw) + "\" y1=\"" + num(py) + "\" x2=\"" + num(bx + bw + 5) +
             "\" y2=\"" + num(py) + "\" stroke=\"black\"/><text x=\"" + num(bx + bw + 8) + "\" y=\"" + num(py + 4) +
             "\">" + num(t) + "</text></g>\n";
    }
    s += "<text class=\"label\" x=\"" + num(bx - 8) + "\" y=\"" + num(0.5 * (kTop + kBottom)) +
         "\" text-anchor=\"middle\" font-size=\"14\" transform=\"rotate(-90 " + num(bx - 8) + " " +
         num(0.5 * (kTop + kBottom)) + ")\">" + esc(colour_label) + "</text>\n</g>\n";
    write(name, s);
}

void plot_branches_svg(const std::string& name, const std::vector<double>& x,
                       const std::vector<std::vector<double>>& y, const std::string& xlabel,
                       const std::string& ylabel, const std::string& title) {
    constexpr double right = 840.0;
    // Ten distinct colours (the usual qualitative set of plotting tools).
    static const char* const kColours[10] = {"#1f77b4", "#ff7f0e", "#2ca02c", "#d62728", "#9467bd",
                                             "#8c564b", "#e377c2", "#7f7f7f", "#bcbd22", "#17becf"};
    double xlo = std::numeric_limits<double>::infinity(), xhi = -xlo;
    for (double v : x)
        if (std::isfinite(v)) xlo = std::min(xlo, v), xhi = std::max(xhi, v);
    widen(xlo, xhi);
    double ylo = 0.0, yhi = 0.0;
    for (const auto& b : y)
        for (double v : b)
            if (std::isfinite(v)) ylo = std::min(ylo, v), yhi = std::max(yhi, v);
    pad_range(ylo, yhi, 0.06);
    const Scale sx{xlo, xhi, kLeft, right};
    const Scale sy{ylo, yhi, kBottom, kTop};

    std::string s = framed(title, right);
    s += "<g id=\"branches\">\n";
    for (std::size_t b = 0; b < y.size(); ++b) {
        const std::string colour = kColours[b % 10];
        const std::string n = std::to_string(b + 1);
        s += "<g class=\"branch\" id=\"branch-" + n + "\" stroke=\"" + colour + "\" fill=\"" + colour +
             "\"><title>branch " + n + "</title>\n";
        // One polyline per run of finite points.
        std::string run;
        int count = 0;
        double last_x = 0.0, last_y = 0.0;
        const auto flush = [&] {
            if (count > 1)
                s += "<polyline fill=\"none\" stroke-width=\"1.8\" stroke-linejoin=\"round\" points=\"" + run + "\"/>\n";
            run.clear();
            count = 0;
        };
        for (std::size_t q = 0; q < x.size() && q < y[b].size(); ++q) {
            if (!std::isfinite(y[b][q]) || !std::isfinite(x[q])) {
                flush();
                continue;
            }
            last_x = sx(x[q]);
            last_y = sy(y[b][q]);
            if (count > 0) run += ' ';
            run += num(last_x);
            run += ',';
            run += num(last_y);
            ++count;
        }
        flush();
        for (std::size_t q = 0; q < x.size() && q < y[b].size(); ++q)
            if (std::isfinite(y[b][q]) && std::isfinite(x[q]))
                s += "<circle class=\"marker\" cx=\"" + num(sx(x[q])) + "\" cy=\"" + num(sy(y[b][q])) +
                     "\" r=\"2.2\" stroke=\"none\"><title>branch " + n + ": " + short_num(x[q]) + ", " +
                     short_num(y[b][q]) + "</title></circle>";
        bool any = false;
        for (std::size_t q = 0; q < x.size() && q < y[b].size(); ++q) any = any || std::isfinite(y[b][q]);
        if (any)
            s += "\n<text class=\"branch-number\" x=\"" + num(last_x + 6) + "\" y=\"" + num(last_y + 4) +
                 "\" stroke=\"none\" font-size=\"11\">" + n + "</text>";
        s += "\n</g>\n";
    }
    s += "</g>\n";
    axis(s, true, sx, xlabel, kBottom, false);
    axis(s, false, sy, ylabel, kLeft, false);
    write(name, s);
}

}  // namespace torix
