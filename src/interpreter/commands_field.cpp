// Field commands: applied field, initial state, field evaluation, files.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>

#include "core/error.hpp"
#include "dynamics/direct_field.hpp"
#include "dynamics/field_files.hpp"
#include "dynamics/init_state.hpp"
#include "dynamics/relax.hpp"
#include "interpreter/session.hpp"
#include "output/vrml.hpp"

namespace torix {

namespace {

// Throws unless the named grid array exists with the grid's shape.
void need(const ModelState& st, const VecGrid& v, const char* what) {
    if (!v.allocated() || v.hi(0) != st.nx || v.hi(1) != st.ny || v.hi(2) != st.nz)
        throw FatalError(st.LINER + ": no " + what + " on the present grid (INIT_M or M_LOAD first)");
}

void need_mask(const ModelState& st) {
    if (!st.MASQUE.allocated()) throw FatalError(st.LINER + ": no cell mask (MASQUE_CREATE or MASQUE_LOAD first)");
}

// Every material number in the mask has an MS entry.
void need_materials(const ModelState& st) {
    std::int32_t qmax = 0;
    for (std::int32_t q : st.MASQUE) qmax = std::max(qmax, q);
    if (qmax > 0 && (!st.MS.allocated() || qmax > st.MS.hi(0)))
        throw FatalError(st.LINER + ": the mask uses material " + std::to_string(qmax) +
                         ", beyond the material table (LOAD_MAT)");
}

// The field needs a tensor over the present grid and, for every material
// number in the mask, a tensor slice and an MS entry.
void need_tensor(const ModelState& st) {
    const TensorArray& T = st.AIJ;
    if (!T.allocated() || T.hi(0) != st.nx + 1 || T.hi(1) != st.ny + 1 || T.hi(2) != st.nz + 1)
        throw FatalError(st.LINER + ": no interaction tensor on the present grid (TENSOR_CREATE or TENSOR_LOAD first)");
    if (!(st.tensor_periodicity == st.periodic))
        throw FatalError(st.LINER + ": the tensor was summed over the periodic axes " +
                         periodic_axes_text(st.tensor_periodicity) + ", the model now repeats along " +
                         periodic_axes_text(st.periodic) + " (TENSOR_CREATE after SET_PERIODIC)");
    std::int32_t qmax = 0;
    for (std::int32_t q : st.MASQUE) qmax = std::max(qmax, q);
    if (qmax > T.hi(4) || !st.MS.allocated() || qmax > st.MS.hi(0))
        throw FatalError(st.LINER + ": the mask uses material " + std::to_string(qmax) +
                         ", beyond the material table or the tensor");
}

// M, H, HINIT and HRF allocated afresh over the present grid, all zero.
void allocate_fields(ModelState& st) {
    st.M = make_vec_grid(st.nx, st.ny, st.nz);
    st.H = make_vec_grid(st.nx, st.ny, st.nz);
    st.HINIT = make_vec_grid(st.nx, st.ny, st.nz);
    st.HRF = make_cvec_grid(st.nx, st.ny, st.nz);
    st.HUNIFORM = {0.0, 0.0, 0.0};
}

// Format 1 text, 2 binary, 4 reduced VRML scene (saving only); other values do nothing.
void save_vector(const ModelState& st, const VecGrid& v, int format, const std::string& name) {
    if (format == 1) savemt(v, st.MASQUE, st.nx, st.ny, st.nz, name);
    if (format == 2) savem(v, st.MASQUE, st.nx, st.ny, st.nz, name);
    if (format == 4)
        print_red_m(st.nx, st.ny, st.nz, st.MASQUE, v, 0, st.vrml_mode, st.vrml_fx, st.vrml_fy, st.vrml_fz, name);
}

void load_vector(const ModelState& st, VecGrid& v, int format, const std::string& name) {
    if (format == 1) loadmt(v, st.MASQUE, st.nx, st.ny, st.nz, name);
    if (format == 2) loadm(v, st.MASQUE, st.nx, st.ny, st.nz, name);
}

// Cell index of a box edge: q = x / d truncated toward zero, where a quotient
// within 1e-9 (relative) of a whole number counts as that number, so edges
// given as whole multiples of the cell size are not lost to rounding.
long long edge_index(double x, double d) {
    // Far outside any grid (or not a number): kept to a range that converts
    // exactly and still lies beyond every cell.
    double q = x / d;
    if (!(q > -4.0e9)) q = -4.0e9;
    if (q > 4.0e9) q = 4.0e9;
    const double r = std::nearbyint(q);
    if (std::abs(q - r) <= 1e-9 * std::max(1.0, std::abs(q))) return static_cast<long long>(r);
    return static_cast<long long>(std::trunc(q));
}

}  // namespace

void need_field_inputs(const ModelState& st, bool applied_field) {
    need_mask(st);
    need(st, st.M, "magnetization");
    need(st, st.H, "effective field");
    if (applied_field) need(st, st.HINIT, "applied-field array");
    need_tensor(st);
}

bool use_fft(const ModelState& st) { return count_magnetic(st.MASQUE) > 300; }

void compute_field(ModelState& st) {
    st.H = st.HINIT;
    field_by_method(use_fft(st) ? kMethodFft : kMethodDirect, st.M, st.MS, st.MP, st.beta, st.MASQUE, st.AIJ,
                    st.AIJ_FFT, st.H, st.nx, st.ny, st.nz, st.nmat, st.local_terms);
}

void cmd_add_ext_field(Session& s) {
    ModelState& st = s.st;
    s.line();
    const int kind = s.in.i32("the field kind");
    if (kind == 1) {
        s.line();
        const double hx = s.in.f64("Hx"), hy = s.in.f64("Hy"), hz = s.in.f64("Hz");
        need(st, st.HINIT, "applied-field array");
        const double hv[3] = {hx, hy, hz};
        for (int a = 1; a <= 3; ++a)
            for (int k = 0; k <= st.nz; ++k)
                for (int j = 0; j <= st.ny; ++j)
                    for (int i = 0; i <= st.nx; ++i) st.HINIT(i, j, k, a) += hv[a - 1];
        for (int a = 0; a < 3; ++a) st.HUNIFORM[a] += hv[a];
    } else if (kind == 2) {
        s.line();
        const int format = s.in.i32("the format");
        st.FNAME = s.in.name("the file name");
        need(st, st.HINIT, "applied-field array");
        load_vector(st, st.HINIT, format, st.FNAME);
        if (format == 1 || format == 2) st.HUNIFORM = {0.0, 0.0, 0.0};
    }
    s.ack();
}

void cmd_init_m(Session& s) {
    ModelState& st = s.st;
    s.line();
    const int kind = s.in.i32("the initial state kind");
    double u[3] = {0.0, 0.0, 1.0};
    if (kind == 2) {
        s.line();
        u[0] = s.in.f64("ux");
        u[1] = s.in.f64("uy");
        u[2] = s.in.f64("uz");
    }
    need_mask(st);
    allocate_fields(st);
    if (kind == 1 || kind == 2 || kind == 3 || kind == 4 || kind == 9) need_materials(st);
    const int nx = st.nx, ny = st.ny, nz = st.nz;
    switch (kind) {
        case 1:
            initvortex(st.M, st.MS, st.MASQUE, nx, ny, nz, nx / 2.0, ny / 2.0);
            break;
        case 2:
        case 4:
            initdir(st.M, st.MS, st.MASQUE, nx, ny, nz, u[0], u[1], u[2]);
            break;
        case 3:
            initrandom(st.M, st.MS, st.MASQUE, nx, ny, nz);
            break;
        case 9: {
            // Two vortices, each centred in its half of the grid along x.
            const double w = (nx + 1) / 4.0;
            initvortex9(st.M, st.MS, st.MASQUE, nx, ny, nz, w - 0.5, ny / 2.0, 3.0 * w - 0.5, ny / 2.0);
            break;
        }
        default:
            break;
    }
    s.ack();
}

void cmd_calc_field(Session& s) {
    need_field_inputs(s.st);
    compute_field(s.st);
    s.ack();
}

namespace {

// Line: format (1 text, 2 binary, 4 VRML scene), file name.  Other formats
// only acknowledge.
void save_command(Session& s, const VecGrid& v, const char* what) {
    ModelState& st = s.st;
    s.line();
    const int format = s.in.i32("the format");
    st.FNAME = s.in.name("the file name");
    if (format == 1 || format == 2 || format == 4) {
        need_mask(st);
        need(st, v, what);
        save_vector(st, v, format, st.FNAME);
    }
    s.ack();
}

}  // namespace

void cmd_m_save(Session& s) { save_command(s, s.st.M, "magnetization"); }

void cmd_m_load(Session& s) {
    ModelState& st = s.st;
    s.line();
    const int format = s.in.i32("the format");
    st.FNAME = s.in.name("the file name");
    need_mask(st);
    allocate_fields(st);
    load_vector(st, st.M, format, st.FNAME);
    s.ack();
}

void cmd_h_save(Session& s) { save_command(s, s.st.H, "effective field"); }

void cmd_h_average(Session& s) {
    ModelState& st = s.st;
    s.line();
    double x[6];
    int c = 0;
    for (const char* w : {"x1", "y1", "z1", "x2", "y2", "z2"}) x[c++] = s.in.f64(w);
    need_mask(st);
    need(st, st.H, "effective field");
    if (!(st.dx > 0.0 && st.dy > 0.0 && st.dz > 0.0))
        s.in.fail("the cell sizes must be set to positive values by SET_CELL before a box is averaged");
    const double d[3] = {st.dx, st.dy, st.dz};
    const int top[3] = {st.nx, st.ny, st.nz};
    long long lo[3], hi[3];
    for (int a = 0; a < 3; ++a) {
        lo[a] = std::max(0LL, edge_index(x[a], d[a]));
        hi[a] = std::min(static_cast<long long>(top[a]), edge_index(x[a + 3], d[a]) - 1);
    }
    double sum[3] = {0.0, 0.0, 0.0};
    long long count = 0;
    for (long long k = lo[2]; k <= hi[2]; ++k)
        for (long long j = lo[1]; j <= hi[1]; ++j)
            for (long long i = lo[0]; i <= hi[0]; ++i) {
                if (st.MASQUE(i, j, k) == 0) continue;
                ++count;
                for (int a = 0; a < 3; ++a) sum[a] += st.H(i, j, k, a + 1);
            }
    // No magnetic cell in the box: the mean is taken as the zero vector.
    for (int a = 0; a < 3; ++a) st.MPP[a] = count > 0 ? sum[a] / static_cast<double>(count) : 0.0;
    say(st.MPP[0], st.MPP[1], st.MPP[2]);
    s.ack();
}

void cmd_h_load(Session& s) {
    ModelState& st = s.st;
    s.line();
    const int format = s.in.i32("the format");
    st.FNAME = s.in.name("the file name");
    if (format == 1 || format == 2) {
        need(st, st.H, "effective field");
        load_vector(st, st.H, format, st.FNAME);
    }
    s.ack();
}

}  // namespace torix
