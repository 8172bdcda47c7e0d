#include "core/sync/content_hash.h"

#include <openssl/evp.h>

#include <memory>
#include <stdexcept>

namespace mirel::ContentHash {

std::string sha256(std::span<const std::uint8_t> data) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    // EVP_Digest only fails when the library cannot allocate; there is no digest to give then.
    if (EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
        throw std::bad_alloc();
    }
    static constexpr char hex[] = "0123456789abcdef";
    std::string text(length * 2, '0');
    for (unsigned int i = 0; i < length; ++i) {
        text[2 * i] = hex[digest[i] >> 4];
        text[2 * i + 1] = hex[digest[i] & 0x0f];
    }
    return text;
}

std::string sha256(std::string_view data) {
    return sha256(std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(data.data()), data.size()));
}

bool isHexDigest(std::string_view text) {
    if (text.size() != 64) return false;
    for (char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    }
    return true;
}

}  // namespace mirel::ContentHash
