#pragma once
// Burns an Annotation into a copy of a screenshot with Cairo.
#include <optional>
#include <string_view>

#include "core/annotation/annotation.h"
#include "core/image/image.h"

namespace mirel {

// Components in 0...1, sRGB.
struct RGBColor {
    double red = 0;
    double green = 0;
    double blue = 0;
    double alpha = 1;
    bool operator==(const RGBColor&) const = default;
};

// "#RRGGBB" and the like; never fails. Blanks round the text and one leading
// "#" are dropped, the rest is read as an unsigned 32-bit base-16 number whose
// low 24 bits are the colour (so "80FF0000" is opaque red). Anything that does
// not read falls back to the palette's red, 0xFF3B30.
RGBColor colorFromHex(std::string_view text);

namespace AnnotationRenderer {

// A new image with every shape drawn on top of `onto`: blurred regions first,
// then the other shapes in order. Absent for an empty annotation, or when no
// drawing surface can be made for the image (zero or inconsistent size, wider
// or taller than Cairo's 32767 pixels).
std::optional<Image> render(const Annotation& annotation, const Image& onto);

}  // namespace AnnotationRenderer

}  // namespace mirel
