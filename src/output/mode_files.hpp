#pragma once
// One mode written for field tools: the Cartesian mode vector u (right
// vectors, mode_vector) scaled so that its largest amplitude is 1 and its
// phase reference cell is in phase 0 (find_phase, normalise_mode).  Under
// the program's own dynamics a small deviation along the mode moves as
// Re(u e^{-i f t}): Re u is the deviation at t = 0, Im u a quarter period
// later.  Grid arrays over (0:nx, 0:ny, 0:nz); cell sizes in cm; f, g in Oe.
#include <string>

#include "core/array.hpp"

namespace torix {

// Two OVF 2.0 binary files, `re_name` and `im_name`: Re u and Im u at every
// node (zero at empty cells), valueunits 1, the mode number, f and g in the
// header's description.
void savemodeovf(const std::string& re_name, const std::string& im_name, int p, int nx, int ny, int nz, double dx,
                 double dy, double dz, int N, const IntGrid& MASQUE, const IntGrid& NUM, const VecGrid& M,
                 const Array<cplx, 3>& MODES, double f, double g);

// One VTK image-data file of cell arrays m0 (M/|M|), u_re, u_im, amplitude
// |u|, phase (radians in (-pi, pi], of u's local component that is the
// larger one at the reference cell, so 0 there) and material (the mask);
// field data: mode, f, g, frequency (f as the plots show it: `shown_f`) and
// participation_ratio.  Empty cells hold zeros.
void savemodevti(const std::string& name, int p, int nx, int ny, int nz, double dx, double dy, double dz, int N,
                 const IntGrid& MASQUE, const IntGrid& NUM, const VecGrid& M, const Array<cplx, 3>& MODES, double f,
                 double g, double shown_f);

}  // namespace torix
