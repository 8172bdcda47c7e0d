// Who the user is, which device this is, the sync exchange, the daily
// reconcile and the live event stream's request.
#include "core/sync/sync_client.h"

#include "core/sync/reply_fields.h"
#include "core/sync/wire.h"

#include <algorithm>

namespace mirel {

namespace {

// A workspace needs its id, name and slug; without one of them it is left out.
std::optional<Workspace> workspaceFrom(const Json& object) {
    const auto id = stringAt(object, "id");
    const auto name = stringAt(object, "name");
    const auto slug = stringAt(object, "slug");
    if (!id || !name || !slug) return std::nullopt;
    Workspace workspace;
    workspace.id = *id;
    workspace.name = *name;
    workspace.slug = *slug;
    workspace.role = stringAt(object, "role").value_or("member");
    workspace.settingsJSON = Wire::json(Wire::field(object, "settings"));
    return workspace;
}

// An idle event stream may stay open for an hour; it has no overall bound.
constexpr TransferLimits eventStreamLimits{std::chrono::seconds(3600), std::chrono::milliseconds(0)};

}  // namespace

AccountInfo SyncClient::me(const Cancellation& cancel) const {
    const Json reply = replyObject(request("GET", "/v1/me", std::nullopt, true, false, cancel));
    const Json& user = Wire::field(reply, "user");
    const auto userID = stringAt(user, "id");
    if (!user.is_object() || !userID) throw SyncError::decode();

    AccountInfo info;
    info.user.id = *userID;
    info.user.name = stringAt(user, "name").value_or("You");
    info.user.email = stringAt(user, "email");
    info.user.imageURL = stringAt(user, "image");
    info.user.kind = stringAt(user, "kind").value_or("person");

    // One element that isn't an object spoils the whole list.
    const Json& workspaces = Wire::field(reply, "workspaces");
    if (workspaces.is_array() &&
        std::all_of(workspaces.begin(), workspaces.end(), [](const Json& element) { return element.is_object(); })) {
        for (const Json& element : workspaces) {
            if (auto workspace = workspaceFrom(element)) info.workspaces.push_back(std::move(*workspace));
        }
    }
    const Json& features = Wire::field(reply, "features");
    if (features.is_object()) {
        for (const auto& [name, value] : features.items()) {
            if (value.is_boolean()) info.features[name] = value.get<bool>();
        }
    }
    return info;
}

void SyncClient::registerDevice(const std::string& id, const std::string& name, const std::string& platform,
                                const std::optional<std::string>& appVersion, const Cancellation& cancel) const {
    const Json body = {{"id", id},
                       {"name", name},
                       {"platform", platform},
                       {"app_version", appVersion ? Json(*appVersion) : Json(nullptr)}};
    request("POST", "/v1/devices", body, true, false, cancel);
}

Json SyncClient::sync(const Json& body, const Cancellation& cancel) const {
    return replyObject(request("POST", "/v1/sync", body, true, false, cancel));
}

ReconcileResult SyncClient::reconcile(const std::vector<std::string>& ids, const Cancellation& cancel) const {
    const Json body = {{"capture_ids", ids}};
    const Json reply = replyObject(request("POST", "/v1/sync/reconcile", body, true, false, cancel));
    return {Wire::strings(Wire::field(reply, "drop")), Wire::strings(Wire::field(reply, "missing"))};
}

HttpRequest SyncClient::events(const std::optional<std::string>& workspaceID) const {
    HttpRequest stream;
    // A bad base address gives an empty URL, which fails when opened.
    stream.url = Http::appendingPath(baseURL_, "/v1/events").value_or("");
    // Escaped, so that no id can add to or cut the query.
    if (workspaceID && !stream.url.empty()) stream.url += "?workspace=" + Http::escapeComponent(*workspaceID);
    stream.limits = eventStreamLimits;
    stream.headers.emplace_back("Accept", "text/event-stream");
    addIdentityHeaders(stream, true);
    return stream;
}

}  // namespace mirel
