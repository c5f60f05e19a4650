#pragma once
// Field sweeps: the record of the modes along a sweep of the applied field,
// its table, and the absorption at a fixed frequency against the field.
//
// Frequencies f and decay rates g are in field units (Oe, angular frequency
// over the gyromagnetic ratio); `ghz_per_oe` turns f into GHz.  The sweep
// coordinate s (Oe) is H . e, e the unit vector of the sweep line oriented
// so that its largest component is positive (a sweep from 2000 to 200 Oe
// along (1, 0.7, 0) runs over s = |H|, one along -x over s = Hx).
#include <array>
#include <string>
#include <vector>

#include "core/array.hpp"

namespace torix {

// One mode of one step: the branch it belongs to (1..nbranches), f, g (Oe)
// and its coupling kappa to the driving field.
struct SweepMode {
    int branch = 0;
    double f = 0.0, g = 0.0;
    cplx kappa{0.0, 0.0};
};

struct SweepStep {
    std::array<double, 3> H{0.0, 0.0, 0.0};  // uniform applied field (Oe)
    double s = 0.0;                          // sweep coordinate (Oe)
    bool jump = false;                       // the state jumped: every branch starts here
    std::vector<SweepMode> modes;
};

struct SweepRecord {
    std::array<double, 3> H1{0.0, 0.0, 0.0}, H2{0.0, 0.0, 0.0};
    std::array<double, 3> e{1.0, 0.0, 0.0};  // sweep direction
    int nsteps = 1;
    int nbranches = 0;
    double ghz_per_oe = 2.8e-3;
    std::string gyro_note;  // how ghz_per_oe was chosen, for the headers
    std::vector<SweepStep> steps;
};

// The oriented unit vector of the line from H1 to H2 (H1 != H2).
std::array<double, 3> sweep_direction(const std::array<double, 3>& H1, const std::array<double, 3>& H2);

// The table: '#' header lines naming the sweep and the columns, then one
// row per finished step: step, Hx, Hy, Hz, s, and for every branch
// f (Oe), g (Oe), f (GHz), |kappa|; "nan" where the branch has no mode at
// that step.  Written whole under a temporary name and renamed, so it can
// be rewritten after every step.
void write_sweep_table(const std::string& name, const SweepRecord& rec);

// One sample of the absorption at fixed angular frequency w0 (Oe).
struct FieldSample {
    double s = 0.0;                          // sweep coordinate (Oe)
    std::array<double, 3> H{0.0, 0.0, 0.0};  // uniform applied field (Oe)
    double power = 0.0;
};

// A peak of the field-swept absorption.
struct Resonance {
    double s = 0.0;     // resonance field (sweep coordinate, Oe)
    double fwhm = 0.0;  // full width at half maximum (Oe); nan where a half-maximum point lies outside the sweep
    double power = 0.0;
};

// The floor on the decay rate in the absorption at w0: undamped modes would
// give peaks of zero width.
double sweep_gmin(double w0);

// Branch values between two steps: f, g and kappa of each branch linear in
// s where the branch has a mode at both steps; a branch with a mode at one
// step only counts on that step's half of the interval.  Outputs one row
// per branch present (W(p, 1) = f, W(p, 2) = max(g, gmin)), the form that
// `absorption` takes; returns the count.
int interpolate_branches(const SweepStep& a, const SweepStep& b, double t, double gmin, Array<cplx, 1>& C,
                         Array<double, 2>& W);

// The absorbed power at w0 (Oe) against the sweep coordinate: every step
// interval sampled evenly, at least 20 samples per narrowest linewidth
// 2 g / |df/ds| of the branches whose frequency comes within a few
// linewidths of w0 in that interval, at least 20 per interval, at most
// 2 000 000 in all.  Samples run in sweep order.
std::vector<FieldSample> field_absorption(const SweepRecord& rec, double w0);

// The peaks of a sampled curve: local maxima above 1e-3 of the largest,
// the peak field by a parabola through the three samples about it, the
// half-maximum points by linear interpolation.  In increasing s.
std::vector<Resonance> find_resonances(const std::vector<FieldSample>& samples);

// The "_fmr.txt" file: header, one line per sample (s, Hx, Hy, Hz, P), then
// '#' lines listing the resonance fields and their widths.
void write_field_absorption(const std::string& name, const SweepRecord& rec, double f0_ghz,
                            const std::vector<FieldSample>& samples, const std::vector<Resonance>& peaks);

// The ".svg" picture: the branches (frequency in GHz) against s, markers
// sized and coloured by |kappa| / max |kappa|, and, when `samples` is not
// empty, the absorption at f0 below them with f0 marked in the upper panel.
void plot_sweep_svg(const std::string& name, const SweepRecord& rec, double f0_ghz,
                    const std::vector<FieldSample>& samples);

// The "_map.png" picture: the absorption over s (across) and frequency in
// GHz (up), on a logarithmic colour scale of three decades below the
// largest value, with axes and a colour bar.
void write_absorption_map(const std::string& name, const SweepRecord& rec);

}  // namespace torix
