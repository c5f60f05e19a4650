// Driven-response commands.
#include <algorithm>
#include <cstdio>

#include "core/error.hpp"
#include "core/records.hpp"
#include "interpreter/session.hpp"
#include "output/response.hpp"

namespace torix {

namespace {

// The coupling coefficients exist for every mode of the ModeSet.
void require_couplings(const ModelState& st, const char* command) {
    if (st.nmodes > 0 && (!st.C.allocated() || st.C.extent(0) < st.nmodes))
        throw FatalError(std::string(command) + ": no coupling coefficients for the modes; run CALC_C first");
}

}  // namespace

// Kind 1: uniform complex field (Re hx, Im hx, Re hy, Im hy, Re hz, Im hz);
// kind 2: uniform real field (hx, hy, hz); kind 3: format and file name,
// the file read by loadhrft (format 1, text, is the only one; another
// format value reads nothing).  HRF is allocated afresh over the grid; MPRF
// holds the real part of the uniform field (kinds 1, 2) or the real part of
// the field averaged over the magnetic cells (kind 3).  Another kind only
// acknowledges.
void cmd_set_hrf(Session& s) {
    ModelState& st = s.st;
    s.line();
    const int kind = s.in.i32("the driving-field kind");
    if (kind == 1 || kind == 2) {
        s.line();
        cplx h[3];
        if (kind == 1) {
            const double rx = s.in.f64("Re hx"), ix = s.in.f64("Im hx");
            const double ry = s.in.f64("Re hy"), iy = s.in.f64("Im hy");
            const double rz = s.in.f64("Re hz"), iz = s.in.f64("Im hz");
            h[0] = {rx, ix};
            h[1] = {ry, iy};
            h[2] = {rz, iz};
        } else {
            const double hx = s.in.f64("hx"), hy = s.in.f64("hy"), hz = s.in.f64("hz");
            h[0] = hx;
            h[1] = hy;
            h[2] = hz;
        }
        st.HRF = make_cvec_grid(st.nx, st.ny, st.nz);
        for (int c = 1; c <= 3; ++c)
            for (int k = 0; k <= st.nz; ++k)
                for (int j = 0; j <= st.ny; ++j)
                    for (int i = 0; i <= st.nx; ++i) st.HRF(i, j, k, c) = h[c - 1];
        for (int c = 0; c < 3; ++c) st.MPRF[c] = h[c].real();
    } else if (kind == 3) {
        s.line();
        const int format = s.in.i32("the format");
        st.FNAME = s.in.name("the file name");
        if (format == 1) {
            loadhrft(st.nx, st.ny, st.nz, st.FNAME, st.HRF);
            double sum[3] = {0.0, 0.0, 0.0};
            long long count = 0;
            for (int k = 0; k <= st.nz; ++k)
                for (int j = 0; j <= st.ny; ++j)
                    for (int i = 0; i <= st.nx; ++i) {
                        if (!st.MASQUE.allocated() || st.MASQUE(i, j, k) == 0) continue;
                        for (int c = 0; c < 3; ++c) sum[c] += st.HRF(i, j, k, c + 1).real();
                        ++count;
                    }
            for (int c = 0; c < 3; ++c) st.MPRF[c] = count > 0 ? sum[c] / static_cast<double>(count) : 0.0;
        }
    }
    s.ack();
}

void cmd_calc_c(Session& s) {
    ModelState& st = s.st;
    if (st.nmodes > 0 && !st.M.allocated())
        throw FatalError("CALC_C: the modes need the magnetization, which does not exist");
    // Without SET_HRF the driving field is zero everywhere.
    if (!st.HRF.allocated()) st.HRF = make_cvec_grid(st.nx, st.ny, st.nz);
    if (st.HRF.hi(0) != st.nx || st.HRF.hi(1) != st.ny || st.HRF.hi(2) != st.nz)
        throw FatalError("CALC_C: the driving field was set on another grid; SET_HRF again");
    if (st.nmodes > 0 && (st.M.hi(0) != st.nx || st.M.hi(1) != st.ny || st.M.hi(2) != st.nz))
        throw FatalError("CALC_C: the magnetization was set on another grid (INIT_M or M_LOAD first)");
    need_modes_on_grid(st);
    calc_c(st.nmodes, st.nx, st.ny, st.nz, st.ncells, st.MODES, st.MODESL, st.M, st.MASQUE, st.NUM, st.HRF, st.C);
    s.ack();
}

// One line per mode: the mode number, Re kappa, Im kappa, f, g.
void cmd_print_c(Session& s) {
    ModelState& st = s.st;
    s.line();
    st.FNAME = s.in.name("the file name");
    require_couplings(st, "PRINT_C");
    AtomicFile file(st.FNAME, false);
    char buf[160];
    for (int p = 1; p <= st.nmodes; ++p) {
        std::snprintf(buf, sizeof buf, "%6d %23.15E %23.15E %23.15E %23.15E\n", p, st.C(p).real(), st.C(p).imag(),
                      st.W(p, 1), st.W(p, 2));
        file.stream() << buf;
    }
    file.commit();
    s.ack();
}

// Line 2 is the frequency step dw; one free-format line per sample: the
// angular frequency, the absorbed power, the number of the nearest mode.
void cmd_print_abs(Session& s) {
    ModelState& st = s.st;
    s.line();
    st.FNAME = s.in.name("the file name");
    s.line();
    const double dw = s.in.f64("the frequency step");
    require_couplings(st, "PRINT_ABS");
    // The table runs from 0 to twice the highest mode frequency.
    double fmax = 0.0;
    for (int p = 1; p <= st.nmodes; ++p) fmax = std::max(fmax, st.W(p, 1));
    if (dw > 0.0 && !(2.0 * fmax / dw <= 1.0e7))
        s.in.fail("the frequency step " + format_real(dw) + " gives more than 10000000 samples up to " +
                  format_real(2.0 * fmax));
    const auto table = absorption_table(st.C, st.W, st.nmodes, dw);
    AtomicFile file(st.FNAME, false);
    for (const auto& row : table) file.stream() << free_line(row.w, row.power, row.nearest) << '\n';
    file.commit();
    s.ack();
}

}  // namespace torix
