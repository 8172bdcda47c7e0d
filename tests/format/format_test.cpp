#include "core/format/format.h"

#include "core/platform/clock.h"
#include "core/store/mirel_paths.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

#include <limits>

namespace mirel {
namespace {

constexpr Date now = 1773480413;  // 2026-03-14T09:26:53Z
constexpr Date minute = 60, hour = 3600, day = 86400;
const std::string marks =
    R"({"shapes":[{"id":"a1","tool":"arrow","colorHex":"#FF3B30","lineWidth":0.005,"points":[{"x":0.1,"y":0.2},{"x":0.4,"y":0.2}]}]})";

class FormatTest : public ::testing::Test {
protected:
    void SetUp() override { Clock::pin(now); }
    void TearDown() override { Clock::pin(std::nullopt); }

    static Capture capture() {
        Capture c;
        c.id = "1a2b3c4d-0000-4000-8000-000000000001";
        c.createdAt = now - 5 * minute;
        c.note = "Save button overlaps the footer";
        c.imagePath = "2026/03/1a2b3c4d.png";
        c.imageWidth = 1440;
        c.imageHeight = 900;
        c.imageBytes = 345000;
        return c;
    }
    static CaptureImage image(int position, bool marked) {
        CaptureImage i;
        i.id = "img-" + std::to_string(position);
        i.captureID = capture().id;
        i.position = position;
        i.imagePath = "2026/03/shot-" + std::to_string(position) + ".png";
        if (marked) {
            i.annotatedPath = "2026/03/shot-" + std::to_string(position) + "-marked.png";
            i.annotationJSON = marks;
        }
        return i;
    }

    test::TempLibrary library_;
};

TEST_F(FormatTest, RelativeAgeSteps) {
    const std::pair<Date, const char*> cases[] = {
        {now + 5, "just now"},          {now + 1, "just now"},        {now + 0.5, "1s ago"},
        {now, "1s ago"},                {now - 1.9, "1s ago"},        {now - 59, "59s ago"},
        {now - 60, "1m ago"},           {now - 3599, "59m ago"},      {now - 3600, "1h ago"},
        {now - 86399, "23h ago"},       {now - day, "1d ago"},        {now - 29 * day, "29d ago"},
        {now - 30 * day, "1mo ago"},    {now - 400 * day, "13mo ago"}, {now - 1e300, "3472222222222mo ago"},
    };
    for (const auto& [date, text] : cases) EXPECT_EQ(Format::relative(date), text) << std::fixed << date;
    // Not a number and absurd dates must not reach undefined behaviour.
    EXPECT_EQ(Format::relative(std::numeric_limits<double>::quiet_NaN()), "1s ago");
    EXPECT_EQ(Format::relative(1e300), "just now");
}

TEST_F(FormatTest, IsoDates) {
    EXPECT_EQ(Format::iso(now), "2026-03-14T09:26:53Z");
    EXPECT_EQ(Format::iso(now + 0.999), "2026-03-14T09:26:53Z");
    EXPECT_EQ(Format::iso(0), "1970-01-01T00:00:00Z");
    EXPECT_EQ(Format::iso(1e300).size(), 20u);
}

TEST_F(FormatTest, DistinctWindowTitle) {
    const struct {
        std::optional<std::string> app, window, expected;
    } cases[] = {
        {"Editor", std::nullopt, std::nullopt},
        {"Editor", " \n\t", std::nullopt},
        {"Editor", " eDITOR\n", std::nullopt},
        {"Safari", "  Checkout — Shop \n", "Checkout — Shop"},
        {std::nullopt, "Checkout", "Checkout"},
        {std::nullopt, "", std::nullopt},
    };
    for (const auto& c : cases) {
        Capture capture;
        capture.appName = c.app;
        capture.windowTitle = c.window;
        EXPECT_EQ(Format::distinctWindowTitle(capture), c.expected) << c.window.value_or("(absent)");
    }
}

TEST_F(FormatTest, ListLineWithEveryPart) {
    Capture c = capture();
    c.priority = CapturePriority::high;
    c.appName = "Editor";
    c.windowTitle = "Checkout";
    c.url = "https://shop.test/cart";
    c.claimedBy = "claude";
    EXPECT_EQ(Format::listLine(c, "checkout flow", {"ui", "css"}, 2, 3),
              "[1a2b3c4d] OPEN !high Save button overlaps the footer\n"
              "    Editor \u00B7 \u201CCheckout\u201D \u00B7 https://shop.test/cart \u00B7 group:checkout flow \u00B7 "
              "tags:ui,css \u00B7 claimed-by:claude \u00B7 3 screenshots \u00B7 2 comments \u00B7 5m ago");
}

TEST_F(FormatTest, ListLineScreenshotAndCommentCounts) {
    Capture withCover = capture();
    withCover.status = CaptureStatus::inProgress;
    withCover.appName = "";  // present though empty: still a part
    withCover.windowTitle = "";
    withCover.url = "";
    EXPECT_EQ(Format::listLine(withCover, std::nullopt, {}, 1, 1),
              "[1a2b3c4d] IN-PROGRESS Save button overlaps the footer\n     \u00B7 1 comment \u00B7 5m ago");
    // No image rows but a cover: nothing said about screenshots.
    EXPECT_EQ(Format::listLine(withCover, std::nullopt, {}, 0, 0),
              "[1a2b3c4d] IN-PROGRESS Save button overlaps the footer\n     \u00B7 5m ago");

    Capture textOnly = capture();
    textOnly.id = "abc";
    textOnly.imagePath.clear();
    textOnly.note = "";
    textOnly.status = CaptureStatus::archived;
    textOnly.appName = "Mail";
    textOnly.windowTitle = "mail";
    EXPECT_EQ(Format::listLine(textOnly, std::nullopt, {"x"}, 0, 0),
              "[abc] ARCHIVED Untitled issue in Mail\n    Mail \u00B7 tags:x \u00B7 no screenshot \u00B7 5m ago");
}

TEST_F(FormatTest, DetailOfTextOnlyCapture) {
    Capture c = capture();
    c.imagePath.clear();
    c.note = "Typed issue\nsecond line";
    c.captureMode = CaptureMode::text;
    EXPECT_EQ(Format::detail(c, std::nullopt, {}, {}, {}, {}),
              "Capture 1a2b3c4d-0000-4000-8000-000000000001\n"
              "Status: OPEN   Priority: Normal\n"
              "Captured: 2026-03-14T09:21:53Z (5m ago)\n"
              "Mode: Text only   No screenshot \u2014 this issue was typed, not captured. Go by the note.\n"
              "\n"
              "\u2500\u2500 Where it was seen \u2500\u2500\n"
              "App: unknown\n"
              "\n"
              "\u2500\u2500 Note \u2500\u2500\n"
              "Typed issue\nsecond line\n");
}

TEST_F(FormatTest, DetailOfOneMarkedImageWithEverything) {
    Capture c = capture();
    c.priority = CapturePriority::high;
    c.appName = "Editor";
    c.appBundleID = "dev.editor";
    c.windowTitle = "Checkout";
    c.url = "https://shop.test";
    c.displayName = "Built-in Display";
    c.claimedBy = "claude";
    c.claimedAt = now - 2 * hour;
    Comment comment;
    comment.author = "ana";
    comment.body = "Also on mobile";
    comment.createdAt = now - 3 * minute;
    ActivityEvent created;
    created.kind = "created";
    created.actor = "you";
    created.createdAt = now - 5 * minute;
    const auto shot = image(0, true);
    const auto root = MirelPaths::capturesRoot();
    EXPECT_EQ(Format::detail(c, "checkout flow", {"ui", "css"}, {comment}, {created}, {shot}),
              "Capture 1a2b3c4d-0000-4000-8000-000000000001\n"
              "Status: OPEN   Priority: High\n"
              "Captured: 2026-03-14T09:21:53Z (5m ago)\n"
              "Mode: Region   Image: 1440\u00D7900px, 345 KB   (marked up by the user)\n"
              "\n"
              "\u2500\u2500 Where it was seen \u2500\u2500\n"
              "App: Editor (dev.editor)\n"
              "Window: Checkout\n"
              "URL: https://shop.test\n"
              "Display: Built-in Display\n"
              "Group: checkout flow\n"
              "Tags: ui, css\n"
              "\n"
              "\u2500\u2500 Note \u2500\u2500\n"
              "Save button overlaps the footer\n"
              "\n"
              "Claimed by claude 2h ago\n"
              "\n"
              "\u2500\u2500 Comments (1) \u2500\u2500\n"
              "[3m ago] ana: Also on mobile\n"
              "\n"
              "\u2500\u2500 History \u2500\u2500\n"
              "[5m ago] captured by you\n"
              "\n"
              "Local files:\n"
              "  1. " + (root / "2026/03/shot-0-marked.png").string() +
                  "  (annotated; original at shot-0.png)");
}

TEST_F(FormatTest, DetailOfSeveralImagesCountsMarks) {
    Capture c = capture();
    c.captureMode = CaptureMode::fullscreen;
    c.note = "";
    const auto root = MirelPaths::capturesRoot();
    const std::string text = Format::detail(c, std::nullopt, {}, {}, {}, {image(0, false), image(1, true), image(2, true)});
    EXPECT_NE(text.find("\nMode: Full Screen   3 screenshots (2 marked up)\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\n(no note written)\n"), std::string::npos);
    const std::string files = "\n\nLocal files:\n"
                              "  1. " + (root / "2026/03/shot-0.png").string() + "\n"
                              "  2. " + (root / "2026/03/shot-1-marked.png").string() +
                              "  (annotated; original at shot-1.png)\n"
                              "  3. " + (root / "2026/03/shot-2-marked.png").string() +
                              "  (annotated; original at shot-2.png)";
    ASSERT_GE(text.size(), files.size());
    EXPECT_EQ(text.substr(text.size() - files.size()), files);

    const std::string unmarked = Format::detail(c, std::nullopt, {}, {}, {}, {image(0, false), image(1, false)});
    EXPECT_NE(unmarked.find("\nMode: Full Screen   2 screenshots\n"), std::string::npos) << unmarked;
}

TEST_F(FormatTest, DetailOfCoverWithoutImageRows) {
    Capture c = capture();
    c.imageBytes = 1200000;
    const std::string text = Format::detail(c, std::nullopt, {}, {}, {}, {});
    EXPECT_NE(text.find("\nMode: Region   Image: 1440\u00D7900px, 1.2 MB\n"), std::string::npos) << text;
    const std::string file = "\n\nLocal file: " + MirelPaths::imageURL(c.imagePath).string();
    EXPECT_EQ(text.substr(text.size() - file.size()), file);
}

TEST_F(FormatTest, DetailResolvedLines) {
    Capture c = capture();
    c.status = CaptureStatus::resolved;
    c.resolvedAt = now - 4 * day;
    c.resolutionRef = "abc123";
    EXPECT_NE(Format::detail(c, std::nullopt, {}, {}, {}, {}).find("footer\nResolved 4d ago \u2014 abc123\n\nLocal file: "),
              std::string::npos);
    c.resolutionRef = "";
    EXPECT_NE(Format::detail(c, std::nullopt, {}, {}, {}, {}).find("footer\nResolved 4d ago\n\nLocal file: "),
              std::string::npos);
    c.resolvedAt.reset();
    c.claimedBy = "bot";
    EXPECT_NE(Format::detail(c, std::nullopt, {}, {}, {}, {}).find("footer\n\nClaimed by bot\nResolved\n\n"),
              std::string::npos);
    // Only the resolved status shows the line, whatever resolvedAt holds.
    c.status = CaptureStatus::open;
    c.resolvedAt = now;
    EXPECT_EQ(Format::detail(c, std::nullopt, {}, {}, {}, {}).find("Resolved"), std::string::npos);
}

TEST_F(FormatTest, DetailKeepsTheLastTwelveEvents) {
    std::vector<ActivityEvent> events;
    for (int i = 0; i < 20; ++i) {
        ActivityEvent event;
        event.kind = "step" + std::to_string(i);
        event.actor = "a";
        event.createdAt = now - 10;
        events.push_back(event);
    }
    const std::string text = Format::detail(capture(), std::nullopt, {}, {}, events, {});
    EXPECT_EQ(text.find("a step7\n"), std::string::npos);
    EXPECT_NE(text.find("\u2500\u2500 History \u2500\u2500\n[10s ago] a step8\n"), std::string::npos) << text;
    EXPECT_NE(text.find("[10s ago] a step19\n\nLocal file: "), std::string::npos);
}

TEST_F(FormatTest, DescribeEachKind) {
    const struct {
        const char* kind;
        const char* detail;
        const char* expected;
    } cases[] = {
        {"created", " no screenshot\t", "filed by ana without a screenshot"},
        {"created", "  ", "captured by ana"},
        {"created", "region", "captured by ana (region)"},
        {"claimed", "ignored", "ana claimed it"},
        {"resolved", "", "ana resolved it"},
        {"resolved", " abc123 ", "ana resolved it \u2014 abc123"},
        {"commented", "x", "ana commented"},
        {"status_changed", "open \u2192 resolved", "ana changed status: open \u2192 resolved"},
        {"updated", "note, tags \u2192 (none)", "ana updated note, tags \u2192 (none)"},
        {"assigned", "", "ana assigned"},
        {"assigned", "bo", "ana assigned: bo"},
    };
    for (const auto& c : cases) {
        ActivityEvent event;
        event.kind = c.kind;
        event.detail = c.detail;
        event.actor = "ana";
        EXPECT_EQ(Format::describe(event), c.expected) << c.kind << "/" << c.detail;
    }
}

TEST_F(FormatTest, ByteCountInFileStyle) {
    const std::pair<std::int64_t, const char*> cases[] = {
        {0, "Zero KB"},         {1, "1 byte"},          {345, "345 bytes"},
        {999, "999 bytes"},     {1000, "1 KB"},         {1499, "1 KB"},
        {1500, "2 KB"},         {345000, "345 KB"},     {999499, "999 KB"},
        {999999, "1 MB"},       {1000000, "1 MB"},      {1200000, "1.2 MB"},
        {1250000, "1.3 MB"},    {2000000000, "2 GB"},   {1234567890, "1.23 GB"},
        {1500000000000, "1.5 TB"}, {-345, "-345 bytes"},
        {std::numeric_limits<std::int64_t>::max(), "9.22 EB"},
        {std::numeric_limits<std::int64_t>::min(), "-9.22 EB"},
    };
    for (const auto& [bytes, text] : cases) EXPECT_EQ(Format::byteCount(bytes), text) << bytes;
}

TEST_F(FormatTest, IdPrefixAndStatusWord) {
    EXPECT_EQ(Format::idPrefix("1a2b3c4d-aaaa"), "1a2b3c4d");
    EXPECT_EQ(Format::idPrefix("1a2b"), "1a2b");
    EXPECT_EQ(Format::statusWord(CaptureStatus::inProgress), "IN-PROGRESS");
    EXPECT_EQ(Format::statusWord(CaptureStatus::resolved), "RESOLVED");
}

}  // namespace
}  // namespace mirel
