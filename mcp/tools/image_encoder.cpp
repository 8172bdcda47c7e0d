#include "mcp/tools/image_encoder.h"

#include "core/image/image.h"
#include "core/platform/file_descriptor.h"
#include "mcp/server/log.h"

namespace mirel::ImageEncoder {

std::optional<std::string> encode(const std::filesystem::path& url, int maxEdge) {
    std::optional<std::vector<std::uint8_t>> png;
    {
        // Decoded straight to the fitted size (an image that fits is never
        // scaled, and never scaled up): the full-size pixels never exist for
        // formats that can shrink while decoding, and are let go at once
        // otherwise.
        std::optional<Image> image;
        auto compression = ImageCodec::PNGCompression::fast;
        try {
            const auto bytes = readRegularFile(url, ImageCodec::maxFileBytes);
            if (ImageCodec::sniff(bytes.data(), bytes.size()) == ImageCodec::Format::jpeg) {
                compression = ImageCodec::PNGCompression::fastest;  // a photograph, as JPEGs nearly always are
            }
            image = ImageCodec::decode(bytes, maxEdge);
        } catch (const FileReadError&) {
        }
        if (!image) {
            logLine("could not read image at " + url.string());
            return std::nullopt;
        }
        png = ImageCodec::encodePNG(std::move(*image), compression);
    }
    if (!png) return std::nullopt;
    return ImageCodec::base64(*png);
}

}  // namespace mirel::ImageEncoder
