// Mode tables and drawings: PRINT_PHASES, PRINT_SLICES, PRINT_ANGLE,
// DRAW_MODES, DRAW_MODES_E, DRAW_MODES_P, VEC3.  Each works on the present
// ModeSet (after a solve or EIGEN_LOAD) with the present magnetization.
#include <algorithm>
#include <cmath>
#include <string>

#include "core/error.hpp"
#include "dynamics/field_files.hpp"
#include "interpreter/session.hpp"
#include "output/mode_drawings.hpp"
#include "output/mode_tables.hpp"

namespace torix {

// Modes, mask, magnetization and numbering must belong together.
void need_modes(const ModelState& st) {
    const std::string& k = st.LINER;
    if (st.nmodes <= 0) throw FatalError(k + ": no modes (SOLVE_MATRIX, SOLVE_MATRIX_AR, SOLVE_MODES or EIGEN_LOAD first)");
    if (!st.MASQUE.allocated()) throw FatalError(k + ": no cell mask (MASQUE_CREATE or MASQUE_LOAD first)");
    const VecGrid& M = st.M;
    if (!M.allocated() || M.hi(0) != st.nx || M.hi(1) != st.ny || M.hi(2) != st.nz)
        throw FatalError(k + ": no magnetization on the present grid (INIT_M or M_LOAD first)");
    need_modes_on_grid(st);
}

ModeInput mode_input(const ModelState& st) {
    return ModeInput{st.nx, st.ny, st.nz, st.ncells, st.nmodes, st.dx,  st.dy,    st.dz,
                     st.gyro, st.MASQUE, st.NUM, st.M, st.W,  st.MODES, st.MODESL};
}

// p1..p2 clipped to 1..nmodes; nothing left is an error of the parameter line.
void clip_range(const Session& s, int& p1, int& p2) {
    const int a = std::max(p1, 1), b = std::min(p2, s.st.nmodes);
    if (a > b)
        s.in.fail("modes " + std::to_string(p1) + " to " + std::to_string(p2) + " include none of the modes 1 to " +
                  std::to_string(s.st.nmodes));
    p1 = a, p2 = b;
}

namespace {

// Positions need the cell sizes.
void need_cell_sizes(const ModelState& st) {
    if (!(st.dx > 0.0 && st.dy > 0.0 && st.dz > 0.0))
        throw FatalError(st.LINER + ": the cell sizes must be set to positive values by SET_CELL");
}

void need_mode(const Session& s, int p) {
    if (p < 1 || p > s.st.nmodes)
        s.in.fail("mode " + std::to_string(p) + " does not exist; the modes are 1 to " + std::to_string(s.st.nmodes));
}

void need_axis(const Session& s, int axis) {
    if (axis < 1 || axis > 3) s.in.fail("expected an axis 1 (x), 2 (y) or 3 (z), found " + std::to_string(axis));
}

void draw(const ModePicture& pic, double scale, const std::string& base) {
    write_mode_eps(pic, scale, base + ".eps");
    write_mode_png(pic, base + ".png");
}

}  // namespace

// Line: p1 p2.  "phases.dat" and "modesmax.dat".
void cmd_print_phases(Session& s) {
    s.line();
    int p1 = s.in.i32("the first mode");
    int p2 = s.in.i32("the last mode");
    ModelState& st = s.st;
    need_modes(st);
    clip_range(s, p1, p2);
    print_phases(mode_input(st), p1, p2, "phases.dat", "modesmax.dat");
    s.ack();
}

// Line: p1 p2 axis i j k.  "modes01.dat", "modes02.dat" or "modes03.dat".
void cmd_print_slices(Session& s) {
    s.line();
    int p1 = s.in.i32("the first mode");
    int p2 = s.in.i32("the last mode");
    const int axis = s.in.i32("the axis");
    const int i = s.in.i32("i"), j = s.in.i32("j"), k = s.in.i32("k");
    ModelState& st = s.st;
    need_modes(st);
    need_cell_sizes(st);
    clip_range(s, p1, p2);
    need_axis(s, axis);
    const int idx[3] = {i, j, k}, top[3] = {st.nx, st.ny, st.nz};
    for (int a = 0; a < 3; ++a)
        if (a != axis - 1 && (idx[a] < 0 || idx[a] > top[a]))
            s.in.fail("the line through (" + std::to_string(i) + ", " + std::to_string(j) + ", " + std::to_string(k) +
                      ") lies outside the grid 0.." + std::to_string(st.nx) + ", 0.." + std::to_string(st.ny) +
                      ", 0.." + std::to_string(st.nz));
    // A line without magnetic cells would give an empty table.
    bool any = false;
    for (int t = 0; t <= top[axis - 1] && !any; ++t) {
        int c[3] = {i, j, k};
        c[axis - 1] = t;
        any = st.MASQUE(c[0], c[1], c[2]) != 0;
    }
    if (!any) s.in.fail("the line holds no magnetic cell");
    const std::string name = "modes0" + std::to_string(axis) + ".dat";
    print_slice(mode_input(st), p1, p2, axis, i, j, k, name);
    s.ack();
}

// Line: p1 p2 k x0 y0 r dtheta (cm, cm, cm, degrees).  "p.dat".
void cmd_print_angle(Session& s) {
    s.line();
    int p1 = s.in.i32("the first mode");
    int p2 = s.in.i32("the last mode");
    const int k = s.in.i32("the layer k");
    const double x0 = s.in.f64("x0"), y0 = s.in.f64("y0"), r = s.in.f64("the radius"), dt = s.in.f64("dtheta");
    ModelState& st = s.st;
    need_modes(st);
    need_cell_sizes(st);
    clip_range(s, p1, p2);
    if (k < 0 || k > st.nz) s.in.fail("the layer " + std::to_string(k) + " lies outside 0.." + std::to_string(st.nz));
    if (!(r > 0.0) || !std::isfinite(r)) s.in.fail("the radius must be positive, found " + format_real(r));
    if (!(dt > 0.0) || !(360.0 / dt <= 1.0e6))
        s.in.fail("the angle step must lie between 0.00036 and 360 degrees, found " + format_real(dt));
    const double X = (st.nx + 1) * st.dx, Y = (st.ny + 1) * st.dy, tol = 1e-9 * std::max(X, Y);
    if (!(x0 - r >= -tol && x0 + r <= X + tol && y0 - r >= -tol && y0 + r <= Y + tol))
        s.in.fail("the circle of radius " + format_real(r) + " about (" + format_real(x0) + ", " + format_real(y0) +
                  ") leaves the grid, which spans 0.." + format_real(X) + " by 0.." + format_real(Y) + " cm");
    print_angle(mode_input(st), p1, p2, k, x0, y0, r, std::min(dt, 360.0), "p.dat");
    s.ack();
}

// Line: p1 p2.  "modeNNN.eps" and "modeNNN.png" per mode, layers side by side.
void cmd_draw_modes(Session& s) {
    s.line();
    int p1 = s.in.i32("the first mode");
    int p2 = s.in.i32("the last mode");
    ModelState& st = s.st;
    need_modes(st);
    need_cell_sizes(st);
    clip_range(s, p1, p2);
    const ModeInput in = mode_input(st);
    for (int p = p1; p <= p2; ++p) draw(drawmode(in, p), 1.0, drawing_name(p));
    s.ack();
}

// Line: e (Oe).  Every mode with f <= e (all for e <= 0): a single layer as
// DRAW_MODES, several layers as the view along z ("modeNNN_z.eps").
void cmd_draw_modes_e(Session& s) {
    s.line();
    const double e = s.in.f64("the highest frequency");
    ModelState& st = s.st;
    need_modes(st);
    need_cell_sizes(st);
    const ModeInput in = mode_input(st);
    for (int p = 1; p <= st.nmodes; ++p) {
        if (e > 0.0 && !(st.W(p, 1) <= e)) continue;
        if (st.nz == 0)
            draw(drawmode(in, p), 1.0, drawing_name(p));
        else
            draw(drawmode_proj(in, p, 3), 1.0, drawing_name(p, 3));
    }
    s.ack();
}

// Line 1: p s (orbit scale, s <= 0 means 1); line 2: axis.  "modeNNN_x.eps" etc.
void cmd_draw_modes_p(Session& s) {
    s.line();
    const int p = s.in.i32("the mode");
    const double scale = s.in.f64("the orbit scale");
    s.line();
    const int axis = s.in.i32("the axis");
    ModelState& st = s.st;
    need_modes(st);
    need_cell_sizes(st);
    need_mode(s, p);
    need_axis(s, axis);
    draw(drawmode_proj(mode_input(st), p, axis), scale > 0.0 ? scale : 1.0, drawing_name(p, axis));
    s.ack();
}

// Line: p a phi name.  The named file (text magnetization file) and "modes.dat".
void cmd_vec3(Session& s) {
    s.line();
    const int p = s.in.i32("the mode");
    const double a = s.in.f64("the relative amplitude");
    const double phi = s.in.f64("the phase");
    ModelState& st = s.st;
    st.FNAME = s.in.name("the file name");
    need_modes(st);
    need_mode(s, p);
    if (!(a >= 0.0 && a <= 1.0)) s.in.fail("the relative amplitude must lie in 0..1, found " + format_real(a));
    if (!std::isfinite(phi)) s.in.fail("the phase must be finite, found " + format_real(phi));
    std::int32_t qmax = 0;
    for (std::int32_t q : st.MASQUE) qmax = std::max(qmax, q);
    if (qmax > 0 && (!st.MS.allocated() || qmax > st.MS.hi(0)))
        throw FatalError(st.LINER + ": the mask uses material " + std::to_string(qmax) +
                         ", beyond the material table (LOAD_MAT)");
    const ModeInput in = mode_input(st);
    CVecGrid u;
    reference_mode(in, p, false, u);
    VecGrid out;
    fm3(st.M, st.MASQUE, st.MS, u, a, phi, st.nx, st.ny, st.nz, out);
    savemt(out, st.MASQUE, st.nx, st.ny, st.nz, st.FNAME);
    print_mode_vectors(in, p, "modes.dat");
    s.ack();
}

}  // namespace torix
