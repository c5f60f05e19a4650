#pragma once
// Applied field at a given time.
#include "core/array.hpp"

namespace torix {

// H = HINIT at every grid point; when rf_set, plus the driving field's value
// at time t, Re(HRF e^{i omega t}) = Re(HRF) cos(omega t) - Im(HRF) sin(omega t).
// omega is the angular frequency (radians per unit of t); HRF holds the
// complex amplitude, so its phase is the phase of the drive at t = 0.
void inith(const VecGrid& HINIT, const CVecGrid& HRF, bool rf_set, double omega, double t, VecGrid& H, int nx, int ny,
           int nz);

}  // namespace torix
