// One exchange with the API server: collect what is pending, send it with the
// cursor, settle the verdicts, apply the remote changes, keep the new cursor,
// and say whether another exchange should follow at once.
#include "core/sync/sync_engine.h"

#include "core/platform/change_signal.h"
#include "core/platform/text.h"
#include "core/sync/reply_fields.h"
#include "core/sync/wire.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <set>

namespace mirel {

namespace {

constexpr std::int64_t rowsPerTable = 200;
constexpr std::size_t changesPerExchange = 500;
constexpr std::size_t fullGroupsPerExchange = 50;
constexpr int retriedRejections = 6;

// Remote rows are applied table by table in this order, so that what a row
// points at is there before it.
constexpr const char* applyOrder[] = {"groups", "group_members", "captures", "capture_images", "comments", "activity"};

// A reply's list that must hold objects throughout; anything else reads as empty.
const Json& objectList(const Json& reply, std::string_view key) {
    static const Json empty = Json::array();
    const Json& value = Wire::field(reply, key);
    if (!value.is_array()) return empty;
    for (const Json& element : value) {
        if (!element.is_object()) return empty;
    }
    return value;
}

std::int64_t storedCursor(CaptureStore& store) {
    const auto text = store.syncMeta("cursor");
    std::int64_t cursor = 0;
    if (!text) return 0;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), cursor);
    if (error != std::errc() || end != text->data() + text->size()) return 0;
    return cursor;
}

// A non-empty list of strings, or nothing.
std::optional<std::vector<std::string>> stringList(const Json& value) {
    if (!value.is_array() || value.empty()) return std::nullopt;
    std::vector<std::string> strings;
    for (const Json& element : value) {
        if (!element.is_string()) return std::nullopt;
        strings.push_back(element.get<std::string>());
    }
    return strings;
}

}  // namespace

asio::awaitable<std::set<std::string>> SyncEngine::sendImageFiles(const std::vector<CaptureStore::Pending>& pending) {
    std::vector<ImageBlobs> images;
    for (const auto& row : pending) {
        const auto image = store_.rawImage(row.id);
        if (!image || row.fields.count("delete") || image->deletedAt) continue;
        if (auto files = blobsToSend(*image)) images.push_back(std::move(*files));
    }
    co_await ensureBlobs(images);

    std::set<std::string> held;
    std::exception_ptr runEnding;
    for (const ImageBlobs& image : images) {
        using Outcome = ImageBlobs::Outcome;
        if (image.outcome == Outcome::sent) {
            store_.setImageHashes(image.imageID, image.files[0].hash, image.files[1].hash, image.files[2].hash);
            continue;
        }
        held.insert(image.imageID);
        // The run ends on the first such failure, once the hashes of what did go are kept.
        if (image.outcome == Outcome::endsRun && !runEnding) runEnding = image.runEnding;
        if (image.outcome == Outcome::skipped) {
            store_.log("warn", "Image " + id8(image.imageID) + " skipped: " + image.skipReason);
        }
    }
    if (runEnding) std::rethrow_exception(runEnding);
    co_return held;
}

asio::awaitable<bool> SyncEngine::cycle() {
    std::vector<Json> changes;
    SentTable sent;
    const auto collect = [&](const char* table, const CaptureStore::Pending& pending, std::optional<Json> change) {
        if (!change) {
            store_.markSynced(table, pending.id, std::nullopt);
            return;
        }
        sent[pending.id] = Sent{table, pending.fields.count("*") > 0, pending, *change};
        changes.push_back(std::move(*change));
    };
    for (const auto& pending : store_.pending("groups", rowsPerTable)) {
        collect("groups", pending, store_.groupChange(pending));
    }
    for (const auto& pending : store_.pending("captures", rowsPerTable)) {
        collect("captures", pending, store_.captureChange(pending));
    }
    // Named, not a temporary in the loop's head: the call waits.
    const auto pendingImages = store_.pending("capture_images", rowsPerTable);
    const std::set<std::string> held = co_await sendImageFiles(pendingImages);
    for (const auto& pending : pendingImages) {
        if (held.count(pending.id)) continue;
        // Read after the files went: sending them has written the hashes.
        if (const auto image = store_.rawImage(pending.id)) {
            collect("capture_images", pending, CaptureStore::imageChange(pending, *image));
        }
    }
    for (const Comment& comment : store_.pendingComments(rowsPerTable)) {
        Json change = CaptureStore::commentChange(comment);
        sent[comment.id] = Sent{"comments", true, CaptureStore::Pending{comment.id, {}, 0}, change};
        changes.push_back(std::move(change));
    }

    const std::int64_t cursor = storedCursor(store_);
    const std::string deviceID = store_.syncMeta("device_id").value_or(newID());
    const std::size_t batchSize = std::min(changes.size(), changesPerExchange);
    Json batch = Json::array();
    for (std::size_t i = 0; i < batchSize; ++i) batch.push_back(std::move(changes[i]));
    Json groupRequest = Json::array();
    while (!fullGroupsQueue_.empty() && groupRequest.size() < fullGroupsPerExchange) {
        groupRequest.push_back(fullGroupsQueue_.front());
        fullGroupsQueue_.pop_front();
    }
    const Json body = {{"device_id", deviceID}, {"cursor", cursor}, {"changes", batch}, {"full_groups", groupRequest}};
    const Json reply =
        co_await call([this, &body](const Cancellation& cancel) { return client_.sync(body, cancel); });

    // The verdicts, the remote changes and the cursor are stored in one
    // commit: hundreds of rows each, and a commit apiece would cost more than
    // the exchange. Until then the rows are as they were, so a run that ends
    // here sends and pulls the same again.
    const Json& remoteChanges = objectList(reply, "changes");
    const bool resultWantsMore = store_.transaction([&] {
        bool wantsMore = false;
        for (const Json& result : objectList(reply, "results")) {
            if (handleResult(result, sent)) wantsMore = true;
        }
        for (const Json& person : objectList(reply, "people")) store_.applyRemotePerson(person);
        applyRemoteChanges(remoteChanges);
        store_.setSyncMeta("cursor", std::to_string(Wire::integer(Wire::field(reply, "cursor"))));
        return wantsMore;
    });

    bool workspaceResync = false;
    for (const Json& instruction : objectList(reply, "resync_groups")) {
        const auto id = stringAt(instruction, "id");
        if (!id) continue;
        if (stringAt(instruction, "mode") == "drop") {
            store_.dropGroup(*id);
        } else if (id->starts_with("workspace:")) {
            workspaceResync = true;
        } else if (std::find(fullGroupsQueue_.begin(), fullGroupsQueue_.end(), *id) == fullGroupsQueue_.end()) {
            fullGroupsQueue_.push_back(*id);
        }
    }
    for (const std::string& id : Wire::strings(Wire::field(reply, "dropped_captures"))) store_.dropCapture(id);
    for (const std::string& id : Wire::strings(Wire::field(reply, "dropped_workspaces"))) store_.dropWorkspace(id);
    if (workspaceResync) {
        store_.setSyncMeta("cursor", "0");
        co_await refreshAccount();
    }
    if (!remoteChanges.empty() || batchSize > 0) ChangeSignal::post();

    co_return Wire::boolean(Wire::field(reply, "more")) || !fullGroupsQueue_.empty() || workspaceResync ||
        resultWantsMore || batchSize < changes.size();
}

void SyncEngine::applyRemoteChanges(const Json& changes) {
    for (const char* table : applyOrder) {
        for (const Json& change : changes) {
            const Json& row = Wire::field(change, "row");
            if (stringAt(change, "table") != table || !row.is_object()) continue;
            if (refuseUnsafeNames(table, row)) continue;
            try {
                const std::string_view name = table;
                if (name == "groups") store_.applyRemoteGroup(row);
                else if (name == "group_members") store_.applyRemoteGroupMember(row);
                else if (name == "captures") store_.applyRemoteCapture(row);
                else if (name == "capture_images") store_.applyRemoteImage(row);
                else if (name == "comments") store_.applyRemoteComment(row);
                else store_.applyRemoteActivity(row);
            } catch (const std::exception& error) {
                store_.log("warn", std::string("Couldn't apply ") + table + " row: " + error.what());
            }
        }
    }
}

bool SyncEngine::refuseUnsafeNames(const std::string& table, const Json& row) {
    // Image ids and hashes become file names and blob paths, workspace ids
    // blob paths.
    static const std::map<std::string, std::vector<const char*>> namesByTable = {
        {"captures", {"workspace_id"}},
        {"capture_images", {"id", "original_sha256", "marked_sha256", "thumb_sha256"}},
    };
    const auto names = namesByTable.find(table);
    if (names == namesByTable.end()) return false;
    for (const char* key : names->second) {
        const auto name = stringAt(row, key);
        if (!name || isPlainFileName(*name)) continue;
        const std::string id = stringAt(row, "id").value_or("?");
        store_.log("warn", "Refused a " + table + " row (" + id8(Wire::prefixGraphemes(id, 64)) +
                               "): its " + key + " \"" + Wire::prefixGraphemes(*name, 64) +
                               "\" is not a plain file name");
        return true;
    }
    return false;
}

bool SyncEngine::handleResult(const Json& result, const SentTable& sent) {
    const auto id = stringAt(result, "id");
    if (!id) return false;
    const auto found = sent.find(*id);
    if (found == sent.end()) return false;
    const Sent& record = found->second;
    const std::string& table = record.table;
    const std::string status = stringAt(result, "status").value_or("");
    const Json& versionValue = Wire::field(result, "version");
    const std::optional<std::int64_t> version =
        versionValue.is_number_integer() ? std::optional(versionValue.get<std::int64_t>()) : std::nullopt;

    if (status == "applied" || status == "merged") {
        const bool editedInFlight = acknowledge(record, version);
        if (status == "merged") {
            if (auto conflicts = stringList(Wire::field(result, "conflicts"))) {
                store_.log("info", table + " " + id8(*id) + ": the server's " + join(*conflicts, ", ") +
                                       " stood; your version was kept alongside");
            }
        }
        rejections_.erase(*id);
        return editedInFlight;
    }
    if (status == "remapped") {
        if (auto canonical = stringAt(result, "canonical_id")) store_.remapGroup(*id, *canonical);
        return false;
    }
    const std::string reason = stringAt(result, "reason").value_or("rejected");
    if (Wire::boolean(Wire::field(result, "retry")) && ++rejections_[*id] < retriedRejections) return true;
    rejections_.erase(*id);
    store_.log("warn", table + " " + id8(*id) + " rejected: " + reason);
    if (table == "captures" && record.isNew) {
        store_.markLocalOnly(*id);  // stays on this device, out of sync
        return false;
    }
    return acknowledge(record, std::nullopt);  // the local value stands
}

bool SyncEngine::acknowledge(const Sent& sent, const std::optional<std::int64_t>& version) {
    return !store_.markSynced(sent.collected, sent.change, version);
}

}  // namespace mirel
