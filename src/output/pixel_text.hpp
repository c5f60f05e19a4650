#pragma once
// Text in raster images: a 5 x 7 pixel font (digits, + - . ( ) / and the
// letters that axis labels use), drawn at an integer magnification into an
// 8-bit RGB image (3 bytes per pixel, rows from the top).
#include <array>
#include <string>
#include <vector>

namespace torix {

struct RgbImage {
    int width = 0, height = 0;
    std::vector<unsigned char> rgb;  // 3 * width * height
    RgbImage(int w, int h) : width(w), height(h), rgb(static_cast<std::size_t>(3 * w * h), 255) {}
    void set(int x, int y, const std::array<unsigned char, 3>& c) {
        if (x < 0 || y < 0 || x >= width || y >= height) return;
        const std::size_t p = 3 * (static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x));
        rgb[p] = c[0], rgb[p + 1] = c[1], rgb[p + 2] = c[2];
    }
};

// Width and height in pixels of `text` at magnification `scale` (one
// column of space between characters).
int text_width(const std::string& text, int scale);
inline int text_height(int scale) { return 7 * scale; }

// Draws `text` with its top-left corner at (x, y); vertical text runs
// upwards from (x, y), its bottom-left corner.  Characters outside the font
// are left blank.
void draw_text(RgbImage& img, int x, int y, const std::string& text, int scale, bool vertical = false,
               const std::array<unsigned char, 3>& colour = {0, 0, 0});

}  // namespace torix
