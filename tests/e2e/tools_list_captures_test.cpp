// list_captures through the built server: exact reply texts, filters that
// never refuse, and limits that clamp.
#include "tests/e2e/tools_fixture.h"

namespace mirel::test {
namespace {

using Format::idPrefix;

class ListCapturesTest : public ToolsTest {
protected:
    // One capture of each status, distinct titles, newest first by age.
    void seedOneOfEachStatus() {
        for (const auto& [note, status, age] :
             {std::tuple{"Open one", CaptureStatus::open, 1 * kHour}, {"Busy one", CaptureStatus::inProgress, 2 * kHour},
              {"Done one", CaptureStatus::resolved, 3 * kHour}, {"Old one", CaptureStatus::archived, 4 * kHour}}) {
            auto capture = makeCapture(note, ago(age));
            capture.status = status;
            seed(capture);
        }
    }
    // The titles a reply lists, in order.
    static std::vector<std::string> titles(const std::string& text) {
        std::vector<std::string> found;
        for (const char* title : {"Open one", "Busy one", "Done one", "Old one"})
            if (text.find(title) != std::string::npos) found.push_back(title);
        return found;
    }
};

TEST_F(ListCapturesTest, EmptyBoardNamesTheStatusesOfTheQuery) {
    const std::pair<Json, std::string> cases[] = {
        {Json::object(), "Open / In Progress"},
        {{{"status", {"resolved"}}}, "Resolved"},
        {{{"status", {"archived", "open", "archived"}}}, "Archived / Open / Archived"},
        {{{"status", {"bogus"}}}, "Open / In Progress"},
        {{{"group", "nowhere"}, {"status", "resolved"}}, "Resolved"},
    };
    for (const auto& [arguments, statuses] : cases) {
        const Json result = call("list_captures", arguments);
        EXPECT_EQ(McpProcess::text(result), "No captures match (status: " + statuses + "). The board is clear.")
            << arguments.dump();
        EXPECT_EQ(result["isError"], false);
    }
}

TEST_F(ListCapturesTest, StatusIsReadForgivingly) {
    seedOneOfEachStatus();
    using Titles = std::vector<std::string>;
    const std::pair<Json, Titles> cases[] = {
        {Json::object(), {"Open one", "Busy one"}},
        {{{"status", {"open", "nonsense"}}}, {"Open one"}},
        {{{"status", "archived"}}, {"Old one"}},
        {{{"status", {"resolved", "archived"}}}, {"Done one", "Old one"}},
        {{{"status", 5}}, {"Open one", "Busy one"}},
        {{{"status", Json::array()}}, {"Open one", "Busy one"}},
        {{{"status", {"resolved", 3}}}, {"Open one", "Busy one"}},
        {{{"status", "OPEN"}}, {"Open one", "Busy one"}},
        {{{"status", nullptr}}, {"Open one", "Busy one"}},
    };
    for (const auto& [arguments, expected] : cases)
        EXPECT_EQ(titles(reply("list_captures", arguments)), expected) << arguments.dump();
}

TEST_F(ListCapturesTest, LimitIsClampedNotRefused) {
    for (int i = 0; i < 3; ++i) seed("Capture " + std::to_string(i), (i + 1) * kHour);
    const std::pair<Json, std::string> cases[] = {
        {0, "1 capture:"},    {-3, "1 capture:"},   {1, "1 capture:"},      {2, "2 captures:"},
        {2.0, "2 captures:"}, {2.5, "3 captures:"}, {1e12, "3 captures:"}, {"2", "3 captures:"},
        {nullptr, "3 captures:"}, {-1e300, "1 capture:"}, {18446744073709551615ull, "3 captures:"},
    };
    for (const auto& [limit, heading] : cases) {
        const std::string text = reply("list_captures", {{"limit", limit}});
        EXPECT_EQ(text.substr(0, text.find('\n')), heading) << limit.dump();
    }
}

TEST_F(ListCapturesTest, TwoLineEntriesWithEveryPart) {
    const auto group = seedGroup("checkout flow");
    auto full = makeCapture("Save button overlaps the footer\nOnly on narrow windows", ago(5.5 * kMinute));
    full.priority = CapturePriority::high;
    full.appName = "Editor";
    full.windowTitle = " Checkout\n";
    full.url = "https://shop.test/cart";
    full.groupID = group.id;
    full.claimedBy = "claude";
    seed(full);
    for (int i = 0; i < 3; ++i) seedImageRow(db(), makeImage(full.id, i));
    seedTag(db(), full.id, "ui");
    seedTag(db(), full.id, "css");
    seedComment(db(), makeComment(full.id, "one"));
    seedComment(db(), makeComment(full.id, "two"));

    const auto typed = seed("Typed issue", 2.5 * kHour, false);

    auto single = makeCapture("Inbox jumps", ago(3.5 * kDay));
    single.status = CaptureStatus::inProgress;
    single.appName = "Mail";
    single.windowTitle = "MAIL";
    single.url = "";
    const auto gone = seedGroup("gone");
    single.groupID = gone.id;
    seed(single);
    setColumn(db(), "groups", gone.id, "deleted_at", SQLValue(ago(kHour)));
    seedImageRow(db(), makeImage(single.id, 0));
    seedComment(db(), makeComment(single.id, "only"));

    EXPECT_EQ(reply("list_captures"),
              "3 captures:\n"
              "\n"
              "[" + idPrefix(full.id) + "] OPEN !high Save button overlaps the footer\n"
              "    Editor · “Checkout” · https://shop.test/cart · group:checkout flow · tags:css,ui · "
              "claimed-by:claude · 3 screenshots · 2 comments · 5m ago\n"
              "[" + idPrefix(typed.id) + "] OPEN Typed issue\n"
              "    no screenshot · 2h ago\n"
              "[" + idPrefix(single.id) + "] IN-PROGRESS Inbox jumps\n"
              "    Mail · 1 comment · 3d ago\n"
              "\n"
              "Call get_capture with an id to see the screenshot.");

    // A cover with no image rows says nothing about screenshots either.
    const auto cover = seed("Cover only", 10 * kDay);
    EXPECT_EQ(reply("list_captures", {{"search", "Cover"}}),
              "1 capture:\n\n[" + idPrefix(cover.id) + "] OPEN Cover only\n    10d ago\n\n"
              "Call get_capture with an id to see the screenshot.");
}

TEST_F(ListCapturesTest, FiltersTakeNonEmptyTextsOnly) {
    const auto group = seedGroup("checkout flow");
    auto inGroup = makeCapture("Grouped", ago(kHour));
    inGroup.groupID = group.id;
    inGroup.priority = CapturePriority::low;
    seed(inGroup);
    seedTag(db(), inGroup.id, "ui");
    seed("Loose", 2 * kHour);

    const auto count = [&](const Json& arguments) {
        const std::string text = reply("list_captures", arguments);
        return text.substr(0, text.find(':'));
    };
    EXPECT_EQ(count({{"group", "checkout flow"}}), "1 capture");
    EXPECT_EQ(count({{"group", ""}}), "2 captures");
    EXPECT_EQ(count({{"group", 5}}), "2 captures");
    EXPECT_EQ(count({{"group", "unknown"}}), "No captures match (status");
    EXPECT_EQ(count({{"tag", "ui"}}), "1 capture");
    EXPECT_EQ(count({{"tag", Json::array({"ui"})}}), "2 captures");
    EXPECT_EQ(count({{"priority", "low"}}), "1 capture");
    EXPECT_EQ(count({{"priority", "urgent"}}), "2 captures");
    EXPECT_EQ(count({{"priority", "LOW"}}), "2 captures");
    EXPECT_EQ(count({{"search", "Loo"}}), "1 capture");
    EXPECT_EQ(count({{"search", ""}}), "2 captures");
    // LIKE wildcards in a search are not escaped.
    EXPECT_EQ(count({{"search", "%"}}), "2 captures");
    EXPECT_EQ(count({{"search", "G_ouped"}}), "1 capture");
    EXPECT_EQ(count({{"unknown", true}}), "2 captures");
}

}  // namespace
}  // namespace mirel::test
