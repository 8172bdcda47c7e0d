#include <gtest/gtest.h>

#include "core/image/image.h"
#include "tests/support/image_files.h"

namespace mirel {
namespace {

using test::RGBA;

// IHDR's colour type byte: 2 is RGB, 6 is RGBA.
int colorType(const std::vector<std::uint8_t>& png) { return png.at(25); }

TEST(EncodePNG, OpaqueImagesAreRGBAndRoundTripExactly) {
    const Image image = test::quadrantImage(33, 21);
    for (auto compression : {ImageCodec::PNGCompression::fast, ImageCodec::PNGCompression::small}) {
        const auto png = ImageCodec::encodePNG(image, compression);
        ASSERT_TRUE(png);
        EXPECT_EQ(colorType(*png), 2);
        const auto back = ImageCodec::decode(*png);
        ASSERT_TRUE(back);
        EXPECT_EQ(back->width, 33);
        EXPECT_EQ(back->height, 21);
        EXPECT_TRUE(back->opaque);
        EXPECT_EQ(back->pixels, image.pixels);
    }
}

TEST(EncodePNG, TransparentImagesKeepStraightAlpha) {
    Image image = test::solidImage(4, 2, {200, 100, 50, 128});
    image.pixels[1] = 0;                          // fully clear
    image.pixels[2] = test::solidImage(1, 1, {10, 20, 30, 1}).pixels[0];  // nearly clear
    image.opaque = false;
    const auto png = ImageCodec::encodePNG(image);
    ASSERT_TRUE(png);
    EXPECT_EQ(colorType(*png), 6);
    const auto back = ImageCodec::decode(*png);
    ASSERT_TRUE(back);
    EXPECT_FALSE(back->opaque);
    EXPECT_TRUE(test::near(test::colorAt(*back, 0, 0), {200, 100, 50, 128}, 2));
    EXPECT_EQ(back->at(1, 0), 0u);
    EXPECT_EQ(test::colorAt(*back, 2, 0).a, 1);
    // Premultiplied pixels survive the trip unchanged.
    EXPECT_EQ(back->pixels, image.pixels);
}

TEST(EncodePNG, RefusesInconsistentImages) {
    Image image = test::quadrantImage(4, 4);
    image.pixels.pop_back();
    EXPECT_FALSE(ImageCodec::encodePNG(image));
    EXPECT_FALSE(ImageCodec::encodePNG(Image{}));
}

}  // namespace
}  // namespace mirel
