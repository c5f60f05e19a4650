#pragma once
// VTK XML files for ParaView and the VTK readers: image data (".vti") with
// cell arrays in one appended raw little-endian block, and collections
// (".pvd") that list such files with a time value each.
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace torix {

// One cell array of an image-data file.  Cells are numbered c = i + (nx+1)(j
// + (ny+1) k), i fastest (the order of the grid arrays and of VTK).  A real
// array of 1 or 3 components reads component a (0-based) of cell c at
// real[c + a * stride] (so a grid-shaped vector array passes its component
// stride); an integer array has one component, integer[c].
struct VtiArray {
    std::string name;
    int components = 1;
    const double* real = nullptr;
    const std::int32_t* integer = nullptr;
    std::ptrdiff_t stride = 0;
};

// Writes a VTK XML ImageData file of (nx+1) x (ny+1) x (nz+1) cells of
// dx x dy x dz cm (written in m, origin at the low corner of cell 0) with
// the given cell arrays (Float64 or Int32, appended raw, UInt64 block
// headers, byte_order="LittleEndian") and one-value Float64 field-data
// arrays (name, value).  Written under a temporary name and renamed.
void savevti(const std::string& name, int nx, int ny, int nz, double dx, double dy, double dz,
             const std::vector<VtiArray>& arrays, const std::vector<std::pair<std::string, double>>& field_data);

// Writes a VTK collection file: one DataSet entry (timestep, file) per item, in order.
void savepvd(const std::string& name, const std::vector<std::pair<double, std::string>>& items);

}  // namespace torix
