#include "core/store/capture_store.h"

#include "core/platform/change_signal.h"
#include "core/store/mirel_paths.h"
#include "core/store/schema.h"

namespace mirel {

namespace {

// Only the default library may receive a former product's files; a store
// opened on any other file never triggers that move.
bool isDefaultLibrary(const std::filesystem::path& databaseURL) {
    try {
        const auto defaultURL = MirelPaths::support() / "mirel.sqlite";
        return databaseURL.lexically_normal() == defaultURL.lexically_normal();
    } catch (...) {
        return false;  // no home folder: there is no default library either
    }
}

}  // namespace

CaptureStore::CaptureStore(const std::filesystem::path& databaseURL) {
    if (isDefaultLibrary(databaseURL)) MirelPaths::migrateLegacyLibraryIfNeeded();
    // A real problem with the folders surfaces when the database opens.
    try {
        (void)MirelPaths::ensureDirectories();
    } catch (...) {
    }
    db_ = std::make_unique<Database>(databaseURL);
    Schema::migrate(*db_);
}

std::optional<std::string> CaptureStore::syncMeta(const std::string& key) {
    const auto rows = db_->query("SELECT value FROM sync_meta WHERE key = ?;", {key});
    if (rows.empty()) return std::nullopt;
    return rows.front().string("value");
}

void CaptureStore::setSyncMeta(const std::string& key, const std::optional<std::string>& value) {
    if (value) {
        db_->execute("INSERT OR REPLACE INTO sync_meta (key, value) VALUES (?, ?);", {key, *value});
    } else {
        db_->execute("DELETE FROM sync_meta WHERE key = ?;", {key});
    }
}

std::optional<std::string> CaptureStore::syncMetaOrAbsent(const std::string& key) {
    try {
        return syncMeta(key);
    } catch (...) {
        return std::nullopt;
    }
}

std::optional<std::string> CaptureStore::currentUserID() { return syncMetaOrAbsent("user_id"); }
std::optional<std::string> CaptureStore::currentUserName() { return syncMetaOrAbsent("user_name"); }
std::optional<std::string> CaptureStore::defaultWorkspaceID() {
    return syncMetaOrAbsent("default_workspace_id");
}

// Others must not hear of a change before they can read it.
void CaptureStore::postDidChange() { db_->afterCommit([] { ChangeSignal::post(); }); }

}  // namespace mirel
