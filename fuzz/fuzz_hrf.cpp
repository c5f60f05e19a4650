// Driving-field files (SET_HRF kind 3) on a small grid.
#include "core/error.hpp"
#include "fuzz_util.hpp"
#include "output/response.hpp"

using namespace torix;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Head h;
    if (!fuzz::take_head(data, size, h)) return 0;
    fuzz::enter_scratch();
    fuzz::write_file("hrf", h.rest, h.left);
    try {
        CVecGrid hrf;
        loadhrft(h.nx, h.ny, h.nz, "hrf", hrf);
    } catch (const FatalError&) {
    }
    return 0;
}
