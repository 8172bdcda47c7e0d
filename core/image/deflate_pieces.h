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
#include <optional>
#include <vector>

namespace mirel::ImageCodec::detail {

// The zlib stream of `size` bytes at `data`, at libdeflate's `level`, cut
// into `pieces` parts (1 compresses in one go). Nothing on failure.
std::optional<std::vector<std::uint8_t>> zlibCompress(const std::uint8_t* data, std::size_t size, int level,
                                                     int pieces);

// Where the last block of a raw deflate stream begins and where the stream
// ends, in bits from its start; nothing if the bytes are not a whole stream.
struct DeflateEnd {
    std::size_t lastBlockBit;
    std::size_t endBit;
};
std::optional<DeflateEnd> findDeflateEnd(const std::uint8_t* data, std::size_t size);

}  // namespace mirel::ImageCodec::detail
