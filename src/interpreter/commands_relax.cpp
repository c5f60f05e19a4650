// Relaxation and time-integration commands.
#include <cstdio>
#include <string>

#include "core/error.hpp"
#include "dynamics/field_files.hpp"
#include "dynamics/relax.hpp"
#include "dynamics/timestep.hpp"
#include "dynamics/trajectory.hpp"
#include "interpreter/session.hpp"
#include "output/vrml.hpp"

namespace torix {

namespace {

void need_timestep(const ModelState& st) {
    if (!(st.timestep > 0.0))
        throw FatalError(st.LINER + ": the Runge-Kutta integration needs a positive time step (SET_TIMESTEP)");
}

// Snapshot names of run r: "001m.dat", "001h.dat", "001.wrl" (at least three
// digits).
std::string run_prefix(int r) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%03d", r);
    return buf;
}

}  // namespace

// Line: N, threshold r1, alpha r2.  N runs in a row; r1 < 0 means 1e-5;
// r2 > 0 runs the damped alignment with alpha = r2, otherwise the
// Runge-Kutta relaxation with the stored time step.  After run r: the line
// " r E" (E the run's last energy measure) and the snapshots "<r>m.dat",
// "<r>h.dat" (binary magnetization and field files) and "<r>.wrl" (reduced
// VRML scene of M), r written with at least three digits.  At the end the
// field is computed afresh from the final M.
void cmd_relax(Session& s) {
    s.line();
    const int runs = s.in.i32("the number of runs");
    double threshold = s.in.f64("the threshold");
    const double alpha = s.in.f64("alpha");
    ModelState& st = s.st;
    need_field_inputs(st);
    if (runs > 0 && !(alpha > 0.0)) need_timestep(st);
    // Without a magnetic cell there is no energy to decrease, and the
    // Runge-Kutta runs would never meet their threshold.
    if (runs > 0 && count_magnetic(st.MASQUE) == 0)
        throw FatalError(st.LINER + ": the mask holds no magnetic cell, so there is nothing to relax");
    st.M2 = make_vec_grid(st.nx, st.ny, st.nz);
    const int method = use_fft(st) ? kMethodFft : kMethodDirect;
    if (threshold < 0.0) threshold = 0.00001;
    st.relax_set = true;
    st.relax_threshold = threshold;
    st.relax_alpha = alpha;
    for (int r = 1; r <= runs; ++r) {
        double E = 0.0;
        if (alpha > 0.0) {
            st.H = st.HINIT;
            E = relax(st.M, st.H, st.MS, st.MP, st.beta, st.AIJ, st.MASQUE, st.nx, st.ny, st.nz, st.nmat, alpha,
                      threshold, method, st.AIJ_FFT, st.M2, 0, st.local_terms);
        } else {
            E = relaxrk4(st.M, st.MS, st.MP, st.MASQUE, st.nx, st.ny, st.nz, st.nmat, st.beta, st.gyro, st.timestep,
                         st.AIJ, st.AIJ_FFT, st.H, method, threshold, st.HINIT, st.HRF, st.M2, st.local_terms);
        }
        say(r, E);
        const std::string pre = run_prefix(r);
        savem(st.M, st.MASQUE, st.nx, st.ny, st.nz, pre + "m.dat");
        savem(st.H, st.MASQUE, st.nx, st.ny, st.nz, pre + "h.dat");
        print_red_m(st.nx, st.ny, st.nz, st.MASQUE, st.M, 0, st.vrml_mode, st.vrml_fx, st.vrml_fy, st.vrml_fz,
                    pre + ".wrl");
    }
    compute_field(st);
    st.M2.release();
    s.ack();
}

void cmd_set_timestep(Session& s) {
    s.line();
    const double t = s.in.f64("the time step");
    ModelState& st = s.st;
    if (t >= 0.0) {
        st.timestep = t * st.gyro;
    } else {
        need_field_inputs(st);
        double dt = 0.0;
        set_timestep(st.HINIT, st.HRF, st.MS, st.MP, st.beta, st.AIJ, st.AIJ_FFT, st.MASQUE, st.nx, st.ny, st.nz,
                     st.nmat, dt, st.gyro, st.local_terms);
        st.timestep = dt;
    }
    say("timestep=", st.timestep / st.gyro);
    s.ack();
}

// Line: end time, angular frequency of the driving field (both in the
// script's time unit), output file.  Runge-Kutta run of M from t = 0 to the
// end time with the stored step; the applied field of every stage is HINIT
// plus the driving field HRF (SET_HRF) at that frequency.  The file gets the
// trajectory in the format of fm.
void cmd_exec(Session& s) {
    s.line();
    const double t_end = s.in.f64("the end time");
    const double omega = s.in.f64("the driving frequency");
    ModelState& st = s.st;
    st.FNAME = s.in.name("the output file name");
    need_field_inputs(st);
    need_timestep(st);
    // The number of steps is an int.
    if (t_end > 0.0 && !(t_end * st.gyro / st.timestep <= 2147483647.0))
        s.in.fail("the end time " + format_real(t_end) + " is more than 2147483647 time steps of " +
                  format_real(st.timestep / st.gyro));
    const bool rf = st.HRF.allocated();  // zero until SET_HRF sets a driving field
    const Drive drive{st.HINIT, st.HRF, rf, omega / st.gyro};
    const int method = use_fft(st) ? kMethodFft : kMethodDirect;
    fm(st.M, st.MS, st.MP, st.beta, st.MASQUE, st.AIJ, st.AIJ_FFT, drive, st.H, st.nx, st.ny, st.nz, st.nmat, method,
       t_end * st.gyro, st.timestep, st.gyro, st.FNAME, st.local_terms);
    s.ack();
}

}  // namespace torix
