// Commands of the field terms kept beside the tensor: cubic anisotropy and
// interlayer exchange.  Both need the tensor of the present grid and
// materials first (TENSOR_CREATE empties the list of such terms, so a term
// added before it would be lost), and both accumulate.
#include <array>
#include <string>

#include "dynamics/local_terms.hpp"
#include "interpreter/session.hpp"

namespace torix {

namespace {

void need_tensor_for_term(Session& s) {
    const ModelState& st = s.st;
    const TensorArray& T = st.AIJ;
    if (st.nx < 0 || st.ny < 0 || st.nz < 0)
        s.in.fail("the grid holds no cell (MASQUE_CREATE or MASQUE_LOAD first)");
    if (!T.allocated() || T.hi(0) != st.nx + 1 || T.hi(1) != st.ny + 1 || T.hi(2) != st.nz + 1 ||
        T.hi(4) != st.nmat)
        s.in.fail("no interaction tensor for the current grid and materials (run TENSOR_CREATE or TENSOR_LOAD first)");
}

void need_material_number(Session& s, int m, const char* which) {
    if (m < 1 || m > s.st.nmat)
        s.in.fail(std::string(which) + " " + std::to_string(m) + " is outside the materials 1.." +
                  std::to_string(s.st.nmat));
}

}  // namespace

// Line 1: material, K1, K2 (erg/cm^3).  Line 2: a1x a1y a1z a2x a2y a2z, two
// orthogonal crystal axes (any length); the third is a1 x a2.
void cmd_add_cubic_anisotropy(Session& s) {
    s.line();
    const int m = s.in.i32("the material");
    const double K1 = s.in.f64("K1"), K2 = s.in.f64("K2");
    need_tensor_for_term(s);
    need_material_number(s, m, "the material");
    s.line();
    std::array<double, 3> a1{}, a2{};
    a1[0] = s.in.f64("a1x"), a1[1] = s.in.f64("a1y"), a1[2] = s.in.f64("a1z");
    a2[0] = s.in.f64("a2x"), a2[1] = s.in.f64("a2y"), a2[2] = s.in.f64("a2z");
    CubicAnisotropy t;
    if (const std::string problem = make_cubic_anisotropy(m, K1, K2, a1, a2, t); !problem.empty())
        s.in.fail("expected two orthogonal crystal axes of nonzero length, found " + problem);
    s.st.local_terms.cubic.push_back(t);
    s.ack();
}

// Line: m1, m2, J1, J2 (erg/cm^2).
void cmd_add_interlayer_exchange(Session& s) {
    s.line();
    const int m1 = s.in.i32("the first material");
    const int m2 = s.in.i32("the second material");
    const double J1 = s.in.f64("J1"), J2 = s.in.f64("J2");
    need_tensor_for_term(s);
    need_material_number(s, m1, "the first material");
    need_material_number(s, m2, "the second material");
    if (m1 == m2)
        s.in.fail("expected two different materials, found " + std::to_string(m1) +
                  " twice (the coupling is between layers of two materials)");
    s.st.local_terms.interlayer.push_back(
        InterlayerExchange{m1, m2, J1, J2, s.st.dz, s.st.tensor_periodicity.pz != 0});
    s.ack();
}

}  // namespace torix
