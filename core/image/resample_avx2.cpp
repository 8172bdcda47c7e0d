// The resampler's row kernels in AVX2, for machines that have it (chosen at
// run time; the build itself assumes only x86-64's SSE2). The arithmetic is
// that of the portable kernels, so the two give the same bytes.
#include "core/image/resample.h"

#if defined(__x86_64__) && defined(__GNUC__)

#pragma GCC push_options
#pragma GCC target("avx2")
#include <immintrin.h>

#include <cstring>

namespace mirel::ImageCodec::detail {

namespace {

inline __m256i roundAndShift(__m256i sums) {
    return _mm256_srai_epi32(_mm256_add_epi32(sums, _mm256_set1_epi32(1 << (weightBits - 1))), weightBits);
}

inline __m256i weightPair(std::int32_t w0, std::int32_t w1) {
    return _mm256_set1_epi32(static_cast<std::int32_t>((static_cast<std::uint32_t>(w1) << 16) |
                                                       (static_cast<std::uint32_t>(w0) & 0xffff)));
}

// 32 bytes of each pair of rows per step; the 128-bit halves unpack and pack
// alike, so bytes come back in their places.
void columnsAVX2(const std::uint8_t* const* rows, const std::int16_t* weights, int count, std::size_t bytes,
                 std::uint8_t* out) {
    std::size_t i = 0;
    const __m256i zero = _mm256_setzero_si256();
    for (; i + 32 <= bytes; i += 32) {
        __m256i s0 = zero, s1 = zero, s2 = zero, s3 = zero;
        for (int k = 0; k < count; k += 2) {
            const bool pair = k + 1 < count;
            const __m256i w = weightPair(weights[k], pair ? weights[k + 1] : 0);
            const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(rows[k] + i));
            const __m256i b = pair ? _mm256_loadu_si256(reinterpret_cast<const __m256i*>(rows[k + 1] + i)) : zero;
            const __m256i aLow = _mm256_unpacklo_epi8(a, zero), aHigh = _mm256_unpackhi_epi8(a, zero);
            const __m256i bLow = _mm256_unpacklo_epi8(b, zero), bHigh = _mm256_unpackhi_epi8(b, zero);
            s0 = _mm256_add_epi32(s0, _mm256_madd_epi16(_mm256_unpacklo_epi16(aLow, bLow), w));
            s1 = _mm256_add_epi32(s1, _mm256_madd_epi16(_mm256_unpackhi_epi16(aLow, bLow), w));
            s2 = _mm256_add_epi32(s2, _mm256_madd_epi16(_mm256_unpacklo_epi16(aHigh, bHigh), w));
            s3 = _mm256_add_epi32(s3, _mm256_madd_epi16(_mm256_unpackhi_epi16(aHigh, bHigh), w));
        }
        const __m256i words0 = _mm256_packs_epi32(roundAndShift(s0), roundAndShift(s1));
        const __m256i words1 = _mm256_packs_epi32(roundAndShift(s2), roundAndShift(s3));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i), _mm256_packus_epi16(words0, words1));
    }
    if (i < bytes) {
        // The tail, with the portable kernel on the rows moved on by `i`.
        const std::uint8_t* shifted[64];
        if (count <= 64) {
            for (int k = 0; k < count; ++k) shifted[k] = rows[k] + i;
            portableKernels().columns(shifted, weights, count, bytes - i, out + i);
        } else {
            for (; i < bytes; ++i) {
                std::int32_t sum = 0;
                for (int k = 0; k < count; ++k) sum += std::int32_t{weights[k]} * rows[k][i];
                const std::int32_t v = (sum + (1 << (weightBits - 1))) >> weightBits;
                out[i] = static_cast<std::uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v);
            }
        }
    }
}

// Four taps per step: two pixels interleaved channel by channel in each
// 128-bit half, against the weight pair of each half.
inline __m128i pixelSum(const std::uint32_t* p, const std::int16_t* weights, int count) {
    const __m256i spread = _mm256_setr_epi8(0, -1, 4, -1, 1, -1, 5, -1, 2, -1, 6, -1, 3, -1, 7, -1,  //
                                            8, -1, 12, -1, 9, -1, 13, -1, 10, -1, 14, -1, 11, -1, 15, -1);
    const __m256i pairs = _mm256_setr_epi32(0, 0, 0, 0, 1, 1, 1, 1);
    __m256i sums = _mm256_setzero_si256();
    for (int k = 0; k < count; k += 4) {
        const __m256i pixels = _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + k)));
        const __m256i w = _mm256_permutevar8x32_epi32(
            _mm256_castsi128_si256(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(weights + k))), pairs);
        sums = _mm256_add_epi32(sums, _mm256_madd_epi16(_mm256_shuffle_epi8(pixels, spread), w));
    }
    return _mm_add_epi32(_mm256_castsi256_si128(sums), _mm256_extracti128_si256(sums, 1));
}

void rowsAVX2(const std::uint32_t* in, const AxisWeights& table, std::uint32_t* out) {
    const int width = static_cast<int>(table.first.size());
    const __m128i round = _mm_set1_epi32(1 << (weightBits - 1));
    for (int x = 0; x < width; ++x) {
        const std::int16_t* weights = &table.weights[static_cast<std::size_t>(x) * table.stride];
        const int count = table.count[x];
        __m128i sums;
        if (x < table.safe) {
            sums = pixelSum(in + table.first[x], weights, count);
        } else if (table.stride <= 64) {
            // Near the right edge the stride would pass the row's end: copy
            // the pixels it needs, zero-padded, and filter the copy.
            std::uint32_t padded[64] = {};
            std::memcpy(padded, in + table.first[x], static_cast<std::size_t>(count) * 4);
            sums = pixelSum(padded, weights, count);
        } else {
            // Enormous reductions: tap by tap.
            const std::uint32_t* p = in + table.first[x];
            sums = _mm_setzero_si128();
            for (int k = 0; k < count; ++k) {
                const __m128i pixel = _mm_cvtepu8_epi32(_mm_cvtsi32_si128(static_cast<int>(p[k])));
                sums = _mm_add_epi32(sums, _mm_mullo_epi32(pixel, _mm_set1_epi32(weights[k])));
            }
        }
        const __m128i shifted = _mm_srai_epi32(_mm_add_epi32(sums, round), weightBits);
        const __m128i words = _mm_packs_epi32(shifted, shifted);
        out[x] = static_cast<std::uint32_t>(_mm_cvtsi128_si32(_mm_packus_epi16(words, words)));
    }
}

void clampToAlphaAVX2(std::uint32_t* pixels, std::size_t count) {
    const __m256i alphas = _mm256_setr_epi8(3, 3, 3, 3, 7, 7, 7, 7, 11, 11, 11, 11, 15, 15, 15, 15,  //
                                            3, 3, 3, 3, 7, 7, 7, 7, 11, 11, 11, 11, 15, 15, 15, 15);
    std::size_t i = 0;
    for (; i + 8 <= count; i += 8) {
        auto* at = reinterpret_cast<__m256i*>(pixels + i);
        const __m256i p = _mm256_loadu_si256(at);
        _mm256_storeu_si256(at, _mm256_min_epu8(p, _mm256_shuffle_epi8(p, alphas)));
    }
    portableKernels().clampToAlpha(pixels + i, count - i);
}

}  // namespace

const RowKernels* avx2Kernels() {
    static const RowKernels kernels{columnsAVX2, rowsAVX2, clampToAlphaAVX2};
    return __builtin_cpu_supports("avx2") ? &kernels : nullptr;
}

}  // namespace mirel::ImageCodec::detail

#pragma GCC pop_options

#else

namespace mirel::ImageCodec::detail {
const RowKernels* avx2Kernels() { return nullptr; }
}  // namespace mirel::ImageCodec::detail

#endif
