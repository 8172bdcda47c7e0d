#include "core/image/image.h"
#include "tests/support/image_files.h"

#include <gtest/gtest.h>

namespace mirel {
namespace {

// Opaque pictures are written as RGB (IHDR colour type 2), others as RGBA (6)
// with straight alpha; premultiplied pixels survive the trip unchanged.
TEST(EncodePNG, RoundTripsExactlyAsRGBOrRGBA) {
    Image clear = test::solidImage(4, 2, {200, 100, 50, 128});
    clear.pixels[1] = 0, clear.pixels[2] = test::solidImage(1, 1, {10, 20, 30, 1}).pixels[0];  // fully and nearly clear
    const std::tuple<Image, ImageCodec::PNGCompression, int> cases[] = {
        {test::quadrantImage(33, 21), ImageCodec::PNGCompression::fast, 2},
        {test::quadrantImage(33, 21), ImageCodec::PNGCompression::small, 2},
        {test::quadrantImage(33, 21), ImageCodec::PNGCompression::fastest, 2}, {clear, ImageCodec::PNGCompression::fast, 6}};
    for (const auto& [image, compression, colorType] : cases) {
        const auto png = ImageCodec::encodePNG(image, compression);
        ASSERT_TRUE(png);
        EXPECT_EQ(png->at(25), colorType);
        const auto back = ImageCodec::decode(*png);
        ASSERT_TRUE(back);
        EXPECT_EQ(std::tie(back->width, back->height, back->opaque, back->pixels),
                  std::tie(image.width, image.height, image.opaque, image.pixels));
    }
    Image broken = test::quadrantImage(4, 4);
    broken.pixels.pop_back();
    EXPECT_FALSE(ImageCodec::encodePNG(broken) || ImageCodec::encodePNG(Image{}));
}

}  // namespace
}  // namespace mirel
