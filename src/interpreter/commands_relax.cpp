// Relaxation and time-integration commands.
#include "interpreter/session.hpp"

namespace torix {

void cmd_relax(Session& s) {
    s.line();
    (void)s.in.i32("the number of runs");
    (void)s.in.f64("the threshold");
    (void)s.in.f64("alpha");
    s.ack();
}

void cmd_set_timestep(Session& s) {
    s.line();
    const double t = s.in.f64("the time step");
    ModelState& st = s.st;
    if (t >= 0.0) st.timestep = t * st.gyro;
    say("timestep=", st.timestep / st.gyro);
    s.ack();
}

void cmd_exec(Session& s) {
    s.line();
    (void)s.in.f64("the end time");
    (void)s.in.f64("the driving frequency");
    s.st.FNAME = s.in.name("the output file name");
    s.ack();
}

}  // namespace torix
