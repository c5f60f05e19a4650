// The operator as a PETSc shell matrix.
#include <new>

#include "eigen/slepc_parts.hpp"

namespace torix::slepc {

namespace {

// Shell products.  Nothing may be thrown through PETSc's C frames: failures
// become PETSc error codes, which the caller turns into a message.
PetscErrorCode shell_product(Mat A, Vec x, Vec y, bool transpose) {
    void* raw = nullptr;
    PetscErrorCode e = MatShellGetContext(A, &raw);
    if (e) return e;
    auto* c = static_cast<ShellContext*>(raw);
    const PetscScalar* px = nullptr;
    PetscScalar* py = nullptr;
    if ((e = VecGetArrayRead(x, &px))) return e;
    if ((e = VecGetArrayWrite(y, &py))) {
        VecRestoreArrayRead(x, &px);
        return e;
    }
    PetscErrorCode status = 0;
    try {
        if (transpose != c->transposed)
            c->op->apply_transpose(px, py);
        else
            c->op->apply(px, py);
        ++c->products;
    } catch (const std::bad_alloc&) {
        status = PETSC_ERR_MEM;
    } catch (...) {
        status = PETSC_ERR_LIB;
    }
    VecRestoreArrayWrite(y, &py);
    VecRestoreArrayRead(x, &px);
    return status;
}
PetscErrorCode mult(Mat A, Vec x, Vec y) { return shell_product(A, x, y, false); }
PetscErrorCode mult_transpose(Mat A, Vec x, Vec y) { return shell_product(A, x, y, true); }

}  // namespace

void make_shell(MPI_Comm comm, int n, ShellContext* ctx, OwnedMat& A, int local) {
    if (local < 0) local = n;
    check(MatCreateShell(comm, local, local, n, n, ctx, &A.h), "MatCreateShell");
    check(MatShellSetOperation(A.h, MATOP_MULT, reinterpret_cast<void (*)(void)>(mult)), "MatShellSetOperation");
    check(MatShellSetOperation(A.h, MATOP_MULT_TRANSPOSE, reinterpret_cast<void (*)(void)>(mult_transpose)),
          "MatShellSetOperation");
}

}  // namespace torix::slepc
