#include "geometry/local_to_cart.hpp"

#include <cmath>
#include <vector>

namespace torix {

void local_frame(double mx, double my, double mz, double R[3][3]) {
    const double r = std::sqrt(mx * mx + my * my + mz * mz);
    double ct = 1.0, st = 0.0, cp = 1.0, sp = 0.0;
    if (std::abs(mz) < 0.9999999 * r) {
        const double s = std::sqrt(mx * mx + my * my);
        ct = mz / r;
        st = s / r;
        cp = mx / s;
        sp = my / s;
    } else if (mz < 0.0) {
        ct = -1.0;
    }
    R[0][0] = ct * cp;
    R[1][0] = ct * sp;
    R[2][0] = -st;
    R[0][1] = -sp;
    R[1][1] = cp;
    R[2][1] = 0.0;
    R[0][2] = st * cp;
    R[1][2] = st * sp;
    R[2][2] = ct;
}

void local_to_cart(int nx, int ny, int nz, int N, const IntGrid& MASQUE, const IntGrid& NUM, const VecGrid& M,
                   const Array<cplx, 3>& modes, int p, Array<cplx, 2>& out) {
    out.allocate({Range{1, N}, Range{1, 3}}, cplx{0.0, 0.0});
    std::vector<int> count(static_cast<std::size_t>(N > 0 ? N + 1 : 1), 0);
    for (int i = 0; i <= nx; ++i)
        for (int j = 0; j <= ny; ++j)
            for (int k = 0; k <= nz; ++k) {
                if (MASQUE(i, j, k) == 0) continue;
                const int n = NUM(i, j, k);
                if (n < 1 || n > N) continue;
                double R[3][3];
                local_frame(M(i, j, k, 1), M(i, j, k, 2), M(i, j, k, 3), R);
                const cplx a1 = modes(n, 1, p);
                const cplx a2 = modes(n, 2, p);
                for (int c = 0; c < 3; ++c) out(n, c + 1) += R[c][0] * a1 + R[c][1] * a2;
                ++count[static_cast<std::size_t>(n)];
            }
    for (int n = 1; n <= N; ++n) {
        const int w = count[static_cast<std::size_t>(n)];
        if (w > 1)
            for (int c = 1; c <= 3; ++c) out(n, c) /= static_cast<double>(w);
    }
}

}  // namespace torix
