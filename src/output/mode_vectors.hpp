#pragma once
// What every mode table and drawing is built from: the Cartesian mode vector
// of a mode over the grid, its amplitude, its phase reference and its
// participation ratio.
//
// Mode vector.  For mode p of a ModeSet (right amplitudes MODES or left
// amplitudes MODESL, numbers 1..N, components 1 polar and 2 azimuthal) the
// Cartesian mode vector of a magnetic cell is
//     u = R (v1, v2, 0)^T,
// R the local frame of the cell's present magnetization (the frame the
// dynamic matrix is built in) and (v1, v2) the amplitudes of the cell's
// number.  u is complex, dimensionless (the stored amplitudes have unit
// Euclidean norm over all 2N of them) and perpendicular to m.  Under the
// program's own time integration (EXEC, dM/dt = -M x H) a small deviation
// along the mode moves as
//     dm(t) = Re(u e^{-i f t}),
// f = W(p, 1) in Oe and t the internal time (script time x gyro): the dynamic
// matrix generates the precession in the opposite sense (see docs/eigen.md),
// so its eigenvector for +i f turns the other way in real time.
//
// Grid order: x outermost, then y, z innermost (the order of the eigen files).
#include <array>
#include <string>

#include "core/array.hpp"

namespace torix {

// |z|^2 without the overflow-safe hypot that std::norm goes through here.
inline double abs2(cplx z) { return z.real() * z.real() + z.imag() * z.imag(); }

// u of mode p over (0:nx, 0:ny, 0:nz, 1:3), allocated afresh; zero at empty
// cells and at cells without a number in 1..N.  `modes` is MODES or MODESL,
// p in 1..modes.hi(2).  Parallel over layers.
void mode_vector(int nx, int ny, int nz, int N, const IntGrid& MASQUE, const IntGrid& NUM, const VecGrid& M,
                 const Array<cplx, 3>& modes, int p, CVecGrid& u);

// Amplitude a = |u| = sqrt(|ux|^2 + |uy|^2 + |uz|^2) = sqrt(|v1|^2 + |v2|^2)
// of cell (i, j, k).
double amplitude(const CVecGrid& u, int i, int j, int k);

// Local components (v1, v2) of u at cell (i, j, k): the projections of u on
// columns 1 and 2 of the frame of m = M(i, j, k, 1:3).  Recovers the stored
// amplitudes because the frame is orthonormal and u has no part along m.
std::array<cplx, 2> local_components(const CVecGrid& u, const VecGrid& M, int i, int j, int k);

// The phase reference of a mode.
struct PhaseRef {
    int i = -1, j = -1, k = -1;  // reference cell; -1 without magnetic cells
    double amax = 0.0;           // its amplitude, the largest of the mode
    int component = 1;           // 1 or 2: the larger local component there
    cplx factor{1.0, 0.0};       // |factor| = 1; factor v_component is real > 0
};

// `find_phase`: the magnetic cell of largest amplitude (the first in grid
// order among equal ones) and the unit complex number that makes the larger
// of its two local components (component 1 on a tie) real and positive.  A
// mode of zero amplitude everywhere takes the first magnetic cell and factor 1.
PhaseRef find_phase(const CVecGrid& u, const VecGrid& M, const IntGrid& MASQUE, int nx, int ny, int nz);

// u := u factor / amax, so that the largest amplitude is 1 and every phase
// is relative to the reference (a zero amax leaves u unscaled).
void normalise_mode(CVecGrid& u, const PhaseRef& ref);

// Participation ratio (sum a^2)^2 / (Ncells sum a^4) over the Ncells
// magnetic cells: 1 for a uniform amplitude, 1/Ncells for a mode confined
// to one cell, 0 for a zero mode or no magnetic cell.
double participation_ratio(const CVecGrid& u, const IntGrid& MASQUE, int nx, int ny, int nz);

// Argument of z in (-pi, pi]; 0 for z = 0 (never -0).
double phase_of(cplx z);

// Dominant local component over a set of cells: 1 when sum |v1|^2 >= sum
// |v2|^2 over the cells visited, else 2.  Accumulate with add(), then take().
struct DominantComponent {
    double s1 = 0.0, s2 = 0.0;
    void add(const std::array<cplx, 2>& v) {
        s1 += abs2(v[0]);
        s2 += abs2(v[1]);
    }
    [[nodiscard]] int take() const { return s1 >= s2 ? 1 : 2; }
};

// One fixed Cartesian frame for the phases of a whole picture or file, so
// that a mode that precesses alike everywhere has one phase everywhere,
// whatever the local frames (which turn about the pole of a nearly
// saturated body) do.  e1 and e2 are perpendicular to the mean unit
// magnetization `mean` over the magnetic cells: e1 is the Cartesian axis
// least aligned with it (the first on a tie) made perpendicular to it, e2 =
// +-(mean x e1), the sign making its largest component positive.  Without a mean direction (|mean| below 1e-9) mean is z.
// A body whose unit magnetization averages to less than 1/2 (a vortex, a
// ring) has no direction that the pictures could share: `aligned` is then
// false and the pictures keep the phases of the local components.
struct FixedFrame {
    std::array<double, 3> mean{0.0, 0.0, 1.0}, e1{1.0, 0.0, 0.0}, e2{0.0, 1.0, 0.0};
    bool aligned = false;
    // "x", "-z", ... for a Cartesian axis (within 1e-6), else "(0.707,0.707,0)".
    [[nodiscard]] std::string name(int c) const;
};
FixedFrame fixed_frame(const VecGrid& M, const IntGrid& MASQUE, int nx, int ny, int nz);

// u . e at cell (i, j, k).
inline cplx along(const CVecGrid& u, int i, int j, int k, const std::array<double, 3>& e) {
    return u(i, j, k, 1) * e[0] + u(i, j, k, 2) * e[1] + u(i, j, k, 3) * e[2];
}

// Phases in a fixed frame: the component c (1: e1, 2: e2) of larger weight
// sum |u . e_c|^2 over the cells visited, and the phase of each cell's
// component relative to that of the reference cell (the cell of largest
// amplitude), so the reference cell has phase 0.
struct FixedPhase {
    int component = 1;
    cplx unit{1.0, 0.0};  // conj of the reference's phase factor
    [[nodiscard]] const std::array<double, 3>& axis(const FixedFrame& f) const { return component == 1 ? f.e1 : f.e2; }
    [[nodiscard]] double phase(cplx w) const;
};
// Over every magnetic cell of u; ref from find_phase.
FixedPhase fixed_phase(const CVecGrid& u, const FixedFrame& f, const PhaseRef& ref, const IntGrid& MASQUE, int nx,
                       int ny, int nz);

// Everything the mode tables and drawings read from the model state.
// Lengths in cm; W(p, 1:2) = (f, g) in Oe for p = 1..nmodes; gyro the
// gyromagnetic ratio (rad/(s Oe)), 1 when the script works in field units.
struct ModeInput {
    int nx, ny, nz, N, nmodes;
    double dx, dy, dz, gyro;
    const IntGrid& MASQUE;
    const IntGrid& NUM;
    const VecGrid& M;
    const Array<double, 2>& W;
    const Array<cplx, 3>& MODES;
    const Array<cplx, 3>& MODESL;
};

// u of mode p (right vectors, or left with `left`), referenced with
// find_phase and normalised: the largest amplitude is 1.  Returns the
// reference of the unnormalised vector (amax in the stored scale).
PhaseRef reference_mode(const ModeInput& in, int p, bool left, CVecGrid& u);

}  // namespace torix
