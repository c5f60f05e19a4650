// Relaxation, Runge-Kutta steps, time integration and the automatic time
// step: invariants (|M| = MS, energy falls with damping, is conserved
// without), physical end states, and the commands end to end.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "core/listio.hpp"
#include "dynamics/applied_field.hpp"
#include "dynamics/direct_field.hpp"
#include "dynamics/fft_field.hpp"
#include "dynamics/init_state.hpp"
#include "dynamics/relax.hpp"
#include "dynamics/timestep.hpp"
#include "dynamics/trajectory.hpp"
#include "geometry/shapes.hpp"
#include "tensor/tensor_build.hpp"
#include "test_util.hpp"

namespace torix {
namespace {

constexpr double kPi = 3.14159265358979323846;

// Permalloy-like material on 5 nm cubic cells.
struct Model {
    int nx, ny, nz;
    Array<double, 1> MS{{Range{1, 1}}, 800.0}, A{{Range{1, 1}}, 1.3e-6};
    IntGrid mask;
    TensorArray AIJ;
    FourierTensor F;
    VecGrid M, H, HINIT, work;
    CVecGrid HRF;
    std::array<double, 3> MP{0.0, 0.0, 0.0};
    double beta = 0.0;

    // `filled`: every cell magnetic and the tensor built.
    Model(int nx_, int ny_, int nz_, bool filled = false) : nx(nx_), ny(ny_), nz(nz_) {
        mask = make_int_grid(nx, ny, nz, filled ? 1 : 0);
        M = make_vec_grid(nx, ny, nz);
        H = make_vec_grid(nx, ny, nz);
        HINIT = make_vec_grid(nx, ny, nz);
        HRF = make_cvec_grid(nx, ny, nz);
        if (filled) build();
    }
    // Tensor and Fourier form once the mask is painted.
    void build() {
        AIJ = make_tensor(nx, ny, nz, 1);
        tensorbuild(A, MS, AIJ, nx, ny, nz, 5e-7, 5e-7, 5e-7, 1);
        if (nz == 0)
            aijfft2d(AIJ, F, nx, ny, 1);
        else
            aijfft(AIJ, F, nx, ny, nz, 1);
    }
    int method() const { return count_magnetic_cells() > 300 ? kMethodFft : kMethodDirect; }
    int count_magnetic_cells() const {
        int n = 0;
        for (auto v : mask) n += v != 0;
        return n;
    }
    // Calls fn(i, j, k) for every magnetic cell.
    template <class Fn>
    void each_cell(Fn fn) const {
        for_cells(nx, ny, nz, [&](int i, int j, int k) {
            if (mask(i, j, k) != 0) fn(i, j, k);
        });
    }
    void applied(double hx, double hy, double hz) {
        for_cells(nx, ny, nz,
                  [&](int i, int j, int k) { HINIT(i, j, k, 1) = hx, HINIT(i, j, k, 2) = hy, HINIT(i, j, k, 3) = hz; });
    }
    double run_relax(double alpha, double threshold, long max_passes = 0) {
        H = HINIT;
        return relax(M, H, MS, MP, beta, AIJ, mask, nx, ny, nz, 1, alpha, threshold, method(), F, work, max_passes);
    }
    // Largest relative deviation of |M| from MS over magnetic cells.
    double worst_length_error() const {
        double worst = 0.0;
        each_cell([&](int i, int j, int k) {
            worst = std::max(worst, std::abs(std::hypot(M(i, j, k, 1), M(i, j, k, 2), M(i, j, k, 3)) / 800.0 - 1.0));
        });
        return worst;
    }
    double hmax() {
        VecGrid h = HINIT;
        field_by_method(method(), M, MS, MP, beta, mask, AIJ, F, h, nx, ny, nz, 1);
        double big = 0.0;
        each_cell(
            [&](int i, int j, int k) { big = std::max(big, std::hypot(h(i, j, k, 1), h(i, j, k, 2), h(i, j, k, 3))); });
        return big;
    }
};

template <class Fn>
void quietly(Fn fn) {
    (void)captured_cout(fn);
}

TEST(Relax, HighThresholdReturnsAfterOneEvaluationWithMUnchanged) {
    Model m(3, 2, 1, true);
    initrandom(m.M, m.MS, m.mask, 3, 2, 1);
    m.applied(10.0, -20.0, 30.0);
    const VecGrid before = m.M;
    EXPECT_EQ(captured_cout([&] { m.run_relax(0.5, 1.0e10); }), "");  // no pass line
    EXPECT_TRUE(m.M == before);
    VecGrid want = m.HINIT;
    calcfields(m.M, m.MS, m.MP, 0.0, m.mask, m.AIJ, want, 3, 2, 1, 1);
    EXPECT_TRUE(m.H == want);  // H: applied field plus one field evaluation
}

TEST(Relax, PassLinesCountFromOneAndTheFieldIsResetBeforeEachEvaluation) {
    // A single cube cell in a field along z, M along z: the self field is
    // -4 pi / 3 M, so H = Happ - 4 pi/3 M on every pass (not accumulating),
    // and M does not move: one pass, change 0, energy -M . H.
    Model m(0, 0, 0, true);
    initdir(m.M, m.MS, m.mask, 0, 0, 0, 0.0, 0.0, 1.0);
    m.applied(0.0, 0.0, 5000.0);
    double E = 0.0;
    std::istringstream lines(captured_cout([&] { E = m.run_relax(0.3, 1e-12); }));
    int pass = 0;
    double change = -1.0, energy = 0.0;
    lines >> pass >> change >> energy;
    EXPECT_EQ(pass, 1);
    EXPECT_LT(change, 1e-15);
    const double hz = 5000.0 - 4.0 * kPi / 3.0 * 800.0;
    EXPECT_NEAR(energy, -800.0 * hz, 1e-9 * 800.0 * hz);
    EXPECT_EQ(E, energy);
    EXPECT_NEAR(m.H(0, 0, 0, 3), hz, 1e-9 * hz);
}

TEST(Relax, SphereInStrongFieldAlignsWithTheField) {
    Model m(5, 5, 5);
    int count = 0;
    calcsphere(m.mask, 5, 5, 5, 2.5, 2.5, 2.5, 0, 0, 0, 2.5, 2.5, 2.5, 1, count);
    ASSERT_GT(count, 50);
    m.build();
    initrandom(m.M, m.MS, m.mask, 5, 5, 5);
    const double u[3] = {1.0 / std::sqrt(3.0), -1.0 / std::sqrt(3.0), 1.0 / std::sqrt(3.0)};
    m.applied(2e5 * u[0], 2e5 * u[1], 2e5 * u[2]);
    quietly([&] { m.run_relax(0.5, 1e-10); });
    m.each_cell([&](int i, int j, int k) {
        EXPECT_GT((m.M(i, j, k, 1) * u[0] + m.M(i, j, k, 2) * u[1] + m.M(i, j, k, 3) * u[2]) / 800.0, 0.9999)
            << i << ' ' << j << ' ' << k;
    });
    EXPECT_LT(m.worst_length_error(), 1e-12);
}

TEST(Relax, ThinSquarePlateletRelaxesInPlane) {
    Model m(9, 9, 0, true);
    initdir(m.M, m.MS, m.mask, 9, 9, 0, 0.3, 0.1, 1.0);  // mostly out of plane
    quietly([&] { m.run_relax(0.02, 1e-5); });
    double mz_worst = 0.0, mx = 0.0, my = 0.0;
    m.each_cell([&](int i, int j, int k) {
        mz_worst = std::max(mz_worst, std::abs(m.M(i, j, k, 3)) / 800.0);
        mx += m.M(i, j, k, 1) / 800.0 / 100.0, my += m.M(i, j, k, 2) / 800.0 / 100.0;
    });
    EXPECT_LT(mz_worst, 1e-3);
    EXPECT_GT(std::hypot(mx, my), 0.9);  // a nearly uniform in-plane state
}

// Circulation of the in-plane magnetization about the disk axis and the
// core's z component.
void vortex_measures(const Model& m, double x0, double y0, double& circulation, double& core_mz) {
    double sum = 0.0;
    int n = 0, ncore = 0;
    core_mz = 0.0;
    m.each_cell([&](int i, int j, int k) {
        const double rx = i - x0, ry = j - y0, rho = std::hypot(rx, ry);
        if (rho <= 0.9) {
            core_mz += m.M(i, j, k, 3) / 800.0;
            ++ncore;
        } else if (rho > 2.0) {  // clockwise seen from +z: direction (ry, -rx) / rho
            sum += (m.M(i, j, k, 1) * ry - m.M(i, j, k, 2) * rx) / rho / 800.0;
            ++n;
        }
    });
    circulation = sum / n;
    core_mz /= ncore;
}

TEST(Relax, DiskStartedAsVortexStaysVortex) {
    // 16 cells across, two layers: more than 300 cells, so the FFT path runs.
    Model m(15, 15, 1);
    int count = 0;
    calcdisk(m.mask, 15, 15, 1, 7.5, 7.5, 0, 0, 1.0, 7.5, 7.5, 0.0, 1, count);
    ASSERT_GT(m.count_magnetic_cells(), 300);
    m.build();
    initvortex(m.M, m.MS, m.mask, 15, 15, 1, 7.5, 7.5);
    quietly([&] { m.run_relax(0.02, 1e-5); });
    double circ = 0.0, core = 0.0;
    vortex_measures(m, 7.5, 7.5, circ, core);
    EXPECT_GT(circ, 0.9);
    EXPECT_GT(core, 0.5);
    const auto mean = mean_reduced(m.M, m.MS, m.mask);
    EXPECT_LT(std::hypot(mean[0], mean[1]), 0.05);
}

// The platelet of the FMR standard problem (120 x 120 x 10 nm Permalloy,
// 5 nm cells, 1005 Oe along (1, 0.7, 0)).  With alpha = 0.5 the alignment
// overshoots the exchange field (about 8e5 Oe against MS = 800) and locks
// into a two-cycle whose change stays near 1.1 after its minimum of 3e-4 at
// pass 110; with alpha = 0.1 it converges in under 400 passes.
TEST(Relax, StallIsReportedOnceWithASmallerAlphaAndConvergingRunsAreQuiet) {
    const auto platelet = [] {
        auto m = std::make_unique<Model>(23, 23, 1, true);
        m->applied(823.3, 576.3, 0.0);
        initdir(m->M, m->MS, m->mask, 23, 23, 1, 1.0, 0.7, 0.0);
        return m;
    };
    auto stuck = platelet();
    testing::internal::CaptureStderr();
    quietly([&] { stuck->run_relax(0.5, 1e-9, 2500); });
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(holds(err, {"RELAX: warning:", "try alpha = 0.125"}));
    EXPECT_EQ(err.find("warning", err.find("warning") + 1), std::string::npos) << "said more than once: " << err;

    auto fine = platelet();
    testing::internal::CaptureStderr();
    const std::string out = captured_cout([&] { fine->run_relax(0.1, 1e-6, 2500); });
    EXPECT_EQ(testing::internal::GetCapturedStderr().find("warning"), std::string::npos);
    // Converged: the last pass line's change is below the threshold.
    const std::string last = out.substr(out.rfind('\n', out.size() - 2) + 1);
    std::istringstream ls(last);
    long pass = 0;
    double change = 0.0;
    ls >> pass >> change;
    EXPECT_LT(change, 1e-6) << last;
    EXPECT_LT(pass, 2500);
}

TEST(StallWatch, NewMinimaKeepItQuietAPlateauTriggersOnce) {
    StallWatch w(10);
    for (int p = 0; p < 100; ++p) EXPECT_FALSE(w.stalled(1.0 / (p + 1)));  // converging: a new minimum each pass
    int said = 0;
    for (int p = 0; p < 100; ++p) said += w.stalled(p % 2 ? 0.5 : 0.7);  // a two-cycle above the minimum
    EXPECT_EQ(said, 1);
    EXPECT_DOUBLE_EQ(w.minimum(), 0.01);
    EXPECT_EQ(w.minimum_pass(), 100);
}

TEST(RungeKutta, TorqueIsMinusMCrossH) {
    Model m(1, 0, 0);
    m.mask(0, 0, 0) = 1;  // cell 1 empty
    m.M(0, 0, 0, 1) = 1.0, m.M(0, 0, 0, 2) = 2.0, m.M(0, 0, 0, 3) = 3.0;
    m.H(0, 0, 0, 1) = -1.0, m.H(0, 0, 0, 2) = 0.5, m.H(0, 0, 0, 3) = 4.0;
    m.M(1, 0, 0, 1) = m.H(1, 0, 0, 2) = 7.0;
    VecGrid T = make_vec_grid(1, 0, 0, 9.0);
    calctorque(m.M, m.H, T, m.mask, 1, 0, 0);
    EXPECT_EQ(T(0, 0, 0, 1), -(2.0 * 4.0 - 3.0 * 0.5));
    EXPECT_EQ(T(0, 0, 0, 2), -(3.0 * -1.0 - 1.0 * 4.0));
    EXPECT_EQ(T(0, 0, 0, 3), -(1.0 * 0.5 - 2.0 * -1.0));
    for (int a = 1; a <= 3; ++a) EXPECT_EQ(T(1, 0, 0, a), 0.0);
}

TEST(RungeKutta, SingleCellPrecessesAtTheLarmorFrequency) {
    // One cube cell: the self field is along M, so M precesses about the
    // applied field at angular frequency |Happ| (internal time).
    Model m(0, 0, 0, true);
    initdir(m.M, m.MS, m.mask, 0, 0, 0, 1.0, 0.0, 1.0);
    m.applied(0.0, 0.0, 1000.0);
    const double period = 2.0 * kPi / 1000.0, dt = period / 200.0;
    const Drive drive{m.HINIT, m.HRF, false, 0.0};
    RkWork w;
    double E = 0.0;
    for (int s = 0; s < 50; ++s)  // a quarter period
        iterate(m.M, m.MS, m.MP, 0.0, m.mask, m.AIJ, m.F, drive, m.H, 0, 0, 0, 1, kMethodDirect, s * dt, dt, E, w);
    // dM/dt = -M x H with H along +z turns M from +x to +y... (M x z = -y)
    const double r = 800.0 / std::sqrt(2.0);
    EXPECT_NEAR(m.M(0, 0, 0, 1), 0.0, 1e-6 * r);
    EXPECT_NEAR(m.M(0, 0, 0, 2), r, 1e-6 * r);
    EXPECT_NEAR(m.M(0, 0, 0, 3), r, 1e-9 * r);
}

// Exact state under a drive turning about z: in the frame turning with the
// drive the field (h, 0, H0 - omega) is fixed and M turns about it at its
// length (dM/dt = H x M); the frame itself has turned by omega t about z.
std::array<double, 3> rotating_drive_state(std::array<double, 3> m0, double H0, double h, double omega, double t) {
    const double f[3] = {h, 0.0, H0 - omega};
    const double len = std::hypot(f[0], f[1], f[2]);
    const double n[3] = {f[0] / len, f[1] / len, f[2] / len};
    const double c = std::cos(len * t), sn = std::sin(len * t);
    const double nm = n[0] * m0[0] + n[1] * m0[1] + n[2] * m0[2];
    const double x[3] = {n[1] * m0[2] - n[2] * m0[1], n[2] * m0[0] - n[0] * m0[2], n[0] * m0[1] - n[1] * m0[0]};
    double r[3];
    for (int a = 0; a < 3; ++a) r[a] = m0[a] * c + x[a] * sn + n[a] * nm * (1.0 - c);
    const double cw = std::cos(omega * t), sw = std::sin(omega * t);
    return {r[0] * cw - r[1] * sw, r[0] * sw + r[1] * cw, r[2]};
}

TEST(RungeKutta, FourthOrderUnderATimeDependentDrive) {
    // One cube cell (its self field is along M and exerts no torque) in a
    // static field along z and a circularly polarised drive: the error at a
    // fixed end time must fall sixteenfold when the step halves, which needs
    // every stage to see the drive at its own time.
    const double H0 = 1000.0, h = 300.0, omega = 800.0, T = 1.3 * 2.0 * kPi / omega;
    const std::array<double, 3> m0{800.0 * 0.6, 0.0, 800.0 * 0.8};
    const auto exact = rotating_drive_state(m0, H0, h, omega, T);
    double err[3];
    for (int r = 0; r < 3; ++r) {
        Model m(0, 0, 0, true);
        m.applied(0.0, 0.0, H0);
        m.HRF(0, 0, 0, 1) = cplx(h, 0.0);  // Re(HRF e^{i omega t}) = h (cos, sin, 0)
        m.HRF(0, 0, 0, 2) = cplx(0.0, -h);
        for (int a = 1; a <= 3; ++a) m.M(0, 0, 0, a) = m0[a - 1];
        const Drive drive{m.HINIT, m.HRF, true, omega};
        const int steps = 40 << r;
        EXPECT_EQ(fm(m.M, m.MS, m.MP, 0.0, m.mask, m.AIJ, m.F, drive, m.H, 0, 0, 0, 1, kMethodDirect, T, T / steps,
                     1.0, ""),
                  steps);
        err[r] = std::hypot(m.M(0, 0, 0, 1) - exact[0], m.M(0, 0, 0, 2) - exact[1], m.M(0, 0, 0, 3) - exact[2]) /
                 800.0;
    }
    EXPECT_LT(err[0], 1e-3);
    for (int r = 0; r < 2; ++r) {
        EXPECT_GT(err[r] / err[r + 1], 13.0) << r;
        EXPECT_LT(err[r] / err[r + 1], 19.0) << r;
    }
}

TEST(RungeKutta, RelaxationPrintsZeemanPlusSelfEnergy) {
    // One cell with a hand-set self block -N (diagonal, no exchange): its
    // field is Happ - N M, so the energy density is -M . Happ + (1/2) M . N M.
    Model m(0, 0, 0);
    m.mask(0, 0, 0) = 1;
    m.AIJ = make_tensor(0, 0, 0, 1);
    const double N[3] = {0.5, 1.0, 2.0};
    for (int a = 0; a < 3; ++a) m.AIJ(0, 0, 0, 1 + 4 * a, 1) = -N[a];
    m.applied(300.0, 0.0, 2000.0);
    initdir(m.M, m.MS, m.mask, 0, 0, 0, 0.0, 1.0, 0.2);
    VecGrid best;
    double E = 0.0;
    const std::string out = captured_cout([&] {
        E = relaxrk4(m.M, m.MS, m.MP, m.mask, 0, 0, 0, 1, 0.3, 1.0, 1.0 / 40000.0, m.AIJ, m.F, m.H, kMethodDirect, 1e-4,
                     m.HINIT, m.HRF, best);
    });
    const auto at = out.rfind(" time spent");
    ASSERT_NE(at, std::string::npos);
    const auto line_start = out.rfind('\n', at - 2);
    const auto items = split_items(out.substr(line_start + 1, at - line_start - 1));
    ASSERT_EQ(items.size(), 2u) << out.substr(line_start + 1, at - line_start - 1);
    double want = 0.0;
    for (int a = 1; a <= 3; ++a)
        want += -m.M(0, 0, 0, a) * m.HINIT(0, 0, 0, a) + 0.5 * N[a - 1] * m.M(0, 0, 0, a) * m.M(0, 0, 0, a);
    EXPECT_NEAR(*parse_real(items[1]), want, 1e-12 * std::abs(want));
    EXPECT_EQ(*parse_real(items[1]), E);
    // Damped: near the minimum, M close to along its field.
    const double hz = 2000.0 - N[2] * m.M(0, 0, 0, 3), hx = 300.0 - N[0] * m.M(0, 0, 0, 1);
    EXPECT_GT((m.M(0, 0, 0, 1) * hx + m.M(0, 0, 0, 3) * hz) / (800.0 * std::hypot(hx, hz)), 0.99);
}

// Rows t, mx, my, mz, E of a trajectory file.
std::vector<std::vector<double>> read_trajectory(const std::string& path) {
    auto rows = number_rows(read_file(path));
    for (const auto& r : rows) EXPECT_EQ(r.size(), 5u);
    return rows;
}

TEST(Trajectory, EnergyConservedWithoutDampingAndFallingWithIt) {
    TempDir dir;
    double drift[2] = {0.0, 0.0}, fall[2] = {0.0, 0.0}, scale = 0.0;
    for (int damped = 0; damped < 2; ++damped) {
        Model m(3, 2, 1, true);
        initrandom(m.M, m.MS, m.mask, 3, 2, 1);
        m.beta = damped ? 0.2 : 0.0;
        const double dt = 1.0 / (64.0 * m.hmax());
        const Drive drive{m.HINIT, m.HRF, false, 0.0};
        const std::string file = (dir / ("traj" + std::to_string(damped) + ".dat")).string();
        const int steps = fm(m.M, m.MS, m.MP, m.beta, m.mask, m.AIJ, m.F, drive, m.H, 3, 2, 1, 1, kMethodDirect,
                             100.5 * dt, dt, 2.0, file);
        EXPECT_EQ(steps, 101);
        const auto rows = read_trajectory(file);
        ASSERT_EQ(rows.size(), 102u);
        EXPECT_EQ(rows[0][0], 0.0);
        EXPECT_NEAR(rows[101][0], 101 * dt / 2.0, 1e-12 * rows[101][0]);  // time in script units
        const double E0 = rows[0][4];
        scale = std::abs(E0);
        for (std::size_t p = 0; p < rows.size(); ++p) {
            drift[damped] = std::max(drift[damped], std::abs(rows[p][4] - E0) / std::abs(E0));
            EXPECT_LE(std::hypot(rows[p][1], rows[p][2], rows[p][3]), 1.0 + 1e-12);
            if (damped && p > 0) {
                EXPECT_LE(rows[p][4], rows[p - 1][4]) << "step " << p;
            }
        }
        fall[damped] = E0 - rows.back()[4];
        EXPECT_LT(m.worst_length_error(), 1e-12);  // each step keeps |M| = MS
    }
    EXPECT_LT(drift[0], 1e-8);          // no damping: conserved to the integrator's accuracy
    EXPECT_GT(fall[1], 1e-3 * scale);   // damping: clearly lower at the end
}

TEST(Timestep, FirstStepFromTheLargestFieldAndPowerOfTwoResult) {
    TempDir dir;
    const InDir in(dir);
    Model m(0, 0, 0, true);
    m.applied(0.0, 0.0, 2000.0);
    // The random start of one cell: its field is Happ - 4 pi/3 M.
    initrandom(m.M, m.MS, m.mask, 0, 0, 0);
    const double hmax = std::hypot(m.HINIT(0, 0, 0, 1) - 4 * kPi / 3 * m.M(0, 0, 0, 1),
                                   m.HINIT(0, 0, 0, 2) - 4 * kPi / 3 * m.M(0, 0, 0, 2),
                                   m.HINIT(0, 0, 0, 3) - 4 * kPi / 3 * m.M(0, 0, 0, 3));
    double dt = 0.0;
    const std::string out =
        captured_cout([&] { set_timestep(m.HINIT, m.HRF, m.MS, m.MP, 0.0, m.AIJ, m.F, m.mask, 0, 0, 0, 1, dt, 1.0); });
    const double dt0 = 1.0 / (16.0 * hmax);
    EXPECT_NEAR(std::stod(out), dt0, 1e-12 * dt0);
    const double ratio = std::log2(dt / dt0);
    EXPECT_NEAR(ratio, std::round(ratio), 1e-9);
    EXPECT_GE(ratio, 1.0);  // precession at |Happ| is easy for RK4: the step grows
    const auto rows = read_trajectory((dir / "test.dat").string());
    EXPECT_EQ(rows.size(), 129u);  // start + 128 steps of the first dt
}

TEST(Timestep, ChosenStepStaysWithinOnePercentOfTheReferenceAndItsDoubleDoesNot) {
    // Twelve cells with exchange and dipolar coupling: the trial steps
    // leave the reference gradually, so the 1 % bound decides the step.
    TempDir dir;
    Model m(3, 2, 1, true);
    m.applied(0.0, 0.0, 500.0);
    double dt = 0.0;
    {
        const InDir in(dir);
        quietly([&] { set_timestep(m.HINIT, m.HRF, m.MS, m.MP, 0.0, m.AIJ, m.F, m.mask, 3, 2, 1, 1, dt, 1.0); });
    }
    // The same random start, integrated here over 128 first steps.
    initrandom(m.M, m.MS, m.mask, 3, 2, 1);
    const VecGrid start = m.M;
    const double dt0 = 1.0 / (16.0 * m.hmax()), T = 128.0 * dt0;
    const Drive drive{m.HINIT, m.HRF, false, 0.0};
    auto end_state = [&](double step) {
        VecGrid M = start;
        fm(M, m.MS, m.MP, 0.0, m.mask, m.AIJ, m.F, drive, m.H, 3, 2, 1, 1, kMethodDirect, T, step, 1.0, "");
        return M;
    };
    const VecGrid ref = end_state(dt0);
    auto deviation = [&](double step) {
        const VecGrid M = end_state(step);
        double sum = 0.0;
        m.each_cell([&](int i, int j, int k) {
            for (int a = 1; a <= 3; ++a) sum += std::abs(M(i, j, k, a) - ref(i, j, k, a)) / 800.0;
        });
        return sum / m.count_magnetic_cells();
    };
    ASSERT_LT(2.0 * dt, T);  // the bound, not the interval, ends the doubling
    EXPECT_GT(dt, dt0);
    EXPECT_LE(deviation(dt), 0.01);
    EXPECT_GT(deviation(2.0 * dt), 0.01);
}

// End to end: the RELAX, SET_TIMESTEP and EXEC commands.
TEST(RelaxCommands, RungeKuttaRunsSnapshotsAndExec) {
    TempDir dir;
    dir.write("input.dat",
              "SET_CELL\n5e-7 5e-7 5e-7\nMASQUE_CREATE\n2e-6 1.5e-6 1e-6\nADD_SHAPE\n3\n2e-6 1.5e-6 1e-6 0 0 0 1\n"
              "LOAD_MAT\n1\n1.3e-6 800\nTENSOR_CREATE\n0\nINIT_M\n3\nSET_BETA\n0.5\nSET_TIMESTEP\n-1\n"
              "RELAX\n2 -1 0\nSET_BETA\n0\nEXEC\n0.001 0 traj.dat\nEND\n");
    const RunResult r = run_torix(dir);
    ASSERT_EQ(r.status, 0) << r.err;
    // " time spent": alpha = 0 is the Runge-Kutta method.
    EXPECT_TRUE(holds(r.out, {" timestep= ", " time spent ", " RELAX ok", " EXEC ok"}));
    for (const char* f : {"001m.dat", "001h.dat", "001.wrl", "002m.dat", "002h.dat", "002.wrl", "test.dat",
                          "traj.dat"})
        EXPECT_TRUE(dir.exists(f)) << f;
    EXPECT_FALSE(dir.exists("003m.dat"));
    const auto rows = read_trajectory((dir / "traj.dat").string());
    ASSERT_GE(rows.size(), 2u);
    EXPECT_GE(rows.back()[0], 0.001 * (1 - 1e-9));
}

}  // namespace
}  // namespace torix
