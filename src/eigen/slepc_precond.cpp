// The preconditioner of the inner solves: the sparse local part as a PETSc
// matrix, the band of its lowest frequencies, the hooks of GMRES.
#include <algorithm>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "core/error.hpp"
#include "core/ranks.hpp"
#include "eigen/slepc_parts.hpp"

namespace torix::slepc {

// Fill levels of the incomplete LU that preconditions the inner solves, by
// the layers of cells of the grid.  Each level adds far more entries to a
// factor of a three-dimensional stencil than to one of a single layer, so
// the best level falls with the layers.  Against the exact LU (nested
// dissection), wall time on films of 100 x 100 and 200 x 200 cells in one
// layer: ILU(4) 0.62 and 0.59, ILU(6) 0.57 and 0.53, ILU(8) or (9) 0.59 and
// 0.61, with 8 % and 15 % more operator products for ILU(6).  Inner solves
// of both sides on one thread, seconds for ILU(0, 1, 2, 3, 6): FMR problem
// (24 x 24 x 2 cells) 1.78, 1.57, 1.45, 1.49, 1.60; 70 x 70 x 2 cells -,
// 13.6, 13.4, 14.4, 14.6; 50 x 50 x 4 cells 16.8, 16.3, 19.2, 20.8, 31.3; a
// 100 x 100 film in one layer 9.7 with ILU(2) against 8.1 with ILU(6).
int fill_levels(int layers) { return layers <= 1 ? 6 : layers == 2 ? 2 : 1; }

// The sparse local part with -sigma on the diagonal, as a PETSc matrix.
//
// Stored in 2 x 2 blocks (one per pair of numbers), so that the LU and ILU
// factorisations pivot on whole blocks: without damping a number's diagonal
// block is [[0, b], [c, 0]] at a shift of 0, a zero pivot for a scalar
// factorisation though the block is regular.
void local_matrix(const ComplexSparse& S, PetscScalar sigma, OwnedMat& P, MPI_Comm comm) {
    const PetscInt n = S.n;
    check(MatCreate(comm, &P.h), "MatCreate");
    check(MatSetSizes(P.h, n, n, n, n), "MatSetSizes");
    check(MatSetType(P.h, MATBAIJ), "MatSetType");
    // Both rows of a number hold the same source numbers, two columns each.
    std::vector<PetscInt> nnz(static_cast<std::size_t>(n / 2));
    for (PetscInt b = 0; b < n / 2; ++b) nnz[b] = static_cast<PetscInt>(S.row_start[2 * b + 1] - S.row_start[2 * b]) / 2;
    check(MatSeqBAIJSetPreallocation(P.h, 2, 0, nnz.data()), "MatSeqBAIJSetPreallocation");
    check(MatMPIBAIJSetPreallocation(P.h, 2, 0, nnz.data(), 0, nullptr), "MatMPIBAIJSetPreallocation");
    std::vector<PetscInt> cols;
    std::vector<PetscScalar> vals;
    for (PetscInt r = 0; r < n; ++r) {
        cols.clear(), vals.clear();
        for (std::int64_t k = S.row_start[r]; k < S.row_start[r + 1]; ++k) {
            cols.push_back(S.col[k]);
            vals.push_back(S.val[k] - (S.col[k] == r ? sigma : PetscScalar(0.0)));
        }
        check(MatSetValues(P.h, 1, &r, static_cast<PetscInt>(cols.size()), cols.data(), vals.data(), INSERT_VALUES),
              "MatSetValues");
    }
    check(MatAssemblyBegin(P.h, MAT_FINAL_ASSEMBLY), "MatAssemblyBegin");
    check(MatAssemblyEnd(P.h, MAT_FINAL_ASSEMBLY), "MatAssemblyEnd");
}

namespace {

// The Ritz values of the last Krylov-Schur iteration, converged or not,
// back-transformed (the monitor sees those of the spectral transformation).
struct RitzValues {
    ST st = nullptr;
    std::vector<cplx> values;
    std::vector<double> errors;  // SLEPc's error estimates of the values
};

PetscErrorCode ritz_monitor(EPS, PetscInt, PetscInt, PetscScalar* eigr, PetscScalar* eigi, PetscReal* errest,
                            PetscInt nest, void* ctx) {
    auto* r = static_cast<RitzValues*>(ctx);
    try {
        r->values.clear();
        r->errors.clear();
        for (PetscInt i = 0; i < nest; ++i) {
            PetscScalar re = eigr[i], im = eigi[i];
            if (const PetscErrorCode e = STBackTransform(r->st, 1, &re, &im)) return e;
            r->values.push_back(re);
            r->errors.push_back(errest[i]);
        }
    } catch (const std::bad_alloc&) {
        return PETSC_ERR_MEM;
    }
    return 0;
}

}  // namespace

// The band of the sparse local part: its lowest positive frequency and the
// count-th lowest (0 where there are fewer), from one Krylov-Schur pass
// (2 count values, SLEPc's default basis, no restart) with
// shift-and-invert at 0 whose inner solves are GMRES on the local part
// preconditioned by its incomplete LU at 0 (`factor`, the real solve's
// when the shift stays at 0): no convolution, and no exact factor,
// whose fill (nested dissection: 5.7 kB per cell of a film of 10^5 cells)
// set the peak memory of the whole solve.  The band only places the shift
// of the real solve, and it takes the Ritz values of that one pass,
// converged or not.  The lowest frequency is the extreme value of the
// inverse, the first to converge: after one pass it equals the converged
// value to 0.1 Oe on the FMR problem and films of 100 x 100 and 200 x 200
// cells.  The count-th comes out too high if anything (2807 Oe against
// 2122 Oe on the 200 x 200 film, whose band the converged run took 11
// passes and 6 s to resolve), which can only keep a narrow band's shift at
// 0, never misplace it.
constexpr double kBandSettled = 1e-2;  // largest error estimate of the lowest value the band uses

namespace {

// The products of the sparse local part itself (the band needs no
// convolution).
class SparseProduct final : public ModeProduct {
public:
    explicit SparseProduct(const ComplexSparse& S) : S_(S) {}
    [[nodiscard]] int order() const override { return S_.n; }
    void apply(const cplx* x, cplx* y) const override {
        for (int r = 0; r < S_.n; ++r) {
            cplx s = 0.0;
            for (std::int64_t k = S_.row_start[r]; k < S_.row_start[r + 1]; ++k) s += S_.val[k] * x[S_.col[k]];
            y[r] = s;
        }
    }
    void apply_transpose(const cplx* x, cplx* y) const override {
        std::fill(y, y + S_.n, cplx{});
        for (int r = 0; r < S_.n; ++r)
            for (std::int64_t k = S_.row_start[r]; k < S_.row_start[r + 1]; ++k) y[S_.col[k]] += S_.val[k] * x[r];
    }

private:
    const ComplexSparse& S_;
};

// The same with the rows shared out: this rank's rows of S (their columns
// anywhere), x gathered whole for each product.
class SharedSparseProduct final : public ModeProduct {
public:
    SharedSparseProduct(const ComplexSparse& S, const Overlap& o) : S_(S), o_(o), whole_(static_cast<std::size_t>(S.n)) {}
    [[nodiscard]] int order() const override { return S_.n; }
    [[nodiscard]] bool shared() const override { return true; }
    [[nodiscard]] int first_row() const override { return o_.first; }
    [[nodiscard]] int local_rows() const override { return o_.rows; }
    void apply(const cplx* x, cplx* y) const override {
        gather_pieces(reinterpret_cast<const double*>(x), reinterpret_cast<double*>(whole_.data()), o_.starts);
        for (int i = 0; i < o_.rows; ++i) {
            const int r = o_.first + i;
            cplx s = 0.0;
            for (std::int64_t k = S_.row_start[r]; k < S_.row_start[r + 1]; ++k) s += S_.val[k] * whole_[S_.col[k]];
            y[i] = s;
        }
    }
    void apply_transpose(const cplx*, cplx*) const override {
        throw FatalError("SOLVE_MODES: the band search has no transposed product");
    }

private:
    const ComplexSparse& S_;
    const Overlap& o_;
    mutable std::vector<cplx> whole_;
};

}  // namespace

std::array<double, 2> local_band(const ComplexSparse& L, const BlockILU& factor, int count, const Overlap* shared) {
    std::optional<SparseProduct> one;
    std::optional<SharedSparseProduct> all;
    const ModeProduct& product = shared ? static_cast<const ModeProduct&>(all.emplace(L, *shared))
                                        : static_cast<const ModeProduct&>(one.emplace(L));
    const MPI_Comm comm = shared ? MPI_COMM_WORLD : PETSC_COMM_SELF;
    ShellContext ctx{&product, false, 0};
    OwnedMat L0;
    make_shell(comm, L.n, &ctx, L0, product.local_rows());
    const InnerContext inner{&factor, false, shared, {}, {}};
    OwnedEPS eps;
    check(EPSCreate(comm, &eps.h), "EPSCreate");
    check(EPSSetOperators(eps.h, L0.h, nullptr), "EPSSetOperators");
    check(EPSSetProblemType(eps.h, EPS_NHEP), "EPSSetProblemType");
    check(EPSSetType(eps.h, EPSKRYLOVSCHUR), "EPSSetType");
    check(EPSSetTarget(eps.h, PetscScalar(0.0)), "EPSSetTarget");
    check(EPSSetWhichEigenpairs(eps.h, EPS_TARGET_MAGNITUDE), "EPSSetWhichEigenpairs");
    const PetscInt order = L.n;
    // Both members of every conjugate pair are equally near 0.
    check(EPSSetDimensions(eps.h, std::min<PetscInt>(order, 2 * count), PETSC_DEFAULT, PETSC_DEFAULT),
          "EPSSetDimensions");
    check(EPSSetTolerances(eps.h, 1e-4, 1), "EPSSetTolerances");
    ST st;
    check(EPSGetST(eps.h, &st), "EPSGetST");
    check(STSetType(st, STSINVERT), "STSetType");
    check(STSetMatMode(st, ST_MATMODE_SHELL), "STSetMatMode");
    RitzValues ritz;
    ritz.st = st;
    check(EPSMonitorSet(eps.h, ritz_monitor, &ritz, nullptr), "EPSMonitorSet");
    KSP ksp;
    check(STGetKSP(st, &ksp), "STGetKSP");
    PC pc;
    check(KSPGetPC(ksp, &pc), "KSPGetPC");
    check(KSPSetType(ksp, KSPGMRES), "KSPSetType");
    check(KSPSetTolerances(ksp, 1e-10, PETSC_DEFAULT, PETSC_DEFAULT, 2000), "KSPSetTolerances");
    check(PCSetType(pc, PCSHELL), "PCSetType");
    check(PCShellSetContext(pc, const_cast<InnerContext*>(&inner)), "PCShellSetContext");
    check(PCShellSetApply(pc, inner_apply), "PCShellSetApply");
    check(EPSSolve(eps.h), "EPSSolve (the local part may be singular at 0)");
    std::vector<std::pair<double, double>> f;  // frequency, error estimate
    for (std::size_t i = 0; i < ritz.values.size(); ++i) {
        const cplx k = ritz.values[i];
        // Real values (a rounding-level imaginary part) are not frequencies.
        if (k.imag() > 1e-3 * std::abs(k)) f.emplace_back(k.imag(), ritz.errors[i]);
    }
    std::sort(f.begin(), f.end());
    // The lowest value places the shift: it must have settled (a Ritz value
    // of a non-normal matrix far from converged can lie outside its
    // spectrum); otherwise no band is reported and the shift stays at 0.
    if (f.empty() || !(f.front().second <= kBandSettled)) return {0.0, 0.0};
    return {f.front().first, static_cast<int>(f.size()) >= count ? f[count - 1].first : 0.0};
}

// The triangular solves of an exact LU cost several operator products once
// the grid is large (its fill grows faster than the cells), while ILU(6)
// needs hardly more iterations: see fill_levels.  A shifted pivot made GMRES
// report convergence of wrong solutions, hence the error on a singular one.
void ilu_factor(Mat P, int levels, OwnedMat& F) {
    check(MatGetFactor(P, MATSOLVERPETSC, MAT_FACTOR_ILU, &F.h), "MatGetFactor");
    IS row = nullptr, col = nullptr;
    check(MatGetOrdering(P, MATORDERINGNATURAL, &row, &col), "MatGetOrdering");
    MatFactorInfo info;
    check(MatFactorInfoInitialize(&info), "MatFactorInfoInitialize");
    info.levels = levels;
    info.fill = 1.0;
    info.zeropivot = 100.0 * PETSC_MACHINE_EPSILON;
    const PetscErrorCode e = MatILUFactorSymbolic(F.h, P, row, col, &info);
    ISDestroy(&row);
    ISDestroy(&col);
    check(e, "MatILUFactorSymbolic");
    check(MatLUFactorNumeric(F.h, P, &info), "MatLUFactorNumeric");
    MatFactorError failed = MAT_FACTOR_NOERROR;
    check(MatFactorGetError(F.h, &failed), "MatFactorGetError");
    if (failed != MAT_FACTOR_NOERROR)
        throw FatalError("SOLVE_MODES: the incomplete LU of the local part has a singular pivot block at the shift");
}

PetscErrorCode inner_apply(PC pc, Vec x, Vec y) {
    void* raw = nullptr;
    if (const PetscErrorCode e = PCShellGetContext(pc, &raw)) return e;
    const auto* c = static_cast<const InnerContext*>(raw);
    const PetscScalar* px = nullptr;
    PetscScalar* py = nullptr;
    if (const PetscErrorCode e = VecGetArrayRead(x, &px)) return e;
    if (const PetscErrorCode e = VecGetArrayWrite(y, &py)) return e;
    try {
        if (const Overlap* o = c->overlap) {
            const std::size_t n = o->starts.back() / 2, m = 2 * c->ilu->order().size();
            c->whole.resize(n);
            c->out.resize(m);
            gather_pieces(reinterpret_cast<const double*>(px), reinterpret_cast<double*>(c->whole.data()), o->starts);
            const cplx* x = c->whole.data() + o->ext_first;
            c->transposed ? c->ilu->solve_transpose(x, c->out.data()) : c->ilu->solve(x, c->out.data());
            std::copy(c->out.begin() + (o->first - o->ext_first), c->out.begin() + (o->first - o->ext_first) + o->rows, py);
        } else {
            c->transposed ? c->ilu->solve_transpose(px, py) : c->ilu->solve(px, py);
        }
    } catch (const std::bad_alloc&) {
        return PETSC_ERR_MEM;
    }
    if (const PetscErrorCode e = VecRestoreArrayWrite(y, &py)) return e;
    return VecRestoreArrayRead(x, &px);
}

// An inner solve that stops short of its tolerance is an error.
PetscErrorCode inner_converged(KSP ksp, Vec, Vec, void*) {
    KSPConvergedReason reason = KSP_CONVERGED_ITERATING;
    if (const PetscErrorCode e = KSPGetConvergedReason(ksp, &reason)) return e;
    return reason < 0 ? PETSC_ERR_NOT_CONVERGED : 0;
}

}  // namespace torix::slepc
