// Burning marks into a screenshot: where each tool draws, in which colour,
// how blur pixelates, and that no geometry breaks the renderer.
#include "core/annotation/annotation_renderer.h"
#include "tests/support/image_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

namespace mirel {
namespace {

using test::RGBA;
constexpr double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();

AnnotationShape shape(AnnotationTool tool, std::vector<AnnotationPoint> points, double width = 0.01,
                      const char* color = "#0A84FF") {
    return {"s", tool, color, width, std::move(points)};
}
TEST(ColorFromHex, ReadsBase16AndFallsBackToPaletteRed) {
    const std::pair<const char*, std::uint32_t> rows[] = {
        {"#ff3b30", 0xFF3B30}, {" \t#0A84FF ", 0x0A84FF}, {"80FF0000", 0xFF0000}, {"+34c759", 0x34C759}, {"-0", 0},
        {"000000000FFFFFF", 0xFFFFFF}, {"zz", 0xFF3B30}, {"#", 0xFF3B30}, {"##ff0000", 0xFF3B30}, {"-1", 0xFF3B30},
        {"100000000", 0xFF3B30}, {"0xff0000", 0xFF3B30}, {"ff 00 00", 0xFF3B30},
    };
    for (const auto& [text, hex] : rows)
        EXPECT_EQ(colorFromHex(text), (RGBColor{(hex >> 16) / 255.0, (hex >> 8 & 0xFF) / 255.0, (hex & 0xFF) / 255.0, 1}))
            << text;
}

// Probes lie where a stroke covers whole pixels, so colours are exact.
TEST(AnnotationRenderer, EachToolDrawsWhereAndHowItShould) {
    const std::vector<AnnotationPoint> span = {{0.6, 0.8}, {0.99, 0.01}, {0.2, 0.2}};  // the middle point plays no part
    const struct {
        AnnotationShape shape;
        int width, height;
        std::vector<std::tuple<int, int, std::uint32_t>> probes;  // x, y, colour
    } rows[] = {
        {shape(AnnotationTool::pen, {{0.1, 0.25}, {0.9, 0.25}}), 100, 200,
         {{50, 49, 0x0A84FF}, {50, 50, 0x0A84FF}, {50, 47, 0xFFFFFF}, {5, 50, 0xFFFFFF}, {50, 150, 0xFFFFFF}}},
        {shape(AnnotationTool::pen, {{0.1, 0.505}, {0.9, 0.505}}, nan), 100, 100,
         {{50, 50, 0x0A84FF}, {50, 49, 0xFFFFFF}, {50, 51, 0xFFFFFF}}},
        {shape(AnnotationTool::pen, {{0.1, 0.505}, {nan, 0.5}, {0.9, 0.505}}, -3, "not a colour"), 100, 100,
         {{50, 50, 0xFF3B30}, {50, 49, 0xFFFFFF}}},
        {shape(AnnotationTool::arrow, {{0.5, 0.2}, {0.5, 0.8}}, 0.02), 200, 200,
         {{100, 100, 0x0A84FF}, {100, 150, 0x0A84FF}, {100, 164, 0xFFFFFF}, {106, 150, 0xFFFFFF}, {104, 52, 0xFFFFFF}}},
        {shape(AnnotationTool::rectangle, span, 0.02), 100, 100,
         {{20, 50, 0x0A84FF}, {59, 50, 0x0A84FF}, {40, 20, 0x0A84FF}, {40, 79, 0x0A84FF}, {40, 50, 0xFFFFFF}, {95, 5, 0}}},
        {shape(AnnotationTool::ellipse, span, 0.02), 100, 100,
         {{20, 50, 0x0A84FF}, {59, 50, 0x0A84FF}, {40, 20, 0x0A84FF}, {21, 21, 0xFFFFFF}, {40, 50, 0xFFFFFF}}},
        {shape(AnnotationTool::rectangle, {{0.5, 0.5}}, 0.1), 100, 100, {{1, 98, 0x0A84FF}, {1, 1, 0xFFFFFF}, {50, 50, 0xFFFFFF}}},
        {shape(AnnotationTool::highlight, {{0.2, 0.5}, {0.9, 0.5}}, 0.01, "#0000FF"), 100, 100,
         {{30, 48, 0x9E9EFF}, {30, 51, 0x9E9EFF}, {30, 47, 0xFFFFFF}, {18, 50, 0xFFFFFF}, {70, 50, 0}}},
    };
    for (const auto& row : rows) {
        Image source = test::solidImage(row.width, row.height, {255, 255, 255});
        for (int y = 0; y < row.height; ++y)
            for (int x = row.width * 7 / 10; x < row.width; ++x) source.pixels[y * row.width + x] = 0xFF000000;  // a black side
        const auto result = AnnotationRenderer::render(Annotation{{row.shape}}, source);
        ASSERT_TRUE(result && result->opaque) << rawValue(row.shape.tool);
        for (const auto& [x, y, hex] : row.probes)
            EXPECT_TRUE(test::near(test::colorAt(*result, x, y), {int(hex >> 16), int(hex >> 8 & 0xFF), int(hex & 0xFF)}, 2))
                << rawValue(row.shape.tool) << " at " << x << "," << y;
    }
}

TEST(AnnotationRenderer, BlurPixelatesItsRegionOnlyAndLiesUnderTheMarks) {
    // 30×300 at (30, 50): blocks of max(30 / 12, 4) = 4, so 7 × 75 of them.
    const Image source = test::patternImage(120, 400);
    const Image result = *AnnotationRenderer::render({{shape(AnnotationTool::blur, {{0.25, 0.125}, {0.5, 0.875}})}}, source);
    std::vector<int> left, top;  // where blocks begin along the region's first row and column
    for (int x = 30; x < 60; ++x)
        if (x == 30 || result.at(x, 50) != result.at(x - 1, 50)) left.push_back(x);
    for (int y = 50; y < 350; ++y)
        if (y == 50 || result.at(30, y) != result.at(30, y - 1)) top.push_back(y);
    EXPECT_EQ(left.size() * 1000 + top.size(), 7075u);
    for (int y = 0; y < 400; ++y)
        for (int x = 0; x < 120; ++x) {
            const bool inside = x >= 30 && x < 60 && y >= 50 && y < 350;
            ASSERT_EQ(result.at(x, y), inside ? result.at(*std::prev(std::upper_bound(left.begin(), left.end(), x)),
                                                          *std::prev(std::upper_bound(top.begin(), top.end(), y)))
                                              : source.at(x, y))
                << x << "," << y;
        }
    Image stripes = test::solidImage(48, 48, {0, 0, 0});
    for (std::size_t i = 0; i < stripes.pixels.size(); i += 2) stripes.pixels[i] = 0xFFFFFFFF;
    const auto averaged = AnnotationRenderer::render({{shape(AnnotationTool::blur, {{0, 0}, {1, 1}})}}, stripes);
    EXPECT_TRUE(test::near(test::colorAt(*averaged, 47, 47), {128, 128, 128}, 8));

    const auto arrow = shape(AnnotationTool::arrow, {{0.2, 0.5}, {0.8, 0.5}}, 0.03, "#34C759");
    const auto blur = shape(AnnotationTool::blur, {{0.1, 0.3}, {0.9, 0.7}}), other = shape(AnnotationTool::blur, {{0.4, 0.4}, {0.9, 0.9}});
    const Image square = test::patternImage(200, 200);
    const auto marked = AnnotationRenderer::render({{arrow, blur}}, square);
    EXPECT_EQ(marked->pixels, AnnotationRenderer::render({{blur, arrow}}, square)->pixels);
    EXPECT_EQ(marked->at(100, 100), 0xFF34C759);
    // A highlight's multiplying ink stays with the highlight: a mark after it is drawn plainly.
    const auto highlight = shape(AnnotationTool::highlight, {{0.1, 0.1}, {0.9, 0.1}});
    EXPECT_EQ(AnnotationRenderer::render({{highlight, arrow}}, square)->at(100, 100), 0xFF34C759);
    // Overlapping blurs are each built from the original.
    EXPECT_EQ(AnnotationRenderer::render({{blur, other}}, square)->at(170, 170),
              AnnotationRenderer::render({{other}}, square)->at(170, 170));
}

TEST(AnnotationRenderer, NoGeometryBreaksIt) {
    const Image source = test::patternImage(64, 48);
    const std::pair<AnnotationShape, bool> rows[] = {  // the shape, and whether it changes the picture
        {shape(AnnotationTool::pen, {{0.5, 0.5}}), false}, {shape(AnnotationTool::arrow, {}), false},
        {shape(AnnotationTool::highlight, {{0.5, 0.5}}), false}, {shape(AnnotationTool::blur, {{0.5, 0.5}}), false},
        {shape(AnnotationTool::arrow, {{0.5, 0.5}, {inf, 0.5}}), false}, {shape(AnnotationTool::rectangle, {{nan, 0.5}, {0.2, 0.2}}), false},
        {shape(AnnotationTool::ellipse, {{0.1, 0.1}, {0.5, -inf}}), false}, {shape(AnnotationTool::highlight, {{nan, 0.1}, {0.5, nan}}), false},
        {shape(AnnotationTool::blur, {{1.2, 0.2}, {1.5, 0.8}}), false}, {shape(AnnotationTool::blur, {{0.5, 0.1}, {0.51, 0.9}}), false},
        {shape(AnnotationTool::blur, {{0.1, nan}, {0.9, 0.5}}), false}, {shape(AnnotationTool::ellipse, {{-1e9, -1e9}, {1e9, 1e9}}), false},
        {shape(AnnotationTool::arrow, {{-1e300, 1e300}, {0.5, 0.5}}), true}, {shape(AnnotationTool::arrow, {{0.5, 0.5}, {0.5, 0.5}}), true},
        {shape(AnnotationTool::highlight, {{0.5, 0.5}, {0.6, 0.5}}, inf), true}, {shape(AnnotationTool::blur, {{-1e300, -1e9}, {1e300, 1e9}}), true},
    };
    for (const auto& [mark, changes] : rows) {
        const auto result = AnnotationRenderer::render({{mark}}, source);
        ASSERT_TRUE(result);
        EXPECT_EQ(result->pixels != source.pixels, changes) << rawValue(mark.tool) << " " << mark.points.size();
    }
    // A width beyond the picture covers all of it.
    EXPECT_EQ(AnnotationRenderer::render({{shape(AnnotationTool::pen, {{0.5, 0.5}, {0.6, 0.5}}, 1e300, "#000")}}, source)->pixels,
              test::solidImage(64, 48, {0, 0, 0}).pixels);
    Image mismatched = source;
    mismatched.pixels.pop_back();
    for (const Image& image : {Image{}, mismatched, test::solidImage(40000, 1, {})})
        EXPECT_FALSE(AnnotationRenderer::render({{shape(AnnotationTool::pen, {{0, 0}, {1, 1}})}}, image));
    EXPECT_FALSE(AnnotationRenderer::render(Annotation{}, source));
}

}  // namespace
}  // namespace mirel
