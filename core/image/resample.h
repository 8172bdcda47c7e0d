#pragma once
// The Lanczos-3 resampler in parts: weights per axis, the row kernels, and
// one output row at a time, so that decoders can feed it rows as they make
// them. Internal to core/image.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace mirel::ImageCodec::detail {

inline constexpr int weightBits = 14;  // weights are 1.14 fixed point; sums stay far inside 32 bits

// For each output index along one axis, the first source index and its weights.
struct AxisWeights {
    std::vector<int> first;
    std::vector<int> count;
    std::vector<std::int16_t> weights;  // `stride` per output index, zero past `count`
    int stride = 0;                     // a multiple of 4, for kernels that take taps four at a time
    int maxCount = 0;
    int from = 0;
    // Outputs [0, safe) read `stride` source pixels from `first` without passing the end.
    int safe = 0;
    bool identity() const { return from == static_cast<int>(first.size()) && maxCount == 1; }
};
AxisWeights weightsFor(int from, int to);

// The row kernels, the best the machine runs chosen once (AVX2 where it has it).
struct RowKernels {
    // out[i] = Σ weights[k] × rows[k][i] over k < count, for each byte i < bytes.
    void (*columns)(const std::uint8_t* const* rows, const std::int16_t* weights, int count, std::size_t bytes,
                    std::uint8_t* out);
    // Output pixel x = Σ weights × in[first[x] + k], byte by byte, for every x of the table.
    void (*rows)(const std::uint32_t* in, const AxisWeights& table, std::uint32_t* out);
    // Lowers colour bytes above their alpha: ringing must not break premultiplication.
    void (*clampToAlpha)(std::uint32_t* pixels, std::size_t count);
};
const RowKernels& rowKernels();
// The portable kernels, and the AVX2 ones (null where the build has none).
const RowKernels& portableKernels();
const RowKernels* avx2Kernels();

// What one thread needs while it makes output rows.
struct ResampleScratch {
    std::vector<const std::uint8_t*> rows;
    std::vector<std::uint32_t> line;
};

// Scaling from one size to another, columns first (which leaves fewer rows
// for the row pass), one output row at a time.
class Resampler {
public:
    Resampler(int fromWidth, int fromHeight, int toWidth, int toHeight);  // throws std::bad_alloc

    int toWidth() const { return static_cast<int>(horizontal_.first.size()); }
    int toHeight() const { return static_cast<int>(vertical_.first.size()); }
    // Output row y reads source rows [firstRow(y), endRow(y)).
    int firstRow(int y) const { return vertical_.first[y]; }
    int endRow(int y) const { return vertical_.first[y] + vertical_.count[y]; }
    // The most source rows one output row reads.
    int window() const { return vertical_.maxCount; }

    using SourceRows = std::function<const std::uint32_t*(int row)>;
    // Output row y from source rows of the source width.
    void outputRow(int y, const SourceRows& source, std::uint32_t* out, ResampleScratch& scratch) const;
    // The two passes on their own, for callers that filter rows before columns:
    // one row to the output width, and output row y from rows of any width.
    void scaleRow(const std::uint32_t* in, std::uint32_t* out) const;
    void combineRows(int y, const SourceRows& source, int width, std::uint32_t* out, ResampleScratch& scratch) const;

private:
    AxisWeights horizontal_;
    AxisWeights vertical_;
};

}  // namespace mirel::ImageCodec::detail
