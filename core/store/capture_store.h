#pragma once
// The one class through which everything reads and writes a library. Its
// member functions are defined in several files by concern:
//   capture_store.cpp      opening, sync_meta, the change signal
//   capture_decoding.cpp   row decoders (row_decoding.h)
//   capture_queries.cpp    reads of captures, counts, change stamp
//   capture_writes.cpp     insert, update and the lifecycle
//   capture_images.cpp     image rows and the cover
//   capture_files.cpp      the files rows name, for checks of the library
//   capture_groups.cpp     groups
//   capture_tags_comments.cpp  tags, comments and activity
//   capture_ledger.cpp     the pending-change ledger
#include "core/store/database.h"
#include "core/store/records.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace mirel {

class CaptureStore {
public:
    // Carries a former library over (default location only), makes the
    // folders, opens the database and migrates it. Throws DatabaseError or the
    // file system's error.
    explicit CaptureStore(const std::filesystem::path& databaseURL);

    // Runs `body` all or nothing and gives its value: store calls inside it
    // compose into one transaction under the write lock, and their change
    // signals go out after the commit. A body that throws changes nothing.
    template <class Body>
    auto transaction(Body&& body) -> decltype(body()) {
        return db_->transaction(std::forward<Body>(body));
    }

    // ---- sync_meta ----
    std::optional<std::string> syncMeta(const std::string& key);
    void setSyncMeta(const std::string& key, const std::optional<std::string>& value);
    std::optional<std::string> currentUserID();       // never throws
    std::optional<std::string> currentUserName();     // never throws
    std::optional<std::string> defaultWorkspaceID();  // never throws

    // ---- Capture reads ----
    std::optional<Capture> capture(const std::string& id);     // live only
    std::optional<Capture> rawCapture(const std::string& id);  // soft-deleted too
    std::optional<std::string> resolveCaptureID(const std::string& text);
    std::vector<Capture> captures(const CaptureQuery& query);
    std::map<CaptureStatus, std::int64_t> countsByStatus();
    std::map<std::string, std::int64_t> imageCounts();
    std::map<std::string, std::int64_t> commentCounts();
    // The same counts for the given captures only: what one page of a list
    // needs, without a scan of the whole library.
    std::map<std::string, std::int64_t> imageCounts(const std::vector<std::string>& captureIDs);
    std::map<std::string, std::int64_t> commentCounts(const std::vector<std::string>& captureIDs);
    std::string changeStamp();

    // ---- Capture writes and lifecycle ----
    void insert(const Capture& capture);
    void update(const Capture& capture);
    std::optional<Capture> setStatus(const std::string& id, CaptureStatus status, const std::string& actor);
    std::optional<Capture> claim(const std::string& id, const std::string& by);
    std::optional<Capture> assign(const std::string& id, const std::optional<std::string>& to,
                                  const std::string& actor);
    std::optional<Capture> resolve(const std::string& id, const std::optional<std::string>& reference,
                                   const std::string& actor);
    void softDelete(const std::string& id);

    // ---- Images ----
    std::vector<CaptureImage> images(const std::string& captureID);
    std::optional<CaptureImage> image(const std::string& id);
    CaptureImage addImage(const CaptureImage& image);  // position < 0: the next free one
    void updateImage(const CaptureImage& image);
    bool deleteImage(const std::string& id);
    void refreshCover(const std::string& captureID);
    void setCaptureMode(CaptureMode mode, const std::string& captureID);

    // Every file path a row names, relative to its root: live rows,
    // tombstones and deleted captures alike.
    struct NamedFiles {
        std::set<std::string> images;  // under capturesRoot
        std::set<std::string> thumbs;   // under thumbsRoot
    };
    NamedFiles namedFiles();
    // Image rows of live captures, in capture and position order.
    std::vector<CaptureImage> liveImages();

    // ---- Groups ----
    std::vector<CaptureGroup> groups();
    std::optional<CaptureGroup> group(const std::string& id);
    std::optional<CaptureGroup> groupNamed(const std::string& name,
                                           const std::optional<std::string>& workspaceID);
    std::optional<CaptureGroup> groupMatchingPath(const std::string& path);
    CaptureGroup upsertGroup(const CaptureGroup& group);
    // The live group of that name (any case) in `scope`, else
    // a new one; `created` tells whether a row was written.
    CaptureGroup findOrCreateGroup(const std::string& name, const std::optional<std::string>& scope,
                                   bool* created = nullptr);
    void deleteGroup(const std::string& id);
    // Live groups that no capture row names, deleted ones included.
    std::vector<CaptureGroup> groupsWithoutCaptures();

    // ---- Tags, comments, activity ----
    std::vector<std::string> tags(const std::string& captureID);
    std::vector<std::string> allTags();
    // tags(for:) of several captures in one statement; captures without tags
    // are missing from the map.
    std::map<std::string, std::vector<std::string>> tagsByCapture(const std::vector<std::string>& captureIDs);
    void setTags(const std::vector<std::string>& names, const std::string& captureID);
    void replaceTags(const std::vector<std::string>& names, const std::string& captureID);
    std::vector<Comment> comments(const std::string& captureID);
    void addComment(const Comment& comment);
    std::vector<ActivityEvent> activity(const std::string& captureID);
    // A history line written here: dated now, by the signed-in user's id.
    struct LocalActivity {
        std::string captureID{};
        ActivityKind kind = ActivityKind::updated;
        std::string detail{};
        std::string actor = "you";
    };
    void recordActivity(const LocalActivity& line);
    // Any line, as the server sends them too.
    void recordActivity(const std::optional<std::string>& captureID, const std::string& kind,
                        const std::string& detail, const std::string& actor, const std::string& id,
                        Date createdAt, const std::optional<std::string>& actorID, bool remote);

    // ---- Pending-change ledger ----
    struct Pending {
        std::string id;
        std::set<std::string> fields;
        std::int64_t version = 0;
        bool operator==(const Pending&) const = default;
    };
    void markPending(const std::string& table, const std::string& id, const std::vector<std::string>& fields);
    std::vector<Pending> pending(const std::string& table, std::int64_t limit);
    std::vector<Comment> pendingComments(std::int64_t limit);
    void markSynced(const std::string& table, const std::string& id, const std::optional<std::int64_t>& version);
    static std::set<std::string> pendingFields(const std::optional<std::string>& json);

private:
    // Tests reach the database through this, and nothing else does.
    friend struct CaptureStoreTestAccess;

    // Tells other processes that the library changed.
    void postDidChange();
    // Moves updated_at and sets dirty, without a ledger entry.
    void touch(const std::string& captureID);
    // An image's original, marked-up file and thumbnail.
    static std::vector<std::filesystem::path> imageFiles(const CaptureImage& image);
    // Removes the files once the transaction commits (at once outside one);
    // failures are ignored: a file may never have been downloaded, or be gone.
    void removeFilesAfterCommit(std::vector<std::filesystem::path> files);
    // syncMeta with every error read as absent.
    std::optional<std::string> syncMetaOrAbsent(const std::string& key);

    // Constant after construction; Database does its own locking.
    std::unique_ptr<Database> db_;
};

}  // namespace mirel
