// Recognising a file by its first bytes, and dispatching to the decoder that
// knows it. The extension plays no part.
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "core/image/codecs.h"
#include "core/image/image.h"

namespace mirel::ImageCodec {

namespace {

// Far above any screenshot, and well below what would strain memory before the
// header can even be looked at.
constexpr std::int64_t maxFileBytes = std::int64_t{512} << 20;

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

}  // namespace

Format sniff(const std::uint8_t* bytes, std::size_t size) {
    static constexpr std::uint8_t png[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    if (size >= sizeof png && std::memcmp(bytes, png, sizeof png) == 0) return Format::png;
    if (size >= 3 && bytes[0] == 0xff && bytes[1] == 0xd8 && bytes[2] == 0xff) return Format::jpeg;
    if (size >= 12 && std::memcmp(bytes, "RIFF", 4) == 0 && std::memcmp(bytes + 8, "WEBP", 4) == 0) {
        return Format::webp;
    }
    return Format::unknown;
}

std::optional<Image> decode(const std::uint8_t* bytes, std::size_t size, int maxEdge) {
    switch (sniff(bytes, size)) {
        case Format::png: return detail::decodePNG(bytes, size, maxEdge);
        case Format::jpeg: return detail::decodeJPEG(bytes, size, maxEdge);
        case Format::webp: return detail::decodeWebP(bytes, size, maxEdge);
        case Format::unknown: break;
    }
    return std::nullopt;
}

std::optional<Image> decode(const std::vector<std::uint8_t>& bytes, int maxEdge) {
    return decode(bytes.data(), bytes.size(), maxEdge);
}

std::optional<Image> decodeFile(const std::filesystem::path& path, int maxEdge) {
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "rb"));
    if (!file) return std::nullopt;
    struct stat info {};
    if (::fstat(::fileno(file.get()), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
    if (info.st_size <= 0 || info.st_size > maxFileBytes) return std::nullopt;

    std::vector<std::uint8_t> bytes;
    try {
        bytes.resize(static_cast<std::size_t>(info.st_size));
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
    // The file may shrink while it is read; decode what actually arrived.
    const std::size_t got = std::fread(bytes.data(), 1, bytes.size(), file.get());
    if (got == 0) return std::nullopt;
    return decode(bytes.data(), got, maxEdge);
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
