#pragma once
// Time integration of the precession equation over a given interval.
#include <array>
#include <string>

#include "core/array.hpp"
#include "dynamics/fft_field.hpp"
#include "dynamics/relax.hpp"

namespace torix {

// Integrates dM/dt = -(M x H) from t = 0 to t_end (internal time) with
// Runge-Kutta steps of dt (iterate): the number of steps is the least whole
// number n with n dt >= t_end (to a relative 1e-9), none when t_end <= 0.
// The applied field of every stage comes from inith with the drive.  When
// `filename` is not empty the trajectory is written to it as text, one line
// for the start state and one after every step:
//   " t <mx> <my> <mz> E"
// t the time divided by `timescale` (the script's time unit), <m> the mean of
// M / MS over magnetic cells, E the energy measure (energy_measure, erg/cm^3),
// free format (shortest round-trip reals).  On return M holds the end state
// and H its field.  Returns the number of steps taken.
int fm(VecGrid& M, const Array<double, 1>& MS, const std::array<double, 3>& MP, double s, const IntGrid& mask,
       const TensorArray& AIJ, const FourierTensor& AIJ_FFT, const Drive& drive, VecGrid& H, int nx, int ny, int nz,
       int n, int method, double t_end, double dt, double timescale, const std::string& filename,
       const LocalTerms& terms = LocalTerms::none());

// Mean of M / MS over the magnetic cells (zero without magnetic cells).
std::array<double, 3> mean_reduced(const VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask);

}  // namespace torix
