// Mask files: the grid readers and the three mask readers, as MASQUE_LOAD
// calls them (grid from the file, then the mask over that grid).
#include "core/error.hpp"
#include "core/memory.hpp"
#include "fuzz_util.hpp"
#include "geometry/mask_files.hpp"

using namespace torix;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    fuzz::enter_scratch();
    const int format = data[0] % 3 + 1;
    fuzz::write_file("m", data + 1, size - 1);
    try {
        int nx = -1, ny = -1, nz = -1;
        if (format == 2)
            loadmasqueparam(nx, ny, nz, "m");
        else
            loadmasqueparamt(nx, ny, nz, "m");
        // The program refuses grids larger than the machine; here the grid
        // is kept small so that one input stays quick.
        const std::int64_t cx = std::int64_t{nx} + 1, cy = std::int64_t{ny} + 1, cz = std::int64_t{nz} + 1;
        if (grid_too_large(cx, cy, cz) || static_cast<double>(cx) * cy * cz > 1 << 16) return 0;
        IntGrid mask = make_int_grid(nx, ny, nz);
        if (format == 1) loadmasquet(mask, nx, ny, nz, "m");
        if (format == 2) loadmasque(mask, nx, ny, nz, "m");
        if (format == 3) loadmasquet2(mask, nx, ny, nz, "m");
    } catch (const FatalError&) {
    }
    return 0;
}
