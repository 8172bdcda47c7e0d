#pragma once
// The name of a blob: the SHA-256 of its bytes as lower-case hexadecimal.
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace mirel::ContentHash {

// 64 lower-case hexadecimal digits, two per digest byte.
std::string sha256(std::span<const std::uint8_t> data);
std::string sha256(std::string_view data);

// True for exactly 64 lower-case hexadecimal digits: the only hash text that may
// name a file or a URL path segment.
bool isHexDigest(std::string_view text);

}  // namespace mirel::ContentHash
