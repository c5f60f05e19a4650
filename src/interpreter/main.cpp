// Entry point: runs ./input.dat until END.
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <new>
#include <xmmintrin.h>
#include <pmmintrin.h>

#include "core/console.hpp"
#include "core/error.hpp"
#include "interpreter/command_table.hpp"

int main() {
    // Denormal results are flushed to zero for the whole run.
    _MM_SET_FLUSH_ZERO_MODE(_MM_FLUSH_ZERO_ON);
    _MM_SET_DENORMALS_ZERO_MODE(_MM_DENORMALS_ZERO_ON);
    try {
        std::ifstream probe("input.dat");
        if (!probe) {
            std::cerr << "input.dat: cannot open the command script in the working directory\n";
            return 1;
        }
        probe.close();
        torix::say("TORIX version 2.0");
        torix::say("micromagnetic normal-mode solver, by the TORIX developers");
        std::cout << '\n' << std::flush;
        torix::run_script("input.dat", "input.dat");
    } catch (const torix::FatalError& e) {
        std::cout << std::flush;
        std::cerr << e.what() << '\n';
        return 1;
    } catch (const std::bad_alloc&) {
        std::cout << std::flush;
        std::cerr << "out of memory while allocating an array\n";
        return 1;
    }
    return 0;
}
