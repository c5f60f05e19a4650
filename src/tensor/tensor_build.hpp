#pragma once
// Fast builder of the interaction tensor.
//
// Gives the values of tensornewall (to the reference's own rounding) for
// every material slice in one pass:
//  - every point function fs / gs is evaluated once per grid point
//    (p dx, q dy, r dz) of the offset grid instead of 64 or 32 times per
//    offset; the six functions of one point share one R, three inverse
//    hyperbolic sines and three arc tangents;
//  - expanded, each entry is the same separable 27-point second difference
//    of its point function, applied along z, y, then x on the shared values;
//    this is done in extended precision, so that the small differences of
//    large values are more accurate than those of the reference;
//  - the dipolar part is computed for the octant i, j, k >= 0 only and
//    mirrored with the parity of each component (xx, yy, zz even in every
//    index; xy odd in i and j, xz odd in i and k, yz odd in j and k);
//  - the dipolar part is the same for every material, so it is computed once
//    and subtracted from each slice; only the exchange on the six
//    nearest-neighbour offsets depends on the material;
//  - x-planes of offsets are shared out among the threads (static schedule);
//    each thread keeps a rolling window of three differenced planes, so the
//    extra memory is a few planes per thread.
#include "core/array.hpp"

namespace torix {

// Adds to every slice m = 1..nmat of AIJ what tensornewall(A, MS, AIJ, nx,
// ny, nz, dx, dy, dz, m, nmat) adds: the dipolar entries are subtracted, the
// entries 2, 3, 6 are then set to 4, 7, 8, and the exchange coefficient
// 2 A(m) / (MS(m)^2 d^2) is added on the diagonal of the six
// nearest-neighbour offsets.
void tensorbuild(const Array<double, 1>& A, const Array<double, 1>& MS, TensorArray& AIJ, int nx, int ny, int nz,
                 double dx, double dy, double dz, int nmat);

}  // namespace torix
