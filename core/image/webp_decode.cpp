// WebP through libwebp, which reports errors by status codes.
#include <webp/decode.h>

#include <bit>

#include "core/image/codecs.h"

namespace mirel::ImageCodec::detail {

std::optional<std::pair<int, int>> webpDimensions(const std::uint8_t* bytes, std::size_t size) {
    int width = 0, height = 0;
    if (!WebPGetInfo(bytes, size, &width, &height) || width < 1 || height < 1) return std::nullopt;
    return std::pair<int, int>{width, height};
}

std::optional<Image> decodeWebP(const std::uint8_t* bytes, std::size_t size) {
    WebPDecoderConfig config;
    if (!WebPInitDecoderConfig(&config)) return std::nullopt;
    if (WebPGetFeatures(bytes, size, &config.input) != VP8_STATUS_OK) return std::nullopt;
    // Animations need the demuxer, which replies have no use for.
    if (config.input.has_animation) return std::nullopt;
    if (!sizeAllowed(config.input.width, config.input.height)) return std::nullopt;

    std::optional<Image> image = allocate(config.input.width, config.input.height);
    if (!image) return std::nullopt;
    // Premultiplied B G R A bytes are the native ARGB word on little-endian
    // machines, premultiplied A R G B on big-endian ones.
    config.output.colorspace = std::endian::native == std::endian::little ? MODE_bgrA : MODE_Argb;
    config.output.is_external_memory = 1;
    config.output.u.RGBA.rgba = reinterpret_cast<std::uint8_t*>(image->pixels.data());
    config.output.u.RGBA.stride = image->width * 4;
    config.output.u.RGBA.size = image->pixels.size() * 4;
    const VP8StatusCode status = WebPDecode(bytes, size, &config);
    WebPFreeDecBuffer(&config.output);
    if (status != VP8_STATUS_OK) return std::nullopt;

    if (config.input.has_alpha) detectOpaque(*image);
    else image->opaque = true;
    return image;
}

}  // namespace mirel::ImageCodec::detail
