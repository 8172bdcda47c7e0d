// JPEG through libjpeg-turbo. Its default error handler calls exit(); ours
// jumps back instead, into small functions that hold nothing with a
// destructor, and the decompressor is released by an RAII owner.
#include <csetjmp>
#include <cstdio>  // jpeglib.h needs FILE
#include <new>

#include <jerror.h>
#include <jpeglib.h>

#include <bit>

#include "core/image/codecs.h"

namespace mirel::ImageCodec {

namespace {

struct ErrorManager {
    jpeg_error_mgr base;
    std::jmp_buf jump;
    bool truncated;
};

[[noreturn]] void errorExit(j_common_ptr info) {
    std::longjmp(reinterpret_cast<ErrorManager*>(info->err)->jump, 1);
}

void emitMessage(j_common_ptr info, int level) {
    // libjpeg pads a file that ends early with grey and only warns; a cut-off
    // file is unreadable to us, as it is for PNG.
    auto* errors = reinterpret_cast<ErrorManager*>(info->err);
    if (level < 0 && errors->base.msg_code == JWRN_JPEG_EOF) errors->truncated = true;
}

void outputNothing(j_common_ptr) {}

class Decompressor {
public:
    Decompressor() {
        info.err = jpeg_std_error(&errors.base);
        errors.base.error_exit = errorExit;
        errors.base.emit_message = emitMessage;
        errors.base.output_message = outputNothing;
        errors.truncated = false;
        created = create(&info, &errors);
    }
    ~Decompressor() {
        if (created) jpeg_destroy_decompress(&info);
    }
    Decompressor(const Decompressor&) = delete;
    Decompressor& operator=(const Decompressor&) = delete;

    jpeg_decompress_struct info{};
    ErrorManager errors{};
    bool created = false;

private:
    static bool create(jpeg_decompress_struct* info, ErrorManager* errors) {
        if (setjmp(errors->jump)) return false;
        jpeg_create_decompress(info);
        return true;
    }
};

bool readHeader(jpeg_decompress_struct* info, ErrorManager* errors, const std::uint8_t* bytes,
                std::size_t size) {
    if (setjmp(errors->jump)) return false;
    jpeg_mem_src(info, bytes, static_cast<unsigned long>(size));
    return jpeg_read_header(info, TRUE) == JPEG_HEADER_OK;
}

bool isCMYK(const jpeg_decompress_struct* info) {
    return info->jpeg_color_space == JCS_CMYK || info->jpeg_color_space == JCS_YCCK;
}

// CMYK as Adobe writes it (inverted) to native ARGB words.
void cmykRow(const JSAMPLE* in, bool inverted, int width, std::uint32_t* out) {
    for (int x = 0; x < width; ++x, in += 4) {
        std::uint32_t c = in[0], m = in[1], y = in[2], k = in[3];
        if (!inverted) {
            c = 255 - c;
            m = 255 - m;
            y = 255 - y;
            k = 255 - k;
        }
        const std::uint32_t r = (c * k + 127) / 255, g = (m * k + 127) / 255, b = (y * k + 127) / 255;
        out[x] = 0xff000000u | (r << 16) | (g << 8) | b;
    }
}

bool readPixels(jpeg_decompress_struct* info, ErrorManager* errors, Image* image, JSAMPLE* cmykBuffer) {
    if (setjmp(errors->jump)) return false;
    const bool cmyk = isCMYK(info);
    if (cmyk) {
        info->out_color_space = JCS_CMYK;
    } else {
        // libjpeg-turbo writes B G R A bytes (the native word on little-endian
        // machines) or A R G B, with alpha 255.
        info->out_color_space = std::endian::native == std::endian::little ? JCS_EXT_BGRA : JCS_EXT_ARGB;
    }
    jpeg_start_decompress(info);
    if (info->output_width != static_cast<JDIMENSION>(image->width) ||
        info->output_height != static_cast<JDIMENSION>(image->height)) {
        return false;
    }
    while (info->output_scanline < info->output_height) {
        std::uint32_t* row = image->pixels.data() + std::size_t{info->output_scanline} * image->width;
        JSAMPROW target = cmyk ? cmykBuffer : reinterpret_cast<JSAMPROW>(row);
        if (jpeg_read_scanlines(info, &target, 1) != 1) return false;
        if (cmyk) cmykRow(cmykBuffer, info->saw_Adobe_marker, image->width, row);
        if (errors->truncated) return false;
    }
    jpeg_finish_decompress(info);
    return !errors->truncated;
}

}  // namespace

namespace detail {

std::optional<std::pair<int, int>> jpegDimensions(const std::uint8_t* bytes, std::size_t size) {
    Decompressor decompressor;
    if (!decompressor.created || !readHeader(&decompressor.info, &decompressor.errors, bytes, size)) {
        return std::nullopt;
    }
    const auto width = decompressor.info.image_width, height = decompressor.info.image_height;
    if (width == 0 || height == 0) return std::nullopt;
    return std::pair<int, int>{static_cast<int>(width), static_cast<int>(height)};
}

std::optional<Image> decodeJPEG(const std::uint8_t* bytes, std::size_t size) {
    Decompressor decompressor;
    if (!decompressor.created || !readHeader(&decompressor.info, &decompressor.errors, bytes, size)) {
        return std::nullopt;
    }
    const auto width = decompressor.info.image_width, height = decompressor.info.image_height;
    if (!sizeAllowed(width, height)) return std::nullopt;

    std::optional<Image> image = allocate(static_cast<int>(width), static_cast<int>(height));
    if (!image) return std::nullopt;
    std::vector<JSAMPLE> cmykBuffer;
    try {
        if (isCMYK(&decompressor.info)) cmykBuffer.resize(std::size_t{width} * 4);
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
    if (!readPixels(&decompressor.info, &decompressor.errors, &*image, cmykBuffer.data())) {
        return std::nullopt;
    }
    image->opaque = true;
    return image;
}

}  // namespace detail

}  // namespace mirel::ImageCodec
