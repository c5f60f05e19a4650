#pragma once
// Sizes taken from input (grid extents, tensor sizes, counts) are checked
// against what this machine could ever hold before anything is allocated,
// so an absurd value ends the run with a message naming the size instead of
// a failed allocation.
#include <cstdint>
#include <unistd.h>

namespace torix {

// Physical memory of the machine in bytes (1e15 when the system does not say).
inline double physical_memory() {
    const long pages = ::sysconf(_SC_PHYS_PAGES);
    const long page = ::sysconf(_SC_PAGESIZE);
    if (pages <= 0 || page <= 0) return 1.0e15;
    return static_cast<double>(pages) * static_cast<double>(page);
}

// Bytes that the grid-shaped arrays of the model take per cell: mask and
// numbering (4 + 4), M, H and the applied field (3 x 24), the complex driving
// field (48).
inline constexpr double kBytesPerCell = 128.0;

// Largest cell count of a grid: 2e9 cells; 1e9 along any one axis, even
// when another axis is empty and the product is 0, because the index
// ranges of the arrays are 32-bit ints and the tensor spans 2 n offsets per
// axis; and no more than the machine's memory can hold in the grid-shaped
// arrays.
inline bool grid_too_large(std::int64_t cx, std::int64_t cy, std::int64_t cz) {
    if (cx > 1000000000 || cy > 1000000000 || cz > 1000000000) return true;
    const double cells = static_cast<double>(cx < 0 ? 0 : cx) * static_cast<double>(cy < 0 ? 0 : cy) *
                         static_cast<double>(cz < 0 ? 0 : cz);
    return cells > 2.0e9 || cells * kBytesPerCell > physical_memory();
}

}  // namespace torix
