#pragma once
// One 3x3 block of the Jacobian dH/dM of a field term that is not a
// convolution with the tensor: the change of the field on the target cell
// per unit change of the magnetization of the source cell (Oe per emu/cm^3,
// dimensionless in Gaussian units).  The dynamic matrix adds it exactly where
// it adds a tensor block D, as G_i J Q_j.
#include <array>
#include <cstdint>

namespace torix {

struct FieldJacobianBlock {
    std::int64_t target = 0, source = 0;  // grid points, i + (nx+1)(j + (ny+1) k); equal for a self block
    std::array<double, 9> J{};            // column-major: J[a + 3 b] = dH_a(target) / dM_b(source)
    // The source is the image of grid point `source` moved by shift[a]
    // periods along axis a (nonzero only for a link across a periodic
    // boundary): it matters to the Bloch routes, where the image carries
    // the phase of its lattice vector.
    std::array<int, 3> shift{0, 0, 0};
};

}  // namespace torix
