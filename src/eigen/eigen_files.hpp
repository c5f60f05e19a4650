#pragma once
// Eigen files.
//
// Binary ("eig.dat", "eigl.dat"): 36-byte little-endian records of
// (int32 key, double, double, double, double):
//   1           header      N, (nmodes, 0), (0, 0)
//   2..         cell        x, (y, z), (number, 0)   per cell with mask > 0, grid order
//   next        separator   -1, (-1, 0), (-1, 0)
//   per mode p  header      p, (f_p, g_p), (f_p, g_p)
//               amplitudes  n, component 1, component 2   for n = 1..N
// Text (`savemodest`): per mode a line " (f,g)", then per cell with a nonzero
// mask "x y z" (I6 each) and the four reals Re/Im of both components of the
// cell's number (%15.6E each).
#include <array>
#include <string>

#include "core/array.hpp"

namespace torix {

inline constexpr std::size_t kEigenRecord = 36;

void savemodes(int nmodes, int N, const IntGrid& NUM, const IntGrid& MASQUE, int nx, int ny, int nz,
               const std::string& fname, const Array<double, 2>& W, const Array<cplx, 3>& modes);

void savemodest(int nmodes, const IntGrid& NUM, const IntGrid& MASQUE, int nx, int ny, int nz,
                const std::string& fname, const Array<double, 2>& W, const Array<cplx, 3>& modes);

// Reads the mode records of a binary eigen file: N and nmodes from the
// header, then, after the separator record, W (1:nmodes, 1:2) and the
// amplitudes (1:N, 1:2, 1:nmodes).  A short or inconsistent file is a
// FatalError naming the file and the record.
// The wave vector of the modes in "eig.dat" and "eigl.dat" (rad/cm; the
// vectors are the periodic parts u of m = u e^{i k.r}), kept beside them in
// a text file so that their layout stays as it is: a comment line, then
// "kx ky kz".  Written by every solve at k != 0; a solve at k = 0 removes
// it, so that it never describes other modes.
inline constexpr const char* kEigenWavevectorFile = "eigk.txt";
void save_mode_wavevector(const std::string& fname, const std::array<double, 3>& k);
// The wave vector of the file; (0, 0, 0) when there is none.  A file that
// cannot be read as above is a FatalError naming it and the line.
std::array<double, 3> load_mode_wavevector(const std::string& fname);

void loadmodes(const std::string& fname, int& N, int& nmodes, Array<double, 2>& W, Array<cplx, 3>& modes);

}  // namespace torix
