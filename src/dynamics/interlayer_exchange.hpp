#pragma once
// Interlayer exchange across a non-magnetic spacer, bilinear and
// biquadratic (P. Gruenberg et al., Phys. Rev. Lett. 57, 2442 (1986);
// J. C. Slonczewski, Phys. Rev. Lett. 67, 3172 (1991)).
//
// Links: a magnetic cell of material m1 and the first magnetic cell met
// from it along -z, and the first met along +z, in the same column (i, j),
// across empty cells only (none, one or more), when that cell is of
// material m2.  Along a periodic z the search goes on through the boundary
// into the next period (a stack m1 / spacer / m2 / spacer repeated couples
// every m1 layer to the m2 layers above and below it).  Each link of two cells with reduced magnetizations m1, m2
// (unit vectors M / MS) carries the energy per interface area (erg/cm^2)
//     sigma = -J1 m1 . m2 - J2 (m1 . m2)^2
// over the cell face dx dy; J1 > 0 favours parallel layers, J1 < 0
// antiparallel ones, J2 < 0 a right angle.  The field on the m1 cell
// (Oe) is
//     H1 = (J1 + 2 J2 m1 . m2) m2 / (MS1 dz),
// and symmetrically on the m2 cell; dz is the cell height (cm).
#include <string>
#include <vector>

#include "core/array.hpp"
#include "dynamics/field_jacobian.hpp"

namespace torix {

struct InterlayerExchange {
    int m1 = 0, m2 = 0;
    double J1 = 0.0, J2 = 0.0;  // erg/cm^2
    double dz = 0.0;            // cell height, cm
    bool periodic_z = false;    // the grid repeats along z
};

// The linked pairs of grid points (m1 cell, m2 cell), column by column.
struct InterlayerLink {
    std::int64_t a = 0, b = 0;
    int shift = 0;  // periods along z from b's grid point to the linked image of b
};
std::vector<InterlayerLink> interlayer_links(const InterlayerExchange& t, const IntGrid& mask);

// Over the grid: the field of every link added to H on both of its cells;
// the energy of all links divided by the cell volume (erg/cm^3 times cells,
// as the other terms count it); and per link two pair blocks and two self
// blocks (the self blocks come from the biquadratic term alone).
void interlayer_field(const InterlayerExchange& t, const VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask,
                      VecGrid& H);
double interlayer_energy(const InterlayerExchange& t, const VecGrid& M, const Array<double, 1>& MS,
                         const IntGrid& mask);
void interlayer_jacobian(const InterlayerExchange& t, const VecGrid& M, const Array<double, 1>& MS,
                         const IntGrid& mask, std::vector<FieldJacobianBlock>& out);

}  // namespace torix
