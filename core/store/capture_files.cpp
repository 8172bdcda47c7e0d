// Which files the rows name, and which groups hold nothing: what a check of
// the library compares with the folders.
#include "core/store/capture_store.h"
#include "core/store/row_decoding.h"

namespace mirel {

using namespace RowDecoding;

CaptureStore::NamedFiles CaptureStore::namedFiles() {
    NamedFiles named;
    auto add = [](std::set<std::string>& into, const std::optional<std::string>& path) {
        if (path && !path->empty()) into.insert(*path);
    };
    for (const Row& row : db_->query("SELECT image_path, annotated_path, thumb_path FROM capture_images;")) {
        add(named.images, row.string("image_path"));
        add(named.images, row.string("annotated_path"));
        add(named.thumbs, row.string("thumb_path"));
    }
    for (const Row& row : db_->query("SELECT image_path, thumb_path FROM captures;")) {
        add(named.images, row.string("image_path"));
        add(named.thumbs, row.string("thumb_path"));
    }
    return named;
}

std::vector<CaptureImage> CaptureStore::liveImages() {
    std::vector<CaptureImage> result;
    for (const Row& row : db_->query(
             "SELECT ci.* FROM capture_images ci JOIN captures c ON c.id = ci.capture_id "
             "WHERE ci.deleted_at IS NULL AND c.deleted_at IS NULL ORDER BY ci.capture_id, ci.position;")) {
        result.push_back(decodeImage(row));
    }
    return result;
}

std::vector<CaptureGroup> CaptureStore::groupsWithoutCaptures() {
    std::vector<CaptureGroup> result;
    for (const Row& row : db_->query(
             "SELECT * FROM groups g WHERE g.deleted_at IS NULL AND g.archived_at IS NULL AND NOT EXISTS "
             "(SELECT 1 FROM captures c WHERE c.group_id = g.id) ORDER BY g.name COLLATE NOCASE;")) {
        result.push_back(decodeGroup(row));
    }
    return result;
}

}  // namespace mirel
