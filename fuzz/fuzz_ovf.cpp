// OVF 2.0 files (OVF_LOAD): text, binary 4 and binary 8, on a small grid
// of 10 nm cells (those of the seed files in tests/cases); the reader must
// end every input in a value or a FatalError.
#include "core/error.hpp"
#include "fuzz_util.hpp"
#include "output/ovf.hpp"

using namespace torix;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Head h;
    if (!fuzz::take_head(data, size, h)) return 0;
    try {
        VecGrid v = make_vec_grid(h.nx, h.ny, h.nz);
        parseovf("f", std::string(reinterpret_cast<const char*>(h.rest), h.left), h.nx, h.ny, h.nz, 1e-6, 1e-6,
                 1e-6, v);
    } catch (const FatalError&) {
    }
    return 0;
}
