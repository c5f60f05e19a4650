#include "eigen/bloch_modes.hpp"

#include <optional>

#include <omp.h>

#include "eigen/bloch_operator.hpp"

namespace torix {

ModesStats solve_modes_bloch(const BlochProblem& p, int nmodes, double f0, double tol, ModeOutput out) {
    if (is_zero(p.k)) return solve_modes(p.in, nmodes, f0, tol, out);
    return solve_modes_bloch(p, nmodes, f0, tol, out, nullptr);
}

ModesStats solve_modes_bloch(const BlochProblem& p, int nmodes, double f0, double tol, ModeOutput out,
                             const ModeStart* start) {
    return solve_modes_bloch(p, bloch_kernel(p.in.AIJ, p.neighbours, p.lattice, p.k), nmodes, f0, tol, out, start);
}

ModesStats solve_modes_bloch(const BlochProblem& p, const BlochKernel& K, int nmodes, double f0, double tol,
                             ModeOutput out, const ModeStart* start) {
    const bool concurrent = start_petsc();
    // The right and left solves side by side as solve_modes runs them, each
    // with an operator of its own (the twin shares the spectra).
    const int threads = omp_get_max_threads();
    const bool together = threads >= 2 && concurrent;
    const int each = together ? threads / 2 : threads;
    const BlochOperator op(p.in, K, p.lattice.p);
    std::optional<BlochOperator> twin;
    if (together) twin.emplace(op);
    return solve_mode_products(op, twin ? *twin : op, op.local_part(), p.in.nz + 1, together, each, nmodes, f0, tol,
                               out, start);
}

}  // namespace torix
