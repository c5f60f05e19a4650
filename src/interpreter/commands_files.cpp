// Files for other tools: OVF 2.0 fields (OOMMF, MuMax3, Ubermag), VTK image
// data of the modes (ParaView), SVG plots of the spectrum and the modes.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <numbers>
#include <string>
#include <vector>

#include "core/console.hpp"
#include "core/error.hpp"
#include "interpreter/session.hpp"
#include "output/mode_drawings.hpp"
#include "output/mode_files.hpp"
#include "output/mode_vectors.hpp"
#include "output/ovf.hpp"
#include "output/response.hpp"
#include "output/svg_plot.hpp"
#include "output/vtk.hpp"

namespace torix {

namespace {

// Oe -> A/m and emu/cm^3 -> A/m.
constexpr double kOeToAm = 1000.0 / (4.0 * std::numbers::pi);
constexpr double kEmuToAm = 1000.0;

bool on_grid(const ModelState& st, const VecGrid& v) {
    return v.allocated() && v.hi(0) == st.nx && v.hi(1) == st.ny && v.hi(2) == st.nz;
}

void need_grid(const ModelState& st) {
    if (!st.MASQUE.allocated()) throw FatalError(st.LINER + ": no cell mask (MASQUE_CREATE or MASQUE_LOAD first)");
    if (st.nx < 0 || st.ny < 0 || st.nz < 0) throw FatalError(st.LINER + ": the grid has no cells");
    if (!(st.dx > 0.0 && st.dy > 0.0 && st.dz > 0.0))
        throw FatalError(st.LINER + ": the cell sizes must be positive (SET_CELL)");
}

void need_array(const ModelState& st, bool ok, const char* what, const char* first) {
    if (!ok) throw FatalError(st.LINER + ": no " + what + " on the present grid (" + first + " first)");
}

// Frequencies are kept in field units (Oe); with a gyromagnetic ratio set
// (rad/(s Oe)) plots show f = gyro w / 2 pi in GHz.
bool in_ghz(const ModelState& st) { return st.gyro != 1.0; }
double plot_frequency(const ModelState& st, double w) {
    return in_ghz(st) ? w * st.gyro / (2.0 * std::numbers::pi * 1e9) : w;
}
// The plots are always in GHz: f gyro / 2 pi with a ratio set, else 2.80
// MHz/Oe (g = 2); the title says which.
double plot_ghz(const ModelState& st, double w) { return to_ghz(w, st.gyro); }
std::string ghz_note(const ModelState& st) {
    return in_ghz(st) ? " (GHz = f gyro / 2 pi)" : " (GHz at 2.80 MHz/Oe)";
}

// The coupling coefficients exist for every mode of the ModeSet.
void need_couplings(const ModelState& st) {
    if (st.nmodes > 0 && (!st.C.allocated() || st.C.extent(0) < st.nmodes))
        throw FatalError(st.LINER + ": no coupling coefficients for the modes; run CALC_C first");
}

// The modes, when there are any, need the magnetization they were found
// about (their local frames) and their numbering on the present grid.
void need_modes_and_m(const ModelState& st) {
    if (st.nmodes <= 0) return;
    need_array(st, on_grid(st, st.M), "magnetization", "INIT_M or M_LOAD");
    need_modes_on_grid(st);
}

// "<prefix>NNN": the mode number in at least three digits.
std::string mode_file(const std::string& prefix, int p, const char* tail) {
    char num[16];
    std::snprintf(num, sizeof num, "%03d", p);
    return prefix + num + tail;
}

}  // namespace

// Line 1: what (1 M, 2 H, 3 applied field, 4 real part of the driving
// field), format (1 text, 2 binary); line 2: name.  SI units: A/m.
void cmd_ovf_save(Session& s) {
    ModelState& st = s.st;
    s.line();
    const int what = s.in.i32("what to save (1 M, 2 H, 3 applied field, 4 driving field)");
    const int format = s.in.i32("the format (1 text, 2 binary)");
    s.line();
    st.FNAME = s.in.name("the file name");
    if (what < 1 || what > 4 || format < 1 || format > 2) {
        s.ack();
        return;
    }
    need_grid(st);
    // Title, description, value labels of each quantity; all in A/m.
    static const OvfLabels kLabels[4] = {
        {"M", "TORIX magnetization M (emu/cm^3 x 1000 = A/m)", {"M_x", "M_y", "M_z"}, {"A/m", "A/m", "A/m"}},
        {"H", "TORIX effective field H (Oe x 1000/(4 pi) = A/m)", {"H_x", "H_y", "H_z"}, {"A/m", "A/m", "A/m"}},
        {"H_applied", "TORIX applied field (Oe x 1000/(4 pi) = A/m)", {"Happ_x", "Happ_y", "Happ_z"},
         {"A/m", "A/m", "A/m"}},
        {"Re H_rf", "TORIX driving field, real part (Oe x 1000/(4 pi) = A/m)", {"Hrf_x", "Hrf_y", "Hrf_z"},
         {"A/m", "A/m", "A/m"}},
    };
    const VecGrid* v = nullptr;
    VecGrid real_part;
    double scale = kOeToAm;
    switch (what) {
        case 1:
            need_array(st, on_grid(st, st.M), "magnetization", "INIT_M or M_LOAD");
            v = &st.M;
            scale = kEmuToAm;
            break;
        case 2:
            need_array(st, on_grid(st, st.H), "effective field", "INIT_M or M_LOAD");
            v = &st.H;
            break;
        case 3:
            need_array(st, on_grid(st, st.HINIT), "applied-field array", "INIT_M or M_LOAD");
            v = &st.HINIT;
            break;
        default: {
            const CVecGrid& h = st.HRF;
            need_array(st, h.allocated() && h.hi(0) == st.nx && h.hi(1) == st.ny && h.hi(2) == st.nz,
                       "driving field", "INIT_M or SET_HRF");
            real_part = make_vec_grid(st.nx, st.ny, st.nz);
            for (std::size_t c = 0; c < h.size(); ++c) real_part.data()[c] = h.data()[c].real();
            v = &real_part;
            break;
        }
    }
    saveovf(st.FNAME, *v, st.MASQUE, st.nx, st.ny, st.nz, st.dx, st.dy, st.dz, scale, kLabels[what - 1], format == 2);
    s.ack();
}

// Line 1: what (1 M, 3 applied field); line 2: name.  M: each magnetic
// cell's vector is rescaled to the MS of its material, empty cells get 0.
// Applied field: every grid point, converted to Oe from the file's units.
void cmd_ovf_load(Session& s) {
    ModelState& st = s.st;
    s.line();
    const int what = s.in.i32("what to load (1 M, 3 applied field)");
    s.line();
    st.FNAME = s.in.name("the file name");
    if (what != 1 && what != 3) {
        s.ack();
        return;
    }
    need_grid(st);
    VecGrid v = make_vec_grid(st.nx, st.ny, st.nz);
    const OvfHeader hdr = loadovf(st.FNAME, st.nx, st.ny, st.nz, st.dx, st.dy, st.dz, v);
    if (what == 1) {
        std::int32_t qmax = 0;
        for (std::int32_t q : st.MASQUE) qmax = std::max(qmax, q);
        if (qmax > 0 && (!st.MS.allocated() || qmax > st.MS.hi(0)))
            throw FatalError(st.LINER + ": the mask uses material " + std::to_string(qmax) +
                             ", beyond the material table (LOAD_MAT)");
        for (int k = 0; k <= st.nz; ++k)
            for (int j = 0; j <= st.ny; ++j)
                for (int i = 0; i <= st.nx; ++i) {
                    const std::int32_t q = st.MASQUE(i, j, k);
                    const double x = v(i, j, k, 1), y = v(i, j, k, 2), z = v(i, j, k, 3);
                    const double r = std::sqrt(x * x + y * y + z * z);
                    if (q == 0) {
                        for (int a = 1; a <= 3; ++a) v(i, j, k, a) = 0.0;
                        continue;
                    }
                    if (!(r > 0.0) || !std::isfinite(r))
                        throw FatalError(st.FNAME + ": cell (" + std::to_string(i) + ", " + std::to_string(j) + ", " +
                                         std::to_string(k) + ") is magnetic but its vector in the file is (" +
                                         format_real(x) + ", " + format_real(y) + ", " + format_real(z) +
                                         "), which has no direction");
                    const double f = st.MS(q) / r;
                    v(i, j, k, 1) = x * f;
                    v(i, j, k, 2) = y * f;
                    v(i, j, k, 3) = z * f;
                }
        // Only M is replaced; the field arrays are made (zero) when missing.
        if (!on_grid(st, st.H)) st.H = make_vec_grid(st.nx, st.ny, st.nz);
        if (!on_grid(st, st.HINIT)) {
            st.HINIT = make_vec_grid(st.nx, st.ny, st.nz);
            st.HUNIFORM = {0.0, 0.0, 0.0};
        }
        if (!st.HRF.allocated() || st.HRF.hi(0) != st.nx || st.HRF.hi(1) != st.ny || st.HRF.hi(2) != st.nz)
            st.HRF = make_cvec_grid(st.nx, st.ny, st.nz);
        st.M = std::move(v);
    } else {
        need_array(st, on_grid(st, st.HINIT), "applied-field array", "INIT_M or M_LOAD");
        double f[3];
        for (int a = 0; a < 3; ++a) {
            f[a] = field_unit_to_oe(hdr.units[a]);
            if (f[a] == 0.0)
                throw FatalError(st.FNAME + ": header: valueunits \"" + hdr.units[a] +
                                 "\" is not a field unit (A/m, kA/m, Oe, T, mT)");
        }
        for (int a = 1; a <= 3; ++a)
            for (int k = 0; k <= st.nz; ++k)
                for (int j = 0; j <= st.ny; ++j)
                    for (int i = 0; i <= st.nx; ++i) st.HINIT(i, j, k, a) = v(i, j, k, a) * f[a - 1];
        st.HUNIFORM = {0.0, 0.0, 0.0};
    }
    s.ack();
}

// Line 1: name; line 2: the frequency step dw (as PRINT_ABS).
void cmd_plot_abs(Session& s) {
    ModelState& st = s.st;
    s.line();
    st.FNAME = s.in.name("the file name");
    s.line();
    const double dw = s.in.f64("the frequency step");
    if (!(dw > 0.0)) s.in.fail("the frequency step must be positive, found " + format_real(dw));
    need_couplings(st);
    double fmax = 0.0;
    for (int p = 1; p <= st.nmodes; ++p) fmax = std::max(fmax, st.W(p, 1));
    if (!(2.0 * fmax / dw <= 1.0e7))
        s.in.fail("the frequency step " + format_real(dw) + " gives more than 10000000 samples up to " +
                  format_real(2.0 * fmax));
    const auto table = absorption_table(st.C, st.W, st.nmodes, dw);
    // The table runs to twice the highest mode; the plot stops at 1.2 times
    // it, where the last line has been drawn (and at the table's end).
    std::vector<double> x, y, modes;
    for (const auto& row : table) {
        if (st.nmodes > 0 && row.w > 1.2 * fmax + dw) break;
        x.push_back(plot_ghz(st, row.w));
        y.push_back(row.power);
    }
    for (int p = 1; p <= st.nmodes; ++p) modes.push_back(plot_ghz(st, st.W(p, 1)));
    const std::string title = "Absorption spectrum, " + std::to_string(st.nmodes) + " modes" + ghz_note(st);
    plot_absorption_svg(st.FNAME, x, y, modes, "frequency (GHz)", "absorbed power (arb. units)", title);
    s.ack();
}

// Line 1: p1, p2, kind (1 OVF pair, 2 VTK image data); line 2: name prefix.
// Modes p1..p2, clipped to those that exist.
void cmd_mode_save(Session& s) {
    ModelState& st = s.st;
    s.line();
    int first = s.in.i32("the first mode");
    int last = s.in.i32("the last mode");
    const int kind = s.in.i32("the kind (1 OVF, 2 VTK)");
    const bool known = kind == 1 || kind == 2;
    if (known) {
        need_grid(st);
        need_modes(st);
        clip_range(s, first, last);
    }
    s.line();
    st.FNAME = s.in.name("the file name prefix");
    if (!known) {
        s.ack();
        return;
    }
    const ModeInput in = mode_input(st);
    std::vector<std::pair<double, std::string>> collection;
    for (int p = first; p <= last; ++p) {
        if (kind == 1) {
            savemodeovf(mode_file(st.FNAME, p, "_re.ovf"), mode_file(st.FNAME, p, "_im.ovf"), in, p);
            continue;
        }
        const std::string file = mode_file(st.FNAME, p, ".vti");
        const double shown = plot_frequency(st, st.W(p, 1));
        savemodevti(file, in, p, shown);
        // The collection sits beside its files and names them relative to itself.
        collection.emplace_back(shown, std::filesystem::path(file).filename().string());
    }
    if (kind == 2) savepvd(st.FNAME + ".pvd", collection);
    s.ack();
}

// Line 1: name.  Frequency against mode number, the decay rate as error
// bar, the participation ratio as colour.
void cmd_plot_modes(Session& s) {
    ModelState& st = s.st;
    s.line();
    st.FNAME = s.in.name("the file name");
    need_modes_and_m(st);
    std::vector<double> f, g, pr;
    for (int p = 1; p <= st.nmodes; ++p) {
        CVecGrid u;
        mode_vector(st.nx, st.ny, st.nz, st.ncells, st.MASQUE, st.NUM, st.M, st.MODES, p, u);
        f.push_back(plot_ghz(st, st.W(p, 1)));
        g.push_back(plot_ghz(st, st.W(p, 2)));
        pr.push_back(participation_ratio(u, st.MASQUE, st.nx, st.ny, st.nz));
    }
    const std::string title =
        "Mode chart, " + std::to_string(st.nmodes) + " modes (bars: decay rate g)" + ghz_note(st);
    plot_modes_svg(st.FNAME, f, g, pr, "frequency (GHz)", "participation ratio", title);
    s.ack();
}

}  // namespace torix
