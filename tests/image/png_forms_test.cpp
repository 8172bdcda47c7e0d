// Every form a PNG may take, written by libpng (other programs' files, not
// ours), read back by the decoder: colour types, bit depths, palettes, tRNS
// and Adam7 interlacing.
#include <gtest/gtest.h>
#include <png.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "core/image/image.h"
#include "tests/support/image_files.h"

namespace mirel {
namespace {

enum Kind { grey = PNG_COLOR_TYPE_GRAY, rgb = PNG_COLOR_TYPE_RGB, palette = PNG_COLOR_TYPE_PALETTE,
            greyAlpha = PNG_COLOR_TYPE_GRAY_ALPHA, rgba = PNG_COLOR_TYPE_RGB_ALPHA };

struct Form {
    Kind kind;
    int depth;
    bool transparency;  // a tRNS chunk
    bool interlaced;
};

constexpr int width = 19, height = 13;  // odd, so Adam7's passes and packed bits end mid-byte

// What pixel (x, y) of a form holds: its samples as stored and its colour as
// straight 8-bit RGBA. Samples are chosen so 16 bits and low depths map
// exactly onto 8 bits.
struct Pixel {
    std::vector<unsigned> samples;
    unsigned r, g, b, a;
};

unsigned paletteColour(unsigned k, int c) { return (k * (40 + 30 * c) + 17 * c) & 0xff; }
unsigned paletteAlpha(unsigned k) { return (k * 77 + 5) & 0xff; }

Pixel pixelOf(const Form& f, int x, int y) {
    const unsigned wide = f.depth == 16 ? 257 : 1;
    const unsigned v = (x * 13 + y * 7) & 0xff, r = (x * 13) & 0xff, g = (y * 17) & 0xff, b = (x * y * 5) & 0xff;
    const unsigned a = (x * 20 + y * 3) & 0xff;
    switch (f.kind) {
        case grey:
            if (f.depth < 8) {
                const unsigned top = (1u << f.depth) - 1, s = (x + 2 * y) & top;
                return {{s}, s * 255 / top, s * 255 / top, s * 255 / top, 255};
            }
            return {{v * wide}, v, v, v, 255};
        case rgb: return {{r * wide, g * wide, b * wide}, r, g, b, 255};
        case palette: {
            const unsigned k = (x + 3 * y) & ((1u << f.depth) - 1);
            return {{k}, paletteColour(k, 0), paletteColour(k, 1), paletteColour(k, 2), f.transparency ? paletteAlpha(k) : 255};
        }
        case greyAlpha: return {{v * wide, a * wide}, v, v, v, a};
        default: return {{r * wide, g * wide, b * wide, a * wide}, r, g, b, a};
    }
}

// libpng's write handles, released together.
struct Writer {
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    ~Writer() { png_destroy_write_struct(&png, &info); }
};

// libpng reports errors by longjmp: nothing with a destructor lives in this frame.
bool writeRows(png_structp png, png_infop info, const Form* f, png_bytepp rows, png_colorp colours, png_bytep alphas,
               png_color_16p key, std::string* out) {
    if (setjmp(png_jmpbuf(png))) return false;
    const auto append = [](png_structp png, png_bytep data, png_size_t size) {
        static_cast<std::string*>(png_get_io_ptr(png))->append(reinterpret_cast<const char*>(data), size);
    };
    png_set_write_fn(png, out, append, nullptr);
    png_set_IHDR(png, info, width, height, f->depth, f->kind, f->interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_BASE, PNG_FILTER_TYPE_BASE);
    // RGB forms carry a suggested palette too, which must not be taken for their own.
    if (f->kind == palette || f->kind == rgb) png_set_PLTE(png, info, colours, f->kind == rgb ? 256 : 1 << f->depth);
    if (f->transparency) png_set_tRNS(png, info, alphas, f->kind == palette ? 1 << f->depth : 0, key);
    png_set_rows(png, info, rows);
    png_write_png(png, info, PNG_TRANSFORM_PACKING, nullptr);
    return true;
}

std::vector<std::uint8_t> writePNG(const Form& f) {
    // One byte a sample below 16 bits: libpng packs low depths itself.
    std::vector<std::vector<png_byte>> data(height);
    std::vector<png_bytep> rows;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            for (unsigned s : pixelOf(f, x, y).samples) {
                if (f.depth == 16) data[y].push_back(static_cast<png_byte>(s >> 8));
                data[y].push_back(static_cast<png_byte>(s));
            }
        }
        rows.push_back(data[y].data());
    }
    std::vector<png_color> colours(256);
    std::vector<png_byte> alphas(256);
    for (unsigned k = 0; k < 256; ++k) {
        colours[k] = {static_cast<png_byte>(paletteColour(k, 0)), static_cast<png_byte>(paletteColour(k, 1)),
                      static_cast<png_byte>(paletteColour(k, 2))};
        alphas[k] = static_cast<png_byte>(paletteAlpha(k));
    }
    // Grey and RGB forms make the colour of pixel (1, 1) the transparent one.
    const auto keyed = pixelOf(f, 1, 1).samples;
    const auto sample = [&keyed](std::size_t i) { return static_cast<png_uint_16>(i < keyed.size() ? keyed[i] : 0); };
    png_color_16 key{0, sample(0), sample(1), sample(2), sample(0)};  // index, red, green, blue, grey
    Writer writer;
    std::string out;
    if (!writer.info || !writeRows(writer.png, writer.info, &f, rows.data(), colours.data(), alphas.data(), &key, &out)) {
        ADD_FAILURE() << "libpng could not write the form";
    }
    return {out.begin(), out.end()};
}

TEST(PNGForms, EveryColourTypeDepthAndInterlaceReadsBackExactly) {
    const Form forms[] = {
        {grey, 1, false, false},    {grey, 2, false, true},     {grey, 4, false, false},  {grey, 8, true, false},
        {grey, 16, false, true},    {rgb, 8, true, true},       {rgb, 16, true, false},   {palette, 1, false, false},
        {palette, 2, true, false},  {palette, 4, false, true},  {palette, 8, true, true}, {greyAlpha, 8, false, false},
        {greyAlpha, 16, false, true}, {rgba, 8, false, true},   {rgba, 16, false, false},
    };
    for (const Form& f : forms) {
        const std::string name = "type " + std::to_string(f.kind) + " depth " + std::to_string(f.depth) +
                                 (f.transparency ? " tRNS" : "") + (f.interlaced ? " Adam7" : "");
        const auto image = ImageCodec::decode(writePNG(f));
        ASSERT_TRUE(image && image->width == width && image->height == height) << name;
        const auto keyed = pixelOf(f, 1, 1).samples;
        bool opaque = true;
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                Pixel p = pixelOf(f, x, y);
                if (f.transparency && f.kind != palette && p.samples == keyed) p.r = p.g = p.b = p.a = 0;
                opaque = opaque && p.a == 255;
                auto times = [&p](unsigned c) { return (c * p.a + 127) / 255; };
                const std::uint32_t expected = (p.a << 24) | (times(p.r) << 16) | (times(p.g) << 8) | times(p.b);
                ASSERT_EQ(image->at(x, y), expected) << name << " at " << x << "," << y;
            }
        }
        EXPECT_EQ(image->opaque, opaque) << name;
    }
}

// Rows are unfiltered two at a time, the second against the first: every
// ordered pair of filters meets there, on noise that leads Paeth every way,
// for RGB and RGBA, with a last row left over; and again with data to spare
// after the last row, which zlib then reads row by row.
TEST(PNGForms, EveryPairOfRowFiltersReadsBackExactly) {
    constexpr int wide = 37, rows = 51;
    std::minstd_rand noise(7);
    for (const int bpp : {3, 4}) {
        std::vector<std::vector<std::uint8_t>> raw(rows, std::vector<std::uint8_t>(wide * bpp));
        for (auto& row : raw) for (auto& byte : row) byte = static_cast<std::uint8_t>(noise() >> 8);
        std::vector<std::uint8_t> data;
        for (int y = 0; y < rows; ++y) {
            const int type = y == rows - 1 ? 4 : y % 2 ? y / 2 % 5 : y / 10;
            data.push_back(static_cast<std::uint8_t>(type));
            const auto at = [&](int row, int i) { return row >= 0 && i >= 0 ? raw[row][i] : 0; };
            for (int i = 0; i < wide * bpp; ++i) {
                // The five filters by the format's own definitions.
                const int a = at(y, i - bpp), b = at(y - 1, i), c = at(y - 1, i - bpp), p = a + b - c;
                const int pa = std::abs(p - a), pb = std::abs(p - b), pc = std::abs(p - c);
                const int predicted[] = {0, a, b, (a + b) / 2, pa <= pb && pa <= pc ? a : pb <= pc ? b : c};
                data.push_back(static_cast<std::uint8_t>(raw[y][i] - predicted[type]));
            }
        }
        for (const std::size_t spare : {0, 9}) {
            data.resize(data.size() + spare);
            const auto image = ImageCodec::decode(test::pngFromRows(wide, rows, bpp == 3 ? rgb : rgba, false, data));
            ASSERT_TRUE(image) << bpp;
            for (int y = 0; y < rows; ++y) {
                for (int x = 0; x < wide; ++x) {
                    const std::uint8_t* p = raw[y].data() + x * bpp;
                    const unsigned a = bpp == 4 ? p[3] : 255;
                    auto times = [a](unsigned c) { return (c * a + 127) / 255; };
                    ASSERT_EQ(image->at(x, y), (a << 24) | (times(p[0]) << 16) | (times(p[1]) << 8) | times(p[2]))
                        << bpp << " bytes a pixel, " << spare << " spare, at " << x << "," << y;
                }
            }
        }
    }
}

// A 4×4 interlaced RGB file around the given filtered rows.
std::vector<std::uint8_t> interlacedFile(const std::vector<std::uint8_t>& rows) {
    return test::pngFromRows(4, 4, PNG_COLOR_TYPE_RGB, true, rows);
}

TEST(PNGForms, AnInterlacedImageWithAMissingOrBadRowOrABadHeaderIsRefused) {
    // Adam7 over 4×4 pixels: passes of 1×1, 1×1, 2×1, 2×2 and 4×2, each row a filter byte and 3 per pixel.
    const std::vector<std::uint8_t> whole(2 * 4 + 3 * 7 + 2 * 13, 0);
    ASSERT_TRUE(ImageCodec::decode(interlacedFile(whole)));
    std::vector<std::uint8_t> shortOfOneByte(whole.begin(), whole.end() - 1), badFilter = whole;
    badFilter[2 * 4 + 3 * 7] = 5;  // the last pass's first row
    EXPECT_FALSE(ImageCodec::decode(interlacedFile(shortOfOneByte)));
    EXPECT_FALSE(ImageCodec::decode(interlacedFile(badFilter)));
    EXPECT_FALSE(ImageCodec::decode(test::pngFromRows(4, 4, 5, true, whole)));  // a colour type PNG does not have
}

}  // namespace
}  // namespace mirel
