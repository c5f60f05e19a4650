#include "dynamics/dmi_interfaces.hpp"

#include <array>
#include <cstdint>

namespace torix {

namespace {

// Calls fn(i, j, b, d, shift) for every bond of plane z between a magnetic
// cell i and a neighbour j of another magnetic material b (grid points as
// positions in the arrays), d the direction of i minus j, shift the periods
// from j's grid point to the neighbour.
template <class Fn>
void interface_bonds(const IntGrid& mask, const Periodicity& p, int z, Fn&& fn) {
    const int n[3] = {mask.hi(0), mask.hi(1), mask.hi(2)};
    for (int y = 0; y <= n[1]; ++y)
        for (int x = 0; x <= n[0]; ++x) {
            const int mat = mask(x, y, z);
            if (mat == 0) continue;
            const std::int64_t i = mask.linear(x, y, z);
            for (int d = 1; d <= 6; ++d) {
                const auto o = neighbour_offset(d);
                int q[3] = {x - o[0], y - o[1], z - o[2]};
                std::array<int, 3> shift{0, 0, 0};
                bool inside = true;
                for (int a = 0; a < 3 && inside; ++a) {
                    if (q[a] >= 0 && q[a] <= n[a]) continue;
                    inside = p.along(a);
                    shift[a] = q[a] < 0 ? -1 : 1;
                    q[a] -= shift[a] * (n[a] + 1);
                }
                if (!inside) continue;
                const int b = mask(q[0], q[1], q[2]);
                if (b != 0 && b != mat) fn(i, mask.linear(q[0], q[1], q[2]), b, d, shift);
            }
        }
}

}  // namespace

DmiInterfaces dmi_interfaces(const NeighbourBlocks& nb, const Periodicity& p, int nmat) {
    DmiInterfaces t;
    if (nmat < 2 || !nb.allocated()) return t;
    NeighbourBlocks a({Range{1, 9}, Range{1, 6}, Range{1, nmat}});
    bool any = false;
    for (int m = 1; m <= nmat; ++m)
        for (int d = 1; d <= 6; ++d)
            for (int r = 0; r < 3; ++r)
                for (int c = 0; c < 3; ++c) {
                    const double v = 0.5 * (nb(1 + r + 3 * c, d, m) - nb(1 + c + 3 * r, d, m));
                    a(1 + r + 3 * c, d, m) = v;
                    any = any || v != 0.0;
                }
    if (!any) return t;
    t.blocks = std::move(a);
    t.p = p;
    return t;
}

void dmi_interface_field(const DmiInterfaces& t, const VecGrid& M, const IntGrid& mask, VecGrid& H) {
    if (t.empty()) return;
    const std::ptrdiff_t np = static_cast<std::ptrdiff_t>(mask.size());
    const double* m = M.data();
    double* h = H.data();
    // Each cell writes only its own field: the planes run in parallel.
#pragma omp parallel for schedule(static) if (np > 16384)
    for (int z = 0; z <= mask.hi(2); ++z)
        interface_bonds(mask, t.p, z, [&](std::int64_t i, std::int64_t j, int b, int d, const std::array<int, 3>&) {
            for (int r = 0; r < 3; ++r) {
                double s = 0.0;
                for (int c = 0; c < 3; ++c) s += t.blocks(1 + r + 3 * c, d, b) * m[j + c * np];
                h[i + r * np] -= s;
            }
        });
}

void dmi_interface_jacobian(const DmiInterfaces& t, const IntGrid& mask, std::vector<FieldJacobianBlock>& out) {
    if (t.empty()) return;
    for (int z = 0; z <= mask.hi(2); ++z)
        interface_bonds(mask, t.p, z,
                        [&](std::int64_t i, std::int64_t j, int b, int d, const std::array<int, 3>& shift) {
                            FieldJacobianBlock blk;
                            blk.target = i, blk.source = j, blk.shift = shift;
                            for (int c = 0; c < 9; ++c) blk.J[c] = -t.blocks(1 + c, d, b);
                            out.push_back(blk);
                        });
}

}  // namespace torix
