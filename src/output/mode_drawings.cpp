#include "output/mode_drawings.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numbers>

#include "core/records.hpp"
#include "eigen/dynamic_matrix.hpp"
#include "output/number_text.hpp"
#include "output/png_map.hpp"

namespace torix {

namespace {

constexpr double kPi = std::numbers::pi;

std::string title_of(const ModeInput& in, int p, const std::string& view) {
    char buf[200];
    const double f = in.W(p, 1) + 0.0, g = in.W(p, 2) + 0.0;
    int n = std::snprintf(buf, sizeof buf, "mode %d%s   f = %.6g Oe   g = %.4g Oe", p, view.c_str(), f, g);
    if (in.gyro != 1.0)
        std::snprintf(buf + n, sizeof buf - static_cast<std::size_t>(n), "   f gyro / 2 pi = %.6g Hz",
                      f * in.gyro / (2.0 * kPi));
    return buf;
}

// The numbers a picture states about its mode.
void fill_facts(const ModeInput& in, int p, ModePicture& pic) {
    pic.mode = p;
    pic.f = in.W(p, 1) + 0.0;
    pic.g = in.W(p, 2) + 0.0;
    pic.gyro = in.gyro;
    pic.dx = in.dx, pic.dy = in.dy, pic.dz = in.dz;
}

// Sizes the panel and clears its samples.
void size_panel(ModePanel& P, int nh, int nv, double dh, double dv) {
    P.nh = nh, P.nv = nv, P.dh = dh, P.dv = dv;
    const auto n = static_cast<std::size_t>(nh) * static_cast<std::size_t>(nv);
    P.uh.assign(n, cplx{});
    P.uv.assign(n, cplx{});
    P.amp.assign(n, 0.0);
    P.phase.assign(n, 0.0);
    P.present.assign(n, 0);
}

// PostScript string literal.
std::string ps_string(const std::string& s) {
    std::string o = "(";
    for (char c : s) {
        if (c == '(' || c == ')' || c == '\\') o += '\\';
        o += c;
    }
    return o + ")";
}

}  // namespace

std::string drawing_name(int p, int axis) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "mode%03d", p);
    std::string s = buf;
    if (axis >= 1 && axis <= 3) s += std::string("_") + "xyz"[axis - 1];
    return s;
}

// How a picture takes its phases: in the fixed frame when the body has a
// mean direction, else from the dominant local component over the body.
struct PicturePhase {
    bool fixed = true;
    FixedPhase ph;
    int local = 1;  // the local component, when not fixed
    [[nodiscard]] double of(const cplx us[3], const double m[3], const std::array<double, 3>& axis) const {
        if (fixed) return ph.phase(us[0] * axis[0] + us[1] * axis[1] + us[2] * axis[2]);
        double R[9];
        local_frame(m, R);
        cplx v{};
        for (int c = 0; c < 3; ++c) v += R[3 * (local - 1) + c] * us[c];
        return phase_of(v);
    }
};

PicturePhase picture_phase(const ModeInput& in, const CVecGrid& u, ModePicture& pic) {
    PicturePhase pp;
    const FixedFrame f = fixed_frame(in.M, in.MASQUE, in.nx, in.ny, in.nz);
    if (f.aligned) {
        const PhaseRef ref = find_phase(u, in.M, in.MASQUE, in.nx, in.ny, in.nz);
        pp.ph = fixed_phase(u, f, ref, in.MASQUE, in.nx, in.ny, in.nz);
        pic.component = pp.ph.component;
        pic.axis = pp.ph.axis(f);
        pic.axis_name = "u." + f.name(pp.ph.component);
        return pp;
    }
    pp.fixed = false;
    DominantComponent dom;
    for (int k = 0; k <= in.nz; ++k)
        for (int j = 0; j <= in.ny; ++j)
            for (int i = 0; i <= in.nx; ++i)
                if (in.MASQUE(i, j, k) != 0) dom.add(local_components(u, in.M, i, j, k));
    pp.local = dom.take();
    pic.component = pp.local;
    pic.axis_name = pp.local == 1 ? "v1 (local polar)" : "v2 (local azimuthal)";
    return pp;
}

ModePicture drawmode(const ModeInput& in, int p) {
    CVecGrid u;
    reference_mode(in, p, false, u);
    ModePicture pic;
    pic.title = title_of(in, p, "");
    fill_facts(in, p, pic);
    const PicturePhase ph = picture_phase(in, u, pic);
    pic.panels.resize(static_cast<std::size_t>(in.nz + 1));
    for (int k = 0; k <= in.nz; ++k) {
        ModePanel& P = pic.panels[static_cast<std::size_t>(k)];
        size_panel(P, in.nx + 1, in.ny + 1, in.dx, in.dy);
        P.label = in.nz > 0 ? "layer k = " + std::to_string(k) : "";
        for (int j = 0; j <= in.ny; ++j)
            for (int i = 0; i <= in.nx; ++i) {
                if (in.MASQUE(i, j, k) == 0) continue;
                const std::size_t s = static_cast<std::size_t>(i + P.nh * j);
                P.present[s] = 1;
                P.uh[s] = u(i, j, k, 1);
                P.uv[s] = u(i, j, k, 2);
                P.amp[s] = amplitude(u, i, j, k);
                const cplx us[3] = {u(i, j, k, 1), u(i, j, k, 2), u(i, j, k, 3)};
                const double m[3] = {in.M(i, j, k, 1), in.M(i, j, k, 2), in.M(i, j, k, 3)};
                P.phase[s] = ph.of(us, m, pic.axis);
            }
    }
    return pic;
}

ModePicture drawmode_proj(const ModeInput& in, int p, int axis) {
    CVecGrid u;
    reference_mode(in, p, false, u);
    ModePicture pic;
    static const char* names[] = {"", " viewed along x", " viewed along y", " viewed along z"};
    pic.title = title_of(in, p, names[axis]);
    fill_facts(in, p, pic);
    pic.view = names[axis];
    const PicturePhase ph = picture_phase(in, u, pic);
    pic.panels.resize(1);
    ModePanel& P = pic.panels[0];
    // Picture axes (h, v) and the axis t averaged over, as grid axes 0..2.
    const int ah = axis == 1 ? 1 : 0, av = axis == 3 ? 1 : 2, at = axis - 1;
    const int top[3] = {in.nx, in.ny, in.nz};
    const double d[3] = {in.dx, in.dy, in.dz};
    size_panel(P, top[ah] + 1, top[av] + 1, d[ah], d[av]);
    for (int b = 0; b <= top[av]; ++b)
        for (int a = 0; a <= top[ah]; ++a) {
            cplx us[3] = {};
            double ms[3] = {0.0, 0.0, 0.0};
            int count = 0;
            for (int t = 0; t <= top[at]; ++t) {
                int c[3];
                c[ah] = a, c[av] = b, c[at] = t;
                if (in.MASQUE(c[0], c[1], c[2]) == 0) continue;
                ++count;
                const double ml = std::hypot(in.M(c[0], c[1], c[2], 1), in.M(c[0], c[1], c[2], 2),
                                             in.M(c[0], c[1], c[2], 3));
                for (int e = 0; e < 3; ++e) {
                    us[e] += u(c[0], c[1], c[2], e + 1);
                    if (ml > 0.0) ms[e] += in.M(c[0], c[1], c[2], e + 1) / ml;
                }
            }
            if (count == 0) continue;
            for (auto& z : us) z /= static_cast<double>(count);
            const std::size_t s = static_cast<std::size_t>(a + P.nh * b);
            P.present[s] = 1;
            P.uh[s] = us[ah];
            P.uv[s] = us[av];
            P.amp[s] = std::sqrt(abs2(us[0]) + abs2(us[1]) + abs2(us[2]));
            P.phase[s] = ph.of(us, ms, pic.axis);
        }
    return pic;
}

void write_mode_eps(const ModePicture& pic, double scale, const std::string& name) {
    if (!(scale > 0.0)) scale = 1.0;
    // Panels side by side, one sample of the first panel apart.
    double wcm = 0.0, hcm = 0.0;
    for (std::size_t q = 0; q < pic.panels.size(); ++q) {
        const ModePanel& P = pic.panels[q];
        wcm += P.nh * P.dh + (q > 0 ? pic.panels[0].dh : 0.0);
        hcm = std::max(hcm, P.nv * P.dv);
    }
    const double margin = 12.0, title_h = 22.0, label_h = pic.panels.size() > 1 ? 14.0 : 4.0, legend_w = 80.0;
    const double k = (wcm > 0.0 && hcm > 0.0) ? std::min(520.0 / wcm, 520.0 / hcm) : 1.0;  // pt per cm
    const double W = margin * 2 + wcm * k + legend_w, H = margin * 2 + hcm * k + title_h + label_h;
    const double top = margin + label_h + hcm * k;

    // Largest semi-major axis of the in-plane orbits, in units of u.
    double big = 0.0;
    std::vector<std::vector<double>> semi(pic.panels.size());
    for (std::size_t q = 0; q < pic.panels.size(); ++q) {
        const ModePanel& P = pic.panels[q];
        semi[q].resize(P.amp.size());
        for (std::size_t s = 0; s < P.amp.size(); ++s) {
            const double ax = P.uh[s].real(), ay = P.uv[s].real(), bx = P.uh[s].imag(), by = P.uv[s].imag();
            const double pp = ax * ax + ay * ay + bx * bx + by * by;
            const double qq = ax * ax + ay * ay - bx * bx - by * by, rr = 2.0 * (ax * bx + ay * by);
            semi[q][s] = std::sqrt(0.5 * (pp + std::hypot(qq, rr)));
            big = std::max(big, semi[q][s]);
        }
    }

    std::string o;
    char buf[256];
    std::snprintf(buf, sizeof buf,
                  "%%!PS-Adobe-3.0 EPSF-3.0\n%%%%BoundingBox: 0 0 %d %d\n%%%%HiResBoundingBox: 0 0 %.2f %.2f\n",
                  static_cast<int>(std::ceil(W)), static_cast<int>(std::ceil(H)), W, H);
    o += buf;
    o += "%%Title: " + pic.title + "\n%%Creator: TORIX\n%%Pages: 1\n%%EndComments\n"
         "%%BeginProlog\n"
         "/torixdict 16 dict def\ntorixdict begin\n"
         "% r g b ax ay bx by cx cy O: the ellipse (cx, cy) + a cos t + b sin t\n"
         "/O { gsave translate /by exch def /bx exch def /ay exch def /ax exch def setrgbcolor\n"
         "  ax ay moveto 10 10 350 { /t exch def ax t cos mul bx t sin mul add\n"
         "  ay t cos mul by t sin mul add lineto } for closepath stroke grestore } bind def\n"
         "/F { rectfill } bind def\n"
         "end\n%%EndProlog\n%%Page: 1 1\ntorixdict begin\n";
    o += "/Helvetica findfont 10 scalefont setfont\n";
    std::snprintf(buf, sizeof buf, "%.2f %.2f moveto ", margin, H - margin - 10.0);
    o += buf + ps_string(pic.title) + " show\n";

    double x0 = margin;
    for (std::size_t q = 0; q < pic.panels.size(); ++q) {
        const ModePanel& P = pic.panels[q];
        if (q > 0) x0 += pic.panels[0].dh * k;
        const double cw = P.dh * k, ch = P.dv * k;
        const double y0 = top - P.nv * ch;
        o += "0.9 setgray\n";
        for (int v = 0; v < P.nv; ++v)
            for (int h = 0; h < P.nh; ++h) {
                if (!P.present[static_cast<std::size_t>(h + P.nh * v)]) continue;
                for (double z : {x0 + h * cw, y0 + v * ch, cw, ch}) {
                    append_fixed(o, z, 2);
                    o += ' ';
                }
                o += "F\n";
            }
        o += "0.4 setgray 0.3 setlinewidth\n";
        std::snprintf(buf, sizeof buf, "%.2f %.2f %.2f %.2f rectstroke\n", x0, y0, P.nh * cw, P.nv * ch);
        o += buf;
        const double lw = std::clamp(0.08 * std::min(cw, ch), 0.1, 0.8);
        std::snprintf(buf, sizeof buf, "%.2f setlinewidth 1 setlinejoin\n", lw);
        o += buf;
        const double s_pt = big > 0.0 ? 0.5 * std::min(cw, ch) * scale / big : 0.0;
        for (int v = 0; v < P.nv; ++v)
            for (int h = 0; h < P.nh; ++h) {
                const std::size_t s = static_cast<std::size_t>(h + P.nh * v);
                if (!P.present[s] || !(semi[q][s] > 1e-3 * big)) continue;
                const auto c = phase_colour(P.phase[s], 1.0);
                for (double z : {c[0], c[1], c[2], P.uh[s].real() * s_pt, P.uv[s].real() * s_pt,
                                 P.uh[s].imag() * s_pt, P.uv[s].imag() * s_pt}) {
                    append_fixed(o, z, 3);
                    o += ' ';
                }
                for (double z : {x0 + (h + 0.5) * cw, y0 + (v + 0.5) * ch}) {
                    append_fixed(o, z, 2);
                    o += ' ';
                }
                o += "O\n";
            }
        if (!P.label.empty()) {
            std::snprintf(buf, sizeof buf, "0 setgray /Helvetica findfont 8 scalefont setfont %.2f %.2f moveto ", x0,
                          y0 - 10.0);
            o += buf + ps_string(P.label) + " show\n";
        }
        x0 += P.nh * cw;
    }

    // Phase colour wheel: the phase is the angle, 0 to the right.
    const double cx = W - legend_w / 2.0, cy = top - 30.0, R = 22.0;
    for (int n = 0; n < 36; ++n) {
        const auto c = phase_colour(n * kPi / 18.0, 1.0);
        std::snprintf(buf, sizeof buf,
                      "%.3f %.3f %.3f setrgbcolor newpath %.2f %.2f moveto %.2f %.2f %.1f %.1f %.1f arc closepath fill\n",
                      c[0], c[1], c[2], cx, cy, cx, cy, R, n * 10.0 - 5.0, n * 10.0 + 5.5);
        o += buf;
    }
    o += "0 setgray /Helvetica findfont 7 scalefont setfont\n";
    std::snprintf(buf, sizeof buf,
                  "%.2f %.2f moveto (0) show %.2f %.2f moveto (pi/2) show %.2f %.2f moveto (pi) show "
                  "%.2f %.2f moveto (-pi/2) show\n",
                  cx + R + 2.0, cy - 2.5, cx - 7.0, cy + R + 3.0, cx - R - 9.0, cy - 2.5, cx - 9.0, cy - R - 9.0);
    o += buf;
    std::snprintf(buf, sizeof buf, "%.2f %.2f moveto ", cx - 24.0, cy - R - 19.0);
    o += buf + ps_string("phase of " + pic.axis_name) + " show\n";
    o += "end\nshowpage\n%%EOF\n";
    AtomicFile f(name, false);
    f.stream() << o;
    f.commit();
}

}  // namespace torix
