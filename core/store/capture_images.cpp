// A capture's screenshots: their rows, their numbering, and the cover that
// the capture row keeps as a copy of its first image so lists need no join.
#include "core/store/capture_store.h"
#include "core/store/row_decoding.h"

#include <filesystem>
#include <system_error>

namespace mirel {

using namespace RowDecoding;

std::vector<std::filesystem::path> CaptureStore::imageFiles(const CaptureImage& image) {
    std::vector<std::filesystem::path> files;
    if (!image.imagePath.empty()) files.push_back(image.originalURL());
    if (image.annotatedPath) files.push_back(image.displayURL());
    if (const auto thumb = image.thumbURL()) files.push_back(*thumb);
    return files;
}

void CaptureStore::removeFilesAfterCommit(std::vector<std::filesystem::path> files) {
    db_->afterCommit([files = std::move(files)] {
        std::error_code ignored;
        for (const auto& file : files) {
            if (!file.empty()) std::filesystem::remove(file, ignored);
        }
    });
}

std::vector<CaptureImage> CaptureStore::images(const std::string& captureID) {
    const std::vector<Row> rows = db_->query(
        "SELECT * FROM capture_images WHERE capture_id = ? AND deleted_at IS NULL ORDER BY position, created_at;",
        {SQLValue(captureID)});
    std::vector<CaptureImage> result;
    result.reserve(rows.size());
    for (const Row& row : rows) result.push_back(decodeImage(row));
    return result;
}

std::optional<CaptureImage> CaptureStore::image(const std::string& id) {
    const std::vector<Row> rows =
        db_->query("SELECT * FROM capture_images WHERE id = ? AND deleted_at IS NULL;", {SQLValue(id)});
    if (rows.empty()) return std::nullopt;
    return decodeImage(rows.front());
}

CaptureImage CaptureStore::addImage(const CaptureImage& image) {
    // The next number is read and taken under one write lock.
    return db_->transaction([&] {
        CaptureImage copy = image;
        if (copy.position < 0) {
            // Tombstones count too, so a deleted image's number is not reused.
            const std::vector<Row> rows = db_->query(
                "SELECT COALESCE(MAX(position), -1) + 1 AS n FROM capture_images WHERE capture_id = ?;",
                {SQLValue(copy.captureID)});
            copy.position = rows.empty() ? 0 : rows.front().intValue("n").value_or(0);
        }
        db_->execute(
            "INSERT INTO capture_images (id, capture_id, position, image_path, annotated_path, thumb_path, width, "
            "height, bytes, annotation_json, created_at, remote_id, sync_state, dirty, original_sha256, "
            "marked_sha256, thumb_sha256, version, deleted_at) VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?);",
            {SQLValue(copy.id), SQLValue(copy.captureID), SQLValue(copy.position), SQLValue(copy.imagePath),
             SQLValue::string(copy.annotatedPath), SQLValue::string(copy.thumbPath), SQLValue(copy.width),
             SQLValue(copy.height), SQLValue(copy.bytes), SQLValue::string(copy.annotationJSON),
             SQLValue(copy.createdAt), SQLValue::string(copy.remoteID), SQLValue(std::string(rawValue(copy.syncState))),
             SQLValue::boolean(copy.dirty), SQLValue::string(copy.originalSHA256), SQLValue::string(copy.markedSHA256),
             SQLValue::string(copy.thumbSHA256), SQLValue(copy.version), SQLValue::date(copy.deletedAt)});
        markPending("capture_images", copy.id, {"*"});
        refreshCover(copy.captureID);
        touch(copy.captureID);
        postDidChange();
        return copy;
    });
}

void CaptureStore::updateImage(const CaptureImage& image) {
    db_->transaction([&] {
        db_->execute(
            "UPDATE capture_images SET position = ?, image_path = ?, annotated_path = ?, thumb_path = ?, width = ?, "
            "height = ?, bytes = ?, annotation_json = ?, dirty = 1 WHERE id = ?;",
            {SQLValue(image.position), SQLValue(image.imagePath), SQLValue::string(image.annotatedPath),
             SQLValue::string(image.thumbPath), SQLValue(image.width), SQLValue(image.height), SQLValue(image.bytes),
             SQLValue::string(image.annotationJSON), SQLValue(image.id)});
        // An edit of the mark-up changes these three together, so all go.
        markPending("capture_images", image.id, {"annotation_json", "marked_sha256", "thumb_sha256"});
        refreshCover(image.captureID);
        touch(image.captureID);
        postDidChange();
    });
}

bool CaptureStore::deleteImage(const std::string& id) {
    return db_->transaction([&] {
        const std::optional<CaptureImage> target = image(id);
        if (!target) return false;
        const std::vector<CaptureImage> siblings = images(target->captureID);
        if (target->syncState == SyncState::local) {
            db_->execute("DELETE FROM capture_images WHERE id = ?;", {SQLValue(id)});
        } else {
            // The server knows this image: keep a tombstone for the push.
            db_->execute(
                "UPDATE capture_images SET deleted_at = ?, image_path = '', annotated_path = NULL, "
                "thumb_path = NULL WHERE id = ?;",
                {SQLValue(Clock::now()), SQLValue(id)});
            markPending("capture_images", id, {"delete"});
        }
        std::int64_t next = 0;
        for (const CaptureImage& sibling : siblings) {
            if (sibling.id == id) continue;
            if (sibling.position != next) {
                db_->execute("UPDATE capture_images SET position = ?, dirty = 1 WHERE id = ?;",
                             {SQLValue(next), SQLValue(sibling.id)});
                markPending("capture_images", sibling.id, {"position"});
            }
            ++next;
        }
        refreshCover(target->captureID);
        touch(target->captureID);
        // The files go once no row names them any more.
        removeFilesAfterCommit(imageFiles(*target));
        postDidChange();
        return true;
    });
}

void CaptureStore::refreshCover(const std::string& captureID) {
    const std::vector<CaptureImage> live = images(captureID);
    if (live.empty()) {
        db_->execute(
            "UPDATE captures SET image_path = '', thumb_path = NULL, image_width = 0, image_height = 0, "
            "image_bytes = 0 WHERE id = ?;",
            {SQLValue(captureID)});
        return;
    }
    const CaptureImage& first = live.front();
    // A list shows the marked-up file when there is one.
    db_->execute(
        "UPDATE captures SET image_path = ?, thumb_path = ?, image_width = ?, image_height = ?, image_bytes = ? "
        "WHERE id = ?;",
        {SQLValue(first.annotatedPath.value_or(first.imagePath)), SQLValue::string(first.thumbPath),
         SQLValue(first.width), SQLValue(first.height), SQLValue(first.bytes), SQLValue(captureID)});
}

void CaptureStore::touch(const std::string& captureID) {
    db_->execute("UPDATE captures SET updated_at = ?, dirty = 1 WHERE id = ?;",
                 {SQLValue(Clock::now()), SQLValue(captureID)});
}

void CaptureStore::setCaptureMode(CaptureMode mode, const std::string& captureID) {
    db_->transaction([&] {
        db_->execute("UPDATE captures SET capture_mode = ?, updated_at = ?, dirty = 1 WHERE id = ?;",
                     {SQLValue(std::string(rawValue(mode))), SQLValue(Clock::now()), SQLValue(captureID)});
        markPending("captures", captureID, {"capture_mode"});
        postDidChange();
    });
}

}  // namespace mirel
