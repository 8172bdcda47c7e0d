// Decoding straight to a smaller size: the streamed, threaded and vectorised
// paths are held to a plain floating-point Lanczos-3, DCT-scaled JPEG to the
// full decode, and the formats' extras (EXIF orientation, animated WebP) to
// what a viewer shows.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <random>

#include "core/image/codecs.h"
#include "core/image/image.h"
#include "core/image/resample.h"
#include "core/image/row_target.h"
#include "tests/support/image_files.h"

#include <webp/encode.h>
#include <webp/mux.h>

namespace mirel {
namespace {

using test::ImageFileFormat;
using test::RGBA;

// Lanczos-3 by its definition, in doubles, columns then rows; only the
// in-between values are kept to the byte range, as any 8-bit pipeline must.
Image referenceResample(const Image& in, int toWidth, int toHeight) {
    auto weights = [](int from, int to) {
        auto lanczos = [](double x) {
            auto sinc = [](double v) { return v == 0 ? 1.0 : std::sin(M_PI * v) / (M_PI * v); };
            return std::abs(x) < 3 ? sinc(x) * sinc(x / 3) : 0.0;
        };
        const double scale = static_cast<double>(from) / to, stretch = std::max(scale, 1.0);
        std::vector<std::vector<std::pair<int, double>>> table(to);
        for (int i = 0; i < to; ++i) {
            const double center = (i + 0.5) * scale;
            double total = 0;
            for (int j = std::max(0, static_cast<int>(center - 3 * stretch) - 1);
                 j <= std::min(from - 1, static_cast<int>(center + 3 * stretch) + 1); ++j) {
                const double w = lanczos((j + 0.5 - center) / stretch);
                if (w != 0) table[i].emplace_back(j, w), total += w;
            }
            for (auto& tap : table[i]) tap.second /= total;
        }
        return table;
    };
    const auto vertical = weights(in.height, toHeight), horizontal = weights(in.width, toWidth);
    auto channel = [](std::uint32_t p, int c) { return static_cast<double>((p >> (8 * c)) & 0xff); };
    Image out{toWidth, toHeight, std::vector<std::uint32_t>(static_cast<std::size_t>(toWidth) * toHeight), in.opaque};
    std::vector<double> line(static_cast<std::size_t>(in.width) * 4);
    for (int y = 0; y < toHeight; ++y) {
        for (int x = 0; x < in.width; ++x) {
            for (int c = 0; c < 4; ++c) {
                double sum = 0;
                for (const auto& [row, w] : vertical[y]) sum += w * channel(in.at(x, row), c);
                line[static_cast<std::size_t>(x) * 4 + c] = std::clamp(sum, 0.0, 255.0);
            }
        }
        for (int x = 0; x < toWidth; ++x) {
            std::uint32_t bytes[4];
            for (int c = 0; c < 4; ++c) {
                double sum = 0;
                for (const auto& [column, w] : horizontal[x]) sum += w * line[static_cast<std::size_t>(column) * 4 + c];
                bytes[c] = static_cast<std::uint32_t>(std::clamp(std::lround(sum), 0L, 255L));
            }
            for (int c = 0; c < 3; ++c) bytes[c] = std::min(bytes[c], bytes[3]);  // premultiplied stays valid
            out.pixels[static_cast<std::size_t>(y) * toWidth + x] = (bytes[3] << 24) | (bytes[2] << 16) | (bytes[1] << 8) | bytes[0];
        }
    }
    return out;
}

// The largest difference in any channel of any pixel, and the mean one over the colour channels.
std::pair<int, double> differences(const Image& a, const Image& b) {
    EXPECT_EQ(std::pair(a.width, a.height), std::pair(b.width, b.height));
    if (a.pixels.size() != b.pixels.size()) return {256, 256};
    int largest = 0;
    double total = 0;
    for (std::size_t i = 0; i < a.pixels.size(); ++i)
        for (int shift = 0; shift < 32; shift += 8) {
            const int d = std::abs(int((a.pixels[i] >> shift) & 0xff) - int((b.pixels[i] >> shift) & 0xff));
            largest = std::max(largest, d), total += shift < 24 ? d : 0;
        }
    return {largest, total / (3.0 * static_cast<double>(a.pixels.size()))};
}

// ---- the resampler's ways of being fed ----

// Rows go in one by one, as a decoder gives them; every way RowTarget can
// work (whole source with helper threads, a window of rows, a window of rows
// already narrowed) must give Lanczos-3 to within one level.
TEST(ScaledDecode, EveryWayOfFeedingRowsMatchesTheReference) {
    using namespace ImageCodec::detail;
    // Name, size, size wanted, opaque, and whether the decoder claims the whole
    // budget, so only a window of rows is kept.
    const std::tuple<const char*, int, int, int, int, bool, bool> cases[] = {
        {"whole, with helpers", 1000, 1000, 400, 400, false, false},
        {"whole, small", 300, 200, 120, 80, true, false},
        {"window", 600, 400, 250, 167, false, true},
        {"window of narrowed rows", 250000, 17, 1400, 1, true, true},
        {"nothing to scale", 90, 60, 90, 60, false, false},
    };
    for (const auto& [name, width, height, toWidth, toHeight, opaque, tight] : cases) {
        const Image source = test::patternImage(width, height, opaque);
        RowTarget target(width, height, toWidth, toHeight, tight ? decodeBudget : 0);
        EXPECT_EQ(target.whole() == nullptr, tight) << name;
        for (int y = 0; y < height; ++y) {
            std::memcpy(target.row(y), &source.pixels[static_cast<std::size_t>(y) * width],
                        static_cast<std::size_t>(width) * 4);
            target.rowsDone(y + 1);
        }
        const std::optional<Image> result = target.finish(opaque);
        ASSERT_TRUE(result) << name;
        EXPECT_LE(differences(*result, referenceResample(source, toWidth, toHeight)).first, 1) << name;
    }
}

// A whole image resampled at once, shrinking and growing along either axis and
// on widths that do not fill a vector, is held to the same reference.
TEST(ScaledDecode, ResamplingAWholeImageMatchesTheReference) {
    const int sizes[][4] = {{1200, 600, 600, 300}, {4000, 1, 200, 1}, {1, 900, 1, 7}, {640, 480, 640, 240}, {33, 17, 100, 80},
                            {40000, 2, 300, 1}, {41, 23, 13, 7}, {5, 3, 17, 9}, {41, 23, 41, 9}, {41, 23, 18, 23}};
    for (const auto& [fromWidth, fromHeight, toWidth, toHeight] : sizes) {
        for (const bool opaque : {true, false}) {
            const Image source = test::patternImage(fromWidth, fromHeight, opaque);
            const auto result = ImageCodec::resample(source, toWidth, toHeight);
            ASSERT_TRUE(result && result->opaque == opaque);
            EXPECT_LE(differences(*result, referenceResample(source, toWidth, toHeight)).first, 1)
                << fromWidth << "x" << fromHeight << " to " << toWidth << "x" << toHeight << (opaque ? "" : " with alpha");
        }
    }
    const Image image = test::quadrantImage(10, 10);
    for (const auto& [width, height] : {std::pair{0, 5}, {5, -1}, {2'000'000, 1}})  // the last beyond maxDimension
        EXPECT_FALSE(ImageCodec::resample(image, width, height)) << width << "x" << height;
    EXPECT_FALSE(ImageCodec::resample(Image{}, 5, 5));
}

// The AVX2 kernels are chosen at run time; where the machine has them they
// must give the portable kernels' bytes exactly.
TEST(ScaledDecode, AVX2KernelsGiveThePortableBytes) {
    using namespace ImageCodec::detail;
    const RowKernels* avx2 = avx2Kernels();
    if (!avx2) GTEST_SKIP() << "no AVX2 here";
    std::mt19937 random(15);
    for (const auto& [from, to] : {std::pair{1000, 333}, {257, 100}, {50, 49}, {40, 97}, {20000, 7}}) {
        std::vector<std::uint32_t> row(static_cast<std::size_t>(from));
        for (auto& p : row) p = random();
        const AxisWeights table = weightsFor(from, to);
        // Columns: `count` rows of `from` pixels each, weighted by the first output's taps.
        const int count = std::min(table.count[0], 64);
        const std::size_t bytes = static_cast<std::size_t>(from) * 4 + 3;
        std::vector<std::uint8_t> rows(static_cast<std::size_t>(count) * bytes);
        for (auto& byte : rows) byte = static_cast<std::uint8_t>(random());
        std::vector<const std::uint8_t*> pointers;
        for (int i = 0; i < count; ++i) pointers.push_back(&rows[static_cast<std::size_t>(i) * bytes]);
        const auto outputs = [&](const RowKernels& kernels) {
            std::vector<std::uint32_t> scaled(static_cast<std::size_t>(to)), clamped = row;
            std::vector<std::uint8_t> columns(bytes);
            kernels.rows(row.data(), table, scaled.data());
            kernels.columns(pointers.data(), table.weights.data(), count, bytes, columns.data());
            kernels.clampToAlpha(clamped.data(), clamped.size());
            return std::tuple(scaled, columns, clamped);
        };
        EXPECT_EQ(outputs(portableKernels()), outputs(*avx2)) << from << "→" << to;
    }
}

// ---- whole files ----

TEST(ScaledFile, PNGDecodedSmallerMatchesTheReferenceOnTheFullDecode) {
    for (const bool opaque : {true, false}) {
        const auto png = test::encodeImageFile(test::patternImage(800, 500, opaque), ImageFileFormat::png);
        const auto full = ImageCodec::decode(png);
        const auto small = ImageCodec::decode(png, 300);
        ASSERT_TRUE(full && small);
        EXPECT_EQ(std::tuple(small->width, small->height, small->opaque), std::tuple(300, 188, opaque));
        EXPECT_LE(differences(*small, referenceResample(*full, 300, 188)).first, 1) << opaque;
        // An image that fits is left alone.
        EXPECT_EQ(ImageCodec::decode(png, 800).value().pixels, full->pixels);
    }
}

TEST(ScaledFile, JPEGDecodedThroughDCTScalingStaysCloseToTheFullDecode) {
    // Photo-like: smooth colour everywhere, the pattern picture blown up from a sixteenth.
    const Image photo = *ImageCodec::resample(*ImageCodec::resample(test::patternImage(1600, 1200), 100, 75), 1600, 1200);
    const auto jpeg = test::encodeImageFile(photo, ImageFileFormat::jpeg);
    const auto full = ImageCodec::decode(jpeg);
    ASSERT_TRUE(full);
    for (const int edge : {1000, 700, 400, 160}) {  // the decoder scales by 5/8, 1/2, 1/4, 1/8
        const auto small = ImageCodec::decode(jpeg, edge);
        ASSERT_TRUE(small);
        const auto expected = ImageCodec::resample(*full, small->width, small->height);
        ASSERT_TRUE(expected);
        EXPECT_EQ(std::pair(small->width, small->height), std::pair(edge, edge * 3 / 4));
        EXPECT_LE(differences(*small, *expected).second, 2.0) << edge;
    }
}

TEST(ScaledFile, JPEGsStandUprightByTheirEXIFOrientation) {
    // The quadrants as stored: red top-left, green top-right, blue bottom-left, white bottom-right.
    const RGBA red{255, 0, 0, 255}, green{0, 255, 0, 255}, blue{0, 0, 255, 255}, white{255, 255, 255, 255};
    const std::tuple<int, RGBA, RGBA> cases[] = {  // orientation, and the colours then top left and top right
        {1, red, green}, {2, green, red}, {3, white, blue}, {4, blue, white},
        {5, red, blue},  {6, blue, red},  {7, white, green}, {8, green, white}};
    const auto plain = test::encodeImageFile(test::quadrantImage(160, 120), ImageFileFormat::jpeg);
    for (const auto& [orientation, topLeft, topRight] : cases) {
        // An APP1 segment of EXIF data: a big-endian TIFF whose one entry is the orientation.
        std::vector<std::uint8_t> jpeg = plain;
        jpeg.insert(jpeg.begin() + 2, {0xff, 0xe1, 0, 34, 'E', 'x', 'i', 'f', 0, 0, 'M', 'M', 0, 42, 0, 0, 0, 8, 0, 1, 0x01, 0x12, 0, 3,
                                       0, 0, 0, 1, 0, static_cast<std::uint8_t>(orientation), 0, 0, 0, 0, 0, 0});
        const bool turned = orientation >= 5;
        for (const int edge : {0, 80}) {  // the fitted size is that of the upright picture
            const auto image = ImageCodec::decode(jpeg, edge);
            ASSERT_TRUE(image) << orientation;
            const int longSide = edge ? 80 : 160, shortSide = edge ? 60 : 120;
            EXPECT_EQ(std::pair(image->width, image->height), turned ? std::pair(shortSide, longSide) : std::pair(longSide, shortSide))
                << orientation;
            const int inset = image->width / 8;
            EXPECT_TRUE(test::near(test::colorAt(*image, inset, inset), topLeft, 16)) << orientation;
            EXPECT_TRUE(test::near(test::colorAt(*image, image->width - 1 - inset, inset), topRight, 16)) << orientation;
        }
    }
}

// An animated WebP as libwebp's animation encoder writes it: a red 40×30 first
// frame at (20, 10) on a clear 80×60 canvas (the encoder keeps just that
// rectangle), then the whole canvas blue.
std::vector<std::uint8_t> animatedWebP() {
    WebPAnimEncoderOptions options;
    WebPAnimEncoderOptionsInit(&options);
    const std::unique_ptr<WebPAnimEncoder, void (*)(WebPAnimEncoder*)> encoder(WebPAnimEncoderNew(80, 60, &options),
                                                                               WebPAnimEncoderDelete);
    WebPConfig config;
    WebPConfigInit(&config);
    for (int frame = 0; frame < 2; ++frame) {
        Image canvas = test::solidImage(80, 60, frame ? RGBA{0, 0, 255} : RGBA{0, 0, 0, 0});
        for (int y = 10; y < 40 && !frame; ++y) std::fill_n(&canvas.pixels[y * 80 + 20], 40, 0xffff0000u);
        WebPPicture picture;
        WebPPictureInit(&picture);
        picture.use_argb = 1, picture.width = 80, picture.height = 60;
        WebPPictureImportBGRA(&picture, reinterpret_cast<const std::uint8_t*>(canvas.pixels.data()), 80 * 4);
        EXPECT_TRUE(WebPAnimEncoderAdd(encoder.get(), &picture, frame * 100, &config));
        WebPPictureFree(&picture);
    }
    WebPData data;
    WebPDataInit(&data);
    EXPECT_TRUE(WebPAnimEncoderAdd(encoder.get(), nullptr, 200, nullptr) && WebPAnimEncoderAssemble(encoder.get(), &data));
    std::vector<std::uint8_t> file(data.bytes, data.bytes + data.size);
    WebPDataClear(&data);
    return file;
}

TEST(ScaledFile, AnAnimatedWebPGivesItsFirstFrameOnItsCanvas) {
    const auto webp = animatedWebP();
    EXPECT_EQ(ImageCodec::dimensions(webp), (std::pair{80, 60}));
    for (const int edge : {0, 40}) {
        const auto image = ImageCodec::decode(webp, edge);
        ASSERT_TRUE(image) << edge;
        const int scale = edge ? 2 : 1;
        EXPECT_EQ(std::pair(image->width, image->opaque), std::pair(80 / scale, false));
        EXPECT_TRUE(test::near(test::colorAt(*image, 40 / scale, 25 / scale), {255, 0, 0, 255}, 16)) << edge;
        EXPECT_EQ(test::colorAt(*image, 4 / scale, 4 / scale).a, 0) << edge;  // outside the frame: clear
    }
}

}  // namespace
}  // namespace mirel
