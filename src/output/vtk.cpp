#include "output/vtk.hpp"

#include <bit>
#include <cstring>

#include "core/console.hpp"
#include "core/error.hpp"
#include "core/records.hpp"

namespace torix {

namespace {

// Names and file names go into XML attributes.
std::string xml_escape(const std::string& s) {
    std::string out;
    for (char c : s) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            case '\'': out += "&apos;"; break;
            default: out += c;
        }
    }
    return out;
}

template <class T>
void put_le(unsigned char* p, T v) {
    using U = std::conditional_t<sizeof(T) == 8, std::uint64_t, std::uint32_t>;
    const auto u = std::bit_cast<U>(v);
    for (std::size_t b = 0; b < sizeof(T); ++b) p[b] = static_cast<unsigned char>(u >> (8 * b));
}

}  // namespace

void savevti(const std::string& name, int nx, int ny, int nz, double dx, double dy, double dz,
             const std::vector<VtiArray>& arrays, const std::vector<std::pair<std::string, double>>& field_data) {
    const std::size_t cells = static_cast<std::size_t>(nx + 1) * (ny + 1) * (nz + 1);
    const std::string extent = "0 " + std::to_string(nx + 1) + " 0 " + std::to_string(ny + 1) + " 0 " +
                               std::to_string(nz + 1);
    std::string x = "<?xml version=\"1.0\"?>\n"
                    "<VTKFile type=\"ImageData\" version=\"1.0\" byte_order=\"LittleEndian\" header_type=\"UInt64\">\n";
    x += "  <ImageData WholeExtent=\"" + extent + "\" Origin=\"0 0 0\" Spacing=\"" + format_real(dx / 100.0) + " " +
         format_real(dy / 100.0) + " " + format_real(dz / 100.0) + "\">\n";
    std::size_t offset = 0;
    if (!field_data.empty()) {
        x += "    <FieldData>\n";
        for (const auto& [n, v] : field_data) {
            x += "      <DataArray type=\"Float64\" Name=\"" + xml_escape(n) +
                 "\" NumberOfTuples=\"1\" format=\"appended\" offset=\"" + std::to_string(offset) + "\"/>\n";
            offset += 8 + 8;
        }
        x += "    </FieldData>\n";
    }
    x += "    <Piece Extent=\"" + extent + "\">\n      <CellData>\n";
    std::vector<std::size_t> bytes(arrays.size());
    for (std::size_t a = 0; a < arrays.size(); ++a) {
        const VtiArray& arr = arrays[a];
        const bool integer = arr.integer != nullptr;
        if (integer ? arr.components != 1 : (arr.real == nullptr || (arr.components != 1 && arr.components != 3)))
            throw FatalError(name + ": array " + arr.name + " has no data or an unsupported component count");
        bytes[a] = cells * static_cast<std::size_t>(arr.components) * (integer ? 4 : 8);
        x += std::string("        <DataArray type=\"") + (integer ? "Int32" : "Float64") + "\" Name=\"" +
             xml_escape(arr.name) + "\" NumberOfComponents=\"" + std::to_string(arr.components) +
             "\" format=\"appended\" offset=\"" + std::to_string(offset) + "\"/>\n";
        offset += 8 + bytes[a];
    }
    x += "      </CellData>\n    </Piece>\n  </ImageData>\n  <AppendedData encoding=\"raw\">\n   _";

    // The appended block goes out through a buffer of bounded size, so a
    // large grid needs no second copy of its arrays in memory.
    AtomicFile file(name, true);
    file.stream() << x;
    std::vector<unsigned char> buf(1 << 20);
    std::size_t used = 0;
    auto room = [&](std::size_t n) {
        if (used + n > buf.size()) {
            file.stream().write(reinterpret_cast<const char*>(buf.data()), static_cast<std::streamsize>(used));
            used = 0;
        }
        return buf.data() + used;
    };
    for (const auto& fd : field_data) {
        unsigned char* p = room(16);
        put_le<std::uint64_t>(p, 8);
        put_le<double>(p + 8, fd.second);
        used += 16;
    }
    for (std::size_t a = 0; a < arrays.size(); ++a) {
        const VtiArray& arr = arrays[a];
        put_le<std::uint64_t>(room(8), bytes[a]);
        used += 8;
        for (std::size_t c = 0; c < cells; ++c) {
            if (arr.integer != nullptr) {
                put_le<std::int32_t>(room(4), arr.integer[c]);
                used += 4;
            } else if (arr.components == 1) {
                put_le<double>(room(8), arr.real[c]);
                used += 8;
            } else {
                // Tuples interleaved (x, y, z of one cell together), as VTK keeps them.
                unsigned char* p = room(24);
                put_le<double>(p, arr.real[c]);
                put_le<double>(p + 8, arr.real[c + arr.stride]);
                put_le<double>(p + 16, arr.real[c + 2 * arr.stride]);
                used += 24;
            }
        }
    }
    file.stream().write(reinterpret_cast<const char*>(buf.data()), static_cast<std::streamsize>(used));
    file.stream() << "\n  </AppendedData>\n</VTKFile>\n";
    file.commit();
}

void savepvd(const std::string& name, const std::vector<std::pair<double, std::string>>& items) {
    AtomicFile file(name, false);
    std::string x = "<?xml version=\"1.0\"?>\n"
                    "<VTKFile type=\"Collection\" version=\"0.1\" byte_order=\"LittleEndian\">\n  <Collection>\n";
    for (const auto& [t, f] : items)
        x += "    <DataSet timestep=\"" + format_real(t) + "\" group=\"\" part=\"0\" file=\"" + xml_escape(f) + "\"/>\n";
    x += "  </Collection>\n</VTKFile>\n";
    file.stream() << x;
    file.commit();
}

}  // namespace torix
