#pragma once
// The Dzyaloshinskii-Moriya interaction acts between neighbouring cells that
// are both of its material.  The tensor cannot say so: it holds each
// material's DMI blocks (tensor/dmi.hpp) in the slice of the SOURCE
// material, so a bond between cells of materials a and b would carry b's
// DMI one way and a's the other.  This term takes those blocks off again on
// every bond between magnetic cells of two different materials: what is
// left is the DMI of bonds within one material, the same both ways, so the
// interaction stays symmetric and the energy -(1/2) M . H stays exact.
//
// The blocks come from the nearest-neighbour record (the antisymmetric part
// of each source material's blocks: exchange and the dipolar part are
// symmetric), so a tensor read from a file is treated like one built here.
// Along a periodic axis the bond to the neighbour across the boundary is
// taken off too, with the shift of its image.
#include <vector>

#include "core/array.hpp"
#include "core/periodic.hpp"
#include "dynamics/field_jacobian.hpp"
#include "tensor/neighbour_blocks.hpp"

namespace torix {

struct DmiInterfaces {
    NeighbourBlocks blocks;  // (c, d, m): antisymmetric blocks of source material m, as NeighbourBlocks
    Periodicity p;           // the axes the tensor was summed over
    [[nodiscard]] bool empty() const { return !blocks.allocated(); }
};

// The term for the nearest-neighbour record nb of nmat materials; empty with
// one material or without any DMI.
DmiInterfaces dmi_interfaces(const NeighbourBlocks& nb, const Periodicity& p, int nmat);

// H -= B(d, material of j) M_j on every magnetic cell i for each neighbour j
// of another magnetic material (d the direction of i - j).
void dmi_interface_field(const DmiInterfaces& t, const VecGrid& M, const IntGrid& mask, VecGrid& H);

// Those blocks as Jacobian blocks dH_i/dM_j = -B(d, material of j).
void dmi_interface_jacobian(const DmiInterfaces& t, const IntGrid& mask, std::vector<FieldJacobianBlock>& out);

}  // namespace torix
