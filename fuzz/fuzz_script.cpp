// The command script: every keyword of the command table with whatever
// parameter lines follow it, after a prologue that sets up a small model
// (4 x 4 x 2 cells with a tensor, magnetization, applied field and
// numbering), so that the commands that need one get past their checks.
//
// The work of some commands is not bounded by what they read: RELAX and
// EXEC run until a threshold or an end time given in the script, the
// automatic time step integrates until a deviation grows, and the grid and
// material commands set the size of everything after them.  Inputs that
// name one of these anywhere are skipped, so one input stays within
// milliseconds; their parameter reading is the same list-directed reading
// the others use, and the commands are run end to end by the case tests.
#include <array>
#include <new>
#include <string>
#include <string_view>

#include "core/error.hpp"
#include "core/listio.hpp"
#include "fuzz_util.hpp"
#include "interpreter/command_table.hpp"
#include "interpreter/model_state.hpp"

using namespace torix;

namespace {

constexpr std::string_view kPrologue =
    "SET_CELL\n5e-7 5e-7 5e-7\nLOAD_MAT\n2\n1.3e-6 800\n1e-6 600\nMASQUE_CREATE\n20e-7 20e-7 10e-7\n"
    "ADD_SHAPE\n3\n20e-7 20e-7 10e-7 0 0 0 1\nADD_SHAPE\n3\n5e-7 5e-7 5e-7 0 0 0 2\nTENSOR_CREATE\n0\n"
    "INIT_M\n2\n1 0.3 0.1\nADD_EXT_FIELD\n1\n1000 0 0\nSET_SCALE\n1 1 1\nEND\n";

constexpr std::array<std::string_view, 9> kSkipped = {"RELAX",    "EXEC",        "SET_TIMESTEP",
                                                      "SET_CELL", "MASQUE_CREATE", "MASQUE_LOAD",
                                                      "LOAD_MAT", "STUDY_SHAPE", "TENSOR_LOAD"};

// Every line's first item, read as the command loop reads keywords.
bool names_a_skipped_command(const std::string& path) {
    try {
        ListReader in(path, path);
        while (auto kw = in.keyword())
            for (std::string_view s : kSkipped)
                if (*kw == s) return true;
    } catch (const FatalError&) {
    }
    return false;
}

// The state after the prologue, made once.
const ModelState& prepared() {
    static const ModelState st = [] {
        ModelState s;
        std::ofstream("prologue.dat") << kPrologue;
        run_script(s, "prologue.dat", "prologue.dat");
        return s;
    }();
    return st;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::enter_scratch();
    const ModelState& start = prepared();
    fuzz::write_file("input.dat", data, size);
    if (names_a_skipped_command("input.dat")) return 0;
    try {
        ModelState st = start;
        run_script(st, "input.dat", "input.dat");
    } catch (const FatalError&) {
    } catch (const std::bad_alloc&) {
    }
    fuzz::clear_scratch();
    return 0;
}
