#include "geometry/numbering.hpp"

#include <algorithm>

namespace torix {

void number(const IntGrid& MASQUE, IntGrid& NUM, int nx, int ny, int nz, int& N, int bx, int by, int bz) {
    NUM.fill(0);
    const int Bx = (nx + bx) / bx, By = (ny + by) / by, Bz = (nz + bz) / bz;
    N = 0;
    if (Bx < 1) return;
    int counter = 0;
    for (int p = 0; p < Bx; ++p)
        for (int q = 0; q < By; ++q)
            for (int r = 0; r < Bz; ++r) {
                bool opened = false;
                const int i2 = std::min(p * bx + bx - 1, nx), j2 = std::min(q * by + by - 1, ny),
                          k2 = std::min(r * bz + bz - 1, nz);
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
