// A zlib stream compressed in pieces, in any order, is one valid stream that
// zlib itself inflates to the input, whatever the data (stored blocks for
// noise, long matches for repetition) and however many pieces: so each piece's
// end was found to the bit.
#include "core/image/deflate_pieces.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <random>

namespace mirel::ImageCodec::detail {
namespace {

std::vector<std::uint8_t> sample(int kind, std::size_t size, std::mt19937& random) {
    std::vector<std::uint8_t> data(size);
    for (std::size_t i = 0; i < size; ++i) {
        switch (kind) {
            case 0: data[i] = static_cast<std::uint8_t>(random()); break;                 // noise
            case 1: data[i] = static_cast<std::uint8_t>(i % 251 < 200 ? 7 : i % 13); break;  // flat areas
            default: data[i] = static_cast<std::uint8_t>(random() % 4 == 0 ? random() : i / 97); break;  // mixed
        }
    }
    return data;
}

// The data cut into `pieces` nearly equal parts, compressed in reverse order.
std::optional<ZlibStream> compressInPieces(const std::vector<std::uint8_t>& data, int level, std::size_t pieces) {
    std::vector<std::size_t> sizes;
    const auto begin = [&](std::size_t index) { return data.size() * index / pieces; };
    for (std::size_t index = 0; index < pieces; ++index) sizes.push_back(begin(index + 1) - begin(index));
    PiecedZlib stream(sizes, level);
    for (std::size_t index = pieces; index-- > 0;) {
        if (!stream.compress(index, data.data() + begin(index))) return std::nullopt;
    }
    return stream.finish();
}

TEST(DeflatePieces, JoinedPiecesInflateToTheInput) {
    std::mt19937 random(7);
    for (int kind = 0; kind < 3; ++kind) {
        for (const std::size_t size : {std::size_t{0}, std::size_t{1000}, std::size_t{400'000}}) {
            const auto data = sample(kind, size, random);
            for (const int level : {1, 6}) {
                for (const std::size_t pieces : {1, 2, 3}) {
                    const auto compressed = compressInPieces(data, level, pieces);
                    ASSERT_TRUE(compressed);
                    std::vector<std::uint8_t> back(data.size() + 1);
                    uLongf length = back.size();
                    ASSERT_EQ(uncompress(back.data(), &length, compressed->data(), compressed->size()), Z_OK)
                        << kind << " " << size << " " << level << " " << pieces;
                    back.resize(length);
                    EXPECT_EQ(back, data) << kind << " " << size << " " << level << " " << pieces;
                    // Joining finds where each piece ends; half a stream has no end to find.
                    EXPECT_FALSE(findDeflateEnd(compressed->data() + 2, (compressed->size() - 6) / 2)) << kind << " " << size;
                }
            }
        }
    }
}

}  // namespace
}  // namespace mirel::ImageCodec::detail
