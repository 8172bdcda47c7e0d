// A reply's PNG, compressed band by band while the decoder still works, is
// the PNG that decoding first and encoding afterwards gives: the same pixels
// and the same colour type, whether or not the decoder's guess about alpha
// held.
#include <gtest/gtest.h>

#include "core/image/image.h"
#include "tests/support/image_files.h"

namespace mirel {
namespace {

constexpr int width = 1800, height = 1000;  // over a megapixel: helpers scale and encode along

// An RGBA PNG (colour type 6) whose alpha is 255 throughout: its decoder
// cannot know it is opaque until the last row.
std::vector<std::uint8_t> opaqueRGBAFile(const Image& picture) {
    std::vector<std::uint8_t> rows;
    for (int y = 0; y < height; ++y) {
        rows.push_back(0);  // no filter
        for (int x = 0; x < width; ++x) {
            const test::RGBA c = test::colorAt(picture, x, y);
            rows.insert(rows.end(), {static_cast<std::uint8_t>(c.r), static_cast<std::uint8_t>(c.g),
                                     static_cast<std::uint8_t>(c.b), 255});
        }
    }
    return test::pngFromRows(width, height, 6, false, rows);
}

TEST(DecodeToPNG, GivesWhatDecodingThenEncodingGives) {
    const Image picture = test::patternImage(width, height), translucent = test::patternImage(width, height, false);
    const std::pair<const char*, std::vector<std::uint8_t>> files[] = {
        {"RGB PNG", test::encodeImageFile(picture, test::ImageFileFormat::png)},
        {"translucent RGBA PNG", test::encodeImageFile(translucent, test::ImageFileFormat::png)},
        {"RGBA PNG whose alpha is 255 throughout", opaqueRGBAFile(picture)},
        {"JPEG", test::encodeImageFile(picture, test::ImageFileFormat::jpeg)},
    };
    for (const auto& [name, bytes] : files) {
        const auto compression = ImageCodec::PNGCompression::fast;
        const auto along = ImageCodec::decodeToPNG(bytes.data(), bytes.size(), 1000, compression);
        const auto after = ImageCodec::encodePNG(*ImageCodec::decode(bytes, 1000), compression);
        ASSERT_TRUE(along && after) << name;
        EXPECT_EQ((*along)[25], (*after)[25]) << name << ": the colour type";
        const auto got = ImageCodec::decode(*along), expected = ImageCodec::decode(*after);
        ASSERT_TRUE(got && expected) << name;
        EXPECT_TRUE(got->width == 1000 && got->pixels == expected->pixels) << name;
    }
}

}  // namespace
}  // namespace mirel
