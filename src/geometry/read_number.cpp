#include "geometry/read_number.hpp"

#include <cmath>

#include "core/records.hpp"

namespace torix {

namespace {

// An integer carried in a double slot of a record.
bool as_int(double v, int& out) {
    if (!(std::abs(v) < 2.0e9) || v != std::floor(v)) return false;
    out = static_cast<int>(v);
    return true;
}

}  // namespace

std::int64_t read_number(const std::string& fname, IntGrid& NUM, int nx, int ny, int nz, int& N) {
    RecordReader r(fname, 36);
    r.require(1, "the header record");
    r.seek(1);
    N = r.i32();
    if (N < 0) r.fail("record 1: negative cell count " + std::to_string(N));
    NUM = make_int_grid(nx, ny, nz, 0);
    for (std::int64_t rec = 2;; ++rec) {
        if (rec > r.records())
            r.fail("no separator record (key -1) after the cell records; the file ends at record " +
                   std::to_string(r.records()));
        r.seek(rec);
        const int x = r.i32();
        const double fy = r.f64(), fz = r.f64(), fn = r.f64();
        if (x == -1) {
            // Every number belongs to at least one cell record.
            if (N > rec - 2)
                r.fail("record 1: " + std::to_string(N) + " cell numbers, but only " + std::to_string(rec - 2) +
                       " cell records before the separator at record " + std::to_string(rec));
            return rec;
        }
        int y = 0, z = 0, n = 0;
        const std::string where = "record " + std::to_string(rec) + ": ";
        if (!as_int(fy, y) || !as_int(fz, z) || !as_int(fn, n))
            r.fail(where + "cell coordinates or number are not integers");
        if (x < 0 || x > nx || y < 0 || y > ny || z < 0 || z > nz)
            r.fail(where + "cell (" + std::to_string(x) + "," + std::to_string(y) + "," + std::to_string(z) +
                   ") lies outside the grid 0.." + std::to_string(nx) + ", 0.." + std::to_string(ny) + ", 0.." +
                   std::to_string(nz));
        if (n < 1 || n > N)
            r.fail(where + "cell number " + std::to_string(n) + " outside 1.." + std::to_string(N));
        NUM(x, y, z) = n;
    }
}

}  // namespace torix
