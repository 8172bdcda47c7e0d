#pragma once
// Inputs for the image benchmarks, made the same way on every run so that two
// builds (and Pillow and vips) read the very same bytes:
//   - syntheticScreenshot: flat panels, stroke "text", icons, gradients, a noisy
//     photo; opaque. Cheap and regular, the benchmark's first input.
//   - realisticScreenshot: a window as a screenshot tool saves it, drawn with
//     Cairo: anti-aliased text in several sizes and faces, flat UI, gradients,
//     a photograph-like region, rounded corners and a soft shadow on a
//     transparent margin (a real alpha channel).
//   - photo: a camera-like picture, for JPEG.
// Files are written by Cairo's PNG writer (libpng's defaults, as applications
// save), libjpeg-turbo and libwebp, never by the code under test.
#include <cairo.h>
#include <jpeglib.h>
#include <png.h>
#include <webp/encode.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/image/image.h"

namespace bench {

using mirel::Image;

inline std::uint32_t rgb(int r, int g, int b) {
    return 0xff000000u | (std::uint32_t(r) << 16) | (std::uint32_t(g) << 8) | std::uint32_t(b);
}

inline Image blankImage(int width, int height, std::uint32_t color) {
    Image image;
    image.width = width;
    image.height = height;
    image.pixels.assign(std::size_t(width) * height, color);
    image.opaque = (color >> 24) == 0xff;
    return image;
}

// ---- the synthetic screenshot ----

struct Painter {
    Image& image;
    std::mt19937& random;

    void fill(int x0, int y0, int w, int h, std::uint32_t color) {
        for (int y = std::max(0, y0); y < std::min(image.height, y0 + h); ++y) {
            for (int x = std::max(0, x0); x < std::min(image.width, x0 + w); ++x) {
                image.pixels[std::size_t(y) * image.width + x] = color;
            }
        }
    }
    void verticalGradient(int x0, int y0, int w, int h, std::array<int, 3> top, std::array<int, 3> bottom) {
        for (int y = 0; y < h; ++y) {
            const double t = double(y) / std::max(1, h - 1);
            auto mix = [&](int c) { return int(std::lround(top[c] + (bottom[c] - top[c]) * t)); };
            fill(x0, y0 + y, w, 1, rgb(mix(0), mix(1), mix(2)));
        }
    }
    // A line of "words": glyph cells with strokes and softened edges.
    void textLine(int x0, int y0, int width, int size, std::uint32_t ink, std::uint32_t paper) {
        const int inkR = (ink >> 16) & 0xff, inkG = (ink >> 8) & 0xff, inkB = ink & 0xff;
        const int paperR = (paper >> 16) & 0xff, paperG = (paper >> 8) & 0xff, paperB = paper & 0xff;
        auto shade = [&](int level) {  // 0 paper .. 4 ink
            return rgb(paperR + (inkR - paperR) * level / 4, paperG + (inkG - paperG) * level / 4,
                       paperB + (inkB - paperB) * level / 4);
        };
        int x = x0;
        while (x < x0 + width - size) {
            const int letters = 2 + int(random() % 9);
            for (int l = 0; l < letters && x < x0 + width - size; ++l) {
                const int cell = size / 2 + int(random() % (size / 2));
                for (int stroke = 0; stroke < 3; ++stroke) {
                    if (random() % 2) {
                        const int sx = x + int(random() % std::max(1, cell - 2));
                        const int top = y0 + int(random() % (size / 3));
                        fill(sx, top, 2, size - (top - y0), shade(4));
                        fill(sx + 2, top, 1, size - (top - y0), shade(2));
                    } else {
                        const int sy = y0 + int(random() % size);
                        fill(x, sy, cell - 1, 2, shade(4));
                        fill(x, sy + 2, cell - 1, 1, shade(1));
                    }
                }
                x += cell + 1;
            }
            x += size / 2;
        }
    }
    void photo(int x0, int y0, int w, int h) {
        std::normal_distribution<double> noise(0, 4);
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                const double u = double(x) / w, v = double(y) / h;
                const double r = 120 + 90 * std::sin(3 * u + 1) * v + noise(random);
                const double g = 140 + 70 * std::cos(4 * v + u) + noise(random);
                const double b = 170 - 80 * u * v + noise(random);
                auto c = [](double value) { return int(std::clamp(value, 0.0, 255.0)); };
                fill(x0 + x, y0 + y, 1, 1, rgb(c(r), c(g), c(b)));
            }
        }
    }
};

inline Image syntheticScreenshot(int width, int height, unsigned seed) {
    Image image = blankImage(width, height, rgb(246, 246, 248));
    std::mt19937 random(seed);
    Painter paint{image, random};

    paint.verticalGradient(0, 0, width, 48, {250, 250, 250}, {228, 228, 230});  // menu bar
    paint.textLine(40, 14, 900, 20, rgb(20, 20, 20), rgb(240, 240, 241));
    paint.verticalGradient(0, 48, width, 100, {236, 236, 238}, {214, 214, 218});  // toolbar
    for (int i = 0; i < 12; ++i) {  // toolbar icons
        const std::uint32_t color = rgb(60 + int(random() % 160), 60 + int(random() % 160), 200);
        paint.fill(60 + i * 110, 72, 56, 56, color);
        paint.fill(72 + i * 110, 84, 32, 32, rgb(250, 250, 250));
    }
    paint.fill(0, 148, 560, height - 148, rgb(232, 234, 238));  // sidebar
    for (int row = 0; row < 36; ++row) {
        const int y = 180 + row * 44;
        if (row == 5) paint.fill(12, y - 8, 536, 40, rgb(10, 100, 230));
        const std::uint32_t paper = row == 5 ? rgb(10, 100, 230) : rgb(232, 234, 238);
        const std::uint32_t ink = row == 5 ? rgb(255, 255, 255) : rgb(40, 40, 46);
        paint.fill(32, y, 24, 24, rgb(120, 120, 130));
        paint.textLine(72, y, 200 + int(random() % 260), 22, ink, paper);
    }
    paint.fill(560, 148, 2, height - 148, rgb(200, 200, 204));  // divider
    for (int line = 0; line < 30; ++line) {  // document text
        paint.textLine(640, 200 + line * 40, 1000 + int(random() % 900), 24, rgb(28, 28, 30), rgb(246, 246, 248));
    }
    paint.photo(1780, 220, 960, 600);
    paint.fill(1780, 860, 960, 4, rgb(210, 210, 214));
    for (int b = 0; b < 4; ++b) {  // buttons
        paint.verticalGradient(1800 + b * 230, 1460, 200, 64, {70, 150, 250}, {20, 100, 220});
        paint.textLine(1830 + b * 230, 1480, 140, 22, rgb(255, 255, 255), rgb(45, 125, 235));
    }
    paint.verticalGradient(640, 1600, 2200, 160, {246, 246, 248}, {200, 210, 230});
    return image;
}

// ---- a photograph: fractal value noise shaped into sky, hills and grain ----

class ValueNoise {
public:
    explicit ValueNoise(unsigned seed) : lattice_(256 * 256) {
        std::mt19937 random(seed);
        for (float& v : lattice_) v = std::uniform_real_distribution<float>(-1, 1)(random);
    }
    // Sum of octaves, about -1..1, with a 1/f falloff as natural scenes have.
    float fractal(float x, float y, int octaves) const {
        float sum = 0, amplitude = 0.5f;
        for (int o = 0; o < octaves; ++o, x *= 2.03f, y *= 2.03f, amplitude *= 0.5f) sum += amplitude * at(x, y);
        return sum;
    }

private:
    float at(float x, float y) const {
        const int xi = int(std::floor(x)), yi = int(std::floor(y));
        const float fx = x - xi, fy = y - yi;
        const float sx = fx * fx * (3 - 2 * fx), sy = fy * fy * (3 - 2 * fy);
        auto v = [&](int i, int j) { return lattice_[((j & 255) << 8) | (i & 255)]; };
        const float top = v(xi, yi) + (v(xi + 1, yi) - v(xi, yi)) * sx;
        const float bottom = v(xi, yi + 1) + (v(xi + 1, yi + 1) - v(xi, yi + 1)) * sx;
        return top + (bottom - top) * sy;
    }
    std::vector<float> lattice_;
};

// Writes an opaque photo into `out` (stride in pixels), `width`×`height`.
inline void paintPhoto(std::uint32_t* out, std::size_t stride, int width, int height, unsigned seed) {
    const ValueNoise noise(seed);
    std::mt19937 random(seed * 7 + 1);
    std::normal_distribution<float> grain(0, 2.5f);
    const float unit = 6.0f / std::max(width, height);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const float u = x * unit, v = y * unit;
            const float horizon = 0.45f * height + 0.12f * height * noise.fractal(u * 0.5f, 3.1f, 3);
            float r, g, b;
            if (y < horizon) {  // sky with clouds
                const float t = float(y) / horizon;
                const float cloud = std::clamp(noise.fractal(u * 1.5f, v * 3.0f, 6) * 1.6f + 0.1f, 0.0f, 1.0f);
                r = 90 + 80 * t + 140 * cloud;
                g = 140 + 60 * t + 100 * cloud;
                b = 215 + 20 * t + 30 * cloud;
            } else {  // hills: fields, trees and shadow
                const float detail = noise.fractal(u * 4.0f + 11, v * 4.0f, 7);
                const float shade = 0.75f + 0.35f * noise.fractal(u + 5, v + 5, 3);
                r = (70 + 60 * detail) * shade;
                g = (110 + 70 * detail) * shade;
                b = (40 + 30 * detail) * shade;
            }
            auto c = [&](float value) { return int(std::clamp(value + grain(random), 0.0f, 255.0f)); };
            out[std::size_t(y) * stride + x] = rgb(c(r), c(g), c(b));
        }
    }
}

inline Image photo(int width, int height, unsigned seed) {
    Image image = blankImage(width, height, 0xff000000u);
    paintPhoto(image.pixels.data(), std::size_t(width), width, height, seed);
    return image;
}

// ---- the realistic screenshot, drawn with Cairo ----

struct CairoPage {
    cairo_t* cr;
    std::mt19937& random;

    void color(int r, int g, int b, double a = 1) { cairo_set_source_rgba(cr, r / 255.0, g / 255.0, b / 255.0, a); }
    void rounded(double x, double y, double w, double h, double radius) {
        cairo_new_sub_path(cr);
        cairo_arc(cr, x + w - radius, y + radius, radius, -M_PI / 2, 0);
        cairo_arc(cr, x + w - radius, y + h - radius, radius, 0, M_PI / 2);
        cairo_arc(cr, x + radius, y + h - radius, radius, M_PI / 2, M_PI);
        cairo_arc(cr, x + radius, y + radius, radius, M_PI, 3 * M_PI / 2);
        cairo_close_path(cr);
    }
    void box(double x, double y, double w, double h, double radius, std::array<int, 3> fill) {
        rounded(x, y, w, h, radius);
        color(fill[0], fill[1], fill[2]);
        cairo_fill(cr);
    }
    void gradientBox(double x, double y, double w, double h, double radius, std::array<int, 3> top,
                     std::array<int, 3> bottom) {
        cairo_pattern_t* pattern = cairo_pattern_create_linear(0, y, 0, y + h);
        cairo_pattern_add_color_stop_rgb(pattern, 0, top[0] / 255.0, top[1] / 255.0, top[2] / 255.0);
        cairo_pattern_add_color_stop_rgb(pattern, 1, bottom[0] / 255.0, bottom[1] / 255.0, bottom[2] / 255.0);
        rounded(x, y, w, h, radius);
        cairo_set_source(cr, pattern);
        cairo_fill(cr);
        cairo_pattern_destroy(pattern);
    }
    std::string words(int count) {
        static const char* vocabulary[] = {
            "the", "capture", "button", "clipped", "layout", "render", "window", "shows", "when", "user",
            "scrolls", "settings", "panel", "overflow", "margin", "invoice", "total", "checkout", "profile",
            "avatar", "loads", "twice", "error", "message", "network", "retry", "dialog", "closes", "before",
            "saving", "draft", "sidebar", "collapses", "on", "narrow", "screens", "and", "text", "wraps",
            "badly", "in", "German", "translation", "of", "a", "table", "header", "is", "misaligned", "by",
            "two", "pixels", "while", "dark", "mode", "keeps", "white", "background"};
        std::string text;
        for (int i = 0; i < count; ++i) {
            if (i) text += ' ';
            text += vocabulary[random() % std::size(vocabulary)];
        }
        return text;
    }
    void text(double x, double y, const std::string& line, double size, std::array<int, 3> ink, const char* face,
              bool bold = false) {
        cairo_select_font_face(cr, face, CAIRO_FONT_SLANT_NORMAL, bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
        cairo_set_font_size(cr, size);
        color(ink[0], ink[1], ink[2]);
        cairo_move_to(cr, x, y);
        cairo_show_text(cr, line.c_str());
    }
    // Lines of running text that fill `width`, as a paragraph.
    double paragraph(double x, double y, double width, int lines, double size, std::array<int, 3> ink,
                     const char* face) {
        for (int i = 0; i < lines; ++i, y += size * 1.5) {
            std::string line;
            for (;;) {
                const std::string next = line.empty() ? words(1) : line + " " + words(1);
                cairo_text_extents_t extents;
                cairo_select_font_face(cr, face, CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
                cairo_set_font_size(cr, size);
                cairo_text_extents(cr, next.c_str(), &extents);
                if (extents.x_advance > (i + 1 == lines ? width * 0.6 : width)) break;
                line = next;
            }
            text(x, y, line, size, ink, face);
        }
        return y;
    }
};

inline Image realisticScreenshot(int width, int height, unsigned seed) {
    Image image = blankImage(width, height, 0);  // transparent margin
    cairo_surface_t* surface = cairo_image_surface_create_for_data(
        reinterpret_cast<unsigned char*>(image.pixels.data()), CAIRO_FORMAT_ARGB32, width, height, width * 4);
    cairo_t* cr = cairo_create(surface);
    std::mt19937 random(seed);
    CairoPage page{cr, random};
    const char* sans = "DejaVu Sans";
    const char* serif = "DejaVu Serif";
    const char* mono = "DejaVu Sans Mono";

    // The window's soft shadow on the transparent margin, then the window.
    const double margin = 56, wx = margin, wy = margin * 0.7, ww = width - 2 * margin, wh = height - 1.7 * margin;
    for (int i = 24; i >= 1; --i) {
        page.rounded(wx - i, wy - i + 12, ww + 2 * i, wh + 2 * i, 22 + i);
        page.color(0, 0, 0, 0.012);
        cairo_fill(cr);
    }
    page.rounded(wx, wy, ww, wh, 22);
    cairo_clip(cr);
    page.box(wx, wy, ww, wh, 0, {255, 255, 255});

    // Title bar with traffic lights, tabs and the address field.
    page.gradientBox(wx, wy, ww, 104, 0, {238, 238, 240}, {222, 222, 226});
    const std::array<std::array<int, 3>, 3> lights = {{{255, 95, 87}, {254, 188, 46}, {40, 200, 64}}};
    for (int i = 0; i < 3; ++i) {
        cairo_arc(cr, wx + 40 + i * 40, wy + 36, 12, 0, 2 * M_PI);
        page.color(lights[i][0], lights[i][1], lights[i][2]);
        cairo_fill(cr);
    }
    for (int t = 0; t < 4; ++t) {
        const double tx = wx + 200 + t * 380;
        if (t == 0) page.box(tx, wy + 12, 360, 48, 10, {250, 250, 252});
        page.box(tx + 16, wy + 24, 24, 24, 5, {80 + t * 40, 120, 220 - t * 30});
        page.text(tx + 52, wy + 44, page.words(3), 22, {40, 40, 46}, sans);
    }
    page.box(wx + 200, wy + 64, ww - 400, 34, 17, {250, 250, 252});
    page.text(wx + 230, wy + 88, "https://shop.example.com/checkout/review?step=2&cart=81f3", 20, {90, 90, 96}, sans);

    // Sidebar: icons and items, one selected.
    const double top = wy + 104, sidebar = 520;
    page.box(wx, top, sidebar, wh - 104, 0, {243, 243, 246});
    for (int row = 0; row < 30; ++row) {
        const double y = top + 40 + row * 50;
        if (row == 4) page.box(wx + 12, y - 6, sidebar - 24, 44, 8, {0, 110, 235});
        const std::array<int, 3> ink = row == 4 ? std::array<int, 3>{255, 255, 255} : std::array<int, 3>{50, 50, 56};
        page.box(wx + 28, y + 2, 28, 28, 6, {100 + int(random() % 120), 100 + int(random() % 120), 210});
        page.text(wx + 72, y + 24, page.words(2 + int(random() % 3)), 24, ink, sans);
    }
    page.box(wx + sidebar, top, 2, wh - 104, 0, {214, 214, 218});

    // The page: heading, paragraphs, a code block, a photograph with its caption, a table, buttons.
    const double x = wx + sidebar + 80, column = 1180;
    page.text(x, top + 110, "Order review and payment", 64, {20, 20, 24}, sans, true);
    double y = page.paragraph(x, top + 180, column, 6, 28, {45, 45, 50}, serif);
    page.box(x, y + 10, column, 300, 12, {246, 247, 250});
    for (int line = 0; line < 8; ++line) {
        const std::array<int, 3> ink = line % 3 == 0 ? std::array<int, 3>{160, 40, 120} : std::array<int, 3>{30, 90, 160};
        page.text(x + 28, y + 56 + line * 34, std::string(line % 4 * 4, ' ') + page.words(4 + line % 5), 24, ink, mono);
    }
    y = page.paragraph(x, y + 380, column, 9, 28, {45, 45, 50}, serif);
    page.text(x, y + 40, page.words(8), 20, {120, 120, 126}, sans);

    auto picture = [&](double left, double top, double w, double h, unsigned which) {
        Image pixels = photo(int(w), int(h), seed + which);
        cairo_surface_t* photoSurface = cairo_image_surface_create_for_data(
            reinterpret_cast<unsigned char*>(pixels.pixels.data()), CAIRO_FORMAT_RGB24, pixels.width, pixels.height,
            pixels.width * 4);
        page.rounded(left, top, w, h, 16);
        cairo_save(cr);
        cairo_clip(cr);
        cairo_set_source_surface(cr, photoSurface, left, top);
        cairo_paint(cr);
        cairo_restore(cr);
        cairo_surface_destroy(photoSurface);
    };
    for (int i = 0; i < 4; ++i) {  // product thumbnails under the text
        const double size = (column - 3 * 24) / 4;
        picture(x + i * (size + 24), y + 80, size, std::min(size, wy + wh - 80 - (y + 80)), 40 + i);
    }
    const double px = x + column + 80, pw = ww - (px - wx) - 80, ph = pw * 0.66;
    picture(px, top + 80, pw, ph, 17);
    page.text(px, top + 120 + ph, page.words(7), 20, {120, 120, 126}, sans);
    double ty = top + 180 + ph;
    for (int row = 0; row < 8; ++row, ty += 52) {
        if (row % 2 == 0) page.box(px, ty, pw, 52, 0, {248, 248, 250});
        page.text(px + 20, ty + 34, page.words(2), row == 0 ? 22 : 21, {50, 50, 56}, sans, row == 0);
        char amount[32];
        std::snprintf(amount, sizeof amount, "%d.%02d €", 10 + int(random() % 900), int(random() % 100));
        page.text(px + pw - 200, ty + 34, amount, 21, {50, 50, 56}, mono);
        page.box(px, ty + 51, pw, 1, 0, {226, 226, 230});
    }
    for (int b = 0; b < 3; ++b) {
        const double bx = px + b * (pw / 3), by = ty + 40;
        if (b == 2) page.gradientBox(bx, by, pw / 3 - 24, 64, 12, {60, 150, 255}, {0, 100, 230});
        else page.box(bx, by, pw / 3 - 24, 64, 12, {232, 232, 236});
        page.text(bx + 36, by + 42, b == 2 ? "Pay now" : page.words(1), 26,
                  b == 2 ? std::array<int, 3>{255, 255, 255} : std::array<int, 3>{40, 40, 46}, sans, b == 2);
    }
    // Status bar with a soft gradient.
    page.gradientBox(wx, wy + wh - 44, ww, 44, 0, {236, 236, 240}, {226, 226, 232});
    page.text(wx + 24, wy + wh - 14, page.words(6), 18, {100, 100, 106}, sans);

    cairo_destroy(cr);
    cairo_surface_flush(surface);
    cairo_surface_destroy(surface);
    image.opaque = false;
    return image;
}

// ---- files ----

inline void writeFile(const std::filesystem::path& path, const std::vector<std::uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    if (!out) throw std::runtime_error("cannot write " + path.string());
}

// The PNG a screenshot tool would save: Cairo's writer, libpng's defaults.
inline std::vector<std::uint8_t> savedPNG(const Image& image) {
    cairo_surface_t* surface = cairo_image_surface_create_for_data(
        reinterpret_cast<unsigned char*>(const_cast<std::uint32_t*>(image.pixels.data())), CAIRO_FORMAT_ARGB32,
        image.width, image.height, image.width * 4);
    std::vector<std::uint8_t> bytes;
    cairo_surface_write_to_png_stream(
        surface,
        [](void* closure, const unsigned char* data, unsigned int length) {
            auto* out = static_cast<std::vector<std::uint8_t>*>(closure);
            out->insert(out->end(), data, data + length);
            return CAIRO_STATUS_SUCCESS;
        },
        &bytes);
    cairo_surface_destroy(surface);
    return bytes;
}

// Rows of a large picture made on demand: the pixels of row `y` as native ARGB
// words (premultiplied), `width` of them.
using RowMaker = std::function<void(int y, std::uint32_t* row)>;

// A large picture that repeats `tile` (with its alpha) over the whole size.
inline RowMaker tiled(const Image& tile, int width) {
    return [&tile, width](int y, std::uint32_t* row) {
        const std::uint32_t* source = tile.pixels.data() + std::size_t(y % tile.height) * tile.width;
        for (int x = 0; x < width; ++x) row[x] = source[x % tile.width];
    };
}

namespace detail {

// libpng's write handles, released together.
class PNGWriteHandle {
public:
    PNGWriteHandle() : png_(png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr)) {
        if (png_) info_ = png_create_info_struct(png_);
    }
    ~PNGWriteHandle() {
        if (png_) png_destroy_write_struct(&png_, info_ ? &info_ : nullptr);
    }
    PNGWriteHandle(const PNGWriteHandle&) = delete;
    PNGWriteHandle& operator=(const PNGWriteHandle&) = delete;
    png_structp png() const { return png_; }
    png_infop info() const { return info_; }
    explicit operator bool() const { return png_ && info_; }

private:
    png_structp png_ = nullptr;
    png_infop info_ = nullptr;
};

// libpng reports errors by longjmp: nothing with a destructor lives in this frame.
inline bool writePNGRows(png_structp png, png_infop info, std::FILE* file, int width, int height, bool opaque,
                         const RowMaker* rows, std::uint32_t* row, png_bytep bytes) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_init_io(png, file);
    png_set_IHDR(png, info, png_uint_32(width), png_uint_32(height), 8, opaque ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_RGBA,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_BASE, PNG_FILTER_TYPE_BASE);
    png_write_info(png, info);
    for (int y = 0; y < height; ++y) {
        (*rows)(y, row);
        png_bytep out = bytes;
        for (int x = 0; x < width; ++x) {
            const std::uint32_t p = row[x], a = p >> 24;
            auto straight = [a](std::uint32_t c) { return a == 0 ? 0u : std::min(255u, (c * 255 + a / 2) / a); };
            *out++ = png_byte(straight((p >> 16) & 0xff));
            *out++ = png_byte(straight((p >> 8) & 0xff));
            *out++ = png_byte(straight(p & 0xff));
            if (!opaque) *out++ = png_byte(a);
        }
        png_write_row(png, bytes);
    }
    png_write_end(png, info);
    return true;
}

}  // namespace detail

// A PNG of `width`×`height` written row by row with libpng (compression level
// 6, adaptive filters), so a 100-megapixel file never exists in memory whole.
// Straight alpha from premultiplied rows; RGB when `opaque`.
inline void writeLargePNG(const std::filesystem::path& path, int width, int height, bool opaque, const RowMaker& rows) {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "wb"), std::fclose);
    if (!file) throw std::runtime_error("cannot write " + path.string());
    std::vector<std::uint32_t> row(static_cast<std::size_t>(width));
    std::vector<png_byte> bytes(static_cast<std::size_t>(width) * 4);
    detail::PNGWriteHandle handle;
    if (!handle || !detail::writePNGRows(handle.png(), handle.info(), file.get(), width, height, opaque, &rows,
                                         row.data(), bytes.data())) {
        throw std::runtime_error("libpng failed on " + path.string());
    }
}

struct JPEGOptions {
    int quality = 90;
    bool progressive = false;
    bool fullChroma = false;  // 4:4:4 rather than 4:2:0
};

namespace detail {
struct JPEGErrors {
    jpeg_error_mgr base;
    std::jmp_buf jump;
};
}  // namespace detail

inline void writeJPEG(const std::filesystem::path& path, int width, int height, const RowMaker& rows,
                      JPEGOptions options) {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "wb"), std::fclose);
    if (!file) throw std::runtime_error("cannot write " + path.string());
    std::vector<std::uint32_t> row(static_cast<std::size_t>(width));
    jpeg_compress_struct info{};
    detail::JPEGErrors errors{};
    info.err = jpeg_std_error(&errors.base);
    errors.base.error_exit = [](j_common_ptr common) {
        std::longjmp(reinterpret_cast<detail::JPEGErrors*>(common->err)->jump, 1);
    };
    if (setjmp(errors.jump)) {
        jpeg_destroy_compress(&info);
        throw std::runtime_error("libjpeg failed on " + path.string());
    }
    jpeg_create_compress(&info);
    jpeg_stdio_dest(&info, file.get());
    info.image_width = JDIMENSION(width);
    info.image_height = JDIMENSION(height);
    info.input_components = 4;
    info.in_color_space = JCS_EXT_BGRX;  // native ARGB words on little-endian machines
    jpeg_set_defaults(&info);
    jpeg_set_quality(&info, options.quality, TRUE);
    if (options.fullChroma) {
        for (int c = 0; c < info.num_components; ++c) info.comp_info[c].h_samp_factor = info.comp_info[c].v_samp_factor = 1;
    }
    if (options.progressive) jpeg_simple_progression(&info);
    jpeg_start_compress(&info, TRUE);
    while (info.next_scanline < info.image_height) {
        rows(int(info.next_scanline), row.data());
        JSAMPROW pointer = reinterpret_cast<JSAMPROW>(row.data());
        jpeg_write_scanlines(&info, &pointer, 1);
    }
    jpeg_finish_compress(&info);
    jpeg_destroy_compress(&info);
}

// Lossy WebP (quality 80, fastest method); the picture is built whole, as
// libwebp needs it.
inline void writeWebP(const std::filesystem::path& path, int width, int height, const RowMaker& rows) {
    std::vector<std::uint8_t> rgba(std::size_t(width) * height * 4);
    std::vector<std::uint32_t> row(static_cast<std::size_t>(width));
    for (int y = 0; y < height; ++y) {
        rows(y, row.data());
        std::uint8_t* out = &rgba[std::size_t(y) * width * 4];
        for (int x = 0; x < width; ++x, out += 4) {
            out[0] = std::uint8_t(row[x] >> 16), out[1] = std::uint8_t(row[x] >> 8), out[2] = std::uint8_t(row[x]);
            out[3] = 255;
        }
    }
    WebPConfig config;
    WebPPicture picture;
    if (!WebPConfigInit(&config) || !WebPPictureInit(&picture)) throw std::runtime_error("libwebp version");
    config.quality = 80;
    config.method = 0;
    picture.use_argb = 0;
    picture.width = width;
    picture.height = height;
    WebPMemoryWriter writer;
    WebPMemoryWriterInit(&writer);
    picture.writer = WebPMemoryWrite;
    picture.custom_ptr = &writer;
    const bool ok = WebPPictureImportRGBA(&picture, rgba.data(), width * 4) && (rgba = {}, true) &&
                    WebPEncode(&config, &picture);
    WebPPictureFree(&picture);
    std::vector<std::uint8_t> bytes(writer.mem, writer.mem + writer.size);
    WebPMemoryWriterClear(&writer);
    if (!ok) throw std::runtime_error("libwebp failed on " + path.string());
    writeFile(path, bytes);
}

}  // namespace bench
