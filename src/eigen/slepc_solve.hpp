#pragma once
// Matrix-free eigen solve of the dynamic matrix with SLEPc: the modes whose
// complex eigenvalue lies nearest i f0, with right and left vectors.
//
// The operator is ModeOperator (never stored); Krylov-Schur runs on the
// shift-and-invert transform (A - sigma I)^-1 with sigma = i f0 (for the
// lowest modes, f0 = 0, just below their band where it is narrow), each inner
// solve by GMRES preconditioned with an incomplete LU of the sparse local part
// of A - sigma I (cells at most one cell apart, with the far dipolar blocks
// lumped onto the diagonal).  The left vectors of an undamped model follow
// from the right ones (checked with one transposed product each); otherwise
// they come from a second solve of the same kind on A^T, after the first on
// one rank, beside it on a rank of its own when the run has two or more
// (ranks.hpp).  The ModeSet has the form, order
// and sign convention of the dense solve (dense_solve.hpp): f > 0, modes by
// increasing f, A v = (-g + i f) v, u^H A = (-g + i f) u^H, vectors of unit
// norm with their largest component real and positive.
#include <cstdint>
#include <array>
#include <vector>

#include "eigen/dense_solve.hpp"
#include "eigen/dynamic_matrix.hpp"
#include "eigen/mode_product.hpp"

namespace torix {

// What one solve did, for the benchmarks and the documentation.
struct ModesStats {
    std::int64_t products = 0;       // operator products, right and left sides together
    std::int64_t inner_iterations = 0;
    int outer_iterations = 0;        // Krylov-Schur restarts, both solves
    int converged = 0;               // modes kept
    double shift = 0.0;              // s of the shift i s the solves used (Oe): f0, or below the band for f0 = 0
    double worst_residual = 0.0;     // largest |A v - lambda v| / (|lambda| |v|) of the kept pairs, both sides
    bool left_from_right = false;    // the left vectors were formed from the right ones (undamped)
    int ranks = 1;                   // ranks the solve ran on (the right and the left side on one each)
};

// Finds the nmodes modes nearest i f0 (f0 >= 0 in Oe; 0: the lowest
// frequencies) to relative residual tol (tol <= 0: 1e-10) and stores them
// in `out`.  1 <= nmodes <= N is the caller's to check.  Modes that did not
// converge are reported on stderr and left out; the ModeSet is replaced only
// after the solve has finished.  Errors of PETSc or SLEPc end in FatalError
// ("SOLVE_MODES: ...").  Starts PETSc on first use (see start_petsc).
ModesStats solve_modes(const MatrixInput& in, int nmodes, double f0, double tol, ModeOutput out);

// Vectors to start the Krylov bases from (the modes of a neighbouring
// problem, e.g. the last wave vector of a dispersion): right vectors and
// left vectors u (u^H A = lambda u^H), each of length 2N (row 2(n-1)+c-1
// for cell n, component c); vectors of another length are ignored.
struct ModeStart {
    std::vector<std::vector<cplx>> right, left;
};
// The vectors of a ModeSet (1:N, 1:2, 1:nmodes) in that form.
std::vector<std::vector<cplx>> mode_columns(const Array<cplx, 3>& modes, int nmodes);

// The multiplicities w(1..N) of an undamped model without the current
// vector (alpha = 0, happ = 0), whose left vectors can follow from its right
// ones; empty for any other model.
std::vector<int> undamped_multiplicities(const MatrixInput& in);

// The solve itself, for any operator: op for the right vectors and for the
// transposed products of the left ones, `local` the sparse local part of op
// for the preconditioner (of a grid of `layers` layers of cells),
// `undamped` the multiplicities of undamped_multiplicities (null: the left
// vectors are solved for).  On every rank of the run, each with an operator
// of its own.  The rest as for solve_modes.
ModesStats solve_mode_products(const ModeProduct& op, ComplexSparse local, int layers,
                               const std::vector<int>* undamped, int nmodes, double f0, double tol, ModeOutput out,
                               const ModeStart* start = nullptr);

// Starts PETSc and SLEPc once per process, closed to the environment: no
// PETSC_OPTIONS, no option files, no signal handlers, errors returned to the
// caller instead of printed.  Runs without mpirun (MPI singleton).  Each
// rank's PETSc is its own (PETSC_COMM_WORLD is MPI_COMM_SELF): the ranks
// share a solve's work by sides (solve_mode_products).
void start_petsc();

}  // namespace torix
