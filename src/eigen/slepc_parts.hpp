#pragma once
// The parts of the matrix-free solve (slepc_solve.cpp) that live in files
// of their own: PETSc's start and error checks, the owners of its objects,
// the shell matrix of an operator, and the preconditioner (the sparse local part, its band, the
// hooks of the inner solves).
#include <slepceps.h>

#include <array>
#include <complex>
#include <exception>
#include <type_traits>
#include <vector>

#include "eigen/block_ilu.hpp"
#include "eigen/mode_product.hpp"

static_assert(std::is_same_v<PetscScalar, std::complex<double>>, "SOLVE_MODES needs the complex double build of PETSc");

namespace torix::slepc {

// A PETSc error code as a FatalError "SOLVE_MODES: <what> failed: <PETSc's text>".
void check(PetscErrorCode e, const char* what);

// Owners of PETSc objects.
template <class T, PetscErrorCode (*Destroy)(T*)>
struct Owned {
    T h = nullptr;
    Owned() = default;
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
    ~Owned() {
        if (h) Destroy(&h);
    }
};
using OwnedMat = Owned<Mat, MatDestroy>;
using OwnedVec = Owned<Vec, VecDestroy>;
using OwnedEPS = Owned<EPS, EPSDestroy>;

// Shell matrices: the operator (transposed: A^T) and the count of its products.
struct ShellContext {
    const ModeProduct* op = nullptr;
    bool transposed = false;  // the shell is A^T
    std::int64_t products = 0;
};
// A shell matrix of order n on `comm` whose products (and transposed
// products) are those of ctx's operator; this rank holds `local` rows
// (all n by default).
void make_shell(MPI_Comm comm, int n, ShellContext* ctx, OwnedMat& A, int local = -1);

// Fill levels of the incomplete LU for a grid of `layers` layers of cells.
int fill_levels(int layers);

// The sparse local part with -sigma on the diagonal, as a PETSc matrix of
// 2 x 2 blocks: what PETSc's own factorisation (ilu_factor), the reference
// of BlockILU, takes.
void local_matrix(const ComplexSparse& S, PetscScalar sigma, OwnedMat& P, MPI_Comm comm = PETSC_COMM_WORLD);

struct Overlap;
// The lowest positive frequency of the local part L and its count-th
// lowest (0 where there are fewer or the lowest has not settled); the inner
// solves by GMRES with `factor`, the incomplete LU of L.  With `shared`,
// collective: L holds this rank's rows and those its factor reaches, and
// the factor is that of those rows (see Overlap).
std::array<double, 2> local_band(const ComplexSparse& L, const BlockILU& factor, int count,
                                 const Overlap* shared = nullptr);

// PETSc's incomplete LU of P with `levels` fill levels, natural (grid)
// ordering, on 2 x 2 blocks, into F: the reference of BlockILU.  A singular
// pivot block is an error.
void ilu_factor(Mat P, int levels, OwnedMat& F);

// What the hooks of one side's inner solves need: the incomplete LU of the
// local part (the preconditioner: its triangular solves), applied as it is
// for A and transposed for A^T (the transpose of the incomplete LU of P is
// that of P^T: the level-of-fill pattern and the pivots are the same), so
// that one factor serves both sides.
// With the rows shared out over the ranks (restricted additive Schwarz,
// Cai & Sarkis, SIAM J. Sci. Comput. 21 (1999) 792): the factor holds the
// rows [ext_first, ext_first + its order) of the whole vector, which reach
// past this rank's own rows [first, first + rows) on both sides; a solve
// gathers x whole, solves on those rows and keeps its own.
struct Overlap {
    int first = 0, rows = 0, ext_first = 0;
    std::vector<std::size_t> starts;  // per rank, its first row, in doubles (gather_pieces)
};
struct InnerContext {
    const BlockILU* ilu = nullptr;
    bool transposed = false;
    const Overlap* overlap = nullptr;
    mutable std::vector<cplx> whole, out;  // work of the overlapping solves
};
PetscErrorCode inner_apply(PC pc, Vec x, Vec y);
PetscErrorCode inner_converged(KSP ksp, Vec, Vec, void*);

// The converged pairs (slepc_pairs.cpp).
// The left vector of a right pair (v, lambda) of an undamped model without
// the current vector, per number: u = W J^-1 v (w the multiplicities).
std::vector<cplx> left_from_right(const std::vector<cplx>& v, const std::vector<int>& w);
// |A^H u - conj(lambda) u| / (|lambda| |u|), by one transposed product of
// op (collective when its rows are shared).
double left_residual(const ModeProduct& op, const std::vector<cplx>& u, cplx lambda);
// Unit norm, the component of largest modulus real and positive.
void normalise(std::vector<cplx>& v);
// Left vectors U made biorthogonal to the right ones V within clusters of
// eigenvalues equal to `same` relative.
void biorthogonalise(const std::vector<cplx>& lambda, std::vector<std::vector<cplx>>& V,
                     std::vector<std::vector<cplx>>& U, double same);

}  // namespace torix::slepc
