#pragma once
// PNG images through libpng, and the phase colour wheel shared by the
// drawings and maps.
#include <array>
#include <string>
#include <vector>

namespace torix {

// Writes an 8-bit RGB image (rgb: 3 bytes per pixel, rows from the top)
// whole under a temporary name.  A failure of the encoder is a FatalError.
void write_png(const std::string& name, int width, int height, const std::vector<unsigned char>& rgb);

// Colour of a phase (radians) at brightness v in [0, 1]: hue = phase / 2 pi
// (0 red, 2 pi / 3 green, -2 pi / 3 blue), full saturation.  Components in [0, 1].
std::array<double, 3> phase_colour(double phase, double v);

}  // namespace torix
