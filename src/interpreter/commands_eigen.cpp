// Eigenmode commands: solves, eigen files, frequency list.
//
// The solves linearise around the equilibrium held in M and H, with the
// SET_CURRENT vector MP as the applied-field vector of the c_i term and the
// damping constant alpha = -beta: the dynamic matrix generates the
// precession in the sense opposite to the torque of the field routines, so
// with beta > 0 a relaxed sample's modes decay (g > 0).
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <string>

#include "core/error.hpp"
#include "core/memory.hpp"
#include "core/records.hpp"
#include "eigen/arnoldi.hpp"
#include "eigen/bloch_dense.hpp"
#include "eigen/bloch_modes.hpp"
#include "eigen/deg.hpp"
#include "eigen/dense_solve.hpp"
#include "eigen/eigen_files.hpp"
#include "eigen/slepc_solve.hpp"
#include "geometry/read_number.hpp"
#include "interpreter/session.hpp"

namespace torix {

namespace {

bool on_grid(const ModelState& st, const IntGrid& a) {
    return a.allocated() && a.hi(0) == st.nx && a.hi(1) == st.ny && a.hi(2) == st.nz;
}

// "(x,y,z)" of the first magnetic cell (storage order) without a number
// between 1 and ncells; empty when every magnetic cell has one.  NUM must be
// on the present grid.
std::string unnumbered_cell(const ModelState& st) {
    for (int z = 0; z <= st.nz; ++z)
        for (int y = 0; y <= st.ny; ++y)
            for (int x = 0; x <= st.nx; ++x) {
                if (st.MASQUE(x, y, z) == 0) continue;
                const int n = st.NUM(x, y, z);
                if (n < 1 || n > st.ncells) {
                    std::string c(1, '(');
                    c += std::to_string(x) + "," + std::to_string(y) + "," + std::to_string(z) + ")";
                    return c;
                }
            }
    return {};
}

// What a solve needs must be there; a gap is reported instead of reading
// unallocated arrays.
void check_inputs(const ModelState& st) {
    need_field_inputs(st, false);
    const std::string& k = st.LINER;
    if (!on_grid(st, st.NUM)) throw FatalError(k + ": the numbering was made on another grid (SET_SCALE again)");
    if (const std::string c = unnumbered_cell(st); !c.empty())
        throw FatalError(k + ": the numbering has no number at cell " + c);
}

// The dense matrix of order 2N, with the eigenvector matrices and work
// arrays of the dense solve (about four such matrices), must fit in memory.
void check_dense_size(const ModelState& st, int copies) {
    const double order = 2.0 * st.ncells;
    const double bytes = order * order * 8.0 * copies;
    if (bytes > physical_memory()) {
        char buf[64];
        std::snprintf(buf, sizeof buf, "%.0f", bytes);
        throw FatalError(st.LINER + ": a dense matrix of order " + std::to_string(2LL * st.ncells) + " needs " + buf +
                         " bytes, more than the memory of this machine");
    }
}

MatrixInput matrix_input(const ModelState& st) {
    return MatrixInput{st.MASQUE, st.NUM, st.M,  st.H,      st.MP,           -st.beta, st.MS, st.AIJ,
                       st.DEGR,   st.nx,  st.ny, st.nz, st.ncells, &st.local_terms};
}

ModeOutput mode_output(ModelState& st) { return ModeOutput{st.nmodes, st.W, st.PHASES, st.ZOUT, st.MODES, st.MODESL}; }

// The wave vector of the following solves must still lie along periodic
// axes (SET_PERIODIC may have come after SET_WAVEVECTOR), and a Bloch solve
// needs the nearest-neighbour blocks of the tensor.
void check_wavevector(const ModelState& st) {
    if (is_zero(st.wavevector)) return;
    if (!wavevector_allowed(st.periodic, st.wavevector))
        throw FatalError(st.LINER + ": the wave vector of SET_WAVEVECTOR has a component along an axis that is not "
                                    "periodic (SET_PERIODIC)");
    if (!st.neighbours.allocated())
        throw FatalError(st.LINER + ": the tensor's nearest-neighbour blocks are not known (TENSOR_CREATE or "
                                    "TENSOR_LOAD after SET_PERIODIC)");
}

BlochProblem bloch_problem(const ModelState& st) {
    return BlochProblem{matrix_input(st), st.neighbours,
                        Lattice{st.periodic, st.nx, st.ny, st.nz, st.dx, st.dy, st.dz}, st.wavevector};
}

// The eigen files, and beside them the wave vector of the modes (see
// eigen_files.hpp); a solve at k = 0 removes an older record.
void save_both(ModelState& st) {
    savemodes(st.nmodes, st.ncells, st.NUM, st.MASQUE, st.nx, st.ny, st.nz, "eig.dat", st.W, st.MODES);
    savemodes(st.nmodes, st.ncells, st.NUM, st.MASQUE, st.nx, st.ny, st.nz, "eigl.dat", st.W, st.MODESL);
    save_mode_wavevector(kEigenWavevectorFile, st.wavevector);
    st.mode_wavevector = st.wavevector;
}

}  // namespace

void need_solve_inputs(const ModelState& st, bool dense) {
    check_inputs(st);
    check_wavevector(st);
    if (dense) check_dense_size(st, is_zero(st.wavevector) ? 4 : 8);
}

void solve_present_modes(ModelState& st, int nsel, bool dense, double tol) {
    if (dense)
        calcmatrix_bloch(bloch_problem(st), nsel, mode_output(st));
    else
        solve_modes_bloch(bloch_problem(st), nsel, 0.0, tol, mode_output(st));
}

void need_modes_on_grid(const ModelState& st) {
    if (st.nmodes <= 0) return;
    const std::string& k = st.LINER;
    if (!on_grid(st, st.NUM) || st.MODES.extent(0) != st.ncells || st.MODESL.extent(0) != st.ncells)
        throw FatalError(k + ": the modes belong to another grid or numbering (solve or EIGEN_LOAD again)");
    if (const std::string c = unnumbered_cell(st); !c.empty())
        throw FatalError(k + ": the magnetic cell " + c +
                         " has no number in the numbering of the modes (solve or EIGEN_LOAD again)");
}

void cmd_solve_matrix(Session& s) {
    s.line();
    const int nsel = s.in.i32("the number of modes");
    ModelState& st = s.st;
    if (!st.numbered) build_numbering(st, st.s1, st.s2, st.s3);
    check_inputs(st);
    check_wavevector(st);
    check_dense_size(st, is_zero(st.wavevector) ? 4 : 8);
    calcmatrix_bloch(bloch_problem(st), nsel, mode_output(st));
    save_both(st);
    s.ack();
}

void cmd_solve_matrix_ar(Session& s) {
    s.line();
    const int kind = s.in.i32("the operator kind");
    s.line();
    // Both counts are doubled: they must stay within the int range.
    const auto doubled = [&s](const char* what) {
        const int v = s.in.i32(what);
        if (v < -1073741824 || v > 1073741823)
            s.in.fail(std::string("expected ") + what + " between -1073741824 and 1073741823, found \"" +
                      std::to_string(v) + "\"");
        return 2 * v;
    };
    const int nev = doubled("the number of modes");
    const int ncv = doubled("the number of Arnoldi vectors");
    double threshold = 0.0;
    if (kind == 2) {
        s.line();
        threshold = s.in.f64("the drop threshold");
    }
    ModelState& st = s.st;
    if ((kind == 1 || kind == 2) && !is_zero(st.wavevector))
        throw FatalError(st.LINER + ": the Arnoldi solves work at k = 0 only (SOLVE_MATRIX or SOLVE_MODES solve at "
                                    "the wave vector of SET_WAVEVECTOR)");
    if (kind == 1 || kind == 2) {
        if (!st.numbered) build_numbering(st, st.s1, st.s2, st.s3);
        check_inputs(st);
        if (kind == 1) check_dense_size(st, 1);
        const int n = 2 * st.ncells;
        // More than n vectors is refused by the solver itself (and reported
        // on the console); the arrays never need more than n columns.
        const int cols = std::clamp(ncv, 0, n);
        st.V.allocate({Range{1, n}, Range{1, cols}}, 0.0);
        st.D.allocate({Range{1, cols}, Range{1, 3}}, 0.0);
        if (kind == 1)
            calcmatrix_ns(matrix_input(st), nev, ncv, mode_output(st), st.D, st.V);
        else
            calcmatrix_s(matrix_input(st), nev, ncv, threshold, mode_output(st), st.D, st.V);
        save_both(st);
    }
    s.ack();
}

void cmd_eigen_save_text(Session& s) {
    s.line();
    const int want = s.in.i32("the number of modes");
    ModelState& st = s.st;
    st.FNAME = s.in.name("the file name");
    const int count = std::clamp(want, 0, st.nmodes);
    if (count > 0) need_modes_on_grid(st);
    savemodest(count, st.NUM, st.MASQUE, st.nx, st.ny, st.nz, st.FNAME, st.W, st.MODES);
    say("EIGEN_SAVE ok");
}

void cmd_omega_print(Session& s) {
    s.line();
    ModelState& st = s.st;
    st.FNAME = s.in.name("the file name");
    AtomicFile file(st.FNAME, false);
    char buf[96];
    for (int p = 1; p <= st.nmodes; ++p) {
        std::snprintf(buf, sizeof buf, "%6d %23.15E %23.15E\n", p, st.W(p, 1), st.W(p, 2));
        file.stream() << buf;
    }
    file.commit();
    s.ack();
}

void cmd_eigen_load(Session& s) {
    ModelState& st = s.st;
    if (!st.MASQUE.allocated()) throw FatalError("EIGEN_LOAD: no cell mask (MASQUE_CREATE or MASQUE_LOAD first)");
    int N = 0;
    IntGrid num;
    read_number("eig.dat", num, st.nx, st.ny, st.nz, N);
    for (int z = 0; z <= st.nz; ++z)
        for (int y = 0; y <= st.ny; ++y)
            for (int x = 0; x <= st.nx; ++x)
                if (st.MASQUE(x, y, z) != 0 && num(x, y, z) == 0)
                    throw FatalError("eig.dat: the cell records give no number to the magnetic cell (" +
                                     std::to_string(x) + "," + std::to_string(y) + "," + std::to_string(z) + ")");
    int n1 = 0, m1 = 0, n2 = 0, m2 = 0;
    Array<double, 2> W, WL;
    Array<cplx, 3> R, L;
    loadmodes("eig.dat", n1, m1, W, R);
    loadmodes("eigl.dat", n2, m2, WL, L);
    if (n2 != n1 || m2 != m1)
        throw FatalError("eigl.dat: record 1: " + std::to_string(n2) + " cells and " + std::to_string(m2) +
                         " modes, but eig.dat holds " + std::to_string(n1) + " cells and " + std::to_string(m1) +
                         " modes");
    st.NUM = std::move(num);
    st.ncells = N;
    AtomicFile map("numbering.txt", false);
    deg(st.MASQUE, st.NUM, st.nx, st.ny, st.nz, st.ncells, st.DEGR, map.stream());
    map.commit();
    st.numbered = true;
    st.nmodes = m1;
    st.W = std::move(W);
    st.MODES = std::move(R);
    st.MODESL = std::move(L);
    st.PHASES.allocate({Range{1, m1}}, 0.0);
    st.ZOUT.allocate({Range{1, m1}}, 0.0);
    st.mode_wavevector = load_mode_wavevector(kEigenWavevectorFile);
    s.ack();
}

// Line: kx, ky, kz (rad/cm), along periodic axes only.
void cmd_set_wavevector(Session& s) {
    s.line();
    ModelState& st = s.st;
    std::array<double, 3> k{};
    const char* what[3] = {"kx (rad/cm)", "ky (rad/cm)", "kz (rad/cm)"};
    for (int a = 0; a < 3; ++a) {
        k[a] = s.in.f64(what[a]);
        if (!std::isfinite(k[a])) s.in.fail(std::string("expected a finite ") + what[a]);
    }
    for (int a = 0; a < 3; ++a)
        if (k[a] != 0.0 && !st.periodic.along(a))
            s.in.fail(std::string("expected a wave vector along periodic axes only, found ") + what[a] +
                      " nonzero while axis " + "xyz"[a] + " is not periodic (SET_PERIODIC)");
    st.wavevector = k;
    s.ack();
}

// Line: nmodes, f0 (Oe), tol.  The nmodes modes nearest i f0, matrix-free
// (slepc_solve.hpp); the ModeSet and the eigen files as after SOLVE_MATRIX.
void cmd_solve_modes(Session& s) {
    s.line();
    const int nsel = s.in.i32("the number of modes");
    const double f0 = s.in.f64("the target frequency f0");
    const double tol = s.in.f64("the tolerance");
    ModelState& st = s.st;
    const std::string& k = st.LINER;
    if (!(f0 >= 0.0) || !std::isfinite(f0))
        throw FatalError(k + ": expected a target frequency f0 >= 0 (Oe), found " + std::to_string(f0));
    if (!std::isfinite(tol)) throw FatalError(k + ": expected a finite tolerance");
    if (!st.numbered) build_numbering(st, st.s1, st.s2, st.s3);
    check_inputs(st);
    check_wavevector(st);
    if (nsel < 1 || nsel > st.ncells)
        throw FatalError(k + ": expected a number of modes between 1 and " + std::to_string(st.ncells) +
                         " (the numbered cells), found " + std::to_string(nsel));
    const std::clock_t t0 = std::clock();
    const ModesStats r = solve_modes_bloch(bloch_problem(st), nsel, f0, tol, mode_output(st));
    save_both(st);
    say("modes", r.converged, "operator products", r.products, "inner iterations", r.inner_iterations, "restarts",
        r.outer_iterations, "shift", r.shift, "worst residual", r.worst_residual);
    say("time spent", static_cast<double>(std::clock() - t0) / CLOCKS_PER_SEC);
    s.ack();
}

}  // namespace torix

namespace torix {

void need_solve_inputs(const ModelState& st) { check_inputs(st); }
MatrixInput solve_input(const ModelState& st) { return matrix_input(st); }

}  // namespace torix
