#include "core/annotation/annotation_renderer.h"

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <numbers>
#include <vector>

#include "core/platform/text.h"

namespace mirel {

namespace {

struct SurfaceDeleter {
    void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
};
struct ContextDeleter {
    void operator()(cairo_t* context) const { cairo_destroy(context); }
};
using SurfacePtr = std::unique_ptr<cairo_surface_t, SurfaceDeleter>;
using ContextPtr = std::unique_ptr<cairo_t, ContextDeleter>;

constexpr std::uint32_t paletteRed = 0xFF3B30;

// Cairo rasterises in 24.8 fixed point, so anything beyond about ±8.3 million
// pixels wraps. Points are held within ±1e6 pixels and stroke widths under
// 1e6, which keeps an arrow's head (4.5 widths) and a highlight (4 widths)
// inside that range too. An image is at most 32767 pixels a side, so the clamp
// only touches points dozens of image sizes away.
constexpr double farthestCoordinate = 1e6;
constexpr double widestStroke = 1e6;

// Cairo's own limit for image surfaces.
constexpr int largestSide = 32767;

int hexDigit(char ch) {
    if (ch >= '0' && ch <= '9') return ch - '0';
    if (ch >= 'a' && ch <= 'f') return ch - 'a' + 10;
    if (ch >= 'A' && ch <= 'F') return ch - 'A' + 10;
    return -1;
}

// Base 16 into an unsigned 32-bit value, with one optional sign; "-0" reads
// as zero, any other negative value does not read.
std::optional<std::uint32_t> parseHex32(std::string_view text) {
    bool negative = false;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    if (text.empty()) return std::nullopt;
    std::uint64_t value = 0;
    for (char ch : text) {
        int digit = hexDigit(ch);
        if (digit < 0) return std::nullopt;
        value = value * 16 + static_cast<std::uint64_t>(digit);
        if (value > 0xFFFFFFFFu) return std::nullopt;
    }
    if (negative && value != 0) return std::nullopt;
    return static_cast<std::uint32_t>(value);
}

struct Point {
    double x = 0;
    double y = 0;
};

// Fractions with the origin at the top left onto Cairo's pixel space, which
// has its origin at the top left too, so no flip is needed. Non-finite
// fractions have no place and give nothing.
std::optional<Point> toPixels(const AnnotationPoint& point, int width, int height) {
    if (!std::isfinite(point.x) || !std::isfinite(point.y)) return std::nullopt;
    return Point{std::clamp(point.x * width, -farthestCoordinate, farthestCoordinate),
                 std::clamp(point.y * height, -farthestCoordinate, farthestCoordinate)};
}

std::vector<Point> pathPoints(const AnnotationShape& shape, int width, int height) {
    std::vector<Point> points;
    points.reserve(shape.points.size());
    for (const auto& point : shape.points) {
        if (auto mapped = toPixels(point, width, height)) points.push_back(*mapped);
    }
    return points;
}

struct Rect {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
};

// The rectangle spanned by the first and last point. With fewer than two
// points it is the zero rectangle at the drawing origin, which for marks is
// the bottom-left corner of the picture.
std::optional<Rect> rectFrom(const std::vector<AnnotationPoint>& points, int width, int height) {
    if (points.size() < 2) return Rect{0, static_cast<double>(height), 0, 0};
    auto a = toPixels(points.front(), width, height);
    auto b = toPixels(points.back(), width, height);
    if (!a || !b) return std::nullopt;
    return Rect{std::min(a->x, b->x), std::min(a->y, b->y), std::abs(b->x - a->x),
                std::abs(b->y - a->y)};
}

double strokeWidth(double lineWidth, int width, int height) {
    double w = std::max(width, height) * lineWidth;
    if (std::isnan(w)) return 1;
    return std::clamp(w, 1.0, widestStroke);
}

void setColor(cairo_t* context, const RGBColor& color, double alpha) {
    cairo_set_source_rgba(context, color.red, color.green, color.blue, alpha);
}

void addPolyline(cairo_t* context, const std::vector<Point>& points) {
    cairo_move_to(context, points.front().x, points.front().y);
    for (std::size_t i = 1; i < points.size(); ++i) cairo_line_to(context, points[i].x, points[i].y);
}

// Four cubic quarter arcs; drawn in device space so that a flat or empty rect
// needs no singular scale.
void addEllipse(cairo_t* context, const Rect& rect) {
    constexpr double k = 0.5522847498307936;  // 4/3·(√2 − 1)
    double rx = rect.width / 2, ry = rect.height / 2;
    double cx = rect.x + rx, cy = rect.y + ry;
    cairo_move_to(context, cx + rx, cy);
    cairo_curve_to(context, cx + rx, cy + k * ry, cx + k * rx, cy + ry, cx, cy + ry);
    cairo_curve_to(context, cx - k * rx, cy + ry, cx - rx, cy + k * ry, cx - rx, cy);
    cairo_curve_to(context, cx - rx, cy - k * ry, cx - k * rx, cy - ry, cx, cy - ry);
    cairo_curve_to(context, cx + k * rx, cy - ry, cx + rx, cy - k * ry, cx + rx, cy);
    cairo_close_path(context);
}

void drawArrow(cairo_t* context, Point a, Point b, double w) {
    double theta = std::atan2(b.y - a.y, b.x - a.x);
    double h = std::max(4.5 * w, 14.0);
    double spread = std::numbers::pi / 7;

    // The shaft stops short of the tip so its round cap hides under the head.
    cairo_move_to(context, a.x, a.y);
    cairo_line_to(context, b.x - 0.55 * h * std::cos(theta), b.y - 0.55 * h * std::sin(theta));
    cairo_stroke(context);

    cairo_move_to(context, b.x, b.y);
    cairo_line_to(context, b.x - h * std::cos(theta - spread), b.y - h * std::sin(theta - spread));
    cairo_line_to(context, b.x - h * std::cos(theta + spread), b.y - h * std::sin(theta + spread));
    cairo_close_path(context);
    cairo_set_fill_rule(context, CAIRO_FILL_RULE_WINDING);
    cairo_fill(context);
}

void draw(const AnnotationShape& shape, cairo_t* context, int width, int height) {
    RGBColor color = colorFromHex(shape.colorHex);
    double w = strokeWidth(shape.lineWidth, width, height);

    cairo_save(context);
    cairo_new_path(context);
    setColor(context, color, color.alpha);
    cairo_set_line_width(context, w);
    switch (shape.tool) {
        case AnnotationTool::pen: {
            if (shape.points.size() < 2) break;
            auto points = pathPoints(shape, width, height);
            if (points.size() < 2) break;
            addPolyline(context, points);
            cairo_stroke(context);
            break;
        }
        case AnnotationTool::arrow: {
            if (shape.points.size() < 2) break;
            auto a = toPixels(shape.points.front(), width, height);
            auto b = toPixels(shape.points.back(), width, height);
            if (a && b) drawArrow(context, *a, *b, w);
            break;
        }
        case AnnotationTool::rectangle:
            if (auto rect = rectFrom(shape.points, width, height)) {
                cairo_rectangle(context, rect->x, rect->y, rect->width, rect->height);
                cairo_stroke(context);
            }
            break;
        case AnnotationTool::ellipse:
            if (auto rect = rectFrom(shape.points, width, height)) {
                addEllipse(context, *rect);
                cairo_stroke(context);
            }
            break;
        case AnnotationTool::highlight: {
            if (shape.points.size() < 2) break;
            auto points = pathPoints(shape, width, height);
            if (points.size() < 2) break;
            cairo_set_operator(context, CAIRO_OPERATOR_MULTIPLY);
            setColor(context, color, 0.38);
            cairo_set_line_width(context, std::min(4 * w, 4 * widestStroke));
            cairo_set_line_cap(context, CAIRO_LINE_CAP_BUTT);
            addPolyline(context, points);
            cairo_stroke(context);
            break;
        }
        case AnnotationTool::blur:
            break;  // done by the blur pass
    }
    cairo_restore(context);
}

struct PixelRect {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
};

// The blur region grown to whole pixels and cut to the image, or nothing when
// it is under 2 pixels either way. Worked in doubles, so far-off or huge
// coordinates never reach an int or an allocation.
std::optional<PixelRect> blurRegion(const AnnotationShape& shape, int width, int height) {
    if (shape.points.size() < 2) return std::nullopt;
    const auto& a = shape.points.front();
    const auto& b = shape.points.back();
    for (double v : {a.x, a.y, b.x, b.y}) {
        if (!std::isfinite(v)) return std::nullopt;
    }
    double left = std::max(std::floor(std::min(a.x, b.x) * width), 0.0);
    double top = std::max(std::floor(std::min(a.y, b.y) * height), 0.0);
    double right = std::min(std::ceil(std::max(a.x, b.x) * width), static_cast<double>(width));
    double bottom = std::min(std::ceil(std::max(a.y, b.y) * height), static_cast<double>(height));
    if (!(right - left >= 2) || !(bottom - top >= 2)) return std::nullopt;
    return PixelRect{static_cast<int>(left), static_cast<int>(top), static_cast<int>(right - left),
                     static_cast<int>(bottom - top)};
}

// Pixelates r: the crop of the original is shrunk so that the short side holds
// at most twelve blocks of at least 4 pixels, then stretched back without
// interpolation so the blocks stay hard.
void applyMosaic(cairo_t* canvas, const Image& original, const PixelRect& r) {
    SurfacePtr crop(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, r.width, r.height));
    if (cairo_surface_status(crop.get()) != CAIRO_STATUS_SUCCESS) return;
    cairo_surface_flush(crop.get());
    unsigned char* data = cairo_image_surface_get_data(crop.get());
    int stride = cairo_image_surface_get_stride(crop.get());
    for (int row = 0; row < r.height; ++row) {
        const std::uint32_t* source =
            original.pixels.data() + static_cast<std::size_t>(r.y + row) * original.width + r.x;
        std::memcpy(data + static_cast<std::size_t>(row) * stride, source,
                    static_cast<std::size_t>(r.width) * 4);
    }
    cairo_surface_mark_dirty(crop.get());

    double block = std::max(std::min(r.width, r.height) / 12.0, 4.0);
    int smallWidth = std::max(1, static_cast<int>(r.width / block));
    int smallHeight = std::max(1, static_cast<int>(r.height / block));

    SurfacePtr small(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, smallWidth, smallHeight));
    if (cairo_surface_status(small.get()) != CAIRO_STATUS_SUCCESS) return;
    {
        ContextPtr context(cairo_create(small.get()));
        cairo_scale(context.get(), static_cast<double>(smallWidth) / r.width,
                    static_cast<double>(smallHeight) / r.height);
        cairo_set_source_surface(context.get(), crop.get(), 0, 0);
        // A box-like average; padding keeps the edge blocks from fading into
        // the transparent outside of the crop.
        cairo_pattern_set_filter(cairo_get_source(context.get()), CAIRO_FILTER_GOOD);
        cairo_pattern_set_extend(cairo_get_source(context.get()), CAIRO_EXTEND_PAD);
        cairo_paint(context.get());
        if (cairo_status(context.get()) != CAIRO_STATUS_SUCCESS) return;
    }
    cairo_surface_flush(small.get());

    cairo_save(canvas);
    cairo_new_path(canvas);
    cairo_rectangle(canvas, r.x, r.y, r.width, r.height);
    cairo_clip(canvas);
    cairo_translate(canvas, r.x, r.y);
    cairo_scale(canvas, static_cast<double>(r.width) / smallWidth,
                static_cast<double>(r.height) / smallHeight);
    cairo_set_source_surface(canvas, small.get(), 0, 0);
    cairo_pattern_set_filter(cairo_get_source(canvas), CAIRO_FILTER_NEAREST);
    cairo_pattern_set_extend(cairo_get_source(canvas), CAIRO_EXTEND_PAD);
    cairo_paint(canvas);
    cairo_restore(canvas);
}

bool everyPixelOpaque(const std::vector<std::uint32_t>& pixels) {
    return std::all_of(pixels.begin(), pixels.end(),
                       [](std::uint32_t pixel) { return (pixel >> 24) == 0xFF; });
}

}  // namespace

RGBColor colorFromHex(std::string_view text) {
    std::string trimmed = trimBlanks(text);
    std::string_view digits = trimmed;
    if (!digits.empty() && digits.front() == '#') digits.remove_prefix(1);
    std::uint32_t value = parseHex32(digits).value_or(paletteRed);
    return RGBColor{((value >> 16) & 0xFF) / 255.0, ((value >> 8) & 0xFF) / 255.0,
                    (value & 0xFF) / 255.0, 1.0};
}

namespace AnnotationRenderer {

std::optional<Image> render(const Annotation& annotation, const Image& onto) {
    if (annotation.isEmpty()) return std::nullopt;
    const int width = onto.width;
    const int height = onto.height;
    if (width <= 0 || height <= 0 || width > largestSide || height > largestSide) return std::nullopt;
    if (onto.pixels.size() != static_cast<std::size_t>(width) * height) return std::nullopt;
    if (cairo_format_stride_for_width(CAIRO_FORMAT_ARGB32, width) != width * 4) return std::nullopt;

    // The copy is the canvas: Cairo draws straight into its pixels, which
    // share the layout of Image.
    Image result = onto;
    {
        SurfacePtr surface(cairo_image_surface_create_for_data(
            reinterpret_cast<unsigned char*>(result.pixels.data()), CAIRO_FORMAT_ARGB32, width,
            height, width * 4));
        if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) return std::nullopt;
        ContextPtr context(cairo_create(surface.get()));
        if (cairo_status(context.get()) != CAIRO_STATUS_SUCCESS) return std::nullopt;
        cairo_set_line_cap(context.get(), CAIRO_LINE_CAP_ROUND);
        cairo_set_line_join(context.get(), CAIRO_LINE_JOIN_ROUND);

        // Every blur first, so marks lie on top whatever the order of shapes.
        for (const auto& shape : annotation.shapes) {
            if (shape.tool != AnnotationTool::blur) continue;
            if (auto region = blurRegion(shape, width, height)) applyMosaic(context.get(), onto, *region);
        }
        for (const auto& shape : annotation.shapes) {
            if (shape.tool != AnnotationTool::blur) draw(shape, context.get(), width, height);
        }

        cairo_surface_flush(surface.get());
        if (cairo_status(context.get()) != CAIRO_STATUS_SUCCESS) return std::nullopt;
    }
    result.opaque = everyPixelOpaque(result.pixels);
    return result;
}

}  // namespace AnnotationRenderer

}  // namespace mirel
