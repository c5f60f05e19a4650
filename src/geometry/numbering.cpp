#include "geometry/numbering.hpp"

#include <algorithm>
#include <cstdint>

namespace torix {

void number(const IntGrid& MASQUE, IntGrid& NUM, int nx, int ny, int nz, int& N, int bx, int by, int bz) {
    NUM.fill(0);
    // Block counts and bounds in 64 bits: a block size up to the int limit
    // must not overflow (a block larger than the grid is one block).
    const auto blocks = [](int n, int b) { return static_cast<int>((std::int64_t{n} + b) / b); };
    const auto top = [](int first, int b, int n) {
        return static_cast<int>(std::min<std::int64_t>(std::int64_t{first} + b - 1, n));
    };
    const int Bx = blocks(nx, bx), By = blocks(ny, by), Bz = blocks(nz, bz);
    N = 0;
    if (Bx < 1) return;
    int counter = 0;
    for (int p = 0; p < Bx; ++p)
        for (int q = 0; q < By; ++q)
            for (int r = 0; r < Bz; ++r) {
                bool opened = false;
                const int i2 = top(p * bx, bx, nx), j2 = top(q * by, by, ny), k2 = top(r * bz, bz, nz);
                for (int i = p * bx; i <= i2; ++i)
                    for (int j = q * by; j <= j2; ++j)
                        for (int k = r * bz; k <= k2; ++k) {
                            if (MASQUE(i, j, k) == 0) continue;
                            if (!opened) {
                                ++counter;
                                opened = true;
                            }
                            NUM(i, j, k) = counter;
                        }
            }
    N = counter;
}

}  // namespace torix
