#pragma once
// Plots as standalone SVG files (open in a web browser, embed in a page or
// a paper): the absorption spectrum and the mode chart.
//
// The elements carry ids and classes so that scripts (and the tests) can
// find them: the plot title "title", the axes "x-axis" and "y-axis", each
// with one <g class="tick"> (a <line> and a <text>) per tick and a
// <text class="label">; the spectrum "curve" (a polyline); the modes
// "modes" with one <g class="mode"> each; the colour scale "colorbar"; the
// branches "branches" with one <g class="branch"> each.
#include <string>
#include <vector>

namespace torix {

// Tick positions: multiples of a step of 1, 2 or 5 times a power of ten
// chosen so that about `target` ticks (at least 2) fall in [lo, hi]; step
// receives the step.  lo < hi, both finite.
std::vector<double> nice_ticks(double lo, double hi, int target, double& step);

// Absorption spectrum: the curve y(x) (x ascending), a dashed marker with
// the mode number p at each x = mode_x[p-1], axis labels with their units,
// and a title.  Written under a temporary name and renamed.
void plot_absorption_svg(const std::string& name, const std::vector<double>& x, const std::vector<double>& y,
                         const std::vector<double>& mode_x, const std::string& xlabel, const std::string& ylabel,
                         const std::string& title);

// Mode chart: frequency f[p-1] against the mode number p, an error bar of
// +- g[p-1] (the decay rate, same unit as f), and a marker coloured by
// colour[p-1] in [0, 1] on the scale shown in the colour bar (labelled
// colour_label).  Written under a temporary name and renamed.
void plot_modes_svg(const std::string& name, const std::vector<double>& f, const std::vector<double>& g,
                    const std::vector<double>& colour, const std::string& ylabel, const std::string& colour_label,
                    const std::string& title);

// Branches: y[b][q] against x[q] for each branch b, as lines (a NaN breaks
// a line) with a marker at every point, one colour per branch (repeating
// after ten), numbered at their right end.  x need not be sorted.  Written
// under a temporary name and renamed.
void plot_branches_svg(const std::string& name, const std::vector<double>& x,
                       const std::vector<std::vector<double>>& y, const std::string& xlabel,
                       const std::string& ylabel, const std::string& title);

}  // namespace torix
