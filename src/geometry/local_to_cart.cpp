#include "geometry/local_to_cart.hpp"

#include "eigen/dynamic_matrix.hpp"

#include <vector>

namespace torix {

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
                const double m[3] = {M(i, j, k, 1), M(i, j, k, 2), M(i, j, k, 3)};
                double R[9];  // column c (0 polar, 1 azimuthal) at R[3c .. 3c+2]
                local_frame(m, R);
                const cplx a1 = modes(n, 1, p);
                const cplx a2 = modes(n, 2, p);
                for (int c = 0; c < 3; ++c) out(n, c + 1) += R[c] * a1 + R[3 + c] * a2;
                ++count[static_cast<std::size_t>(n)];
            }
    for (int n = 1; n <= N; ++n) {
        const int w = count[static_cast<std::size_t>(n)];
        if (w > 1)
            for (int c = 1; c <= 3; ++c) out(n, c) /= static_cast<double>(w);
    }
}

void local_to_cart(int nx, int ny, int nz, int N, const IntGrid& MASQUE, const IntGrid& NUM, const VecGrid& M,
                   const Array<cplx, 3>& modes, int p, CVecGrid& u) {
    u = make_cvec_grid(nx, ny, nz);
    // Cells are independent; small grids are not worth a thread team.
#pragma omp parallel for schedule(static) if ((nx + 1) * (ny + 1) * (nz + 1) > 4096)
    for (int k = 0; k <= nz; ++k)
        for (int j = 0; j <= ny; ++j)
            for (int i = 0; i <= nx; ++i) {
                if (MASQUE(i, j, k) == 0) continue;
                const int n = NUM(i, j, k);
                if (n < 1 || n > N) continue;
                const double m[3] = {M(i, j, k, 1), M(i, j, k, 2), M(i, j, k, 3)};
                double R[9];
                local_frame(m, R);
                const cplx a1 = modes(n, 1, p);
                const cplx a2 = modes(n, 2, p);
                for (int c = 0; c < 3; ++c) u(i, j, k, c + 1) = R[c] * a1 + R[3 + c] * a2;
            }
}

}  // namespace torix
