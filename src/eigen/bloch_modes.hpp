#pragma once
// Matrix-free solve of the Bloch problem (bloch_dense.hpp) at one wave
// vector: the modes nearest i f0 with f > 0 at k, right and left vectors,
// as solve_modes (slepc_solve.hpp) finds them at k = 0, with the operator
// BlochOperator (bloch_operator.hpp) and the same shift-and-invert
// Krylov-Schur solve.
#include "eigen/bloch_dense.hpp"
#include "eigen/slepc_solve.hpp"

namespace torix {

// solve_modes at k = 0 (the same modes as without a wave vector), else the
// Bloch operator's solve.  Arguments and results as for solve_modes.
ModesStats solve_modes_bloch(const BlochProblem& p, int nmodes, double f0, double tol, ModeOutput out);
// The same at k != 0 with the kernel K given (bloch_kernel of the problem).
ModesStats solve_modes_bloch(const BlochProblem& p, const BlochKernel& K, int nmodes, double f0, double tol,
                             ModeOutput out);

}  // namespace torix
