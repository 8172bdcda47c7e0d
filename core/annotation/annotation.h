#pragma once
// Marks a user draws on a screenshot, kept as JSON in annotation_json. All
// geometry is relative: points and widths are fractions of the image.
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace mirel {

enum class AnnotationTool { pen, arrow, rectangle, ellipse, highlight, blur };

std::string_view rawValue(AnnotationTool tool);
std::string_view displayName(AnnotationTool tool);
std::string_view symbolName(AnnotationTool tool);
bool isDragShape(AnnotationTool tool);
std::optional<AnnotationTool> annotationToolFrom(std::string_view raw);

struct AnnotationPoint {
    double x = 0;  // fraction of the width, 0 at the left
    double y = 0;  // fraction of the height, 0 at the top
    bool operator==(const AnnotationPoint&) const = default;
};

struct AnnotationShape {
    std::string id;
    AnnotationTool tool = AnnotationTool::pen;
    std::string colorHex;
    double lineWidth = 0;  // fraction of the image's longer side
    std::vector<AnnotationPoint> points;
    bool operator==(const AnnotationShape&) const = default;
};

struct Annotation {
    std::vector<AnnotationShape> shapes;  // drawing order, later on top

    bool isEmpty() const { return shapes.empty(); }
    // The JSON text; absent if it cannot be written.
    std::optional<std::string> encoded() const;
    // An empty annotation for absent text or anything that is not the form.
    static Annotation decode(const std::optional<std::string>& json);
    bool operator==(const Annotation&) const = default;
};

namespace AnnotationPalette {
inline const std::vector<std::string> colors = {"#FF3B30", "#FFCC00", "#34C759", "#0A84FF",
                                                "#AF52DE", "#FFFFFF", "#1C1C1E"};
inline const std::vector<std::pair<std::string, double>> widths = {
    {"S", 0.0025}, {"M", 0.005}, {"L", 0.009}};
}  // namespace AnnotationPalette

}  // namespace mirel
