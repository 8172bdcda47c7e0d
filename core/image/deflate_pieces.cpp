#include "core/image/deflate_pieces.h"

#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <new>
#include <vector>

#include "core/image/png_filters.h"

namespace mirel::ImageCodec::detail {

namespace {

// Deflate packs bits from the least significant end of each byte.
struct BitReader {
    const std::uint8_t* data;
    std::size_t size;
    std::size_t at = 0;  // in bits

    // At least the next 56 bits, zeros past the end.
    std::uint64_t peek() const {
        const std::size_t byte = at >> 3;
        std::uint64_t word = 0;
        if (byte + 8 <= size) std::memcpy(&word, data + byte, 8);
        else if (byte < size) std::memcpy(&word, data + byte, size - byte);
        if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap64(word);
        return word >> (at & 7);
    }
    std::uint32_t take(int bits) {
        const auto value = static_cast<std::uint32_t>(peek() & ((std::uint64_t{1} << bits) - 1));
        at += static_cast<std::size_t>(bits);
        return value;
    }
    bool overrun() const { return at > size * 8; }
};

// A canonical Huffman code as a table indexed by the next maxLength bits.
class HuffmanCode {
public:
    bool build(const std::uint8_t* lengths, int count) {
        std::array<int, 16> counts{};
        int longest = 0;
        for (int symbol = 0; symbol < count; ++symbol) {
            ++counts[lengths[symbol]];
            longest = std::max<int>(longest, lengths[symbol]);
        }
        counts[0] = 0;
        int left = 1;  // codes still free at the current length
        for (int length = 1; length < 16; ++length) {
            left = 2 * left - counts[length];
            if (left < 0) return false;  // more codes than the lengths allow
        }
        std::array<std::uint32_t, 16> next{};
        std::uint32_t code = 0;
        for (int length = 1; length < 16; ++length) {
            code = (code + static_cast<std::uint32_t>(counts[length - 1])) << 1;
            next[length] = code;
        }
        bits_ = longest;
        table_.assign(std::size_t{1} << longest, 0);
        for (int symbol = 0; symbol < count; ++symbol) {
            const int length = lengths[symbol];
            if (length == 0) continue;
            const std::uint32_t reversed = reverse(next[length]++, length);
            for (std::uint32_t index = reversed; index < table_.size(); index += 1u << length) {
                table_[index] = static_cast<std::uint16_t>(symbol << 4 | length);
            }
        }
        return true;
    }

    // The next symbol, or -1 where no code matches.
    int decode(BitReader& in) const {
        const std::uint16_t entry = entryFor(in.peek());
        if (entry == 0) return -1;
        in.at += entry & 15;
        return entry >> 4;
    }
    // The code the bits begin with: symbol << 4 | code length, 0 for none.
    std::uint16_t entryFor(std::uint64_t bits) const {
        return bits_ == 0 ? 0 : table_[bits & ((std::uint64_t{1} << bits_) - 1)];
    }

private:
    static std::uint32_t reverse(std::uint32_t code, int length) {
        std::uint32_t out = 0;
        for (int i = 0; i < length; ++i, code >>= 1) out = out << 1 | (code & 1);
        return out;
    }
    int bits_ = 0;
    std::vector<std::uint16_t> table_;  // symbol << 4 | code length; 0 = no code
};

constexpr std::array<std::uint8_t, 29> lengthExtraBits = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2,
                                                          2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 0};
constexpr std::array<std::uint8_t, 30> distanceExtraBits = {0, 0, 0, 0, 1, 1, 2, 2,  3,  3,  4,  4,  5,  5,  6,
                                                            6, 7, 7, 8, 8, 9, 9, 10, 10, 11, 11, 12, 12, 13, 13};

// Steps over a compressed block's symbols up to its end-of-block code, from
// 56 bits read at once and held in a register: read afresh when fewer are
// left than the longest literal code (15 bits) or, at a match, than the
// longest match (48).
bool skipSymbols(BitReader& in, const HuffmanCode& literals, const HuffmanCode& distances) {
    constexpr int held = 56, longestCode = 15, longestMatch = 48;
    std::uint64_t bits = 0;
    int left = 0;
    const auto refill = [&] {
        bits = in.peek();
        left = held;
        return !in.overrun();
    };
    for (;;) {
        if (left < longestCode && !refill()) return false;
        const std::uint16_t entry = literals.entryFor(bits);
        if (entry == 0) return false;
        int taken = entry & 15;
        const int symbol = entry >> 4;
        if (symbol == 256) {
            in.at += static_cast<std::size_t>(taken);
            return true;
        }
        if (symbol > 256) {
            if (symbol - 257 >= static_cast<int>(lengthExtraBits.size())) return false;
            if (left < longestMatch && !refill()) return false;
            taken += lengthExtraBits[static_cast<std::size_t>(symbol - 257)];
            const std::uint16_t distance = distances.entryFor(bits >> taken);
            if (distance == 0 || static_cast<std::size_t>(distance >> 4) >= distanceExtraBits.size()) return false;
            taken += (distance & 15) + distanceExtraBits[distance >> 4];
        }
        bits >>= taken;
        left -= taken;
        in.at += static_cast<std::size_t>(taken);
    }
}

bool readDynamicCodes(BitReader& in, HuffmanCode& literals, HuffmanCode& distances) {
    const int literalCount = static_cast<int>(in.take(5)) + 257;
    const int distanceCount = static_cast<int>(in.take(5)) + 1;
    const int lengthCodeCount = static_cast<int>(in.take(4)) + 4;
    if (literalCount > 286 || distanceCount > 30) return false;
    static constexpr std::uint8_t order[19] = {16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};
    std::uint8_t lengthCodeLengths[19] = {};
    for (int i = 0; i < lengthCodeCount; ++i) lengthCodeLengths[order[i]] = static_cast<std::uint8_t>(in.take(3));
    HuffmanCode lengthCode;
    if (!lengthCode.build(lengthCodeLengths, 19)) return false;

    std::uint8_t lengths[286 + 30] = {};
    const int total = literalCount + distanceCount;
    for (int filled = 0; filled < total;) {
        const int symbol = lengthCode.decode(in);
        if (symbol < 0 || in.overrun()) return false;
        if (symbol < 16) {
            lengths[filled++] = static_cast<std::uint8_t>(symbol);
            continue;
        }
        std::uint8_t value = 0;
        int repeat = 0;
        if (symbol == 16) {
            if (filled == 0) return false;
            value = lengths[filled - 1];
            repeat = 3 + static_cast<int>(in.take(2));
        } else if (symbol == 17) {
            repeat = 3 + static_cast<int>(in.take(3));
        } else {
            repeat = 11 + static_cast<int>(in.take(7));
        }
        if (filled + repeat > total) return false;
        std::fill_n(lengths + filled, repeat, value);
        filled += repeat;
    }
    return literals.build(lengths, literalCount) && distances.build(lengths + literalCount, distanceCount);
}

const HuffmanCode& fixedLiterals() {
    static const HuffmanCode code = [] {
        std::uint8_t lengths[288];
        std::fill_n(lengths, 144, 8);
        std::fill_n(lengths + 144, 112, 9);
        std::fill_n(lengths + 256, 24, 7);
        std::fill_n(lengths + 280, 8, 8);
        HuffmanCode built;
        built.build(lengths, 288);
        return built;
    }();
    return code;
}

const HuffmanCode& fixedDistances() {
    static const HuffmanCode code = [] {
        std::uint8_t lengths[30];
        std::fill_n(lengths, 30, 5);
        HuffmanCode built;
        built.build(lengths, 30);
        return built;
    }();
    return code;
}

int zlibLevelHint(int level) { return level < 2 ? 0 : level < 6 ? 1 : level == 6 ? 2 : 3; }

// A piece compressed on its own, made to flow into the next: its last block
// no longer final, then an empty stored block (three zero bits, padding to the
// byte, then LEN 0 and NLEN 0xFFFF), as zlib's sync flush writes. The piece
// needs `openingRoom` writable bytes past its end; returns its new length, or
// 0 where its end cannot be found.
constexpr std::size_t openingRoom = 5;
std::size_t openUp(std::uint8_t* piece, std::size_t size) {
    const auto end = findDeflateEnd(piece, size);
    if (!end) return 0;
    piece[end->lastBlockBit / 8] &= static_cast<std::uint8_t>(~(1u << (end->lastBlockBit % 8)));
    const std::size_t padded = (end->endBit + 3 + 7) / 8;
    if (end->endBit % 8 != 0) piece[end->endBit / 8] &= static_cast<std::uint8_t>((1u << (end->endBit % 8)) - 1);
    std::fill(piece + (end->endBit + 7) / 8, piece + padded, std::uint8_t{0});
    static constexpr std::uint8_t emptyStoredBlock[] = {0x00, 0x00, 0xff, 0xff};
    std::memcpy(piece + padded, emptyStoredBlock, sizeof emptyStoredBlock);
    return padded + sizeof emptyStoredBlock;
}

}  // namespace

std::optional<DeflateEnd> findDeflateEnd(const std::uint8_t* data, std::size_t size) {
    BitReader in{data, size};
    HuffmanCode literals, distances;
    for (;;) {
        const std::size_t blockBit = in.at;
        const bool final = in.take(1) != 0;
        const std::uint32_t type = in.take(2);
        if (type == 0) {  // stored: from the next byte, LEN, NLEN, then LEN bytes
            in.at = (in.at + 7) & ~std::size_t{7};
            const std::size_t byte = in.at / 8;
            if (byte + 4 > size) return std::nullopt;
            const std::uint32_t length = data[byte] | data[byte + 1] << 8;
            const std::uint32_t inverse = data[byte + 2] | data[byte + 3] << 8;
            if (length != (~inverse & 0xffffu)) return std::nullopt;
            in.at += (4 + std::size_t{length}) * 8;
        } else if (type == 1) {
            if (!skipSymbols(in, fixedLiterals(), fixedDistances())) return std::nullopt;
        } else if (type == 2) {
            if (!readDynamicCodes(in, literals, distances) || !skipSymbols(in, literals, distances)) return std::nullopt;
        } else {
            return std::nullopt;
        }
        if (in.overrun()) return std::nullopt;
        if (final) return DeflateEnd{blockBit, in.at};
    }
}

PiecedZlib::PiecedZlib(const std::vector<std::size_t>& sizes, int level)
    : level_(level), sizes_(sizes), slot_(sizes.size() + 1), length_(sizes.size(), 0), checksums_(sizes.size()) {
    constexpr std::size_t header = 2, trailer = 4;
    slot_[0] = header;
    for (std::size_t index = 0; index < sizes.size(); ++index) {
        compressors_.emplace_back(libdeflate_alloc_compressor(level));
        if (!compressors_.back()) throw std::bad_alloc();
        slot_[index + 1] = slot_[index] + openingRoom +
                           libdeflate_deflate_compress_bound(compressors_.back().get(), sizes[index]);
    }
    // Left uninitialised on purpose: pages never written are never mapped in.
    out_ = std::make_unique_for_overwrite<std::uint8_t[]>(slot_.back() + trailer);
}

bool PiecedZlib::compress(std::size_t index, const std::uint8_t* data) {
    std::uint8_t* piece = out_.get() + slot_[index];
    std::size_t length = libdeflate_deflate_compress(compressors_[index].get(), data, sizes_[index], piece,
                                                     slot_[index + 1] - slot_[index] - openingRoom);
    if (length != 0 && index + 1 < sizes_.size()) length = openUp(piece, length);
    checksums_[index] = libdeflate_adler32(1, data, sizes_[index]);
    compressors_[index].reset();  // its tables are large
    length_[index] = length;
    return length != 0;
}

std::optional<ZlibStream> PiecedZlib::finish() {
    if (std::find(length_.begin(), length_.end(), std::size_t{0}) != length_.end()) return std::nullopt;
    const std::uint8_t method = 0x78;  // deflate with a 32 KiB window
    auto flags = static_cast<std::uint8_t>(zlibLevelHint(level_) << 6);
    flags = static_cast<std::uint8_t>(flags | (31 - (method << 8 | flags) % 31) % 31);
    out_[0] = method;
    out_[1] = flags;
    std::size_t filled = 2;
    uLong checksum = checksums_[0];
    for (std::size_t index = 0; index < sizes_.size(); ++index) {
        std::memmove(out_.get() + filled, out_.get() + slot_[index], length_[index]);
        filled += length_[index];
        if (index > 0) checksum = adler32_combine(checksum, checksums_[index], static_cast<z_off_t>(sizes_[index]));
    }
    for (int shift = 24; shift >= 0; shift -= 8) out_[filled++] = static_cast<std::uint8_t>(checksum >> shift);
    return ZlibStream(std::move(out_), filled);
}

}  // namespace mirel::ImageCodec::detail
