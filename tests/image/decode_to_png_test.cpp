// A reply's PNG, compressed band by band while the decoder still works, is
// the PNG that decoding first and encoding afterwards gives: the same pixels
// and the same colour type, whether or not the decoder's guess about alpha
// held.
#include <gtest/gtest.h>
#include <zlib.h>

#include "core/image/image.h"
#include "tests/support/image_files.h"

namespace mirel {
namespace {

constexpr int width = 1800, height = 1000;  // over a megapixel: helpers scale and encode along

// An RGBA PNG (colour type 6) of a varied picture with hard edges, which make
// the resampler ring; translucent in places unless `opaque`.
std::vector<std::uint8_t> rgbaFile(bool opaque) {
    std::vector<std::uint8_t> rows;
    for (int y = 0; y < height; ++y) {
        rows.push_back(0);  // no filter
        for (int x = 0; x < width; ++x) {
            const bool inside = (x / 90 + y / 70) % 2 == 0;
            rows.insert(rows.end(), {static_cast<std::uint8_t>(x * 7), static_cast<std::uint8_t>(inside ? 250 : y),
                                     static_cast<std::uint8_t>(x ^ y),
                                     static_cast<std::uint8_t>(opaque ? 255 : inside ? 255 : (x + y) % 3 * 60)});
        }
    }
    std::vector<std::uint8_t> out{0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    const auto chunk = [&out](const char* type, const std::vector<std::uint8_t>& data) {
        for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(data.size() >> shift));
        const std::size_t start = out.size();
        out.insert(out.end(), type, type + 4);
        out.insert(out.end(), data.begin(), data.end());
        const uLong crc = crc32(0, out.data() + start, static_cast<uInt>(out.size() - start));
        for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(crc >> shift));
    };
    chunk("IHDR", {0, 0, width >> 8, width & 0xff, 0, 0, height >> 8, height & 0xff, 8, 6, 0, 0, 0});
    uLongf size = compressBound(rows.size());
    std::vector<std::uint8_t> packed(size);
    compress2(packed.data(), &size, rows.data(), rows.size(), 1);
    packed.resize(size);
    chunk("IDAT", packed);
    chunk("IEND", {});
    return out;
}

TEST(DecodeToPNG, GivesWhatDecodingThenEncodingGives) {
    Image picture{width, height, std::vector<std::uint32_t>(std::size_t{width} * height), true};
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) picture.pixels[std::size_t{width} * y + x] = 0xff000000u | (x * 2654435761u ^ y * 40503u) >> 8;
    const std::pair<const char*, std::vector<std::uint8_t>> files[] = {
        {"RGB PNG", test::encodeImageFile(picture, test::ImageFileFormat::png)},
        {"translucent RGBA PNG", rgbaFile(false)},
        {"RGBA PNG whose alpha is 255 throughout", rgbaFile(true)},
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
        EXPECT_EQ(got->width, 1000) << name;
        EXPECT_TRUE(got->pixels == expected->pixels) << name;
    }
}

}  // namespace
}  // namespace mirel
