// The annotation JSON kept in annotation_json: read exactly in its form, or
// not at all.
#include "core/annotation/annotation.h"

#include <gtest/gtest.h>

#include <cmath>

namespace mirel {
namespace {

const std::string kArrow = R"({"shapes":[{"id":"a1","tool":"arrow","colorHex":"#FF3B30","lineWidth":0.005,)"
                           R"("points":[{"x":0.1,"y":0.2},{"x":0.4,"y":1}]}],"v":2})";

TEST(AnnotationTest, DecodesItsFormAndWritesItBack) {
    const Annotation a = Annotation::decode(kArrow);
    EXPECT_EQ(a, (Annotation{{{"a1", AnnotationTool::arrow, "#FF3B30", 0.005, {{0.1, 0.2}, {0.4, 1.0}}}}}));
    EXPECT_EQ(Annotation::decode(a.encoded()), a);
    EXPECT_EQ(Annotation{}.encoded(), R"({"shapes":[]})");
    Annotation broken = a;
    broken.shapes[0].points[1].y = NAN;
    EXPECT_EQ(broken.encoded(), std::nullopt);
    std::string tools;
    for (auto tool : {AnnotationTool::pen, AnnotationTool::arrow, AnnotationTool::rectangle, AnnotationTool::ellipse,
                      AnnotationTool::highlight, AnnotationTool::blur}) {
        EXPECT_EQ(annotationToolFrom(rawValue(tool)), tool);
        tools += std::string(rawValue(tool)) + "/" + std::string(displayName(tool)) + "/" + std::string(symbolName(tool)) +
                 (isDragShape(tool) ? "/drag " : " ");
    }
    EXPECT_EQ(tools, "pen/Draw/pencil.tip arrow/Arrow/arrow.up.right/drag rectangle/Box/rectangle/drag "
                     "ellipse/Circle/circle/drag highlight/Highlight/highlighter/drag blur/Blur/eye.slash/drag ");
}

TEST(AnnotationTest, AnythingButTheFormDecodesEmpty) {
    const std::string shape = R"({"id":"a","tool":"arrow","colorHex":"#F00","lineWidth":0.1,"points":[]})";
    const auto without = [&](const std::string& part, const std::string& instead = "") {
        std::string s = shape;
        return R"({"shapes":[)" + s.replace(s.find(part), part.size(), instead) + "]}";
    };
    for (const std::string& text : {std::string("not json"), std::string("[]"), std::string(R"({"shapes":{}})"),
                                    std::string(R"({"shapes":[1]})"), without(R"("id":"a",)"), without(R"("id":"a")", R"("id":7)"),
                                    without(R"("tool":"arrow",)"), without("arrow", "laser"), without(R"("colorHex":"#F00",)"),
                                    without("0.1", "\"0.1\""), without(R"(,"points":[])"), without("[]", R"([{"x":1}])"),
                                    R"({"shapes":[)" + shape + R"(,{"id":"b","tool":"pen"}]})"})
        EXPECT_TRUE(Annotation::decode(text).isEmpty()) << text;
    EXPECT_TRUE(Annotation::decode(std::nullopt).isEmpty());
    EXPECT_FALSE(Annotation::decode(R"({"shapes":[)" + shape + "]}").isEmpty());
}

}  // namespace
}  // namespace mirel
