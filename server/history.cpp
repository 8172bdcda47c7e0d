#include "server/history.h"

#include "server/dates.h"

#include "core/platform/clock.h"

namespace mirel::server::History {

namespace {

constexpr std::size_t kLongestShownValue = 300;

void addLine(Connection& db, const StoredRecord& capture, const std::string& kind, Json detail, const User& author,
             const Json& actorLabel) {
    StoredRecord line;
    line.kind = "activity";
    line.id = newID();
    line.workspaceID = capture.workspaceID;
    line.captureID = capture.id;
    line.version = 1;
    line.row = Json{{"id", line.id},
                    {"capture_id", capture.id},
                    {"kind", kind},
                    {"created_at", isoDate(Clock::now())},
                    {"actor_id", author.id},
                    {"actor_label", actorLabel},
                    {"detail", std::move(detail)}};
    Records::save(db, line);
}

bool changed(const Json& before, const char* field) { return before.contains(field); }

std::string shown(const Json& value) {
    std::string text;
    if (value.is_null()) {
        text = "(none)";
    } else if (value.is_string()) {
        text = "“" + value.get<std::string>() + "”";
    } else if (value.is_array() && std::all_of(value.begin(), value.end(), [](const Json& v) { return v.is_string(); })) {
        for (const auto& item : value) text += (text.empty() ? "" : ", ") + item.get<std::string>();
        if (text.empty()) text = "(none)";
    } else {
        text = writeJSON(value);
    }
    if (text.size() > kLongestShownValue) {
        std::size_t cut = kLongestShownValue;
        while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;  // whole UTF-8 characters
        text = text.substr(0, cut) + "…";
    }
    return text;
}

}  // namespace

void captureCreated(Connection& db, const StoredRecord& capture, const User& author) {
    addLine(db, capture, "created", Json{{"mode", capture.row.value("capture_mode", "region")}}, author, author.name);
}

void captureChanged(Connection& db, const StoredRecord& capture, const Json& before, const User& author) {
    const Json& row = capture.row;
    const std::string status = row.value("status", "");
    const bool claimed = (changed(before, "claimed_by_id") || changed(before, "claimed_label")) &&
                         (!row.value("claimed_by_id", Json()).is_null() || !row.value("claimed_label", Json()).is_null());
    // Mirrors what one operation on a device writes: a resolve is one
    // "resolved" line, a claim one "claimed" line, however many fields moved.
    if (changed(before, "status") && status == "resolved") {
        addLine(db, capture, "resolved", Json{{"resolution_ref", row.value("resolution_ref", Json())}}, author,
                author.name);
    } else if (changed(before, "status") && !(claimed && status == "in_progress")) {
        addLine(db, capture, "status_changed", Json{{"from", before["status"]}, {"to", status}}, author, author.name);
    }
    if (claimed) {
        const Json label = row.value("claimed_label", Json());
        addLine(db, capture, "claimed", Json::object(), author, label.is_null() ? Json(author.name) : label);
    }
    if (changed(before, "assignee_id") && !(claimed && row.value("assignee_id", Json()) == row.value("claimed_by_id", Json()))) {
        addLine(db, capture, "assigned", Json{{"assignee_id", row.value("assignee_id", Json())}}, author, author.name);
    }
    if (changed(before, "group_id")) {
        Json detail{{"group_id", row.value("group_id", Json())}};
        if (detail["group_id"].is_string()) {
            if (auto group = Records::load(db, "groups", detail["group_id"].get<std::string>())) {
                detail["group_name"] = group->row.value("name", Json());
            }
        }
        addLine(db, capture, "moved", std::move(detail), author, author.name);
    }
}

void commentAdded(Connection& db, const StoredRecord& comment, const User& author) {
    if (comment.row.value("kind", "comment") != "comment" || !comment.captureID) return;
    StoredRecord capture;
    capture.id = *comment.captureID;
    capture.workspaceID = comment.workspaceID;
    const Json label = comment.row.value("actor_label", Json());
    addLine(db, capture, "commented", Json{{"body", comment.row.value("body", "")}}, author,
            label.is_null() ? Json(author.name) : label);
}

StoredRecord conflictNote(const std::string& workspaceID, const std::string& captureID,
                          const std::vector<std::pair<std::string, Json>>& losingValues, const User& author) {
    std::string body = "These edits were not applied because someone changed the same fields first:";
    for (const auto& [field, value] : losingValues) body += "\n" + field + ": " + shown(value);
    const std::string now = isoDate(Clock::now());
    StoredRecord note;
    note.kind = "comments";
    note.id = newID();
    note.workspaceID = workspaceID;
    note.captureID = captureID;
    note.version = 1;
    note.row = Json{{"id", note.id},     {"capture_id", captureID}, {"author_id", author.id},
                    {"actor_label", nullptr}, {"kind", "conflict"}, {"body", body},
                    {"is_agent", false}, {"created_at", now},       {"updated_at", now},
                    {"version", 1}};
    return note;
}

}  // namespace mirel::server::History
