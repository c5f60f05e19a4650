// Driven-response commands, and the mode drawings and phase analyses whose
// work is not part of this program (they read their lines and acknowledge).
#include "interpreter/session.hpp"

namespace torix {

void cmd_set_hrf(Session& s) {
    s.line();
    const int kind = s.in.i32("the driving-field kind");
    if (kind == 1) {
        s.line();
        for (const char* w : {"Re hx", "Im hx", "Re hy", "Im hy", "Re hz", "Im hz"}) (void)s.in.f64(w);
    } else if (kind == 2) {
        s.line();
        for (const char* w : {"hx", "hy", "hz"}) (void)s.in.f64(w);
    } else if (kind == 3) {
        s.line();
        (void)s.in.i32("the format");
        s.st.FNAME = s.in.name("the file name");
    }
    s.ack();
}

void cmd_calc_c(Session& s) { s.ack(); }

void cmd_print_c(Session& s) {
    s.line();
    s.st.FNAME = s.in.name("the file name");
    s.ack();
}

void cmd_print_abs(Session& s) {
    s.line();
    s.st.FNAME = s.in.name("the file name");
    s.line();
    (void)s.in.f64("the frequency step");
    s.ack();
}

void cmd_print_phases(Session& s) {
    s.line();
    (void)s.in.i32("the first mode");
    (void)s.in.i32("the last mode");
    s.ack();
}

void cmd_draw_modes(Session& s) {
    s.line();
    (void)s.in.i32("the first mode");
    (void)s.in.i32("the last mode");
    s.ack();
}

void cmd_draw_modes_e(Session& s) {
    s.line();
    (void)s.in.f64("the drawing parameter");
    s.ack();
}

void cmd_draw_modes_p(Session& s) {
    s.line();
    (void)s.in.i32("the mode");
    (void)s.in.f64("the drawing parameter");
    s.line();
    (void)s.in.i32("the projection");
    s.ack();
}

void cmd_print_slices(Session& s) {
    s.line();
    for (int i = 1; i <= 6; ++i) (void)s.in.i32("integer " + std::to_string(i) + " of 6");
    s.ack();
}

void cmd_print_angle(Session& s) {
    s.line();
    for (int i = 1; i <= 3; ++i) (void)s.in.i32("integer " + std::to_string(i) + " of 3");
    for (int i = 1; i <= 4; ++i) (void)s.in.f64("real " + std::to_string(i) + " of 4");
    s.ack();
}

void cmd_vec3(Session& s) {
    s.line();
    (void)s.in.i32("the mode");
    (void)s.in.f64("the first real");
    (void)s.in.f64("the second real");
    s.st.FNAME = s.in.name("the file name");
    s.ack();
}

}  // namespace torix
