// WebP through libwebp, which reports errors by status codes. An animation
// gives its first frame, through the demuxer. An image that is to be shown
// much smaller is first shrunk by libwebp's own scaler while it decodes, to
// twice the target (its area averaging loses nothing the Lanczos pass would
// keep), so the full size is never held; libwebp keeps a lossless image
// (and a lossy one's alpha) whole inside, and those are held to the budget.
#include <webp/decode.h>
#include <webp/demux.h>

#include <bit>
#include <cstring>
#include <memory>
#include <new>
#include <tuple>

#include "core/image/codecs.h"
#include "core/image/row_target.h"

namespace mirel::ImageCodec::detail {

namespace {

struct DemuxDelete {
    void operator()(WebPDemuxer* demuxer) const { WebPDemuxDelete(demuxer); }
};

class FirstFrame {
public:
    explicit FirstFrame(const WebPDemuxer* demuxer) : found_(WebPDemuxGetFrame(demuxer, 1, &iterator_) != 0) {}
    ~FirstFrame() {
        if (found_) WebPDemuxReleaseIterator(&iterator_);
    }
    FirstFrame(const FirstFrame&) = delete;
    FirstFrame& operator=(const FirstFrame&) = delete;
    const WebPIterator* get() const { return found_ && iterator_.complete ? &iterator_ : nullptr; }

private:
    WebPIterator iterator_{};
    bool found_;
};

// One WebP bitstream decoded at width×height (scaled by libwebp if that is not
// its size) into premultiplied native words, `stride` bytes a row.
bool decodeInto(const std::uint8_t* bytes, std::size_t size, int width, int height, std::uint8_t* out,
                std::size_t stride, std::size_t room) {
    WebPDecoderConfig config;
    if (!WebPInitDecoderConfig(&config) || WebPGetFeatures(bytes, size, &config.input) != VP8_STATUS_OK) return false;
    if (width != config.input.width || height != config.input.height) {
        config.options.use_scaling = 1;
        config.options.scaled_width = width;
        config.options.scaled_height = height;
    }
    config.options.use_threads = 1;
    // Premultiplied B G R A bytes are the native ARGB word on little-endian
    // machines, premultiplied A R G B on big-endian ones.
    config.output.colorspace = std::endian::native == std::endian::little ? MODE_bgrA : MODE_Argb;
    config.output.is_external_memory = 1;
    config.output.u.RGBA.rgba = out;
    config.output.u.RGBA.stride = static_cast<int>(stride);
    config.output.u.RGBA.size = room;
    const VP8StatusCode status = WebPDecode(bytes, size, &config);
    WebPFreeDecBuffer(&config.output);
    return status == VP8_STATUS_OK;
}

bool allOpaque(const std::uint32_t* pixels, std::size_t count) {
    std::uint32_t all = 0xff000000u;
    for (std::size_t i = 0; i < count; ++i) all &= pixels[i];
    return (all & 0xff000000u) == 0xff000000u;
}

std::size_t bytesOf(int width, int height) {
    return static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4;
}

}  // namespace

std::optional<std::pair<int, int>> webpDimensions(const std::uint8_t* bytes, std::size_t size) {
    int width = 0, height = 0;
    if (!WebPGetInfo(bytes, size, &width, &height) || width < 1 || height < 1) return std::nullopt;
    return std::pair<int, int>{width, height};
}

std::optional<Image> decodeWebP(const std::uint8_t* bytes, std::size_t size, int maxEdge) {
    WebPBitstreamFeatures features;
    if (WebPGetFeatures(bytes, size, &features) != VP8_STATUS_OK) return std::nullopt;
    if (!sizeAllowed(features.width, features.height)) return std::nullopt;
    const int width = features.width, height = features.height;  // of the canvas, for an animation

    // The first frame: the whole file, or the demuxer's first frame.
    const std::uint8_t* frame = bytes;
    std::size_t frameSize = size;
    int frameX = 0, frameY = 0, frameWidth = width, frameHeight = height;
    const WebPData data{bytes, size};
    const std::unique_ptr<WebPDemuxer, DemuxDelete> demuxer(features.has_animation ? WebPDemux(&data) : nullptr);
    std::optional<FirstFrame> first;
    if (demuxer) first.emplace(demuxer.get());
    if (features.has_animation) {
        const WebPIterator* iterator = first ? first->get() : nullptr;
        if (!iterator || iterator->x_offset + iterator->width > width || iterator->y_offset + iterator->height > height) {
            return std::nullopt;
        }
        frame = iterator->fragment.bytes;
        frameSize = iterator->fragment.size;
        frameX = iterator->x_offset, frameY = iterator->y_offset;
        frameWidth = iterator->width, frameHeight = iterator->height;
        if (WebPGetFeatures(frame, frameSize, &features) != VP8_STATUS_OK) return std::nullopt;
    }
    // What libwebp holds inside: a lossless image whole, a lossy one's alpha plane.
    const std::size_t pixels = static_cast<std::size_t>(frameWidth) * static_cast<std::size_t>(frameHeight);
    const std::size_t decoderBytes = features.format == 2 ? pixels * 4 : features.has_alpha ? pixels * 2 : 0;

    const std::pair<int, int> target = targetSize(width, height, maxEdge);
    const int toWidth = target.first, toHeight = target.second;
    const bool scaled = toWidth != width || toHeight != height;
    auto fits = [&](int w, int h) {
        const std::size_t result = w == toWidth && h == toHeight ? 0 : bytesOf(toWidth, toHeight);
        return decoderBytes + bytesOf(w, h) + result <= decodeBudget;
    };
    // Decoded at twice the target, or at the target, when the frame is the canvas.
    int decodeWidth = width, decodeHeight = height;
    const bool wholeCanvas = frameWidth == width && frameHeight == height;
    if (scaled && wholeCanvas) {
        std::tie(decodeWidth, decodeHeight) = targetSize(width, height, 2 * std::max(toWidth, toHeight));
        if (!fits(decodeWidth, decodeHeight)) decodeWidth = toWidth, decodeHeight = toHeight;
    }
    if (scaled && !fits(decodeWidth, decodeHeight)) return std::nullopt;

    try {
        RowTarget rows(decodeWidth, decodeHeight, toWidth, toHeight, decoderBytes);
        if (!rows.whole()) return std::nullopt;
        std::uint8_t* canvas = rows.whole();
        const std::size_t stride = static_cast<std::size_t>(decodeWidth) * 4;
        std::size_t offset = 0;
        if (!wholeCanvas) {
            // The rest of the canvas is clear until the frame is drawn on it.
            std::memset(canvas, 0, stride * decodeHeight);
            offset = static_cast<std::size_t>(frameY) * stride + static_cast<std::size_t>(frameX) * 4;
        }
        const int outWidth = wholeCanvas ? decodeWidth : frameWidth, outHeight = wholeCanvas ? decodeHeight : frameHeight;
        if (!decodeInto(frame, frameSize, outWidth, outHeight, canvas + offset, stride, stride * decodeHeight - offset)) {
            return std::nullopt;
        }
        const bool opaque = wholeCanvas && (!features.has_alpha ||
                                            allOpaque(reinterpret_cast<const std::uint32_t*>(canvas),
                                                      static_cast<std::size_t>(decodeWidth) * decodeHeight));
        rows.rowsDone(decodeHeight);
        return rows.finish(opaque);
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
}

}  // namespace mirel::ImageCodec::detail
