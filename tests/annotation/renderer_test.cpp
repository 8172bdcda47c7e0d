#include "core/annotation/annotation_renderer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <limits>
#include <vector>

namespace mirel {
namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double inf = std::numeric_limits<double>::infinity();
constexpr std::uint32_t white = 0xFFFFFFFF;
constexpr std::uint32_t black = 0xFF000000;

std::uint32_t rgb(int r, int g, int b) {
    return 0xFF000000u | (std::uint32_t(r) << 16) | (std::uint32_t(g) << 8) | std::uint32_t(b);
}
int red(std::uint32_t p) { return (p >> 16) & 0xFF; }
int green(std::uint32_t p) { return (p >> 8) & 0xFF; }
int blue(std::uint32_t p) { return p & 0xFF; }

Image makeImage(int width, int height, const std::function<std::uint32_t(int, int)>& pixel) {
    Image image{width, height, {}, true};
    image.pixels.resize(static_cast<std::size_t>(width) * height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) image.pixels[static_cast<std::size_t>(y) * width + x] = pixel(x, y);
    return image;
}
Image solid(int width, int height, std::uint32_t color) {
    return Image{width, height, std::vector<std::uint32_t>(static_cast<std::size_t>(width) * height, color), true};
}
// Every block of a mosaic differs from its neighbours on this source.
Image gradient(int width, int height) {
    return makeImage(width, height, [=](int x, int y) {
        return rgb(x * 255 / std::max(1, width - 1), y * 255 / std::max(1, height - 1), (x * 7 + y * 3) & 0xFF);
    });
}

AnnotationShape shape(AnnotationTool tool, std::vector<AnnotationPoint> points, double lineWidth = 0.01,
                      std::string color = "#000000") {
    return AnnotationShape{"s", tool, std::move(color), lineWidth, std::move(points)};
}

Image renderOrFail(std::vector<AnnotationShape> shapes, const Image& onto) {
    auto result = AnnotationRenderer::render(Annotation{std::move(shapes)}, onto);
    EXPECT_TRUE(result.has_value());
    if (!result) return onto;
    EXPECT_EQ(result->width, onto.width);
    EXPECT_EQ(result->height, onto.height);
    return *result;
}

// Ink of a dark stroke on white, in pixels, summed down one column.
double inkInColumn(const Image& image, int x) {
    double sum = 0;
    for (int y = 0; y < image.height; ++y) sum += 1.0 - red(image.at(x, y)) / 255.0;
    return sum;
}

bool painted(const Image& image, int x, int y) { return red(image.at(x, y)) < 128; }

// Lengths of runs of equal pixels along a row or a column.
std::vector<int> runs(const Image& image, int fixed, int from, int to, bool alongRow) {
    std::vector<int> lengths;
    std::uint32_t last = 0;
    for (int i = from; i < to; ++i) {
        std::uint32_t p = alongRow ? image.at(i, fixed) : image.at(fixed, i);
        if (lengths.empty() || p != last) lengths.push_back(0);
        ++lengths.back();
        last = p;
    }
    return lengths;
}

// --- colour ---------------------------------------------------------------

TEST(ColorFromHex, ReadsTextsAndFallsBackToPaletteRed) {
    const RGBColor paletteRed{1.0, 0x3B / 255.0, 0x30 / 255.0, 1.0};
    struct Case {
        const char* text;
        RGBColor expected;
    } cases[] = {
        {"80FF0000", {1, 0, 0, 1}},  // the top byte is no alpha
        {"#ff3b30", paletteRed},
        {"#FF3B30", paletteRed},
        {" ff3b30 ", paletteRed},
        {"\t#0A84FF ", {0x0A / 255.0, 0x84 / 255.0, 1, 1}},
        {"+34c759", {0x34 / 255.0, 0xC7 / 255.0, 0x59 / 255.0, 1}},
        {"-0", {0, 0, 0, 1}},
        {"0", {0, 0, 0, 1}},
        {"000000000FFFFFF", {1, 1, 1, 1}},  // leading zeros do not overflow
        {"zz", paletteRed},
        {"", paletteRed},
        {"#", paletteRed},
        {"##ff0000", paletteRed},  // only one "#" is dropped
        {"-1", paletteRed},
        {"+", paletteRed},
        {"100000000", paletteRed},  // over 32 bits
        {"ff 00 00", paletteRed},
        {"0xff0000", paletteRed},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(colorFromHex(c.text), c.expected) << '"' << c.text << '"';
    }
}

// --- render: results and absence -------------------------------------------

TEST(AnnotationRenderer, EmptyAnnotationGivesNothing) {
    EXPECT_FALSE(AnnotationRenderer::render(Annotation{}, solid(10, 10, white)).has_value());
}

TEST(AnnotationRenderer, ImagesWithoutASurfaceGiveNothing) {
    Annotation one{{shape(AnnotationTool::pen, {{0, 0}, {1, 1}})}};
    Image mismatched = solid(10, 10, white);
    mismatched.pixels.pop_back();
    Image tooWide{40000, 1, std::vector<std::uint32_t>(40000, white), true};
    for (const Image& image : {Image{}, Image{0, 5, {}, true}, mismatched, tooWide}) {
        EXPECT_FALSE(AnnotationRenderer::render(one, image).has_value()) << image.width << "x" << image.height;
    }
}

TEST(AnnotationRenderer, LeavesTheSourceAloneAndKeepsOpacity) {
    Image source = solid(40, 30, white);
    Image result = renderOrFail({shape(AnnotationTool::pen, {{0, 0.5}, {1, 0.5}}, 0.05)}, source);
    EXPECT_EQ(source.pixels, solid(40, 30, white).pixels);
    EXPECT_NE(result.pixels, source.pixels);
    EXPECT_TRUE(result.opaque);
}

// --- geometry --------------------------------------------------------------

TEST(AnnotationRenderer, PointsMeasureFromTheTopLeft) {
    // 0.01 of the longer side 200 is a 2-pixel line centred on row 50.
    Image result = renderOrFail({shape(AnnotationTool::pen, {{0.1, 0.25}, {0.9, 0.25}})}, solid(100, 200, white));
    EXPECT_TRUE(painted(result, 50, 49));
    EXPECT_TRUE(painted(result, 50, 50));
    EXPECT_FALSE(painted(result, 50, 48));
    EXPECT_FALSE(painted(result, 50, 150));
    EXPECT_FALSE(painted(result, 5, 50));
}

TEST(AnnotationRenderer, ArrowPointsAtItsLastPoint) {
    // Downwards: tip at (100, 160), head 18 long (4.5 × width 4).
    Image result = renderOrFail({shape(AnnotationTool::arrow, {{0.5, 0.2}, {0.5, 0.8}}, 0.02)}, solid(200, 200, white));
    EXPECT_TRUE(painted(result, 100, 100));  // shaft
    EXPECT_TRUE(painted(result, 104, 148));  // the head's wide part, beside the shaft
    EXPECT_TRUE(painted(result, 95, 148));
    EXPECT_TRUE(painted(result, 100, 158));  // near the tip
    EXPECT_FALSE(painted(result, 100, 163));
    EXPECT_FALSE(painted(result, 104, 52));  // no head at the start
    EXPECT_FALSE(painted(result, 104, 172));
}

TEST(AnnotationRenderer, ShortArrowStillHasAFullHead) {
    // Two pixels long, width 1: the head is 14 pixels from tip to corners.
    Image result = renderOrFail({shape(AnnotationTool::arrow, {{0.5, 0.5}, {0.51, 0.5}}, 0)}, solid(200, 200, white));
    int minX = 200, maxX = -1, minY = 200, maxY = -1;
    double farthest = 0;
    for (int y = 0; y < 200; ++y)
        for (int x = 0; x < 200; ++x) {
            if (result.at(x, y) == white) continue;
            minX = std::min(minX, x), maxX = std::max(maxX, x), minY = std::min(minY, y), maxY = std::max(maxY, y);
            farthest = std::max(farthest, std::hypot(x + 0.5 - 102, y + 0.5 - 100));
        }
    EXPECT_NEAR(farthest, 14, 1.0);
    EXPECT_GE(maxX - minX + 1, 13);  // 14·cos(π/7) ≈ 12.6 along the shaft
    EXPECT_GE(maxY - minY + 1, 12);  // 2·14·sin(π/7) ≈ 12.1 across
    EXPECT_LE(maxX, 102);
    EXPECT_TRUE(painted(result, 91, 104));   // wide end behind the tip
    EXPECT_FALSE(painted(result, 101, 104));  // narrow end at the tip
}

TEST(AnnotationRenderer, StrokeWidthFollowsTheLongerSideAndNeverFallsUnderOnePixel) {
    struct Case {
        int width, height;
        double lineWidth, ink;
    } cases[] = {
        {1000, 2000, 0.005, 10},
        {2000, 1000, 0.005, 10},
        {1000, 2000, 0, 1},
        {1000, 2000, -3, 1},
        {1000, 2000, nan, 1},
    };
    for (const auto& c : cases) {
        Image result = renderOrFail({shape(AnnotationTool::pen, {{0.1, 0.5}, {0.9, 0.5}}, c.lineWidth)},
                                    solid(c.width, c.height, white));
        EXPECT_NEAR(inkInColumn(result, c.width / 2), c.ink, 0.05)
            << c.width << "x" << c.height << " lineWidth " << c.lineWidth;
    }
}

TEST(AnnotationRenderer, BoxAndCircleUseFirstAndLastPoint) {
    std::vector<AnnotationPoint> points{{0.6, 0.8}, {0.99, 0.01}, {0.2, 0.2}};  // the middle one plays no part
    Image box = renderOrFail({shape(AnnotationTool::rectangle, points, 0.02)}, solid(100, 100, white));
    for (auto [x, y] : {std::pair{20, 50}, {59, 50}, {40, 20}, {40, 79}, {20, 20}}) {
        EXPECT_TRUE(painted(box, x, y)) << x << "," << y;
    }
    EXPECT_FALSE(painted(box, 40, 50));
    EXPECT_FALSE(painted(box, 95, 5));

    Image circle = renderOrFail({shape(AnnotationTool::ellipse, points, 0.02)}, solid(100, 100, white));
    for (auto [x, y] : {std::pair{20, 50}, {59, 50}, {40, 20}, {40, 79}}) {
        EXPECT_TRUE(painted(circle, x, y)) << x << "," << y;
    }
    EXPECT_FALSE(painted(circle, 40, 50));
    EXPECT_FALSE(painted(circle, 21, 21));  // corners lie outside the ellipse
}

TEST(AnnotationRenderer, OnePointShapes) {
    Image source = solid(100, 100, white);
    for (auto tool : {AnnotationTool::pen, AnnotationTool::arrow, AnnotationTool::highlight, AnnotationTool::blur}) {
        EXPECT_EQ(renderOrFail({shape(tool, {{0.5, 0.5}}, 0.1)}, source).pixels, source.pixels) << rawValue(tool);
    }
    // A box or circle strokes the zero rectangle: a round dot at the drawing
    // origin, the bottom-left corner.
    for (auto tool : {AnnotationTool::rectangle, AnnotationTool::ellipse}) {
        Image result = renderOrFail({shape(tool, {{0.5, 0.5}}, 0.1)}, source);
        EXPECT_TRUE(painted(result, 1, 98)) << rawValue(tool);
        EXPECT_FALSE(painted(result, 1, 1)) << rawValue(tool);
        EXPECT_FALSE(painted(result, 50, 50)) << rawValue(tool);
    }
}

TEST(AnnotationRenderer, HighlightMultiplies) {
    // Left half white, right half black; a blue band four widths (4 px) high.
    Image source = makeImage(100, 100, [](int x, int) { return x < 50 ? white : black; });
    Image result = renderOrFail({shape(AnnotationTool::highlight, {{0.2, 0.5}, {0.9, 0.5}}, 0.01, "#0000FF")}, source);
    std::uint32_t onWhite = result.at(30, 50);
    EXPECT_NEAR(red(onWhite), 0.62 * 255, 2);
    EXPECT_NEAR(green(onWhite), 0.62 * 255, 2);
    EXPECT_EQ(blue(onWhite), 255);
    EXPECT_EQ(result.at(30, 48), onWhite);  // 4 pixels high: rows 48 to 51
    EXPECT_EQ(result.at(30, 51), onWhite);
    EXPECT_EQ(result.at(30, 47), white);
    EXPECT_EQ(result.at(70, 50), black);  // black stays black
    EXPECT_EQ(result.at(18, 50), white);  // butt cap: nothing before the start
}

TEST(AnnotationRenderer, UnknownColourDrawsInPaletteRed) {
    Image result = renderOrFail({shape(AnnotationTool::pen, {{0, 0.5}, {1, 0.5}}, 0.1, "not a colour")},
                                solid(50, 50, white));
    EXPECT_EQ(result.at(25, 25), rgb(0xFF, 0x3B, 0x30));
}

// --- blur ------------------------------------------------------------------

TEST(AnnotationRenderer, BlurMakesHardBlocksOfAtLeastFourPixels) {
    // Region 30×300 at (30, 50): blocks of max(30/12, 4) = 4, so 7×75 small
    // pixels stretched back: 75 rows of exactly 4, 7 columns of 4 or 5.
    Image source = gradient(120, 400);
    Image result = renderOrFail({shape(AnnotationTool::blur, {{0.25, 0.125}, {0.5, 0.875}})}, source);

    std::vector<int> columns = runs(result, 100, 30, 60, true);
    ASSERT_EQ(columns.size(), 7u);
    for (int length : columns) EXPECT_TRUE(length == 4 || length == 5) << length;
    std::vector<int> rows = runs(result, 40, 50, 350, false);
    ASSERT_EQ(rows.size(), 75u);
    for (int length : rows) EXPECT_EQ(length, 4);

    // Each block is one colour: every row of the region repeats the block
    // grid found above, and every pixel equals its block's top-left one.
    std::vector<int> blockLeft;
    for (int x = 30, i = 0; i < 7; x += columns[i++]) blockLeft.push_back(x);
    for (int y = 50; y < 350; ++y)
        for (int x = 30; x < 60; ++x) {
            int bx = *std::prev(std::upper_bound(blockLeft.begin(), blockLeft.end(), x));
            int by = 50 + (y - 50) / 4 * 4;
            ASSERT_EQ(result.at(x, y), result.at(bx, by)) << x << "," << y;
        }

    // Outside the region nothing moved.
    for (int y = 0; y < 400; ++y)
        for (int x = 0; x < 120; ++x) {
            if (x >= 30 && x < 60 && y >= 50 && y < 350) continue;
            ASSERT_EQ(result.at(x, y), source.at(x, y)) << x << "," << y;
        }
}

TEST(AnnotationRenderer, BlurAveragesItsBlock) {
    // Stripes one pixel wide average to the grey between them.
    Image stripes = makeImage(48, 48, [](int x, int) { return x % 2 ? white : black; });
    Image result = renderOrFail({shape(AnnotationTool::blur, {{0, 0}, {1, 1}})}, stripes);
    EXPECT_NEAR(red(result.at(10, 10)), 128, 8);
    EXPECT_NEAR(red(result.at(47, 47)), 128, 8);  // the edge blocks too
}

TEST(AnnotationRenderer, OverlappingBlursAreEachBuiltFromTheOriginal) {
    Image source = gradient(200, 200);
    auto first = shape(AnnotationTool::blur, {{0.1, 0.1}, {0.6, 0.6}});
    auto second = shape(AnnotationTool::blur, {{0.4, 0.4}, {0.9, 0.9}});
    Image both = renderOrFail({first, second}, source);
    Image secondAlone = renderOrFail({second}, source);
    Image firstAlone = renderOrFail({first}, source);
    for (int y = 0; y < 200; ++y)
        for (int x = 0; x < 200; ++x) {
            bool inSecond = x >= 80 && x < 180 && y >= 80 && y < 180;
            ASSERT_EQ(both.at(x, y), inSecond ? secondAlone.at(x, y) : firstAlone.at(x, y)) << x << "," << y;
        }
}

TEST(AnnotationRenderer, BlurListedAfterAMarkLiesUnderIt) {
    Image source = gradient(200, 200);
    auto arrow = shape(AnnotationTool::arrow, {{0.2, 0.5}, {0.8, 0.5}}, 0.03, "#34C759");
    auto blur = shape(AnnotationTool::blur, {{0.1, 0.3}, {0.9, 0.7}});
    Image arrowFirst = renderOrFail({arrow, blur}, source);
    EXPECT_EQ(arrowFirst.pixels, renderOrFail({blur, arrow}, source).pixels);
    EXPECT_EQ(arrowFirst.at(100, 100), rgb(0x34, 0xC7, 0x59));
    EXPECT_NE(arrowFirst.pixels, renderOrFail({blur}, source).pixels);
}

TEST(AnnotationRenderer, BlursThatCannotBeBuiltChangeNothing) {
    Image source = gradient(100, 100);
    std::vector<std::vector<AnnotationPoint>> regions{
        {{1.2, 0.2}, {1.5, 0.8}},      // beside the image
        {{-0.5, -0.5}, {-0.1, 0.5}},   // before it
        {{0.5, 0.1}, {0.505, 0.9}},    // 1 pixel wide once grown
        {{0.1, 0.5}, {0.9, 0.5}},      // no height
        {{0.1, nan}, {0.9, 0.5}},
        {{0.1, 0.1}, {inf, 0.5}},
        {},
    };
    for (const auto& points : regions) {
        EXPECT_EQ(renderOrFail({shape(AnnotationTool::blur, points)}, source).pixels, source.pixels)
            << (points.empty() ? -1 : points.front().x);
    }
}

// --- bad input --------------------------------------------------------------

TEST(AnnotationRenderer, SurvivesBadGeometry) {
    Image source = gradient(64, 48);
    struct Case {
        const char* name;
        AnnotationShape shape;
        bool unchanged;
    } cases[] = {
        {"arrow to infinity", shape(AnnotationTool::arrow, {{0.5, 0.5}, {inf, 0.5}}), true},
        {"rectangle with NaN", shape(AnnotationTool::rectangle, {{nan, 0.5}, {0.2, 0.2}}), true},
        {"ellipse with -inf", shape(AnnotationTool::ellipse, {{0.1, 0.1}, {0.5, -inf}}), true},
        {"pen of NaN", shape(AnnotationTool::pen, {{nan, nan}, {nan, 0}}), true},
        {"highlight of NaN", shape(AnnotationTool::highlight, {{nan, 0.1}, {0.5, nan}}), true},
        {"pen skipping a NaN", shape(AnnotationTool::pen, {{0.1, 0.5}, {nan, 0.5}, {0.9, 0.5}}), false},
        {"arrow far away", shape(AnnotationTool::arrow, {{-1e300, 1e300}, {0.5, 0.5}}), false},
        {"arrow overflowing to infinity", shape(AnnotationTool::arrow, {{0.5, 0.5}, {1e308, 1e308}}), false},
        {"huge ellipse", shape(AnnotationTool::ellipse, {{-1e9, -1e9}, {1e9, 1e9}}), true},
        {"huge width", shape(AnnotationTool::pen, {{0.5, 0.5}, {0.6, 0.5}}, 1e300), false},
        {"infinite width", shape(AnnotationTool::highlight, {{0.5, 0.5}, {0.6, 0.5}}, inf), false},
        {"huge arrow head", shape(AnnotationTool::arrow, {{0.5, 0.5}, {0.6, 0.5}}, 1e300), false},
        {"blur over everything", shape(AnnotationTool::blur, {{-1e300, -1e9}, {1e300, 1e9}}), false},
        {"same point arrow", shape(AnnotationTool::arrow, {{0.5, 0.5}, {0.5, 0.5}}), false},
        {"no points pen", shape(AnnotationTool::pen, {}), true},
        {"no points arrow", shape(AnnotationTool::arrow, {}), true},
    };
    for (const auto& c : cases) {
        Image result = renderOrFail({c.shape}, source);
        if (c.unchanged) {
            EXPECT_EQ(result.pixels, source.pixels) << c.name;
        } else {
            EXPECT_NE(result.pixels, source.pixels) << c.name;
        }
    }
    // A width beyond the image covers all of it.
    Image covered = renderOrFail({shape(AnnotationTool::pen, {{0.5, 0.5}, {0.6, 0.5}}, 1e300)}, source);
    EXPECT_EQ(covered.pixels, solid(64, 48, black).pixels);
}

// --- a sample for people ----------------------------------------------------

// MIREL_RENDER_SAMPLE=/tmp/sample.png writes one picture with every tool.
TEST(AnnotationRendererSample, WritesSampleWhenAsked) {
    const char* path = std::getenv("MIREL_RENDER_SAMPLE");
    if (!path || !*path) GTEST_SKIP() << "set MIREL_RENDER_SAMPLE to a .png path to write a sample";

    // A pretend window: grey title bar, then lines of dark "words" on white.
    Image screen = makeImage(800, 500, [](int x, int y) {
        if (y < 40) return rgb(0xE5, 0xE5, 0xEA);
        int line = (y - 70) / 28;
        bool inLine = y >= 70 && (y - 70) % 28 < 12 && x >= 60 && x < 360 + line * 97 % 350;
        bool inWord = (x - 60) % (40 + line * 13 % 30) < 30 + line * 13 % 30;
        return inLine && inWord ? rgb(0x3A, 0x3A, 0x3C) : white;
    });
    Annotation annotation{{
        shape(AnnotationTool::arrow, {{0.55, 0.95}, {0.4, 0.75}}, 0.005, "#FF3B30"),
        shape(AnnotationTool::rectangle, {{0.4, 0.15}, {0.75, 0.35}}, 0.005, "#0A84FF"),
        shape(AnnotationTool::ellipse, {{0.05, 0.12}, {0.3, 0.4}}, 0.0025, "#34C759"),
        shape(AnnotationTool::pen, {{0.5, 0.8}, {0.55, 0.7}, {0.6, 0.85}, {0.65, 0.72}, {0.7, 0.9}}, 0.009, "#AF52DE"),
        shape(AnnotationTool::highlight, {{0.07, 0.264}, {0.6, 0.264}}, 0.005, "#FFCC00"),
        shape(AnnotationTool::blur, {{0.06, 0.6}, {0.45, 0.85}}),
        shape(AnnotationTool::arrow, {{0.9, 0.1}, {0.9, 0.45}}, 0.005, "#1C1C1E"),  // points down
    }};
    auto rendered = AnnotationRenderer::render(annotation, screen);
    ASSERT_TRUE(rendered.has_value());
    auto png = ImageCodec::encodePNG(*rendered);
    ASSERT_TRUE(png.has_value());
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(png->data()), static_cast<std::streamsize>(png->size()));
    ASSERT_TRUE(out.good()) << path;
}

}  // namespace
}  // namespace mirel
