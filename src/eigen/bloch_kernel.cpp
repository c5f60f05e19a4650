#include "eigen/bloch_kernel.hpp"

#include <algorithm>
#include <complex>
#include <vector>

namespace torix {

namespace {
// Component 1..9 (column by column) -> bloch_dipolar's 1..6 (xx yy zz xy xz yz).
constexpr int kSym[9] = {1, 4, 5, 4, 2, 6, 5, 6, 3};
}  // namespace

bool wavevector_allowed(const Periodicity& p, const std::array<double, 3>& k) {
    for (int a = 0; a < 3; ++a)
        if (k[a] != 0.0 && !p.along(a)) return false;
    return true;
}

BlochKernel bloch_kernel(const TensorArray& AIJ, const NeighbourBlocks& nb, const BlochTensor& dipolar_k,
                         const Lattice& lat, const std::array<double, 3>& k) {
    const int nmat = AIJ.extent(4);
    BlochKernel K({AIJ.range(0), AIJ.range(1), AIJ.range(2), Range{1, 9}, Range{1, nmat}}, cplx{});
    const bool dip = dipolar_k.allocated();
    for (int m = 1; m <= nmat; ++m)
        for (int c = 1; c <= 9; ++c)
            for (int l = AIJ.lo(2); l <= AIJ.hi(2); ++l)
                for (int j = AIJ.lo(1); j <= AIJ.hi(1); ++j)
                    for (int i = AIJ.lo(0); i <= AIJ.hi(0); ++i)
                        K(i, j, l, c, m) = AIJ(i, j, l, c, m) + (dip ? dipolar_k(i, j, l, kSym[c - 1]) : cplx{});

    // The neighbour blocks' images across the periodic boundaries take their
    // phase.  An offset o in the range satisfies |o| <= n + 2 <= 2 P, so
    // images up to two periods away are all there can be.
    if (nb.allocated()) {
        const int P[3] = {lat.nx + 1, lat.ny + 1, lat.nz + 1};
        const double d[3] = {lat.dx, lat.dy, lat.dz};
        const int r0 = lat.p.px ? 2 : 0, r1 = lat.p.py ? 2 : 0, r2 = lat.p.pz ? 2 : 0;
        for (int a = -r0; a <= r0; ++a)
            for (int b = -r1; b <= r1; ++b)
                for (int e = -r2; e <= r2; ++e) {
                    if (a == 0 && b == 0 && e == 0) continue;
                    const int R[3] = {a * P[0], b * P[1], e * P[2]};
                    const cplx w = std::polar(1.0, k[0] * R[0] * d[0] + k[1] * R[1] * d[1] + k[2] * R[2] * d[2]) - 1.0;
                    for (int dir = 1; dir <= 6; ++dir) {
                        const auto off = neighbour_offset(dir);
                        const std::array<int, 3> o{off[0] + R[0], off[1] + R[1], off[2] + R[2]};
                        bool inside = true;
                        for (int x = 0; x < 3; ++x) inside = inside && o[x] >= AIJ.lo(x) && o[x] <= AIJ.hi(x);
                        if (!inside) continue;
                        for (int m = 1; m <= std::min(nmat, nb.extent(2)); ++m)
                            for (int c = 1; c <= 9; ++c) K(o[0], o[1], o[2], c, m) += w * nb(c, dir, m);
                    }
                }
    }

    // u rather than m: the phase of the offset.
    for (int l = AIJ.lo(2); l <= AIJ.hi(2); ++l)
        for (int j = AIJ.lo(1); j <= AIJ.hi(1); ++j)
            for (int i = AIJ.lo(0); i <= AIJ.hi(0); ++i) {
                const cplx ph = std::polar(1.0, -(k[0] * i * lat.dx + k[1] * j * lat.dy + k[2] * l * lat.dz));
                for (int m = 1; m <= nmat; ++m)
                    for (int c = 1; c <= 9; ++c) K(i, j, l, c, m) *= ph;
            }
    return K;
}

BlochKernel bloch_kernel(const TensorArray& AIJ, const NeighbourBlocks& nb, const Lattice& lat,
                         const std::array<double, 3>& k) {
    std::vector<BlochTensor> dip;
    bloch_dipolar(lat, {k}, dip);
    return bloch_kernel(AIJ, nb, dip[0], lat, k);
}

}  // namespace torix
