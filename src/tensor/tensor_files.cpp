#include "tensor/tensor_files.hpp"

#include <cstdint>
#include <cstdio>
#include <limits>

#include "core/error.hpp"
#include "core/listio.hpp"
#include "core/records.hpp"

namespace torix {

namespace {

constexpr std::size_t kRecord = 84;  // 3 int32 + 9 float64

std::int32_t offset_count(int nx, int ny, int nz, const std::string& name) {
    const std::int64_t n = std::int64_t{2 * nx + 2} * (2 * ny + 2) * (2 * nz + 2);
    if (n < 0 || n > std::numeric_limits<std::int32_t>::max())
        throw FatalError(name + ": the offset count " + std::to_string(n) + " does not fit a 32-bit record count");
    return static_cast<std::int32_t>(n);
}

bool inside(int i, int j, int k, int nx, int ny, int nz) {
    return i >= -nx && i <= nx + 1 && j >= -ny && j <= ny + 1 && k >= -nz && k <= nz + 1;
}

void append_int(std::string& line, long long v) {
    char buf[24];
    std::snprintf(buf, sizeof buf, " %lld", v);
    line += buf;
}

void append_real(std::string& line, double v) {
    char buf[40];
    std::snprintf(buf, sizeof buf, " %.17g", v);
    line += buf;
}

int flags_of(const Periodicity& p) { return (p.px ? 1 : 0) + (p.py ? 2 : 0) + (p.pz ? 4 : 0); }
Periodicity periodicity_of(int flags) { return {flags & 1 ? 1 : 0, flags & 2 ? 1 : 0, flags & 4 ? 1 : 0}; }

}  // namespace

void savetensor(const TensorArray& AIJ, int nx, int ny, int nz, int m, int /*nmat*/, const std::string& name,
                const Periodicity& periodic) {
    const std::int32_t count = offset_count(nx, ny, nz, name);
    RecordWriter w(name, kRecord);
    w.i32(count);
    w.i32(nx);
    w.i32(ny);
    for (int c = 1; c <= 9; ++c) w.f64(AIJ(0, 0, 0, c, m));
    w.end_record();
    for (int i = -nx; i <= nx + 1; ++i)
        for (int j = -ny; j <= ny + 1; ++j)
            for (int k = -nz; k <= nz + 1; ++k) {
                w.i32(i);
                w.i32(j);
                w.i32(k);
                for (int c = 1; c <= 9; ++c) w.f64(AIJ(i, j, k, c, m));
                w.end_record();
            }
    if (periodic.any()) {
        w.i32(-1);
        w.i32(flags_of(periodic));
        w.i32(0);
        for (int c = 1; c <= 9; ++c) w.f64(0.0);
        w.end_record();
    }
    w.commit();
}

Periodicity loadtensor(TensorArray& AIJ, int nx, int ny, int nz, int m, int /*nmat*/, const std::string& name) {
    RecordReader r(name, kRecord);
    r.require(1, "the header record");
    r.seek(1);
    const std::int32_t count = r.i32();
    (void)r.i32();  // nx of the file: not compared
    (void)r.i32();  // ny of the file: not compared
    if (count < 0) r.fail("the header holds a negative record count (" + std::to_string(count) + ")");
    r.require(std::int64_t{count} + 1, "a header count of " + std::to_string(count) + " offset records");
    double v[9];
    for (double& x : v) x = r.f64();
    if (inside(0, 0, 0, nx, ny, nz))
        for (int c = 1; c <= 9; ++c) AIJ(0, 0, 0, c, m) = v[c - 1];
    for (std::int64_t n = 2; n <= std::int64_t{count} + 1; ++n) {
        r.seek(n);
        const int i = r.i32(), j = r.i32(), k = r.i32();
        if (!inside(i, j, k, nx, ny, nz)) continue;
        for (int c = 1; c <= 9; ++c) AIJ(i, j, k, c, m) = r.f64();
    }
    if (r.records() < std::int64_t{count} + 2) return {};
    r.seek(std::int64_t{count} + 2);
    if (r.i32() != -1) r.fail("the record after the offsets is not the periodic-axes record (key -1)");
    const std::int32_t flags = r.i32();
    if (flags < 0 || flags > 7) r.fail("periodic-axes flags " + std::to_string(flags) + " outside 0..7");
    return periodicity_of(flags);
}

void savetensort(const TensorArray& AIJ, int nx, int ny, int nz, int m, int /*nmat*/, const std::string& name,
                 const Periodicity& periodic) {
    const std::int32_t count = offset_count(nx, ny, nz, name);
    AtomicFile f(name, false);
    std::string line;
    append_int(line, count);
    append_int(line, nx);
    append_int(line, ny);
    for (int c = 1; c <= 9; ++c) append_real(line, AIJ(0, 0, 0, c, m));
    f.stream() << line << '\n';
    for (int i = -nx; i <= nx + 1; ++i)
        for (int j = -ny; j <= ny + 1; ++j)
            for (int k = -nz; k <= nz + 1; ++k) {
                line.clear();
                append_int(line, i);
                append_int(line, j);
                append_int(line, k);
                for (int c = 1; c <= 9; ++c) append_real(line, AIJ(i, j, k, c, m));
                f.stream() << line << '\n';
            }
    if (periodic.any()) f.stream() << " periodic\n " << periodic.px << ' ' << periodic.py << ' ' << periodic.pz << '\n';
    f.commit();
}

Periodicity loadtensort(TensorArray& AIJ, int nx, int ny, int nz, int m, int /*nmat*/, const std::string& name) {
    ListReader in(name);
    in.begin("tensor file header");
    const std::int32_t count = in.i32("the record count");
    (void)in.i32("nx");
    (void)in.i32("ny");
    if (count < 0) in.fail("the header holds a negative record count (" + std::to_string(count) + ")");
    double v[9];
    for (double& x : v) x = in.f64("a tensor component");
    if (inside(0, 0, 0, nx, ny, nz))
        for (int c = 1; c <= 9; ++c) AIJ(0, 0, 0, c, m) = v[c - 1];
    for (std::int64_t n = 1; n <= count; ++n) {
        in.begin("tensor file record " + std::to_string(n + 1) + " of " + std::to_string(std::int64_t{count} + 1));
        const int i = in.i32("i"), j = in.i32("j"), k = in.i32("k");
        for (double& x : v) x = in.f64("a tensor component");
        if (!inside(i, j, k, nx, ny, nz)) continue;
        for (int c = 1; c <= 9; ++c) AIJ(i, j, k, c, m) = v[c - 1];
    }
    const auto word = in.keyword();
    if (!word) return {};
    if (*word != "periodic") in.fail("expected \"periodic\" or the end after the offset records, found \"" + *word + "\"");
    in.begin("periodic axes");
    int p[3];
    for (int a = 0; a < 3; ++a) {
        p[a] = in.i32("a periodic-axis flag");
        if (p[a] != 0 && p[a] != 1) in.fail("expected 0 or 1 for a periodic-axis flag, found " + std::to_string(p[a]));
    }
    return Periodicity{p[0], p[1], p[2]};
}

}  // namespace torix
