#pragma once
// Driven response: the coupling of each eigenmode to a complex driving
// (radio-frequency) field, and the absorption spectrum built from it.
#include <string>
#include <vector>

#include "core/array.hpp"

namespace torix {

// Reads a driving-field file into hrf over (0:nx, 0:ny, 0:nz, 1:3), which is
// allocated afresh and zeroed.  Line 1: the entry count K; then K entries,
// each with its nine items on one line: x y z (cell indices) and Re hx,
// Im hx, Re hy, Im hy, Re hz, Im hz.  Items are read free-format; a later
// entry for the same cell replaces an earlier one.  A missing file, a bad
// item, a negative count or a cell outside the grid is a FatalError naming
// the file and the line.
void loadhrft(int nx, int ny, int nz, const std::string& name, CVecGrid& hrf);

// Writes hrf in the form loadhrft reads: one entry per cell whose field is
// not zero (x outermost, z innermost), the count in nine characters, each
// entry as three six-character integers and six reals in exponent form,
// twenty characters wide with five digits after the point.
void savehrft(int nx, int ny, int nz, const std::string& name, const CVecGrid& hrf);

// Coupling coefficients kappa(1..nmodes), allocated afresh.  For each mode
// the right and left amplitudes are turned into Cartesian vectors R, L
// (local_to_cart), scaled so that sum R.conj(L) = 1, and then
//   S1 = -sum_cells (m x h).conj(L(n)),  S2 = sum_cells conj(h).R(n),
//   kappa = S1 S2,
// over every magnetic grid cell (n its number, m its magnetization, h its
// driving field).  Orthogonal right and left vectors give a division by
// zero (not a number), unguarded.
void calc_c(int nmodes, int nx, int ny, int nz, int N, const Array<cplx, 3>& MODES, const Array<cplx, 3>& MODESL,
            const VecGrid& M, const IntGrid& MASQUE, const IntGrid& NUM, const CVecGrid& hrf, Array<cplx, 1>& C);

// Absorbed power at angular frequency w (field units) of modes with
// couplings kappa_p, frequencies f_p and decay rates g_p:
//   P(w) = (w/2) Im sum_p kappa_p / (G_p + i (w - f_p)),  G_p = max(g_p, gmin).
double absorption(double w, const Array<cplx, 1>& C, const Array<double, 2>& W, int nmodes, double gmin);

// One row of the absorption table.
struct AbsorptionSample {
    double w = 0.0;       // angular frequency
    double power = 0.0;   // absorption(w)
    int nearest = 0;      // mode whose f_p is nearest to w (0 without modes)
};

// Samples w = 0, dw, 2 dw, ... up to the first sample at or above twice the
// largest f_p (at least the sample w = 0), with gmin = dw.  dw must be > 0.
std::vector<AbsorptionSample> absorption_table(const Array<cplx, 1>& C, const Array<double, 2>& W, int nmodes,
                                               double dw);

}  // namespace torix
