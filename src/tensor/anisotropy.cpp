#include "tensor/anisotropy.hpp"

namespace torix {

void addanisotropy(TensorArray& AIJ, const Array<double, 1>& MS, int /*nx*/, int /*ny*/, int /*nz*/, double ux,
                   double uy, double uz, double& K, int m, int /*nmat*/) {
    K = K / (MS(m) * MS(m));
    const double u[3] = {ux, uy, uz};
    for (int b = 0; b < 3; ++b)
        for (int a = 0; a < 3; ++a) AIJ(0, 0, 0, 1 + a + 3 * b, m) += K * u[a] * u[b];
}

}  // namespace torix
