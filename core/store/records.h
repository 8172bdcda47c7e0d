#pragma once
// The value types in which everything speaks of a library. Plain values with
// public fields; the few computed properties are listed with each.
#include "core/annotation/annotation.h"
#include "core/platform/clock.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mirel {

// ---- Enumerations, each stored and exchanged by its raw word ----

enum class CaptureStatus { open, inProgress, resolved, archived };
enum class CapturePriority { low, normal, high };
enum class CaptureMode { region, fullscreen, window, text };
enum class SyncState { local, synced, pendingPush };
enum class GroupVisibility { workspace, private_ };
// What a history line tells. Lines from the server may carry other words:
// ActivityEvent keeps the word as stored.
enum class ActivityKind { created, claimed, resolved, commented, statusChanged, updated, assigned };

std::string_view rawValue(CaptureStatus);
std::string_view rawValue(CapturePriority);
std::string_view rawValue(CaptureMode);
std::string_view rawValue(SyncState);
std::string_view rawValue(GroupVisibility);
std::string_view rawValue(ActivityKind);

std::string_view displayName(CaptureStatus);    // "Open", "In Progress", …
std::string_view displayName(CapturePriority);  // "Low", "Normal", "High"
std::string_view displayName(CaptureMode);      // "Region", "Full Screen", "Window", "Text only"
std::string_view displayName(GroupVisibility);  // "Workspace", "Private"
int sortWeight(CapturePriority);                // high 0, normal 1, low 2

std::optional<CaptureStatus> captureStatusFrom(std::string_view raw);
std::optional<CapturePriority> capturePriorityFrom(std::string_view raw);
std::optional<CaptureMode> captureModeFrom(std::string_view raw);
std::optional<SyncState> syncStateFrom(std::string_view raw);
std::optional<GroupVisibility> groupVisibilityFrom(std::string_view raw);
std::optional<ActivityKind> activityKindFrom(std::string_view raw);

namespace CaptureStatuses {
// The statuses of work still to do, in this order.
inline const std::vector<CaptureStatus> active = {CaptureStatus::open, CaptureStatus::inProgress};
inline const std::vector<CaptureStatus> allCases = {CaptureStatus::open, CaptureStatus::inProgress,
                                                    CaptureStatus::resolved, CaptureStatus::archived};
}  // namespace CaptureStatuses

// ---- Records ----

struct Capture {
    std::string id;
    Date createdAt = 0;
    Date updatedAt = 0;
    std::string note;
    CaptureStatus status = CaptureStatus::open;
    CapturePriority priority = CapturePriority::normal;
    std::optional<std::string> groupID;
    std::string imagePath;                 // cover, relative to capturesRoot; empty for text only
    std::optional<std::string> thumbPath;  // relative to thumbsRoot
    std::int64_t imageWidth = 0;
    std::int64_t imageHeight = 0;
    std::int64_t imageBytes = 0;
    CaptureMode captureMode = CaptureMode::region;
    std::optional<std::string> appName;
    std::optional<std::string> appBundleID;
    std::optional<std::string> windowTitle;
    std::optional<std::string> url;
    std::optional<std::string> displayName;
    double displayScale = 0;
    std::optional<std::string> claimedBy;
    std::optional<Date> claimedAt;
    std::optional<Date> resolvedAt;
    std::optional<std::string> resolutionRef;
    std::optional<std::string> remoteID;
    SyncState syncState = SyncState::local;
    bool dirty = false;
    std::optional<Date> deletedAt;
    std::optional<std::string> workspaceID;
    std::optional<std::string> authorID;
    std::optional<std::string> assigneeID;
    std::optional<std::string> claimedByID;
    std::int64_t version = 0;
    bool localOnly = false;

    bool isShared() const { return workspaceID.has_value() && !localOnly; }
    bool hasImage() const { return !imagePath.empty(); }
    std::string title() const;     // first line, trimmed, or "Untitled capture/issue[ in {app}]"
    std::string noteBody() const;  // after the first line, trimmed
    std::filesystem::path imageURL() const;
    std::optional<std::filesystem::path> thumbURL() const;

    bool operator==(const Capture&) const = default;
};

struct CaptureGroup {
    std::string id;
    std::string name = "Untitled";
    std::string colorHex = "#6E7BF2";
    std::optional<std::string> path;
    Date createdAt = 0;
    Date updatedAt = 0;
    std::optional<std::string> remoteID;
    SyncState syncState = SyncState::local;
    bool dirty = false;
    std::optional<Date> deletedAt;
    std::optional<std::string> workspaceID;
    GroupVisibility visibility = GroupVisibility::private_;
    std::optional<std::string> createdBy;
    std::optional<std::string> defaultAssigneeID;
    std::optional<Date> archivedAt;
    std::int64_t version = 0;

    bool isShared() const { return workspaceID.has_value(); }
    bool operator==(const CaptureGroup&) const = default;
};

struct Person {
    std::string id;
    std::string name = "Someone";
    std::optional<std::string> email;
    std::optional<std::string> imageURL;
    std::string kind = "person";

    bool isBot() const { return kind == "bot"; }
    std::string initials() const;
    bool operator==(const Person&) const = default;
};

struct Workspace {
    std::string id;
    std::string name;
    std::string slug;
    std::string role = "member";
    std::optional<std::string> settingsJSON;

    bool isAdmin() const { return role == "owner" || role == "admin"; }
    bool isGuest() const { return role == "guest"; }
    bool operator==(const Workspace&) const = default;
};

struct GroupMember {
    std::string groupID;
    std::string userID;
    std::optional<Date> removedAt;
    bool operator==(const GroupMember&) const = default;
};

struct Comment {
    std::string id;
    std::string captureID;
    std::string author = "unknown";
    bool isAgent = false;
    std::string body;
    Date createdAt = 0;
    std::optional<std::string> authorID;
    std::optional<std::string> actorLabel;
    std::string kind = "comment";
    SyncState syncState = SyncState::local;

    // A new comment written on this device, with a fresh id.
    static Comment written(const std::string& captureID, const std::string& author, bool isAgent,
                           const std::string& body, Date at);

    bool isConflict() const { return kind == "conflict"; }
    bool operator==(const Comment&) const = default;
};

struct ActivityEvent {
    std::string id;
    std::optional<std::string> captureID;
    std::string kind;
    std::string detail;
    std::string actor = "you";
    Date createdAt = 0;
    std::optional<std::string> actorID;
    bool remote = false;
    bool operator==(const ActivityEvent&) const = default;
};

struct CaptureImage {
    std::string id;
    std::string captureID;
    std::int64_t position = 0;
    std::string imagePath;  // original, relative to capturesRoot; empty while not here
    std::optional<std::string> annotatedPath;
    std::optional<std::string> thumbPath;
    std::int64_t width = 0;
    std::int64_t height = 0;
    std::int64_t bytes = 0;
    std::optional<std::string> annotationJSON;
    Date createdAt = 0;
    std::optional<std::string> remoteID;
    SyncState syncState = SyncState::local;
    bool dirty = false;
    std::optional<std::string> originalSHA256;
    std::optional<std::string> markedSHA256;
    std::optional<std::string> thumbSHA256;
    std::int64_t version = 0;
    std::optional<Date> deletedAt;

    std::filesystem::path originalURL() const;
    std::filesystem::path displayURL() const;  // the marked-up file wins
    std::optional<std::filesystem::path> thumbURL() const;
    Annotation annotation() const;
    bool hasAnnotations() const;
    bool isAwaitingDownload() const { return imagePath.empty() && originalSHA256.has_value(); }
    bool operator==(const CaptureImage&) const = default;
};

struct CaptureQuery {
    std::optional<std::vector<CaptureStatus>> statuses;
    std::optional<std::string> groupID;
    std::optional<std::string> groupName;
    std::optional<std::string> tag;
    std::optional<std::string> search;
    std::optional<CapturePriority> priority;
    std::optional<std::string> workspaceID;
    std::optional<std::string> assigneeID;
    std::optional<std::string> authorID;
    std::int64_t limit = 200;
    std::int64_t offset = 0;
    bool newestFirst = true;
};

}  // namespace mirel
