#pragma once
// Tensor files: one material slice of the interaction tensor.
//
// Binary form: fixed-length little-endian records of 84 bytes.  Record 1
// holds int32 count = (2nx+2)(2ny+2)(2nz+2), int32 nx, int32 ny and the nine
// float64 components (1 xx, 2 yx, 3 zx, 4 xy, 5 yy, 6 zy, 7 xz, 8 yz, 9 zz)
// at offset (0, 0, 0); records 2..count+1 hold int32 i, j, k and the nine
// components at offset (i, j, k), i outermost from -nx to nx+1, then j from
// -ny to ny+1, then k innermost from -nz to nz+1.  nz is not stored.
//
// Text form: the same records, one per line, items separated by one blank
// (each line begins with a blank): "count nx ny" and nine reals, then one
// line "i j k" and nine reals per offset in the same order.  Reals are
// written with 17 significant digits, so they read back as the same doubles.
//
// Reading stores the header's nine values at offset (0, 0, 0), then each
// record whose offset lies inside the current range (-nx..nx+1,
// -ny..ny+1, -nz..nz+1) at its offset; records outside it are skipped, and
// offsets that the file lacks keep their values.  The header's grid sizes
// are not compared with the current grid, so a file written for a larger
// grid loads into a smaller one.  A negative count, or a file with fewer
// records than its count announces, is a FatalError naming the file; in the
// binary form this is found before anything is stored.
//
// A tensor summed over periodic images (a periodic body) says so after the
// offset records, so that it is not taken for the tensor of an isolated
// body: the binary form has one more record, int32 -1, int32 flags
// (1 x, 2 y, 4 z periodic), int32 0 and nine float64 zeros; the text form two more lines, "periodic" and "px py pz".
// Files of isolated bodies have no trailer (they are as before), and a
// reader that stops after the count records ignores it.
#include <string>

#include "core/array.hpp"
#include "core/periodic.hpp"

namespace torix {

// Writers: `periodic` the axes the tensor was summed over (none: no trailer).
// Readers: return the periodic axes the file says (none without a trailer).
void savetensor(const TensorArray& AIJ, int nx, int ny, int nz, int m, int nmat, const std::string& name,
                const Periodicity& periodic = {});
Periodicity loadtensor(TensorArray& AIJ, int nx, int ny, int nz, int m, int nmat, const std::string& name);
void savetensort(const TensorArray& AIJ, int nx, int ny, int nz, int m, int nmat, const std::string& name,
                 const Periodicity& periodic = {});
Periodicity loadtensort(TensorArray& AIJ, int nx, int ny, int nz, int m, int nmat, const std::string& name);

}  // namespace torix
