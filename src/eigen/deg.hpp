#pragma once
// Multiplicity of each cell number: how many grid cells carry it.
#include <ostream>

#include "core/array.hpp"

namespace torix {

// w(1..N) := number of magnetic cells with NUM == n.  Writes to `map` the
// plane z = 0: one line per y (0..ny), per x "NO" for an empty cell, else the
// multiplicity of the cell's number in two characters.
void deg(const IntGrid& MASQUE, const IntGrid& NUM, int nx, int ny, int nz, int N, Array<std::int32_t, 1>& w,
         std::ostream& map);

}  // namespace torix
