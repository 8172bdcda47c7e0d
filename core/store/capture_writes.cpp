// Creating captures, writing them back, and moving them through their
// lifecycle. Each change is entered in the ledger; lifecycle steps leave a
// line in the capture's history. Every operation reads, changes and writes
// back inside one transaction: the write lock is held from the read on, so no
// other process writes in between and none of its changes is overwritten.
#include "core/store/capture_store.h"
#include "core/store/mirel_paths.h"

#include <filesystem>
#include <system_error>

namespace mirel {

void CaptureStore::insert(const Capture& capture) {
    Capture c = capture;
    if (!c.authorID) c.authorID = syncMetaOrAbsent("user_id");
    if (!c.workspaceID && !c.localOnly) c.workspaceID = syncMetaOrAbsent("default_workspace_id");
    std::optional<std::string> pendingMark;
    if (c.workspaceID && !c.localOnly) {
        // Born shared: the whole row waits to be pushed.
        c.syncState = SyncState::pendingPush;
        c.dirty = true;
        pendingMark = "{\"*\":true}";
    }
    const std::string detail = c.hasImage() ? std::string(displayName(c.captureMode)) : "no screenshot";

    db_->transaction([&] {
        db_->execute(
            "INSERT INTO captures (id, created_at, updated_at, note, status, priority, group_id, image_path, "
            "thumb_path, image_width, image_height, image_bytes, capture_mode, app_name, app_bundle_id, "
            "window_title, url, display_name, display_scale, claimed_by, claimed_at, resolved_at, "
            "resolution_ref, remote_id, sync_state, dirty, deleted_at, workspace_id, author_id, assignee_id, "
            "claimed_by_id, version, pending, local_only) "
            "VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?);",
            {SQLValue(c.id), SQLValue(c.createdAt), SQLValue(c.updatedAt), SQLValue(c.note),
             SQLValue(std::string(rawValue(c.status))), SQLValue(std::string(rawValue(c.priority))),
             SQLValue::string(c.groupID), SQLValue(c.imagePath), SQLValue::string(c.thumbPath),
             SQLValue(c.imageWidth), SQLValue(c.imageHeight), SQLValue(c.imageBytes),
             SQLValue(std::string(rawValue(c.captureMode))), SQLValue::string(c.appName),
             SQLValue::string(c.appBundleID), SQLValue::string(c.windowTitle), SQLValue::string(c.url),
             SQLValue::string(c.displayName), SQLValue(c.displayScale), SQLValue::string(c.claimedBy),
             SQLValue::date(c.claimedAt), SQLValue::date(c.resolvedAt), SQLValue::string(c.resolutionRef),
             SQLValue::string(c.remoteID), SQLValue(std::string(rawValue(c.syncState))),
             SQLValue::boolean(c.dirty), SQLValue::date(c.deletedAt), SQLValue::string(c.workspaceID),
             SQLValue::string(c.authorID), SQLValue::string(c.assigneeID), SQLValue::string(c.claimedByID),
             SQLValue(c.version), SQLValue::string(pendingMark), SQLValue::boolean(c.localOnly)});
        recordActivity({.captureID = c.id, .kind = ActivityKind::created, .detail = detail});
    });
    postDidChange();
}

void CaptureStore::update(const Capture& capture) {
    Capture c = capture;
    c.updatedAt = Clock::now();
    c.dirty = true;
    // The old row is read under the write lock, so the ledger names exactly
    // the fields this write changes.
    db_->transaction([&] {
        const std::optional<Capture> old = rawCapture(c.id);

        db_->execute(
            "UPDATE captures SET updated_at = ?, note = ?, status = ?, priority = ?, group_id = ?, thumb_path = ?, "
            "app_name = ?, app_bundle_id = ?, window_title = ?, url = ?, claimed_by = ?, claimed_at = ?, "
            "resolved_at = ?, resolution_ref = ?, dirty = 1, deleted_at = ?, assignee_id = ?, claimed_by_id = ?, "
            "local_only = ? WHERE id = ?;",
            {SQLValue(c.updatedAt), SQLValue(c.note), SQLValue(std::string(rawValue(c.status))),
             SQLValue(std::string(rawValue(c.priority))), SQLValue::string(c.groupID), SQLValue::string(c.thumbPath),
             SQLValue::string(c.appName), SQLValue::string(c.appBundleID), SQLValue::string(c.windowTitle),
             SQLValue::string(c.url), SQLValue::string(c.claimedBy), SQLValue::date(c.claimedAt),
             SQLValue::date(c.resolvedAt), SQLValue::string(c.resolutionRef), SQLValue::date(c.deletedAt),
             SQLValue::string(c.assigneeID), SQLValue::string(c.claimedByID), SQLValue::boolean(c.localOnly),
             SQLValue(c.id)});

        if (old) {
            // Ledger names are the wire's, in the order the push expects.
            std::vector<std::string> changed;
            auto note = [&](bool differs, const char* name) {
                if (differs) changed.emplace_back(name);
            };
            note(old->note != c.note, "note");
            note(old->status != c.status, "status");
            note(old->priority != c.priority, "priority");
            note(old->groupID != c.groupID, "group_id");
            note(old->appName != c.appName, "app_name");
            note(old->appBundleID != c.appBundleID, "app_bundle_id");
            note(old->windowTitle != c.windowTitle, "window_title");
            note(old->url != c.url, "url");
            note(old->claimedBy != c.claimedBy, "claimed_label");
            note(old->claimedByID != c.claimedByID, "claimed_by_id");
            note(old->claimedAt != c.claimedAt, "claimed_at");
            note(old->resolvedAt != c.resolvedAt, "resolved_at");
            note(old->resolutionRef != c.resolutionRef, "resolution_ref");
            note(old->assigneeID != c.assigneeID, "assignee_id");
            note(!old->deletedAt && c.deletedAt, "delete");
            if (!changed.empty()) markPending("captures", c.id, changed);
        }
        postDidChange();
    });
}

std::optional<Capture> CaptureStore::setStatus(const std::string& id, CaptureStatus status,
                                               const std::string& actor) {
    return db_->transaction([&]() -> std::optional<Capture> {
        std::optional<Capture> c = capture(id);
        if (!c) return std::nullopt;
        const CaptureStatus old = c->status;
        c->status = status;
        switch (status) {
            case CaptureStatus::open:
                // Reopening forgets the label and time of the claim, not who it was.
                c->resolvedAt.reset();
                c->claimedBy.reset();
                c->claimedAt.reset();
                break;
            case CaptureStatus::inProgress:
            case CaptureStatus::archived:
                c->resolvedAt.reset();
                break;
            case CaptureStatus::resolved:
                c->resolvedAt = Clock::now();
                break;
        }
        update(*c);
        const std::string detail = std::string(displayName(old)) + " \u2192 " + std::string(displayName(status));
        recordActivity({.captureID = id, .kind = ActivityKind::statusChanged, .detail = detail, .actor = actor});
        postDidChange();
        return capture(id);
    });
}

std::optional<Capture> CaptureStore::claim(const std::string& id, const std::string& by) {
    return db_->transaction([&]() -> std::optional<Capture> {
        std::optional<Capture> c = capture(id);
        if (!c) return std::nullopt;
        const std::optional<std::string> userID = syncMetaOrAbsent("user_id");
        c->claimedBy = by;
        c->claimedByID = userID;
        c->claimedAt = Clock::now();
        if (c->status == CaptureStatus::open) c->status = CaptureStatus::inProgress;
        if (!c->assigneeID) c->assigneeID = userID;
        update(*c);
        recordActivity({.captureID = id, .kind = ActivityKind::claimed, .actor = by});
        postDidChange();
        return capture(id);
    });
}

std::optional<Capture> CaptureStore::assign(const std::string& id, const std::optional<std::string>& to,
                                            const std::string& actor) {
    return db_->transaction([&]() -> std::optional<Capture> {
        std::optional<Capture> c = capture(id);
        if (!c) return std::nullopt;
        c->assigneeID = to;
        update(*c);
        // The only post is update's; the history line follows it.
        recordActivity({.captureID = id, .kind = ActivityKind::assigned, .detail = to.value_or(""), .actor = actor});
        return capture(id);
    });
}

std::optional<Capture> CaptureStore::resolve(const std::string& id, const std::optional<std::string>& reference,
                                             const std::string& actor) {
    return db_->transaction([&]() -> std::optional<Capture> {
        std::optional<Capture> c = capture(id);
        if (!c) return std::nullopt;
        c->status = CaptureStatus::resolved;
        c->resolvedAt = Clock::now();
        c->resolutionRef = reference;
        update(*c);
        recordActivity(
            {.captureID = id, .kind = ActivityKind::resolved, .detail = reference.value_or(""), .actor = actor});
        postDidChange();
        return capture(id);
    });
}

void CaptureStore::softDelete(const std::string& id) {
    db_->transaction([&] {
        std::vector<CaptureImage> live;
        try {
            live = images(id);
        } catch (const DatabaseError&) {
            // No list of images: the row is still marked, the files stay.
        }
        std::vector<std::filesystem::path> files;
        for (const CaptureImage& image : live) {
            for (auto& file : imageFiles(image)) files.push_back(std::move(file));
        }
        if (const std::optional<Capture> c = capture(id)) {
            // The cover's own copies, normally already gone with the images.
            if (!c->imagePath.empty()) files.push_back(c->imageURL());
            if (auto thumb = c->thumbURL()) files.push_back(*thumb);
        }
        const Date now = Clock::now();
        db_->execute("UPDATE captures SET deleted_at = ?, updated_at = ?, dirty = 1 WHERE id = ?;",
                     {SQLValue(now), SQLValue(now), SQLValue(id)});
        markPending("captures", id, {"delete"});
        // Only once no row can come back to need them.
        removeFilesAfterCommit(std::move(files));
        postDidChange();
    });
}

}  // namespace mirel
