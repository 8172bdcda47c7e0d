#include "mcp/tools/image_encoder.h"

#include "core/image/image.h"
#include "core/platform/file_descriptor.h"
#include "mcp/server/log.h"

namespace mirel::ImageEncoder {

std::optional<std::string> encode(const std::filesystem::path& url, int maxEdge) {
    // Decoded straight to the fitted size (an image that fits is never scaled,
    // and never scaled up): the full-size pixels never exist for formats that
    // can shrink while decoding, and the PNG is compressed along.
    std::optional<std::vector<std::uint8_t>> png;
    try {
        const auto bytes = readRegularFile(url, ImageCodec::maxFileBytes);
        const auto compression = ImageCodec::sniff(bytes.data(), bytes.size()) == ImageCodec::Format::jpeg
                                     ? ImageCodec::PNGCompression::fastest  // a photograph, as JPEGs nearly always are
                                     : ImageCodec::PNGCompression::fast;
        png = ImageCodec::decodeToPNG(bytes.data(), bytes.size(), maxEdge, compression);
    } catch (const FileReadError&) {
    }
    if (!png) {
        logLine("could not read image at " + url.string());
        return std::nullopt;
    }
    return ImageCodec::base64(*png);
}

}  // namespace mirel::ImageEncoder
