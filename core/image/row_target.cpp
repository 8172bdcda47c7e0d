#include "core/image/row_target.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

#include "core/image/codecs.h"

namespace mirel::ImageCodec::detail {

namespace {

constexpr int batchRows = 8;  // output rows a helper takes at a time
// Helpers pay for their start only on sources of this many pixels or more.
constexpr std::int64_t helperPixels = 1'000'000;
// A window of full-width source rows above this size is kept as rows already
// scaled to the output width instead (very wide images).
constexpr std::size_t windowLimit = 16u << 20;
// Bands of a PNG encoded along: enough that little of the encoding is left
// once the last rows are in.
constexpr int bandsAlong = 4;

std::size_t bytesOf(int width, int height) {
    return static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4;
}

}  // namespace

RowTarget::RowTarget(int width, int height, int toWidth, int toHeight, std::size_t decoderBytes,
                     std::size_t wholeBytes, EncodeAlong* along)
    : width_(width), height_(height) {
    output_.width = toWidth;
    output_.height = toHeight;
    wholeSize_ = std::max(bytesOf(width, height), wholeBytes);
    if (toWidth == width && toHeight == height) {
        // Nothing to scale: the source is the result.
        output_.pixels.resize((wholeSize_ + 3) / 4);
        whole_ = reinterpret_cast<std::uint8_t*>(output_.pixels.data());
        return;
    }
    resampler_.emplace(width, height, toWidth, toHeight);
    output_.pixels.resize(static_cast<std::size_t>(toWidth) * static_cast<std::size_t>(toHeight));
    if (decoderBytes + wholeSize_ + bytesOf(toWidth, toHeight) <= decodeBudget) {
        wholeStorage_.reset(new std::uint8_t[wholeSize_]);
        whole_ = wholeStorage_.get();
        if (workerCount() > 1 && static_cast<std::int64_t>(width) * height >= helperPixels) {
            if (along) {
                along->png.emplace(toWidth, toHeight, along->opaque, along->compression, bandsAlong);
                along_ = along;
                bandRowsMade_.assign(static_cast<std::size_t>(along->png->bands()), 0);
            }
            helpers_.emplace(workerCount() - 1, [this] { scaleBatches(); });
        }
        return;
    }
    wholeSize_ = 0;
    windowRows_ = resampler_->window();
    rowsFirst_ = static_cast<std::size_t>(windowRows_) * width * 4 > windowLimit;
    windowWidth_ = rowsFirst_ ? toWidth : width;
    window_.resize(static_cast<std::size_t>(windowRows_) * windowWidth_);
    if (rowsFirst_) incoming_.resize(width);
}

RowTarget::~RowTarget() {
    stopping_ = true;
    done_.store(INT_MAX);
    done_.notify_all();
    helpers_.reset();
}

std::uint32_t* RowTarget::row(int y) {
    if (whole_) return reinterpret_cast<std::uint32_t*>(whole_) + static_cast<std::size_t>(y) * width_;
    if (rowsFirst_) return incoming_.data();
    return window_.data() + static_cast<std::size_t>(y % windowRows_) * windowWidth_;
}

const std::uint32_t* RowTarget::sourceRow(int y) const {
    if (whole_) return reinterpret_cast<const std::uint32_t*>(whole_) + static_cast<std::size_t>(y) * width_;
    return window_.data() + static_cast<std::size_t>(y % windowRows_) * windowWidth_;
}

void RowTarget::makeOutputRow(int y, const Resampler::SourceRows& source, ResampleScratch& scratch) {
    std::uint32_t* out = output_.pixels.data() + static_cast<std::size_t>(y) * output_.width;
    if (rowsFirst_) resampler_->combineRows(y, source, output_.width, out, scratch);
    else resampler_->outputRow(y, source, out, scratch);
}

void RowTarget::encodeBandsOf(int first, int end) {
    BandedPNG& png = *along_->png;
    int from = 0, to = 0;
    {
        const std::lock_guard lock(bandsLock_);
        for (int y = first; y < end;) {
            const int band = png.bandOf(y), stop = std::min(end, png.firstRow(band + 1));
            bandRowsMade_[static_cast<std::size_t>(band)] += stop - y;
            y = stop;
        }
        // A band needs the row above it too: bands go out once every band
        // before them is complete.
        while (bandsComplete_ < png.bands() &&
               bandRowsMade_[static_cast<std::size_t>(bandsComplete_)] ==
                   png.firstRow(bandsComplete_ + 1) - png.firstRow(bandsComplete_)) {
            ++bandsComplete_;
        }
        from = bandsTaken_;
        to = bandsTaken_ = bandsComplete_;
    }
    try {
        for (int band = from; band < to && !encodeFailed_; ++band) png.encode(band, output_.pixels.data());
    } catch (const std::bad_alloc&) {
        encodeFailed_ = true;  // the image is still good; it is encoded afterwards
    }
}

void RowTarget::rowsDone(int rows) {
    if (whole_) {
        done_.store(rows);
        if (rows >= wanted_.load()) done_.notify_all();
        return;
    }
    if (rowsFirst_) {
        resampler_->scaleRow(incoming_.data(), window_.data() + static_cast<std::size_t>((rows - 1) % windowRows_) * windowWidth_);
    }
    const Resampler::SourceRows source = [this](int y) { return sourceRow(y); };
    while (nextOutput_ < output_.height && resampler_->endRow(nextOutput_) <= rows) {
        makeOutputRow(nextOutput_++, source, scratch_);
    }
}

void RowTarget::scaleBatches() noexcept {
    try {
        ResampleScratch scratch;
        const Resampler::SourceRows source = [this](int y) { return sourceRow(y); };
        for (;;) {
            const int first = nextBatch_.fetch_add(1) * batchRows;
            if (first >= output_.height) return;
            const int end = std::min(output_.height, first + batchRows);
            const int needed = resampler_->endRow(end - 1);
            for (int got = done_.load(); got < needed; got = done_.load()) {
                if (stopping_) return;
                wanted_.store(needed);
                done_.wait(got);
            }
            if (stopping_) return;
            for (int y = first; y < end; ++y) makeOutputRow(y, source, scratch);
            if (along_) encodeBandsOf(first, end);
        }
    } catch (const std::bad_alloc&) {
        failed_ = true;
    }
}

std::optional<Image> RowTarget::finish(bool opaque) {
    if (resampler_ && whole_) {
        rowsDone(height_);
        scaleBatches();
        helpers_.reset();
        wholeStorage_.reset();
        whole_ = nullptr;
    }
    if (along_ && (encodeFailed_ || failed_)) along_->png.reset();
    if (failed_) return std::nullopt;
    if (!resampler_) output_.pixels.resize(static_cast<std::size_t>(width_) * height_);
    output_.opaque = opaque;
    // With every alpha at 255 and weights summing to one, alpha stays 255.
    // (Rows encoded along need no clamping: PNG's straight colour saturates.)
    if (resampler_ && !opaque) rowKernels().clampToAlpha(output_.pixels.data(), output_.pixels.size());
    return std::move(output_);
}

}  // namespace mirel::ImageCodec::detail
