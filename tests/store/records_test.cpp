// Records, their words and computed properties, and the forgiving decoders
// that turn rows (bad ones included) into them.
#include "core/store/capture_store.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

namespace mirel {
namespace {

template <class Enum, class Parse>
std::string words(const std::vector<Enum>& all, Parse parse) {
    std::string out;
    for (const Enum value : all) {
        EXPECT_EQ(parse(rawValue(value)), value);
        out += std::string(rawValue(value)) + "/" + std::string(displayName(value)) + " ";
    }
    return out;
}

TEST(RecordsTest, EachEnumerationHasOneWordAndOneNamePerCase) {
    using S = CaptureStatus;
    using P = CapturePriority;
    using M = CaptureMode;
    EXPECT_EQ(words(CaptureStatuses::allCases, captureStatusFrom),
              "open/Open in_progress/In Progress resolved/Resolved archived/Archived ");
    EXPECT_EQ(words(std::vector{P::low, P::normal, P::high}, capturePriorityFrom), "low/Low normal/Normal high/High ");
    EXPECT_EQ(words(std::vector{M::region, M::fullscreen, M::window, M::text}, captureModeFrom),
              "region/Region fullscreen/Full Screen window/Window text/Text only ");
    EXPECT_EQ(words(std::vector{GroupVisibility::workspace, GroupVisibility::private_}, groupVisibilityFrom),
              "workspace/Workspace private/Private ");
    EXPECT_EQ(syncStateFrom("pendingPush"), SyncState::pendingPush);
    EXPECT_EQ(rawValue(SyncState::synced), "synced");
    for (const char* word : {"Open", "inProgress", ""}) EXPECT_FALSE(captureStatusFrom(word)) << word;
    EXPECT_FALSE(syncStateFrom("pending_push"));
    EXPECT_EQ(std::vector({sortWeight(P::high), sortWeight(P::normal), sortWeight(P::low)}), std::vector({0, 1, 2}));
    EXPECT_EQ(std::vector<S>(CaptureStatuses::active), std::vector<S>({S::open, S::inProgress}));
}

TEST(RecordsTest, TitlesBodiesInitialsAndSharing) {
    const std::tuple<const char*, bool, std::optional<std::string>, const char*, const char*> notes[] = {
        {"Button clipped\n  on the settings page \n", true, {}, "Button clipped", "on the settings page"},
        {"\t Only line \u00A0", true, {}, "Only line", ""},
        {"", false, {}, "Untitled issue", ""},
        {"  \t ", true, "Safari", "Untitled capture in Safari", ""},
        {"\nLater", false, "Xcode", "Untitled issue in Xcode", "Later"},
        {"First\r\nSecond\nThird\r\n", true, {}, "First\r\nSecond", "Third"},
    };
    for (const auto& [note, withImage, app, title, body] : notes) {
        Capture c;
        c.note = note;
        c.imagePath = withImage ? "x.png" : "";
        c.appName = app;
        EXPECT_EQ(c.title() + "|" + c.noteBody(), std::string(title) + "|" + body) << note;
    }
    for (const auto& [name, initials] : {std::pair{"ada lovelace byron", "AL"}, {"  jo   anne ", "JA"}, {"", "?"},
                                         {"   ", "?"}, {"élodie ünal", "ÉÜ"}, {"łukasz", "Ł"}}) {
        Person p;
        p.name = name;
        EXPECT_EQ(p.initials(), initials) << name;
    }
    Capture c;
    c.id = "0f8fad5b-d9cb-469f-a165-70867728950e";
    c.workspaceID = "ws";
    EXPECT_EQ(c.shortID() + (c.isShared() ? " shared" : ""), "7728950e shared");
    c.localOnly = true;
    EXPECT_FALSE(c.isShared());
    CaptureImage image;
    image.originalSHA256 = "abc";
    EXPECT_TRUE(image.isAwaitingDownload());
    for (const char* json : {R"({"shapes":[]})", "not json"}) {
        image.annotationJSON = json;
        EXPECT_FALSE(image.hasAnnotations());
    }
    image.annotationJSON = R"({"shapes":[{"id":"a","tool":"pen","colorHex":"#000","lineWidth":1,"points":[]}]})";
    EXPECT_TRUE(image.hasAnnotations());
}

TEST(RecordsTest, RowAccessorsConvertOnlyWhatFits) {
    const Row row(std::map<std::string, SQLValue>{
        {"i", SQLValue(7)}, {"f", SQLValue(-2.75)}, {"t", SQLValue("7")}, {"b", SQLValue::blob({1, 2})},
        {"n", SQLValue()}, {"big", SQLValue(1e300)}, {"nan", SQLValue(std::nan(""))}});
    const auto number = [](double d) {
        char text[32];
        std::snprintf(text, sizeof text, "%g", d);
        return std::string(text);
    };
    std::string seen;
    for (const std::string column : {"i", "f", "t", "b", "n", "big", "nan", "missing"}) {
        const auto i = row.intValue(column);
        const auto d = row.doubleValue(column);
        seen += column + ":" + row.string(column).value_or("-") + "," + (i ? std::to_string(*i) : "-") + "," +
                (d ? number(*d) : "-") + "," + (row.boolValue(column) ? "T" : "F") + "," +
                (row.data(column) ? std::to_string(row.data(column)->size()) : "-") + " ";
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
    const Capture c = CaptureStore::decodeCapture(bad);
    EXPECT_EQ(c.id + " " + std::string(rawValue(c.status)) + " " + std::string(rawValue(c.priority)) + " " +
                  std::string(rawValue(c.syncState)) + " " + std::string(rawValue(c.captureMode)) + " " +
                  c.appName.value_or("-") + " [" + c.note + "] " + std::to_string(int(c.createdAt)) + " " +
                  std::to_string(int(c.updatedAt)) + " " + std::to_string(c.imageWidth) + " " + (c.dirty ? "dirty" : "") +
                  (c.localOnly ? " localOnly" : ""),
              "c1 open normal local window - [] 1700000000 99 640 dirty");
    const CaptureGroup g = CaptureStore::decodeGroup(bad);
    EXPECT_EQ(g.name + " " + g.colorHex + " " + std::string(rawValue(g.visibility)), "Untitled #6E7BF2 workspace");
    const Row empty;
    const auto i = CaptureStore::decodeImage(empty);
    const auto k = CaptureStore::decodeComment(empty);
    const auto e = CaptureStore::decodeActivity(empty);
    const auto p = CaptureStore::decodePerson(bad);
    const auto w = CaptureStore::decodeWorkspace(empty);
    EXPECT_EQ(std::to_string(i.id.size()) + " " + std::to_string(int(i.createdAt)) + " " + k.author + " " + k.kind + " " +
                  e.actor + " " + e.captureID.value_or("-") + " " + p.id + " " + p.name + " " + p.kind + " " + w.role,
              "36 99 unknown comment you - c1 Someone bot member");
    EXPECT_NE(CaptureStore::decodeCapture(empty).id, CaptureStore::decodeCapture(empty).id);
    EXPECT_EQ(CaptureStore::decodeGroup(Row(std::map<std::string, SQLValue>{{"visibility", "public"}})).visibility,
              GroupVisibility::private_);
    Clock::pin(std::nullopt);
}

}  // namespace
}  // namespace mirel
