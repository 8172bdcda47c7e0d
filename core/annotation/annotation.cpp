#include "core/annotation/annotation.h"

#include "core/platform/json.h"

#include <array>
#include <cmath>

namespace mirel {

namespace {

struct ToolEntry {
    AnnotationTool tool;
    std::string_view raw;
    std::string_view display;
    std::string_view symbol;
};

constexpr std::array<ToolEntry, 6> kTools{{
    {AnnotationTool::pen, "pen", "Draw", "pencil.tip"},
    {AnnotationTool::arrow, "arrow", "Arrow", "arrow.up.right"},
    {AnnotationTool::rectangle, "rectangle", "Box", "rectangle"},
    {AnnotationTool::ellipse, "ellipse", "Circle", "circle"},
    {AnnotationTool::highlight, "highlight", "Highlight", "highlighter"},
    {AnnotationTool::blur, "blur", "Blur", "eye.slash"},
}};

const ToolEntry& entry(AnnotationTool tool) {
    for (const auto& e : kTools)
        if (e.tool == tool) return e;
    return kTools.front();
}

// Thrown inside decode() only, for any departure from the form.
struct NotTheForm {};

const Json& member(const Json& object, const char* key) {
    if (!object.is_object()) throw NotTheForm{};
    const auto it = object.find(key);
    if (it == object.end()) throw NotTheForm{};
    return *it;
}

double number(const Json& value) {
    if (!value.is_number()) throw NotTheForm{};
    return value.get<double>();
}

const std::string& text(const Json& value) {
    if (!value.is_string()) throw NotTheForm{};
    return value.get_ref<const std::string&>();
}

const Json& array(const Json& value) {
    if (!value.is_array()) throw NotTheForm{};
    return value;
}

}  // namespace

std::string_view rawValue(AnnotationTool tool) { return entry(tool).raw; }
std::string_view displayName(AnnotationTool tool) { return entry(tool).display; }
std::string_view symbolName(AnnotationTool tool) { return entry(tool).symbol; }
bool isDragShape(AnnotationTool tool) { return tool != AnnotationTool::pen; }

std::optional<AnnotationTool> annotationToolFrom(std::string_view raw) {
    for (const auto& e : kTools)
        if (e.raw == raw) return e.tool;
    return std::nullopt;
}

std::optional<std::string> Annotation::encoded() const {
    // NaN and infinities have no JSON form; refuse rather than write null.
    for (const auto& shape : shapes) {
        if (!std::isfinite(shape.lineWidth)) return std::nullopt;
        for (const auto& p : shape.points)
            if (!std::isfinite(p.x) || !std::isfinite(p.y)) return std::nullopt;
    }
    Json shapesJSON = Json::array();
    for (const auto& shape : shapes) {
        Json points = Json::array();
        for (const auto& p : shape.points) points.push_back({{"x", p.x}, {"y", p.y}});
        shapesJSON.push_back({{"id", shape.id},
                              {"tool", std::string(rawValue(shape.tool))},
                              {"colorHex", shape.colorHex},
                              {"lineWidth", shape.lineWidth},
                              {"points", std::move(points)}});
    }
    return writeJSON(Json{{"shapes", std::move(shapesJSON)}});
}

Annotation Annotation::decode(const std::optional<std::string>& json) {
    if (!json) return {};
    const auto document = parseJSON(*json);
    if (!document) return {};
    try {
        Annotation result;
        for (const auto& shapeJSON : array(member(*document, "shapes"))) {
            AnnotationShape shape;
            shape.id = text(member(shapeJSON, "id"));
            const auto tool = annotationToolFrom(text(member(shapeJSON, "tool")));
            if (!tool) return {};
            shape.tool = *tool;
            shape.colorHex = text(member(shapeJSON, "colorHex"));
            shape.lineWidth = number(member(shapeJSON, "lineWidth"));
            for (const auto& pointJSON : array(member(shapeJSON, "points"))) {
                shape.points.push_back(
                    {number(member(pointJSON, "x")), number(member(pointJSON, "y"))});
            }
            result.shapes.push_back(std::move(shape));
        }
        return result;
    } catch (const NotTheForm&) {
        return {};
    }
}

}  // namespace mirel
