#pragma once
// Relaxation of the magnetization towards equilibrium, and the Runge-Kutta
// step of the precession equation dM/dt = -(M x H) that the relaxation and
// the time integration share.
//
// Time is internal time: the script's time multiplied by the gyromagnetic
// ratio (SET_GYRO), so the equation carries no other factor.  H is the full
// effective field: applied field, tensor field, and the vector-product term
// M x (s H - MP) / MS of the field routines, which with s = beta > 0 makes
// the motion damped (Landau-Lifshitz form).
#include <array>
#include <string>

#include "core/array.hpp"
#include "dynamics/fft_field.hpp"
#include "dynamics/local_terms.hpp"

namespace torix {

// Method flag of the field routines: 1 direct sum, anything else FFT.
inline constexpr int kMethodDirect = 1;
inline constexpr int kMethodFft = 2;

// Adds the field of M to H by the method flag (calcfields or calcfieldsfft),
// and the field of the local terms after the tensor field; the
// vector-product term then sees the whole field.  Every route that evaluates
// the field (relaxations, EXEC, the automatic time step, CALC_FIELD) comes
// through here.
void field_by_method(int method, const VecGrid& M, const Array<double, 1>& MS, const std::array<double, 3>& MP,
                     double s, const IntGrid& mask, const TensorArray& AIJ, const FourierTensor& AIJ_FFT, VecGrid& H,
                     int nx, int ny, int nz, int n, const LocalTerms& terms = LocalTerms::none());

// Damped alignment.  H holds the applied field on entry; it is kept and put
// back into H before every field evaluation.  Each pass: M turns part of the
// way (alpha) towards its field and is rescaled to MS; the pass line
// " pass change energy" is printed, with change the mean over magnetic cells
// of (|dMx| + |dMy| + |dMz|) / MS and energy minus the mean of M . H, H
// being the field as it stood at the start of the pass.  Passes go on while
// change > threshold, without limit; threshold >= 1e10 returns after the
// first evaluation with M unchanged.  Mprev is a work array of M's shape.
// Returns the last energy measure (that of the entry state when no pass ran).
// A stall (StallWatch) is reported once on standard error and the passes go
// on.  max_passes > 0 ends the loop after that many passes (for tests; the
// command passes 0, no limit).
double relax(VecGrid& M, VecGrid& H, const Array<double, 1>& MS, const std::array<double, 3>& MP, double s,
             const TensorArray& AIJ, const IntGrid& MASQUE, int nx, int ny, int nz, int n, double alpha,
             double threshold, int method, const FourierTensor& AIJ_FFT, VecGrid& Mprev, long max_passes = 0,
             const LocalTerms& terms = LocalTerms::none());

// Watch over the change measure of the damped alignment.  With too large an
// alpha the alignment overshoots: the magnetization locks into a two-cycle
// (or a longer one) whose change stays constant, far above the threshold,
// and the loop never ends.  A converging run keeps setting new minima of the
// change; a run whose change has not fallen below its running minimum for
// `patience` passes is taken as stalled.
class StallWatch {
public:
    explicit StallWatch(long patience = 1000) : patience_(patience) {}
    // Takes the change of the next pass; true once, on the pass where the
    // stall is first seen.
    bool stalled(double change);
    [[nodiscard]] double minimum() const { return best_; }
    [[nodiscard]] long minimum_pass() const { return best_pass_; }

private:
    long patience_;
    long pass_ = 0;
    long best_pass_ = 0;
    double best_ = 0.0;
    bool said_ = false;
};

// The warning for a stalled alignment, with the suggested remedy (a quarter
// of alpha).
std::string stall_message(double alpha, const StallWatch& watch, long pass);

// Torque -(M x H) on magnetic cells, zero elsewhere.
void calctorque(const VecGrid& M, const VecGrid& H, VecGrid& T, const IntGrid& mask, int nx, int ny, int nz);

// Applied field of the Runge-Kutta stages: HINIT plus, when rf_set, the
// driving field HRF at angular frequency omega (internal time units).
struct Drive {
    const VecGrid& HINIT;
    const CVecGrid& HRF;
    bool rf_set = false;
    double omega = 0.0;
};

// Work arrays of one Runge-Kutta step, allocated on first use.
struct RkWork {
    VecGrid M0, Mt, acc, k, happ;
};

// Mean over magnetic cells of the energy density -(1/2) M . (H + Happ),
// H the full field of M and Happ the applied field: the dipolar, exchange
// and anisotropy energy plus the Zeeman energy (erg/cm^3).  The
// vector-product term of H is perpendicular to M and does not enter.  The
// local terms in H, whose energy is not quadratic in M, are counted with
// their own energy instead (local_energy_correction).
double energy_measure(const VecGrid& M, const VecGrid& H, const VecGrid& Happ, const IntGrid& mask);
double energy_measure(const VecGrid& M, const VecGrid& H, const VecGrid& Happ, const IntGrid& mask,
                      const Array<double, 1>& MS, const LocalTerms& terms);

// One classic fourth-order Runge-Kutta step of length dt from time t: stage
// fields at t, t + dt/2, t + dt/2, t + dt (applied field from inith, then the
// field by the method flag), slopes from calctorque, M advanced by
// dt (k1/6 + k2/3 + k3/3 + k4/6), then every magnetic cell rescaled to MS.
// Afterwards H holds the field of the new state at t + dt, and E its
// energy measure (energy_measure).
void iterate(VecGrid& M, const Array<double, 1>& MS, const std::array<double, 3>& MP, double s, const IntGrid& mask,
             const TensorArray& AIJ, const FourierTensor& AIJ_FFT, const Drive& drive, VecGrid& H, int nx, int ny,
             int nz, int n, int method, double t, double dt, double& E, RkWork& work,
             const LocalTerms& terms = LocalTerms::none());

// Runge-Kutta relaxation (no driving field): steps of dt until the relative
// fall of the energy measure, (Eprev - E) / |Eprev|, lies in (0, threshold)
// from the second step on; no step limit.  Prints " t/timescale E" per step
// and " time spent <processor seconds>" at the end.  Mbest receives the
// state of lowest energy; M keeps the last state.  Returns the last energy.
double relaxrk4(VecGrid& M, const Array<double, 1>& MS, const std::array<double, 3>& MP, const IntGrid& MASQUE,
                int nx, int ny, int nz, int n, double s, double timescale, double dt, const TensorArray& AIJ,
                const FourierTensor& AIJ_FFT, VecGrid& H, int method, double threshold, const VecGrid& HINIT,
                const CVecGrid& HRF, VecGrid& Mbest, const LocalTerms& terms = LocalTerms::none());

}  // namespace torix
