#include "server/record_schema.h"

#include "server/dates.h"

#include "core/sync/content_hash.h"

#include <algorithm>
#include <array>

namespace mirel::server {

namespace {

constexpr std::size_t kLongestText = 1 << 20;
constexpr std::size_t kMostTags = 200;
constexpr std::size_t kLongestTag = 200;

constexpr std::array<std::string_view, 4> kStatuses{"open", "in_progress", "resolved", "archived"};
constexpr std::array<std::string_view, 3> kPriorities{"low", "normal", "high"};
constexpr std::array<std::string_view, 4> kModes{"region", "fullscreen", "window", "text"};
constexpr std::array<std::string_view, 2> kVisibilities{"private", "workspace"};
constexpr std::array<std::string_view, 2> kCommentKinds{"comment", "conflict"};

constexpr std::array<FieldSpec, 21> kCaptureFields{{
    {"workspace_id", FieldType::reference, true},
    {"group_id", FieldType::reference},
    {"note", FieldType::text},
    {"status", FieldType::enumeration, false, kStatuses},
    {"priority", FieldType::enumeration, false, kPriorities},
    {"tags", FieldType::tags},
    {"app_name", FieldType::optionalText},
    {"app_bundle_id", FieldType::optionalText},
    {"window_title", FieldType::optionalText},
    {"url", FieldType::optionalText},
    {"display_name", FieldType::optionalText},
    {"display_scale", FieldType::number},
    {"capture_mode", FieldType::enumeration, false, kModes},
    {"claimed_by_id", FieldType::reference},
    {"claimed_label", FieldType::optionalText},
    {"claimed_at", FieldType::optionalDate},
    {"resolved_at", FieldType::optionalDate},
    {"resolution_ref", FieldType::optionalText},
    {"assignee_id", FieldType::reference},
    {"created_at", FieldType::date, true},
    {"captured_at", FieldType::optionalDate, true},
}};

constexpr std::array<FieldSpec, 10> kImageFields{{
    {"capture_id", FieldType::reference, true},
    {"position", FieldType::integer},
    {"original_sha256", FieldType::hash},
    {"marked_sha256", FieldType::optionalHash},
    {"thumb_sha256", FieldType::optionalHash},
    {"width", FieldType::count},
    {"height", FieldType::count},
    {"bytes", FieldType::count},
    {"annotation_json", FieldType::anyJSON},
    {"created_at", FieldType::date, true},
}};

constexpr std::array<FieldSpec, 5> kGroupFields{{
    {"workspace_id", FieldType::reference, true},
    {"name", FieldType::text},
    {"color_hex", FieldType::text},
    {"visibility", FieldType::enumeration, true, kVisibilities},
    {"archived_at", FieldType::optionalDate},
}};

constexpr std::array<FieldSpec, 6> kCommentFields{{
    {"capture_id", FieldType::reference, true},
    {"body", FieldType::text},
    {"created_at", FieldType::date, true},
    {"is_agent", FieldType::flag},
    {"actor_label", FieldType::optionalText},
    {"kind", FieldType::enumeration, false, kCommentKinds},
}};

constexpr std::array<TableSpec, 4> kTables{{
    {"groups", kGroupFields, true, false},
    {"captures", kCaptureFields, true, true},
    {"capture_images", kImageFields, true, true},
    {"comments", kCommentFields, false, false},
}};

bool fitsText(const Json& value) { return value.is_string() && value.get_ref<const std::string&>().size() <= kLongestText; }

std::optional<Json> normalizedDate(const Json& value) {
    if (!value.is_string()) return std::nullopt;
    auto date = parseISODate(value.get<std::string>());
    if (!date) return std::nullopt;
    return Json(isoDate(*date));
}

}  // namespace

const TableSpec* tableSpec(std::string_view table) {
    for (const auto& spec : kTables) {
        if (spec.table == table) return &spec;
    }
    return nullptr;
}

const FieldSpec* fieldSpec(const TableSpec& spec, std::string_view field) {
    for (const auto& f : spec.fields) {
        if (f.name == field) return &f;
    }
    return nullptr;
}

bool isRecordID(std::string_view text) {
    return !text.empty() && text.size() <= 64 && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
               c == '.';
    });
}

std::optional<Json> normalizedValue(const FieldSpec& field, const Json& value) {
    switch (field.type) {
        case FieldType::text:
            if (fitsText(value)) return value;
            return std::nullopt;
        case FieldType::optionalText:
            if (value.is_null() || fitsText(value)) return value;
            return std::nullopt;
        case FieldType::reference:
            if (value.is_null() || (value.is_string() && isRecordID(value.get<std::string>()))) return value;
            return std::nullopt;
        case FieldType::enumeration:
            if (value.is_string() &&
                std::find(field.choices.begin(), field.choices.end(), value.get<std::string>()) != field.choices.end()) {
                return value;
            }
            return std::nullopt;
        case FieldType::number:
            if (value.is_number()) return Json(value.get<double>());
            return std::nullopt;
        case FieldType::count:
            if (value.is_number_integer() && value.get<std::int64_t>() >= 0) return value;
            return std::nullopt;
        case FieldType::integer:
            if (value.is_number_integer()) return value;
            return std::nullopt;
        case FieldType::flag:
            if (value.is_boolean()) return value;
            return std::nullopt;
        case FieldType::date:
            return normalizedDate(value);
        case FieldType::optionalDate:
            if (value.is_null()) return value;
            return normalizedDate(value);
        case FieldType::tags: {
            if (!value.is_array() || value.size() > kMostTags) return std::nullopt;
            for (const auto& tag : value) {
                if (!tag.is_string() || tag.get_ref<const std::string&>().size() > kLongestTag) return std::nullopt;
            }
            return value;
        }
        case FieldType::hash:
            if (value.is_string() && ContentHash::isHexDigest(value.get<std::string>())) return value;
            return std::nullopt;
        case FieldType::optionalHash:
            if (value.is_null() || (value.is_string() && ContentHash::isHexDigest(value.get<std::string>()))) {
                return value;
            }
            return std::nullopt;
        case FieldType::anyJSON:
            return value;
    }
    return std::nullopt;
}

Json newRecordDefaults(std::string_view table, double now) {
    const Json stamp = isoDate(now);
    if (table == "captures") {
        return Json{{"group_id", nullptr},       {"note", ""},
                    {"status", "open"},          {"priority", "normal"},
                    {"tags", Json::array()},     {"app_name", nullptr},
                    {"app_bundle_id", nullptr},  {"window_title", nullptr},
                    {"url", nullptr},            {"display_name", nullptr},
                    {"display_scale", 0.0},      {"capture_mode", "region"},
                    {"claimed_by_id", nullptr},  {"claimed_label", nullptr},
                    {"claimed_at", nullptr},     {"resolved_at", nullptr},
                    {"resolution_ref", nullptr}, {"assignee_id", nullptr},
                    {"created_at", stamp},       {"captured_at", nullptr},
                    {"deleted_at", nullptr}};
    }
    if (table == "capture_images") {
        return Json{{"position", 0},          {"marked_sha256", nullptr}, {"thumb_sha256", nullptr},
                    {"width", 0},             {"height", 0},              {"bytes", 0},
                    {"annotation_json", nullptr}, {"created_at", stamp}, {"deleted_at", nullptr}};
    }
    if (table == "groups") {
        return Json{{"color_hex", "#6E7BF2"}, {"visibility", "private"},  {"archived_at", nullptr},
                    {"default_assignee_id", nullptr}, {"created_at", stamp}, {"deleted_at", nullptr}};
    }
    // comments
    return Json{{"body", ""}, {"created_at", stamp}, {"is_agent", false}, {"actor_label", nullptr}, {"kind", "comment"}};
}

}  // namespace mirel::server
