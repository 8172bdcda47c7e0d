// PNG decoding. The chunks are read here; the image data is inflated by
// libdeflate in one go when the whole source fits the memory budget (more
// than twice as fast as zlib's streaming inflate on screenshots, measured),
// straight into the room the source will occupy, and otherwise by zlib a row
// at a time. Rows are then unfiltered, turned into native premultiplied
// words and handed to the resampler as they come. Every form of the format
// is read: all colour types and bit depths, palettes and tRNS, Adam7 (whose
// rows are complete only at the end, so an interlaced image is read only
// while its whole source fits the budget).
#include <zlib.h>

#include <array>
#include <bit>
#include <cstring>
#include <new>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "core/image/codecs.h"
#include "core/image/png_filters.h"
#include "core/image/row_target.h"

namespace mirel::ImageCodec::detail {

namespace {

using png::bigEndian32;

enum ColorType { grey = 0, rgb = 2, indexed = 3, greyAlpha = 4, rgba = 6 };

struct Header {
    int width = 0, height = 0, depth = 0, colorType = 0;
    bool interlaced = false;
    int bitsPerPixel = 0;
    std::size_t rowBytes(int pixels) const { return (static_cast<std::size_t>(pixels) * bitsPerPixel + 7) / 8; }
    int filterStep() const { return bitsPerPixel < 8 ? 1 : bitsPerPixel / 8; }
};

struct Span {
    const std::uint8_t* data;
    std::size_t size;
};

struct Chunks {
    Header header;
    std::array<std::uint32_t, 256> palette{};  // premultiplied native words; missing entries opaque black
    std::array<std::uint8_t, 256> paletteAlpha{};
    bool transparency = false;  // a tRNS chunk applies
    std::array<std::uint16_t, 3> key{};  // the transparent grey or RGB sample of a tRNS chunk
    std::vector<Span> data;     // the IDAT chunks' contents, in order
    std::size_t dataBytes = 0;
};

bool validDepth(int colorType, int depth) {
    switch (colorType) {
        case grey: return depth == 1 || depth == 2 || depth == 4 || depth == 8 || depth == 16;
        case indexed: return depth == 1 || depth == 2 || depth == 4 || depth == 8;
        case rgb:
        case greyAlpha:
        case rgba: return depth == 8 || depth == 16;
        default: return false;
    }
}

int channelsOf(int colorType) {
    switch (colorType) {
        case rgb: return 3;
        case greyAlpha: return 2;
        case rgba: return 4;
        default: return 1;
    }
}

std::uint32_t chunkCRC(const std::uint8_t* type, std::size_t length) {
    // The CRC covers the type and the data, which follows it.
    return static_cast<std::uint32_t>(libdeflate_crc32(0, type, length + 4));
}

// c × a / 255, rounded, exact for all 8-bit inputs.
inline std::uint32_t multiplyAlpha(std::uint32_t c, std::uint32_t a) {
    const std::uint32_t t = c * a + 128;
    return (t + (t >> 8)) >> 8;
}

inline std::uint32_t premultiplied(std::uint32_t r, std::uint32_t g, std::uint32_t b, std::uint32_t a) {
    if (a == 255) return 0xff000000u | (r << 16) | (g << 8) | b;
    if (a == 0) return 0;
    return (a << 24) | (multiplyAlpha(r, a) << 16) | (multiplyAlpha(g, a) << 8) | multiplyAlpha(b, a);
}

std::optional<Chunks> readChunks(const std::uint8_t* bytes, std::size_t size) {
    Chunks chunks;
    std::size_t at = sizeof png::signature;
    bool sawHeader = false, sawPalette = false;
    while (size - at >= 12) {
        const std::uint32_t length = bigEndian32(bytes + at);
        const std::uint8_t* type = bytes + at + 4;
        const std::uint8_t* body = type + 4;
        // A chunk cut off by the end of the file ends the reading; the image
        // data then tells whether enough arrived.
        if (length > 0x7fffffffu || size - at - 12 < length) break;
        const bool crcGood = chunkCRC(type, length) == bigEndian32(body + length);
        at += 12 + std::size_t{length};

        if (std::memcmp(type, "IHDR", 4) == 0) {
            if (sawHeader || length != 13 || !crcGood) return std::nullopt;
            sawHeader = true;
            Header& h = chunks.header;
            h.width = static_cast<int>(bigEndian32(body));
            h.height = static_cast<int>(bigEndian32(body + 4));
            h.depth = body[8];
            h.colorType = body[9];
            if (!validDepth(h.colorType, h.depth) || body[10] != 0 || body[11] != 0 || body[12] > 1) return std::nullopt;
            h.interlaced = body[12] == 1;
            h.bitsPerPixel = channelsOf(h.colorType) * h.depth;
            continue;
        }
        if (!sawHeader) return std::nullopt;  // IHDR comes first
        if (std::memcmp(type, "IDAT", 4) == 0) {
            if (!crcGood) return std::nullopt;
            chunks.data.push_back({body, length});
            chunks.dataBytes += length;
        } else if (std::memcmp(type, "IEND", 4) == 0) {
            break;
        } else if (std::memcmp(type, "PLTE", 4) == 0) {
            if (!crcGood || length % 3 != 0 || length > 768 || length == 0) return std::nullopt;
            if (!chunks.data.empty() || sawPalette) continue;
            sawPalette = true;
            for (std::uint32_t i = 0; i < length / 3; ++i) {
                chunks.palette[i] = 0xff000000u | (std::uint32_t{body[3 * i]} << 16) |
                                    (std::uint32_t{body[3 * i + 1]} << 8) | body[3 * i + 2];
            }
            chunks.paletteAlpha.fill(255);
        } else if (std::memcmp(type, "tRNS", 4) == 0) {
            // An ancillary chunk: a damaged one is ignored, as libpng does.
            if (!crcGood || !chunks.data.empty() || chunks.transparency) continue;
            const int colorType = chunks.header.colorType;
            if (colorType == indexed && sawPalette && length <= 256) {
                for (std::uint32_t i = 0; i < length; ++i) chunks.paletteAlpha[i] = body[i];
                chunks.transparency = true;
            } else if ((colorType == grey && length == 2) || (colorType == rgb && length == 6)) {
                for (std::uint32_t i = 0; i < length / 2; ++i) {
                    chunks.key[i] = static_cast<std::uint16_t>((body[2 * i] << 8) | body[2 * i + 1]);
                }
                chunks.transparency = true;
            }
        } else if ((type[0] & 0x20) == 0) {
            return std::nullopt;  // an unknown critical chunk: the image cannot be understood
        }
    }
    if (!sawHeader || chunks.data.empty()) return std::nullopt;
    if (chunks.header.colorType == indexed) {
        if (!sawPalette) return std::nullopt;
        for (std::size_t i = 0; i < 256; ++i) {
            const std::uint32_t c = chunks.palette[i] | 0xff000000u;
            chunks.palette[i] =
                premultiplied((c >> 16) & 0xff, (c >> 8) & 0xff, c & 0xff, chunks.paletteAlpha[i]);
        }
    }
    return chunks;
}

// ---- unfiltered rows to native words ----

#if defined(__SSE2__)
// R G B A bytes, four pixels in a register, to B G R A: red and blue change places.
inline __m128i swapRedBlue(__m128i v) {
    const __m128i redBlue = _mm_and_si128(v, _mm_set1_epi32(0x00ff00ff));
    return _mm_or_si128(_mm_andnot_si128(_mm_set1_epi32(0x00ff00ff), v),
                        _mm_or_si128(_mm_slli_epi32(redBlue, 16), _mm_srli_epi32(redBlue, 16)));
}

// Two pixels in 16-bit lanes, colour times alpha as multiplyAlpha does it, alpha kept.
inline __m128i premultiplyWords(__m128i words) {
    const __m128i alpha = _mm_shufflehi_epi16(_mm_shufflelo_epi16(words, 0xff), 0xff);
    __m128i t = _mm_add_epi16(_mm_mullo_epi16(words, alpha), _mm_set1_epi16(128));
    t = _mm_srli_epi16(_mm_add_epi16(t, _mm_srli_epi16(t, 8)), 8);
    const __m128i alphaLanes = _mm_set_epi16(-1, 0, 0, 0, -1, 0, 0, 0);
    return _mm_or_si128(_mm_and_si128(alphaLanes, words), _mm_andnot_si128(alphaLanes, t));
}
#endif

// R G B A bytes to premultiplied native words; the AND of the alphas.
std::uint32_t convertRGBA8(const std::uint8_t* in, int width, std::uint32_t* out) {
    std::uint32_t alphas = 0xff;
    int x = 0;
#if defined(__SSE2__)
    if constexpr (std::endian::native == std::endian::little) {
        const __m128i alphaBytes = _mm_set1_epi32(static_cast<int>(0xff000000u));
        __m128i seen = alphaBytes;
        for (; x + 4 <= width; x += 4, in += 16) {
            __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
            seen = _mm_and_si128(seen, v);
            if (_mm_movemask_epi8(_mm_cmpeq_epi32(_mm_and_si128(v, alphaBytes), alphaBytes)) != 0xffff) {
                const __m128i zero = _mm_setzero_si128();
                v = _mm_packus_epi16(premultiplyWords(_mm_unpacklo_epi8(v, zero)),
                                     premultiplyWords(_mm_unpackhi_epi8(v, zero)));
            }
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x), swapRedBlue(v));
        }
        seen = _mm_and_si128(seen, _mm_srli_si128(seen, 8));
        seen = _mm_and_si128(seen, _mm_srli_si128(seen, 4));
        alphas = static_cast<std::uint32_t>(_mm_cvtsi128_si32(seen)) >> 24;
    }
#endif
    for (; x < width; ++x, in += 4) {
        const std::uint32_t a = in[3];
        alphas &= a;
        out[x] = premultiplied(in[0], in[1], in[2], a);
    }
    return alphas;
}

void convertRGB8(const std::uint8_t* in, int width, std::uint32_t* out) {
    for (int x = 0; x < width; ++x, in += 3) {
        out[x] = 0xff000000u | (std::uint32_t{in[0]} << 16) | (std::uint32_t{in[1]} << 8) | in[2];
    }
}

class RowConverter {
public:
    explicit RowConverter(const Chunks& chunks) : chunks_(chunks), header_(chunks.header) {}

    void convert(const std::uint8_t* in, int width, std::uint32_t* out) {
        if (header_.depth == 8 && !chunks_.transparency) {
            if (header_.colorType == rgba) {
                alphas_ &= convertRGBA8(in, width, out);
                return;
            }
            if (header_.colorType == rgb) {
                convertRGB8(in, width, out);
                return;
            }
        }
        convertAny(in, width, out);
    }
    bool opaque() const { return alphas_ == 0xff; }

private:
    // Every other form, a sample at a time.
    void convertAny(const std::uint8_t* in, int width, std::uint32_t* out) {
        const int depth = header_.depth, channels = channelsOf(header_.colorType);
        const int greyScale = depth < 8 ? 255 / ((1 << depth) - 1) : 1;
        std::size_t bit = 0;
        auto sample = [&]() -> std::uint32_t {
            std::uint32_t v;
            if (depth == 16) v = (std::uint32_t{in[bit / 8]} << 8) | in[bit / 8 + 1];
            else if (depth == 8) v = in[bit / 8];
            else v = (in[bit / 8] >> (8 - depth - bit % 8)) & ((1u << depth) - 1);
            bit += static_cast<std::size_t>(depth);
            return v;
        };
        auto eight = [depth](std::uint32_t v) { return depth == 16 ? (v * 255 + 32895) >> 16 : v; };
        for (int x = 0; x < width; ++x) {
            std::uint32_t s[4] = {0, 0, 0, 0};
            for (int c = 0; c < channels; ++c) s[c] = sample();
            std::uint32_t p;
            switch (header_.colorType) {
                case indexed: p = chunks_.palette[s[0]]; break;
                case grey: {
                    const bool clear = chunks_.transparency && s[0] == chunks_.key[0];
                    const std::uint32_t g = depth < 8 ? s[0] * greyScale : eight(s[0]);
                    p = clear ? 0 : premultiplied(g, g, g, 255);
                    break;
                }
                case rgb: {
                    const bool clear = chunks_.transparency && s[0] == chunks_.key[0] && s[1] == chunks_.key[1] &&
                                       s[2] == chunks_.key[2];
                    p = clear ? 0 : premultiplied(eight(s[0]), eight(s[1]), eight(s[2]), 255);
                    break;
                }
                case greyAlpha: p = premultiplied(eight(s[0]), eight(s[0]), eight(s[0]), eight(s[1])); break;
                default: p = premultiplied(eight(s[0]), eight(s[1]), eight(s[2]), eight(s[3])); break;
            }
            alphas_ &= p >> 24;
            out[x] = p;
        }
    }

    const Chunks& chunks_;
    const Header& header_;
    std::uint32_t alphas_ = 0xff;
};

// ---- the image data ----

struct InflateEnd {
    void operator()(z_stream* stream) const { inflateEnd(stream); }
};

// The image data inflated by zlib, as many bytes at a time as asked for.
class StreamedData {
public:
    explicit StreamedData(const std::vector<Span>& spans) : spans_(spans) {
        if (inflateInit(&stream_) == Z_OK) owner_.reset(&stream_);
#if ZLIB_VERNUM >= 0x1290
        // Each chunk's CRC is checked already; zlib's checksum over all the
        // pixels would only cost time.
        if (owner_) inflateValidate(&stream_, 0);
#endif
    }
    bool read(std::uint8_t* out, std::size_t count) {
        if (!owner_) return false;
        stream_.next_out = out;
        stream_.avail_out = static_cast<uInt>(count);
        while (stream_.avail_out > 0) {
            if (stream_.avail_in == 0) {
                if (next_ == spans_.size()) return false;
                stream_.next_in = const_cast<Bytef*>(spans_[next_].data);
                stream_.avail_in = static_cast<uInt>(spans_[next_].size);
                ++next_;
                continue;
            }
            const int status = inflate(&stream_, Z_NO_FLUSH);
            if (status == Z_STREAM_END) return stream_.avail_out == 0;
            if (status != Z_OK && status != Z_BUF_ERROR) return false;
        }
        return true;
    }

private:
    const std::vector<Span>& spans_;
    std::size_t next_ = 0;
    z_stream stream_{};
    std::unique_ptr<z_stream, InflateEnd> owner_;
};

// Inflates all the image data into `out`, which holds exactly `count` bytes.
// Nothing if the data is bad; false in `fits` if it holds more than that.
bool inflateWhole(const Chunks& chunks, std::uint8_t* out, std::size_t count, bool* fits) {
    *fits = true;
    png::Decompressor decompressor(libdeflate_alloc_decompressor());
    if (!decompressor) return false;
    std::vector<std::uint8_t> joined;
    const std::uint8_t* in = chunks.data[0].data;
    if (chunks.data.size() > 1) {
        joined.reserve(chunks.dataBytes);
        for (const Span& span : chunks.data) joined.insert(joined.end(), span.data, span.data + span.size);
        in = joined.data();
    }
    std::size_t consumed = 0, produced = 0;
    const libdeflate_result result = libdeflate_zlib_decompress_ex(decompressor.get(), in, chunks.dataBytes, out,
                                                                   count, &consumed, &produced);
    if (result == LIBDEFLATE_INSUFFICIENT_SPACE) *fits = false;
    return result == LIBDEFLATE_SUCCESS && produced == count;
}

constexpr std::array<std::array<int, 4>, 7> adam7 = {{
    {0, 0, 8, 8}, {4, 0, 8, 8}, {0, 4, 4, 8}, {2, 0, 4, 4}, {0, 2, 2, 4}, {1, 0, 2, 2}, {0, 1, 1, 2},
}};

// The seven passes of an interlaced image, spread into the whole source.
bool readInterlaced(const Chunks& chunks, RowConverter& converter, RowTarget& target) {
    const Header& h = chunks.header;
    if (!target.whole()) return false;  // its rows are complete only at the very end
    StreamedData data(chunks.data);
    const std::size_t widest = h.rowBytes(h.width);
    std::vector<std::uint8_t> filtered(widest + 1), lines(2 * widest), zeros(widest);
    std::vector<std::uint32_t> pixels(static_cast<std::size_t>(h.width));
    for (const auto& [x0, y0, dx, dy] : adam7) {
        const int passWidth = (h.width - x0 + dx - 1) / dx, passHeight = (h.height - y0 + dy - 1) / dy;
        if (passWidth <= 0 || passHeight <= 0) continue;
        const std::size_t bytes = h.rowBytes(passWidth);
        for (int j = 0; j < passHeight; ++j) {
            std::uint8_t* current = lines.data() + (j % 2) * widest;
            const std::uint8_t* previous = j ? lines.data() + ((j - 1) % 2) * widest : zeros.data();
            if (!data.read(filtered.data(), bytes + 1) ||
                !png::unfilter(filtered[0], filtered.data() + 1, previous, current, bytes, h.filterStep())) {
                return false;
            }
            converter.convert(current, passWidth, pixels.data());
            std::uint32_t* row = target.row(y0 + j * dy);
            for (int i = 0; i < passWidth; ++i) row[x0 + i * dx] = pixels[i];
        }
    }
    target.rowsDone(h.height);
    return true;
}

// Rows of filtered data, one after another, from wherever they come from;
// two rows' data are asked for before either is used. Rows are unfiltered two
// at a time.
template <class NextRow>
bool readRows(const Header& h, RowConverter& converter, RowTarget& target, NextRow nextRow) {
    const std::size_t bytes = h.rowBytes(h.width);
    std::vector<std::uint8_t> lines(3 * bytes), zeros(bytes);  // the row above and the two being made
    const auto line = [&](int y) { return lines.data() + static_cast<std::size_t>(y % 3) * bytes; };
    const auto deliver = [&](int y) {
        converter.convert(line(y), h.width, target.row(y));
        target.rowsDone(y + 1);
    };
    for (int y = 0; y < h.height; y += 2) {
        const std::uint8_t* previous = y ? line(y - 1) : zeros.data();
        const std::uint8_t* filtered = nextRow(y);
        if (!filtered) return false;
        if (y + 1 == h.height) {
            if (!png::unfilter(filtered[0], filtered + 1, previous, line(y), bytes, h.filterStep())) return false;
            deliver(y);
            break;
        }
        const std::uint8_t* below = nextRow(y + 1);
        if (!below || !png::unfilterTwo(filtered[0], filtered + 1, below[0], below + 1, previous, line(y),
                                        line(y + 1), bytes, h.filterStep())) {
            return false;
        }
        deliver(y);
        deliver(y + 1);
    }
    return true;
}

bool readSequential(const Chunks& chunks, RowConverter& converter, RowTarget& target) {
    const Header& h = chunks.header;
    const std::size_t stride = h.rowBytes(h.width) + 1, total = stride * static_cast<std::size_t>(h.height);
    if (target.whole()) {
        // Inflated into the end of the room the source will take: row y's
        // pixels are written at its start, behind the rows still to be read
        // (a pixel takes four bytes there, at least as many as its raw data).
        std::uint8_t* raw = target.whole() + target.wholeSize() - total;
        bool fits = true;
        if (inflateWhole(chunks, raw, total, &fits)) {
            return readRows(h, converter, target, [&](int y) { return raw + static_cast<std::size_t>(y) * stride; });
        }
        if (fits) return false;
        // More data than the image needs: read just what it needs, as libpng does.
    }
    StreamedData data(chunks.data);
    std::vector<std::uint8_t> filtered(2 * stride);
    return readRows(h, converter, target, [&](int y) {
        std::uint8_t* into = filtered.data() + static_cast<std::size_t>(y % 2) * stride;
        return data.read(into, stride) ? into : nullptr;
    });
}

}  // namespace

std::optional<std::pair<int, int>> pngDimensions(const std::uint8_t* bytes, std::size_t size) {
    // Signature, then the IHDR chunk: length, type, width, height (big-endian).
    if (size < 24 || std::memcmp(bytes + 12, "IHDR", 4) != 0) return std::nullopt;
    const std::uint32_t width = bigEndian32(bytes + 16), height = bigEndian32(bytes + 20);
    if (width == 0 || height == 0 || width > 0x7fffffff || height > 0x7fffffff) return std::nullopt;
    return std::pair<int, int>{static_cast<int>(width), static_cast<int>(height)};
}

std::optional<Image> decodePNG(const std::uint8_t* bytes, std::size_t size, int maxEdge, EncodeAlong* along) {
    // Refuse oversized images from the raw header before anything is allocated.
    const auto claimed = pngDimensions(bytes, size);
    if (!claimed || !sizeAllowed(claimed->first, claimed->second)) return std::nullopt;
    const std::optional<Chunks> chunks = readChunks(bytes, size);
    if (!chunks) return std::nullopt;
    const Header& h = chunks->header;
    try {
        const auto [toWidth, toHeight] = targetSize(h.width, h.height, maxEdge);
        const std::size_t total = (h.rowBytes(h.width) + 1) * static_cast<std::size_t>(h.height);
        // Several IDAT chunks are joined into one copy before libdeflate reads them.
        const std::size_t joined = chunks->data.size() > 1 ? chunks->dataBytes : 0;
        // Colour types 4 and 6 carry alpha.
        if (along) along->opaque = (h.colorType & 4) == 0 && !chunks->transparency;
        RowTarget target(h.width, h.height, toWidth, toHeight, joined, h.interlaced ? 0 : total, along);
        RowConverter converter(*chunks);
        const bool read = h.interlaced ? readInterlaced(*chunks, converter, target)
                                       : readSequential(*chunks, converter, target);
        if (!read) return std::nullopt;
        return target.finish(converter.opaque());
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
}

}  // namespace mirel::ImageCodec::detail
