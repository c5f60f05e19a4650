#pragma once
// Rebuilds the cell numbering from the cell records of a binary eigen file.
#include <cstdint>
#include <string>

#include "core/array.hpp"

namespace torix {

// Reads `fname` (36-byte records: header with N, then one record per
// magnetic cell with key x, (y, z), (number, 0), closed by the separator
// record with key -1).  NUM is reallocated over (0:nx, 0:ny, 0:nz) with the
// numbers of the listed cells and 0 elsewhere; N comes from the header.
// Returns the record number of the separator.  A cell outside the grid, a
// number outside 1..N, a missing separator or a short file is a FatalError
// naming the file and the record.
std::int64_t read_number(const std::string& fname, IntGrid& NUM, int nx, int ny, int nz, int& N);

}  // namespace torix
