#include "core/image/orientation.h"

#include <utility>

namespace mirel::ImageCodec::detail {

Orientation exifOrientation(const std::uint8_t* tiff, std::size_t size) {
    // "II*\0" little-endian or "MM\0*" big-endian, then the offset of the first directory.
    if (size < 8) return 1;
    const bool little = tiff[0] == 'I' && tiff[1] == 'I';
    if (!little && !(tiff[0] == 'M' && tiff[1] == 'M')) return 1;
    auto u16 = [&](std::size_t at) {
        return little ? static_cast<std::uint32_t>(tiff[at] | (tiff[at + 1] << 8))
                      : static_cast<std::uint32_t>((tiff[at] << 8) | tiff[at + 1]);
    };
    auto u32 = [&](std::size_t at) {
        return little ? (u16(at) | (u16(at + 2) << 16)) : ((u16(at) << 16) | u16(at + 2));
    };
    if (u16(2) != 42) return 1;
    const std::size_t directory = u32(4);
    if (directory > size - 2) return 1;
    const std::size_t entries = u16(directory);
    for (std::size_t i = 0; i < entries; ++i) {
        const std::size_t entry = directory + 2 + i * 12;
        if (entry > size - 12) return 1;
        // Tag 0x0112, type SHORT, one value, kept in the entry itself.
        if (u16(entry) == 0x0112) {
            const std::uint32_t value = u16(entry + 8);
            return u16(entry + 2) == 3 && value >= 1 && value <= 8 ? static_cast<Orientation>(value) : 1;
        }
    }
    return 1;
}

Image upright(Image image, Orientation orientation) {
    if (orientation < 2 || orientation > 8) return image;
    const int w = image.width, h = image.height;
    Image out;
    out.opaque = image.opaque;
    out.width = swapsAxes(orientation) ? h : w;
    out.height = swapsAxes(orientation) ? w : h;
    out.pixels.resize(image.pixels.size());
    // For each place of the upright image, the place it comes from.
    auto from = [&](int x, int y) -> std::pair<int, int> {
        switch (orientation) {
            case 2: return {w - 1 - x, y};
            case 3: return {w - 1 - x, h - 1 - y};
            case 4: return {x, h - 1 - y};
            case 5: return {y, x};
            case 6: return {y, h - 1 - x};
            case 7: return {w - 1 - y, h - 1 - x};
            default: return {w - 1 - y, x};
        }
    };
    for (int y = 0; y < out.height; ++y) {
        std::uint32_t* row = out.pixels.data() + static_cast<std::size_t>(y) * out.width;
        for (int x = 0; x < out.width; ++x) {
            const auto [sx, sy] = from(x, y);
            row[x] = image.at(sx, sy);
        }
    }
    return out;
}

}  // namespace mirel::ImageCodec::detail
