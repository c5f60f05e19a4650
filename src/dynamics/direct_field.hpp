#pragma once
// Effective field by direct summation over all pairs of magnetic cells, and
// the damped alignment step of the iterative relaxation.
#include <array>

#include "core/array.hpp"

namespace torix {

// Adds to H, on every magnetic cell r (mask value nonzero), the interaction
// field sum over magnetic cells r' (r' = r included) of
//   AIJ(r - r', c, q(r')) M(r'),
// with the 3x3 block of the SOURCE cell's material q(r'); then, with B the
// field after that sum, B = s H - MP, adds (M x B) / MS(q(r)).  H is not
// cleared: on entry it holds the applied field.  Empty cells are neither
// sources nor targets and keep their H.  n is the number of materials.
// Parallel over target cells; the sum for one target always runs over the
// sources in the same order, so the result does not depend on the thread
// count.
void calcfields(const VecGrid& M, const Array<double, 1>& MS, const std::array<double, 3>& MP, double s,
                const IntGrid& mask, const TensorArray& AIJ, VecGrid& H, int nx, int ny, int nz, int n);

// Every magnetic cell of M rescaled to length MS(mask value), in a parallel
// loop over the outermost grid index.  A zero vector is not guarded (0/0).
void rescale_to_ms(VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask);

// On every magnetic cell: M = alpha H + (1 - alpha) Mprev, then M rescaled to
// length MS(mask value).  Empty cells are left as they are.
void alignfields(VecGrid& M, const VecGrid& H, const VecGrid& Mprev, const Array<double, 1>& MS, const IntGrid& mask,
                 double alpha, int nx, int ny, int nz);

}  // namespace torix
