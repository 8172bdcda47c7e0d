#include <gtest/gtest.h>

#include "core/image/image.h"
#include "tests/support/image_files.h"

namespace mirel {
namespace {

std::vector<std::uint8_t> bytesOf(std::string_view text) { return {text.begin(), text.end()}; }

TEST(Base64, KnownVectors) {
    const std::pair<const char*, const char*> vectors[] = {
        {"", ""},          {"f", "Zg=="},         {"fo", "Zm8="},         {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
    };
    for (const auto& [plain, encoded] : vectors) {
        EXPECT_EQ(ImageCodec::base64(bytesOf(plain)), encoded) << plain;
    }
    EXPECT_EQ(ImageCodec::base64({0xfb, 0xff, 0xbf}), "+/+/");  // the two non-alphanumeric letters
}

TEST(Base64, EveryByteValueRoundTripsWithoutLineBreaks) {
    std::vector<std::uint8_t> bytes;
    for (int round = 0; round < 40; ++round) {
        for (int b = 0; b < 256; ++b) bytes.push_back(static_cast<std::uint8_t>(b ^ round));
    }
    for (std::size_t cut : {bytes.size(), bytes.size() - 1, bytes.size() - 2}) {
        std::vector<std::uint8_t> part(bytes.begin(), bytes.begin() + static_cast<long>(cut));
        const std::string text = ImageCodec::base64(part);
        EXPECT_EQ(text.find_first_of("\r\n"), std::string::npos);
        EXPECT_EQ(test::decodeBase64(text), part);
    }
}

}  // namespace
}  // namespace mirel
