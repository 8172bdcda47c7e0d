// A remote image is metadata first: the row takes the server's hashes at
// once, and a hash that differs from the stored one clears the local file's
// path, which is what asks the download step for the new file.
#include "core/store/capture_store.h"
#include "core/sync/content_hash.h"
#include "core/sync/remote_apply.h"
#include "core/sync/wire.h"

namespace mirel {

using RemoteApply::Assignments;

namespace {

struct ImageHashes {
    std::optional<std::string> original;
    std::optional<std::string> marked;
    std::optional<std::string> thumb;
};

// The announced hashes; absent when one of them could not name a blob.
std::optional<ImageHashes> hashesOf(const Json& object) {
    ImageHashes hashes{Wire::str(Wire::field(object, "original_sha256")),
                       Wire::str(Wire::field(object, "marked_sha256")),
                       Wire::str(Wire::field(object, "thumb_sha256"))};
    for (const auto* hash : {&hashes.original, &hashes.marked, &hashes.thumb}) {
        if (*hash && !ContentHash::isHexDigest(**hash)) return std::nullopt;
    }
    return hashes;
}

std::int64_t integerAt(const Json& object, const char* key) { return Wire::integer(Wire::field(object, key)); }

}  // namespace

std::optional<CaptureImage> CaptureStore::rawImage(const std::string& id) {
    const std::vector<Row> rows = db_->query("SELECT * FROM capture_images WHERE id = ?;", {SQLValue(id)});
    if (rows.empty()) return std::nullopt;
    return decodeImage(rows.front());
}

void CaptureStore::applyRemoteImage(const Json& object) {
    const std::optional<std::string> id = RemoteApply::safeIDAt(object, "id");
    const std::optional<std::string> captureID = RemoteApply::safeIDAt(object, "capture_id");
    if (!id || !captureID) return;
    if (Wire::date(Wire::field(object, "deleted_at"))) {
        dropImage(*id);
        return;
    }
    const std::optional<ImageHashes> hashes = hashesOf(object);
    if (!hashes) return;
    const std::optional<std::string> annotation = Wire::json(Wire::field(object, "annotation_json"));
    const std::int64_t version = integerAt(object, "version");
    const std::int64_t position = integerAt(object, "position");
    const std::int64_t width = integerAt(object, "width");
    const std::int64_t height = integerAt(object, "height");
    const std::int64_t bytes = integerAt(object, "bytes");

    db_->transaction([&] {
        const std::vector<Row> rows = db_->query("SELECT * FROM capture_images WHERE id = ?;", {SQLValue(*id)});
        if (rows.empty()) {
            db_->execute(
                "    INSERT INTO capture_images (id, capture_id, position, image_path, annotated_path, thumb_path,\n"
                "        width, height, bytes, annotation_json, created_at, sync_state, dirty,\n"
                "        original_sha256, marked_sha256, thumb_sha256, version)\n"
                "    VALUES (?,?,?,'',NULL,NULL,?,?,?,?,?,'synced',0,?,?,?,?);",
                {SQLValue(*id), SQLValue(*captureID), SQLValue(position), SQLValue(width), SQLValue(height),
                 SQLValue(bytes), SQLValue::string(annotation),
                 SQLValue(Wire::date(Wire::field(object, "created_at")).value_or(Clock::now())),
                 SQLValue::string(hashes->original), SQLValue::string(hashes->marked),
                 SQLValue::string(hashes->thumb), SQLValue(version)});
        } else {
            const std::set<std::string> pending = RemoteApply::protectedFields(rows.front());
            // A waiting local tombstone wins, and nothing is written.
            if (pending.count("delete")) return;
            const CaptureImage stored = decodeImage(rows.front());
            Assignments update;
            update.add("version", SQLValue(version));
            update.add("original_sha256", SQLValue::string(hashes->original));
            update.add("width", SQLValue(width));
            update.add("height", SQLValue(height));
            update.add("bytes", SQLValue(bytes));
            // A new hash makes the local file stale; the old file stays until replaced.
            if (!pending.count("marked_sha256") && hashes->marked != stored.markedSHA256) {
                update.add("marked_sha256", SQLValue::string(hashes->marked));
                update.add("annotated_path", SQLValue::null());
            }
            if (!pending.count("thumb_sha256") && hashes->thumb != stored.thumbSHA256) {
                update.add("thumb_sha256", SQLValue::string(hashes->thumb));
                update.add("thumb_path", SQLValue::null());
            }
            update.addUnless(pending, "annotation_json", "annotation_json", SQLValue::string(annotation));
            update.addUnless(pending, "position", "position", SQLValue(position));
            if (pending.empty()) {
                update.add("sync_state", SQLValue("synced"));
                update.add("pending", SQLValue::null());
            }
            update.dropUnchanged(rows.front());
            // An unchanged echo leaves the row, and with it the cover, as it is.
            if (update.empty()) return;
            db_->execute(update.updateSQL("capture_images"), update.updateValues(*id));
        }
        refreshCover(*captureID);
    });
}

void CaptureStore::dropImage(const std::string& id) {
    const std::optional<CaptureImage> target = rawImage(id);
    if (!target) return;
    removeImageFiles(*target);
    db_->execute("DELETE FROM capture_images WHERE id = ?;", {SQLValue(id)});
    refreshCover(target->captureID);
}

}  // namespace mirel
