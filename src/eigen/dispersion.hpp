#pragma once
// Spin-wave dispersion: the lowest modes at wave vectors evenly spaced along
// a straight path, each solve started from the last one's vectors, and the
// branches followed from one wave vector to the next by the overlap of the
// periodic parts u of the modes (branch_match.hpp), not by frequency order,
// so that branches keep their identity where they cross.
//
// Wave vectors in rad/cm; frequencies f and decay rates g in Oe, as the
// ModeSet keeps them.
//
// When the assignment between two neighbouring wave vectors is ambiguous
// (a chosen pair overlaps by less than kAccept but at least kUnrelated, or a
// pair not chosen by kUnrelated or more: a mode that changes fast, two modes
// that mix near an anticrossing), the step is
// halved by a solve at its midpoint, at most kMaxHalvings times, and the
// branches are followed through the midpoints; those solves are not
// written.  After the last halving, a pair that overlaps by less than kKeep
// is not continued: the new mode starts a branch of its own (a mode that
// enters the window of the lowest modes from above does so too).
#include <array>
#include <functional>
#include <vector>

#include "core/array.hpp"

namespace torix {

using WaveVector = std::array<double, 3>;  // rad/cm

// The modes of one solve, in the form of the ModeSet: W(p, 1:2) = f, g (Oe),
// R(n, c, p) and L(n, c, p) the right and left periodic parts of mode p on
// cell number n = 1..N, local component c = 1..2.
struct KModes {
    int nmodes = 0;
    Array<double, 2> W;
    Array<double, 1> PHASES, ZOUT;
    Array<cplx, 3> R, L;
};

// One solve at wave vector k: fills `out` with the lowest modes (at most the
// count the caller was asked for), started from `start`, the modes of the
// solve at the nearest wave vector before k on the path (nullptr for the
// first solve).  Errors end in FatalError.
using KSolve = std::function<void(const WaveVector& k, const KModes* start, KModes& out)>;

// nk wave vectors from k1 to k2 inclusive, evenly spaced (k1 alone for
// nk = 1).  nk >= 1.
std::vector<WaveVector> wavevector_path(const WaveVector& k1, const WaveVector& k2, int nk);

struct Dispersion {
    std::vector<WaveVector> k;     // the path
    std::vector<double> s;         // length along the path from k[0] (rad/cm)
    int branches = 0;
    // f[q * branches + b], g likewise: branch b = 0..branches-1 at k[q];
    // NaN where the branch has no mode at that wave vector.  Branches are
    // numbered in the order they start: at k[0] by increasing frequency,
    // then each new one as it appears.
    std::vector<double> f, g;
    int extra_solves = 0;          // midpoint solves of halved steps
    double weakest = 1.0;          // smallest overlap of a continued pair
};

inline constexpr double kAccept = 0.8;
inline constexpr double kUnrelated = 0.2;
inline constexpr double kKeep = 0.5;
inline constexpr int kMaxHalvings = 3;

// Runs `solve` along `path` and follows the branches.  `done(q)` is called
// after the solve at path[q] (for progress reports); may be empty.
Dispersion follow_dispersion(const std::vector<WaveVector>& path, const KSolve& solve,
                             const std::function<void(int)>& done = {});

}  // namespace torix
