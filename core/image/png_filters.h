#pragma once
// PNG's five row filters, both ways, and the PNG facts the decoder and the
// encoder share. Internal to core/image.
#include <libdeflate.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace mirel::ImageCodec::detail::png {

inline constexpr std::uint8_t signature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};

enum Filter : std::uint8_t { none = 0, sub = 1, up = 2, average = 3, paeth = 4 };

inline std::uint32_t bigEndian32(const std::uint8_t* p) {
    return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) | p[3];
}

// libdeflate's handles, released by their owners.
struct DecompressorFree {
    void operator()(libdeflate_decompressor* d) const { libdeflate_free_decompressor(d); }
};
struct CompressorFree {
    void operator()(libdeflate_compressor* c) const { libdeflate_free_compressor(c); }
};
using Decompressor = std::unique_ptr<libdeflate_decompressor, DecompressorFree>;
using Compressor = std::unique_ptr<libdeflate_compressor, CompressorFree>;

// Undoes one row's filter. `previous` is the row above, unfiltered (zeros for
// the first row); `bpp` the bytes per pixel, at least 1. False for an unknown
// filter type.
bool unfilter(std::uint8_t type, const std::uint8_t* in, const std::uint8_t* previous, std::uint8_t* out,
              std::size_t bytes, int bpp);

// Undoes the filters of two rows in a row: `inBelow` is filtered against the
// first row's result, `out`. Where both filters carry from pixel to pixel
// (Sub, Average, Paeth), the two chains run side by side, which takes little
// longer than one. False for an unknown filter type.
bool unfilterTwo(std::uint8_t type, const std::uint8_t* in, std::uint8_t typeBelow, const std::uint8_t* inBelow,
                 const std::uint8_t* previous, std::uint8_t* out, std::uint8_t* outBelow, std::size_t bytes, int bpp);

// Applies one filter to a row, for the encoder.
void filter(Filter type, const std::uint8_t* row, const std::uint8_t* previous, std::uint8_t* out, std::size_t bytes,
            int bpp);

}  // namespace mirel::ImageCodec::detail::png
