// Sizes: what a decoder may allocate, and what an image is scaled to.
#include <algorithm>
#include <cmath>
#include <new>

#include "core/image/codecs.h"

namespace mirel::ImageCodec {

std::optional<std::pair<int, int>> fitWithin(int width, int height, int maxEdge) {
    const int longest = std::max(width, height);
    if (maxEdge < 1 || maxEdge >= longest) return std::nullopt;
    const double scale = static_cast<double>(maxEdge) / longest;
    // std::lround rounds halves away from zero.
    return std::pair<int, int>{std::max(1, static_cast<int>(std::lround(scale * width))),
                               std::max(1, static_cast<int>(std::lround(scale * height)))};
}

namespace detail {

bool sizeAllowed(std::int64_t width, std::int64_t height) {
    return width >= 1 && height >= 1 && width <= maxDimension && height <= maxDimension &&
           width * height <= maxPixels;
}

std::optional<Image> allocate(int width, int height) {
    if (!sizeAllowed(width, height)) return std::nullopt;
    Image image;
    image.width = width;
    image.height = height;
    try {
        image.pixels.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
    return image;
}

std::pair<int, int> targetSize(int width, int height, int maxEdge) {
    return fitWithin(width, height, maxEdge).value_or(std::pair<int, int>{width, height});
}

}  // namespace detail

}  // namespace mirel::ImageCodec
