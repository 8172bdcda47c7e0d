#include "core/image/image.h"
#include "tests/support/image_files.h"

#include <gtest/gtest.h>

namespace mirel {
namespace {

TEST(Base64, KnownVectorsAndEveryByteValueWithoutLineBreaks) {
    const std::pair<std::string, const char*> vectors[] = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"}, {"\xfb\xff\xbf", "+/+/"}};
    for (const auto& [plain, encoded] : vectors) EXPECT_EQ(ImageCodec::base64({plain.begin(), plain.end()}), encoded) << plain;
    std::vector<std::uint8_t> bytes;
    for (int i = 0; i < 40 * 256; ++i) bytes.push_back(static_cast<std::uint8_t>(i ^ i / 256));
    for (std::size_t cut : {bytes.size(), bytes.size() - 1, bytes.size() - 2}) {
        const std::vector<std::uint8_t> part(bytes.begin(), bytes.begin() + static_cast<long>(cut));
        const std::string text = ImageCodec::base64(part);
        EXPECT_EQ(text.find_first_of("\r\n"), std::string::npos);
        EXPECT_EQ(test::decodeBase64(text), part);
    }
}

}  // namespace
}  // namespace mirel
