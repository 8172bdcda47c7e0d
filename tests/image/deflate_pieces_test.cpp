// A zlib stream compressed in pieces on several cores is one valid stream that
// zlib itself inflates to the input, whatever the data (stored blocks for
// noise, long matches for repetition) and however many pieces.
#include "core/image/deflate_pieces.h"

#include <gtest/gtest.h>
#include <libdeflate.h>
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

TEST(DeflatePieces, JoinedPiecesInflateToTheInput) {
    std::mt19937 random(7);
    for (int kind = 0; kind < 3; ++kind) {
        for (const std::size_t size : {std::size_t{0}, std::size_t{1000}, std::size_t{400'000}}) {
            const auto data = sample(kind, size, random);
            for (const int level : {1, 6}) {
                for (const int pieces : {1, 2, 3}) {
                    const auto compressed = zlibCompress(data.data(), data.size(), level, pieces);
                    ASSERT_TRUE(compressed);
                    std::vector<std::uint8_t> back(data.size() + 1);
                    uLongf length = back.size();
                    ASSERT_EQ(uncompress(back.data(), &length, compressed->data(), compressed->size()), Z_OK)
                        << kind << " " << size << " " << level << " " << pieces;
                    back.resize(length);
                    EXPECT_EQ(back, data) << kind << " " << size << " " << level << " " << pieces;
                }
            }
        }
    }
}

TEST(DeflatePieces, FindsTheEndOfAStreamAndRefusesACutOne) {
    std::mt19937 random(11);
    for (int kind = 0; kind < 3; ++kind) {
        const auto data = sample(kind, 300'000, random);
        auto* compressor = libdeflate_alloc_compressor(6);
        std::vector<std::uint8_t> raw(libdeflate_deflate_compress_bound(compressor, data.size()));
        raw.resize(libdeflate_deflate_compress(compressor, data.data(), data.size(), raw.data(), raw.size()));
        libdeflate_free_compressor(compressor);

        const auto end = findDeflateEnd(raw.data(), raw.size());
        ASSERT_TRUE(end) << kind;
        EXPECT_EQ((end->endBit + 7) / 8, raw.size()) << kind;
        EXPECT_EQ(raw[end->lastBlockBit / 8] >> (end->lastBlockBit % 8) & 1, 1) << kind;  // the final flag
        EXPECT_FALSE(findDeflateEnd(raw.data(), raw.size() / 2)) << kind;
    }
}

}  // namespace
}  // namespace mirel::ImageCodec::detail
