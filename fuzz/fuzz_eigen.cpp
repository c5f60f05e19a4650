// Eigen files as EIGEN_LOAD reads them: the mode records and the cell
// numbering of the same file.
#include "core/error.hpp"
#include "eigen/eigen_files.hpp"
#include "fuzz_util.hpp"
#include "geometry/read_number.hpp"

using namespace torix;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Head h;
    if (!fuzz::take_head(data, size, h)) return 0;
    fuzz::enter_scratch();
    fuzz::write_file("eig.dat", h.rest, h.left);
    try {
        int N = 0, nmodes = 0;
        Array<double, 2> W;
        Array<cplx, 3> modes;
        if (h.pick & 1) {
            loadmodes("eig.dat", N, nmodes, W, modes);
        } else {
            IntGrid NUM;
            read_number("eig.dat", NUM, h.nx, h.ny, h.nz, N);
        }
    } catch (const FatalError&) {
    }
    return 0;
}
