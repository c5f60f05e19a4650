// Pictures of a field sweep: the branch chart (SVG) and the absorption map
// over field and frequency (PNG).
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "output/pixel_text.hpp"
#include "output/png_map.hpp"
#include "output/response.hpp"
#include "output/svg_parts.hpp"
#include "output/svg_plot.hpp"
#include "output/sweep_files.hpp"

namespace torix {

using namespace svg;

namespace {

const char* const kFieldLabel = "field along the sweep s (Oe)";

double largest_kappa(const SweepRecord& rec) {
    double k = 0.0;
    for (const SweepStep& st : rec.steps)
        for (const SweepMode& m : st.modes)
            if (std::isfinite(std::abs(m.kappa))) k = std::max(k, std::abs(m.kappa));
    return k;
}

void s_range(const SweepRecord& rec, double& lo, double& hi) {
    lo = hi = rec.steps.empty() ? 0.0 : rec.steps.front().s;
    for (const SweepStep& st : rec.steps) lo = std::min(lo, st.s), hi = std::max(hi, st.s);
    widen(lo, hi);
}

double highest_ghz(const SweepRecord& rec) {
    double f = 0.0;
    for (const SweepStep& st : rec.steps)
        for (const SweepMode& m : st.modes)
            if (std::isfinite(m.f)) f = std::max(f, m.f * rec.ghz_per_oe);
    return f;
}

// A colour bar from 0 (bottom) to 1 (top) at x, between the pixels top and bottom.
void svg_colour_bar(std::string& s, double x, double top, double bottom, const std::string& label,
                    const std::string& lo_text, const std::string& hi_text) {
    const double w = 18.0;
    s += "<g id=\"colorbar\">\n<defs><linearGradient id=\"scale\" x1=\"0\" y1=\"1\" x2=\"0\" y2=\"0\">";
    for (int k = 0; k <= 8; ++k)
        s += "<stop offset=\"" + num(k / 8.0, 3) + "\" stop-color=\"" + colour_of(k / 8.0) + "\"/>";
    s += "</linearGradient></defs>\n<rect x=\"" + num(x) + "\" y=\"" + num(top) + "\" width=\"" + num(w) +
         "\" height=\"" + num(bottom - top) + "\" fill=\"url(#scale)\" stroke=\"black\" stroke-width=\"0.8\"/>\n";
    s += "<text x=\"" + num(x + w + 5) + "\" y=\"" + num(bottom) + "\">" + esc(lo_text) + "</text>\n";
    s += "<text x=\"" + num(x + w + 5) + "\" y=\"" + num(top + 10) + "\">" + esc(hi_text) + "</text>\n";
    s += "<text class=\"label\" x=\"" + num(x - 6) + "\" y=\"" + num(0.5 * (top + bottom)) +
         "\" text-anchor=\"middle\" font-size=\"13\" transform=\"rotate(-90 " + num(x - 6) + " " +
         num(0.5 * (top + bottom)) + ")\">" + esc(label) + "</text>\n</g>\n";
}

std::array<unsigned char, 3> rgb_of(double t) {
    const std::string hex = colour_of(t);  // "#rrggbb"
    std::array<unsigned char, 3> c{};
    for (int k = 0; k < 3; ++k)
        c[k] = static_cast<unsigned char>(std::strtol(hex.substr(1 + 2 * k, 2).c_str(), nullptr, 16));
    return c;
}

std::string tick_text(double v, double step) {
    char buf[32];
    const int digits = std::max(0, -static_cast<int>(std::floor(std::log10(step) + 1e-9)));
    std::snprintf(buf, sizeof buf, "%.*f", digits, v + 0.0);
    return buf;
}

}  // namespace

void plot_sweep_svg(const std::string& name, const SweepRecord& rec, double f0_ghz,
                    const std::vector<FieldSample>& samples) {
    constexpr double W = 900.0, left = 100.0, right = 760.0, top = 60.0;
    const bool lower = !samples.empty();
    const double bottom = lower ? 430.0 : 560.0;
    const double H = lower ? 800.0 : 640.0;
    const double top2 = 510.0, bottom2 = 720.0;
    double slo = 0.0, shi = 0.0;
    s_range(rec, slo, shi);
    double fhi = std::max(highest_ghz(rec), lower ? f0_ghz : 0.0), flo = 0.0;
    pad_range(flo, fhi, 0.06);
    const Scale sx{slo, shi, left, right};
    const Scale sy{flo, fhi, bottom, top};
    const double kmax = largest_kappa(rec);

    std::string s = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" +
                    num(W, 0) + "\" height=\"" + num(H, 0) + "\" viewBox=\"0 0 " + num(W, 0) + " " + num(H, 0) +
                    "\" font-family=\"Helvetica, Arial, sans-serif\" font-size=\"13\">\n";
    const std::string title = "Mode branches against the applied field, " + std::to_string(rec.nbranches) + (rec.nbranches == 1 ? " branch" : " branches");
    s += "<title>" + esc(title) + "</title>\n<rect x=\"0\" y=\"0\" width=\"" + num(W, 0) + "\" height=\"" + num(H, 0) +
         "\" fill=\"white\"/>\n<text id=\"title\" x=\"" + num(W / 2) +
         "\" y=\"32\" text-anchor=\"middle\" font-size=\"18\">" + esc(title) + "</text>\n";
    s += "<rect x=\"" + num(left) + "\" y=\"" + num(top) + "\" width=\"" + num(right - left) + "\" height=\"" +
         num(bottom - top) + "\" fill=\"none\" stroke=\"#bbbbbb\"/>\n";
    if (lower && f0_ghz >= flo && f0_ghz <= fhi)
        s += "<line id=\"f0\" x1=\"" + num(left) + "\" y1=\"" + num(sy(f0_ghz)) + "\" x2=\"" + num(right) + "\" y2=\"" +
             num(sy(f0_ghz)) + "\" stroke=\"#d62728\" stroke-dasharray=\"6 4\"/>\n";

    // Each branch: a grey line through its steps, broken where it has no
    // mode, and one marker per step, sized and coloured by |kappa|.
    s += "<g id=\"branches\">\n";
    for (int b = 1; b <= rec.nbranches; ++b) {
        s += "<g class=\"branch\"><title>branch " + std::to_string(b) + "</title><polyline fill=\"none\" "
             "stroke=\"#999999\" stroke-width=\"1\" points=\"";
        std::string markers;
        bool first = true;
        for (const SweepStep& st : rec.steps) {
            const SweepMode* m = nullptr;
            for (const SweepMode& x : st.modes)
                if (x.branch == b) m = &x;
            if (m == nullptr || !std::isfinite(m->f)) continue;
            const double f = m->f * rec.ghz_per_oe;
            const double c = kmax > 0.0 ? std::abs(m->kappa) / kmax : 0.0;
            if (!first) s += ' ';
            s += num(sx(st.s));
            s += ',';
            s += num(sy(f));
            first = false;
            markers += "<circle class=\"marker\" cx=\"" + num(sx(st.s)) + "\" cy=\"" + num(sy(f)) + "\" r=\"" +
                       num(2.0 + 4.0 * std::sqrt(std::clamp(c, 0.0, 1.0)), 1) + "\" fill=\"" + colour_of(c) +
                       "\" stroke=\"black\" stroke-width=\"0.4\"><title>s = " + short_num(st.s) + " Oe, f = " +
                       short_num(f) + " GHz, |kappa| = " + short_num(std::abs(m->kappa)) + "</title></circle>";
        }
        s += "\"/>" + markers + "</g>\n";
    }
    s += "</g>\n";
    axis(s, true, sx, kFieldLabel, bottom, false);
    axis(s, false, sy, "frequency (GHz)", left, false);
    svg_colour_bar(s, 812.0, top, bottom, "|\xce\xba| / max |\xce\xba|", "0", "1");

    if (lower) {
        double plo = 0.0, phi = 0.0;
        for (const FieldSample& x : samples)
            if (std::isfinite(x.power)) plo = std::min(plo, x.power), phi = std::max(phi, x.power);
        pad_range(plo, phi, 0.08);
        const Scale py{plo, phi, bottom2, top2};
        s += "<rect x=\"" + num(left) + "\" y=\"" + num(top2) + "\" width=\"" + num(right - left) + "\" height=\"" +
             num(bottom2 - top2) + "\" fill=\"none\" stroke=\"#bbbbbb\"/>\n";
        // At most about two points per pixel: the largest and smallest of each run.
        s += "<polyline id=\"curve\" fill=\"none\" stroke=\"#1f4e9c\" stroke-width=\"1.5\" points=\"";
        const std::size_t n = samples.size();
        const std::size_t per = std::max<std::size_t>(1, n / 1400);
        for (std::size_t i = 0; i < n; i += per) {
            std::size_t lo_i = i, hi_i = i;
            for (std::size_t j = i; j < std::min(n, i + per); ++j) {
                if (samples[j].power < samples[lo_i].power) lo_i = j;
                if (samples[j].power > samples[hi_i].power) hi_i = j;
            }
            for (std::size_t j : {std::min(lo_i, hi_i), std::max(lo_i, hi_i)})
                if (std::isfinite(samples[j].power))
                    s += num(sx(samples[j].s)) + "," + num(py(samples[j].power)) + " ";
        }
        s += "\"/>\n";
        axis(s, true, Scale{slo, shi, left, right}, kFieldLabel, bottom2, false);
        char lab[96];
        std::snprintf(lab, sizeof lab, "absorbed power at %.4g GHz", f0_ghz);
        axis(s, false, py, lab, left, false);
    }
    write(name, s);
}

void write_absorption_map(const std::string& name, const SweepRecord& rec) {
    constexpr int W = 900, H = 600, left = 110, right = 760, top = 50, bottom = 500;
    constexpr double kDecades = 3.0;
    RgbImage img(W, H);
    double slo = 0.0, shi = 0.0;
    s_range(rec, slo, shi);
    double flo = 0.0, fhi = highest_ghz(rec);
    pad_range(flo, fhi, 0.1);
    const int nx = right - left, ny = bottom - top;
    // Power per pixel, columns along s, rows from the top; each line at
    // least a pixel wide.
    std::vector<double> P(static_cast<std::size_t>(nx) * static_cast<std::size_t>(ny), 0.0);
    const double dw_pixel = (fhi - flo) / rec.ghz_per_oe / ny;
    Array<cplx, 1> C;
    Array<double, 2> Wt;
    double pmax = 0.0;
    for (int i = 0; i < nx && rec.steps.size() >= 2; ++i) {
        const double s = slo + (i + 0.5) / nx * (shi - slo);
        // The interval of the sweep that holds s (in sweep order).
        std::size_t k = 0;
        double t = 0.0;
        for (std::size_t j = 0; j + 1 < rec.steps.size(); ++j) {
            const double a = rec.steps[j].s, b = rec.steps[j + 1].s;
            if ((s - a) * (s - b) <= 0.0 && a != b) {
                k = j;
                t = (s - a) / (b - a);
                break;
            }
        }
        const int n = interpolate_branches(rec.steps[k], rec.steps[k + 1], t, dw_pixel, C, Wt);
        for (int r = 0; r < ny; ++r) {
            const double w = (fhi - (r + 0.5) / ny * (fhi - flo)) / rec.ghz_per_oe;
            const double p = absorption(w, C, Wt, n, 0.0);
            P[static_cast<std::size_t>(r) * nx + i] = p;
            if (std::isfinite(p)) pmax = std::max(pmax, p);
        }
    }
    for (int r = 0; r < ny; ++r)
        for (int i = 0; i < nx; ++i) {
            const double p = P[static_cast<std::size_t>(r) * nx + i];
            const double v = pmax > 0.0 && p > 0.0 ? 1.0 + std::log10(p / pmax) / kDecades : 0.0;
            img.set(left + i, top + r, rgb_of(std::clamp(v, 0.0, 1.0)));
        }
    const std::array<unsigned char, 3> black{0, 0, 0};
    for (int x = left - 1; x <= right; ++x) img.set(x, top - 1, black), img.set(x, bottom, black);
    for (int y = top - 1; y <= bottom; ++y) img.set(left - 1, y, black), img.set(right, y, black);
    // Axes: ticks and labels.
    double step = 0.0;
    for (double v : nice_ticks(slo, shi, 7, step)) {
        const int x = left + static_cast<int>(std::lround((v - slo) / (shi - slo) * nx));
        for (int d = 0; d < 6; ++d) img.set(x, bottom + d, black);
        const std::string t = tick_text(v, step);
        draw_text(img, x - text_width(t, 2) / 2, bottom + 10, t, 2);
    }
    draw_text(img, (left + right) / 2 - text_width(kFieldLabel, 2) / 2, bottom + 45, kFieldLabel, 2);
    for (double v : nice_ticks(flo, fhi, 6, step)) {
        const int y = bottom - static_cast<int>(std::lround((v - flo) / (fhi - flo) * ny));
        for (int d = 0; d < 6; ++d) img.set(left - 1 - d, y, black);
        const std::string t = tick_text(v, step);
        draw_text(img, left - 10 - text_width(t, 2), y - 7, t, 2);
    }
    const std::string flab = "frequency (GHz)";
    draw_text(img, 20, (top + bottom) / 2 + text_width(flab, 2) / 2, flab, 2, true);
    // Colour bar: log10 of the power over its largest value.
    const int bx = 800, bw = 24;
    for (int r = 0; r < ny; ++r)
        for (int x = bx; x < bx + bw; ++x) img.set(x, top + r, rgb_of(1.0 - (r + 0.5) / ny));
    for (int x = bx - 1; x <= bx + bw; ++x) img.set(x, top - 1, black), img.set(x, bottom, black);
    for (int y = top - 1; y <= bottom; ++y) img.set(bx - 1, y, black), img.set(bx + bw, y, black);
    for (int d = 0; d <= static_cast<int>(kDecades); ++d) {
        const int y = top + static_cast<int>(std::lround(d / kDecades * ny));
        for (int x = bx + bw; x < bx + bw + 5; ++x) img.set(x, y, black);
        const std::string t = std::to_string(-d);
        draw_text(img, bx + bw + 8, y - 7, t, 2);
    }
    const std::string blab = "log10 P/Pmax";
    draw_text(img, bx - 18, (top + bottom) / 2 + text_width(blab, 2) / 2, blab, 2, true);
    const std::string title = "absorption over field and frequency";
    draw_text(img, W / 2 - text_width(title, 2) / 2, 15, title, 2);
    write_png(name, W, H, img.rgb);
}

}  // namespace torix
