#pragma once
// VRML 2.0 arrow scenes of vector fields.
#include <string>

#include "core/array.hpp"

namespace torix {

// Writes one arrow per cell whose mask value q is nonzero, at the cell's
// grid position, along the cell's vector divided by MS(q), coloured by q.
// X, Y, Z are the largest indices of the grid given; mode 1 draws the grid in
// place, mode 2 the z-layers side by side along y.
void writevrml(const std::string& name, int X, int Y, int Z, int mode, const IntGrid& mask, const VecGrid& v,
               const Array<double, 1>& MS, int unused1 = 0, int unused2 = 1);

// Averages the field over blocks of fx x fy x fz cells (magnetic cells
// only), normalises each block average and writes the scene of the kept
// blocks through writevrml.  `flag` is handed on unchanged.
void print_red_m(int nx, int ny, int nz, const IntGrid& MASQUE, const VecGrid& F, int flag, int mode, int fx, int fy,
                 int fz, const std::string& name);

}  // namespace torix
