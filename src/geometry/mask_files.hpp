#pragma once
// Mask files.  Binary: 16-byte little-endian records of four int32, record 1
// (count, nx, ny, nz), then one record (i, j, k, value) per cell, i
// outermost, k innermost.  Text (format 1): the same fields, one record a
// line.  Layered text (format 3): the header line, then per plane k a title
// line and ny+1 rows of nx+1 values.
//
// Readers trust nothing: a file shorter than its header count, a record
// outside the grid or an unreadable item is a FatalError naming the file and
// the record or line.
#include <string>

#include "core/array.hpp"

namespace torix {

void savemasque(const IntGrid& MASQUE, int nx, int ny, int nz, const std::string& name);
void loadmasque(IntGrid& MASQUE, int nx, int ny, int nz, const std::string& name);
void loadmasqueparam(int& nx, int& ny, int& nz, const std::string& name);

void savemasquet(const IntGrid& MASQUE, int nx, int ny, int nz, const std::string& name);
void loadmasquet(IntGrid& MASQUE, int nx, int ny, int nz, const std::string& name);
void loadmasqueparamt(int& nx, int& ny, int& nz, const std::string& name);

void savemasquet2(const IntGrid& MASQUE, int nx, int ny, int nz, const std::string& name);
void loadmasquet2(IntGrid& MASQUE, int nx, int ny, int nz, const std::string& name);

}  // namespace torix
