// Records and their words, computed properties, and the forgiving decoders
// that turn rows (bad ones included) into them.
#include "core/store/capture_store.h"
#include "core/store/row_decoding.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

namespace mirel {
namespace {

TEST(RecordsTest, WordsTitlesAndInitials) {
    std::string words;
    for (const auto status : CaptureStatuses::allCases) words += std::string(rawValue(status)) + "/" + std::string(displayName(status)) + " ";
    for (const auto mode : {CaptureMode::region, CaptureMode::fullscreen, CaptureMode::window, CaptureMode::text})
        words += std::string(rawValue(mode)) + "/" + std::string(displayName(mode)) + " ";
    EXPECT_EQ(words, "open/Open in_progress/In Progress resolved/Resolved archived/Archived region/Region "
                     "fullscreen/Full Screen window/Window text/Text only ");
    EXPECT_FALSE(captureStatusFrom("Open") || syncStateFrom("pending_push") || capturePriorityFrom(""));
    EXPECT_EQ(std::vector({sortWeight(CapturePriority::high), sortWeight(CapturePriority::normal), sortWeight(CapturePriority::low)}),
              std::vector({0, 1, 2}));
    const std::tuple<const char*, bool, std::optional<std::string>, const char*> notes[] = {
        {"Button clipped\n  on the settings page \n", true, {}, "Button clipped|on the settings page"},
        {"\t Only line \u00A0", true, {}, "Only line|"}, {"  \t ", true, "Safari", "Untitled capture in Safari|"},
        {"\nLater", false, "Xcode", "Untitled issue in Xcode|Later"}, {"First\r\nSecond\nThird\r\n", true, {}, "First\r\nSecond|Third"},
    };
    for (const auto& [note, withImage, app, expected] : notes) {
        Capture c;
        c.note = note, c.imagePath = withImage ? "x.png" : "", c.appName = app;
        EXPECT_EQ(c.title() + "|" + c.noteBody(), expected) << note;
    }
    for (const auto& [name, initials] : {std::pair{"ada lovelace byron", "AL"}, {"  jo   anne ", "JA"}, {"   ", "?"}, {"élodie ünal", "ÉÜ"}, {"łukasz", "Ł"}}) {
        Person p;
        p.name = name;
        EXPECT_EQ(p.initials(), initials) << name;
    }
    std::string roles;
    for (const char* role : {"owner", "admin", "member", "guest", "Admin"}) {
        Workspace w;
        w.role = role;
        roles += std::string(role) + (w.isAdmin() ? "+admin" : "") + (w.isGuest() ? "+guest" : "") + " ";
    }
    EXPECT_EQ(roles, "owner+admin admin+admin member guest+guest Admin ");
}

TEST(RecordsTest, RowAccessorsConvertOnlyWhatFits) {
    const Row row(std::map<std::string, SQLValue>{{"i", SQLValue(7)}, {"f", SQLValue(-2.75)}, {"t", SQLValue("7")},
                                                  {"b", SQLValue::blob({1, 2})}, {"n", SQLValue()}, {"big", SQLValue(1e300)},
                                                  {"nan", SQLValue(std::nan(""))}});
    std::string seen;
    for (const std::string column : {"i", "f", "t", "b", "n", "big", "nan", "missing"}) {
        const auto i = row.intValue(column);
        const auto d = row.doubleValue(column);
        char number[32] = "-";
        if (d) std::snprintf(number, sizeof number, "%g", *d);
        seen += column + ":" + row.string(column).value_or("-") + "," + (i ? std::to_string(*i) : "-") + "," + number + "," +
                (row.boolValue(column) ? "T" : "F") + "," + (row.data(column) ? std::to_string(row.data(column)->size()) : "-") + " ";
    }
    EXPECT_EQ(seen, "i:-,7,7,T,- f:-,-2,-2.75,T,- t:7,-,-,F,- b:-,-,-,F,2 n:-,-,-,F,- "
                    "big:-,9223372036854775807,1e+300,T,- nan:-,-,nan,F,- missing:-,-,-,F,- ");
}

TEST(RecordsTest, DecodersPutAFallbackInPlaceOfBadData) {
    Clock::pin(99.0);
    const Row bad(std::map<std::string, SQLValue>{
        {"id", "c1"}, {"status", "done"}, {"priority", SQLValue(3)}, {"sync_state", "pending_push"},
        {"app_name", SQLValue(42)}, {"note", SQLValue::blob({1})}, {"created_at", SQLValue(1700000000)},
        {"updated_at", "yesterday"}, {"image_width", SQLValue(640.9)}, {"dirty", SQLValue(1)}, {"local_only", "yes"},
        {"capture_mode", "window"}, {"visibility", "workspace"}, {"name", SQLValue(5)}, {"kind", "bot"}});
    const Capture c = RowDecoding::decodeCapture(bad);
    EXPECT_EQ(c.id + " " + std::string(rawValue(c.status)) + " " + std::string(rawValue(c.priority)) + " " +
                  std::string(rawValue(c.syncState)) + " " + std::string(rawValue(c.captureMode)) + " " + c.appName.value_or("-") +
                  " [" + c.note + "] " + std::to_string(int(c.createdAt)) + " " + std::to_string(int(c.updatedAt)) + " " +
                  std::to_string(c.imageWidth) + (c.dirty ? " dirty" : "") + (c.localOnly ? " localOnly" : ""),
              "c1 open normal local window - [] 1700000000 99 640 dirty");
    const CaptureGroup g = RowDecoding::decodeGroup(bad);
    const Row empty;
    const auto i = RowDecoding::decodeImage(empty);
    const auto k = RowDecoding::decodeComment(empty);
    const auto e = RowDecoding::decodeActivity(empty);
    const auto p = RowDecoding::decodePerson(bad);
    EXPECT_EQ(g.name + " " + g.colorHex + " " + std::string(rawValue(g.visibility)) + " " + std::to_string(i.id.size()) + " " +
                  std::to_string(int(i.createdAt)) + " " + k.author + " " + k.kind + " " + e.actor + " " + e.captureID.value_or("-") +
                  " " + p.id + " " + p.name + " " + p.kind + " " + RowDecoding::decodeWorkspace(empty).role,
              "Untitled #6E7BF2 workspace 36 99 unknown comment you - c1 Someone bot member");
    EXPECT_NE(RowDecoding::decodeCapture(empty).id, RowDecoding::decodeCapture(empty).id);
    EXPECT_EQ(RowDecoding::decodeGroup(Row(std::map<std::string, SQLValue>{{"visibility", "public"}})).visibility,
              GroupVisibility::private_);
    Clock::pin(std::nullopt);
}

}  // namespace
}  // namespace mirel
