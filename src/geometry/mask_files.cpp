#include "geometry/mask_files.hpp"

#include <cstdio>

#include "core/error.hpp"
#include "core/listio.hpp"
#include "core/memory.hpp"
#include "core/records.hpp"

namespace torix {

namespace {

constexpr std::size_t kMaskRecord = 16;

std::int64_t cell_count(int nx, int ny, int nz) {
    if (nx < 0 || ny < 0 || nz < 0) return 0;
    return static_cast<std::int64_t>(nx + 1) * (ny + 1) * (nz + 1);
}

void check_dims(int nx, int ny, int nz, const std::string& name) {
    if (nx < -1 || ny < -1 || nz < -1)
        throw FatalError(name + ": header gives negative grid indices " + std::to_string(nx) + " " +
                         std::to_string(ny) + " " + std::to_string(nz));
    const std::int64_t cx = std::int64_t{nx} + 1, cy = std::int64_t{ny} + 1, cz = std::int64_t{nz} + 1;
    if (grid_too_large(cx, cy, cz))
        throw FatalError(name + ": header gives a grid of " + std::to_string(cx) + " x " + std::to_string(cy) +
                         " x " + std::to_string(cz) + " cells, too large to hold");
}

// Mask values are material numbers: 0 (empty) or positive.
std::string negative_value(int v, int i, int j, int k) {
    return "negative material number " + std::to_string(v) + " for cell (" + std::to_string(i) + ", " +
           std::to_string(j) + ", " + std::to_string(k) + ")";
}

}  // namespace

void savemasque(const IntGrid& MASQUE, int nx, int ny, int nz, const std::string& name) {
    RecordWriter w(name, kMaskRecord);
    w.i32(static_cast<std::int32_t>(cell_count(nx, ny, nz)));
    w.i32(nx);
    w.i32(ny);
    w.i32(nz);
    w.end_record();
    for (int i = 0; i <= nx; ++i)
        for (int j = 0; j <= ny; ++j)
            for (int k = 0; k <= nz; ++k) {
                w.i32(i);
                w.i32(j);
                w.i32(k);
                w.i32(MASQUE(i, j, k));
                w.end_record();
            }
    w.commit();
}

void loadmasqueparam(int& nx, int& ny, int& nz, const std::string& name) {
    RecordReader r(name, kMaskRecord);
    r.seek(1);
    (void)r.i32();
    nx = r.i32();
    ny = r.i32();
    nz = r.i32();
    check_dims(nx, ny, nz, name);
}

void loadmasque(IntGrid& MASQUE, int nx, int ny, int nz, const std::string& name) {
    RecordReader r(name, kMaskRecord);
    r.seek(1);
    const std::int32_t count = r.i32();
    if (count < 0) r.fail("negative record count " + std::to_string(count) + " in the header");
    r.require(static_cast<std::int64_t>(count) + 1, "the header count " + std::to_string(count));
    for (std::int64_t rec = 2; rec <= static_cast<std::int64_t>(count) + 1; ++rec) {
        r.seek(rec);
        const int i = r.i32(), j = r.i32(), k = r.i32(), v = r.i32();
        if (i < 0 || i > nx || j < 0 || j > ny || k < 0 || k > nz)
            r.fail("record " + std::to_string(rec) + " names cell (" + std::to_string(i) + ", " + std::to_string(j) +
                   ", " + std::to_string(k) + ") outside the grid 0.." + std::to_string(nx) + " x 0.." +
                   std::to_string(ny) + " x 0.." + std::to_string(nz));
        if (v < 0) r.fail("record " + std::to_string(rec) + ": " + negative_value(v, i, j, k));
        MASQUE(i, j, k) = v;
    }
}

void savemasquet(const IntGrid& MASQUE, int nx, int ny, int nz, const std::string& name) {
    AtomicFile f(name, false);
    auto& o = f.stream();
    char buf[96];
    std::snprintf(buf, sizeof buf, "%12lld%8d%8d%8d\n", static_cast<long long>(cell_count(nx, ny, nz)), nx, ny, nz);
    o << buf;
    for (int i = 0; i <= nx; ++i)
        for (int j = 0; j <= ny; ++j)
            for (int k = 0; k <= nz; ++k) {
                std::snprintf(buf, sizeof buf, "%8d%8d%8d%8d\n", i, j, k, MASQUE(i, j, k));
                o << buf;
            }
    f.commit();
}

void loadmasqueparamt(int& nx, int& ny, int& nz, const std::string& name) {
    ListReader in(name);
    in.begin("mask header");
    (void)in.i32("the cell count");
    nx = in.i32("nx");
    ny = in.i32("ny");
    nz = in.i32("nz");
    check_dims(nx, ny, nz, name);
}

void loadmasquet(IntGrid& MASQUE, int nx, int ny, int nz, const std::string& name) {
    ListReader in(name);
    in.begin("mask header");
    const std::int32_t count = in.i32("the cell count");
    if (count < 0) in.fail("negative cell count " + std::to_string(count));
    for (std::int32_t c = 1; c <= count; ++c) {
        in.begin("cell record " + std::to_string(c));
        const int i = in.i32("i"), j = in.i32("j"), k = in.i32("k"), v = in.i32("the mask value");
        if (i < 0 || i > nx || j < 0 || j > ny || k < 0 || k > nz)
            in.fail("cell (" + std::to_string(i) + ", " + std::to_string(j) + ", " + std::to_string(k) +
                    ") lies outside the grid 0.." + std::to_string(nx) + " x 0.." + std::to_string(ny) + " x 0.." +
                    std::to_string(nz));
        if (v < 0) in.fail(negative_value(v, i, j, k));
        MASQUE(i, j, k) = v;
    }
}

void savemasquet2(const IntGrid& MASQUE, int nx, int ny, int nz, const std::string& name) {
    AtomicFile f(name, false);
    auto& o = f.stream();
    char buf[96];
    std::snprintf(buf, sizeof buf, "%12lld%8d%8d%8d\n", static_cast<long long>(cell_count(nx, ny, nz)), nx, ny, nz);
    o << buf;
    for (int k = 0; k <= nz; ++k) {
        o << "plane_k=" << k << '\n';
        for (int j = 0; j <= ny; ++j) {
            for (int i = 0; i <= nx; ++i) {
                std::snprintf(buf, sizeof buf, "%4d", MASQUE(i, j, k));
                o << buf;
            }
            o << '\n';
        }
    }
    f.commit();
}

void loadmasquet2(IntGrid& MASQUE, int nx, int ny, int nz, const std::string& name) {
    ListReader in(name);
    in.begin("mask header");
    (void)in.i32("the cell count");
    for (int k = 0; k <= nz; ++k) {
        in.begin("plane " + std::to_string(k));
        (void)in.name("the plane title");
        // Rows of an empty x extent hold no value and take no line: without
        // this, a header with nx = -1 and 1e9 rows loops for minutes.
        if (nx < 0) continue;
        for (int j = 0; j <= ny; ++j) {
            in.begin("plane " + std::to_string(k) + " row " + std::to_string(j));
            for (int i = 0; i <= nx; ++i) {
                const int v = in.i32("the mask value of column " + std::to_string(i));
                if (v < 0) in.fail(negative_value(v, i, j, k));
                MASQUE(i, j, k) = v;
            }
        }
    }
}

}  // namespace torix
