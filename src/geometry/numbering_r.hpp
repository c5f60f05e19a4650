#pragma once
// Refined numberings: cells near a vertical axis keep numbers of their own,
// the others share one number per block (a vortex core resolved finely, its
// surroundings coarsely).
#include "core/array.hpp"

namespace torix {

// Numbers the magnetic cells 1..N.  A cell whose centre lies within the
// distance r (cm, in the x-y plane, <= r) of the axis through the grid's
// centre (x0 = nx/2, y0 = ny/2 in index units) is an inner cell; the others
// are outer cells.  Blocks of bx x by x bz cells are walked as `number` walks
// them (x-block outermost, z-block innermost), the cells of a block as well
// (i outer, k inner): each inner cell takes the next number when visited;
// the block's outer cells share one number, taken at the first of them.
// Cell sizes dx, dy in cm; block sizes >= 1.  r < 0 gives `number`'s blocks.
void number_r(const IntGrid& MASQUE, IntGrid& NUM, int nx, int ny, int nz, int& N, double r, int bx, int by, int bz,
              double dx, double dy);

// number_r about the axis through (x0, y0) (cm from the grid's low edge; the
// centre of cell i lies at (i + 1/2) dx), then writes "masque1.txt": the
// layered text form of a mask holding each magnetic cell's multiplicity.
void number_r2(const IntGrid& MASQUE, IntGrid& NUM, int nx, int ny, int nz, int& N, double x0, double y0, double r,
               int bx, int by, int bz, double dx, double dy);

}  // namespace torix
