// Commands that set the grid, the materials, the mask, the numbering and
// the scalar settings.
#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "core/memory.hpp"
#include "core/records.hpp"
#include "eigen/deg.hpp"
#include "geometry/mask_files.hpp"
#include "geometry/numbering.hpp"
#include "geometry/numbering_r.hpp"
#include "geometry/shapes.hpp"
#include "interpreter/session.hpp"

namespace torix {

namespace {

// Nearest integer, halves away from zero; clamped to the int range so that
// absurd lengths give an absurd (and then refused) count, never overflow.
int nint(double v) {
    if (std::isnan(v)) return 0;
    if (v > 2.0e9) return 2000000000;
    if (v < -2.0e9) return -2000000000;
    return static_cast<int>(std::lround(v));
}

// Last index of a box of `cells` cells from cell position `start`: the sum
// is taken in floating point and only then kept within the int range, so a
// box reaching from far below the grid to far above it still covers it.
int last(double start, double cells) { return nint(std::round(start) + std::round(cells - 1)); }

void new_mask(ModelState& st, int nx, int ny, int nz) {
    st.nx = nx;
    st.ny = ny;
    st.nz = nz;
    st.MASQUE = make_int_grid(nx, ny, nz, 0);
    st.shapes.clear();
}

// New empty grid of cx x cy x cz cells (counts below 1 give empty extents).
void sized_mask(Session& s, int cx, int cy, int cz) {
    if (grid_too_large(cx, cy, cz))
        s.in.fail("a grid of " + std::to_string(cx) + " x " + std::to_string(cy) + " x " + std::to_string(cz) +
                  " cells is too large");
    // Every count below 1 is the same empty extent, largest index -1.
    new_mask(s.st, std::max(cx, 0) - 1, std::max(cy, 0) - 1, std::max(cz, 0) - 1);
}

// Extent of a shape's bounding box (cm), and for a ring its inner
// diameter.  Kinds: 1 ring (Dout Din H), 2 sphere (D), 3 box (Lx Ly Lz),
// 4 elliptic disk (Dx Dy H).
struct ShapeSize {
    double x = 0.0, y = 0.0, z = 0.0, inner = 0.0;
};

ShapeSize read_shape_size(Session& s, int kind) {
    ShapeSize z;
    if (kind == 1) {
        z.x = z.y = s.in.f64("Dout");
        z.inner = s.in.f64("Din");
        z.z = s.in.f64("H");
    } else if (kind == 2) {
        z.x = z.y = z.z = s.in.f64("D");
    } else {
        z.x = s.in.f64(kind == 3 ? "Lx" : "Dx");
        z.y = s.in.f64(kind == 3 ? "Ly" : "Dy");
        z.z = s.in.f64(kind == 3 ? "Lz" : "H");
    }
    return z;
}

// Paints the shape with material mat, the low corner of its bounding box at
// (X0, Y0, Z0) cm; returns the number of cells painted.  Semi-axes and
// centres are in cells, measured between cell centres.
int paint_shape(ModelState& st, int kind, const ShapeSize& z, double X0, double Y0, double Z0, int mat) {
    const double dx = st.dx, dy = st.dy, dz = st.dz;
    const double a = z.x / (2 * dx) - 0.5, b = z.y / (2 * dy) - 0.5;
    int count = 0;
    if (kind == 1 || kind == 4) {
        const double ai = kind == 1 ? z.inner / (2 * dx) - 0.5 : 0.0;
        const double bi = kind == 1 ? z.inner / (2 * dy) - 0.5 : 0.0;
        calcdisk(st.MASQUE, st.nx, st.ny, st.nz, a, b, ai, bi, z.z / dz - 1, X0 / dx + a, Y0 / dy + b, Z0 / dz, mat,
                 count);
    } else if (kind == 2) {
        const double c = z.z / (2 * dz) - 0.5;
        calcsphere(st.MASQUE, st.nx, st.ny, st.nz, a, b, c, 0.0, 0.0, 0.0, X0 / dx + a, Y0 / dy + b, Z0 / dz + c, mat,
                   count);
    } else if (kind == 3) {
        const int i1 = nint(X0 / dx), j1 = nint(Y0 / dy), k1 = nint(Z0 / dz);
        calcslab2(st.MASQUE, st.nx, st.ny, st.nz, i1, last(X0 / dx, z.x / dx), j1, last(Y0 / dy, z.y / dy), k1,
                  last(Z0 / dz, z.z / dz), mat, count);
    }
    return count;
}

// Records the shape for the model summary: the cells it paints, found by
// painting it alone into a scratch mask of the same grid.
void note_shape(ModelState& st, int kind, const ShapeSize& z, double X0, double Y0, double Z0, int mat) {
    if (!st.MASQUE.allocated()) return;
    ModelState scratch;
    scratch.dx = st.dx, scratch.dy = st.dy, scratch.dz = st.dz;
    scratch.nx = st.nx, scratch.ny = st.ny, scratch.nz = st.nz;
    scratch.MASQUE = make_int_grid(st.nx, st.ny, st.nz, 0);
    paint_shape(scratch, kind, z, X0, Y0, Z0, 1);
    ShapeNote n{kind, mat, z.x, z.y, z.z, z.inner};
    n.i1 = st.nx + 1, n.j1 = st.ny + 1, n.k1 = st.nz + 1;
    for (int k = 0; k <= st.nz; ++k)
        for (int j = 0; j <= st.ny; ++j)
            for (int i = 0; i <= st.nx; ++i) {
                if (scratch.MASQUE(i, j, k) == 0) continue;
                ++n.cells;
                n.i1 = std::min(n.i1, i), n.i2 = std::max(n.i2, i);
                n.j1 = std::min(n.j1, j), n.j2 = std::max(n.j2, j);
                n.k1 = std::min(n.k1, k), n.k2 = std::max(n.k2, k);
            }
    st.shapes.push_back(n);
}

std::string quoted(int v) {
    std::string q(1, '"');
    q += std::to_string(v);
    q += '"';
    return q;
}

// After a numbering: the multiplicities and the map "numbering.txt".
void count_numbers(ModelState& st) {
    AtomicFile map("numbering.txt", false);
    deg(st.MASQUE, st.NUM, st.nx, st.ny, st.nz, st.ncells, st.DEGR, map.stream());
    map.commit();
    st.numbered = true;
}

}  // namespace

void build_numbering(ModelState& st, int b1, int b2, int b3) {
    st.NUM = make_int_grid(st.nx, st.ny, st.nz, 0);
    number(st.MASQUE, st.NUM, st.nx, st.ny, st.nz, st.ncells, b1, b2, b3);
    count_numbers(st);
}

void cmd_load_mat(Session& s) {
    s.line();
    const int n = s.in.i32("the number of materials");
    if (n < 0) s.in.fail("expected a number of materials of at least 0, found " + quoted(n));
    ModelState& st = s.st;
    // The lines are read before the tables are made, so a count beyond the
    // lines that follow ends at the end of the script, not in an allocation.
    std::vector<double> a, ms;
    for (int i = 1; i <= n; ++i) {
        s.line();
        a.push_back(s.in.f64("the exchange constant A(" + std::to_string(i) + ")"));
        ms.push_back(s.in.f64("the saturation magnetization MS(" + std::to_string(i) + ")"));
    }
    st.nmat = n;
    st.A.allocate({Range{1, n}}, 0.0);
    st.MS.allocate({Range{1, n}}, 0.0);
    for (int i = 1; i <= n; ++i) {
        st.A(i) = a[static_cast<std::size_t>(i - 1)];
        st.MS(i) = ms[static_cast<std::size_t>(i - 1)];
    }
    s.ack();
}

void cmd_masque_create(Session& s) {
    s.line();
    ModelState& st = s.st;
    st.Lx = s.in.f64("Lx");
    st.Ly = s.in.f64("Ly");
    st.Lz = s.in.f64("Lz");
    if (!(st.dx > 0.0 && st.dy > 0.0 && st.dz > 0.0))
        s.in.fail("the cell sizes must be set to positive values by SET_CELL before the grid is made");
    sized_mask(s, nint(st.Lx / st.dx), nint(st.Ly / st.dy), nint(st.Lz / st.dz));
    s.ack();
}

void cmd_masque_load(Session& s) {
    s.line();
    const int format = s.in.i32("the format");
    s.line();
    ModelState& st = s.st;
    st.FNAME = s.in.name("the file name");
    int nx = 0, ny = 0, nz = 0;
    if (format == 1 || format == 3) {
        loadmasqueparamt(nx, ny, nz, st.FNAME);
        new_mask(st, nx, ny, nz);
        if (format == 1)
            loadmasquet(st.MASQUE, nx, ny, nz, st.FNAME);
        else
            loadmasquet2(st.MASQUE, nx, ny, nz, st.FNAME);
    } else if (format == 2) {
        loadmasqueparam(nx, ny, nz, st.FNAME);
        new_mask(st, nx, ny, nz);
        loadmasque(st.MASQUE, nx, ny, nz, st.FNAME);
    }
    s.ack();
}

void cmd_masque_save(Session& s) {
    s.line();
    const int format = s.in.i32("the format");
    s.line();
    ModelState& st = s.st;
    st.FNAME = s.in.name("the file name");
    if (format == 1) savemasquet(st.MASQUE, st.nx, st.ny, st.nz, st.FNAME);
    if (format == 2) savemasque(st.MASQUE, st.nx, st.ny, st.nz, st.FNAME);
    if (format == 3) savemasquet2(st.MASQUE, st.nx, st.ny, st.nz, st.FNAME);
    s.ack();
}

void cmd_masque_info(Session& s) {
    const ModelState& st = s.st;
    say(count_magnetic(st.MASQUE), st.nx, st.ny, st.nz);
    s.ack();
}

void cmd_add_shape(Session& s) {
    s.line();
    const int kind = s.in.i32("the shape kind");
    if (kind < 1 || kind > 4) {
        s.ack();
        return;
    }
    s.line();
    const ShapeSize z = read_shape_size(s, kind);
    const double X0 = s.in.f64("X0"), Y0 = s.in.f64("Y0"), Z0 = s.in.f64("Z0");
    const int mat = s.in.i32("the material");
    if (mat < 0) s.in.fail("expected a material number of at least 0, found " + quoted(mat));
    note_shape(s.st, kind, z, X0, Y0, Z0, mat);
    paint_shape(s.st, kind, z, X0, Y0, Z0, mat);
    s.ack();
}

void cmd_set_cell(Session& s) {
    s.line();
    ModelState& st = s.st;
    st.dx = s.in.f64("dx");
    st.dy = s.in.f64("dy");
    st.dz = s.in.f64("dz");
    s.ack();
}

void cmd_study_shape(Session& s) {
    s.line();
    const int kind = s.in.i32("the shape kind");
    ModelState& st = s.st;
    int count = 0;
    if (kind >= 1 && kind <= 4) {
        s.line();
        const ShapeSize z = read_shape_size(s, kind);
        sized_mask(s, nint(z.x / st.dx), nint(z.y / st.dy), nint(z.z / st.dz));
        count = paint_shape(st, kind, z, 0.0, 0.0, 0.0, 1);
    }
    say(st.LINER + " ok", count);
}

void cmd_set_scale(Session& s) {
    s.line();
    ModelState& st = s.st;
    const int b1 = s.in.i32("the x block size"), b2 = s.in.i32("the y block size"), b3 = s.in.i32("the z block size");
    if (b1 < 1 || b2 < 1 || b3 < 1) s.in.fail("expected block sizes of at least 1");
    st.s1 = b1, st.s2 = b2, st.s3 = b3;
    build_numbering(st, b1, b2, b3);
    say("SET_SCALE ok", st.ncells);
}

// Line: r (cm), bx, by.  Cells within r of the grid's centre axis keep
// numbers of their own, the others share one per bx x by x (last bz) block.
void cmd_set_scale_r(Session& s) {
    s.line();
    ModelState& st = s.st;
    const double r = s.in.f64("the radius");
    const int b1 = s.in.i32("the x block size"), b2 = s.in.i32("the y block size");
    if (b1 < 1 || b2 < 1) s.in.fail("expected block sizes of at least 1");
    st.s1 = b1, st.s2 = b2;
    st.NUM = make_int_grid(st.nx, st.ny, st.nz, 0);
    number_r(st.MASQUE, st.NUM, st.nx, st.ny, st.nz, st.ncells, r, b1, b2, st.s3, st.dx, st.dy);
    count_numbers(st);
    say("SET_SCALE ok", st.ncells);
}

// Line: x0, y0, r (cm), bx, by: as SET_SCALE_R about the axis through
// (x0, y0); the multiplicities go to "masque1.txt".
void cmd_set_scale_r2(Session& s) {
    s.line();
    ModelState& st = s.st;
    const double x0 = s.in.f64("the axis x0"), y0 = s.in.f64("the axis y0"), r = s.in.f64("the radius");
    const int b1 = s.in.i32("the x block size"), b2 = s.in.i32("the y block size");
    if (b1 < 1 || b2 < 1) s.in.fail("expected block sizes of at least 1");
    st.s1 = b1, st.s2 = b2;
    st.NUM = make_int_grid(st.nx, st.ny, st.nz, 0);
    number_r2(st.MASQUE, st.NUM, st.nx, st.ny, st.nz, st.ncells, x0, y0, r, b1, b2, st.s3, st.dx, st.dy);
    count_numbers(st);
    say("SET_SCALE ok", st.ncells);
}

void cmd_set_current(Session& s) {
    s.line();
    ModelState& st = s.st;
    st.current = s.in.f64("the current");
    s.line();
    st.MP[0] = s.in.f64("MPx");
    st.MP[1] = s.in.f64("MPy");
    st.MP[2] = s.in.f64("MPz");
    s.ack();
}

void cmd_set_beta(Session& s) {
    s.line();
    s.st.beta = s.in.f64("beta");
    s.ack();
}

void cmd_set_vrml(Session& s) {
    s.line();
    ModelState& st = s.st;
    const int fx = s.in.i32("fx"), fy = s.in.i32("fy"), fz = s.in.i32("fz");
    const int mode = s.in.i32("the layout mode");
    if (fx < 1 || fy < 1 || fz < 1) s.in.fail("expected block sizes fx, fy, fz of at least 1");
    st.vrml_fx = fx, st.vrml_fy = fy, st.vrml_fz = fz, st.vrml_mode = mode;
    say("SET_SCALE_VRML ok");
}

void cmd_set_gyro(Session& s) {
    s.line();
    s.st.gyro = s.in.f64("the gyromagnetic ratio");
    s.ack();
}

}  // namespace torix
