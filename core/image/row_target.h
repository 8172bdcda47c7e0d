#pragma once
// Where a decoder puts the rows it decodes, in order, and gets back the image
// at the size asked for. Internal to core/image.
//
// When the whole source fits the memory budget it is kept whole, and helper
// threads scale the rows that are ready while the decoder still works on
// later ones. When it does not, only the window of rows the filter still needs
// is kept and each output row is made as soon as its rows are in, so memory
// follows the size of the output rather than what the file claims.
//
// Asked to encode along (and kept whole, with helpers), the output is also
// compressed as PNG band by band, by whichever thread finishes a band's rows.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "core/image/banded_png.h"
#include "core/image/image.h"
#include "core/image/resample.h"
#include "core/image/workers.h"

namespace mirel::ImageCodec::detail {

class RowTarget {
public:
    // Rows of width×height are to come, to be given back at toWidth×toHeight.
    // `decoderBytes` is what the decoder holds meanwhile; `wholeBytes` asks for
    // at least that many bytes of room if the source is kept whole (a PNG
    // inflates into it). `along`, when given, asks for the PNG of the output
    // too (see EncodeAlong). Throws std::bad_alloc.
    RowTarget(int width, int height, int toWidth, int toHeight, std::size_t decoderBytes = 0,
              std::size_t wholeBytes = 0, EncodeAlong* along = nullptr);
    ~RowTarget();
    RowTarget(const RowTarget&) = delete;
    RowTarget& operator=(const RowTarget&) = delete;

    int width() const { return width_; }
    int height() const { return height_; }
    // The room of the whole source, row y at byte y × width × 4; null when
    // only a window of rows is kept.
    std::uint8_t* whole() { return whole_; }
    std::size_t wholeSize() const { return wholeSize_; }

    // Where source row y goes: `width` native words, premultiplied. In window
    // mode each row is to be reported done before the next is asked for.
    std::uint32_t* row(int y);
    // Source rows [0, rows) are complete.
    void rowsDone(int rows);
    // The image once every row is done; nothing if memory ran out.
    std::optional<Image> finish(bool opaque);

private:
    void scaleBatches() noexcept;  // what the helpers, and at the end the caller, run
    void makeOutputRow(int y, const Resampler::SourceRows& source, ResampleScratch& scratch);
    void encodeBandsOf(int first, int end);  // output rows [first, end) are made
    const std::uint32_t* sourceRow(int y) const;

    const int width_, height_;
    std::optional<Resampler> resampler_;  // absent when no scaling is needed
    Image output_;

    // The whole source (the output itself when nothing is scaled) ...
    std::unique_ptr<std::uint8_t[]> wholeStorage_;
    std::uint8_t* whole_ = nullptr;
    std::size_t wholeSize_ = 0;
    // ... or a window of rows, row y in slot y % windowRows_.
    std::vector<std::uint32_t> window_;
    int windowRows_ = 0;
    int windowWidth_ = 0;
    bool rowsFirst_ = false;               // window rows are already scaled to the output width
    std::vector<std::uint32_t> incoming_;  // the row being decoded, when rows are scaled first
    ResampleScratch scratch_;
    int nextOutput_ = 0;                   // the first output row not yet made, in window mode

    // Shared by the decoder and the helpers in whole mode.
    std::atomic<int> done_{0};    // source rows complete
    std::atomic<int> wanted_{0};  // rows a waiting helper needs; the decoder wakes it then
    std::atomic<int> nextBatch_{0};
    std::atomic<bool> stopping_{false};
    std::atomic<bool> failed_{false};

    // Encoding along: the rows made of each band, and the bands handed out.
    EncodeAlong* along_ = nullptr;
    std::mutex bandsLock_;
    std::vector<int> bandRowsMade_;
    int bandsComplete_ = 0;  // bands [0, bandsComplete_) have all their rows
    int bandsTaken_ = 0;
    std::atomic<bool> encodeFailed_{false};

    std::optional<Helpers> helpers_;  // last, so it is joined before the rest goes
};

}  // namespace mirel::ImageCodec::detail
