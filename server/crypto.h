#pragma once
// Secrets on the server: random tokens, their stored hashes, password hashes,
// URL signatures and an incremental SHA-256 for uploads.
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

namespace mirel::server {

std::string randomBytes(std::size_t count);
// 256 random bits as 64 lower-case hexadecimal digits: session tokens and device codes.
std::string randomToken();
// What the database keeps in place of a token: its SHA-256, so a copy of the
// database gives nobody a working session.
std::string tokenHash(std::string_view token);

// Argon2id through libsodium; the result carries its own salt and limits.
std::string hashPassword(std::string_view password);
bool verifyPassword(std::string_view password, const std::string& stored);

// HMAC-SHA-256 as lower-case hexadecimal.
std::string hmacHex(std::string_view key, std::string_view message);
bool constantTimeEquals(std::string_view a, std::string_view b);

class Sha256Stream {
public:
    Sha256Stream();
    ~Sha256Stream();
    Sha256Stream(const Sha256Stream&) = delete;
    Sha256Stream& operator=(const Sha256Stream&) = delete;
    void update(const char* data, std::size_t length);
    std::string hexDigest();

private:
    struct Free {
        void operator()(evp_md_ctx_st* context) const;
    };
    std::unique_ptr<evp_md_ctx_st, Free> context_;
};

}  // namespace mirel::server
