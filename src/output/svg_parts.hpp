#pragma once
// Pieces shared by the SVG plots: text escapes, numbers, scales, axes with
// ticks, the colour scale, the file writer.
#include <string>

namespace torix::svg {

// Text with &, <, >, " escaped for XML.
std::string esc(const std::string& s);
// v with `digits` digits after the point; %.5g.
std::string num(double v, int digits = 2);
std::string short_num(double v);

// Linear map of [lo, hi] onto pixels [p0, p1].
struct Scale {
    double lo, hi, p0, p1;
    [[nodiscard]] double operator()(double v) const { return p0 + (v - lo) / (hi - lo) * (p1 - p0); }
};

// A data range widened to a non-empty finite interval.
void widen(double& lo, double& hi);
// A range made non-empty with room of `fraction` above (and below when it
// reaches under zero).
void pad_range(double& lo, double& hi, double fraction);

// One axis at pixel `other` (y of a horizontal axis, x of a vertical one):
// line, ticks (<g class="tick">), the label (<text class="label">) with a
// common power of ten put in front of its unit; the group's id is "x-axis"
// or "y-axis".
void axis(std::string& s, bool horizontal, const Scale& sc, const std::string& label, double other, bool integer);

// "#rrggbb" of t in [0, 1] on an even scale from dark violet through teal
// to yellow.
std::string colour_of(double t);

// Writes s and the closing </svg> under a temporary name, renamed when complete.
void write(const std::string& name, const std::string& s);

}  // namespace torix::svg
