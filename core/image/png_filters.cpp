// PNG row filters. Undoing Sub, Average and Paeth carries from pixel to pixel,
// so the SSE2 versions work a whole pixel (3 or 4 bytes) per step, in 16-bit
// lanes, the way libpng's own SSE2 filters do; other pixel sizes go byte by
// byte. Applying a filter has no such chain and is left to the compiler's
// vectoriser.
#include "core/image/png_filters.h"

#include <cstdlib>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace mirel::ImageCodec::detail::png {

namespace {

inline std::uint8_t paethPredictor(int a, int b, int c) {
    const int pa = std::abs(b - c), pb = std::abs(a - c), pc = std::abs(a + b - 2 * c);
    if (pa <= pb && pa <= pc) return static_cast<std::uint8_t>(a);
    return static_cast<std::uint8_t>(pb <= pc ? b : c);
}

void unfilterBytes(std::uint8_t type, const std::uint8_t* in, const std::uint8_t* previous, std::uint8_t* out,
                   std::size_t bytes, std::size_t bpp) {
    std::size_t i = 0;
    switch (type) {
        case sub:
            for (; i < bpp && i < bytes; ++i) out[i] = in[i];
            for (; i < bytes; ++i) out[i] = static_cast<std::uint8_t>(in[i] + out[i - bpp]);
            break;
        case average:
            for (; i < bpp && i < bytes; ++i) out[i] = static_cast<std::uint8_t>(in[i] + (previous[i] >> 1));
            for (; i < bytes; ++i) out[i] = static_cast<std::uint8_t>(in[i] + ((out[i - bpp] + previous[i]) >> 1));
            break;
        case paeth:
            for (; i < bpp && i < bytes; ++i) out[i] = static_cast<std::uint8_t>(in[i] + previous[i]);
            for (; i < bytes; ++i) {
                out[i] = static_cast<std::uint8_t>(in[i] + paethPredictor(out[i - bpp], previous[i], previous[i - bpp]));
            }
            break;
    }
}

#if defined(__SSE2__)

// A pixel's bytes in the low 16-bit lanes of a register. Four bytes are read
// whatever the pixel size (the caller keeps that inside the row); the lanes
// past the pixel carry along unused.
inline __m128i load4(const std::uint8_t* p) {
    std::uint32_t v;
    std::memcpy(&v, p, 4);
    return _mm_unpacklo_epi8(_mm_cvtsi32_si128(static_cast<int>(v)), _mm_setzero_si128());
}

inline __m128i loadExactly(const std::uint8_t* p, int bytes) {
    std::uint32_t v = 0;
    std::memcpy(&v, p, static_cast<std::size_t>(bytes));
    return _mm_unpacklo_epi8(_mm_cvtsi32_si128(static_cast<int>(v)), _mm_setzero_si128());
}

inline std::uint32_t packed(__m128i words) {
    return static_cast<std::uint32_t>(_mm_cvtsi128_si32(_mm_packus_epi16(words, words)));
}

inline __m128i absolute(__m128i x) { return _mm_max_epi16(x, _mm_sub_epi16(_mm_setzero_si128(), x)); }

inline __m128i select(__m128i mask, __m128i yes, __m128i no) {
    return _mm_or_si128(_mm_and_si128(mask, yes), _mm_andnot_si128(mask, no));
}

// The byte to add for each filter, from a (left), b (above), c (above left).
struct SubStep {
    __m128i operator()(__m128i a, __m128i, __m128i) const { return a; }
};
struct AverageStep {
    __m128i operator()(__m128i a, __m128i b, __m128i) const { return _mm_srli_epi16(_mm_add_epi16(a, b), 1); }
};
struct PaethStep {
    __m128i operator()(__m128i a, __m128i b, __m128i c) const {
        const __m128i pa = _mm_sub_epi16(b, c), pb = _mm_sub_epi16(a, c);
        const __m128i pc = absolute(_mm_add_epi16(pa, pb));
        const __m128i absA = absolute(pa), absB = absolute(pb);
        const __m128i smallest = _mm_min_epi16(pc, _mm_min_epi16(absA, absB));
        return select(_mm_cmpeq_epi16(smallest, absA), a, select(_mm_cmpeq_epi16(smallest, absB), b, c));
    }
};

// A row of whole pixels of `bpp` (3 or 4) bytes. Every pixel but a 3-byte
// row's last is read and written four bytes wide: the extra byte written is
// the next pixel's first, which that pixel then overwrites.
template <class Step>
void unfilterPixels(const std::uint8_t* in, const std::uint8_t* previous, std::uint8_t* out, std::size_t bytes,
                    int bpp, Step step) {
    const __m128i low = _mm_set1_epi16(0xff);
    const auto width = static_cast<std::size_t>(bpp);
    __m128i a = _mm_setzero_si128(), c = _mm_setzero_si128();
    std::size_t i = 0;
    for (; i + 4 <= bytes; i += width) {
        const __m128i b = load4(previous + i);
        a = _mm_and_si128(_mm_add_epi16(step(a, b, c), load4(in + i)), low);
        c = b;
        const std::uint32_t v = packed(a);
        std::memcpy(out + i, &v, 4);
    }
    for (; i < bytes; i += width) {
        const __m128i b = loadExactly(previous + i, bpp);
        a = _mm_and_si128(_mm_add_epi16(step(a, b, c), loadExactly(in + i, bpp)), low);
        c = b;
        const std::uint32_t v = packed(a);
        std::memcpy(out + i, &v, width);
    }
}

#endif

}  // namespace

bool unfilter(std::uint8_t type, const std::uint8_t* in, const std::uint8_t* previous, std::uint8_t* out,
              std::size_t bytes, int bpp) {
    switch (type) {
        case none: std::memcpy(out, in, bytes); return true;
        case up:
            for (std::size_t i = 0; i < bytes; ++i) out[i] = static_cast<std::uint8_t>(in[i] + previous[i]);
            return true;
        case sub:
        case average:
        case paeth:
#if defined(__SSE2__)
            if (bpp == 4 || bpp == 3) {
                if (type == sub) unfilterPixels(in, previous, out, bytes, bpp, SubStep{});
                else if (type == average) unfilterPixels(in, previous, out, bytes, bpp, AverageStep{});
                else unfilterPixels(in, previous, out, bytes, bpp, PaethStep{});
                return true;
            }
#endif
            unfilterBytes(type, in, previous, out, bytes, static_cast<std::size_t>(bpp));
            return true;
        default: return false;
    }
}

void filter(Filter type, const std::uint8_t* row, const std::uint8_t* previous, std::uint8_t* out, std::size_t bytes,
            int bpp) {
    const auto step = static_cast<std::size_t>(bpp);
    switch (type) {
        case none: std::memcpy(out, row, bytes); return;
        case sub:
            for (std::size_t i = 0; i < bytes; ++i) out[i] = static_cast<std::uint8_t>(row[i] - (i >= step ? row[i - step] : 0));
            return;
        case up:
            for (std::size_t i = 0; i < bytes; ++i) out[i] = static_cast<std::uint8_t>(row[i] - previous[i]);
            return;
        case average:
            for (std::size_t i = 0; i < step && i < bytes; ++i) out[i] = static_cast<std::uint8_t>(row[i] - (previous[i] >> 1));
            for (std::size_t i = step; i < bytes; ++i) {
                out[i] = static_cast<std::uint8_t>(row[i] - ((row[i - step] + previous[i]) >> 1));
            }
            return;
        case paeth:
            for (std::size_t i = 0; i < step && i < bytes; ++i) out[i] = static_cast<std::uint8_t>(row[i] - previous[i]);
            for (std::size_t i = step; i < bytes; ++i) {
                const int a = row[i - step], b = previous[i], c = previous[i - step];
                const int pa = std::abs(b - c), pb = std::abs(a - c), pc = std::abs(a + b - 2 * c);
                const int predicted = (pa <= pb && pa <= pc) ? a : (pb <= pc ? b : c);
                out[i] = static_cast<std::uint8_t>(row[i] - predicted);
            }
            return;
    }
}

}  // namespace mirel::ImageCodec::detail::png
