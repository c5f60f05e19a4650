#pragma once
// OVF 2.0 vector-field files, the format of the OOMMF and MuMax3 tools.
//
// A file is one segment: a text header of "# label: value" lines, then a
// data block of three values per node on a rectangular mesh, the x index
// fastest, then y, then z.  Nodes sit at the cell centres: node (i, j, k) is
// at base + (i, j, k) * stepsize.  Binary blocks are IEEE little-endian
// (4- or 8-byte reals) and start with a check value (1234567.0 or
// 123456789012345.0); text blocks hold whitespace-separated numbers.
//
// The writer uses SI as the tools expect: mesh in m ("meshunit: m").  What
// values it writes (and their units) is up to the caller.
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "core/array.hpp"

namespace torix {

// Descriptive header entries of a written file.
struct OvfLabels {
    std::string title;
    std::string desc;                      // one "Desc:" line; empty for none
    std::array<std::string, 3> labels;     // valuelabels, one word each
    std::array<std::string, 3> units;      // valueunits, one word each
};

// Writes v(i, j, k, 1..3) * scale at every node over (0:nx, 0:ny, 0:nz),
// zero where mask is 0, as an OVF 2.0 file: text ("Data Text", shortest
// round-trip decimals, one node per line) or binary ("Data Binary 8").
// dx, dy, dz are the cell sizes in cm (written in m).  The file is written
// under a temporary name and renamed when complete.
void saveovf(const std::string& name, const VecGrid& v, const IntGrid& mask, int nx, int ny, int nz, double dx,
             double dy, double dz, double scale, const OvfLabels& labels, bool binary);

// What the header of a file that was read says.
struct OvfHeader {
    std::array<std::int64_t, 3> nodes{0, 0, 0};
    std::array<double, 3> step{0.0, 0.0, 0.0};  // cell sizes in cm
    std::string meshunit;
    std::string title;
    std::array<std::string, 3> labels;  // valuelabels (empty when absent)
    std::array<std::string, 3> units;   // valueunits, one per component
    int data_bytes = 0;                 // 0 text, 4 or 8 binary
};

// Reads an OVF 2.0 file (text, binary 4 or binary 8; any order of header
// lines, "##" comments, labels in any case) into out over (0:nx, 0:ny,
// 0:nz, 1:3), which must be allocated: the values as the file holds them,
// in the file's units (returned in the header).  The file's node counts must
// be (nx + 1, ny + 1, nz + 1) and its step sizes equal dx, dy, dz (cm)
// within 1e-6 relative.  Anything else (another format or version, a
// missing or contradictory header entry, a wrong check value, a data block
// shorter or longer than the header says, a number that cannot be read) is
// a FatalError naming the file and the line or byte position.
OvfHeader loadovf(const std::string& name, int nx, int ny, int nz, double dx, double dy, double dz, VecGrid& out);

// loadovf on the contents of a file already read; `name` is used in messages.
OvfHeader parseovf(const std::string& name, std::string bytes, int nx, int ny, int nz, double dx, double dy, double dz,
                   VecGrid& out);

// Factor that turns a field value in `unit` into Oe: "A/m" 4 pi/1000,
// "kA/m" 4 pi, "Oe" 1, "T" 1e4, "mT" 10 (B = mu0 H in vacuum).  0 for a
// unit not known.
double field_unit_to_oe(const std::string& unit);

}  // namespace torix
