// Decoding PNG, JPEG and WebP by their bytes alone; anything unreadable or
// oversized gives nothing, and a large claim over little data costs little.
#include "core/image/image.h"
#include "tests/support/image_files.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstring>

namespace mirel {
namespace {

using test::ImageFileFormat;
using test::RGBA;

TEST(Decode, EachFormatGivesSizeColoursAndAlpha) {
    const std::tuple<ImageFileFormat, ImageCodec::Format, int> formats[] = {
        {ImageFileFormat::png, ImageCodec::Format::png, 0}, {ImageFileFormat::jpeg, ImageCodec::Format::jpeg, 12},
        {ImageFileFormat::cmykJpeg, ImageCodec::Format::jpeg, 12}, {ImageFileFormat::webp, ImageCodec::Format::webp, 16}};  // lossy formats blur colours a little
    for (const auto& [format, sniffed, tolerance] : formats) {
        const auto bytes = test::encodeImageFile(test::quadrantImage(80, 60), format);
        EXPECT_EQ(ImageCodec::sniff(bytes.data(), bytes.size()), sniffed);
        EXPECT_EQ(ImageCodec::dimensions(bytes), (std::pair<int, int>{80, 60}));
        for (const int shrink : {1, 4}) {  // whole, and shrunk while decoding
            const auto image = ImageCodec::decode(bytes, 80 / shrink);
            ASSERT_TRUE(image && image->width == 80 / shrink && image->height == 60 / shrink && image->opaque) << int(sniffed);
            for (const auto& [x, y, color] : {std::tuple{10, 10, RGBA{255, 0, 0}}, {70, 10, RGBA{0, 255, 0}}, {10, 50, RGBA{0, 0, 255}},
                                              {70, 50, RGBA{255, 255, 255}}})
                EXPECT_TRUE(test::near(test::colorAt(*image, x / shrink, y / shrink), color, tolerance)) << int(sniffed) << " " << x << "," << y;
        }
        if (format == ImageFileFormat::jpeg || format == ImageFileFormat::cmykJpeg) continue;
        // Semi-transparent pixels come back premultiplied (else their colour would be off), alpha exact.
        const RGBA translucent{200, 100, 50, 128};
        const auto clear = ImageCodec::decode(test::encodeImageFile(test::solidImage(16, 16, translucent), format));
        ASSERT_TRUE(clear && !clear->opaque);
        EXPECT_EQ(test::colorAt(*clear, 8, 8).a, 128);
        EXPECT_TRUE(test::near(test::colorAt(*clear, 8, 8), translucent, tolerance == 0 ? 2 : 12));
    }
}

TEST(Decode, UnreadableInputsGiveNothing) {
    const auto png = test::encodeImageFile(test::quadrantImage(64, 48), ImageFileFormat::png),
               jpeg = test::encodeImageFile(test::quadrantImage(64, 48), ImageFileFormat::jpeg),
               webp = test::encodeImageFile(test::quadrantImage(64, 48), ImageFileFormat::webp);
    const auto cut = [](const std::vector<std::uint8_t>& bytes, std::size_t keep) {
        return std::vector<std::uint8_t>(bytes.begin(), bytes.begin() + static_cast<long>(keep));
    };
    const std::string text = "this is not an image\n";
    for (const auto& bytes : {std::vector<std::uint8_t>{}, {text.begin(), text.end()}, cut(png, 8), cut(png, 33), cut(png, png.size() / 2),
                              cut(jpeg, 20), cut(jpeg, jpeg.size() / 2), cut(webp, 30), cut(webp, webp.size() / 2)})
        EXPECT_FALSE(ImageCodec::decode(bytes)) << bytes.size() << " bytes";
}

long peakResidentKB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

void putBigEndian(std::vector<std::uint8_t>& bytes, std::size_t at, std::uint32_t value, int width) {
    for (int i = 0; i < width; ++i) bytes[at + i] = static_cast<std::uint8_t>(value >> (8 * (width - 1 - i)));
}

// Headers that claim more than their few bytes hold. Beyond the limits they
// are refused before their pixels are allocated; within them (10000×10000)
// they cost little, and a baseline JPEG shows grey where its data ran out, as
// viewers do.
TEST(Decode, LargeClaimsOverLittleDataCostLittle) {
    const auto claim = [&](ImageFileFormat format, std::uint32_t width, std::uint32_t height, bool progressive = false) {
        auto bytes = test::encodeImageFile(test::quadrantImage(16, 16), format);
        if (format == ImageFileFormat::png) putBigEndian(bytes, 16, width, 4), putBigEndian(bytes, 20, height, 4);  // IHDR
        for (std::size_t i = 2; format == ImageFileFormat::jpeg && i + 9 < bytes.size(); ++i)
            if (bytes[i] == 0xff && bytes[i + 1] == 0xc0) {  // SOF0: length, precision, height, width
                putBigEndian(bytes, i + 5, height, 2), putBigEndian(bytes, i + 7, width, 2);
                if (progressive) bytes[i + 1] = 0xc2;
                break;
            }
        if (format == ImageFileFormat::webp) {
            EXPECT_EQ(std::memcmp(bytes.data() + 12, "VP8 ", 4), 0);
            bytes[26] = 0xff, bytes[27] = 0x3f, bytes[28] = 0xff, bytes[29] = 0x3f;  // 14-bit little-endian: 16383×16383
        }
        return bytes;
    };
    // Name, bytes, the longest edge asked for (0: all) and the width decoded (0: refused).
    const std::tuple<const char*, std::vector<std::uint8_t>, int, int> cases[] = {
        {"png over the pixel limit", claim(ImageFileFormat::png, 100000, 100000), 0, 0},
        {"png over the side limit", claim(ImageFileFormat::png, 2'000'000, 1), 0, 0},
        {"jpeg over the limits", claim(ImageFileFormat::jpeg, 60000, 60000), 0, 0},
        {"webp over the limits", claim(ImageFileFormat::webp, 0, 0), 0, 0},
        {"png within, its CRC no longer matching", claim(ImageFileFormat::png, 10000, 10000), 1400, 0},
        {"baseline jpeg within", claim(ImageFileFormat::jpeg, 10000, 10000), 1400, 1400},
        // Its coefficients alone would pass the budget.
        {"progressive jpeg within", claim(ImageFileFormat::jpeg, 10000, 10000, true), 1400, 0},
    };
    for (const auto& [name, bytes, edge, width] : cases) {
        const long before = peakResidentKB();
        const auto image = ImageCodec::decode(bytes, edge);
        EXPECT_EQ(image ? image->width : 0, width) << name;
        EXPECT_LT(peakResidentKB() - before, 150 * 1024) << name;
    }
}

}  // namespace
}  // namespace mirel
