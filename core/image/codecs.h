#pragma once
// The per-format decoders behind ImageCodec::decode, and what they share.
// Internal to core/image.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>

#include "core/image/banded_png.h"
#include "core/image/image.h"

namespace mirel::ImageCodec::detail {

// The one guard against decompression bombs: every decoder calls it with the
// header's size before it allocates pixel memory.
bool sizeAllowed(std::int64_t width, std::int64_t height);

// An image of the given size with zeroed pixels, or nothing if the memory
// cannot be had.
std::optional<Image> allocate(int width, int height);

// The memory one scaled decode may hold at once, besides the file's bytes:
// the source when kept whole, the decoder's own buffers and the result. A
// larger source is streamed through a window of rows; where a codec cannot
// stream (a progressive JPEG's coefficients, a lossless WebP), a source that
// would need more is refused.
inline constexpr std::size_t decodeBudget = std::size_t{112} << 20;

// The size a decoder is to give: the image's own when maxEdge is below 1 or
// the image fits, else the size fitted to maxEdge.
std::pair<int, int> targetSize(int width, int height, int maxEdge);

// Each decoder gives the first image of the file at targetSize of its upright
// size, or nothing; the PNG and JPEG decoders encode along when asked.
std::optional<std::pair<int, int>> pngDimensions(const std::uint8_t* bytes, std::size_t size);
std::optional<Image> decodePNG(const std::uint8_t* bytes, std::size_t size, int maxEdge,
                               EncodeAlong* along = nullptr);

std::optional<std::pair<int, int>> jpegDimensions(const std::uint8_t* bytes, std::size_t size);
std::optional<Image> decodeJPEG(const std::uint8_t* bytes, std::size_t size, int maxEdge,
                                EncodeAlong* along = nullptr);

std::optional<std::pair<int, int>> webpDimensions(const std::uint8_t* bytes, std::size_t size);
std::optional<Image> decodeWebP(const std::uint8_t* bytes, std::size_t size, int maxEdge);

}  // namespace mirel::ImageCodec::detail
