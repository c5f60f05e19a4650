#pragma once
// Automatic choice of the Runge-Kutta time step.
#include <array>

#include "core/array.hpp"
#include "dynamics/fft_field.hpp"
#include "dynamics/local_terms.hpp"

namespace torix {

// From a random state (initrandom) in the static applied field HINIT (the
// driving field HRF is not applied): hmax = the largest |H| over magnetic
// cells, first step dt = 1 / (16 hmax), printed as " dt" (divided by
// timescale).  The trajectory over T = 128 dt with that step is the
// reference; it is written to "test.dat" (format of fm).  The step is then
// doubled and the same interval integrated again from the same start, each
// trial printing " dt deviation", the deviation being the mean over magnetic
// cells of (|dMx| + |dMy| + |dMz|) / MS from the reference end state.  At the
// first trial whose deviation exceeds 0.01 (or is not a number) the step
// before it is returned; if the step reaches T without that, T is returned.
// The method flag follows the 300-cell rule.  Internal time units; dt is
// returned through `dt`.  No magnetic cell or a zero field is a FatalError.
void set_timestep(const VecGrid& HINIT, const CVecGrid& HRF, const Array<double, 1>& MS,
                  const std::array<double, 3>& MP, double s, const TensorArray& AIJ, const FourierTensor& AIJ_FFT,
                  const IntGrid& MASQUE, int nx, int ny, int nz, int n, double& dt, double timescale,
                  const LocalTerms& terms = LocalTerms::none());

}  // namespace torix
