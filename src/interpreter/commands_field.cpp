// Field commands: applied field, initial state, field evaluation, files.
#include "interpreter/session.hpp"

namespace torix {

void cmd_add_ext_field(Session& s) {
    s.line();
    const int kind = s.in.i32("the field kind");
    if (kind == 1) {
        s.line();
        for (const char* w : {"Hx", "Hy", "Hz"}) (void)s.in.f64(w);
    } else if (kind == 2) {
        s.line();
        (void)s.in.i32("the format");
        s.st.FNAME = s.in.name("the file name");
    }
    s.ack();
}

void cmd_init_m(Session& s) {
    s.line();
    const int kind = s.in.i32("the initial state kind");
    if (kind == 2) {
        s.line();
        for (const char* w : {"ux", "uy", "uz"}) (void)s.in.f64(w);
    }
    s.ack();
}

void cmd_calc_field(Session& s) { s.ack(); }

void cmd_m_save(Session& s) {
    s.line();
    (void)s.in.i32("the format");
    s.st.FNAME = s.in.name("the file name");
    s.ack();
}

void cmd_m_load(Session& s) {
    s.line();
    (void)s.in.i32("the format");
    s.st.FNAME = s.in.name("the file name");
    s.ack();
}

void cmd_h_save(Session& s) {
    s.line();
    (void)s.in.i32("the format");
    s.st.FNAME = s.in.name("the file name");
    s.ack();
}

void cmd_h_average(Session& s) {
    s.line();
    for (const char* w : {"x1", "y1", "z1", "x2", "y2", "z2"}) (void)s.in.f64(w);
    s.ack();
}

void cmd_h_load(Session& s) {
    s.line();
    (void)s.in.i32("the format");
    s.st.FNAME = s.in.name("the file name");
    s.ack();
}

}  // namespace torix
