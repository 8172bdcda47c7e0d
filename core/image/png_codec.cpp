// PNG through libpng. libpng reports errors by longjmp, so each step that can
// fail runs in a small function that holds nothing with a destructor: the
// jump may then unwind its frame without leaking or skipping cleanup. The
// structs themselves are released by RAII owners in the callers.
#include <png.h>

#include <bit>
#include <cstring>
#include <new>

#include "core/image/codecs.h"
#include "core/image/image.h"

namespace mirel::ImageCodec {

namespace {

constexpr bool littleEndian = std::endian::native == std::endian::little;

void onError(png_structp png, png_const_charp) { png_longjmp(png, 1); }
void onWarning(png_structp, png_const_charp) {}

// ---- decoding ----

struct MemorySource {
    const std::uint8_t* data;
    std::size_t size;
    std::size_t offset;
};

void readFromMemory(png_structp png, png_bytep out, png_size_t count) {
    auto* source = static_cast<MemorySource*>(png_get_io_ptr(png));
    if (source->size - source->offset < count) png_error(png, "truncated");
    std::memcpy(out, source->data + source->offset, count);
    source->offset += count;
}

class ReadStruct {
public:
    ReadStruct() {
        png_ = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, onError, onWarning);
        if (png_) info_ = png_create_info_struct(png_);
    }
    ~ReadStruct() {
        if (png_) png_destroy_read_struct(&png_, info_ ? &info_ : nullptr, nullptr);
    }
    ReadStruct(const ReadStruct&) = delete;
    ReadStruct& operator=(const ReadStruct&) = delete;
    png_structp png() const { return png_; }
    png_infop info() const { return info_; }
    explicit operator bool() const { return png_ && info_; }

private:
    png_structp png_ = nullptr;
    png_infop info_ = nullptr;
};

struct Header {
    png_uint_32 width;
    png_uint_32 height;
    bool mayHaveAlpha;
    png_size_t rowBytes;
};

// Reads the header and sets up conversion to native ARGB words, straight alpha.
bool readHeader(png_structp png, png_infop info, MemorySource* source, Header* header) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_set_read_fn(png, source, readFromMemory);
    png_set_user_limits(png, maxDimension, maxDimension);
    png_set_chunk_malloc_max(png, 8u << 20);
#ifdef PNG_IGNORE_ADLER32
    // Each chunk's CRC is still checked; zlib's own checksum over all the
    // pixels cost about a tenth of the decode, measured.
    png_set_option(png, PNG_IGNORE_ADLER32, PNG_OPTION_ON);
#endif
    png_read_info(png, info);

    const png_byte colorType = png_get_color_type(png, info);
    header->width = png_get_image_width(png, info);
    header->height = png_get_image_height(png, info);
    header->mayHaveAlpha =
        (colorType & PNG_COLOR_MASK_ALPHA) != 0 || png_get_valid(png, info, PNG_INFO_tRNS) != 0;

    png_set_expand(png);  // palette and low-bit grey to 8 bits, tRNS to alpha
    png_set_scale_16(png);
    png_set_gray_to_rgb(png);
    if constexpr (littleEndian) {
        png_set_bgr(png);  // B G R A in memory is the native ARGB word
        png_set_filler(png, 0xff, PNG_FILLER_AFTER);
    } else {
        png_set_swap_alpha(png);  // A R G B
        png_set_filler(png, 0xff, PNG_FILLER_BEFORE);
    }
    png_set_interlace_handling(png);
    png_read_update_info(png, info);
    header->rowBytes = png_get_rowbytes(png, info);
    return true;
}

bool readRows(png_structp png, png_bytepp rows) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_read_image(png, rows);
    return true;
}

// ---- encoding ----

void writeToVector(png_structp png, png_bytep data, png_size_t count) {
    auto* out = static_cast<std::vector<std::uint8_t>*>(png_get_io_ptr(png));
    bool grown = true;
    try {
        out->insert(out->end(), data, data + count);
    } catch (...) {
        grown = false;
    }
    if (!grown) png_error(png, "out of memory");
}

void flushNothing(png_structp) {}

class WriteStruct {
public:
    WriteStruct() {
        png_ = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, onError, onWarning);
        if (png_) info_ = png_create_info_struct(png_);
    }
    ~WriteStruct() {
        if (png_) png_destroy_write_struct(&png_, info_ ? &info_ : nullptr);
    }
    WriteStruct(const WriteStruct&) = delete;
    WriteStruct& operator=(const WriteStruct&) = delete;
    png_structp png() const { return png_; }
    png_infop info() const { return info_; }
    explicit operator bool() const { return png_ && info_; }

private:
    png_structp png_ = nullptr;
    png_infop info_ = nullptr;
};

// Straight-alpha R G B A bytes from premultiplied native words.
void unpremultiplyRow(const std::uint32_t* in, int width, png_bytep out) {
    for (int x = 0; x < width; ++x) {
        const std::uint32_t p = in[x];
        const std::uint32_t a = p >> 24;
        std::uint32_t r = (p >> 16) & 0xff, g = (p >> 8) & 0xff, b = p & 0xff;
        if (a != 255 && a != 0) {
            const std::uint32_t half = a / 2;
            r = std::min<std::uint32_t>(255, (r * 255 + half) / a);
            g = std::min<std::uint32_t>(255, (g * 255 + half) / a);
            b = std::min<std::uint32_t>(255, (b * 255 + half) / a);
        } else if (a == 0) {
            r = g = b = 0;
        }
        out[0] = static_cast<png_byte>(r);
        out[1] = static_cast<png_byte>(g);
        out[2] = static_cast<png_byte>(b);
        out[3] = static_cast<png_byte>(a);
        out += 4;
    }
}

struct EncodeSettings {
    int level;
    int filters;
    int strategy;
};

// Chosen by measurement on screenshot-like images (bench/image_encoder_bench):
// the Up filter at zlib level 1 costs a fraction of libpng's defaults for
// files about a third larger; adaptive filtering at level 6 is the small option.
EncodeSettings settingsFor(PNGCompression compression) {
    if (compression == PNGCompression::small) return {6, PNG_ALL_FILTERS, 0 /* Z_DEFAULT_STRATEGY */};
    return {1, PNG_FILTER_UP, 0};
}

bool writeImage(png_structp png, png_infop info, const Image* image, std::vector<std::uint8_t>* out,
                png_bytep rowBuffer, EncodeSettings settings) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_set_write_fn(png, out, writeToVector, flushNothing);
    png_set_compression_level(png, settings.level);
    png_set_compression_strategy(png, settings.strategy);
    png_set_filter(png, PNG_FILTER_TYPE_BASE, settings.filters);
    png_set_compression_buffer_size(png, 1u << 17);
    png_set_IHDR(png, info, static_cast<png_uint_32>(image->width), static_cast<png_uint_32>(image->height),
                 8, image->opaque ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_BASE, PNG_FILTER_TYPE_BASE);
    png_set_sRGB(png, info, PNG_sRGB_INTENT_PERCEPTUAL);
    png_write_info(png, info);
    if (image->opaque) {
        // libpng drops the alpha byte and reorders the channels itself, so rows
        // go straight from the image.
        if constexpr (littleEndian) {
            png_set_bgr(png);
            png_set_filler(png, 0, PNG_FILLER_AFTER);
        } else {
            png_set_filler(png, 0, PNG_FILLER_BEFORE);
        }
    }
    for (int y = 0; y < image->height; ++y) {
        const std::uint32_t* row = image->pixels.data() + static_cast<std::size_t>(y) * image->width;
        if (image->opaque) {
            png_write_row(png, reinterpret_cast<png_const_bytep>(row));
        } else {
            unpremultiplyRow(row, image->width, rowBuffer);
            png_write_row(png, rowBuffer);
        }
    }
    png_write_end(png, nullptr);
    return true;
}

}  // namespace

namespace detail {

std::optional<std::pair<int, int>> pngDimensions(const std::uint8_t* bytes, std::size_t size) {
    // Signature, then the IHDR chunk: length, type, width, height (big-endian).
    if (size < 24 || std::memcmp(bytes + 12, "IHDR", 4) != 0) return std::nullopt;
    auto word = [bytes](std::size_t at) {
        return (std::uint32_t{bytes[at]} << 24) | (std::uint32_t{bytes[at + 1]} << 16) |
               (std::uint32_t{bytes[at + 2]} << 8) | std::uint32_t{bytes[at + 3]};
    };
    const std::uint32_t width = word(16), height = word(20);
    if (width == 0 || height == 0 || width > 0x7fffffff || height > 0x7fffffff) return std::nullopt;
    return std::pair<int, int>{static_cast<int>(width), static_cast<int>(height)};
}

std::optional<Image> decodePNG(const std::uint8_t* bytes, std::size_t size) {
    // Refuse oversized images from the raw header before libpng allocates anything.
    const auto size2 = pngDimensions(bytes, size);
    if (!size2 || !sizeAllowed(size2->first, size2->second)) return std::nullopt;

    ReadStruct reader;
    if (!reader) return std::nullopt;
    MemorySource source{bytes, size, 0};
    Header header{};
    if (!readHeader(reader.png(), reader.info(), &source, &header)) return std::nullopt;
    if (!sizeAllowed(header.width, header.height) || header.rowBytes != std::size_t{header.width} * 4) {
        return std::nullopt;
    }

    std::optional<Image> image = allocate(static_cast<int>(header.width), static_cast<int>(header.height));
    if (!image) return std::nullopt;
    std::vector<png_bytep> rows;
    try {
        rows.resize(header.height);
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
    for (png_uint_32 y = 0; y < header.height; ++y) {
        rows[y] = reinterpret_cast<png_bytep>(image->pixels.data() + std::size_t{y} * header.width);
    }
    if (!readRows(reader.png(), rows.data())) return std::nullopt;

    if (header.mayHaveAlpha) premultiply(*image);
    else image->opaque = true;
    return image;
}

}  // namespace detail

std::optional<std::vector<std::uint8_t>> encodePNG(const Image& image, PNGCompression compression) {
    if (image.width < 1 || image.height < 1 ||
        image.pixels.size() != static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height)) {
        return std::nullopt;
    }
    WriteStruct writer;
    if (!writer) return std::nullopt;
    std::vector<std::uint8_t> out;
    std::vector<png_byte> rowBuffer;
    try {
        // A screenshot usually compresses to well under its raw size.
        out.reserve(image.pixels.size() + 1024);
        if (!image.opaque) rowBuffer.resize(static_cast<std::size_t>(image.width) * 4);
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
    if (!writeImage(writer.png(), writer.info(), &image, &out, rowBuffer.data(), settingsFor(compression))) {
        return std::nullopt;
    }
    return out;
}

std::optional<std::vector<std::uint8_t>> encodePNG(const Image& image) {
    return encodePNG(image, PNGCompression::fast);
}

}  // namespace mirel::ImageCodec
