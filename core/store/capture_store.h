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
// and, for the sync side, in core/sync/:
//   outgoing_changes.cpp   change objects for a push, acknowledgement
//   remote_captures.cpp    remote captures, dropCapture
//   remote_images.cpp      remote images, dropImage, rawImage
//   image_transfers.cpp    what blob upload and download read and write
//   remote_groups.cpp      remote groups and members, dropGroup, remapGroup
//   remote_people.cpp      remote comments and activity, people, workspaces
//   adoption.cpp           adopt, local-only, dropping, purge, the sync log
#include "core/platform/json.h"
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

    // ======== Sync side (defined in core/sync/) ========
    // Remote objects are untrusted JSON: an object whose ids could not safely
    // name a row or a file is skipped, and nothing but DatabaseError escapes.

    // ---- Outgoing changes ----
    // The change object of one ledger row, or absent when it has nothing to send.
    std::optional<Json> captureChange(const Pending& pending);
    std::optional<Json> groupChange(const Pending& pending);
    static std::optional<Json> imageChange(const Pending& pending, const CaptureImage& image);
    static Json commentChange(const Comment& comment);
    // Acknowledges `sentChange`, built from `collected`, in one transaction.
    // Clears the ledger like markSynced(table, id, version) unless the row was
    // edited again while the change was in flight (by any process): then the
    // version moves, and the fields whose value now differs from the one sent,
    // and any marked since, stay pending. True when the row is clean.
    bool markSynced(const Pending& collected, const Json& sentChange, const std::optional<std::int64_t>& version);
    void markCommentSynced(const std::string& id);

    // ---- Remote captures and images ----
    void applyRemoteCapture(const Json& object);
    void dropCapture(const std::string& id);
    void applyRemoteImage(const Json& object);
    void dropImage(const std::string& id);
    std::optional<CaptureImage> rawImage(const std::string& id);  // soft-deleted too

    // ---- Image transfers ----
    struct AwaitingDownload {
        CaptureImage image;
        std::string workspaceID;
    };
    // Images whose files are wanted, newest first. Rows whose id or hashes
    // could not name a file or a blob are never offered.
    std::vector<AwaitingDownload> imagesAwaitingDownload(std::int64_t limit);
    // Written by the blob upload; the ledger entry that brought the row there
    // sends the new hashes.
    void setImageHashes(const std::string& id, const std::optional<std::string>& originalSHA256,
                        const std::optional<std::string>& markedSHA256,
                        const std::optional<std::string>& thumbSHA256);
    // Written by the image download; touches no ledger column.
    void setImagePaths(const std::string& id, const std::string& imagePath,
                       const std::optional<std::string>& annotatedPath, const std::optional<std::string>& thumbPath);

    // ---- Remote groups and members ----
    void applyRemoteGroup(const Json& object);
    void applyRemoteGroupMember(const Json& object);
    void dropGroup(const std::string& id);
    // Folds a local group into the server's canonical one, also when that one
    // has no row here yet (the local row then stands in for it under its id).
    void remapGroup(const std::string& from, const std::string& to);
    std::vector<std::string> groupMemberIDs(const std::string& groupID);

    // ---- Remote comments, activity, people, workspaces ----
    void applyRemoteComment(const Json& object);
    void applyRemoteActivity(const Json& object);
    void applyRemotePerson(const Json& object);
    void upsertPerson(const Person& person);
    std::optional<std::string> personName(const std::string& id);
    std::vector<Person> people();
    std::optional<Person> person(const std::string& id);
    std::vector<Person> assignableCandidates();
    void replaceWorkspaces(const std::vector<Workspace>& workspaces);
    std::vector<Workspace> workspaces();

    // ---- Adoption, dropping, purge, the sync log ----
    void adopt(const std::string& captureID, const std::string& workspaceID);
    std::vector<Capture> localCaptures();
    void markLocalOnly(const std::string& captureID);
    void dropWorkspace(const std::string& id);
    void purgeAccountData();
    std::vector<std::string> syncedCaptureIDs();
    struct SyncLogLine {
        std::int64_t id = 0;
        Date at = 0;
        std::string level;
        std::string message;
        bool operator==(const SyncLogLine&) const = default;
    };
    void log(const std::string& level, const std::string& message) noexcept;  // keeps the last 501 lines
    std::vector<SyncLogLine> syncLog(std::int64_t limit);                      // newest first

    // ======== End of the sync side ========

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
