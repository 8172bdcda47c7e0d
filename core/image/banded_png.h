#pragma once
// PNG encoding a band of rows at a time. Each band is filtered and compressed
// on its own, so bands can be encoded side by side, and even while later rows
// of the image are still being made. Internal to core/image.
#include <cstdint>
#include <optional>
#include <vector>

#include "core/image/deflate_pieces.h"
#include "core/image/image.h"

namespace mirel::ImageCodec::detail {

class BandedPNG {
public:
    // An image of width×height pixels in `bands` bands (fewer when the image
    // is small). Throws std::bad_alloc.
    BandedPNG(int width, int height, bool opaque, PNGCompression compression, int bands);

    bool opaque() const { return opaque_; }
    int bands() const { return static_cast<int>(firstRows_.size()) - 1; }
    // Band b holds rows [firstRow(b), firstRow(b + 1)).
    int firstRow(int band) const { return firstRows_[static_cast<std::size_t>(band)]; }
    int bandOf(int row) const;

    // Encodes band b from `pixels`, the image's rows, of which the band's own
    // and the one above it must be made. Different bands may be encoded at
    // once. Throws std::bad_alloc.
    void encode(int band, const std::uint32_t* pixels);
    // The file, once every band is encoded; nothing if one failed.
    std::optional<std::vector<std::uint8_t>> finish();

private:
    int width_, height_;
    bool opaque_;
    std::size_t rowBytes_;
    std::vector<int> firstRows_;
    std::optional<PiecedZlib> stream_;
};

// Asks a decoder to encode its result as PNG while it decodes, where it can:
// only rows of the orientation and opacity the image will have are encoded
// along. Whoever asked checks `png` against the decoded image.
struct EncodeAlong {
    PNGCompression compression;
    bool opaque = true;              // what the decoder expects, set by it
    std::optional<BandedPNG> png;    // set once encoding along has begun
};

}  // namespace mirel::ImageCodec::detail
