#include "tensor/neighbour_blocks.hpp"

namespace torix {

NeighbourBlocks exchange_neighbour_blocks(const Array<double, 1>& A, const Array<double, 1>& MS, double dx, double dy,
                                          double dz, int nmat) {
    NeighbourBlocks nb({Range{1, 9}, Range{1, 6}, Range{1, nmat}}, 0.0);
    const double d2[3] = {dx * dx, dy * dy, dz * dz};
    for (int m = 1; m <= nmat; ++m)
        for (int d = 1; d <= 6; ++d) {
            const double e = 2.0 * A(m) / (MS(m) * MS(m) * d2[(d - 1) / 2]);
            nb(1, d, m) = e;
            nb(5, d, m) = e;
            nb(9, d, m) = e;
        }
    return nb;
}

}  // namespace torix
