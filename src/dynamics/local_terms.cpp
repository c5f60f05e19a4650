#include "dynamics/local_terms.hpp"

#include <cstdint>

namespace torix {

const LocalTerms& LocalTerms::none() {
    static const LocalTerms empty;
    return empty;
}

void add_local_fields(const LocalTerms& terms, const VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask,
                      VecGrid& H) {
    for (const CubicAnisotropy& t : terms.cubic) cubic_field(t, M, MS, mask, H);
    for (const InterlayerExchange& t : terms.interlayer) interlayer_field(t, M, MS, mask, H);
    dmi_interface_field(terms.dmi, M, mask, H);
}

double local_energy_correction(const LocalTerms& terms, const VecGrid& M, const Array<double, 1>& MS,
                               const IntGrid& mask) {
    // The DMI of the interfaces is linear in M and symmetric: -(1/2) M . H
    // counts it exactly, so it needs nothing here.
    if (terms.cubic.empty() && terms.interlayer.empty()) return 0.0;
    double e = 0.0;
    for (const CubicAnisotropy& t : terms.cubic) e += cubic_energy(t, M, MS, mask);
    for (const InterlayerExchange& t : terms.interlayer) e += interlayer_energy(t, M, MS, mask);
    VecGrid h = make_vec_grid(mask.hi(0), mask.hi(1), mask.hi(2), 0.0);
    for (const CubicAnisotropy& t : terms.cubic) cubic_field(t, M, MS, mask, h);
    for (const InterlayerExchange& t : terms.interlayer) interlayer_field(t, M, MS, mask, h);
    const std::ptrdiff_t np = static_cast<std::ptrdiff_t>(mask.size());
    const std::int32_t* q = mask.data();
    const double* m = M.data();
    const double* f = h.data();
    double mh = 0.0;
    for (std::ptrdiff_t p = 0; p < np; ++p)
        if (q[p] != 0)
            for (int c = 0; c < 3; ++c) mh += m[p + c * np] * f[p + c * np];
    return e + 0.5 * mh;
}

std::vector<FieldJacobianBlock> local_jacobian(const LocalTerms& terms, const VecGrid& M, const Array<double, 1>& MS,
                                               const IntGrid& mask) {
    std::vector<FieldJacobianBlock> out;
    for (const CubicAnisotropy& t : terms.cubic) cubic_jacobian(t, M, MS, mask, out);
    for (const InterlayerExchange& t : terms.interlayer) interlayer_jacobian(t, M, MS, mask, out);
    dmi_interface_jacobian(terms.dmi, mask, out);
    return out;
}

void add_vector_product_term(const VecGrid& M, const Array<double, 1>& MS, const std::array<double, 3>& MP, double s,
                             const IntGrid& mask, VecGrid& H) {
    if (s == 0.0 && MP[0] == 0.0 && MP[1] == 0.0 && MP[2] == 0.0) return;
    const std::ptrdiff_t np = static_cast<std::ptrdiff_t>(mask.size());
    const std::int32_t* q = mask.data();
    const double* m = M.data();
    double* h = H.data();
#pragma omp parallel for schedule(static) if (np > 16384)
    for (std::ptrdiff_t p = 0; p < np; ++p) {
        if (q[p] == 0) continue;
        const double m0 = m[p], m1 = m[p + np], m2 = m[p + 2 * np];
        const double b0 = s * h[p] - MP[0], b1 = s * h[p + np] - MP[1], b2 = s * h[p + 2 * np] - MP[2];
        const double ms = MS(q[p]);
        h[p] += (m1 * b2 - m2 * b1) / ms;
        h[p + np] += (m2 * b0 - m0 * b2) / ms;
        h[p + 2 * np] += (m0 * b1 - m1 * b0) / ms;
    }
}

}  // namespace torix
