// Resampling: the asked size, each colour kept in its own channel, regions
// kept apart, and transparency kept premultiplied.
#include "core/image/image.h"
#include "tests/support/image_files.h"

#include <gtest/gtest.h>

namespace mirel {
namespace {

using test::RGBA;

// A colour whose red, green, blue and alpha all differ must come out with the
// same four values everywhere, edges included: the weights sum to one, the
// border repeats outwards, and no channel lands in another's byte. Sizes
// shrink and grow along either axis, on widths that do not fill a vector.
TEST(Resample, KeepsEachChannelOfAFlatColourAtEverySize) {
    const int sizes[][4] = {{3000, 1500, 1500, 750}, {4000, 1, 200, 1}, {1, 900, 1, 7}, {640, 480, 640, 240}, {33, 17, 100, 80},
                            {40000, 2, 300, 1}, {41, 23, 13, 7}, {5, 3, 17, 9}, {41, 23, 41, 9}, {41, 23, 18, 23}};
    for (const auto& [fromWidth, fromHeight, toWidth, toHeight] : sizes) {
        for (const RGBA color : {RGBA{200, 100, 50, 255}, RGBA{200, 100, 50, 160}}) {
            const auto result = ImageCodec::resample(test::solidImage(fromWidth, fromHeight, color), toWidth, toHeight);
            ASSERT_TRUE(result);
            ASSERT_EQ(std::pair(result->width, result->height), std::pair(toWidth, toHeight));
            EXPECT_EQ(result->opaque, color.a == 255);
            for (int y = 0; y < toHeight; y += 1 + toHeight / 40)
                for (int x = 0; x < toWidth; x += 1 + toWidth / 40)
                    ASSERT_TRUE(test::near(test::colorAt(*result, x, y), color, 2))
                        << fromWidth << "x" << fromHeight << " to " << toWidth << "x" << toHeight << " alpha " << color.a
                        << " at " << x << "," << y;
        }
    }
}

TEST(Resample, KeepsRegionsApartAndTransparencyPremultiplied) {
    const auto image = ImageCodec::resample(test::quadrantImage(400, 300), 100, 75);
    ASSERT_TRUE(image);
    for (const auto& [x, y, color] : {std::tuple{20, 20, RGBA{255, 0, 0}}, {80, 20, RGBA{0, 255, 0}}, {20, 60, RGBA{0, 0, 255}},
                                      {80, 60, RGBA{255, 255, 255}}})
        EXPECT_TRUE(test::near(test::colorAt(*image, x, y), color, 2)) << x << "," << y;

    // Half-transparent on the left, clear on the right: ringing at the step
    // must not leave a colour brighter than its alpha.
    Image mixed = test::solidImage(200, 50, {250, 250, 250, 128});
    for (int y = 0; y < 50; ++y)
        for (int x = 100; x < 200; ++x) mixed.pixels[static_cast<std::size_t>(y) * 200 + x] = 0;
    const auto scaled = ImageCodec::resample(mixed, 37, 9);
    ASSERT_TRUE(scaled);
    for (std::uint32_t p : scaled->pixels)
        ASSERT_TRUE(((p >> 16) & 0xff) <= p >> 24 && ((p >> 8) & 0xff) <= p >> 24 && (p & 0xff) <= p >> 24) << std::hex << p;
    EXPECT_EQ(std::pair(test::colorAt(*scaled, 2, 4).a, test::colorAt(*scaled, 34, 4).a), std::pair(128, 0));
}

TEST(Resample, RefusesImpossibleSizes) {
    const Image image = test::quadrantImage(10, 10);
    for (const auto& [width, height] : {std::pair{0, 5}, {5, -1}, {2'000'000, 1}})  // the last beyond maxDimension
        EXPECT_FALSE(ImageCodec::resample(image, width, height)) << width << "x" << height;
    EXPECT_FALSE(ImageCodec::resample(Image{}, 5, 5));
}

}  // namespace
}  // namespace mirel
