// Magnetization and field files (M_LOAD, H_LOAD, ADD_EXT_FIELD kind 2),
// binary and text, on a small grid with a mask.
#include "core/error.hpp"
#include "dynamics/field_files.hpp"
#include "fuzz_util.hpp"

using namespace torix;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Head h;
    if (!fuzz::take_head(data, size, h)) return 0;
    fuzz::enter_scratch();
    fuzz::write_file("f", h.rest, h.left);
    try {
        IntGrid mask = make_int_grid(h.nx, h.ny, h.nz);
        int c = 0;
        for (auto& v : mask) v = (c++ % 3) != 0;
        VecGrid M = make_vec_grid(h.nx, h.ny, h.nz);
        if (h.pick & 1)
            loadm(M, mask, h.nx, h.ny, h.nz, "f");
        else
            loadmt(M, mask, h.nx, h.ny, h.nz, "f");
    } catch (const FatalError&) {
    }
    return 0;
}
