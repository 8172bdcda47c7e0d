#pragma once
// Decoded images and the four abilities that replies and the annotation
// renderer share: decode any file the decoders know, resample with a
// high-quality filter, encode PNG, encode base64.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mirel {

// Premultiplied ARGB in native-endian 32-bit words, rows packed (stride =
// width), the layout Cairo and pixman call ARGB32 / a8r8g8b8.
struct Image {
    int width = 0;
    int height = 0;
    std::vector<std::uint32_t> pixels;
    bool opaque = true;  // every alpha is 255; lets the encoder write RGB

    std::uint32_t at(int x, int y) const { return pixels[static_cast<std::size_t>(y) * width + x]; }
};

namespace ImageCodec {

// Images above this many pixels are refused before any pixel memory is
// allocated, so a file that claims 100000×100000 cannot exhaust memory.
inline constexpr std::int64_t maxPixels = 100'000'000;
// No real picture is this long on one side; a header that says so is refused.
inline constexpr int maxDimension = 1'000'000;

enum class Format { png, jpeg, webp, unknown };
// By the file's first bytes; the extension plays no part.
Format sniff(const std::uint8_t* bytes, std::size_t size);

// Far above any screenshot, and well below what would strain memory before the
// header can even be looked at: the most a reader of image files takes in.
inline constexpr std::uint64_t maxFileBytes = std::uint64_t{512} << 20;

std::optional<Image> decode(const std::vector<std::uint8_t>& bytes);
std::optional<Image> decode(const std::uint8_t* bytes, std::size_t size);
// Width and height from the header only, without decoding pixels.
std::optional<std::pair<int, int>> dimensions(const std::vector<std::uint8_t>& bytes);

// High-quality resampling to exactly width×height; nothing if it cannot be made.
std::optional<Image> resample(const Image& image, int width, int height);

// PNG bytes of the image; nothing on failure. Opaque images are written as
// 8-bit RGB, others as 8-bit RGBA with straight (un-premultiplied) alpha.
std::optional<std::vector<std::uint8_t>> encodePNG(const Image& image);

// Replies want speed; files kept on disk may prefer fewer bytes.
enum class PNGCompression { fast, small };
std::optional<std::vector<std::uint8_t>> encodePNG(const Image& image, PNGCompression compression);

// Standard base64 with padding and no line breaks.
std::string base64(const std::vector<std::uint8_t>& bytes);

}  // namespace ImageCodec

}  // namespace mirel
