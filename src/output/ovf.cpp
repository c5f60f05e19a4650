#include "output/ovf.hpp"

#include <algorithm>
#include <bit>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numbers>
#include <optional>
#include <string_view>
#include <utility>

#include "core/console.hpp"
#include "core/error.hpp"
#include "core/records.hpp"

namespace torix {

namespace {

constexpr double kCheck4 = 1234567.0;
constexpr double kCheck8 = 123456789012345.0;

void put_le64(unsigned char* p, double v) {
    const auto u = std::bit_cast<std::uint64_t>(v);
    for (int b = 0; b < 8; ++b) p[b] = static_cast<unsigned char>(u >> (8 * b));
}

double get_le64(const unsigned char* p) {
    std::uint64_t u = 0;
    for (int b = 0; b < 8; ++b) u |= static_cast<std::uint64_t>(p[b]) << (8 * b);
    return std::bit_cast<double>(u);
}

double get_le32(const unsigned char* p) {
    std::uint32_t u = 0;
    for (int b = 0; b < 4; ++b) u |= static_cast<std::uint32_t>(p[b]) << (8 * b);
    return static_cast<double>(std::bit_cast<float>(u));
}

// Numbers in messages: nine significant digits.
std::string show(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.9g", v);
    return buf;
}

std::string lower(std::string_view s) {
    std::string out(s);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
    return s;
}

// Items of a Tcl list: words separated by blanks; {..} and ".." group.
std::vector<std::string> tcl_list(std::string_view s) {
    std::vector<std::string> out;
    std::size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
        if (i >= s.size()) break;
        const char open = s[i];
        if (open == '{' || open == '"') {
            const char close = open == '{' ? '}' : '"';
            const std::size_t e = s.find(close, i + 1);
            const std::size_t stop = e == std::string_view::npos ? s.size() : e;
            out.emplace_back(s.substr(i + 1, stop - i - 1));
            i = stop + 1;
        } else {
            std::size_t e = i;
            while (e < s.size() && !std::isspace(static_cast<unsigned char>(s[e]))) ++e;
            out.emplace_back(s.substr(i, e - i));
            i = e;
        }
    }
    return out;
}

std::optional<double> to_real(std::string_view s) {
    s = trim(s);
    if (!s.empty() && s.front() == '+') s.remove_prefix(1);
    double v = 0.0;
    const auto r = std::from_chars(s.data(), s.data() + s.size(), v);
    if (r.ec != std::errc() || r.ptr != s.data() + s.size()) return std::nullopt;
    return v;
}

// Length of one mesh unit in cm; 0 for a unit not known.
double meshunit_cm(const std::string& unit) {
    const std::string u = lower(unit);
    if (u == "m") return 100.0;
    if (u == "cm") return 1.0;
    if (u == "mm") return 0.1;
    if (u == "um" || u == "\xc2\xb5m" || u == "micron") return 1e-4;
    if (u == "nm") return 1e-7;
    return 0.0;
}

class Parser {
public:
    Parser(const std::string& name, std::string bytes) : name_(name), bytes_(std::move(bytes)) {}

    [[noreturn]] void fail_line(const std::string& msg) const {
        throw FatalError(name_ + ":" + std::to_string(line_no_) + ": " + msg);
    }
    [[noreturn]] void fail(const std::string& msg) const { throw FatalError(name_ + ": " + msg); }

    // Next text line (without its end-of-line); nullopt at end of file.
    std::optional<std::string_view> next_line() {
        if (pos_ >= bytes_.size()) return std::nullopt;
        std::size_t e = bytes_.find('\n', pos_);
        const std::size_t stop = e == std::string::npos ? bytes_.size() : e;
        std::string_view l(bytes_.data() + pos_, stop - pos_);
        if (!l.empty() && l.back() == '\r') l.remove_suffix(1);
        pos_ = e == std::string::npos ? bytes_.size() : e + 1;
        ++line_no_;
        return l;
    }

    std::string name_;
    std::string bytes_;
    std::size_t pos_ = 0;
    int line_no_ = 0;
};

// Splits "# label: value ## comment" into its lower-case label (blanks
// removed) and its value; nullopt for comment-only and empty lines.
struct Entry {
    std::string label;
    std::string value;
};

std::optional<Entry> header_entry(const Parser& p, std::string_view line) {
    if (line.empty() || line.front() != '#') p.fail_line("expected a header line starting with '#', found \"" +
                                                        std::string(line.substr(0, 60)) + "\"");
    line.remove_prefix(1);
    if (!line.empty() && line.front() == '#') return std::nullopt;  // "##" comment line
    if (const std::size_t c = line.find("##"); c != std::string_view::npos) line = line.substr(0, c);
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) {
        if (trim(line).empty()) return std::nullopt;
        p.fail_line("expected \"label: value\", found \"" + std::string(trim(line).substr(0, 60)) + "\"");
    }
    Entry e;
    for (char c : line.substr(0, colon))
        if (!std::isspace(static_cast<unsigned char>(c)))
            e.label += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    e.value = std::string(trim(line.substr(colon + 1)));
    return e;
}

}  // namespace

double field_unit_to_oe(const std::string& unit) {
    const std::string u = lower(unit);
    if (u == "a/m") return 4.0 * std::numbers::pi / 1000.0;
    if (u == "ka/m") return 4.0 * std::numbers::pi;
    if (u == "oe") return 1.0;
    if (u == "t") return 1.0e4;
    if (u == "mt") return 10.0;
    return 0.0;
}

namespace {

// Geometry in the header: 15 significant digits, so that 3 cells of 1e-8 m
// read "3e-08" and not the last bit of the product.
std::string geometry(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.15g", v);
    return buf;
}

}  // namespace

void saveovf(const std::string& name, const VecGrid& v, const IntGrid& mask, int nx, int ny, int nz, double dx,
             double dy, double dz, double scale, const OvfLabels& labels, bool binary) {
    const int n[3] = {nx + 1, ny + 1, nz + 1};
    const double d[3] = {dx / 100.0, dy / 100.0, dz / 100.0};  // cm -> m
    const char axis[3] = {'x', 'y', 'z'};
    std::string h = "# OOMMF OVF 2.0\n# Segment count: 1\n# Begin: Segment\n# Begin: Header\n";
    h += "# Title: " + labels.title + "\n";
    if (!labels.desc.empty()) h += "# Desc: " + labels.desc + "\n";
    h += "# meshunit: m\n# meshtype: rectangular\n";
    for (int a = 0; a < 3; ++a) h += std::string("# ") + axis[a] + "base: " + geometry(0.5 * d[a]) + "\n";
    for (int a = 0; a < 3; ++a) h += std::string("# ") + axis[a] + "stepsize: " + geometry(d[a]) + "\n";
    for (int a = 0; a < 3; ++a) h += std::string("# ") + axis[a] + "nodes: " + std::to_string(n[a]) + "\n";
    for (int a = 0; a < 3; ++a) h += std::string("# ") + axis[a] + "min: 0\n";
    for (int a = 0; a < 3; ++a) h += std::string("# ") + axis[a] + "max: " + geometry(n[a] * d[a]) + "\n";
    h += "# valuedim: 3\n# valuelabels: " + labels.labels[0] + " " + labels.labels[1] + " " + labels.labels[2] +
         "\n# valueunits: " + labels.units[0] + " " + labels.units[1] + " " + labels.units[2] + "\n";
    h += "# End: Header\n";
    const char* block = binary ? "Data Binary 8" : "Data Text";
    h += std::string("# Begin: ") + block + "\n";

    const std::size_t nodes = static_cast<std::size_t>(n[0]) * n[1] * n[2];
    const std::ptrdiff_t cs = v.stride(3);
    const double* base = nodes > 0 ? &v(0, 0, 0, 1) : nullptr;
    const std::int32_t* q = mask.data();
    AtomicFile file(name, binary);
    file.stream() << h;
    if (binary) {
        std::vector<unsigned char> buf((1 + 3 * nodes) * 8);
        put_le64(buf.data(), kCheck8);
        unsigned char* p = buf.data() + 8;
        // Grid storage is i fastest, then j, then k: the node order of the file.
        for (std::size_t c = 0; c < nodes; ++c, p += 24) {
            const bool on = q[c] != 0;
            for (int a = 0; a < 3; ++a) put_le64(p + 8 * a, on ? base[c + a * cs] * scale : 0.0);
        }
        file.stream().write(reinterpret_cast<const char*>(buf.data()), static_cast<std::streamsize>(buf.size()));
        file.stream() << "\n";
    } else {
        std::string text;
        text.reserve(nodes * 40);
        char num[40];
        for (std::size_t c = 0; c < nodes; ++c) {
            const bool on = q[c] != 0;
            for (int a = 0; a < 3; ++a) {
                const double x = on ? base[c + a * cs] * scale : 0.0;
                const auto r = std::to_chars(num, num + sizeof num, x);
                text += a == 0 ? "" : " ";
                text.append(num, r.ptr);
            }
            text += '\n';
        }
        file.stream() << text;
    }
    file.stream() << "# End: " << block << "\n# End: Segment\n";
    file.commit();
}

OvfHeader loadovf(const std::string& name, int nx, int ny, int nz, double dx, double dy, double dz, VecGrid& out) {
    std::error_code ec;
    if (std::filesystem::is_directory(name, ec)) throw FatalError(name + ": is a directory, not a file");
    std::ifstream in(name, std::ios::binary);
    if (!in) throw FatalError(name + ": cannot open file for reading");
    std::string bytes(std::istreambuf_iterator<char>(in), {});
    return parseovf(name, std::move(bytes), nx, ny, nz, dx, dy, dz, out);
}

OvfHeader parseovf(const std::string& name, std::string bytes, int nx, int ny, int nz, double dx, double dy, double dz,
                   VecGrid& out) {
    if (out.hi(0) != nx || out.hi(1) != ny || out.hi(2) != nz || out.lo(3) != 1 || out.hi(3) != 3)
        throw FatalError(name + ": the array to read into is not shaped as the grid");
    Parser p(name, std::move(bytes));
    OvfHeader hdr;
    {
        const auto first = p.next_line();
        const std::string id = first ? lower(trim(*first)) : std::string();
        if (id.rfind("# oommf: rectangular mesh", 0) == 0 || id.rfind("# oommf: irregular mesh", 0) == 0)
            p.fail_line("an OVF 1.0 file; only OVF 2.0 files (first line \"# OOMMF OVF 2.0\") are read");
        std::string compact;
        for (char c : id)
            if (c != ' ' && c != '\t') compact += c;
        if (compact != "#oommfovf2.0")
            p.fail_line("not an OVF 2.0 file: expected the first line \"# OOMMF OVF 2.0\", found \"" +
                        std::string(first ? trim(*first).substr(0, 60) : std::string_view("end of file")) + "\"");
    }
    // Header entries up to the start of the data block.
    std::string meshtype, valuedim, units_text, labels_text, block;
    std::array<std::string, 3> nodes_text, step_text;
    bool in_segment = false, in_header = false, header_done = false;
    for (;;) {
        const auto line = p.next_line();
        if (!line) p.fail("the file ends before its data block (no \"# Begin: Data ...\" line)");
        const auto e = header_entry(p, *line);
        if (!e) continue;
        if (e->label == "segmentcount") {
            if (trim(e->value) != "1") p.fail_line("holds " + e->value + " segments; only files of one segment are read");
        } else if (e->label == "begin") {
            const std::string what = lower(e->value);
            if (what == "segment") {
                in_segment = true;
            } else if (what == "header") {
                if (!in_segment) p.fail_line("\"Begin: Header\" outside a segment");
                in_header = true;
            } else if (what.rfind("data", 0) == 0) {
                if (!header_done) p.fail_line("the data block starts before \"End: Header\"");
                block = e->value;
                std::string compact;
                for (char c : what)
                    if (c != ' ' && c != '\t') compact += c;
                if (compact == "datatext") hdr.data_bytes = 0;
                else if (compact == "databinary4") hdr.data_bytes = 4;
                else if (compact == "databinary8") hdr.data_bytes = 8;
                else p.fail_line("unknown data representation \"" + e->value + "\" (expected Text, Binary 4 or Binary 8)");
                break;
            } else {
                p.fail_line("unknown block \"Begin: " + e->value + "\"");
            }
        } else if (e->label == "end") {
            if (lower(e->value) == "header" && in_header) {
                header_done = true;
                in_header = false;
            } else {
                p.fail_line("unexpected \"End: " + e->value + "\" before the data block");
            }
        } else if (!in_header) {
            p.fail_line("header entry \"" + e->label + "\" outside the header block");
        } else if (e->label == "meshtype") {
            meshtype = lower(e->value);
        } else if (e->label == "meshunit") {
            hdr.meshunit = e->value;
        } else if (e->label == "title") {
            hdr.title = e->value;
        } else if (e->label == "valuedim") {
            valuedim = e->value;
        } else if (e->label == "valueunits") {
            units_text = e->value;
        } else if (e->label == "valuelabels") {
            labels_text = e->value;
        } else if (e->label == "valueunit" || e->label == "valuemultiplier") {
            p.fail_line("\"" + e->label + "\" is an OVF 1.0 entry, not allowed in an OVF 2.0 file");
        } else if (e->label.size() >= 2 && (e->label[0] == 'x' || e->label[0] == 'y' || e->label[0] == 'z')) {
            const int a = e->label[0] - 'x';
            const std::string rest = e->label.substr(1);
            if (rest == "nodes") nodes_text[a] = e->value;
            if (rest == "stepsize") step_text[a] = e->value;
        }
    }
    auto fail_header = [&](const std::string& msg) -> void {
        throw FatalError(name + ": header: " + msg);
    };
    if (meshtype != "rectangular")
        fail_header(meshtype.empty() ? "no \"meshtype\" entry (expected rectangular)"
                                     : "meshtype \"" + meshtype + "\"; only rectangular meshes are read");
    if (trim(valuedim) != "3")
        fail_header(valuedim.empty() ? "no \"valuedim\" entry (expected 3)"
                                     : "valuedim " + valuedim + "; only vector fields (valuedim 3) are read");
    const double unit_cm = meshunit_cm(hdr.meshunit);
    if (unit_cm == 0.0)
        fail_header(hdr.meshunit.empty() ? "no \"meshunit\" entry"
                                         : "meshunit \"" + hdr.meshunit + "\" is not one of m, cm, mm, um, nm");
    const char axis[3] = {'x', 'y', 'z'};
    const int want_nodes[3] = {nx + 1, ny + 1, nz + 1};
    const double want_step[3] = {dx, dy, dz};
    for (int a = 0; a < 3; ++a) {
        const std::string key = std::string(1, axis[a]);
        std::int64_t n = 0;
        const std::string t(trim(nodes_text[a]));
        const auto r = std::from_chars(t.data(), t.data() + t.size(), n);
        if (t.empty() || r.ec != std::errc() || r.ptr != t.data() + t.size() || n < 1)
            fail_header(key + "nodes: expected a positive integer, found \"" + t + "\"");
        hdr.nodes[a] = n;
        const auto s = to_real(step_text[a]);
        if (!s || !std::isfinite(*s) || *s <= 0.0)
            fail_header(key + "stepsize: expected a positive number, found \"" + std::string(trim(step_text[a])) + "\"");
        hdr.step[a] = *s * unit_cm;
    }
    for (int a = 0; a < 3; ++a)
        if (hdr.nodes[a] != want_nodes[a])
            fail_header("the mesh has " + std::to_string(hdr.nodes[0]) + " x " + std::to_string(hdr.nodes[1]) + " x " +
                        std::to_string(hdr.nodes[2]) + " nodes, the grid " + std::to_string(want_nodes[0]) + " x " +
                        std::to_string(want_nodes[1]) + " x " + std::to_string(want_nodes[2]) + " cells");
    for (int a = 0; a < 3; ++a)
        if (!(std::abs(hdr.step[a] - want_step[a]) <= 1e-6 * std::abs(want_step[a])))
            fail_header(std::string(1, axis[a]) + "stepsize " + show(hdr.step[a]) + " cm differs from the cell size d" +
                        axis[a] + " = " + show(want_step[a]) + " cm by more than 1e-6 relative");
    {
        const auto u = tcl_list(units_text);
        if (u.size() == 1) hdr.units = {u[0], u[0], u[0]};
        else if (u.size() == 3) hdr.units = {u[0], u[1], u[2]};
        else fail_header("valueunits: expected 1 or 3 units, found \"" + units_text + "\"");
        const auto l = tcl_list(labels_text);
        if (l.size() == 3) hdr.labels = {l[0], l[1], l[2]};
    }

    // The node counts match the grid, so the data size is bounded by it.
    const std::size_t nodes = static_cast<std::size_t>(want_nodes[0]) * want_nodes[1] * want_nodes[2];
    const std::size_t values = 3 * nodes;
    std::vector<double> data(values);
    const std::string end_marker = "end:" + [&] {
        std::string c;
        for (char ch : lower(block))
            if (ch != ' ' && ch != '\t') c += ch;
        return c;
    }();
    if (hdr.data_bytes == 0) {
        std::size_t got = 0;
        bool ended = false;
        while (!ended) {
            const auto line = p.next_line();
            if (!line) break;
            std::string_view l = *line;
            const std::size_t hash = l.find('#');
            if (hash != std::string_view::npos) {
                std::string c;
                for (char ch : l.substr(hash + 1))
                    if (!std::isspace(static_cast<unsigned char>(ch)))
                        c += static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
                if (c.rfind(end_marker, 0) == 0) ended = true;
                l = l.substr(0, hash);
            }
            std::size_t i = 0;
            while (i < l.size()) {
                while (i < l.size() && std::isspace(static_cast<unsigned char>(l[i]))) ++i;
                if (i >= l.size()) break;
                std::size_t e = i;
                while (e < l.size() && !std::isspace(static_cast<unsigned char>(l[e]))) ++e;
                const auto v = to_real(l.substr(i, e - i));
                if (!v) p.fail_line("expected a number in the data block, found \"" + std::string(l.substr(i, std::min<std::size_t>(e - i, 40))) + "\"");
                if (got == values) p.fail_line("the data block holds more than the " + std::to_string(values) +
                                               " values of its " + std::to_string(nodes) + " nodes");
                data[got++] = *v;
                i = e;
            }
        }
        if (got < values)
            p.fail("the data block ends after " + std::to_string(got) + " of the " + std::to_string(values) +
                   " values of its " + std::to_string(nodes) + " nodes");
        if (!ended) p.fail("no \"# End: " + block + "\" line after the data");
    } else {
        const std::size_t w = static_cast<std::size_t>(hdr.data_bytes);
        const std::size_t start = p.pos_;
        const std::size_t have = p.bytes_.size() - start;
        if (have < w) p.fail("the file ends at byte " + std::to_string(p.bytes_.size()) + ", before the check value of the data block");
        const auto* b = reinterpret_cast<const unsigned char*>(p.bytes_.data()) + start;
        const double check = w == 8 ? get_le64(b) : get_le32(b);
        const double want = w == 8 ? kCheck8 : kCheck4;
        if (check != want) {
            unsigned char swapped[8];
            for (std::size_t k = 0; k < w; ++k) swapped[k] = b[w - 1 - k];
            const double big = w == 8 ? get_le64(swapped) : get_le32(swapped);
            if (big == want) p.fail("byte " + std::to_string(start) + ": the check value is big-endian; OVF 2.0 binary data is little-endian");
            p.fail("byte " + std::to_string(start) + ": the check value of the data block is " + format_real(check) +
                   ", expected " + format_real(want));
        }
        if ((have - w) / w < values)
            p.fail("the data block of " + std::to_string(nodes) + " nodes needs " + std::to_string(values * w + w) +
                   " bytes from byte " + std::to_string(start) + ", the file holds " + std::to_string(have));
        b += w;
        if (w == 8)
            for (std::size_t k = 0; k < values; ++k) data[k] = get_le64(b + 8 * k);
        else
            for (std::size_t k = 0; k < values; ++k) data[k] = get_le32(b + 4 * k);
        // Whatever follows the data must be the block's end line: a header
        // that claims fewer nodes than were written is caught here.
        std::size_t after = start + w + values * w;
        while (after < p.bytes_.size() && std::isspace(static_cast<unsigned char>(p.bytes_[after]))) ++after;
        std::string c;
        for (std::size_t k = after; k < p.bytes_.size() && p.bytes_[k] != '\n'; ++k)
            if (!std::isspace(static_cast<unsigned char>(p.bytes_[k])))
                c += static_cast<char>(std::tolower(static_cast<unsigned char>(p.bytes_[k])));
        if (c.rfind("#" + end_marker, 0) != 0)
            p.fail("byte " + std::to_string(start + w + values * w) + ": expected \"# End: " + block + "\" after the " +
                   std::to_string(nodes) + " nodes of the data block");
        p.pos_ = after;
        (void)p.next_line();
    }
    // The segment must be closed: a file cut short after its data is not whole.
    for (;;) {
        const auto line = p.next_line();
        if (!line) p.fail("no \"# End: Segment\" line after the data block: the file is cut short");
        if (trim(*line).empty()) continue;
        const auto e = header_entry(p, *line);
        if (!e) continue;
        if (e->label == "end" && lower(e->value) == "segment") break;
        p.fail_line("expected \"# End: Segment\" after the data block, found \"" + std::string(trim(*line).substr(0, 60)) + "\"");
    }
    for (std::size_t c = 0; c < nodes; ++c)
        for (int a = 0; a < 3; ++a) out.data()[c + a * out.stride(3)] = data[3 * c + a];
    return hdr;
}

}  // namespace torix
