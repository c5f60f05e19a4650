// PETSc and SLEPc: their start, once per process, closed to the
// environment, and the check of their error codes.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/lsan_interface.h>
#define TORIX_LEAK_CHECKER 1
#endif
#endif
#ifndef TORIX_LEAK_CHECKER
#define TORIX_LEAK_CHECKER 0
#endif
#include <cstdlib>
#include <string>

#include "core/error.hpp"
#include "eigen/slepc_parts.hpp"
#include "eigen/slepc_solve.hpp"

namespace torix {

namespace slepc {

void check(PetscErrorCode e, const char* what) {
    if (e == 0) return;
    const char* text = nullptr;
    PetscErrorMessage(e, &text, nullptr);
    throw FatalError(std::string("SOLVE_MODES: ") + what + " failed: " +
                     (text ? text : "PETSc error " + std::to_string(static_cast<int>(e))));
}

}  // namespace slepc

// Switches the sanitizer build's leak checker off and on (no-op elsewhere).
static void leak_check(bool on) {
#if TORIX_LEAK_CHECKER
    if (on)
        __lsan_enable();
    else
        __lsan_disable();
#else
    (void)on;
#endif
}

// A process that no MPI launcher started runs as a singleton of one rank.
// Open MPI would then start a daemon process beside it and probe every
// network transport it knows (0.3 s of each solve's start, and a second
// process on a shared machine); one rank needs neither, and talks only to
// itself (transport "self": no shared-memory segment, no sockets, fewer
// things to fail while the machine is busy).  Settings the environment
// makes are kept, and a launched job is left as the launcher set it up.
static void settle_singleton_mpi() {
#if defined(OPEN_MPI)
    for (const char* launched : {"OMPI_COMM_WORLD_SIZE", "PMIX_RANK", "PMI_RANK", "PMI_SIZE"})
        if (std::getenv(launched) != nullptr) return;
    setenv("OMPI_MCA_ess_singleton_isolated", "1", 0);
    setenv("OMPI_MCA_pml", "ob1", 0);
    setenv("OMPI_MCA_btl", "self", 0);
#endif
}

void start_petsc() {
    // PETSc and MPI are process-wide; they are started once and finished at
    // exit.
    static const bool started = [] {
        unsetenv("PETSC_OPTIONS");
        unsetenv("PETSC_OPTIONS_YAML");
        settle_singleton_mpi();
        static char a0[] = "torix", a1[] = "-skip_petscrc", a2[] = "-no_signal_handler";
        static char* args[] = {a0, a1, a2, nullptr};
        int argc = 3;
        char** argv = args;
        // MPI's start keeps process-wide tables (some in plug-ins it loads
        // and unloads) until the process ends: not leaks of ours, so the
        // leak checker of the sanitizer build looks away while it runs.
        leak_check(false);
        // MPI is started here (unless a launcher started the run: ranks.hpp),
        // not by PETSc, which then leaves its end to the program.  Only the
        // thread that started it calls MPI.
        int mpi_running = 0, provided = MPI_THREAD_SINGLE;
        MPI_Initialized(&mpi_running);
        const bool own_mpi = !mpi_running;
        if (own_mpi && MPI_Init_thread(&argc, &argv, MPI_THREAD_FUNNELED, &provided) != MPI_SUCCESS) {
            leak_check(true);
            throw FatalError("SOLVE_MODES: MPI could not be started");
        }
        // Each rank's PETSc objects are its own; the ranks divide a solve
        // by sides, not by rows.
        PETSC_COMM_WORLD = MPI_COMM_SELF;
        const PetscErrorCode started_ok = SlepcInitialize(&argc, &argv, nullptr, nullptr);
        leak_check(true);
        if (started_ok != 0) throw FatalError("SOLVE_MODES: PETSc/SLEPc could not be started");
        PetscPushErrorHandler(PetscReturnErrorHandler, nullptr);
        static bool finish_mpi = own_mpi;
        std::atexit([] {
            leak_check(false);
            SlepcFinalize();
            if (finish_mpi) MPI_Finalize();
        });
        return true;
    }();
    (void)started;
}

}  // namespace torix
