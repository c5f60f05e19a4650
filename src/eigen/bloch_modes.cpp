#include "eigen/bloch_modes.hpp"

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
    start_petsc();
    const BlochOperator op(p.in, K, p.lattice.p, wave_per_cell(p.lattice, p.k));
    const std::vector<int> w = undamped_multiplicities(p.in);
    return solve_mode_products(op, op.local_part(), p.in.nz + 1, w.empty() ? nullptr : &w, nmodes, f0, tol, out,
                               start);
}

}  // namespace torix
