#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstring>

#include "core/image/image.h"
#include "tests/support/image_files.h"
#include "tests/support/temp_library.h"

namespace mirel {
namespace {

using test::ImageFileFormat;
using test::RGBA;

constexpr RGBA red{255, 0, 0, 255}, green{0, 255, 0, 255}, blue{0, 0, 255, 255}, white{255, 255, 255, 255};

std::vector<std::uint8_t> fileBytes(const std::filesystem::path& path) {
    const std::string text = test::readBytes(path);
    return {text.begin(), text.end()};
}

class DecodeTest : public ::testing::Test {
protected:
    std::filesystem::path file(const std::string& name) const { return library_.home() / name; }
    std::vector<std::uint8_t> encoded(ImageFileFormat format, int width = 64, int height = 48) const {
        const auto path = file("probe");
        test::writeImageFile(path, width, height, format);
        return fileBytes(path);
    }

private:
    test::TempLibrary library_;
};

struct FormatCase {
    ImageFileFormat format;
    ImageCodec::Format sniffed;
    int tolerance;  // lossy formats blur colours a little
};

class EachFormat : public DecodeTest, public ::testing::WithParamInterface<FormatCase> {};

TEST_P(EachFormat, DecodesSizeAndColoursWhateverTheExtension) {
    const auto [format, sniffed, tolerance] = GetParam();
    // The name lies on purpose: only the bytes decide.
    const auto path = file("screenshot.png.txt");
    test::writeImageFile(path, 80, 60, format);
    const auto bytes = fileBytes(path);
    EXPECT_EQ(ImageCodec::sniff(bytes.data(), bytes.size()), sniffed);
    EXPECT_EQ(ImageCodec::dimensions(bytes), (std::pair<int, int>{80, 60}));

    const auto image = ImageCodec::decode(fileBytes(path));
    ASSERT_TRUE(image);
    EXPECT_EQ(image->width, 80);
    EXPECT_EQ(image->height, 60);
    EXPECT_TRUE(image->opaque);
    EXPECT_TRUE(test::near(test::colorAt(*image, 10, 10), red, tolerance));
    EXPECT_TRUE(test::near(test::colorAt(*image, 70, 10), green, tolerance));
    EXPECT_TRUE(test::near(test::colorAt(*image, 10, 50), blue, tolerance));
    EXPECT_TRUE(test::near(test::colorAt(*image, 70, 50), white, tolerance));
}

INSTANTIATE_TEST_SUITE_P(Formats, EachFormat,
                         ::testing::Values(FormatCase{ImageFileFormat::png, ImageCodec::Format::png, 0},
                                           FormatCase{ImageFileFormat::jpeg, ImageCodec::Format::jpeg, 12},
                                           FormatCase{ImageFileFormat::webp, ImageCodec::Format::webp, 16}));

TEST_F(DecodeTest, SemiTransparentPixelsSurvivePNGAndWebP) {
    const RGBA color{200, 100, 50, 128};
    for (auto format : {ImageFileFormat::png, ImageFileFormat::webp}) {
        const auto path = file("alpha");
        test::writeImageFile(path, test::solidImage(16, 16, color), format);
        const auto image = ImageCodec::decode(fileBytes(path));
        ASSERT_TRUE(image);
        EXPECT_FALSE(image->opaque);
        const RGBA got = test::colorAt(*image, 8, 8);
        EXPECT_EQ(got.a, 128);
        EXPECT_TRUE(test::near(got, color, format == ImageFileFormat::png ? 2 : 12))
            << got.r << "," << got.g << "," << got.b << "," << got.a;
        // Premultiplied: no colour channel above alpha.
        const std::uint32_t p = image->at(8, 8);
        EXPECT_LE((p >> 16) & 0xff, p >> 24);
    }
}

TEST_F(DecodeTest, UnreadableInputsGiveNothing) {
    const auto png = encoded(ImageFileFormat::png), jpeg = encoded(ImageFileFormat::jpeg),
               webp = encoded(ImageFileFormat::webp);
    auto cut = [](const std::vector<std::uint8_t>& bytes, std::size_t keep) {
        return std::vector<std::uint8_t>(bytes.begin(), bytes.begin() + static_cast<long>(keep));
    };
    const std::string text = "this is not an image\n";
    const std::pair<const char*, std::vector<std::uint8_t>> cases[] = {
        {"empty", {}},
        {"text", {text.begin(), text.end()}},
        {"png signature only", cut(png, 8)},
        {"png header only", cut(png, 33)},
        {"png cut in its pixels", cut(png, png.size() / 2)},
        {"jpeg markers only", cut(jpeg, 20)},
        {"jpeg cut in its pixels", cut(jpeg, jpeg.size() / 2)},
        {"webp header only", cut(webp, 30)},
        {"webp cut in its pixels", cut(webp, webp.size() / 2)},
    };
    for (const auto& [name, bytes] : cases) {
        EXPECT_FALSE(ImageCodec::decode(bytes)) << name;
    }
}

long peakResidentKB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

void putBigEndian(std::vector<std::uint8_t>& bytes, std::size_t at, std::uint32_t value, int width) {
    for (int i = 0; i < width; ++i) bytes[at + i] = static_cast<std::uint8_t>(value >> (8 * (width - 1 - i)));
}

// Files whose headers claim far more pixels than allowed; their real data is tiny.
TEST_F(DecodeTest, DecompressionBombsAreRefusedBeforeAllocating) {
    std::vector<std::pair<const char*, std::vector<std::uint8_t>>> bombs;

    auto png = encoded(ImageFileFormat::png, 8, 8);  // IHDR: width at 16, height at 20
    putBigEndian(png, 16, 100000, 4);
    putBigEndian(png, 20, 100000, 4);
    bombs.emplace_back("png 100000×100000", png);
    auto wide = png;
    putBigEndian(wide, 16, 2'000'000, 4);
    putBigEndian(wide, 20, 1, 4);
    bombs.emplace_back("png 2000000×1", wide);

    auto jpeg = encoded(ImageFileFormat::jpeg, 8, 8);
    for (std::size_t i = 2; i + 9 < jpeg.size(); ++i) {
        if (jpeg[i] == 0xff && jpeg[i + 1] == 0xc0) {  // SOF0: length, precision, height, width
            putBigEndian(jpeg, i + 5, 60000, 2);
            putBigEndian(jpeg, i + 7, 60000, 2);
            break;
        }
    }
    bombs.emplace_back("jpeg 60000×60000", jpeg);

    auto webp = encoded(ImageFileFormat::webp, 8, 8);
    ASSERT_EQ(std::memcmp(webp.data() + 12, "VP8 ", 4), 0);
    webp[26] = 0xff, webp[27] = 0x3f;  // 14-bit width and height, little-endian: 16383
    webp[28] = 0xff, webp[29] = 0x3f;
    bombs.emplace_back("webp 16383×16383", webp);

    for (const auto& [name, bytes] : bombs) {
        const auto claimed = ImageCodec::dimensions(bytes);
        ASSERT_TRUE(claimed) << name;
        EXPECT_TRUE(std::int64_t{claimed->first} * claimed->second > ImageCodec::maxPixels ||
                    std::max(claimed->first, claimed->second) > ImageCodec::maxDimension)
            << name;

        const long before = peakResidentKB();
        EXPECT_FALSE(ImageCodec::decode(bytes)) << name;
        EXPECT_LT(peakResidentKB() - before, 64 * 1024) << name;
    }
}

}  // namespace
}  // namespace mirel
