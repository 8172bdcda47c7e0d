#include <gtest/gtest.h>

#include "core/image/image.h"
#include "tests/support/image_files.h"

namespace mirel {
namespace {

using test::RGBA;

struct SizeCase {
    int fromWidth, fromHeight, toWidth, toHeight;
};

class ResampleSizes : public ::testing::TestWithParam<SizeCase> {};

// A flat colour must stay exactly flat, edges included: the filter's weights
// sum to one and the border repeats outwards.
TEST_P(ResampleSizes, GivesTheAskedSizeAndKeepsFlatColour) {
    const auto [fromWidth, fromHeight, toWidth, toHeight] = GetParam();
    const RGBA color{30, 120, 210, 255};
    const auto result = ImageCodec::resample(test::solidImage(fromWidth, fromHeight, color), toWidth, toHeight);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->width, toWidth);
    EXPECT_EQ(result->height, toHeight);
    EXPECT_TRUE(result->opaque);
    for (auto [x, y] : {std::pair{0, 0}, {toWidth - 1, toHeight - 1}, {toWidth / 2, toHeight / 2}}) {
        EXPECT_TRUE(test::near(test::colorAt(*result, x, y), color, 1)) << x << "," << y;
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, ResampleSizes,
                         ::testing::Values(SizeCase{3000, 1500, 1500, 750}, SizeCase{4000, 1, 200, 1},
                                           SizeCase{1, 900, 1, 7}, SizeCase{640, 480, 640, 240},
                                           SizeCase{33, 17, 100, 80},       // enlarging
                                           SizeCase{40000, 2, 300, 1}));   // very wide

TEST(Resample, KeepsRegionsApartAndTransparencyPremultiplied) {
    const auto image = ImageCodec::resample(test::quadrantImage(400, 300), 100, 75);
    ASSERT_TRUE(image);
    EXPECT_TRUE(test::near(test::colorAt(*image, 20, 20), {255, 0, 0, 255}, 2));
    EXPECT_TRUE(test::near(test::colorAt(*image, 80, 20), {0, 255, 0, 255}, 2));
    EXPECT_TRUE(test::near(test::colorAt(*image, 20, 60), {0, 0, 255, 255}, 2));
    EXPECT_TRUE(test::near(test::colorAt(*image, 80, 60), {255, 255, 255, 255}, 2));

    // Half-transparent on the left, clear on the right: ringing at the step
    // must not leave a colour brighter than its alpha.
    Image mixed = test::solidImage(200, 50, {250, 250, 250, 128});
    for (int y = 0; y < 50; ++y) {
        for (int x = 100; x < 200; ++x) mixed.pixels[static_cast<std::size_t>(y) * 200 + x] = 0;
    }
    mixed.opaque = false;
    const auto scaled = ImageCodec::resample(mixed, 37, 9);
    ASSERT_TRUE(scaled);
    EXPECT_FALSE(scaled->opaque);
    for (std::uint32_t p : scaled->pixels) {
        const std::uint32_t a = p >> 24;
        ASSERT_LE((p >> 16) & 0xff, a);
        ASSERT_LE((p >> 8) & 0xff, a);
        ASSERT_LE(p & 0xff, a);
    }
    EXPECT_EQ(test::colorAt(*scaled, 2, 4).a, 128);
    EXPECT_EQ(test::colorAt(*scaled, 34, 4).a, 0);
}

TEST(Resample, RefusesImpossibleSizes) {
    const Image image = test::quadrantImage(10, 10);
    EXPECT_FALSE(ImageCodec::resample(image, 0, 5));
    EXPECT_FALSE(ImageCodec::resample(image, 5, -1));
    EXPECT_FALSE(ImageCodec::resample(image, 2'000'000, 1));  // beyond maxDimension
    EXPECT_FALSE(ImageCodec::resample(Image{}, 5, 5));
}

}  // namespace
}  // namespace mirel
