#pragma once
// The short-range part of the interaction tensor: the 3x3 blocks that a
// source cell of material m puts on its six nearest neighbours (exchange,
// and any other nearest-neighbour term), kept apart from the tensor that
// holds them mixed with the dipolar part, for the routes that must treat
// them differently (a neighbour across a periodic boundary carries the
// Bloch phase of its image).
//
// Layout: (c, d, m) with c = 1..9 the component (column by column, as the
// tensor), d = 1..6 the direction of target minus source (+x, -x, +y, -y,
// +z, -z), m = 1..nmat the source material.  Oe per emu/cm^3.
#include <array>

#include "core/array.hpp"

namespace torix {

using NeighbourBlocks = Array<double, 3>;

// Offset (target - source, in cells) of direction d = 1..6.
inline std::array<int, 3> neighbour_offset(int d) {
    static constexpr int off[6][3] = {{1, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}};
    return {off[d - 1][0], off[d - 1][1], off[d - 1][2]};
}

// The exchange blocks of every material: 2 A(m) / (MS(m)^2 d^2) on the
// diagonal, d the cell size along the direction (A in erg/cm, MS in
// emu/cm^3, d in cm), as the tensor builders add them.
NeighbourBlocks exchange_neighbour_blocks(const Array<double, 1>& A, const Array<double, 1>& MS, double dx, double dy,
                                          double dz, int nmat);

}  // namespace torix
