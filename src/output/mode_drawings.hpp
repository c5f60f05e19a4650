#pragma once
// Drawings of a mode: Encapsulated PostScript pictures of the precession
// orbits and PNG maps of amplitude and phase.
//
// A picture is a row of panels, each a rectangular array of samples seen
// from the top of its plane (first picture axis to the right, second up).
// A sample holds the normalised mode vector projected on the picture plane,
// its amplitude |u| (largest cell 1) and its phase: the phase of u . e, e
// the axis of the picture's fixed frame (fixed_frame: perpendicular to the
// body's mean magnetization) that carries more of the mode, relative to the
// reference cell of find_phase; for a body without a mean direction (a
// vortex, a ring) the phase of the dominant local component.
//
// EPS: each sample's orbit (the ellipse traced by the in-plane part of
// Re(u e^{-i f t}) over one period) about its centre, the largest orbit
// spanning `scale` sample cells, stroked in the colour of its phase
// (phase_colour); magnetic samples lightly shaded; a title line (mode, f, g,
// and f gyro / 2 pi in Hz when gyro is not 1), a label under each panel and
// a phase colour wheel.
// PNG: one square block of pixels per sample, hue the phase, brightness
// the amplitude; empty samples white, panels separated by a grey column;
// above them a title (mode, f in GHz and Oe, g), below them a length scale
// bar in nm, a hue legend (the phase wheel, its axis named) and a
// brightness legend (amplitude 0 to 1).  Panels are at least 64 pixels on
// their short side and wrap onto several rows when there are many.
#include <array>
#include <string>
#include <vector>

#include "output/mode_vectors.hpp"

namespace torix {

struct ModePanel {
    int nh = 0, nv = 0;        // samples along the two picture axes
    double dh = 0.0, dv = 0.0; // sample size (cm)
    std::string label;
    // Per sample s = h + nh v: in-plane components, amplitude, phase, present.
    std::vector<cplx> uh, uv;
    std::vector<double> amp, phase;
    std::vector<unsigned char> present;
};

struct ModePicture {
    std::string title;
    std::string view;   // "", " viewed along x", ...
    int mode = 0;
    double f = 0.0, g = 0.0;  // Oe
    double gyro = 1.0;        // rad/(s Oe), 1 when the script works in field units
    double dx = 0.0, dy = 0.0, dz = 0.0;
    int component = 1;  // the fixed-frame axis (1 e1, 2 e2) whose phase colours the picture
    std::array<double, 3> axis{1.0, 0.0, 0.0};
    std::string axis_name = "u.x";  // what the hue is the phase of
    std::vector<ModePanel> panels;
};

// Frequency in GHz of f in Oe: f gyro / 2 pi with SET_GYRO's ratio, else
// 2.80 MHz/Oe (g = 2); `basis` receives the conversion as a text.
double to_ghz(double f, double gyro, std::string* basis = nullptr);

// Length of the scale bar (same unit as extent): the largest 1, 2 or 5
// times a power of ten within a third of the extent; 0 for no extent.
double scale_bar_length(double extent);

// `drawmode`: one panel per layer k (top view, x right, y up) of mode p.
ModePicture drawmode(const ModeInput& in, int p);

// `drawmode_proj`: mode p viewed along `axis` (1: y right, z up; 2: x right,
// z up; 3: x right, y up), u and the unit magnetization averaged over the
// magnetic cells of each column along the axis.
ModePicture drawmode_proj(const ModeInput& in, int p, int axis);

void write_mode_eps(const ModePicture& pic, double scale, const std::string& name);
void write_mode_png(const ModePicture& pic, const std::string& name);

// "mode001" (at least three digits), "mode001_z" for a view along axis 3.
std::string drawing_name(int p, int axis = 0);

}  // namespace torix
