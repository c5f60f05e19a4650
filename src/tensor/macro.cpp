#include "tensor/macro.hpp"

#include <cstdint>
#include <cstdlib>

#include "tensor/tensor_accurate.hpp"
#include "tensor/tensor_files.hpp"

namespace torix {

namespace {

int block_count(int n, int b) { return static_cast<int>((std::int64_t{n} + b) / b); }

bool inside(const TensorArray& T, int i, int j, int k) {
    return i >= T.lo(0) && i <= T.hi(0) && j >= T.lo(1) && j <= T.hi(1) && k >= T.lo(2) && k <= T.hi(2);
}

}  // namespace

void blocktensor(const TensorArray& AIJ, int nx, int ny, int nz, double dx, double dy, double dz, int bx, int by,
                 int bz, int m, TensorArray& M) {
    const int nbx = block_count(nx, bx) - 1, nby = block_count(ny, by) - 1, nbz = block_count(nz, bz) - 1;
    M = make_tensor(nbx, nby, nbz, 1);
    const AccuratePlan plan = plan_accurate(dx, dy, dz, 0, 0, 0.0);
    const double pairs = static_cast<double>(bx) * by * bz;
    // The nine components of the cell tensor at cell offset (i, j, k).
    const auto cell = [&](int i, int j, int k, double v[9]) {
        if (inside(AIJ, i, j, k) || inside(AIJ, -i, -j, -k)) {
            const int s = inside(AIJ, i, j, k) ? 1 : -1;
            for (int c = 0; c < 9; ++c) v[c] = AIJ(s * i, s * j, s * k, c + 1, m);
            return;
        }
        double b[6];
        accurate_block(plan, i, j, k, b);
        const double full[9] = {b[0], b[3], b[4], b[3], b[1], b[5], b[4], b[5], b[2]};
        for (int c = 0; c < 9; ++c) v[c] = full[c];
    };
#pragma omp parallel for schedule(static)
    for (int I = -nbx; I <= nbx + 1; ++I)
        for (int J = -nby; J <= nby + 1; ++J)
            for (int K = -nbz; K <= nbz + 1; ++K) {
                double acc[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};
                for (int a = 1 - bx; a <= bx - 1; ++a)
                    for (int b = 1 - by; b <= by - 1; ++b)
                        for (int c = 1 - bz; c <= bz - 1; ++c) {
                            const double w = static_cast<double>(bx - std::abs(a)) * (by - std::abs(b)) *
                                             (bz - std::abs(c));
                            double v[9];
                            cell(I * bx + a, J * by + b, K * bz + c, v);
                            for (int n = 0; n < 9; ++n) acc[n] += w * v[n];
                        }
                for (int n = 0; n < 9; ++n) M(I, J, K, n + 1, 1) = acc[n] / pairs;
            }
}

void calcmacro(const TensorArray& AIJ, int nx, int ny, int nz, double dx, double dy, double dz, int bx, int by,
               int bz, int m) {
    TensorArray M;
    blocktensor(AIJ, nx, ny, nz, dx, dy, dz, bx, by, bz, m, M);
    const int nbx = M.hi(0) - 1, nby = M.hi(1) - 1, nbz = M.hi(2) - 1;
    savetensor(M, nbx, nby, nbz, 1, 1, "macro.dat");
    savetensort(M, nbx, nby, nbz, 1, 1, "macro.txt");
}

}  // namespace torix
