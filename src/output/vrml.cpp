#include "output/vrml.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <ostream>

#include "core/error.hpp"
#include "core/records.hpp"

namespace torix {

namespace {

// The fixed head of every scene: the arrow prototype with its set-up script,
// the white background and the start of the viewpoint.  The first line has
// no leading blank; every other line is a free-format text line and starts
// with one.
constexpr const char* kHead[] = {
    "#VRML V2.0 utf8",
    " ",
    "  PROTO Vector [",
    " field SFVec3f Position 0 0 0",
    " field SFVec3f Direction 0 0 0",
    " field SFFloat StemRadius 0.04",
    " field SFFloat HeadRadius 0.2",
    " field SFFloat HeadSize 0.5",
    " field SFColor Color 1 1 1",
    " ]",
    " {",
    " DEF BasePoint Transform {",
    " translation IS Position",
    " children [",
    " DEF Stem Transform { # stem",
    " children[",
    " Shape{",
    " geometry Cylinder {\theight 0.5",
    " radius IS StemRadius ",
    " top FALSE bottom FALSE}",
    " appearance Appearance {",
    " material Material {diffuseColor IS Color }}",
    " }",
    " ]",
    " }",
    " DEF Head Transform { # arrowhead",
    " children[",
    " Shape{",
    " geometry Cone\t {\theight IS HeadSize",
    " bottomRadius IS HeadRadius }",
    " appearance Appearance {",
    " material Material {diffuseColor 1 0 0 }}",
    " }",
    " \t]",
    " }",
    " ]",
    "   }",
    "   DEF Build Script {",
    " \tfield  SFVec3f\tset_direction IS Direction",
    " \tfield  SFFloat\tset_headsize IS HeadSize",
    " \teventOut SFRotation rotation_changed",
    " \teventOut SFVec3f stemcenter_changed",
    " \teventOut SFVec3f stemscale_changed",
    " \teventOut SFVec3f headcenter_changed",
    " url \"vrmlscript:",
    " \tfunction initialize()",
    " {",
    " \t\tphi=0.0;cosphi=0.0;sinphi=0.0;",
    " \t\tnx=0.0;ny=0.0;nz=0.0;",
    " ",
    " \t\tmagnitude=Math.sqrt(",
    " \t\t\t  set_direction[0]*set_direction[0]+",
    " \t\t\t  set_direction[1]*set_direction[1]+",
    " \t\t\t  set_direction[2]*set_direction[2]);",
    " \t\tif (magnitude > 0) {",
    " \t\t\tcosphi = set_direction[1] / magnitude;",
    " \t\t        nx = set_direction[2] / magnitude;",
    " \t\t        ny = 0.0 / magnitude;",
    " \t\t\tnz = -set_direction[0] / magnitude;",
    " \t\t        sinphi = Math.sqrt(nx * nx + nz * nz);",
    " \t\t\t}",
    " \t\tif (cosphi != 0) { phi = Math.atan(sinphi / cosphi);}",
    " \t\t\telse { phi = Math.PI / 2.0;}",
    " \t\t\tif (cosphi < 0) { phi += Math.PI;}",
    " \t\t\tif (sinphi == 0) { nx = 1; } ",
    " \t\telse {nx /= sinphi; nz /= sinphi;}",
    " \trotation_changed[0]=nx;",
    " \t\trotation_changed[1]=ny;",
    " \t\trotation_changed[2]=nz;",
    " \t\trotation_changed[3]=phi;",
    " \t\tstemcenter_changed[0]=0;",
    " \t\tstemcenter_changed[1]=(magnitude-set_headsize)/2;",
    " \t\tstemcenter_changed[2]=0;",
    " \t\tstemscale_changed[0]=1.0;",
    " \t\tstemscale_changed[1]=2.0*(magnitude-set_headsize);",
    " \t\tstemscale_changed[2]=1.0;",
    " \t\theadcenter_changed[0]=0;",
    " \t\theadcenter_changed[1]=magnitude-set_headsize/2;",
    " \t\theadcenter_changed[2]=0;",
    " \t}",
    " \t\" ",
    " }",
    " ROUTE Build.rotation_changed TO BasePoint.rotation",
    " ROUTE Build.stemcenter_changed TO Stem.translation",
    " ROUTE Build.stemscale_changed TO Stem.scale",
    " ROUTE Build.headcenter_changed TO Head.translation",
    " }",
    " Background {",
    " skyColor [1 1 1] groundColor [1 1 1]",
    " }",
    " DEF norm Viewpoint {",
};
static_assert(std::size(kHead) == 91);

// Appends a real in fixed notation with `decimals` digits after the point;
// a value that is not a number is written as NaN.
void put_real(std::string& s, double v, int decimals) {
    if (std::isnan(v)) {
        s += "NaN";
        return;
    }
    char buf[400];
    const auto r = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::fixed, decimals);
    s.append(buf, r.ptr);
}

std::string real_text(double v, int decimals) {
    std::string s;
    put_real(s, v, decimals);
    return s;
}

}  // namespace

void writevrml(const std::string& name, int X, int Y, int Z, int mode, const IntGrid& mask, const VecGrid& v,
               const Array<double, 1>& MS, int, int) {
    AtomicFile file(name, false);
    std::ostream& out = file.stream();
    for (const char* line : kHead) out << line << '\n';

    // Camera: centred on the picture, three depths away, with a field of view
    // that takes in the span.
    double S = 0.0, L = 0.0;
    if (mode == 1 || mode == 2) {
        double py = 0.5 * Y;
        if (mode == 1) {
            S = std::max(std::max(X, 0), Y);
        } else {
            S = std::max(Y + Y * Z, std::max(X, 0));
            py = 0.5 * (static_cast<double>(Y) * Z + Y);
        }
        L = std::max(static_cast<double>(Z), S);
        out << "position " << real_text(0.5 * X, 6) << ' ' << real_text(py, 6) << ' ' << real_text(3.0 * L, 6)
            << '\n';
    }
    out << "fieldOfView " << real_text(1.2 * std::atan(S / (2.0 * L)), 8) << '\n';
    out << " }\n";

    // Colour q = 1..8: red, green, blue are the bits of q - 1, red highest.
    std::string line;
    for (int i = 0; i <= X; ++i)
        for (int j = 0; j <= Y; ++j)
            for (int k = 0; k <= Z; ++k) {
                const int q = mask(i, j, k);
                if (q == 0) continue;
                if (q < MS.lo(0) || q > MS.hi(0))
                    throw FatalError(name + ": cell (" + std::to_string(i) + ", " + std::to_string(j) + ", " +
                                     std::to_string(k) + ") has material " + std::to_string(q) +
                                     ", which the material table does not hold");
                const int c = (q > 7 || q < 1 ? 1 : q) - 1;
                const double ms = MS(q);
                double py = j;
                if (mode == 2) py = j + (static_cast<double>(Y) * k + 10.0);
                line.assign("Vector { Position ");
                put_real(line, i, 1);
                line += ' ';
                put_real(line, py, 1);
                line += ' ';
                put_real(line, k, 1);
                line += " Direction ";
                for (int d = 1; d <= 3; ++d) {
                    put_real(line, v(i, j, k, d) / ms, 6);
                    line += d < 3 ? " " : " Color ";
                }
                line += static_cast<char>('0' + ((c >> 2) & 1));
                line += ' ';
                line += static_cast<char>('0' + ((c >> 1) & 1));
                line += ' ';
                line += static_cast<char>('0' + (c & 1));
                line += " }\n";
                out << line;
            }
    file.commit();
}

void print_red_m(int nx, int ny, int nz, const IntGrid& MASQUE, const VecGrid& F, int flag, int mode, int fx, int fy,
                 int fz, const std::string& name) {
    if (fx < 1 || fy < 1 || fz < 1)
        throw FatalError(name + ": VRML block sizes must be at least 1 (got " + std::to_string(fx) + ", " +
                         std::to_string(fy) + ", " + std::to_string(fz) + ")");
    // Reduced size: nearest integer of X/f + 0.49, halves away from zero, so a
    // quotient with any fractional part of 0.01 or more rounds up.
    const int RX = static_cast<int>(std::lround(static_cast<double>(nx) / fx + 0.49));
    const int RY = static_cast<int>(std::lround(static_cast<double>(ny) / fy + 0.49));
    const int RZ = static_cast<int>(std::lround(static_cast<double>(nz) / fz + 0.49));
    IntGrid rmask = make_int_grid(RX, RY, RZ);
    VecGrid rv = make_vec_grid(RX, RY, RZ);

    for (int bx = 0; bx * fx <= nx; ++bx)
        for (int by = 0; by * fy <= ny; ++by)
            for (int bz = 0; bz * fz <= nz; ++bz) {
                double sum[3] = {0.0, 0.0, 0.0};
                int count = 0;
                for (int i = bx * fx; i < bx * fx + fx && i <= nx; ++i)
                    for (int j = by * fy; j < by * fy + fy && j <= ny; ++j)
                        for (int k = bz * fz; k < bz * fz + fz && k <= nz; ++k) {
                            if (MASQUE(i, j, k) == 0) continue;
                            for (int c = 0; c < 3; ++c) sum[c] += F(i, j, k, c + 1);
                            ++count;
                        }
                if (count == 0) continue;
                // Kept block: unit vector along the average; a zero average
                // keeps the block with a zero vector (an arrow of no length).
                for (double& s : sum) s /= count;
                const double len = std::sqrt(sum[0] * sum[0] + sum[1] * sum[1] + sum[2] * sum[2]);
                rmask(bx, by, bz) = 1;
                for (int c = 0; c < 3; ++c) rv(bx, by, bz, c + 1) = len > 0.0 ? sum[c] / len : 0.0;
            }

    const Array<double, 1> one({Range{1, 1}}, 1.0);
    writevrml(name, RX, RY, RZ, mode, rmask, rv, one, flag, 1);
}

}  // namespace torix
