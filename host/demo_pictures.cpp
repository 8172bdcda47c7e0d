#include "host/demo_pictures.h"

#include <webp/encode.h>

#include <algorithm>
#include <cmath>
#include <memory>

namespace mirel::host::DemoPictures {

namespace {

using Color = std::uint32_t;  // opaque 0xFFRRGGBB, which is also premultiplied

constexpr Color white = 0xFFFFFFFF;
constexpr Color paper = 0xFFF5F5F7;
constexpr Color ink = 0xFF1C1C1E;
constexpr Color grey = 0xFFB0B0B8;
constexpr Color lightGrey = 0xFFE2E2E8;
constexpr Color blue = 0xFF0A84FF;
constexpr Color red = 0xFFFF3B30;
constexpr Color green = 0xFF34C759;
constexpr Color yellow = 0xFFFFCC00;
constexpr Color purple = 0xFFAF52DE;
constexpr Color darkBackground = 0xFF1E1E22;
constexpr Color darkPanel = 0xFF2C2C32;

// A few flat drawing verbs over an opaque Image, clipped to its bounds.
class Canvas {
public:
    Canvas(int width, int height, Color background) {
        image_.width = width;
        image_.height = height;
        image_.opaque = true;
        image_.pixels.assign(static_cast<std::size_t>(width) * height, background);
    }

    int width() const { return image_.width; }
    int height() const { return image_.height; }
    // Fractions of the canvas to pixels.
    int x(double fraction) const { return static_cast<int>(std::lround(fraction * image_.width)); }
    int y(double fraction) const { return static_cast<int>(std::lround(fraction * image_.height)); }

    void fill(int left, int top, int w, int h, Color color) {
        const int x0 = std::max(0, left), y0 = std::max(0, top);
        const int x1 = std::min(image_.width, left + w), y1 = std::min(image_.height, top + h);
        for (int row = y0; row < y1; ++row) {
            std::fill_n(image_.pixels.begin() + static_cast<std::ptrdiff_t>(row) * image_.width + x0,
                        std::max(0, x1 - x0), color);
        }
    }

    void rounded(int left, int top, int w, int h, int radius, Color color) {
        radius = std::min({radius, w / 2, h / 2});
        for (int row = std::max(0, top); row < std::min(image_.height, top + h); ++row) {
            // Inset of this row at the rounded corners.
            const int fromEdge = std::min(row - top, top + h - 1 - row);
            int inset = 0;
            if (fromEdge < radius) {
                const double dy = radius - fromEdge - 0.5;
                inset = radius - static_cast<int>(std::sqrt(std::max(0.0, double(radius) * radius - dy * dy)));
            }
            fill(left + inset, row, w - 2 * inset, 1, color);
        }
    }

    void outline(int left, int top, int w, int h, int thickness, Color color) {
        fill(left, top, w, thickness, color);
        fill(left, top + h - thickness, w, thickness, color);
        fill(left, top, thickness, h, color);
        fill(left + w - thickness, top, thickness, h, color);
    }

    void disc(int cx, int cy, int radius, Color color) { rounded(cx - radius, cy - radius, 2 * radius, 2 * radius, radius, color); }

    // Lines of "text": rounded bars broken into words of varying length.
    void paragraph(int left, int top, int w, int lines, int lineHeight, Color color, unsigned seed) {
        const int bar = std::max(2, lineHeight * 55 / 100);
        for (int line = 0; line < lines; ++line) {
            int cursor = left;
            const int end = left + (line == lines - 1 && lines > 1 ? w * 6 / 10 : w);
            while (cursor < end) {
                seed = seed * 1103515245u + 12345u;
                const int word = std::max(bar * 2, static_cast<int>((seed >> 16) % 7 + 2) * bar);
                const int length = std::min(word, end - cursor);
                if (length > bar) rounded(cursor, top + line * lineHeight, length, bar, bar / 2, color);
                cursor += word + bar;
            }
        }
    }

    // A window's title bar with its three buttons.
    void windowChrome(int left, int top, int w, int barHeight, Color bar) {
        fill(left, top, w, barHeight, bar);
        const int r = std::max(2, barHeight / 5);
        const Color buttons[] = {0xFFFF5F57, 0xFFFEBC2E, 0xFF28C840};
        for (int i = 0; i < 3; ++i) disc(left + barHeight / 2 + i * r * 3, top + barHeight / 2, r, buttons[i]);
    }

    Image take() { return std::move(image_); }

private:
    Image image_;
};

int atLeast1(int value) { return std::max(1, value); }

}  // namespace

Image checkoutPage(int width, int height) {
    Canvas c(width, height, paper);
    const int bar = atLeast1(c.y(0.05));
    c.windowChrome(0, 0, width, bar, lightGrey);
    c.rounded(c.x(0.2), bar / 4, c.x(0.6), bar / 2, bar / 4, white);  // address field
    c.fill(0, bar, width, c.y(0.08), ink);                           // shop header
    c.paragraph(c.x(0.04), bar + c.y(0.025), c.x(0.15), 1, c.y(0.04), white, 7);
    for (int i = 0; i < 3; ++i) {  // basket lines
        const int top = c.y(0.2 + i * 0.14);
        c.rounded(c.x(0.06), top, c.x(0.1), c.y(0.1), 8, 0xFFCFD8E3);
        c.paragraph(c.x(0.19), top + c.y(0.015), c.x(0.35), 2, c.y(0.035), grey, 11 + i);
        c.paragraph(c.x(0.8), top + c.y(0.015), c.x(0.08), 1, c.y(0.035), ink, 3 + i);
    }
    c.fill(c.x(0.06), c.y(0.64), c.x(0.88), 2, lightGrey);
    c.paragraph(c.x(0.6), c.y(0.67), c.x(0.3), 1, c.y(0.04), ink, 5);
    // The pay button runs into the cookie banner below it.
    c.fill(0, c.y(0.8), width, c.y(0.2), 0xFF3A3A40);
    c.paragraph(c.x(0.05), c.y(0.85), c.x(0.5), 2, c.y(0.04), lightGrey, 9);
    c.rounded(c.x(0.62), c.y(0.76), c.x(0.3), c.y(0.09), c.y(0.02), blue);
    c.paragraph(c.x(0.7), c.y(0.79), c.x(0.14), 1, c.y(0.04), white, 2);
    return c.take();
}

Image couponField(int width, int height) {
    Canvas c(width, height, white);
    c.paragraph(c.x(0.08), c.y(0.12), c.x(0.3), 1, c.y(0.1), ink, 21);
    c.rounded(c.x(0.08), c.y(0.3), c.x(0.6), c.y(0.2), 10, red);
    c.rounded(c.x(0.08) + 2, c.y(0.3) + 2, c.x(0.6) - 4, c.y(0.2) - 4, 9, white);
    c.paragraph(c.x(0.11), c.y(0.37), c.x(0.3), 1, c.y(0.1), grey, 4);
    c.rounded(c.x(0.72), c.y(0.3), c.x(0.2), c.y(0.2), 10, ink);
    c.disc(c.x(0.1), c.y(0.64), atLeast1(c.y(0.03)), red);
    c.paragraph(c.x(0.14), c.y(0.61), c.x(0.5), 1, c.y(0.08), red, 8);
    return c.take();
}

Image cardForm(int width, int height, int step) {
    Canvas c(width, height, paper);
    const int bar = atLeast1(c.y(0.06));
    c.windowChrome(0, 0, width, bar, lightGrey);
    for (int field = 0; field < 3; ++field) {
        const int top = c.y(0.18 + field * 0.2);
        c.paragraph(c.x(0.1), top, c.x(0.2), 1, c.y(0.05), grey, 30 + field);
        const bool focused = step == 0 && field == 1;
        const bool wrong = step >= 1 && field == 1;
        c.rounded(c.x(0.1), top + c.y(0.05), c.x(0.8), c.y(0.09), 8, wrong ? red : focused ? blue : grey);
        c.rounded(c.x(0.1) + 2, top + c.y(0.05) + 2, c.x(0.8) - 4, c.y(0.09) - 4, 7, white);
        if (field != 1 || step == 0) c.paragraph(c.x(0.12), top + c.y(0.075), c.x(0.3), 1, c.y(0.05), ink, 40 + field);
    }
    if (step >= 1) c.paragraph(c.x(0.1), c.y(0.53), c.x(0.45), 1, c.y(0.045), red, 12);
    c.rounded(c.x(0.6), c.y(0.8), c.x(0.3), c.y(0.1), 10, step == 2 ? grey : blue);
    return c.take();
}

Image settingsDark(int width, int height) {
    Canvas c(width, height, darkBackground);
    const int bar = atLeast1(c.y(0.045));
    c.windowChrome(0, 0, width, bar, darkPanel);
    c.fill(0, bar, c.x(0.22), height - bar, darkPanel);
    for (int i = 0; i < 8; ++i) {
        c.paragraph(c.x(0.03), bar + c.y(0.04 + i * 0.06), c.x(0.14), 1, c.y(0.035), i == 2 ? white : grey, 50 + i);
    }
    for (int row = 0; row < 6; ++row) {
        const int top = bar + c.y(0.08 + row * 0.12);
        c.paragraph(c.x(0.27), top, c.x(0.4), 2, c.y(0.035), row == 0 ? white : grey, 60 + row);
        // The toggles drift further right on every row: the bug in the note.
        const int left = c.x(0.82) + row * c.x(0.006);
        const bool on = row % 2 == 0;
        c.rounded(left, top, c.x(0.06), c.y(0.04), c.y(0.02), on ? green : 0xFF48484F);
        c.disc(on ? left + c.x(0.06) - c.y(0.02) : left + c.y(0.02), top + c.y(0.02), atLeast1(c.y(0.017)), white);
        c.fill(c.x(0.25), top + c.y(0.09), c.x(0.72), 1, 0xFF3A3A40);
    }
    return c.take();
}

Image colorPicker(int width, int height) {
    Canvas c(width, height, white);
    const Color swatches[] = {red, 0xFFFF9500, yellow, green, 0xFF5AC8FA, blue, purple, 0xFFFF2D55, ink, grey};
    const int cell = atLeast1(std::min(width / 6, height / 3));
    for (int i = 0; i < 10; ++i) {
        const int left = (i % 5) * cell + cell / 2, top = (i / 5) * cell + cell / 2;
        // Soft edges stand for the blur the note describes.
        c.rounded(left - 3, top - 3, cell * 3 / 4 + 6, cell * 3 / 4 + 6, cell / 6 + 3, lightGrey);
        c.rounded(left, top, cell * 3 / 4, cell * 3 / 4, cell / 6, swatches[i]);
    }
    return c.take();
}

Image sidebar(int width, int height) {
    Canvas c(width, height, paper);
    c.fill(0, 0, c.x(0.08), height, ink);
    for (int i = 0; i < 7; ++i) c.rounded(c.x(0.02), c.y(0.05 + i * 0.1), c.x(0.04), c.x(0.04), 6, grey);
    c.rounded(c.x(0.15), c.y(0.1), c.x(0.75), c.y(0.75), 12, white);
    c.paragraph(c.x(0.2), c.y(0.16), c.x(0.6), 6, c.y(0.06), lightGrey, 70);
    return c.take();
}

Image phoneTour(int width, int height) {
    Canvas c(width, height, 0xFF5856D6);
    c.fill(0, 0, width, c.y(0.04), 0xFF4A48C0);
    c.rounded(c.x(0.08), c.y(0.3), c.x(0.84), c.y(0.4), c.x(0.06), white);
    c.disc(c.x(0.5), c.y(0.38), atLeast1(c.x(0.1)), yellow);
    c.paragraph(c.x(0.16), c.y(0.47), c.x(0.68), 3, c.y(0.035), grey, 80);
    for (int dot = 0; dot < 5; ++dot) c.disc(c.x(0.34 + dot * 0.08), c.y(0.66), atLeast1(c.x(0.015)), dot == 1 ? blue : lightGrey);
    c.rounded(c.x(0.08), c.y(0.84), c.x(0.84), c.y(0.07), c.y(0.035), white);
    return c.take();
}

Image barChart(int width, int height) {
    Canvas c(width, height, white);
    c.paragraph(c.x(0.05), c.y(0.05), c.x(0.3), 1, c.y(0.05), ink, 90);
    c.fill(c.x(0.06), c.y(0.85), c.x(0.9), 2, grey);
    const int bars = 16;
    for (int i = 0; i < bars; ++i) {
        const double value = 0.25 + 0.5 * std::fabs(std::sin(i * 1.7));
        const int left = c.x(0.08 + i * 0.055);
        c.fill(left, c.y(0.85 - value * 0.7), c.x(0.035), c.y(value * 0.7), i % 3 == 0 ? purple : blue);
        // Labels wider than their bars run into each other.
        c.paragraph(left - c.x(0.01), c.y(0.88), c.x(0.07), 1, c.y(0.04), ink, 100 + i);
    }
    return c.take();
}

Image dialog(int width, int height) {
    Canvas c(width, height, 0xFF8E8E93);
    c.rounded(c.x(0.05), c.y(0.08), c.x(0.9), c.y(0.84), 14, white);
    c.paragraph(c.x(0.1), c.y(0.18), c.x(0.5), 1, c.y(0.09), ink, 110);
    c.paragraph(c.x(0.1), c.y(0.35), c.x(0.8), 3, c.y(0.08), grey, 111);
    c.rounded(c.x(0.1), c.y(0.7), c.x(0.35), c.y(0.13), 8, blue);  // the default on the wrong side
    c.rounded(c.x(0.55), c.y(0.7), c.x(0.35), c.y(0.13), 8, lightGrey);
    return c.take();
}

Image desktop(int width, int height) {
    Canvas c(width, height, 0xFF2F5D7C);
    c.fill(0, 0, width, c.y(0.025), 0xFFDADAE0);
    c.fill(c.x(0.06), c.y(0.1), c.x(0.5), c.y(0.6), white);
    c.windowChrome(c.x(0.06), c.y(0.1), c.x(0.5), c.y(0.035), lightGrey);
    for (int row = 0; row < 9; ++row) {
        for (int col = 0; col < 5; ++col) c.outline(c.x(0.08 + col * 0.09), c.y(0.17 + row * 0.055), c.x(0.09), c.y(0.055), 1, grey);
    }
    c.fill(c.x(0.45), c.y(0.3), c.x(0.48), c.y(0.55), darkBackground);
    c.windowChrome(c.x(0.45), c.y(0.3), c.x(0.48), c.y(0.035), darkPanel);
    c.paragraph(c.x(0.47), c.y(0.37), c.x(0.4), 10, c.y(0.04), 0xFF9CDCFE, 120);
    c.rounded(c.x(0.6), c.y(0.55), c.x(0.2), c.y(0.05), 6, 0xFF6E6E78);  // the frozen spinner's card
    return c.take();
}

Image searchResults(int width, int height) {
    Canvas c(width, height, white);
    c.rounded(c.x(0.05), c.y(0.05), c.x(0.9), c.y(0.1), c.y(0.05), lightGrey);
    c.paragraph(c.x(0.09), c.y(0.08), c.x(0.2), 1, c.y(0.05), ink, 130);
    for (int i = 0; i < 5; ++i) {
        const int top = c.y(0.22 + i * 0.15);
        c.rounded(c.x(0.05), top, c.y(0.1), c.y(0.1), 6, i == 2 ? yellow : 0xFFCFD8E3);
        c.paragraph(c.x(0.05) + c.y(0.13), top + c.y(0.01), c.x(0.6), 2, c.y(0.04), i == 2 ? ink : grey, 131 + i);
    }
    return c.take();
}

std::optional<std::vector<std::uint8_t>> encodeWebP(const Image& image, float quality) {
    if (image.width <= 0 || image.height <= 0) return std::nullopt;
    std::vector<std::uint8_t> rgb;
    rgb.reserve(image.pixels.size() * 3);
    for (std::uint32_t pixel : image.pixels) {
        rgb.push_back(static_cast<std::uint8_t>(pixel >> 16));
        rgb.push_back(static_cast<std::uint8_t>(pixel >> 8));
        rgb.push_back(static_cast<std::uint8_t>(pixel));
    }
    std::uint8_t* output = nullptr;
    const std::size_t size = WebPEncodeRGB(rgb.data(), image.width, image.height, image.width * 3, quality, &output);
    std::unique_ptr<std::uint8_t, void (*)(std::uint8_t*)> owned(output, [](std::uint8_t* p) { WebPFree(p); });
    if (size == 0 || !output) return std::nullopt;
    return std::vector<std::uint8_t>(output, output + size);
}

}  // namespace mirel::host::DemoPictures
