#pragma once
// Magnetization and field files: a grid-shaped vector array stored cell by
// cell (magnetic cells only), each record carrying the cell's indices.
//
// Binary (savem/loadm): records of 36 bytes, little-endian; record 1 holds
// the cell count N (int32, rest zero); records 2..N+1 hold i, j, k (int32)
// and the x, y, z components (IEEE double).
// Text (savemt/loadmt): first line N in 9 characters; then one line per
// cell: i, j, k in 6 characters each and the three components in 20
// characters each (exponent form with 13 significant digits, 12 when the
// exponent has three digits, so a blank always separates the fields).
// Cells are written with i outermost, then j, then k innermost.
#include <string>

#include "core/array.hpp"

namespace torix {

void savem(const VecGrid& M, const IntGrid& mask, int nx, int ny, int nz, const std::string& filename);
void savemt(const VecGrid& M, const IntGrid& mask, int nx, int ny, int nz, const std::string& filename);

// Set M to zero everywhere, then store each record's vector at (i, j, k);
// records outside 0..nx, 0..ny, 0..nz are skipped.  The mask is not
// consulted.  A missing file, a count larger than the file or a record that
// cannot be read is a FatalError naming the file and the record or line.
void loadm(VecGrid& M, const IntGrid& mask, int nx, int ny, int nz, const std::string& filename);
void loadmt(VecGrid& M, const IntGrid& mask, int nx, int ny, int nz, const std::string& filename);

}  // namespace torix
