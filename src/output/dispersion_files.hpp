#pragma once
// The files of a dispersion: the table of every branch at every wave vector
// and its plot.
//
// Table (text): two header lines starting with '#', the first saying the
// path, the branch count and the gyromagnetic ratio of the GHz columns, the
// second naming the columns; then one line per wave vector:
//     kx ky kz s  f1 g1 F1  f2 g2 F2 ...
// k and the length s along the path in rad/cm; f, g in Oe (the angular
// frequency and decay rate over gamma, as the ModeSet keeps them);
// F = f gamma / (2 pi) in GHz; "nan" where a branch has no mode.  Items are
// `%23.15E`.
//
// Plot (SVG): every branch in GHz against the wave vector's component along
// the path direction, k . (k2 - k1) / |k2 - k1| in rad/um (|k| when the path
// is a single point), so a path through k = 0 shows negative and positive k
// on either side of the origin.
#include <string>

#include "eigen/dispersion.hpp"

namespace torix {

// hz_per_oe: gamma / (2 pi) in Hz/Oe; gyro_note: how it was chosen, for the
// header ("SET_GYRO" or "the default 2.8 MHz/Oe").
void write_dispersion_table(const std::string& name, const Dispersion& d, double hz_per_oe,
                            const std::string& gyro_note);
void plot_dispersion_svg(const std::string& name, const Dispersion& d, double hz_per_oe);

// The abscissa of the plot for each wave vector of d, in rad/um.
std::vector<double> path_coordinate(const Dispersion& d);

}  // namespace torix
