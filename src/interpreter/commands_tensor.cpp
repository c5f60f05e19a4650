// Tensor commands: build, anisotropy, files.
#include "interpreter/session.hpp"
#include "tensor/newell.hpp"

namespace torix {

void cmd_tensor_macro(Session& s) { s.ack(); }

void cmd_tensor_create(Session& s) {
    s.line();
    const int kind = s.in.i32("the tensor kind");
    if (kind > 0) {
        s.line();
        (void)s.in.i32("the first integer");
        (void)s.in.i32("the second integer");
        (void)s.in.f64("the real parameter");
    }
    ModelState& st = s.st;
    st.AIJ = make_tensor(st.nx, st.ny, st.nz, st.nmat);
    if (kind <= 0)
        for (int m = 1; m <= st.nmat; ++m)
            tensornewall(st.A, st.MS, st.AIJ, st.nx, st.ny, st.nz, st.dx, st.dy, st.dz, m, st.nmat);
    refresh_fourier(st);
    s.ack();
}

void cmd_add_anisotropy(Session& s) {
    s.line();
    (void)s.in.i32("the material");
    for (const char* w : {"ux", "uy", "uz", "K"}) (void)s.in.f64(w);
    s.ack();
}

void cmd_tensor_save(Session& s) {
    s.line();
    (void)s.in.i32("the format");
    (void)s.in.i32("the material");
    s.st.FNAME = s.in.name("the file name");
    s.ack();
}

void cmd_tensor_load(Session& s) {
    s.line();
    (void)s.in.i32("the format");
    (void)s.in.i32("the material");
    s.st.FNAME = s.in.name("the file name");
    s.ack();
}

}  // namespace torix
