#include "mcp/tools/image_encoder.h"

#include <gtest/gtest.h>

#include "core/image/image.h"
#include "tests/support/image_files.h"
#include "tests/support/temp_library.h"

namespace mirel {
namespace {

using test::ImageFileFormat;

class ImageEncoderTest : public ::testing::Test {
protected:
    std::filesystem::path file(const std::string& name) const { return library_.home() / name; }

    // Runs encode and returns the PNG it gave back, decoded, with what went to standard error.
    std::optional<Image> encode(const std::filesystem::path& path, int maxEdge, std::string* log = nullptr) {
        ::testing::internal::CaptureStderr();
        const std::optional<std::string> text = ImageEncoder::encode(path, maxEdge);
        const std::string written = ::testing::internal::GetCapturedStderr();
        if (log) *log = written;
        else EXPECT_EQ(written, "");
        if (!text) return std::nullopt;
        EXPECT_EQ(text->find_first_of("\r\n"), std::string::npos);
        const std::vector<std::uint8_t> png = test::decodeBase64(*text);
        EXPECT_EQ(ImageCodec::sniff(png.data(), png.size()), ImageCodec::Format::png);
        auto image = ImageCodec::decode(png);
        EXPECT_TRUE(image) << "the reply is not a readable PNG";
        return image;
    }

private:
    test::TempLibrary library_;
};

struct ScaleCase {
    int width, height, maxEdge, expectedWidth, expectedHeight;
};

class ImageEncoderScaling : public ImageEncoderTest, public ::testing::WithParamInterface<ScaleCase> {};

TEST_P(ImageEncoderScaling, FitsTheLongestEdgeAndNeverEnlarges) {
    const auto [width, height, maxEdge, expectedWidth, expectedHeight] = GetParam();
    const auto path = file("shot.png");
    test::writeImageFile(path, width, height, ImageFileFormat::png);
    const auto image = encode(path, maxEdge);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->width, expectedWidth);
    EXPECT_EQ(image->height, expectedHeight);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, ImageEncoderScaling,
    ::testing::Values(ScaleCase{3000, 1500, 1500, 1500, 750},  // halved exactly
                      ScaleCase{4000, 1, 200, 200, 1},          // a thin edge never falls below 1
                      ScaleCase{1, 4000, 200, 1, 200},
                      ScaleCase{1400, 700, 1400, 1400, 700},    // fits already
                      ScaleCase{900, 1400, 1401, 900, 1400},    // never scaled up
                      ScaleCase{1000, 333, 200, 200, 67},       // 66.6 rounds up
                      ScaleCase{1000, 250, 100, 100, 25},
                      ScaleCase{301, 100, 200, 200, 66},        // 66.44 rounds down
                      ScaleCase{800, 600, 0, 800, 600},         // no limit below 1
                      ScaleCase{800, 600, -5, 800, 600}));

TEST_F(ImageEncoderTest, OtherFormatsComeOutAsPNGWhateverTheName) {
    const std::pair<const char*, ImageFileFormat> cases[] = {
        {"photo.jpg", ImageFileFormat::jpeg},
        {"photo.webp", ImageFileFormat::webp},
        {"really-a-jpeg.png", ImageFileFormat::jpeg},
        {"no-extension", ImageFileFormat::webp},
    };
    for (const auto& [name, format] : cases) {
        const auto path = file(name);
        test::writeImageFile(path, 400, 200, format);
        const auto image = encode(path, 200);
        ASSERT_TRUE(image) << name;
        EXPECT_EQ(image->width, 200) << name;
        EXPECT_EQ(image->height, 100) << name;
        EXPECT_TRUE(test::near(test::colorAt(*image, 20, 20), {255, 0, 0, 255}, 16)) << name;
        EXPECT_TRUE(test::near(test::colorAt(*image, 180, 20), {0, 255, 0, 255}, 16)) << name;
        EXPECT_TRUE(test::near(test::colorAt(*image, 20, 80), {0, 0, 255, 255}, 16)) << name;
        EXPECT_TRUE(test::near(test::colorAt(*image, 180, 80), {255, 255, 255, 255}, 16)) << name;
    }
}

TEST_F(ImageEncoderTest, SemiTransparentPixelsKeepTheirAlphaThroughScaling) {
    const auto path = file("overlay.png");
    test::writeImageFile(path, test::solidImage(300, 100, {40, 160, 220, 100}), ImageFileFormat::png);
    const auto image = encode(path, 150);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->width, 150);
    EXPECT_FALSE(image->opaque);
    EXPECT_TRUE(test::near(test::colorAt(*image, 75, 25), {40, 160, 220, 100}, 3));
}

TEST_F(ImageEncoderTest, UnreadableFilesGiveNothingAndOneLogLine) {
    std::string png;
    {
        const auto path = file("whole.png");
        test::writeImageFile(path, 300, 200, ImageFileFormat::png);
        png = test::readBytes(path);
    }
    const std::pair<const char*, std::optional<std::string>> cases[] = {
        {"missing.png", std::nullopt},
        {"empty.png", std::string()},
        {"notes.png", std::string("Not an image at all.\n")},
        {"cut.png", png.substr(0, png.size() / 2)},
        {"bomb.png", [&] {
             std::string bomb = png.substr(0, 33);  // signature and IHDR, then 100000×100000
             bomb[16] = 0, bomb[17] = 0x01, bomb[18] = static_cast<char>(0x86), bomb[19] = static_cast<char>(0xa0);
             bomb.replace(20, 4, bomb.substr(16, 4));
             return bomb + png.substr(33);
         }()},
    };
    for (const auto& [name, content] : cases) {
        const auto path = file(name);
        if (content) test::writeBytes(path, *content);
        std::string log;
        EXPECT_FALSE(encode(path, 1400, &log)) << name;
        EXPECT_EQ(log, "[mirel-mcp] could not read image at " + path.string() + "\n") << name;
    }
}

}  // namespace
}  // namespace mirel
