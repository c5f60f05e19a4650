// Entry point: runs ./input.dat until END.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <new>
#include <string>
#include <xmmintrin.h>
#include <pmmintrin.h>
#include <unistd.h>

#include "core/console.hpp"
#include "core/error.hpp"
#include "core/interrupt.hpp"
#include "core/ranks.hpp"
#include "interpreter/command_table.hpp"

namespace {

// Threads of the OpenMP runtime (and of the OpenMP BLAS) that wait for work
// spin by default.  On a machine where another process holds a core, a
// spinning thread takes the time slices its working partner needs, and a
// factorisation that synchronises often runs ten times slower.  The runtime
// reads its wait policy once, before main, so the program sets a passive
// policy and starts itself again; the variable being set is the guard
// against a second start.  A policy the environment sets is kept.
void settle_thread_runtime(char** argv) {
    if (std::getenv("OMP_WAIT_POLICY") != nullptr) return;
    if (::setenv("OMP_WAIT_POLICY", "PASSIVE", 1) != 0) return;
    ::execv("/proc/self/exe", argv);
    // Not reached unless the new start failed: go on with spinning threads.
}

}  // namespace

int main(int argc, char** argv) {
    settle_thread_runtime(argv);
    torix::install_interrupt_handlers();
    // Denormal results are flushed to zero for the whole run.
    _MM_SET_FLUSH_ZERO_MODE(_MM_FLUSH_ZERO_ON);
    _MM_SET_DENORMALS_ZERO_MODE(_MM_DENORMALS_ZERO_ON);
    try {
        torix::start_ranks(&argc, &argv);
        std::string missing;
        if (torix::my_rank() == 0 && !std::ifstream("input.dat"))
            missing = "input.dat: cannot open the command script in the working directory";
        torix::agree_on_failure(missing.empty() ? nullptr : &missing);
        torix::say("TORIX version 2.0");
        torix::say("micromagnetic normal-mode solver, by the TORIX developers");
        std::cout << '\n' << std::flush;
        torix::run_script("input.dat", "input.dat");
    } catch (const torix::FatalError& e) {
        std::cout << std::flush;
        std::cerr << e.what() << '\n';
        return 1;
    } catch (const torix::OtherRankReports&) {
        return 1;
    } catch (const std::bad_alloc&) {
        std::cout << std::flush;
        std::cerr << "out of memory while allocating an array\n";
        return 1;
    }
    return 0;
}
