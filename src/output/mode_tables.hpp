#pragma once
// Text tables of the modes: amplitudes and phases cell by cell, along a line
// of cells and around a circle, and the magnetization displaced along a mode.
// All use the referenced, normalised mode vector of reference_mode (largest
// amplitude 1, phases relative to the reference cell, in (-pi, pi]).
// Every file is written whole under a temporary name and then renamed.
//
// Each mode block of a file opens with the comment line
//     "# mode p f= <f> g= <g>"           (Oe)
// followed by " f_Hz= <f gyro / 2 pi>" when gyro is not 1; blocks are
// separated by two empty lines (one gnuplot data set per mode).
#include <string>
#include <vector>

#include "output/mode_vectors.hpp"

namespace torix {

// `print_phases`, modes p1..p2 (within 1..nmodes).  `phases_name` per mode:
// the comment line, then per magnetic cell in grid order
//     i j k  a/amax  phase1 phase2  Re ux Im ux Re uy Im uy Re uz Im uz
// (phase c of local component c; u normalised).  `max_name`, one line per mode:
//     p f g  i j k (reference cell)  amax  participation [f_Hz]
// amax the largest amplitude of the stored vector.
void print_phases(const ModeInput& in, int p1, int p2, const std::string& phases_name, const std::string& max_name);

// `print_slice`: the line of cells parallel to `axis` (1 x, 2 y, 3 z)
// through cell (i, j, k) (the index along the axis unused, the other two in
// the grid), modes p1..p2.  Per magnetic cell of the line: the position of
// its centre along the axis (cm, (index + 1/2) d from the grid's low edge),
// then per mode a/amax and the phase of the mode's dominant local component
// over the line.
void print_slice(const ModeInput& in, int p1, int p2, int axis, int i, int j, int k, const std::string& name);

// One sample of an azimuthal profile.
struct AngleSample {
    double theta = 0.0;      // degrees
    double amplitude = 0.0;  // |u| of the normalised mode
    double phase = 0.0;      // phase of the dominant local component
};

// Profile of the normalised mode u on the circle of radius r about (x0, y0)
// (cm, from the grid's low edge) in layer k, at theta = 0, dtheta, ... below
// 360 degrees.  u is interpolated bilinearly from the centres of the four
// surrounding cells (empty cells and cells beyond the grid count as zero);
// the local frame of a sample is that of the same interpolation of the unit
// magnetization.  The dominant component is taken over the whole circle.
// `index` returns the azimuthal index: the winding number of the phases;
// `harmonic` the azimuthal harmonic of largest weight of the dominant
// component, m with the largest |sum_s v_s e^{-i m theta_s}| over |m| <=
// samples / 2 (the positive m on a tie), which stays meaningful for a
// standing wave cos(m theta), whose phase jumps by pi at its nodes and has
// no winding number.
std::vector<AngleSample> angle_profile(const ModeInput& in, const CVecGrid& u, int k, double x0, double y0, double r,
                                       double dtheta, int& index, int& harmonic);

// Winding number of a closed sequence of phases (radians): the sum of the
// steps between neighbours, the last back to the first, each taken in
// (-pi, pi], over 2 pi.  Positive for increasing phase.
int winding_number(const std::vector<double>& phase);

// `print_angle`: per mode the comment line with " index= m harmonic= n" appended, then
// per sample "theta amplitude phase".
void print_angle(const ModeInput& in, int p1, int p2, int k, double x0, double y0, double r, double dtheta,
                 const std::string& name);

// `fm3`: out = MS normalise(m + a Re(uhat e^{i phi})) at magnetic cells, m =
// M / MS(material), uhat the normalised mode; out = M elsewhere.  `out` is
// allocated afresh.
void fm3(const VecGrid& M, const IntGrid& MASQUE, const Array<double, 1>& MS, const CVecGrid& uhat, double a,
         double phi, int nx, int ny, int nz, VecGrid& out);

// "modes.dat" of VEC3: the comment line of mode p, then per magnetic cell
//     i j k  Re ux Im ux Re uy Im uy Re uz Im uz  (right)  the same (left)
// each set referenced and normalised on its own.
void print_mode_vectors(const ModeInput& in, int p, const std::string& name);

// The comment line of mode p (without newline).
std::string mode_comment(const ModeInput& in, int p);

}  // namespace torix
