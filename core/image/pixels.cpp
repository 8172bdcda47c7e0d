// Pixel helpers shared by the decoders.
#include <new>

#include "core/image/codecs.h"

namespace mirel::ImageCodec::detail {

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

namespace {

// c × a / 255, rounded, exact for all 8-bit inputs.
inline std::uint32_t multiplyAlpha(std::uint32_t c, std::uint32_t a) {
    const std::uint32_t t = c * a + 128;
    return (t + (t >> 8)) >> 8;
}

}  // namespace

void premultiply(Image& image) {
    bool opaque = true;
    for (std::uint32_t& p : image.pixels) {
        const std::uint32_t a = p >> 24;
        if (a == 255) continue;
        opaque = false;
        if (a == 0) {
            p = 0;
            continue;
        }
        const std::uint32_t r = multiplyAlpha((p >> 16) & 0xff, a);
        const std::uint32_t g = multiplyAlpha((p >> 8) & 0xff, a);
        const std::uint32_t b = multiplyAlpha(p & 0xff, a);
        p = (a << 24) | (r << 16) | (g << 8) | b;
    }
    image.opaque = opaque;
}

void detectOpaque(Image& image) {
    std::uint32_t all = 0xff000000;
    for (const std::uint32_t p : image.pixels) all &= p;
    image.opaque = (all & 0xff000000) == 0xff000000;
}

}  // namespace mirel::ImageCodec::detail
