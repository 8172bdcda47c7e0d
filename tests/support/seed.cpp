#include "tests/support/seed.h"

// Only what a builder sets is named; the rest keeps the record's defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace mirel::test {

Capture makeCapture(const std::string& note, Date createdAt, bool withImage) {
    Capture c{.id = newID(), .createdAt = createdAt, .updatedAt = createdAt, .note = note};
    if (!withImage) c.captureMode = CaptureMode::text;
    else c.imagePath = *(c.thumbPath = "2024/05/" + c.id + ".png"), c.imageWidth = 800, c.imageHeight = 600, c.imageBytes = 12345;
    return c;
}

CaptureImage makeImage(const std::string& captureID, std::int64_t position, Date createdAt) {
    const std::string id = newID(), path = "2024/05/" + id + ".png";
    return {.id = id, .captureID = captureID, .position = position, .imagePath = path, .thumbPath = path, .width = 800,
            .height = 600, .bytes = 12345, .createdAt = createdAt};
}

Comment makeComment(const std::string& captureID, const std::string& body, const std::string& author, bool isAgent,
                    Date createdAt) {
    return {.id = newID(), .captureID = captureID, .author = author, .isAgent = isAgent, .body = body, .createdAt = createdAt};
}

}  // namespace mirel::test
