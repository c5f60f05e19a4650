#pragma once
// Drawings of a mode: Encapsulated PostScript pictures of the precession
// orbits and PNG maps of amplitude and phase.
//
// A picture is a row of panels, each a rectangular array of samples seen
// from the top of its plane (first picture axis to the right, second up).
// A sample holds the normalised mode vector projected on the picture plane,
// its amplitude |u| (largest cell 1) and its phase: the phase of the mode's
// dominant local component over the whole picture, relative to the
// reference cell of find_phase.
//
// EPS: each sample's orbit (the ellipse traced by the in-plane part of
// Re(u e^{-i f t}) over one period) about its centre, the largest orbit
// spanning `scale` sample cells, stroked in the colour of its phase
// (phase_colour); magnetic samples lightly shaded; a title line (mode, f, g,
// and f gyro / 2 pi in Hz when gyro is not 1), a label under each panel and
// a phase colour wheel.
// PNG: one square block of pixels per sample, hue the phase, brightness
// the amplitude; empty samples white, panels separated by a grey column.
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
    int component = 1;  // the local component whose phase colours the picture
    std::vector<ModePanel> panels;
};

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
