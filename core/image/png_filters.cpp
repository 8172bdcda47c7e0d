// PNG row filters. Undoing Sub, Average and Paeth carries from pixel to pixel,
// so the SSE2 versions work a whole pixel (3 or 4 bytes) per step, in 16-bit
// lanes, the way libpng's own SSE2 filters do, and two rows side by side where
// both chain; other pixel sizes go byte by byte. Applying a filter has no such
// chain and is left to the compiler's vectoriser.
#include "core/image/png_filters.h"

#include <cstdlib>
#include <cstring>
#include <type_traits>

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

inline __m128i select(__m128i mask, __m128i yes, __m128i no) {
    return _mm_or_si128(_mm_and_si128(mask, yes), _mm_andnot_si128(mask, no));
}

// A pixel unfiltered, from a (left), b (above), c (above left) and x, its
// filtered bytes; the caller keeps the low byte of each lane. Only a is on
// the chain from pixel to pixel.
struct SubStep {
    __m128i operator()(__m128i a, __m128i, __m128i, __m128i x) const { return _mm_add_epi16(a, x); }
};
struct AverageStep {
    __m128i operator()(__m128i a, __m128i b, __m128i, __m128i x) const {
        return _mm_add_epi16(_mm_srli_epi16(_mm_add_epi16(a, b), 1), x);
    }
};
// Paeth's choice, reworked so that a comes in as late as it can: with
// e = b - c, and u = a - c negated where e < 0, it is a where u >= |e| or
// u <= -2|e|, else b where 2u >= -|e|, else c. All that rests on b and c alone
// is worked out while the pixel to the left is still being made.
struct PaethStep {
    __m128i operator()(__m128i a, __m128i b, __m128i c, __m128i x) const {
        const __m128i e = _mm_sub_epi16(b, c), negative = _mm_srai_epi16(e, 15);
        const __m128i size = _mm_sub_epi16(_mm_xor_si128(e, negative), negative);
        const __m128i minusTwice = _mm_sub_epi16(_mm_setzero_si128(), _mm_add_epi16(size, size));
        const __m128i underHalf = _mm_sub_epi16(_mm_set1_epi16(-1), size);  // 2u above it: 2u >= -|e|
        const __m128i u = _mm_sub_epi16(_mm_xor_si128(a, negative), _mm_xor_si128(c, negative));
        const __m128i notA = _mm_and_si128(_mm_cmpgt_epi16(size, u), _mm_cmpgt_epi16(u, minusTwice));
        const __m128i pickB = _mm_cmpgt_epi16(_mm_add_epi16(u, u), underHalf);
        // c + x, plus a - c, b - c or nothing.
        return _mm_add_epi16(_mm_add_epi16(c, x), select(notA, _mm_and_si128(pickB, e), _mm_sub_epi16(a, c)));
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
        a = _mm_and_si128(step(a, b, c, load4(in + i)), low);
        c = b;
        const std::uint32_t v = packed(a);
        std::memcpy(out + i, &v, 4);
    }
    for (; i < bytes; i += width) {
        const __m128i b = loadExactly(previous + i, bpp);
        a = _mm_and_si128(step(a, b, c, loadExactly(in + i, bpp)), low);
        c = b;
        const std::uint32_t v = packed(a);
        std::memcpy(out + i, &v, width);
    }
}

// Two rows at once. The low half of each register holds pixel k of the upper
// row; the high half pixel k - 2 of the row below, whose pixel above is the
// one the low half made two steps before. Each step thus moves both chains
// on, and neither waits for the other.
struct RowPair {
    const std::uint8_t *in, *inBelow, *previous;
    std::uint8_t *out, *outBelow;
    std::size_t bytes;
    int bpp;
};

template <class Upper, class Lower>
__m128i pairStep(__m128i a, __m128i b, __m128i c, __m128i x) {
    if constexpr (std::is_same_v<Upper, Lower>) return Upper{}(a, b, c, x);
    else return select(_mm_set_epi32(0, 0, -1, -1), Upper{}(a, b, c, x), Lower{}(a, b, c, x));
}

template <class Upper, class Lower>
void unfilterPixelPairs(const RowPair& rows) {
    const auto width = static_cast<std::size_t>(rows.bpp);
    const std::size_t pixels = rows.bytes / width;
    const __m128i low = _mm_set1_epi16(0xff), zero = _mm_setzero_si128();
    // Before the first step every input is zero, so the high half's first
    // results, which stand left of the lower row, are zero too.
    __m128i a = zero, c = zero, older = zero;  // older: the result of two steps before
    // A step reads and writes four bytes a pixel while that stays inside the
    // rows (`wide`), as unfilterPixels does, and exactly the pixel otherwise.
    const auto step = [&]<bool wide>(std::size_t k) {
        const auto load = [&](const std::uint8_t* p) { return wide ? load4(p) : loadExactly(p, rows.bpp); };
        const bool upper = k < pixels, lower = k > 1;
        const std::size_t i = k * width;
        const __m128i b = _mm_unpacklo_epi64(upper ? load(rows.previous + i) : zero, older);
        const __m128i filtered =
            _mm_unpacklo_epi64(upper ? load(rows.in + i) : zero, lower ? load(rows.inBelow + i - 2 * width) : zero);
        older = a;
        a = _mm_and_si128(pairStep<Upper, Lower>(a, b, c, filtered), low);
        c = b;
        const std::size_t stored = wide ? 4 : width;
        if (upper) {
            const std::uint32_t v = packed(a);
            std::memcpy(rows.out + i, &v, stored);
        }
        if (lower) {
            const std::uint32_t v = packed(_mm_unpackhi_epi64(a, a));
            std::memcpy(rows.outBelow + i - 2 * width, &v, stored);
        }
    };
    const std::size_t wideEnd = rows.bytes >= 4 ? (rows.bytes - 4) / width + 1 : 0;  // k * width + 4 <= bytes
    std::size_t k = 0;
    for (; k < wideEnd; ++k) step.template operator()<true>(k);
    for (; k <= pixels + 1; ++k) step.template operator()<false>(k);
}

template <class Upper>
void unfilterPairsAbove(std::uint8_t typeBelow, const RowPair& rows) {
    if (typeBelow == sub) unfilterPixelPairs<Upper, SubStep>(rows);
    else if (typeBelow == average) unfilterPixelPairs<Upper, AverageStep>(rows);
    else unfilterPixelPairs<Upper, PaethStep>(rows);
}

bool chains(std::uint8_t type) { return type == sub || type == average || type == paeth; }

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

bool unfilterTwo(std::uint8_t type, const std::uint8_t* in, std::uint8_t typeBelow, const std::uint8_t* inBelow,
                 const std::uint8_t* previous, std::uint8_t* out, std::uint8_t* outBelow, std::size_t bytes, int bpp) {
#if defined(__SSE2__)
    if ((bpp == 4 || bpp == 3) && chains(type) && chains(typeBelow)) {
        const RowPair rows{in, inBelow, previous, out, outBelow, bytes, bpp};
        if (type == sub) unfilterPairsAbove<SubStep>(typeBelow, rows);
        else if (type == average) unfilterPairsAbove<AverageStep>(typeBelow, rows);
        else unfilterPairsAbove<PaethStep>(typeBelow, rows);
        return true;
    }
#endif
    return unfilter(type, in, previous, out, bytes, bpp) && unfilter(typeBelow, inBelow, out, outBelow, bytes, bpp);
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
        case paeth: {
            std::size_t i = 0;
            for (; i < step && i < bytes; ++i) out[i] = static_cast<std::uint8_t>(row[i] - previous[i]);
#if defined(__SSE2__)
            // No chain here: eight bytes at a time.
            const __m128i zero = _mm_setzero_si128();
            const auto load8 = [zero](const std::uint8_t* p) {
                return _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)), zero);
            };
            for (; i + 8 <= bytes; i += 8) {
                const __m128i predicted =
                    PaethStep{}(load8(row + i - step), load8(previous + i), load8(previous + i - step), zero);
                const __m128i bytesOut = _mm_sub_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(row + i)),
                                                      _mm_packus_epi16(predicted, predicted));
                _mm_storel_epi64(reinterpret_cast<__m128i*>(out + i), bytesOut);
            }
#endif
            for (; i < bytes; ++i) {
                out[i] = static_cast<std::uint8_t>(row[i] - paethPredictor(row[i - step], previous[i], previous[i - step]));
            }
            return;
        }
    }
}

}  // namespace mirel::ImageCodec::detail::png
