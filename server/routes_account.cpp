// Who the user is, and the devices they have signed in.
#include "server/api.h"
#include "server/dates.h"
#include "server/record_schema.h"
#include "server/refusal.h"

#include "core/platform/clock.h"

namespace mirel::server {

namespace {

// A short, printable text from a client, or the fallback.
std::string label(const Json& value, const std::string& fallback, std::size_t longest) {
    if (!value.is_string() || value.get<std::string>().empty()) return fallback;
    std::string text = value.get<std::string>();
    if (text.size() > longest) throw badRequest("a device label is longer than " + std::to_string(longest) + " bytes");
    return text;
}

}  // namespace

void Api::installAccount(httplib::Server& server) {
    server.Get("/v1/me", [this](const httplib::Request& request, httplib::Response& response) {
        auto db = storage_.connection();
        const User user = authenticate(request, *db);
        Json workspaces = Json::array();
        for (const auto& m : Accounts::memberships(*db, user.id)) {
            workspaces.push_back({{"id", m.workspaceID}, {"name", m.name}, {"slug", m.slug}, {"role", m.role}});
        }
        replyJSON(response, Json{{"user", {{"id", user.id}, {"name", user.name}, {"email", user.email}, {"kind", "person"}}},
                                 {"workspaces", std::move(workspaces)},
                                 {"features", {{"uploads", settings_.uploadsEnabled}, {"events", true}}}});
    });

    server.Post("/v1/devices", [this](const httplib::Request& request, httplib::Response& response) {
        auto db = storage_.connection();
        const User user = authenticate(request, *db);
        const Json body = jsonBody(request);
        if (!body.is_object()) throw badRequest("the body must be a JSON object");
        const Json id = body.value("id", Json());
        if (!id.is_string() || !isRecordID(id.get<std::string>())) throw badRequest("id must be the device's id");
        const std::string name = label(body.value("name", Json()), "Unnamed device", 200);
        const std::string platform = label(body.value("platform", Json()), "unknown", 40);
        const Json version = body.value("app_version", Json());
        const SqlArg appVersion = version.is_string() ? SqlArg(label(version, "", 40)) : SqlArg(nullptr);
        const Date now = Clock::now();
        db->run("INSERT INTO devices (user_id, id, name, platform, app_version, created_at, last_seen_at) "
                "VALUES (?,?,?,?,?,?,?) ON CONFLICT(user_id, id) DO UPDATE SET name = excluded.name, "
                "platform = excluded.platform, app_version = excluded.app_version, last_seen_at = excluded.last_seen_at;",
                {user.id, id.get<std::string>(), name, platform, appVersion, now, now});
        replyJSON(response, Json{{"id", id}, {"name", name}, {"platform", platform}});
    });

    server.Get("/v1/devices", [this](const httplib::Request& request, httplib::Response& response) {
        auto db = storage_.connection();
        const User user = authenticate(request, *db);
        auto s = db->prepare("SELECT id, name, platform, app_version, created_at, last_seen_at FROM devices "
                             "WHERE user_id = ? ORDER BY last_seen_at DESC;");
        s.bind(1, user.id);
        Json devices = Json::array();
        while (s.step()) {
            devices.push_back({{"id", s.text(0)},
                               {"name", s.text(1)},
                               {"platform", s.text(2)},
                               {"app_version", s.isNull(3) ? Json() : Json(s.text(3))},
                               {"created_at", isoDate(s.real(4))},
                               {"last_seen_at", isoDate(s.real(5))}});
        }
        replyJSON(response, Json{{"devices", std::move(devices)}});
    });
}

}  // namespace mirel::server
