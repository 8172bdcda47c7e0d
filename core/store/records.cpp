#include "core/store/records.h"

#include "core/platform/text.h"
#include "core/store/mirel_paths.h"

#include <array>
#include <utility>

namespace mirel {

Comment Comment::written(const std::string& captureID, const std::string& author, bool isAgent,
                         const std::string& body, Date at) {
    Comment comment;
    comment.id = newID();
    comment.captureID = captureID;
    comment.author = author;
    comment.isAgent = isAgent;
    comment.body = body;
    comment.createdAt = at;
    return comment;
}

namespace {

// One table per enumeration: case, raw word, display name. The parsers walk
// the same table, so a word and its case cannot drift apart.
template <class Enum>
struct Entry {
    Enum value;
    std::string_view raw;
    std::string_view display;
};

constexpr std::array<Entry<CaptureStatus>, 4> kStatuses{{
    {CaptureStatus::open, "open", "Open"},
    {CaptureStatus::inProgress, "in_progress", "In Progress"},
    {CaptureStatus::resolved, "resolved", "Resolved"},
    {CaptureStatus::archived, "archived", "Archived"},
}};

constexpr std::array<Entry<CapturePriority>, 3> kPriorities{{
    {CapturePriority::low, "low", "Low"},
    {CapturePriority::normal, "normal", "Normal"},
    {CapturePriority::high, "high", "High"},
}};

constexpr std::array<Entry<CaptureMode>, 4> kModes{{
    {CaptureMode::region, "region", "Region"},
    {CaptureMode::fullscreen, "fullscreen", "Full Screen"},
    {CaptureMode::window, "window", "Window"},
    {CaptureMode::text, "text", "Text only"},
}};

constexpr std::array<Entry<SyncState>, 3> kSyncStates{{
    {SyncState::local, "local", ""},
    {SyncState::synced, "synced", ""},
    {SyncState::pendingPush, "pendingPush", ""},
}};

constexpr std::array<Entry<GroupVisibility>, 2> kVisibilities{{
    {GroupVisibility::workspace, "workspace", "Workspace"},
    {GroupVisibility::private_, "private", "Private"},
}};

constexpr std::array<Entry<ActivityKind>, 7> kActivityKinds{{
    {ActivityKind::created, "created", ""},
    {ActivityKind::claimed, "claimed", ""},
    {ActivityKind::resolved, "resolved", ""},
    {ActivityKind::commented, "commented", ""},
    {ActivityKind::statusChanged, "status_changed", ""},
    {ActivityKind::updated, "updated", ""},
    {ActivityKind::assigned, "assigned", ""},
}};

template <class Enum, std::size_t N>
const Entry<Enum>& entry(const std::array<Entry<Enum>, N>& table, Enum value) {
    for (const auto& e : table)
        if (e.value == value) return e;
    return table.front();  // unreachable for a valid enumerator
}

template <class Enum, std::size_t N>
std::optional<Enum> parse(const std::array<Entry<Enum>, N>& table, std::string_view raw) {
    for (const auto& e : table)
        if (e.raw == raw) return e.value;
    return std::nullopt;
}

}  // namespace

std::string_view rawValue(CaptureStatus v) { return entry(kStatuses, v).raw; }
std::string_view rawValue(CapturePriority v) { return entry(kPriorities, v).raw; }
std::string_view rawValue(CaptureMode v) { return entry(kModes, v).raw; }
std::string_view rawValue(SyncState v) { return entry(kSyncStates, v).raw; }
std::string_view rawValue(GroupVisibility v) { return entry(kVisibilities, v).raw; }
std::string_view rawValue(ActivityKind v) { return entry(kActivityKinds, v).raw; }

std::string_view displayName(CaptureStatus v) { return entry(kStatuses, v).display; }
std::string_view displayName(CapturePriority v) { return entry(kPriorities, v).display; }
std::string_view displayName(CaptureMode v) { return entry(kModes, v).display; }
std::string_view displayName(GroupVisibility v) { return entry(kVisibilities, v).display; }

int sortWeight(CapturePriority priority) {
    switch (priority) {
        case CapturePriority::high: return 0;
        case CapturePriority::normal: return 1;
        case CapturePriority::low: return 2;
    }
    return 2;
}

std::optional<CaptureStatus> captureStatusFrom(std::string_view raw) { return parse(kStatuses, raw); }
std::optional<CapturePriority> capturePriorityFrom(std::string_view raw) { return parse(kPriorities, raw); }
std::optional<CaptureMode> captureModeFrom(std::string_view raw) { return parse(kModes, raw); }
std::optional<SyncState> syncStateFrom(std::string_view raw) { return parse(kSyncStates, raw); }
std::optional<GroupVisibility> groupVisibilityFrom(std::string_view raw) { return parse(kVisibilities, raw); }
std::optional<ActivityKind> activityKindFrom(std::string_view raw) { return parse(kActivityKinds, raw); }

// ---- Capture ----

std::string Capture::title() const {
    const std::size_t lineEnd = firstLineBreak(note);
    const std::string first = trimBlanks(std::string_view(note).substr(0, lineEnd));
    if (!first.empty()) return first;
    std::string fallback = hasImage() ? "Untitled capture" : "Untitled issue";
    if (appName) fallback += " in " + *appName;
    return fallback;
}

std::string Capture::noteBody() const {
    const std::size_t lineEnd = firstLineBreak(note);
    if (lineEnd == std::string_view::npos) return {};
    return trimWhitespaceAndNewlines(std::string_view(note).substr(lineEnd + 1));
}

std::filesystem::path Capture::imageURL() const { return MirelPaths::imageURL(imagePath); }

std::optional<std::filesystem::path> Capture::thumbURL() const {
    if (!thumbPath) return std::nullopt;
    return MirelPaths::thumbURL(*thumbPath);
}

// ---- Person ----

std::string Person::initials() const {
    std::string out;
    int words = 0;
    std::size_t i = 0;
    while (i < name.size() && words < 2) {
        while (i < name.size() && name[i] == ' ') ++i;
        if (i >= name.size()) break;
        // The first character of the word: one UTF-8 scalar.
        std::size_t length = 1;
        const auto lead = static_cast<unsigned char>(name[i]);
        if (lead >= 0xF0) length = 4;
        else if (lead >= 0xE0) length = 3;
        else if (lead >= 0xC0) length = 2;
        out += uppercased(std::string_view(name).substr(i, length));
        ++words;
        while (i < name.size() && name[i] != ' ') ++i;
    }
    return out.empty() ? "?" : out;
}

// ---- CaptureImage ----

std::filesystem::path CaptureImage::originalURL() const { return MirelPaths::imageURL(imagePath); }

std::filesystem::path CaptureImage::displayURL() const {
    return annotatedPath ? MirelPaths::imageURL(*annotatedPath) : originalURL();
}

std::optional<std::filesystem::path> CaptureImage::thumbURL() const {
    if (!thumbPath) return std::nullopt;
    return MirelPaths::thumbURL(*thumbPath);
}

Annotation CaptureImage::annotation() const { return Annotation::decode(annotationJSON); }

bool CaptureImage::hasAnnotations() const {
    return annotationJSON && !Annotation::decode(annotationJSON).isEmpty();
}

}  // namespace mirel
