#include "dynamics/field_files.hpp"

#include <cstdint>
#include <cstdio>
#include <string>

#include "core/error.hpp"
#include "core/listio.hpp"
#include "core/records.hpp"

namespace torix {

namespace {

constexpr std::size_t kRecordLength = 36;

std::int32_t count_cells(const IntGrid& mask) {
    std::int64_t n = 0;
    for (std::int32_t v : mask)
        if (v != 0) ++n;
    return static_cast<std::int32_t>(n);
}

// A real in a 20-character field that always starts with a blank:
// 13 significant digits, 12 when the exponent needs three digits.
void put_real(std::string& line, double v) {
    char buf[48];
    int len = std::snprintf(buf, sizeof buf, "%.12E", v);
    if (len > 19) len = std::snprintf(buf, sizeof buf, "%.11E", v);
    line.append(static_cast<std::size_t>(20 - len), ' ');
    line.append(buf, static_cast<std::size_t>(len));
}

inline bool inside(std::int32_t i, std::int32_t j, std::int32_t k, int nx, int ny, int nz) {
    return i >= 0 && j >= 0 && k >= 0 && i <= nx && j <= ny && k <= nz;
}

}  // namespace

void savem(const VecGrid& M, const IntGrid& mask, int nx, int ny, int nz, const std::string& filename) {
    RecordWriter w(filename, kRecordLength);
    w.i32(count_cells(mask));
    w.end_record();
    for (int i = 0; i <= nx; ++i)
        for (int j = 0; j <= ny; ++j)
            for (int k = 0; k <= nz; ++k) {
                if (mask(i, j, k) == 0) continue;
                w.i32(i);
                w.i32(j);
                w.i32(k);
                for (int a = 1; a <= 3; ++a) w.f64(M(i, j, k, a));
                w.end_record();
            }
    w.commit();
}

void savemt(const VecGrid& M, const IntGrid& mask, int nx, int ny, int nz, const std::string& filename) {
    AtomicFile f(filename, false);
    std::string line;
    char buf[32];
    std::snprintf(buf, sizeof buf, "%9d\n", count_cells(mask));
    line = buf;
    f.stream() << line;
    for (int i = 0; i <= nx; ++i)
        for (int j = 0; j <= ny; ++j)
            for (int k = 0; k <= nz; ++k) {
                if (mask(i, j, k) == 0) continue;
                std::snprintf(buf, sizeof buf, "%6d%6d%6d", i, j, k);
                line = buf;
                for (int a = 1; a <= 3; ++a) put_real(line, M(i, j, k, a));
                line += '\n';
                f.stream() << line;
            }
    f.commit();
}

void loadm(VecGrid& M, const IntGrid& /*mask*/, int nx, int ny, int nz, const std::string& filename) {
    RecordReader r(filename, kRecordLength);
    r.require(1, "the header record");
    r.seek(1);
    const std::int32_t n = r.i32();
    if (n < 0) r.fail("record 1: negative cell count " + std::to_string(n));
    r.require(static_cast<std::int64_t>(n) + 1, "a cell count of " + std::to_string(n));
    M.fill(0.0);
    for (std::int64_t rec = 2; rec <= static_cast<std::int64_t>(n) + 1; ++rec) {
        r.seek(rec);
        const std::int32_t i = r.i32(), j = r.i32(), k = r.i32();
        const double x = r.f64(), y = r.f64(), z = r.f64();
        if (!inside(i, j, k, nx, ny, nz)) continue;
        M(i, j, k, 1) = x;
        M(i, j, k, 2) = y;
        M(i, j, k, 3) = z;
    }
}

void loadmt(VecGrid& M, const IntGrid& /*mask*/, int nx, int ny, int nz, const std::string& filename) {
    ListReader in(filename);
    in.begin("cell count");
    const std::int32_t n = in.i32("the cell count");
    if (n < 0) in.fail("negative cell count " + std::to_string(n));
    M.fill(0.0);
    for (std::int32_t c = 1; c <= n; ++c) {
        in.begin("cell " + std::to_string(c) + " of " + std::to_string(n));
        const std::int32_t i = in.i32("i"), j = in.i32("j"), k = in.i32("k");
        const double x = in.f64("the x component"), y = in.f64("the y component"), z = in.f64("the z component");
        if (!inside(i, j, k, nx, ny, nz)) continue;
        M(i, j, k, 1) = x;
        M(i, j, k, 2) = y;
        M(i, j, k, 3) = z;
    }
}

}  // namespace torix
