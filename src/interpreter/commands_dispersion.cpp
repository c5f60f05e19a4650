// DISPERSION: the lowest modes along a straight path of wave vectors, the
// branches followed by mode overlap (eigen/dispersion.hpp), written as a
// table and an SVG plot (output/dispersion_files.hpp).
#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include "core/console.hpp"
#include "core/error.hpp"
#include "core/progress.hpp"
#include "core/records.hpp"
#include "eigen/bloch_dense.hpp"
#include "eigen/bloch_kernel.hpp"
#include "eigen/bloch_modes.hpp"
#include "eigen/dense_solve.hpp"
#include "eigen/dispersion.hpp"
#include "eigen/dynamic_matrix.hpp"
#include "eigen/slepc_solve.hpp"
#include "interpreter/session.hpp"
#include "output/dispersion_files.hpp"
#include "tensor/lattice_sum.hpp"

namespace torix {

namespace {

// Models of at most this order are solved densely at each wave vector (a
// Krylov basis would span the whole space; the dense solve is exact and
// takes milliseconds).
constexpr int kDenseOrder = 128;

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

// The k-dependent part of the dipolar lattice sum for the wave vectors of
// a path, computed for many wave vectors at once (their images share the
// near-field blocks), in batches of about kBatchBytes.
class DipolarParts {
public:
    DipolarParts(const Lattice& lat, const std::vector<WaveVector>& path) : lat_(lat), path_(path) {}
    // The part for k, or nullptr when k is not on the path.
    const BlochTensor* find(const WaveVector& k) {
        for (std::size_t q = 0; q < path_.size(); ++q) {
            if (path_[q] != k) continue;
            if (q < first_ || q >= first_ + parts_.size()) load(q);
            return &parts_[q - first_];
        }
        return nullptr;
    }

private:
    static constexpr double kBatchBytes = 256e6;
    void load(std::size_t q) {
        const double per_k = 6.0 * sizeof(cplx) * (2.0 * lat_.nx + 2) * (2.0 * lat_.ny + 2) * (2.0 * lat_.nz + 2);
        const std::size_t n = std::clamp<std::size_t>(static_cast<std::size_t>(kBatchBytes / per_k), 1, path_.size() - q);
        first_ = q;
        bloch_dipolar(lat_, std::vector<WaveVector>(path_.begin() + static_cast<std::ptrdiff_t>(q),
                                                    path_.begin() + static_cast<std::ptrdiff_t>(q + n)),
                      parts_);
    }
    Lattice lat_;
    std::vector<WaveVector> path_;
    std::vector<BlochTensor> parts_;
    std::size_t first_ = 0;
};

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

    if (st.periodic.any() && !st.neighbours.allocated())
        throw FatalError(key + ": the tensor's nearest-neighbour blocks are not known (TENSOR_CREATE or "
                               "TENSOR_LOAD after SET_PERIODIC)");
    const MatrixInput in = solve_input(st);
    const std::vector<WaveVector> path = wavevector_path(k1, k2, nk);
    const Lattice lattice{st.periodic, st.nx, st.ny, st.nz, st.dx, st.dy, st.dz};
    DipolarParts dipolar(lattice, st.periodic.any() ? path : std::vector<WaveVector>{});
    const BlochProblem problem{in, st.neighbours, lattice, {0.0, 0.0, 0.0}};
    const KSolve solve = [&](const WaveVector& k, const KModes* start, KModes& out) {
        const ModeOutput mo{out.nmodes, out.W, out.PHASES, out.ZOUT, out.R, out.L};
        if (!st.periodic.any()) {
            solve_modes(in, nmodes, 0.0, tol, mo);
            return;
        }
        // Every wave vector, k = 0 included, by the Bloch kernel, so that
        // the whole path is solved alike.
        const BlochTensor* part = dipolar.find(k);
        const BlochKernel K = part != nullptr ? bloch_kernel(st.AIJ, st.neighbours, *part, lattice, k)
                                              : bloch_kernel(st.AIJ, st.neighbours, lattice, k);
        const int n = 2 * st.ncells;
        if (n <= kDenseOrder) {
            std::vector<cplx> A(static_cast<std::size_t>(n) * static_cast<std::size_t>(n));
            assemble_dense_bloch(in, K, wave_per_cell(lattice, k), A.data());
            solve_dense_bloch(st.ncells, A.data(), nmodes, mo);
            return;
        }
        BlochProblem p = problem;
        p.k = k;
        ModeStart from;
        if (start != nullptr && start->nmodes > 0) {
            from.right = mode_columns(start->R, start->nmodes);
            from.left = mode_columns(start->L, start->nmodes);
        }
        solve_modes_bloch(p, K, nmodes, 0.0, tol, mo, start != nullptr ? &from : nullptr);
    };
    Progress progress(key);
    const Dispersion d = follow_dispersion(path, solve, [&](int q) {
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
