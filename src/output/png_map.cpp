#include "output/png_map.hpp"

#include <png.h>

#include <algorithm>
#include <cmath>
#include <numbers>

#include "core/error.hpp"
#include "core/records.hpp"

namespace torix {

namespace {

void append_bytes(png_structp png, png_bytep data, png_size_t n) {
    auto* out = static_cast<std::vector<unsigned char>*>(png_get_io_ptr(png));
    out->insert(out->end(), data, data + n);
}

void no_flush(png_structp) {}

// libpng reports errors through longjmp; an exception thrown from its error
// callback would cross C frames, so the callback jumps and the caller throws.
void on_error(png_structp png, png_const_charp) { png_longjmp(png, 1); }
void on_warning(png_structp, png_const_charp) {}

}  // namespace

void write_png(const std::string& name, int width, int height, const std::vector<unsigned char>& rgb) {
    std::vector<unsigned char> bytes;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, on_error, on_warning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (png == nullptr || info == nullptr) {
        png_destroy_write_struct(&png, &info);
        throw FatalError(name + ": the PNG encoder could not start");
    }
    std::vector<png_bytep> rows(static_cast<std::size_t>(std::max(height, 0)));
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        throw FatalError(name + ": the PNG encoder failed on a " + std::to_string(width) + " x " +
                         std::to_string(height) + " image");
    }
    png_set_write_fn(png, &bytes, append_bytes, no_flush);
    png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), 8, PNG_COLOR_TYPE_RGB,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    for (int y = 0; y < height; ++y)
        rows[static_cast<std::size_t>(y)] =
            const_cast<png_bytep>(rgb.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(width) * 3);
    png_set_rows(png, info, rows.data());
    png_write_png(png, info, PNG_TRANSFORM_IDENTITY, nullptr);
    png_destroy_write_struct(&png, &info);
    AtomicFile f(name, true);
    f.stream().write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    f.commit();
}

std::array<double, 3> phase_colour(double phase, double v) {
    double h = phase / (2.0 * std::numbers::pi);
    h -= std::floor(h);
    const double h6 = h * 6.0;
    const int sector = std::min(static_cast<int>(h6), 5);
    const double f = h6 - sector;
    const double q = v * (1.0 - f), t = v * f;
    switch (sector) {
        case 0: return {v, t, 0.0};
        case 1: return {q, v, 0.0};
        case 2: return {0.0, v, t};
        case 3: return {0.0, q, v};
        case 4: return {t, 0.0, v};
        default: return {v, 0.0, q};
    }
}

}  // namespace torix
