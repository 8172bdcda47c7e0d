// Standard base64 (RFC 4648 alphabet, with padding, no line breaks).
#include "core/image/image.h"

namespace mirel::ImageCodec {

std::string base64(const std::vector<std::uint8_t>& bytes) {
    static constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const std::size_t size = bytes.size();
    std::string out((size + 2) / 3 * 4, '=');
    char* o = out.data();
    const std::uint8_t* in = bytes.data();
    std::size_t i = 0;
    for (; i + 3 <= size; i += 3, o += 4) {
        const std::uint32_t v = (std::uint32_t{in[i]} << 16) | (std::uint32_t{in[i + 1]} << 8) | in[i + 2];
        o[0] = alphabet[v >> 18];
        o[1] = alphabet[(v >> 12) & 63];
        o[2] = alphabet[(v >> 6) & 63];
        o[3] = alphabet[v & 63];
    }
    if (const std::size_t rest = size - i; rest > 0) {
        const std::uint32_t v = (std::uint32_t{in[i]} << 16) | (rest == 2 ? std::uint32_t{in[i + 1]} << 8 : 0);
        o[0] = alphabet[v >> 18];
        o[1] = alphabet[(v >> 12) & 63];
        if (rest == 2) o[2] = alphabet[(v >> 6) & 63];
    }
    return out;
}

}  // namespace mirel::ImageCodec
