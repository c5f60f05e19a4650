#pragma once
// Matrix-free eigen solve of the dynamic matrix with SLEPc: the modes whose
// complex eigenvalue lies nearest i f0, with right and left vectors.
//
// The operator is ModeOperator (never stored); Krylov-Schur runs on the
// shift-and-invert transform (A - sigma I)^-1 with sigma = i f0 (for the
// lowest modes, f0 = 0, just below their band where it is narrow), each inner
// solve by GMRES preconditioned with an incomplete LU of the sparse local part
// of A - sigma I (cells at most one cell apart, with the far dipolar blocks
// lumped onto the diagonal).  The left vectors come from
// a second solve of the same kind on A^T, beside the first on a thread of
// its own when the run has two threads or more.  The ModeSet has the form, order
// and sign convention of the dense solve (dense_solve.hpp): f > 0, modes by
// increasing f, A v = (-g + i f) v, u^H A = (-g + i f) u^H, vectors of unit
// norm with their largest component real and positive.
#include <cstdint>
#include <vector>

#include "eigen/dense_solve.hpp"
#include "eigen/dynamic_matrix.hpp"
#include "eigen/mode_product.hpp"

namespace torix {

// What one solve did, for the benchmarks and the documentation.
struct ModesStats {
    std::int64_t products = 0;       // operator products, right and left solves together
    std::int64_t inner_iterations = 0;
    int outer_iterations = 0;        // Krylov-Schur restarts, both solves
    int converged = 0;               // modes kept
    double shift = 0.0;              // s of the shift i s the solves used (Oe): f0, or below the band for f0 = 0
    double worst_residual = 0.0;     // largest |A v - lambda v| / (|lambda| |v|) of the kept pairs, both sides
    bool side_by_side = false;       // the right and left solves ran at the same time
};

// Finds the nmodes modes nearest i f0 (f0 >= 0 in Oe; 0: the lowest
// frequencies) to relative residual tol (tol <= 0: 1e-10) and stores them
// in `out`.  1 <= nmodes <= N is the caller's to check.  Modes that did not
// converge are reported on stderr and left out; the ModeSet is replaced only
// after the solve has finished.  Errors of PETSc or SLEPc end in FatalError
// ("SOLVE_MODES: ...").  Starts PETSc on first use (see start_petsc).
ModesStats solve_modes(const MatrixInput& in, int nmodes, double f0, double tol, ModeOutput out);

// The solve itself, for any operator: op for the right vectors, op_left
// (op or a twin of it with work buffers of its own, when `together`) for
// the transposed products of the left ones, `local` the sparse local part
// of op for the preconditioner (of a grid of `layers` layers of cells).
// `together`: the two sides run side by side, each on `each` threads (as
// start_petsc allows).  The rest as for solve_modes.
// Vectors to start the Krylov bases from (the modes of a neighbouring
// problem, e.g. the last wave vector of a dispersion): right vectors and
// left vectors u (u^H A = lambda u^H), each of length 2N (row 2(n-1)+c-1
// for cell n, component c); vectors of another length are ignored.
struct ModeStart {
    std::vector<std::vector<cplx>> right, left;
};
// The vectors of a ModeSet (1:N, 1:2, 1:nmodes) in that form.
std::vector<std::vector<cplx>> mode_columns(const Array<cplx, 3>& modes, int nmodes);

ModesStats solve_mode_products(const ModeProduct& op, const ModeProduct& op_left, const ComplexSparse& local, int layers,
                               bool together, int each, int nmodes, double f0, double tol, ModeOutput out,
                               const ModeStart* start = nullptr);

// Starts PETSc and SLEPc once per process, closed to the environment: no
// PETSC_OPTIONS, no option files, no signal handlers, errors returned to the
// caller instead of printed.  Runs without mpirun (MPI singleton).  True
// when two solves may run side by side: MPI allows calls from several
// threads at once (MPI_THREAD_MULTIPLE), and PETSc is not a debugging build.
bool start_petsc();

}  // namespace torix
