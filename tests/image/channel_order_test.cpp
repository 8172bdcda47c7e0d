// Resampling keeps each colour in its own channel: a picture whose red,
// green, blue and alpha all differ comes out with the same four values,
// shrunk or grown, along either axis, on widths that do not fill a vector.
#include "core/image/image.h"
#include "tests/support/image_files.h"

#include <gtest/gtest.h>

namespace mirel {
namespace {

TEST(ChannelOrder, ResamplingKeepsEachColourInItsChannel) {
    const int sizes[][4] = {{41, 23, 13, 7}, {5, 3, 17, 9}, {41, 23, 41, 9}, {41, 23, 18, 23}};
    for (const auto& [fromWidth, fromHeight, toWidth, toHeight] : sizes) {
        for (const test::RGBA color : {test::RGBA{200, 100, 50, 255}, test::RGBA{200, 100, 50, 160}}) {
            const auto result = ImageCodec::resample(test::solidImage(fromWidth, fromHeight, color), toWidth, toHeight);
            ASSERT_TRUE(result);
            for (int y = 0; y < toHeight; ++y)
                for (int x = 0; x < toWidth; ++x)
                    ASSERT_TRUE(test::near(test::colorAt(*result, x, y), color, 2))
                        << fromWidth << "x" << fromHeight << " to " << toWidth << "x" << toHeight << " alpha " << color.a
                        << " at " << x << "," << y;
        }
    }
}

}  // namespace
}  // namespace mirel
