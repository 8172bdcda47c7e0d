// What the engine's blob upload and image download read and write.
#include "core/store/capture_store.h"
#include "core/sync/content_hash.h"
#include "core/sync/remote_apply.h"

namespace mirel {

namespace {

bool isDigestOrAbsent(const std::optional<std::string>& hash) {
    return !hash || ContentHash::isHexDigest(*hash);
}

}  // namespace

std::vector<CaptureStore::AwaitingDownload> CaptureStore::imagesAwaitingDownload(std::int64_t limit) {
    const std::vector<Row> rows = db_->query(
        "    SELECT ci.*, c.workspace_id AS ws FROM capture_images ci\n"
        "    JOIN captures c ON c.id = ci.capture_id AND c.deleted_at IS NULL AND c.workspace_id IS NOT NULL\n"
        "    WHERE ci.deleted_at IS NULL AND ci.original_sha256 IS NOT NULL AND (\n"
        "        ci.image_path = ''\n"
        "        OR (ci.marked_sha256 IS NOT NULL AND ci.marked_sha256 != ci.original_sha256 AND ci.annotated_path "
        "IS NULL)\n"
        "        OR (ci.thumb_sha256 IS NOT NULL AND ci.thumb_path IS NULL)\n"
        "    )\n"
        "    ORDER BY ci.created_at DESC LIMIT ?;",
        {SQLValue(limit)});
    std::vector<AwaitingDownload> result;
    for (const Row& row : rows) {
        std::optional<std::string> workspace = row.string("ws");
        if (!workspace) continue;
        CaptureImage image = decodeImage(row);
        // The id becomes a file name and the hashes and workspace URL segments:
        // a row that could not safely give them is never offered.
        if (!RemoteApply::isSafeID(image.id) || !RemoteApply::isSafeID(*workspace) ||
            !isDigestOrAbsent(image.originalSHA256) || !isDigestOrAbsent(image.markedSHA256) ||
            !isDigestOrAbsent(image.thumbSHA256)) {
            continue;
        }
        result.push_back({std::move(image), std::move(*workspace)});
    }
    return result;
}

void CaptureStore::setImageHashes(const std::string& id, const std::optional<std::string>& originalSHA256,
                                  const std::optional<std::string>& markedSHA256,
                                  const std::optional<std::string>& thumbSHA256) {
    db_->execute("UPDATE capture_images SET original_sha256 = ?, marked_sha256 = ?, thumb_sha256 = ? WHERE id = ?;",
                 {SQLValue::string(originalSHA256), SQLValue::string(markedSHA256), SQLValue::string(thumbSHA256),
                  SQLValue(id)});
}

void CaptureStore::setImagePaths(const std::string& id, const std::string& imagePath,
                                 const std::optional<std::string>& annotatedPath,
                                 const std::optional<std::string>& thumbPath) {
    db_->execute("UPDATE capture_images SET image_path = ?, annotated_path = ?, thumb_path = ? WHERE id = ?;",
                 {SQLValue(imagePath), SQLValue::string(annotatedPath), SQLValue::string(thumbPath), SQLValue(id)});
}

}  // namespace mirel
