#include "mcp/tools/image_encoder.h"

#include <cmath>

#include "core/image/image.h"
#include "mcp/server/log.h"

namespace mirel::ImageEncoder {

namespace {

// A smaller copy whose longest edge is `maxEdge`; nothing if the image already
// fits (it is never scaled up) or the copy cannot be made.
std::optional<Image> downscale(const Image& image, int maxEdge) {
    const int longest = std::max(image.width, image.height);
    if (maxEdge < 1 || maxEdge >= longest) return std::nullopt;
    const double scale = static_cast<double>(maxEdge) / longest;
    // std::round rounds halves away from zero.
    const int width = std::max(1, static_cast<int>(std::round(scale * image.width)));
    const int height = std::max(1, static_cast<int>(std::round(scale * image.height)));
    return ImageCodec::resample(image, width, height);
}

}  // namespace

std::optional<std::string> encode(const std::filesystem::path& url, int maxEdge) {
    std::optional<std::vector<std::uint8_t>> png;
    {
        std::optional<Image> image = ImageCodec::decodeFile(url);
        if (!image) {
            logLine("could not read image at " + url.string());
            return std::nullopt;
        }
        // The full-size pixels are let go as soon as the smaller copy exists.
        if (std::optional<Image> smaller = downscale(*image, maxEdge)) image = std::move(smaller);
        png = ImageCodec::encodePNG(*image);
    }
    if (!png) return std::nullopt;
    return ImageCodec::base64(*png);
}

}  // namespace mirel::ImageEncoder
