#include "tests/support/image_files.h"

#include <algorithm>
#include <cstdlib>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>

#include <jpeglib.h>
#include <webp/encode.h>
#include <zlib.h>

namespace mirel::test {

namespace {

// libjpeg's own error handler ends the program; it is only ever given pictures it can write.
// CMYK is written as Adobe's tools write it: inverted inks, here without black,
// so that each ink byte is its colour's own byte.
std::vector<std::uint8_t> encodeJPEG(const Image& image, bool cmyk) {
    jpeg_compress_struct info{};
    jpeg_error_mgr errors{};
    info.err = jpeg_std_error(&errors);
    jpeg_create_compress(&info);
    unsigned char* out = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&info, &out, &size);
    info.image_width = static_cast<JDIMENSION>(image.width);
    info.image_height = static_cast<JDIMENSION>(image.height);
    info.input_components = 4;
    info.in_color_space = cmyk ? JCS_CMYK : JCS_EXT_BGRX;  // native ARGB words on little-endian machines
    jpeg_set_defaults(&info);  // with the Adobe marker for CMYK
    jpeg_set_quality(&info, 92, TRUE);
    jpeg_start_compress(&info, TRUE);
    while (info.next_scanline < info.image_height) {
        auto* row = const_cast<JSAMPROW>(
            reinterpret_cast<const JSAMPLE*>(image.pixels.data() + std::size_t{info.next_scanline} * image.width));
        std::vector<JSAMPLE> inks;
        for (int x = 0; cmyk && x < image.width; ++x) {
            const RGBA c = colorAt(image, x, static_cast<int>(info.next_scanline));
            inks.insert(inks.end(), {JSAMPLE(c.r), JSAMPLE(c.g), JSAMPLE(c.b), 255});
        }
        if (cmyk) row = inks.data();
        jpeg_write_scanlines(&info, &row, 1);
    }
    jpeg_finish_compress(&info);
    jpeg_destroy_compress(&info);
    const std::unique_ptr<unsigned char, void (*)(void*)> owner(out, std::free);
    return {out, out + size};
}

std::vector<std::uint8_t> encodeWebP(const Image& image) {
    std::vector<std::uint8_t> rgba;  // WebP takes straight alpha
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x) {
            const RGBA c = colorAt(image, x, y);
            for (const int channel : {c.r, c.g, c.b, c.a}) rgba.push_back(static_cast<std::uint8_t>(channel));
        }
    std::uint8_t* output = nullptr;
    const std::size_t size = WebPEncodeRGBA(rgba.data(), image.width, image.height, image.width * 4, 90, &output);
    std::unique_ptr<std::uint8_t, void (*)(void*)> owner(output, WebPFree);
    if (size == 0) throw std::runtime_error("WebP encoding failed");
    return {output, output + size};
}

}  // namespace

Image quadrantImage(int width, int height) {
    Image image = solidImage(width, height, {});
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const bool right = x >= width / 2, bottom = y >= height / 2;
            image.pixels[static_cast<std::size_t>(y) * width + x] =
                bottom ? (right ? 0xffffffffu : 0xff0000ffu) : (right ? 0xff00ff00u : 0xffff0000u);
        }
    return image;
}

Image solidImage(int width, int height, RGBA c) {
    auto times = [&](int v) { return static_cast<std::uint32_t>((v * c.a + 127) / 255); };
    const std::uint32_t word = (static_cast<std::uint32_t>(c.a) << 24) | (times(c.r) << 16) | (times(c.g) << 8) | times(c.b);
    return Image{width, height, std::vector<std::uint32_t>(static_cast<std::size_t>(width) * height, word), c.a == 255};
}

Image patternImage(int width, int height, bool opaque) {
    Image image{width, height, std::vector<std::uint32_t>(static_cast<std::size_t>(width) * height), opaque};
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const std::uint32_t r = static_cast<std::uint32_t>(x * 255 / std::max(1, width - 1));
            const std::uint32_t g = (y / 7) % 2 ? 230 : static_cast<std::uint32_t>(y * 200 / std::max(1, height - 1));
            const std::uint32_t b = static_cast<std::uint32_t>((x * 7 + y * 13) ^ (x * y)) & 0xff;
            std::uint32_t a = 255;
            if (!opaque) a = (x / 16) % 5 == 0 ? 0 : 64 + static_cast<std::uint32_t>(y * 191 / std::max(1, height - 1));
            auto times = [a](std::uint32_t c) { return (c * a + 127) / 255; };
            image.pixels[static_cast<std::size_t>(y) * width + x] = (a << 24) | (times(r) << 16) | (times(g) << 8) | times(b);
        }
    }
    return image;
}

std::vector<std::uint8_t> encodeImageFile(const Image& image, ImageFileFormat format) {
    switch (format) {
        case ImageFileFormat::png: {
            auto png = ImageCodec::encodePNG(image);
            if (!png) throw std::runtime_error("PNG encoding failed");
            return std::move(*png);
        }
        case ImageFileFormat::jpeg: return encodeJPEG(image, false);
        case ImageFileFormat::cmykJpeg: return encodeJPEG(image, true);
        case ImageFileFormat::webp: return encodeWebP(image);
    }
    return {};
}

void writeImageFile(const std::filesystem::path& path, int width, int height, ImageFileFormat format) {
    const auto bytes = encodeImageFile(quadrantImage(width, height), format);
    writeBytes(path, std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

void writeBytes(const std::filesystem::path& path, std::string_view bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot write " + path.string());
}

std::string readBytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path.string());
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::uint8_t> decodeBase64(std::string_view text) {
    static const std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    if (text.size() % 4 != 0) throw std::runtime_error("base64 length is not a multiple of 4");
    std::vector<std::uint8_t> out;
    std::uint32_t bits = 0;
    int held = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        // Padding: one or two "=" that end the text.
        if (text[i] == '=' && i + 2 >= text.size() && text.back() == '=') break;
        const std::size_t value = alphabet.find(text[i]);
        if (value == std::string_view::npos) throw std::runtime_error("bad base64 character");
        bits = bits << 6 | static_cast<std::uint32_t>(value);
        if ((held += 6) >= 8) out.push_back(static_cast<std::uint8_t>(bits >> (held -= 8)));
    }
    return out;
}

RGBA colorAt(const Image& image, int x, int y) {
    const std::uint32_t p = image.at(x, y);
    const int a = static_cast<int>(p >> 24);
    auto straight = [a](std::uint32_t c) { return a == 0 ? 0 : static_cast<int>((c * 255 + a / 2) / a); };
    return {std::min(255, straight((p >> 16) & 0xff)), std::min(255, straight((p >> 8) & 0xff)),
            std::min(255, straight(p & 0xff)), a};
}

bool near(RGBA a, RGBA b, int tolerance) {
    return std::abs(a.r - b.r) <= tolerance && std::abs(a.g - b.g) <= tolerance &&
           std::abs(a.b - b.b) <= tolerance && std::abs(a.a - b.a) <= tolerance;
}

std::vector<std::uint8_t> pngFromRows(int width, int height, int colorType, bool interlaced,
                                      const std::vector<std::uint8_t>& rows) {
    std::vector<std::uint8_t> out{0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    const auto bigEndian = [](std::vector<std::uint8_t>& to, std::uint32_t value) {
        for (int shift = 24; shift >= 0; shift -= 8) to.push_back(static_cast<std::uint8_t>(value >> shift));
    };
    const auto chunk = [&](const char* type, const std::vector<std::uint8_t>& data) {
        bigEndian(out, static_cast<std::uint32_t>(data.size()));
        const std::size_t start = out.size();
        out.insert(out.end(), type, type + 4);
        out.insert(out.end(), data.begin(), data.end());
        bigEndian(out, static_cast<std::uint32_t>(crc32(0, out.data() + start, static_cast<uInt>(out.size() - start))));
    };
    std::vector<std::uint8_t> header;
    bigEndian(header, static_cast<std::uint32_t>(width));
    bigEndian(header, static_cast<std::uint32_t>(height));
    header.insert(header.end(), {8, static_cast<std::uint8_t>(colorType), 0, 0, static_cast<std::uint8_t>(interlaced)});
    chunk("IHDR", header);
    uLongf size = compressBound(rows.size());
    std::vector<std::uint8_t> packed(size);
    if (compress2(packed.data(), &size, rows.data(), rows.size(), 1) != Z_OK) throw std::runtime_error("zlib failed");
    packed.resize(size);
    chunk("IDAT", packed);
    chunk("IEND", {});
    return out;
}

}  // namespace mirel::test
