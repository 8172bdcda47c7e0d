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

// The first image of the file (an animation's first frame), upright (a JPEG's
// EXIF orientation applied), scaled down so that its longest edge is at most
// `maxEdge` when that is 1 or more (never scaled up). Decoders shrink while
// they decode where the format allows (DCT scaling, libwebp's scaler) and rows
// stream into the resampler, so memory follows the result rather than what
// the file claims. Nothing if it cannot be decoded.
std::optional<Image> decode(const std::vector<std::uint8_t>& bytes, int maxEdge = 0);
std::optional<Image> decode(const std::uint8_t* bytes, std::size_t size, int maxEdge = 0);
// Width and height from the header only, without decoding pixels.
std::optional<std::pair<int, int>> dimensions(const std::vector<std::uint8_t>& bytes);

// The size whose longest edge is `maxEdge`, the aspect ratio kept as closely as
// whole pixels allow (halves rounded away from zero, never below 1); nothing
// when the image fits already or `maxEdge` is below 1.
std::optional<std::pair<int, int>> fitWithin(int width, int height, int maxEdge);

// High-quality resampling to exactly width×height; nothing if it cannot be made.
std::optional<Image> resample(const Image& image, int width, int height);

// PNG bytes of the image; nothing on failure. Opaque images are written as
// 8-bit RGB, others as 8-bit RGBA with straight (un-premultiplied) alpha.
// Each row gets the filter that suits it, and libdeflate compresses.
std::optional<std::vector<std::uint8_t>> encodePNG(const Image& image);

// Replies want speed (and still come out no larger than common encoders'
// defaults); files kept on disk may prefer fewer bytes. Photographs carry
// sensor noise that deflate finds little in at any level, so for them the
// quickest level costs a few percent of bytes and saves half the time.
enum class PNGCompression { fastest, fast, small };
std::optional<std::vector<std::uint8_t>> encodePNG(const Image& image, PNGCompression compression);
// The image of the file as decode gives it, encoded as encodePNG encodes it
// (the same pixels and colour type). Where the decoder allows, bands of the
// result are compressed while later rows are still being decoded.
std::optional<std::vector<std::uint8_t>> decodeToPNG(const std::uint8_t* bytes, std::size_t size, int maxEdge,
                                                     PNGCompression compression);

// Standard base64 with padding and no line breaks.
std::string base64(const std::vector<std::uint8_t>& bytes);

}  // namespace ImageCodec

}  // namespace mirel
