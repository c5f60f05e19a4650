#pragma once
// An RGB raster with rectangles, lines and text in a built-in 5 x 7 pixel
// font, for the labels of the PNG pictures (no font library needed).
#include <array>
#include <string_view>
#include <vector>

namespace torix {

struct Rgb {
    unsigned char r = 0, g = 0, b = 0;
};

class Canvas {
public:
    // width x height pixels, all `background`; row 0 is the top.
    Canvas(int width, int height, Rgb background = {255, 255, 255});

    [[nodiscard]] int width() const { return w_; }
    [[nodiscard]] int height() const { return h_; }
    [[nodiscard]] const std::vector<unsigned char>& rgb() const { return rgb_; }
    [[nodiscard]] Rgb at(int x, int y) const;

    // Pixels outside the canvas are dropped.
    void put(int x, int y, Rgb c);
    void fill(int x, int y, int w, int h, Rgb c);

    // Text with its top-left corner at (x, y), each font pixel `scale` x
    // `scale` pixels; characters outside printable ASCII are drawn as '?'.
    void text(int x, int y, std::string_view s, int scale, Rgb c);

private:
    int w_, h_;
    std::vector<unsigned char> rgb_;
};

// Glyph cell of the font: 5 x 7 pixels and one of spacing on each axis.
inline constexpr int kGlyphWidth = 6, kGlyphHeight = 8;
// Width in pixels of s drawn at `scale` (without the trailing spacing).
int text_width(std::string_view s, int scale);

}  // namespace torix
