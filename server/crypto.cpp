#include "server/crypto.h"

#include "core/sync/content_hash.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>
#include <sodium.h>

#include <semaphore>
#include <stdexcept>

namespace mirel::server {

namespace {

std::string hex(const unsigned char* data, std::size_t length) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text(length * 2, '0');
    for (std::size_t i = 0; i < length; ++i) {
        text[2 * i] = digits[data[i] >> 4];
        text[2 * i + 1] = digits[data[i] & 0x0f];
    }
    return text;
}

// Each hash takes 64 MiB for a moment: a burst of sign-in attempts must not
// take the machine's memory with it.
std::counting_semaphore<2> hashingSlots(2);

struct HashingSlot {
    HashingSlot() { hashingSlots.acquire(); }
    ~HashingSlot() { hashingSlots.release(); }
};

void ensureSodium() {
    static const bool ready = sodium_init() >= 0;
    if (!ready) throw std::runtime_error("libsodium could not start");
}

}  // namespace

std::string randomBytes(std::size_t count) {
    std::string bytes(count, '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(count)) != 1) {
        throw std::runtime_error("no random bytes available");
    }
    return bytes;
}

std::string randomToken() {
    std::string bytes = randomBytes(32);
    return hex(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

std::string tokenHash(std::string_view token) { return ContentHash::sha256(token); }

std::string hashPassword(std::string_view password) {
    ensureSodium();
    HashingSlot slot;
    char stored[crypto_pwhash_STRBYTES];
    if (crypto_pwhash_str(stored, password.data(), password.size(), crypto_pwhash_OPSLIMIT_INTERACTIVE,
                          crypto_pwhash_MEMLIMIT_INTERACTIVE) != 0) {
        throw std::runtime_error("not enough memory to hash the password");
    }
    return stored;
}

bool verifyPassword(std::string_view password, const std::string& stored) {
    ensureSodium();
    HashingSlot slot;
    return crypto_pwhash_str_verify(stored.c_str(), password.data(), password.size()) == 0;
}

std::string hmacHex(std::string_view key, std::string_view message) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (!HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
              reinterpret_cast<const unsigned char*>(message.data()), message.size(), digest, &length)) {
        throw std::runtime_error("HMAC failed");
    }
    return hex(digest, length);
}

bool constantTimeEquals(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    unsigned char difference = 0;
    for (std::size_t i = 0; i < a.size(); ++i) difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    return difference == 0;
}

void Sha256Stream::Free::operator()(evp_md_ctx_st* context) const { EVP_MD_CTX_free(context); }

Sha256Stream::Sha256Stream() : context_(EVP_MD_CTX_new()) {
    if (!context_ || EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1) throw std::bad_alloc();
}

Sha256Stream::~Sha256Stream() = default;

void Sha256Stream::update(const char* data, std::size_t length) {
    if (EVP_DigestUpdate(context_.get(), data, length) != 1) throw std::bad_alloc();
}

std::string Sha256Stream::hexDigest() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(context_.get(), digest, &length) != 1) throw std::bad_alloc();
    return hex(digest, length);
}

}  // namespace mirel::server
