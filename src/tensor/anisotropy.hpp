#pragma once
// Uniaxial anisotropy folded into the self term of the interaction tensor.
#include "core/array.hpp"

namespace torix {

// K' = K / MS(m)^2 is stored back into K (deliberately: the caller's
// variable holds K' afterwards), then K' u_a u_b is added to the entry of
// row a, column b at offset (0, 0, 0) of material m, for all nine (a, b).
// The axis u is used as given, not normalised.  With the tensor applied to
// the magnetization the added field is (K / MS) (u . m) u: K > 0 makes u an
// easy axis, K < 0 an easy plane.  Repeated calls accumulate.
void addanisotropy(TensorArray& AIJ, const Array<double, 1>& MS, int nx, int ny, int nz, double ux, double uy,
                   double uz, double& K, int m, int nmat);

}  // namespace torix
