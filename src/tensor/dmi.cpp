#include "tensor/dmi.hpp"

#include <cmath>

#include "tensor/lattice_sum.hpp"

namespace torix {

namespace {

// [v x] column by column: entry (a, b) at a + 3 b is sum_l eps(a, l, b) v_l.
std::array<double, 9> cross_matrix(const double v[3]) {
    return {0.0, v[2], -v[1], -v[2], 0.0, v[0], v[1], -v[0], 0.0};
}

}  // namespace

std::array<double, 9> dmi_block(int kind, double D, double ms, double h, int d) {
    const auto o = neighbour_offset(d);
    double g[3];
    if (kind == kDmiInterfacial) {  // -(z x o)
        g[0] = o[1];
        g[1] = -o[0];
        g[2] = 0.0;
    } else {  // o
        g[0] = o[0];
        g[1] = o[1];
        g[2] = o[2];
    }
    auto b = cross_matrix(g);
    const double f = D / (ms * ms * h);
    for (double& v : b) v *= f;
    return b;
}

void adddmi(TensorArray& AIJ, NeighbourBlocks& nb, const Array<double, 1>& MS, const Periodicity& p, int nx, int ny,
            int nz, double dx, double dy, double dz, int kind, double D, int m) {
    const int n[3] = {nx, ny, nz};
    const double h[3] = {dx, dy, dz};
    for (int d = 1; d <= 6; ++d) {
        const int ax = (d - 1) / 2;
        const int s = neighbour_offset(d)[ax];
        const auto b = dmi_block(kind, D, MS(m), h[ax], d);
        for (int c = 0; c < 9; ++c) nb(c + 1, d, m) += b[c];
        for (int pos : neighbour_images(p, ax, n[ax], s)) {
            std::array<int, 3> q{0, 0, 0};
            q[ax] = pos;
            for (int c = 0; c < 9; ++c) AIJ(q[0], q[1], q[2], c + 1, m) += b[c];
        }
    }
}

void add_antisymmetric_neighbours(const TensorArray& AIJ, NeighbourBlocks& nb, int nx, int ny, int nz, int nmat) {
    const int n[3] = {nx, ny, nz};
    for (int d = 1; d <= 6; ++d) {
        const auto o = neighbour_offset(d);
        const int ax = (d - 1) / 2;
        if (o[ax] < -n[ax] || o[ax] > n[ax] + 1) continue;
        for (int m = 1; m <= nmat; ++m)
            for (int a = 0; a < 3; ++a)
                for (int b = 0; b < 3; ++b)
                    nb(1 + a + 3 * b, d, m) +=
                        0.5 * (AIJ(o[0], o[1], o[2], 1 + a + 3 * b, m) - AIJ(o[0], o[1], o[2], 1 + b + 3 * a, m));
    }
}

}  // namespace torix
