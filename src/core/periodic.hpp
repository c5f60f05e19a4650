#pragma once
// Which axes of the grid repeat without end.  A periodic axis makes the grid
// one period of an infinite body, the period being the grid's extent
// (n + 1) d along that axis.  At most two axes may be periodic: a body
// periodic in three directions has a dipolar field that depends on the
// macroscopic shape of the whole (the lattice sum converges only
// conditionally).
#include <array>
#include <string>

namespace torix {

struct Periodicity {
    int px = 0, py = 0, pz = 0;  // 1: periodic along x, y, z

    [[nodiscard]] constexpr bool along(int axis) const {  // axis 0, 1, 2
        return (axis == 0 ? px : axis == 1 ? py : pz) != 0;
    }
    [[nodiscard]] constexpr int count() const { return (px != 0) + (py != 0) + (pz != 0); }
    [[nodiscard]] constexpr bool any() const { return count() > 0; }
    friend constexpr bool operator==(const Periodicity&, const Periodicity&) = default;
};

// "x", "x and z", "none": for messages.
inline std::string periodic_axes_text(const Periodicity& p) {
    std::string out;
    for (int a = 0; a < 3; ++a) {
        if (!p.along(a)) continue;
        if (!out.empty()) out += " and ";
        out += static_cast<char>('x' + a);
    }
    return out.empty() ? "none" : out;
}

}  // namespace torix
