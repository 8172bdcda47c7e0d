// Decoding PNG, JPEG and WebP by their bytes alone; anything unreadable or
// oversized gives nothing, and a bomb is refused before its pixels are allocated.
#include "core/image/image.h"
#include "tests/support/image_files.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstring>

namespace mirel {
namespace {

using test::ImageFileFormat;
using test::RGBA;

class DecodeTest : public ::testing::Test {
protected:
    std::vector<std::uint8_t> encoded(ImageFileFormat format, const Image& image) const {
        test::writeImageFile(path, image, format);
        const std::string text = test::readBytes(path);
        return {text.begin(), text.end()};
    }
    test::TempLibrary library;
    const std::filesystem::path path = library.home() / "screenshot.png.txt";  // the name lies: only the bytes decide
};

TEST_F(DecodeTest, EachFormatGivesSizeColoursAndAlpha) {
    const std::tuple<ImageFileFormat, ImageCodec::Format, int> formats[] = {
        {ImageFileFormat::png, ImageCodec::Format::png, 0}, {ImageFileFormat::jpeg, ImageCodec::Format::jpeg, 12},
        {ImageFileFormat::webp, ImageCodec::Format::webp, 16}};  // lossy formats blur colours a little
    for (const auto& [format, sniffed, tolerance] : formats) {
        const auto bytes = encoded(format, test::quadrantImage(80, 60));
        EXPECT_EQ(ImageCodec::sniff(bytes.data(), bytes.size()), sniffed);
        EXPECT_EQ(ImageCodec::dimensions(bytes), (std::pair<int, int>{80, 60}));
        const auto image = ImageCodec::decode(bytes);
        ASSERT_TRUE(image && image->width == 80 && image->height == 60 && image->opaque) << int(sniffed);
        for (const auto& [x, y, color] : {std::tuple{10, 10, RGBA{255, 0, 0}}, {70, 10, RGBA{0, 255, 0}}, {10, 50, RGBA{0, 0, 255}},
                                          {70, 50, RGBA{255, 255, 255}}})
            EXPECT_TRUE(test::near(test::colorAt(*image, x, y), color, tolerance)) << int(sniffed) << " " << x << "," << y;
        if (format == ImageFileFormat::jpeg) continue;
        // Semi-transparent pixels come back premultiplied, alpha exact.
        const RGBA translucent{200, 100, 50, 128};
        const auto clear = ImageCodec::decode(encoded(format, test::solidImage(16, 16, translucent)));
        ASSERT_TRUE(clear && !clear->opaque);
        EXPECT_EQ(test::colorAt(*clear, 8, 8).a, 128);
        EXPECT_TRUE(test::near(test::colorAt(*clear, 8, 8), translucent, tolerance == 0 ? 2 : 12));
        EXPECT_LE((clear->at(8, 8) >> 16) & 0xff, clear->at(8, 8) >> 24);
    }
}

TEST_F(DecodeTest, UnreadableInputsGiveNothing) {
    const auto png = encoded(ImageFileFormat::png, test::quadrantImage(64, 48)),
               jpeg = encoded(ImageFileFormat::jpeg, test::quadrantImage(64, 48)),
               webp = encoded(ImageFileFormat::webp, test::quadrantImage(64, 48));
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

// Headers that claim far more pixels than allowed over tiny real data.
TEST_F(DecodeTest, DecompressionBombsAreRefusedBeforeAllocating) {
    auto png = encoded(ImageFileFormat::png, test::quadrantImage(8, 8)), wide = png;  // IHDR: width at 16, height at 20
    putBigEndian(png, 16, 100000, 4), putBigEndian(png, 20, 100000, 4);
    putBigEndian(wide, 16, 2'000'000, 4), putBigEndian(wide, 20, 1, 4);
    auto jpeg = encoded(ImageFileFormat::jpeg, test::quadrantImage(8, 8));
    for (std::size_t i = 2; i + 9 < jpeg.size(); ++i)
        if (jpeg[i] == 0xff && jpeg[i + 1] == 0xc0) {  // SOF0: length, precision, height, width
            putBigEndian(jpeg, i + 5, 60000, 2), putBigEndian(jpeg, i + 7, 60000, 2);
            break;
        }
    auto webp = encoded(ImageFileFormat::webp, test::quadrantImage(8, 8));
    ASSERT_EQ(std::memcmp(webp.data() + 12, "VP8 ", 4), 0);
    webp[26] = 0xff, webp[27] = 0x3f, webp[28] = 0xff, webp[29] = 0x3f;  // 14-bit little-endian: 16383×16383

    for (const auto& bytes : {png, wide, jpeg, webp}) {
        const auto claimed = ImageCodec::dimensions(bytes);
        ASSERT_TRUE(claimed);
        EXPECT_TRUE(std::int64_t{claimed->first} * claimed->second > ImageCodec::maxPixels ||
                    std::max(claimed->first, claimed->second) > ImageCodec::maxDimension) << claimed->first;
        const long before = peakResidentKB();
        EXPECT_FALSE(ImageCodec::decode(bytes)) << claimed->first << "x" << claimed->second;
        EXPECT_LT(peakResidentKB() - before, 64 * 1024) << claimed->first << "x" << claimed->second;
    }
}

}  // namespace
}  // namespace mirel
