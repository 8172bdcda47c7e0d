// Recognising a file by its first bytes, and dispatching to the decoder that
// knows it. The extension plays no part.
#include <cstring>

#include "core/image/codecs.h"
#include "core/image/image.h"

namespace mirel::ImageCodec {

Format sniff(const std::uint8_t* bytes, std::size_t size) {
    static constexpr std::uint8_t png[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    if (size >= sizeof png && std::memcmp(bytes, png, sizeof png) == 0) return Format::png;
    if (size >= 3 && bytes[0] == 0xff && bytes[1] == 0xd8 && bytes[2] == 0xff) return Format::jpeg;
    if (size >= 12 && std::memcmp(bytes, "RIFF", 4) == 0 && std::memcmp(bytes + 8, "WEBP", 4) == 0) {
        return Format::webp;
    }
    return Format::unknown;
}

namespace {

// The decoder the bytes call for; the PNG and JPEG ones encode along when asked.
std::optional<Image> decodeWith(const std::uint8_t* bytes, std::size_t size, int maxEdge, detail::EncodeAlong* along) {
    switch (sniff(bytes, size)) {
        case Format::png: return detail::decodePNG(bytes, size, maxEdge, along);
        case Format::jpeg: return detail::decodeJPEG(bytes, size, maxEdge, along);
        case Format::webp: return detail::decodeWebP(bytes, size, maxEdge);
        case Format::unknown: break;
    }
    return std::nullopt;
}

}  // namespace

std::optional<Image> decode(const std::uint8_t* bytes, std::size_t size, int maxEdge) {
    return decodeWith(bytes, size, maxEdge, nullptr);
}

std::optional<std::vector<std::uint8_t>> decodeToPNG(const std::uint8_t* bytes, std::size_t size, int maxEdge,
                                                     PNGCompression compression) {
    detail::EncodeAlong along{compression, true, std::nullopt};
    const std::optional<Image> image = decodeWith(bytes, size, maxEdge, &along);
    if (!image) return std::nullopt;
    // Encoded along as the image turned out to be, or encoded now.
    if (along.png && along.png->opaque() == image->opaque) {
        if (auto png = along.png->finish()) return png;
    }
    along.png.reset();
    return encodePNG(*image, compression);
}

std::optional<Image> decode(const std::vector<std::uint8_t>& bytes, int maxEdge) {
    return decode(bytes.data(), bytes.size(), maxEdge);
}

std::optional<std::pair<int, int>> dimensions(const std::vector<std::uint8_t>& bytes) {
    switch (sniff(bytes.data(), bytes.size())) {
        case Format::png: return detail::pngDimensions(bytes.data(), bytes.size());
        case Format::jpeg: return detail::jpegDimensions(bytes.data(), bytes.size());
        case Format::webp: return detail::webpDimensions(bytes.data(), bytes.size());
        case Format::unknown: break;
    }
    return std::nullopt;
}

}  // namespace mirel::ImageCodec
