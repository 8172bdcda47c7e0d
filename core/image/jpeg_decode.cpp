// JPEG through libjpeg-turbo. Its default error handler calls exit(); ours
// jumps back instead, into small functions that hold nothing with a
// destructor, and the decompressor is released by an RAII owner.
//
// A JPEG that is to be shown smaller is decoded smaller: libjpeg-turbo's DCT
// scaling, in eighths, to the least size that still covers the target, and
// the resampler does the rest. (Keeping to 1/2, 1/4 and 1/8, the sizes with
// SIMD inverse DCTs, was measured on a phone photo: it gains nothing, as the
// larger decode costs what the SIMD saves.) Rows stream into the
// resampler, so only a progressive file's coefficients (which libjpeg keeps
// for the whole image) grow with the file; those are held to the budget.
#include <csetjmp>
#include <cstdio>  // jpeglib.h needs FILE
#include <cstring>
#include <new>

#include <jerror.h>
#include <jpeglib.h>

#include <bit>

#include "core/image/codecs.h"
#include "core/image/orientation.h"
#include "core/image/row_target.h"

namespace mirel::ImageCodec::detail {

namespace {

struct ErrorManager {
    jpeg_error_mgr base;
    std::jmp_buf jump;
};

[[noreturn]] void errorExit(j_common_ptr info) {
    std::longjmp(reinterpret_cast<ErrorManager*>(info->err)->jump, 1);
}

void emitMessage(j_common_ptr info, int level) {
    // libjpeg pads a file that ends early with grey and only warns; a cut-off
    // file is unreadable to us, as it is for PNG, and is dropped at once
    // rather than decoded to its claimed size.
    if (level < 0 && info->err->msg_code == JWRN_JPEG_EOF) errorExit(info);
}

void outputNothing(j_common_ptr) {}

class Decompressor {
public:
    Decompressor() {
        info.err = jpeg_std_error(&errors.base);
        errors.base.error_exit = errorExit;
        errors.base.emit_message = emitMessage;
        errors.base.output_message = outputNothing;
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

bool readHeader(jpeg_decompress_struct* info, ErrorManager* errors, const std::uint8_t* bytes, std::size_t size) {
    if (setjmp(errors->jump)) return false;
    jpeg_mem_src(info, bytes, static_cast<unsigned long>(size));
    jpeg_save_markers(info, JPEG_APP0 + 1, 0xffff);  // EXIF
    return jpeg_read_header(info, TRUE) == JPEG_HEADER_OK;
}

Orientation orientationOf(const jpeg_decompress_struct* info) {
    for (jpeg_saved_marker_ptr marker = info->marker_list; marker; marker = marker->next) {
        if (marker->marker == JPEG_APP0 + 1 && marker->data_length > 6 &&
            std::memcmp(marker->data, "Exif\0\0", 6) == 0) {
            return exifOrientation(marker->data + 6, marker->data_length - 6);
        }
    }
    return 1;
}

bool isCMYK(const jpeg_decompress_struct* info) {
    return info->jpeg_color_space == JCS_CMYK || info->jpeg_color_space == JCS_YCCK;
}

// The bytes libjpeg keeps for a progressive image's coefficients: a block of
// 64 two-byte values for every 8×8 block of every component, whole MCUs.
std::size_t coefficientBytes(const jpeg_decompress_struct* info) {
    if (!info->progressive_mode && !info->buffered_image) return 0;
    std::size_t total = 0;
    for (int c = 0; c < info->num_components; ++c) {
        const jpeg_component_info& component = info->comp_info[c];
        auto roundUp = [](std::size_t value, std::size_t to) { return (value + to - 1) / to * to; };
        total += roundUp(component.width_in_blocks, static_cast<std::size_t>(component.h_samp_factor)) *
                 roundUp(component.height_in_blocks, static_cast<std::size_t>(component.v_samp_factor)) *
                 sizeof(JBLOCK);
    }
    return total;
}

// The smallest DCT scale, in eighths, whose result still covers
// width×height: libjpeg-turbo's inverse DCT then makes M×M pixels of each
// 8×8 block, and the resampler does the rest.
unsigned eighthsFor(const jpeg_decompress_struct* info, int width, int height) {
    for (unsigned eighths = 1; eighths < 8; ++eighths) {
        if ((info->image_width * eighths + 7) / 8 >= static_cast<unsigned>(width) &&
            (info->image_height * eighths + 7) / 8 >= static_cast<unsigned>(height)) {
            return eighths;
        }
    }
    return 8;
}

bool startDecompress(jpeg_decompress_struct* info, ErrorManager* errors, unsigned eighths) {
    if (setjmp(errors->jump)) return false;
    info->scale_num = eighths;
    info->scale_denom = 8;
    // libjpeg-turbo writes B G R A bytes (the native word on little-endian
    // machines) or A R G B, with alpha 255.
    info->out_color_space =
        isCMYK(info) ? JCS_CMYK : (std::endian::native == std::endian::little ? JCS_EXT_BGRA : JCS_EXT_ARGB);
    jpeg_calc_output_dimensions(info);
    return true;
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

bool readPixels(jpeg_decompress_struct* info, ErrorManager* errors, RowTarget* target, JSAMPLE* cmykBuffer) {
    if (setjmp(errors->jump)) return false;
    jpeg_start_decompress(info);
    if (info->output_width != static_cast<JDIMENSION>(target->width()) ||
        info->output_height != static_cast<JDIMENSION>(target->height())) {
        return false;
    }
    const bool cmyk = isCMYK(info);
    while (info->output_scanline < info->output_height) {
        const int y = static_cast<int>(info->output_scanline);
        std::uint32_t* row = target->row(y);
        JSAMPROW into = cmyk ? cmykBuffer : reinterpret_cast<JSAMPROW>(row);
        if (jpeg_read_scanlines(info, &into, 1) != 1) return false;
        if (cmyk) cmykRow(cmykBuffer, info->saw_Adobe_marker, target->width(), row);
        target->rowsDone(y + 1);
    }
    jpeg_finish_decompress(info);
    return true;
}

}  // namespace

std::optional<std::pair<int, int>> jpegDimensions(const std::uint8_t* bytes, std::size_t size) {
    Decompressor decompressor;
    if (!decompressor.created || !readHeader(&decompressor.info, &decompressor.errors, bytes, size)) {
        return std::nullopt;
    }
    const auto width = decompressor.info.image_width, height = decompressor.info.image_height;
    if (width == 0 || height == 0) return std::nullopt;
    return std::pair<int, int>{static_cast<int>(width), static_cast<int>(height)};
}

std::optional<Image> decodeJPEG(const std::uint8_t* bytes, std::size_t size, int maxEdge, EncodeAlong* along) {
    Decompressor decompressor;
    jpeg_decompress_struct* info = &decompressor.info;
    if (!decompressor.created || !readHeader(info, &decompressor.errors, bytes, size)) return std::nullopt;
    if (!sizeAllowed(info->image_width, info->image_height)) return std::nullopt;
    const int width = static_cast<int>(info->image_width), height = static_cast<int>(info->image_height);

    // The target is fitted upright, then turned back to the file's own axes.
    const Orientation orientation = orientationOf(info);
    const bool swapped = swapsAxes(orientation);
    auto [toWidth, toHeight] = targetSize(swapped ? height : width, swapped ? width : height, maxEdge);
    if (swapped) std::swap(toWidth, toHeight);

    const std::size_t coefficients = coefficientBytes(info);
    if (coefficients + static_cast<std::size_t>(toWidth) * toHeight * 4 > decodeBudget) return std::nullopt;
    info->mem->max_memory_to_use = static_cast<long>(decodeBudget);

    const unsigned eighths = toWidth == width && toHeight == height ? 8 : eighthsFor(info, toWidth, toHeight);
    if (!startDecompress(info, &decompressor.errors, eighths)) return std::nullopt;
    try {
        // Rows are encoded along only if they will not be turned afterwards.
        RowTarget target(static_cast<int>(info->output_width), static_cast<int>(info->output_height), toWidth,
                         toHeight, coefficients, 0, orientation == 1 ? along : nullptr);
        std::vector<JSAMPLE> cmykBuffer(isCMYK(info) ? std::size_t{info->output_width} * 4 : 0);
        if (!readPixels(info, &decompressor.errors, &target, cmykBuffer.data())) return std::nullopt;
        std::optional<Image> image = target.finish(true);
        if (!image || orientation == 1) return image;
        return upright(std::move(*image), orientation);
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
}

}  // namespace mirel::ImageCodec::detail
