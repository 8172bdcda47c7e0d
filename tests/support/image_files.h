#pragma once
// Real image files for tests: simple pictures, written as PNG, JPEG or WebP,
// and the base64 decoding needed to look inside an image reply.
#include <cstdint>
#include <filesystem>
#include <string_view>
#include <vector>

#include "core/image/image.h"

namespace mirel::test {

enum class ImageFileFormat { png, jpeg, cmykJpeg, webp };

// Straight (un-premultiplied) colour of one pixel.
struct RGBA {
    int r = 0, g = 0, b = 0, a = 255;
};

// A width×height picture of four flat quadrants: red top-left, green
// top-right, blue bottom-left, white bottom-right. Opaque.
Image quadrantImage(int width, int height);
// One colour all over, alpha included (stored premultiplied, as Image is).
Image solidImage(int width, int height, RGBA color);
// Every channel its own pattern (so a swapped channel or a moved pixel shows),
// sharp steps like text, fine texture, and, unless opaque, an alpha ramp with a
// clear band.
Image patternImage(int width, int height, bool opaque = true);

// The image as the bytes of a file in the format: PNG as ImageCodec encodes it,
// JPEG at quality 92 (also as Adobe's CMYK), WebP lossy at quality 90 (with alpha if the image has
// it). Throws std::runtime_error on failure (JPEG: ends the program).
std::vector<std::uint8_t> encodeImageFile(const Image& image, ImageFileFormat format);
// A PNG built by hand around `rows`, already filtered (a filter byte before
// each row, or each row of each Adam7 pass when `interlaced`), for files our
// encoder never writes: RGBA without transparency, interlacing, damaged rows.
std::vector<std::uint8_t> pngFromRows(int width, int height, int colorType, bool interlaced,
                                      const std::vector<std::uint8_t>& rows);
// Writes encodeImageFile's bytes of the quadrant picture of that size.
void writeImageFile(const std::filesystem::path& path, int width, int height, ImageFileFormat format);
// Any bytes, e.g. a cut-off image or text under an image's name.
void writeBytes(const std::filesystem::path& path, std::string_view bytes);
std::string readBytes(const std::filesystem::path& path);

// Standard base64 back to bytes; throws std::runtime_error on a bad character
// or length (line breaks are not allowed either).
std::vector<std::uint8_t> decodeBase64(std::string_view text);
// The colour at (x, y), un-premultiplied.
RGBA colorAt(const Image& image, int x, int y);
// Whether two colours differ by at most `tolerance` in every channel.
bool near(RGBA a, RGBA b, int tolerance);

}  // namespace mirel::test
