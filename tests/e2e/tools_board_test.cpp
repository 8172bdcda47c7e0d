// list_groups and capture_stats through the built server: exact texts.
#include "tests/e2e/tools_fixture.h"

namespace mirel::test {
namespace {

using Format::idPrefix;

const std::string kClosing =
    "Pass those ids to get_capture to see the screenshots, or call list_captures with group: \"<name>\" for "
    "everything in one group.";

class BoardTest : public ToolsTest {
protected:
    Capture seedIn(const std::optional<std::string>& groupID, const std::string& note, double age,
                   CaptureStatus status = CaptureStatus::open) {
        auto capture = makeCapture(note, ago(age));
        capture.groupID = groupID;
        capture.status = status;
        return seed(capture);
    }
};

TEST_F(BoardTest, ListGroupsOnAnEmptyBoard) {
    EXPECT_EQ(reply("list_groups"), "No groups yet, and nothing open. The board is clear.");
    // Resolved work alone is nothing open.
    seedIn(std::nullopt, "Done", kHour, CaptureStatus::resolved);
    EXPECT_EQ(reply("list_groups", {{"ignored", 1}}), "No groups yet, and nothing open. The board is clear.");
}

TEST_F(BoardTest, ListGroupsWithOnlyUngroupedWork) {
    std::vector<std::string> ids;
    for (int i = 1; i <= 13; ++i) ids.push_back(idPrefix(seedIn(std::nullopt, "Loose " + std::to_string(i), i * kMinute).id));
    ids.resize(12);
    EXPECT_EQ(reply("list_groups"), "(no group) — 13 open\n    ids: " + join(ids, ", ") + "\n\n" + kClosing);
}

TEST_F(BoardTest, ListGroupsShowsEachGroupWithItsOpenWork) {
    const auto checkout = seedGroup("checkout flow", "/work/shop");
    const auto design = seedGroup("design panel", "");
    const auto arabic = seedGroup("arabic mode");
    const auto bin = seedGroup("Empty bin");
    std::vector<Capture> checkoutOpen, designOpen;
    for (int i = 1; i <= 7; ++i) {
        checkoutOpen.push_back(seedIn(checkout.id, "Checkout bug " + std::to_string(i), i * kMinute,
                                      i == 3 ? CaptureStatus::inProgress : CaptureStatus::open));
    }
    seedIn(checkout.id, "Fixed", kHour, CaptureStatus::resolved);
    seedIn(checkout.id, "Shelved", kHour, CaptureStatus::archived);
    for (int i = 1; i <= 6; ++i) designOpen.push_back(seedIn(design.id, "Design bug " + std::to_string(i), i * kHour));
    seedIn(bin.id, "Old", kDay, CaptureStatus::archived);
    const auto loose = seedIn(std::nullopt, "Loose", kDay);
    (void)arabic;

    std::vector<std::string> lines = {"arabic mode — 0 open of 0"};
    const auto addOpen = [&](const std::vector<Capture>& open) {
        std::vector<std::string> ids;
        for (const auto& c : open) ids.push_back(idPrefix(c.id));
        lines.push_back("    ids: " + join(ids, ", "));
        for (std::size_t i = 0; i < std::min<std::size_t>(6, open.size()); ++i)
            lines.push_back("      [" + idPrefix(open[i].id) + "] " + open[i].title());
    };
    lines.push_back("checkout flow — 7 open of 9 · bound to /work/shop");
    addOpen(checkoutOpen);
    lines.push_back("      …and 1 more");
    lines.push_back("design panel — 6 open of 6");
    addOpen(designOpen);
    lines.push_back("Empty bin — 0 open of 1");
    lines.push_back("(no group) — 1 open");
    lines.push_back("    ids: " + idPrefix(loose.id));
    lines.push_back("");
    lines.push_back(kClosing);
    EXPECT_EQ(reply("list_groups"), join(lines, "\n"));
}

TEST_F(BoardTest, CaptureStatsCountsAndTallies) {
    EXPECT_EQ(reply("capture_stats"), "Open: 0   In progress: 0   Resolved: 0   Archived: 0");
    seedIn(std::nullopt, "Done", kHour, CaptureStatus::resolved);
    seedIn(std::nullopt, "Also done", kHour, CaptureStatus::resolved);
    EXPECT_EQ(reply("capture_stats"), "Open: 0   In progress: 0   Resolved: 2   Archived: 0");

    const struct {
        std::optional<std::string> app;
        double age;
        CaptureStatus status;
        CapturePriority priority;
    } open[] = {
        {"Editor", 1 * kHour, CaptureStatus::open, CapturePriority::high},
        {"Editor", 2 * kHour, CaptureStatus::open, CapturePriority::normal},
        {"Browser", 3 * kHour, CaptureStatus::inProgress, CapturePriority::low},
        {"Browser", 4 * kHour, CaptureStatus::open, CapturePriority::normal},
        {std::nullopt, 5.5 * kDay, CaptureStatus::open, CapturePriority::normal},
        {"", 6 * kHour, CaptureStatus::open, CapturePriority::normal},
        {"browser", 7 * kHour, CaptureStatus::open, CapturePriority::normal},
    };
    for (const auto& o : open) {
        auto capture = makeCapture("From " + o.app.value_or("?"), ago(o.age));
        capture.appName = o.app;
        capture.status = o.status;
        capture.priority = o.priority;
        seed(capture);
    }
    auto oldest = makeCapture("Oldest bug\nstill there", ago(12.5 * kDay));
    oldest.appName = "Zed";
    seed(oldest);
    auto shelved = makeCapture("Shelved", ago(40 * kDay));
    shelved.status = CaptureStatus::archived;
    shelved.appName = "Editor";
    seed(shelved);

    EXPECT_EQ(reply("capture_stats"),
              "Open: 7   In progress: 1   Resolved: 2   Archived: 1\n"
              "\n"
              "Open work by app: Browser (2), Editor (2),  (1), Zed (1), browser (1)\n"
              "Oldest still open: [" + idPrefix(oldest.id) + "] “Oldest bug” — 12d ago\n"
              "High priority open: 1");
}

TEST_F(BoardTest, CaptureStatsOldestTieKeepsTheFirstInQueryOrder) {
    const Date when = ago(3.5 * kDay);
    auto normal = makeCapture("Normal twin", when);
    seed(normal);
    auto high = makeCapture("High twin", when);
    high.priority = CapturePriority::high;
    seed(high);
    // High priority comes first in the store's order, so it is the one named.
    EXPECT_EQ(reply("capture_stats"),
              "Open: 2   In progress: 0   Resolved: 0   Archived: 0\n"
              "\n"
              "Open work by app: unknown (2)\n"
              "Oldest still open: [" + idPrefix(high.id) + "] “High twin” — 3d ago\n"
              "High priority open: 1");
    setColumn(db(), "captures", high.id, "priority", SQLValue("low"));
    const std::string text = reply("capture_stats");
    EXPECT_NE(text.find("[" + idPrefix(normal.id) + "] “Normal twin”"), std::string::npos) << text;
    EXPECT_EQ(text.find("High priority open"), std::string::npos);
}

}  // namespace
}  // namespace mirel::test
