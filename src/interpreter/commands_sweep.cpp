// The field sweep: relax, solve and follow the mode branches at each value
// of a uniform applied field stepped along a line.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <numbers>
#include <string>
#include <vector>

#include "core/error.hpp"
#include "core/progress.hpp"
#include "dynamics/relax.hpp"
#include "eigen/branch_match.hpp"
#include "interpreter/session.hpp"
#include "output/response.hpp"
#include "output/sweep_files.hpp"

namespace torix {

namespace {

// A pair of modes of successive steps whose overlap weight (branch_match.hpp)
// is below this continues no branch.
constexpr double kMinWeight = 0.2;
// A step where m (unit vector) changes by more than this in some cell has
// jumped to another state: its modes continue no branch.
constexpr double kJump = 0.5;
// Relative residual of the matrix-free solves: frequencies to about 1e-8,
// finer than the steps resolve, at two thirds of the products of 1e-10.
constexpr double kTolerance = 1e-8;

// Frequencies in GHz: with SET_GYRO (any value but the start value 1) the
// ratio given there, in rad/(s Oe); else gamma / 2 pi = 2.8 MHz/Oe.
void set_gyro_scale(const ModelState& st, SweepRecord& rec) {
    char buf[160];
    if (st.gyro != 1.0) {
        rec.ghz_per_oe = st.gyro / (2.0 * std::numbers::pi * 1e9);
        std::snprintf(buf, sizeof buf, "f (Oe) * gamma / 2 pi with gamma = %.9g rad/(s Oe) (SET_GYRO)", st.gyro);
    } else {
        rec.ghz_per_oe = 2.8e-3;
        std::snprintf(buf, sizeof buf, "f (Oe) * 2.8 MHz/Oe (gamma / 2 pi; no SET_GYRO)");
    }
    rec.gyro_note = buf;
}

// Largest change of the unit magnetization over the magnetic cells, and
// the cell where it happens.
double largest_change(const ModelState& st, const VecGrid& before, std::array<int, 3>& where) {
    double worst = 0.0;
    for (int k = 0; k <= st.nz; ++k)
        for (int j = 0; j <= st.ny; ++j)
            for (int i = 0; i <= st.nx; ++i) {
                const int q = st.MASQUE(i, j, k);
                if (q == 0) continue;
                double d2 = 0.0;
                for (int c = 1; c <= 3; ++c) {
                    const double d = (st.M(i, j, k, c) - before(i, j, k, c)) / st.MS(q);
                    d2 += d * d;
                }
                if (d2 > worst * worst) {
                    worst = std::sqrt(d2);
                    where = {i, j, k};
                }
            }
    return worst;
}

// One relaxation from the present M with the parameters of the last RELAX;
// H holds the field of the result.
void relax_step(ModelState& st, int method) {
    if (st.relax_alpha > 0.0) {
        st.H = st.HINIT;
        relax(st.M, st.H, st.MS, st.MP, st.beta, st.AIJ, st.MASQUE, st.nx, st.ny, st.nz, st.nmat, st.relax_alpha,
              st.relax_threshold, method, st.AIJ_FFT, st.M2, 0, st.local_terms);
    } else {
        relaxrk4(st.M, st.MS, st.MP, st.MASQUE, st.nx, st.ny, st.nz, st.nmat, st.beta, st.gyro, st.timestep, st.AIJ,
                 st.AIJ_FFT, st.H, method, st.relax_threshold, st.HINIT, st.HRF, st.M2, st.local_terms);
    }
    compute_field(st);
}

std::string field_text(const std::array<double, 3>& h) {
    char buf[96];
    std::snprintf(buf, sizeof buf, "(%.6g, %.6g, %.6g) Oe", h[0], h[1], h[2]);
    return buf;
}

}  // namespace

// Line 1: H1 (3 reals), H2 (3 reals), nsteps; line 2: nmodes, solver (0
// matrix-free, 1 dense), f0 (GHz, <= 0: no field-swept absorption); line 3:
// name.  See docs/commands.md and docs/output.md.
void cmd_sweep_field(Session& s) {
    ModelState& st = s.st;
    const std::string& k = st.LINER;
    SweepRecord rec;
    s.line();
    for (double& h : rec.H1) h = s.in.f64("a component of H1");
    for (double& h : rec.H2) h = s.in.f64("a component of H2");
    rec.nsteps = s.in.i32("the number of steps");
    if (rec.nsteps < 1) s.in.fail("expected a number of steps of at least 1, found " + std::to_string(rec.nsteps));
    for (int a = 0; a < 3; ++a)
        if (!std::isfinite(rec.H1[a]) || !std::isfinite(rec.H2[a])) s.in.fail("expected finite fields H1 and H2");
    if (rec.H1 == rec.H2) s.in.fail("expected H2 different from H1, found both " + field_text(rec.H1));
    s.line();
    const int nmodes = s.in.i32("the number of modes");
    const int solver = s.in.i32("the solver");
    const double f0 = s.in.f64("the frequency f0");
    if (nmodes < 1) s.in.fail("expected a number of modes of at least 1, found " + std::to_string(nmodes));
    if (solver != 0 && solver != 1)
        s.in.fail("expected the solver 0 (matrix-free) or 1 (dense), found " + std::to_string(solver));
    if (!std::isfinite(f0)) s.in.fail("expected a finite frequency f0 (GHz)");
    s.line();
    const std::string name = s.in.name("the file name");
    st.FNAME = name;

    need_field_inputs(st);
    if (!st.relax_set) throw FatalError(k + ": no relaxation parameters (a RELAX command must come first)");
    if (count_magnetic(st.MASQUE) == 0) throw FatalError(k + ": the mask holds no magnetic cell, so there is nothing to sweep");
    if (!(st.relax_alpha > 0.0) && !(st.timestep > 0.0))
        throw FatalError(k + ": the Runge-Kutta relaxation of the last RELAX needs a positive time step (SET_TIMESTEP)");
    if (!st.numbered) build_numbering(st, st.s1, st.s2, st.s3);
    need_solve_inputs(st, solver == 1);
    if (nmodes > st.ncells)
        throw FatalError(k + ": expected a number of modes between 1 and " + std::to_string(st.ncells) +
                         " (the numbered cells), found " + std::to_string(nmodes));
    if (!st.HRF.allocated() || st.HRF.hi(0) != st.nx || st.HRF.hi(1) != st.ny || st.HRF.hi(2) != st.nz)
        st.HRF = make_cvec_grid(st.nx, st.ny, st.nz);

    set_gyro_scale(st, rec);
    rec.e = sweep_direction(rec.H1, rec.H2);
    const double w0 = f0 > 0.0 ? f0 / rec.ghz_per_oe : 0.0;

    // The applied field without its uniform part, which the sweep replaces.
    VecGrid base = st.HINIT;
    for (int c = 1; c <= 3; ++c)
        for (int z = 0; z <= st.nz; ++z)
            for (int y = 0; y <= st.ny; ++y)
                for (int x = 0; x <= st.nx; ++x) base(x, y, z, c) -= st.HUNIFORM[c - 1];

    const int method = use_fft(st) ? kMethodFft : kMethodDirect;
    st.M2 = make_vec_grid(st.nx, st.ny, st.nz);
    VecGrid before;
    Array<cplx, 3> old_right;
    int old_n = 0;
    std::vector<int> old_branch;
    Progress progress(k);
    for (int step = 0; step <= rec.nsteps; ++step) {
        SweepStep rs;
        const double t = static_cast<double>(step) / rec.nsteps;
        for (int a = 0; a < 3; ++a) rs.H[a] = rec.H1[a] + t * (rec.H2[a] - rec.H1[a]);
        if (step == rec.nsteps) rs.H = rec.H2;
        rs.s = rs.H[0] * rec.e[0] + rs.H[1] * rec.e[1] + rs.H[2] * rec.e[2];
        for (int c = 1; c <= 3; ++c)
            for (int z = 0; z <= st.nz; ++z)
                for (int y = 0; y <= st.ny; ++y)
                    for (int x = 0; x <= st.nx; ++x) st.HINIT(x, y, z, c) = base(x, y, z, c) + rs.H[c - 1];
        st.HUNIFORM = rs.H;
        before = st.M;
        relax_step(st, method);

        solve_present_modes(st, nmodes, solver == 1, kTolerance);
        calc_c(st.nmodes, st.nx, st.ny, st.nz, st.ncells, st.MODES, st.MODESL, st.M, st.MASQUE, st.NUM, st.HRF, st.C);

        // Branches: continued by overlap, new ones numbered on.
        std::vector<int> match(static_cast<std::size_t>(st.nmodes), 0);
        if (step > 0) {
            std::array<int, 3> cell{0, 0, 0};
            const double change = largest_change(st, before, cell);
            if (change > kJump) {
                rs.jump = true;
                std::cerr << k << ": step " << step << " of " << rec.nsteps << ", H = " << field_text(rs.H)
                          << ": the magnetization jumped (m changed by " << change << " in cell (" << cell[0] << ","
                          << cell[1] << "," << cell[2] << ")); new branches start here\n"
                          << std::flush;
            } else {
                const auto w = branch_weights(old_right, old_n, st.MODES, st.MODESL, st.nmodes);
                match = match_branches(w, st.nmodes, old_n, kMinWeight);
            }
        }
        std::vector<int> branch(static_cast<std::size_t>(st.nmodes), 0);
        for (int p = 1; p <= st.nmodes; ++p) {
            const int j = match[static_cast<std::size_t>(p - 1)];
            branch[static_cast<std::size_t>(p - 1)] = j > 0 ? old_branch[static_cast<std::size_t>(j - 1)] : ++rec.nbranches;
            rs.modes.push_back(SweepMode{branch[static_cast<std::size_t>(p - 1)], st.W(p, 1), st.W(p, 2), st.C(p)});
        }
        old_branch = branch;
        old_right = st.MODES;
        old_n = st.nmodes;
        rec.steps.push_back(std::move(rs));
        write_sweep_table(name, rec);
        if (progress.due())
            progress.show("step " + std::to_string(step) + " of " + std::to_string(rec.nsteps) + ", H = " +
                          field_text(rec.steps.back().H) + ", " + format_duration(progress.elapsed()));
    }
    st.M2.release();

    std::vector<FieldSample> samples;
    if (f0 > 0.0) {
        samples = field_absorption(rec, w0);
        write_field_absorption(name + "_fmr.txt", rec, f0, samples, find_resonances(samples));
    }
    plot_sweep_svg(name + ".svg", rec, f0, samples);
    write_absorption_map(name + "_map.png", rec);
    s.ack();
}

}  // namespace torix
