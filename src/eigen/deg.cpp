#include "eigen/deg.hpp"

#include <cstdio>

namespace torix {

void deg(const IntGrid& MASQUE, const IntGrid& NUM, int nx, int ny, int nz, int N, Array<std::int32_t, 1>& w,
         std::ostream& map) {
    w.allocate({Range{1, N}}, 0);
    for (int k = 0; k <= nz; ++k)
        for (int j = 0; j <= ny; ++j)
            for (int i = 0; i <= nx; ++i)
                if (MASQUE(i, j, k) != 0) ++w(NUM(i, j, k));
    if (nz < 0) return;
    for (int j = 0; j <= ny; ++j) {
        std::string line;
        for (int i = 0; i <= nx; ++i) {
            if (MASQUE(i, j, 0) == 0) {
                line += "NO";
            } else {
                char buf[16];
                std::snprintf(buf, sizeof buf, "%2d", w(NUM(i, j, 0)));
                line += buf;
            }
        }
        map << line << '\n';
    }
}

}  // namespace torix
