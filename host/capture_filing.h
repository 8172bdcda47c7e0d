#pragma once
// Files one capture into the library: image files, thumbnails, the capture
// row, its image rows, group and tags. Shared by `mirel add` and `mirel demo`.
//
// All work that can fail on bad input (decoding, rendering, encoding) is done
// in memory before anything is written; the rows then go in one transaction,
// so a failed filing leaves no trace.
#include "core/annotation/annotation.h"
#include "core/image/image.h"
#include "core/store/capture_store.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace mirel::host {

// A failure the user can act on; what() is the whole message.
class FilingError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// One screenshot ready to file: the bytes as they will be stored, the
// decoded pixels and the extension of the bytes' real kind.
struct PreparedImage {
    std::vector<std::uint8_t> bytes;
    Image image;
    std::string ext;  // "png", "jpg" or "webp"
};

// Reads and decodes an image file; throws FilingError naming the file.
PreparedImage prepareImageFile(const std::filesystem::path& path);
// Sniffs and decodes bytes made in memory; throws FilingError.
PreparedImage prepareImageBytes(std::vector<std::uint8_t> bytes, const std::string& label);

struct FilingRequest {
    // Note, priority, status, app/window/url/display fields and mode are
    // taken from here; id, paths and sizes are filled in. A createdAt of 0
    // means now. Without images the mode becomes `text`.
    Capture capture;
    std::vector<PreparedImage> images;
    std::optional<std::string> groupName;
    std::vector<std::string> tags;
    // Burned into the first image when present.
    std::optional<Annotation> annotation;
    // Told how many images are ready (thumbnail made) as filing goes on.
    std::function<void(std::size_t ready)> onImageReady;
};

// Longest edge of a thumbnail.
inline constexpr int thumbnailEdge = 400;

// Files the request and gives the new capture's id. Throws FilingError for
// bad input, DatabaseError or the file system's error otherwise; in every
// case nothing of this capture stays behind.
std::string fileCapture(CaptureStore& store, const FilingRequest& request);

}  // namespace mirel::host
