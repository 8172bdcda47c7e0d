#pragma once
// The one class through which everything reads and writes a library. Its
// member functions are defined in several files by concern:
//   capture_store.cpp      opening, sync_meta, the change signal
//   capture_decoding.cpp   row decoders
//   capture_queries.cpp    reads of captures, counts, change stamp
//   capture_writes.cpp     insert, update and the lifecycle
//   capture_images.cpp     image rows and the cover
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

    Database& database() { return *db_; }

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

    // ---- Groups ----
    std::vector<CaptureGroup> groups();
    std::optional<CaptureGroup> group(const std::string& id);
    std::optional<CaptureGroup> groupNamed(const std::string& name,
                                           const std::optional<std::string>& workspaceID);
    std::optional<CaptureGroup> groupMatchingPath(const std::string& path);
    CaptureGroup upsertGroup(const CaptureGroup& group);
    void deleteGroup(const std::string& id);

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

    // ---- Row decoders: never fail, put fallbacks in place of bad data ----
    static Capture decodeCapture(const Row& row);
    static CaptureGroup decodeGroup(const Row& row);
    static CaptureImage decodeImage(const Row& row);
    static Comment decodeComment(const Row& row);
    static ActivityEvent decodeActivity(const Row& row);
    static Person decodePerson(const Row& row);
    static Workspace decodeWorkspace(const Row& row);

private:
    // Tells other processes that the library changed.
    void postDidChange();
    // Moves updated_at and sets dirty, without a ledger entry.
    void touch(const std::string& captureID);
    // Removes an image's original, marked-up file and thumbnail; failures are
    // ignored (the file may never have been downloaded, or be gone already).
    static void removeImageFiles(const CaptureImage& image);
    static void removeFileQuietly(const std::filesystem::path& file);
    // syncMeta with every error read as absent.
    std::optional<std::string> syncMetaOrAbsent(const std::string& key);

    // Constant after construction; Database does its own locking.
    std::unique_ptr<Database> db_;
};

}  // namespace mirel
