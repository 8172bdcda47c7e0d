#include "tests/support/seed.h"

namespace mirel::test {

Capture makeCapture(const std::string& note, Date createdAt, bool withImage) {
    Capture c;
    c.id = newID();
    c.createdAt = c.updatedAt = createdAt;
    c.note = note;
    if (withImage) {
        c.imagePath = "2024/05/" + c.id + ".png";
        c.thumbPath = c.imagePath;
        c.imageWidth = 800;
        c.imageHeight = 600;
        c.imageBytes = 12345;
    } else {
        c.captureMode = CaptureMode::text;
    }
    return c;
}

CaptureImage makeImage(const std::string& captureID, std::int64_t position, Date createdAt) {
    CaptureImage image;
    image.id = newID();
    image.captureID = captureID;
    image.position = position;
    image.imagePath = "2024/05/" + image.id + ".png";
    image.thumbPath = image.imagePath;
    image.width = 800;
    image.height = 600;
    image.bytes = 12345;
    image.createdAt = createdAt;
    return image;
}

Comment makeComment(const std::string& captureID, const std::string& body, const std::string& author, bool isAgent,
                    Date createdAt) {
    Comment comment;
    comment.id = newID();
    comment.captureID = captureID;
    comment.author = author;
    comment.isAgent = isAgent;
    comment.body = body;
    comment.createdAt = createdAt;
    return comment;
}

}  // namespace mirel::test
