#include "core/annotation/annotation.h"
#include "core/platform/json.h"

#include <gtest/gtest.h>

#include <cmath>

namespace mirel {
namespace {

const char* kArrow =
    R"({"shapes":[{"id":"a1","tool":"arrow","colorHex":"#FF3B30","lineWidth":0.005,)"
    R"("points":[{"x":0.1,"y":0.2},{"x":0.4,"y":0.2}]}]})";

TEST(AnnotationToolTest, TableOfTools) {
    const std::vector<AnnotationTool> all = {AnnotationTool::pen,     AnnotationTool::arrow,
                                             AnnotationTool::rectangle, AnnotationTool::ellipse,
                                             AnnotationTool::highlight, AnnotationTool::blur};
    for (const auto tool : all) {
        EXPECT_EQ(annotationToolFrom(rawValue(tool)), tool);
        EXPECT_EQ(isDragShape(tool), tool != AnnotationTool::pen);
    }
    EXPECT_EQ(displayName(AnnotationTool::pen), "Draw");
    EXPECT_EQ(displayName(AnnotationTool::rectangle), "Box");
    EXPECT_EQ(displayName(AnnotationTool::ellipse), "Circle");
    EXPECT_EQ(symbolName(AnnotationTool::blur), "eye.slash");
    EXPECT_EQ(annotationToolFrom("Arrow"), std::nullopt);
}

TEST(AnnotationTest, DecodesTheStoredForm) {
    const Annotation a = Annotation::decode(std::string(kArrow));
    ASSERT_EQ(a.shapes.size(), 1u);
    const auto& s = a.shapes[0];
    EXPECT_EQ(s.id, "a1");
    EXPECT_EQ(s.tool, AnnotationTool::arrow);
    EXPECT_EQ(s.colorHex, "#FF3B30");
    EXPECT_DOUBLE_EQ(s.lineWidth, 0.005);
    ASSERT_EQ(s.points.size(), 2u);
    EXPECT_EQ(s.points[1], (AnnotationPoint{0.4, 0.2}));
    // Integers are numbers too, and unknown keys are ignored.
    const Annotation b = Annotation::decode(std::string(
        R"({"v":2,"shapes":[{"id":"p","tool":"pen","colorHex":"#000","lineWidth":1,"points":[]}]})"));
    ASSERT_EQ(b.shapes.size(), 1u);
    EXPECT_EQ(b.shapes[0].lineWidth, 1.0);
}

TEST(AnnotationTest, RoundTripsThroughEncoded) {
    Annotation a;
    a.shapes.push_back({"s1", AnnotationTool::pen, "#34C759", 0.0025,
                        {{0.0, 0.0}, {0.125, 1.0 / 3.0}, {1.0, 1.0}}});
    a.shapes.push_back({"s2", AnnotationTool::blur, "#1C1C1E", 0.009, {{0.5, 0.5}, {0.7, 0.9}}});
    const auto json = a.encoded();
    ASSERT_TRUE(json);
    EXPECT_EQ(Annotation::decode(json), a);
    EXPECT_EQ(Annotation{}.encoded(), std::optional<std::string>(R"({"shapes":[]})"));
}

TEST(AnnotationTest, NonFiniteNumbersAreNotEncoded) {
    Annotation a;
    a.shapes.push_back({"s", AnnotationTool::arrow, "#FFF", NAN, {}});
    EXPECT_EQ(a.encoded(), std::nullopt);
}

TEST(AnnotationTest, AnythingButTheFormDecodesEmpty) {
    const std::vector<std::string> bad = {
        "",
        "not json",
        "[]",
        "{}",
        R"({"shapes":{}})",
        R"({"shapes":[1]})",
        R"({"shapes":[{"tool":"arrow","colorHex":"#F00","lineWidth":0.1,"points":[]}]})",
        R"({"shapes":[{"id":"a","colorHex":"#F00","lineWidth":0.1,"points":[]}]})",
        R"({"shapes":[{"id":"a","tool":"arrow","lineWidth":0.1,"points":[]}]})",
        R"({"shapes":[{"id":"a","tool":"arrow","colorHex":"#F00","points":[]}]})",
        R"({"shapes":[{"id":"a","tool":"arrow","colorHex":"#F00","lineWidth":0.1}]})",
        R"({"shapes":[{"id":"a","tool":"laser","colorHex":"#F00","lineWidth":0.1,"points":[]}]})",
        R"({"shapes":[{"id":"a","tool":"arrow","colorHex":"#F00","lineWidth":"0.1","points":[]}]})",
        R"({"shapes":[{"id":"a","tool":"arrow","colorHex":"#F00","lineWidth":0.1,"points":[{"x":1}]}]})",
        R"({"shapes":[{"id":7,"tool":"arrow","colorHex":"#F00","lineWidth":0.1,"points":[]}]})",
        // One bad shape spoils the whole annotation.
        std::string(kArrow).replace(std::string(kArrow).size() - 2, 0,
                                    R"(,{"id":"b","tool":"pen"})"),
    };
    for (const auto& text : bad) EXPECT_TRUE(Annotation::decode(text).isEmpty()) << text;
    EXPECT_TRUE(Annotation::decode(std::nullopt).isEmpty());
}

}  // namespace
}  // namespace mirel
