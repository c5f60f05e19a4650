// Periodic bodies: which axes repeat.
#include <string>

#include "interpreter/session.hpp"

namespace torix {

// Line: px, py, pz (1 periodic, 0 not).  Takes effect at the next
// TENSOR_CREATE or TENSOR_LOAD; a tensor summed for other axes is refused
// by the commands that use it.
void cmd_set_periodic(Session& s) {
    s.line();
    int flag[3];
    const char* names[3] = {"px", "py", "pz"};
    for (int a = 0; a < 3; ++a) {
        flag[a] = s.in.i32(names[a]);
        if (flag[a] != 0 && flag[a] != 1)
            s.in.fail("expected 0 or 1 for " + std::string(names[a]) + ", found " + std::to_string(flag[a]));
    }
    const Periodicity p{flag[0], flag[1], flag[2]};
    if (p.count() == 3)
        s.in.fail("at most two periodic axes: the dipolar field of a body repeated along all three depends on the "
                  "shape of the whole (its lattice sum converges only conditionally)");
    s.st.periodic = p;
    s.ack();
}

}  // namespace torix
