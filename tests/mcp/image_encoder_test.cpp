// A screenshot file as an agent receives it: a base64 PNG fitted to the edge
// asked for, never enlarged, whatever the file's format; nothing for a file
// that cannot be read, with one log line.
#include "mcp/tools/image_encoder.h"

#include "core/image/image.h"
#include "tests/support/image_files.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

namespace mirel {
namespace {

using test::ImageFileFormat;

class ImageEncoderTest : public ::testing::Test {
protected:
    // The PNG that encode gave back, decoded, and what went to standard error.
    std::optional<Image> encode(const std::filesystem::path& path, int maxEdge, std::string& log) {
        ::testing::internal::CaptureStderr();
        const std::optional<std::string> text = ImageEncoder::encode(path, maxEdge);
        log = ::testing::internal::GetCapturedStderr();
        if (!text) return std::nullopt;
        const std::vector<std::uint8_t> png = test::decodeBase64(*text);
        EXPECT_EQ(ImageCodec::sniff(png.data(), png.size()), ImageCodec::Format::png);
        return ImageCodec::decode(png);
    }
    test::TempLibrary library;
};

// The decoders' colours and the fitting at each format's scaled decode are the
// image tests'; here each format comes through as a PNG of the fitted size.
TEST_F(ImageEncoderTest, FitsTheLongestEdgeOfEachFormatAndNeverEnlarges) {
    const std::tuple<int, int, int, int, int, ImageFileFormat, const char*> cases[] = {  // size, edge → size, format, name
        {3000, 1500, 1500, 1500, 750, ImageFileFormat::png, "a.png"}, {4000, 1, 200, 200, 1, ImageFileFormat::png, "a.png"},
        {1, 4000, 200, 1, 200, ImageFileFormat::png, "a.png"}, {1400, 700, 1400, 1400, 700, ImageFileFormat::png, "a.png"},
        {900, 1400, 1401, 900, 1400, ImageFileFormat::png, "a.png"}, {1000, 333, 200, 200, 67, ImageFileFormat::png, "a.png"},
        {301, 100, 200, 200, 66, ImageFileFormat::png, "a.png"}, {800, 600, 0, 800, 600, ImageFileFormat::png, "a.png"},
        {800, 600, -5, 800, 600, ImageFileFormat::png, "a.png"}, {400, 200, 200, 200, 100, ImageFileFormat::jpeg, "jpeg.png"},
        {400, 1, 100, 100, 1, ImageFileFormat::webp, "no-extension"},  // only one edge shrinks
    };
    for (const auto& [width, height, edge, toWidth, toHeight, format, name] : cases) {
        const auto path = library.home() / name;
        test::writeImageFile(path, width, height, format);
        std::string log;
        const auto image = encode(path, edge, log);
        ASSERT_TRUE(image) << name << " " << width << "x" << height;
        EXPECT_EQ(std::pair(image->width, image->height), std::pair(toWidth, toHeight)) << width << "x" << height << " to " << edge;
        EXPECT_EQ(log, "");
    }
}

// What makes a file unreadable is the decoders' to judge (see the image tests).
TEST_F(ImageEncoderTest, UnreadableFilesGiveNothingAndOneLogLine) {
    test::writeBytes(library.home() / "notes.png", "Not an image at all.\n");
    for (const char* name : {"missing.png", "notes.png"}) {
        const auto path = library.home() / name;
        std::string log;
        EXPECT_FALSE(encode(path, 1400, log)) << name;
        EXPECT_EQ(log, "[mirel-mcp] could not read image at " + path.string() + "\n") << name;
    }
}

}  // namespace
}  // namespace mirel
