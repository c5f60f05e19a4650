#pragma once
// Matrix-free solve of the Bloch problem (bloch_dense.hpp) at one wave
// vector: the modes nearest i f0 with f > 0 at k, right and left vectors,
// as solve_modes (slepc_solve.hpp) finds them at k = 0, with the operator
// BlochOperator (bloch_operator.hpp) and the same shift-and-invert
// Krylov-Schur solve.
#include "eigen/bloch_dense.hpp"
#include "eigen/slepc_solve.hpp"

namespace torix {

// The Bloch operator's solve, also at k = 0 (the same modes as solve_modes
// to its tolerance), with the Krylov bases started from `start` when given
// (e.g. the modes of the last k of a dispersion: mode_columns of MODES and
// MODESL).  Arguments and results as for solve_modes.
ModesStats solve_modes_bloch(const BlochProblem& p, int nmodes, double f0, double tol, ModeOutput out,
                             const ModeStart* start);
// solve_modes itself at k = 0 (exactly the modes without a wave vector),
// else the above without start vectors.
ModesStats solve_modes_bloch(const BlochProblem& p, int nmodes, double f0, double tol, ModeOutput out);
// The Bloch operator's solve with the kernel K given (bloch_kernel of the problem).
ModesStats solve_modes_bloch(const BlochProblem& p, const BlochKernel& K, int nmodes, double f0, double tol,
                             ModeOutput out, const ModeStart* start = nullptr);

}  // namespace torix
