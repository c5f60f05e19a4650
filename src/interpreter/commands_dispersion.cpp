// DISPERSION: the lowest modes along a straight path of wave vectors, the
// branches followed by mode overlap (eigen/dispersion.hpp), written as a
// table and an SVG plot (output/dispersion_files.hpp).
#include <array>
#include <cmath>
#include <numbers>
#include <string>

#include "core/console.hpp"
#include "core/error.hpp"
#include "core/progress.hpp"
#include "core/records.hpp"
#include "eigen/dense_solve.hpp"
#include "eigen/dispersion.hpp"
#include "eigen/dynamic_matrix.hpp"
#include "eigen/slepc_solve.hpp"
#include "interpreter/session.hpp"
#include "output/dispersion_files.hpp"

namespace torix {

namespace {

// gamma / (2 pi) in Hz/Oe when the script gives none (SET_GYRO).
constexpr double kDefaultHzPerOe = 2.8e6;

const char* const kAxis[3] = {"x", "y", "z"};

// Opens and drops a temporary file beside `name`, so that a name that
// cannot be written is reported before the solves, and no file is touched.
void check_writable(const std::string& key, const std::string& name) {
    try {
        AtomicFile probe(name, false);
    } catch (const FatalError&) {
        throw FatalError(key + ": expected a file name that can be written, found \"" + name +
                         "\" (cannot open it for writing)");
    }
}

}  // namespace

// Line 1: kx1 ky1 kz1 kx2 ky2 kz2 (rad/cm) nk; line 2: nmodes tol; line 3:
// name.  Writes the table `name` and the plot `name`.svg; the ModeSet and
// the eigen files are left as they were.
void cmd_dispersion(Session& s) {
    ModelState& st = s.st;
    const std::string& key = st.LINER;
    s.line();
    WaveVector k1{}, k2{};
    for (int a = 0; a < 3; ++a) k1[a] = s.in.f64(std::string("k") + kAxis[a] + "1 (rad/cm)");
    for (int a = 0; a < 3; ++a) k2[a] = s.in.f64(std::string("k") + kAxis[a] + "2 (rad/cm)");
    const int nk = s.in.i32("the number of wave vectors nk");
    for (int a = 0; a < 3; ++a) {
        if (!std::isfinite(k1[a]) || !std::isfinite(k2[a]))
            s.in.fail("expected finite wave vectors, found k" + std::string(kAxis[a]) + " = " +
                      format_real(std::isfinite(k1[a]) ? k2[a] : k1[a]));
        if (!st.periodic.along(a) && (k1[a] != 0.0 || k2[a] != 0.0))
            s.in.fail("expected wave vectors along the periodic axes only (SET_PERIODIC), found k" +
                      std::string(kAxis[a]) + " = " + format_real(k1[a] != 0.0 ? k1[a] : k2[a]) +
                      " rad/cm along the non-periodic " + kAxis[a] + " axis");
    }
    if (nk < 1) s.in.fail("expected a number of wave vectors nk >= 1, found " + std::to_string(nk));
    s.line();
    const int nmodes = s.in.i32("the number of modes");
    const double tol = s.in.f64("the tolerance");
    if (nmodes < 1) s.in.fail("expected a number of modes >= 1, found " + std::to_string(nmodes));
    if (!std::isfinite(tol)) s.in.fail("expected a finite tolerance, found " + format_real(tol));
    s.line();
    st.FNAME = s.in.name("the file name");
    const std::string name = st.FNAME;

    if (!st.numbered) build_numbering(st, st.s1, st.s2, st.s3);
    need_solve_inputs(st);
    if (nmodes > st.ncells)
        throw FatalError(key + ": expected a number of modes between 1 and " + std::to_string(st.ncells) +
                         " (the numbered cells), found " + std::to_string(nmodes));
    check_writable(key, name);
    check_writable(key, name + ".svg");

    const MatrixInput in = solve_input(st);
    const KSolve solve = [&](const WaveVector& k, const KModes* /*start*/, KModes& out) {
        if (k[0] != 0.0 || k[1] != 0.0 || k[2] != 0.0)
            throw FatalError(key + ": the Bloch solve at k != 0 is not available in this build");
        solve_modes(in, nmodes, 0.0, tol, ModeOutput{out.nmodes, out.W, out.PHASES, out.ZOUT, out.R, out.L});
    };
    Progress progress(key);
    const Dispersion d = follow_dispersion(wavevector_path(k1, k2, nk), solve, [&](int q) {
        progress.fraction(static_cast<double>(q + 1) / nk,
                          "wave vector " + std::to_string(q + 1) + " of " + std::to_string(nk));
    });

    const bool gyro_set = st.gyro != 1.0;
    const double hz_per_oe = gyro_set ? st.gyro / (2.0 * std::numbers::pi) : kDefaultHzPerOe;
    write_dispersion_table(name, d, hz_per_oe, gyro_set ? "SET_GYRO" : "the default, no SET_GYRO");
    plot_dispersion_svg(name + ".svg", d, hz_per_oe);
    s.ack();
}

}  // namespace torix
