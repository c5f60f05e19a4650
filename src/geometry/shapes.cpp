#include "geometry/shapes.hpp"

#include <algorithm>

namespace torix {

void calcsphere(IntGrid& MASQUE, int nx, int ny, int nz, double a, double b, double c, double ai, double bi, double ci,
                double x0, double y0, double z0, int value, int& count) {
    count = 0;
    const bool hole = !(ai <= 0.0 || bi <= 0.0 || ci <= 0.0);
    for (int i = 0; i <= nx; ++i)
        for (int j = 0; j <= ny; ++j)
            for (int k = 0; k <= nz; ++k) {
                const double di = i - x0, dj = j - y0, dk = k - z0;
                const double sout = di * di / (a * a) + dj * dj / (b * b) + dk * dk / (c * c);
                bool pass = sout <= 1.01;
                if (hole) {
                    const double sin = di * di / (ai * ai) + dj * dj / (bi * bi) + dk * dk / (ci * ci);
                    pass = pass && sin >= 0.99;
                }
                if (pass) {
                    MASQUE(i, j, k) = value;
                    ++count;
                }
            }
}

void calcdisk(IntGrid& MASQUE, int nx, int ny, int nz, double a, double b, double ai, double bi, double h, double x0,
              double y0, double z0, int value, int& count) {
    count = 0;
    const bool hole = !(ai <= 0.0 || bi <= 0.0);
    for (int i = 0; i <= nx; ++i)
        for (int j = 0; j <= ny; ++j)
            for (int k = 0; k <= nz; ++k) {
                const double di = i - x0, dj = j - y0;
                const double s = di * di / (a * a) + dj * dj / (b * b);
                bool radial = s <= 1.0;
                if (hole) radial = radial && di * di / (ai * ai) + dj * dj / (bi * bi) >= 1.0;
                const bool height = z0 <= k && k - z0 <= h;
                if (radial && height) {
                    MASQUE(i, j, k) = value;
                    ++count;
                }
            }
}

void calcslab2(IntGrid& MASQUE, int nx, int ny, int nz, int i1, int i2, int j1, int j2, int k1, int k2, int value,
               int& count) {
    count = 0;
    i1 = std::max(i1, 0), j1 = std::max(j1, 0), k1 = std::max(k1, 0);
    i2 = std::min(i2, nx), j2 = std::min(j2, ny), k2 = std::min(k2, nz);
    for (int i = i1; i <= i2; ++i)
        for (int j = j1; j <= j2; ++j)
            for (int k = k1; k <= k2; ++k) {
                MASQUE(i, j, k) = value;
                ++count;
            }
}

}  // namespace torix
