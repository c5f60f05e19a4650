// PNG maps of a mode: the panels of a ModePicture with a title, a length
// scale and the legends that say what hue and brightness mean.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numbers>

#include "output/mode_drawings.hpp"
#include "output/png_map.hpp"
#include "output/raster.hpp"

namespace torix {

namespace {

constexpr double kPi = std::numbers::pi;
constexpr Rgb kInk{0, 0, 0};
constexpr Rgb kGrey{110, 110, 110};
constexpr int kMargin = 10;
constexpr int kMaxWidth = 1024;  // pixels of the panel area before panels wrap

Rgb colour(double phase, double v) {
    const auto c = phase_colour(phase, std::clamp(v, 0.0, 1.0));
    return {static_cast<unsigned char>(std::lround(255 * c[0])), static_cast<unsigned char>(std::lround(255 * c[1])),
            static_cast<unsigned char>(std::lround(255 * c[2]))};
}

std::string fmt(const char* f, double v) {
    char buf[48];
    std::snprintf(buf, sizeof buf, f, v);
    return buf;
}

}  // namespace

double to_ghz(double f, double gyro, std::string* basis) {
    if (gyro != 1.0) {
        if (basis) *basis = "GHz = f gyro / 2 pi, gyro " + fmt("%.4g", gyro) + " rad/(s Oe) (SET_GYRO)";
        return f * gyro / (2.0 * kPi) * 1e-9;
    }
    if (basis) *basis = "GHz at 2.80 MHz/Oe (g = 2; SET_GYRO sets another ratio)";
    return f * 2.80e-3;
}

double scale_bar_length(double extent) {
    // The largest 1, 2 or 5 times a power of ten within a third of the extent.
    if (!(extent > 0.0) || !std::isfinite(extent)) return 0.0;
    const double target = extent / 3.0;
    const double p = std::pow(10.0, std::floor(std::log10(target)));
    double best = p;
    for (double m : {2.0, 5.0, 10.0})
        if (m * p <= target * (1.0 + 1e-9)) best = m * p;
    return best;
}

void write_mode_png(const ModePicture& pic, const std::string& name) {
    const int n = static_cast<int>(pic.panels.size());
    int nh = 1, nv = 1;
    for (const ModePanel& P : pic.panels) nh = std::max(nh, P.nh), nv = std::max(nv, P.nv);
    // Sample blocks: a panel about 256 pixels on its long side, and at least
    // 64 on its short side as long as the long side stays within kMaxWidth.
    int b = std::clamp(256 / std::max(nh, nv), 1, 32);
    const int want = (64 + std::min(nh, nv) - 1) / std::min(nh, nv);
    b = std::max(b, std::min(want, std::max(1, kMaxWidth / std::max(nh, nv))));
    const int pw = nh * b, ph = nv * b;
    const bool labels = std::any_of(pic.panels.begin(), pic.panels.end(), [](const ModePanel& P) { return !P.label.empty(); });
    const int gap = 12, label_h = labels ? 12 : 0;
    const int cols = std::clamp(kMaxWidth / (pw + gap), 1, std::max(n, 1));
    const int rows = (n + cols - 1) / cols;

    std::string basis;
    const double ghz = to_ghz(pic.f, pic.gyro, &basis);
    const std::string title = "mode " + std::to_string(pic.mode) + pic.view + "   f = " + fmt("%.4g", ghz) +
                              " GHz (" + fmt("%.5g", pic.f) + " Oe)   g = " + fmt("%.3g", pic.g) + " Oe";
    const int title_h = 16 + 4 + 8 + 8;
    const int area_w = cols * pw + (cols - 1) * gap, area_h = rows * (ph + label_h) + (rows - 1) * gap;
    // Legend band, left to right: scale bar (at most a third of a panel),
    // hue wheel with its caption, brightness ramp.
    const ModePanel& P0 = pic.panels.empty() ? ModePanel{} : pic.panels[0];
    double bar_nm = 0.0;
    int bar_px = 0;
    if (P0.nh > 0 && P0.dh > 0.0) {
        bar_nm = scale_bar_length(P0.nh * P0.dh * 1e7);
        bar_px = static_cast<int>(std::lround(bar_nm / (P0.dh * 1e7) * b));
    }
    const int R = 24;
    const int wx = kMargin + std::max(bar_px, 60) + 30 + R;
    const int rx = wx + R + 24 + std::max(text_width(pic.axis_name, 1), text_width("hue: phase of", 1)) + 30;
    const int rw = 100;
    const int legend_h = 64;
    const int legend_w = rx + rw + 20 - kMargin;
    const int W = 2 * kMargin + std::max({area_w, text_width(title, 2), text_width(basis, 1), legend_w});
    const int H = kMargin + title_h + area_h + 12 + legend_h + kMargin;
    Canvas cv(W, H);
    cv.text(kMargin, kMargin, title, 2, kInk);
    cv.text(kMargin, kMargin + 20, basis, 1, kGrey);

    const int top = kMargin + title_h;
    for (int q = 0; q < n; ++q) {
        const ModePanel& P = pic.panels[static_cast<std::size_t>(q)];
        const int x0 = kMargin + (q % cols) * (pw + gap), y0 = top + (q / cols) * (ph + label_h + gap);
        // Picture axes: h to the right, v up; image rows run down.
        for (int v = 0; v < P.nv; ++v)
            for (int h = 0; h < P.nh; ++h) {
                const std::size_t s = static_cast<std::size_t>(h + P.nh * v);
                if (!P.present[s]) continue;
                cv.fill(x0 + h * b, y0 + (P.nv - 1 - v) * b, b, b, colour(P.phase[s], P.amp[s]));
            }
        // A faint outline of the grid, so empty edges still show the extent.
        cv.fill(x0 - 1, y0 - 1, P.nh * b + 2, 1, {200, 200, 200});
        cv.fill(x0 - 1, y0 + P.nv * b, P.nh * b + 2, 1, {200, 200, 200});
        cv.fill(x0 - 1, y0, 1, P.nv * b, {200, 200, 200});
        cv.fill(x0 + P.nh * b, y0, 1, P.nv * b, {200, 200, 200});
        if (!P.label.empty()) cv.text(x0, y0 + P.nv * b + 3, P.label, 1, kGrey);
    }

    // Legend band: scale bar, hue wheel, brightness ramp.
    const int ly = top + area_h + 12;
    if (bar_px > 0) {
        cv.fill(kMargin, ly + 8, bar_px, 4, kInk);
        cv.fill(kMargin, ly + 4, 1, 12, kInk);
        cv.fill(kMargin + bar_px - 1, ly + 4, 1, 12, kInk);
        cv.text(kMargin, ly + 20, fmt("%g", bar_nm) + " nm", 1, kGrey);
    }
    // Hue: the phase wheel, phase 0 to the right, increasing anticlockwise.
    const int wy = ly + 28;
    for (int y = -R; y <= R; ++y)
        for (int x = -R; x <= R; ++x) {
            const double r = std::hypot(x, y);
            if (r > R || r < R / 3.0) continue;
            cv.put(wx + x, wy + y, colour(std::atan2(-y, x), 1.0));
        }
    cv.text(wx + R + 3, wy - 3, "0", 1, kGrey);
    cv.text(wx - 14, wy - R - 9, "pi/2", 1, kGrey);
    cv.text(wx - R - 14, wy - 3, "pi", 1, kGrey);
    cv.text(wx + R + 24, ly + 16, "hue: phase of", 1, kGrey);
    cv.text(wx + R + 24, ly + 28, pic.axis_name, 1, kGrey);
    // Brightness: the amplitude, 0 (black) to 1 (the largest).
    for (int x = 0; x < rw; ++x) cv.fill(rx + x, ly + 6, 1, 12, colour(0.0, x / double(rw - 1)));
    cv.text(rx, ly + 22, "0", 1, kGrey);
    cv.text(rx + rw - 5, ly + 22, "1", 1, kGrey);
    cv.text(rx, ly + 34, "brightness:", 1, kGrey);
    cv.text(rx, ly + 44, "amplitude |u|", 1, kGrey);
    write_png(name, cv.width(), cv.height(), cv.rgb());
}

}  // namespace torix
