#include "geometry/numbering_r.hpp"

#include <algorithm>
#include <cstdint>
#include <vector>

#include "geometry/mask_files.hpp"

namespace torix {

namespace {

// The walk of number_r about the axis (xc, yc) in index units.
void number_axis(const IntGrid& MASQUE, IntGrid& NUM, int nx, int ny, int nz, int& N, double xc, double yc, double r,
                 int bx, int by, int bz, double dx, double dy) {
    NUM.fill(0);
    N = 0;
    const auto blocks = [](int n, int b) { return static_cast<int>((std::int64_t{n} + b) / b); };
    const auto top = [](int first, int b, int n) {
        return static_cast<int>(std::min<std::int64_t>(std::int64_t{first} + b - 1, n));
    };
    const int Bx = blocks(nx, bx), By = blocks(ny, by), Bz = blocks(nz, bz);
    if (Bx < 1) return;
    const auto inner = [&](int i, int j) {
        if (r < 0.0) return false;
        const double ex = (i - xc) * dx, ey = (j - yc) * dy;
        return ex * ex + ey * ey <= r * r;
    };
    int counter = 0;
    for (int p = 0; p < Bx; ++p)
        for (int q = 0; q < By; ++q)
            for (int s = 0; s < Bz; ++s) {
                int shared = 0;  // the number of the block's outer cells, once taken
                const int i2 = top(p * bx, bx, nx), j2 = top(q * by, by, ny), k2 = top(s * bz, bz, nz);
                for (int i = p * bx; i <= i2; ++i)
                    for (int j = q * by; j <= j2; ++j)
                        for (int k = s * bz; k <= k2; ++k) {
                            if (MASQUE(i, j, k) == 0) continue;
                            if (inner(i, j)) {
                                NUM(i, j, k) = ++counter;
                            } else {
                                if (shared == 0) shared = ++counter;
                                NUM(i, j, k) = shared;
                            }
                        }
            }
    N = counter;
}

}  // namespace

void number_r(const IntGrid& MASQUE, IntGrid& NUM, int nx, int ny, int nz, int& N, double r, int bx, int by, int bz,
              double dx, double dy) {
    number_axis(MASQUE, NUM, nx, ny, nz, N, nx / 2.0, ny / 2.0, r, bx, by, bz, dx, dy);
}

void number_r2(const IntGrid& MASQUE, IntGrid& NUM, int nx, int ny, int nz, int& N, double x0, double y0, double r,
               int bx, int by, int bz, double dx, double dy) {
    number_axis(MASQUE, NUM, nx, ny, nz, N, x0 / dx - 0.5, y0 / dy - 0.5, r, bx, by, bz, dx, dy);
    std::vector<std::int32_t> count(static_cast<std::size_t>(N) + 1, 0);
    for (const std::int32_t n : NUM) ++count[static_cast<std::size_t>(n)];
    IntGrid mult = make_int_grid(nx, ny, nz, 0);
    for (std::size_t c = 0; c < mult.size(); ++c) {
        const std::int32_t n = NUM.data()[c];
        if (n > 0) mult.data()[c] = count[static_cast<std::size_t>(n)];
    }
    savemasquet2(mult, nx, ny, nz, "masque1.txt");
}

}  // namespace torix
