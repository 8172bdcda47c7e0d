// How records read as text, for what the tools' board does not show: the
// steps of ages and byte counts, window titles, each activity kind, and the
// detail page's rarer lines.
#include "core/format/format.h"

#include "core/platform/clock.h"
#include "core/store/mirel_paths.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

#include <limits>

// Records are built with designated initializers that name only what a case needs.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace mirel {
namespace {

constexpr Date now = 1773480413;  // 2026-03-14T09:26:53Z
constexpr Date day = 86400;

class FormatTest : public ::testing::Test {
protected:
    void SetUp() override { Clock::pin(now); }
    void TearDown() override { Clock::pin(std::nullopt); }
    test::TempLibrary library;
};

TEST_F(FormatTest, AgesDatesAndByteCounts) {
    const std::pair<Date, const char*> ages[] = {
        {now + 5, "just now"}, {now + 1, "just now"}, {now + 0.5, "1s ago"}, {now, "1s ago"}, {now - 1.9, "1s ago"},
        {now - 59, "59s ago"}, {now - 60, "1m ago"}, {now - 3599, "59m ago"}, {now - 3600, "1h ago"}, {now - 86399, "23h ago"},
        {now - day, "1d ago"}, {now - 29 * day, "29d ago"}, {now - 30 * day, "1mo ago"}, {now - 400 * day, "13mo ago"},
        {now - 1e300, "3472222222222mo ago"}, {std::numeric_limits<double>::quiet_NaN(), "1s ago"}, {1e300, "just now"},
    };
    for (const auto& [date, text] : ages) EXPECT_EQ(Format::relative(date), text) << std::fixed << date;
    EXPECT_EQ(Format::iso(now + 0.999) + Format::iso(0) + Format::iso(1e300),
              "2026-03-14T09:26:53Z1970-01-01T00:00:00Z9999-12-31T23:59:59Z");
    const std::pair<std::int64_t, const char*> sizes[] = {
        {0, "Zero KB"}, {1, "1 byte"}, {999, "999 bytes"}, {1000, "1 KB"}, {1499, "1 KB"}, {1500, "2 KB"},
        {999499, "999 KB"}, {999999, "1 MB"}, {1250000, "1.3 MB"}, {2000000000, "2 GB"}, {1234567890, "1.23 GB"},
        {1500000000000, "1.5 TB"}, {-345, "-345 bytes"}, {-1000, "-1 KB"},
        {std::numeric_limits<std::int64_t>::max(), "9.22 EB"}, {std::numeric_limits<std::int64_t>::min(), "-9.22 EB"},
    };
    for (const auto& [bytes, text] : sizes) EXPECT_EQ(Format::byteCount(bytes), text) << bytes;
}

TEST_F(FormatTest, WindowTitlesAndActivityLines) {
    const std::tuple<std::optional<std::string>, std::optional<std::string>, std::optional<std::string>> titles[] = {
        {"Editor", " \n\t", std::nullopt}, {"Editor", " eDITOR\n", std::nullopt}, {"Safari", "  Checkout — Shop \n", "Checkout — Shop"},
        {std::nullopt, "Checkout", "Checkout"}, {std::nullopt, "", std::nullopt}, {"Editor", std::nullopt, std::nullopt},
    };
    for (const auto& [app, window, expected] : titles)
        EXPECT_EQ(Format::distinctWindowTitle({.appName = app, .windowTitle = window}), expected) << window.value_or("-");
    // The kinds the tools' conversation does not write.
    const std::tuple<const char*, const char*, const char*> events[] = {
        {"created", " no screenshot\t", "filed by ana without a screenshot"}, {"created", "  ", "captured by ana"},
        {"created", "region", "captured by ana (region)"}, {"assigned", "", "ana assigned"}, {"assigned", "bo", "ana assigned: bo"},
    };
    for (const auto& [kind, detail, expected] : events)
        EXPECT_EQ(Format::describe({.kind = kind, .detail = detail, .actor = "ana"}), expected) << kind << "/" << detail;
}

TEST_F(FormatTest, RareLinesOfTheListAndDetail) {
    Capture c{.id = "abc", .createdAt = now - 60, .note = "", .status = CaptureStatus::archived, .windowTitle = "", .url = ""};
    EXPECT_EQ(Format::listLine(c, std::nullopt, {"x"}, 0, 1), "[abc] ARCHIVED Untitled issue\n    tags:x · 1m ago");
    EXPECT_EQ(Format::listLine(c, std::nullopt, {}, 0, 0), "[abc] ARCHIVED Untitled issue\n    no screenshot · 1m ago");

    // One marked image, a display, a claim without a time, and a resolution without one.
    c = {.id = "1a2b3c4d", .createdAt = now - 60, .note = "Footer", .status = CaptureStatus::resolved,
         .imagePath = "2026/03/c.png", .imageWidth = 1440, .imageHeight = 900, .imageBytes = 1200000,
         .displayName = "Built-in Display", .claimedBy = "bot"};
    const CaptureImage marked{.id = "i", .imagePath = "2026/03/s.png", .annotatedPath = "2026/03/s-marked.png",
                              .annotationJSON = R"({"shapes":[{"id":"a","tool":"arrow","colorHex":"#FF3B30","lineWidth":0.005,"points":[]}]})"};
    const std::string page = "Capture 1a2b3c4d\nStatus: RESOLVED   Priority: Normal\nCaptured: 2026-03-14T09:25:53Z (1m ago)\n"
                             "Mode: Region   Image: 1440×900px, 1.2 MB   (marked up by the user)\n\n── Where it was seen ──\n"
                             "App: unknown\nDisplay: Built-in Display\n\n── Note ──\nFooter\n\nClaimed by bot\nResolved\n\n"
                             "Local files:\n  1. " + MirelPaths::imageURL("2026/03/s-marked.png").string() +
                             "  (annotated; original at s.png)";
    EXPECT_EQ(Format::detail(c, std::nullopt, {}, {}, {}, {marked}), page);
    // Only the resolved status shows the line, whatever the dates say; unmarked images are only counted.
    c.status = CaptureStatus::open, c.resolvedAt = now;
    const std::string open = Format::detail(c, std::nullopt, {}, {}, {}, {CaptureImage{.imagePath = "a.png"}, CaptureImage{.imagePath = "b.png"}});
    EXPECT_EQ(open.find("Resolved"), std::string::npos) << open;
    EXPECT_NE(open.find("\nMode: Region   2 screenshots\n"), std::string::npos) << open;
}

}  // namespace
}  // namespace mirel
