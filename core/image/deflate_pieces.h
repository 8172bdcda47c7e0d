#pragma once
// One zlib stream compressed on several cores. libdeflate compresses a whole
// buffer at once and always ends with a final block, so the buffer is cut
// into pieces compressed side by side, and the pieces are joined: each but
// the last has its final block marked as not final and is closed by an empty
// stored block, which brings the stream back to a byte boundary for the next.
// The pieces cannot refer back to each other, which costs a fraction of a
// percent of size on large inputs. Internal to core/image.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "core/image/png_filters.h"

namespace mirel::ImageCodec::detail {

// Compressed bytes in a buffer sized for the worst case, whose unwritten
// tail the system never has to provide: a large image's stream costs the
// memory of what it compresses to, not of its bound.
class ZlibStream {
public:
    ZlibStream(std::unique_ptr<std::uint8_t[]> bytes, std::size_t size) : bytes_(std::move(bytes)), size_(size) {}
    const std::uint8_t* data() const { return bytes_.get(); }
    std::size_t size() const { return size_; }

private:
    std::unique_ptr<std::uint8_t[]> bytes_;
    std::size_t size_;
};

// One zlib stream made of pieces of known sizes, each compressed on its own,
// on any thread and in any order, then joined. Every piece is compressed
// straight into its own slot of one output buffer, and the slots are closed
// up at the end: the output is the only copy.
class PiecedZlib {
public:
    // Throws std::bad_alloc.
    PiecedZlib(const std::vector<std::size_t>& sizes, int level);
    // Compresses piece `index` from its bytes; different pieces may be
    // compressed at once. False if the piece could not be.
    bool compress(std::size_t index, const std::uint8_t* data);
    // The stream once every piece is in; nothing if one is missing.
    std::optional<ZlibStream> finish();

private:
    int level_;
    std::vector<std::size_t> sizes_, slot_, length_;
    std::vector<std::uint32_t> checksums_;
    std::vector<png::Compressor> compressors_;
    std::unique_ptr<std::uint8_t[]> out_;
};


// Where the last block of a raw deflate stream begins and where the stream
// ends, in bits from its start; nothing if the bytes are not a whole stream.
struct DeflateEnd {
    std::size_t lastBlockBit;
    std::size_t endBit;
};
std::optional<DeflateEnd> findDeflateEnd(const std::uint8_t* data, std::size_t size);

}  // namespace mirel::ImageCodec::detail
