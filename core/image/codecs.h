#pragma once
// The per-format decoders behind ImageCodec::decode, and the pixel helpers
// they share. Internal to core/image.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>

#include "core/image/image.h"

namespace mirel::ImageCodec::detail {

// The one guard against decompression bombs: every decoder calls it with the
// header's size before it allocates pixel memory.
bool sizeAllowed(std::int64_t width, std::int64_t height);

// An image of the given size with uninitialised-looking (zeroed) pixels, or
// nothing if the memory cannot be had.
std::optional<Image> allocate(int width, int height);

// Turns straight-alpha pixels (native ARGB words) into premultiplied ones in
// place and sets `opaque` from what it saw.
void premultiply(Image& image);
// Sets `opaque` for pixels that are already premultiplied.
void detectOpaque(Image& image);

std::optional<std::pair<int, int>> pngDimensions(const std::uint8_t* bytes, std::size_t size);
std::optional<Image> decodePNG(const std::uint8_t* bytes, std::size_t size);

std::optional<std::pair<int, int>> jpegDimensions(const std::uint8_t* bytes, std::size_t size);
std::optional<Image> decodeJPEG(const std::uint8_t* bytes, std::size_t size);

std::optional<std::pair<int, int>> webpDimensions(const std::uint8_t* bytes, std::size_t size);
std::optional<Image> decodeWebP(const std::uint8_t* bytes, std::size_t size);

}  // namespace mirel::ImageCodec::detail
