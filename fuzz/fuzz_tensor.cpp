// Tensor files, binary and text, read into the tensor of a small grid.
#include "core/error.hpp"
#include "fuzz_util.hpp"
#include "tensor/tensor_files.hpp"

using namespace torix;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Head h;
    if (!fuzz::take_head(data, size, h)) return 0;
    fuzz::enter_scratch();
    fuzz::write_file("t", h.rest, h.left);
    const int nmat = 1 + (h.pick & 1);
    const int m = 1 + ((h.pick >> 1) & 1) % nmat;
    try {
        TensorArray AIJ = make_tensor(h.nx, h.ny, h.nz, nmat);
        if (h.pick & 4)
            loadtensor(AIJ, h.nx, h.ny, h.nz, m, nmat, "t");
        else
            loadtensort(AIJ, h.nx, h.ny, h.nz, m, nmat, "t");
    } catch (const FatalError&) {
    }
    return 0;
}
