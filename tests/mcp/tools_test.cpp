// The nine tools in process, on one board filed through the store with the
// clock pinned: each row is a call and the exact reply the agent reads.
#include "core/platform/text.h"
#include "core/store/capture_store.h"
#include "core/store/mirel_paths.h"
#include "mcp/tools/tool_registry.h"
#include "tests/support/image_files.h"
#include "tests/support/seed.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

// Records are built with designated initializers that name only what a case needs.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace mirel {
namespace {

constexpr Date kNow = 1717000000;  // 2024-05-29T16:26:40Z
constexpr double kMin = 60, kHour = 3600, kDay = 86400;

std::string idOf(const std::string& prefix) { return prefix + "-0000-4000-8000-000000000000"; }
const char* const kMark = R"({"shapes":[{"id":"s","tool":"arrow","colorHex":"#FF3B30","lineWidth":0.005,"points":[]}]})";

class ToolsTest : public ::testing::Test {
protected:
    void SetUp() override {
        Clock::pin(kNow);
        for (const auto& [id, name, path] : {std::tuple{"g-checkout", "checkout flow", "/work/shop"}, {"g-design", "design panel", ""},
                                             {"g-bin", "Empty bin", ""}})
            store.upsertGroup({.id = id, .name = name, .path = *path ? std::optional<std::string>(path) : std::nullopt});
        const auto a = file({.id = "aaaa0001", .createdAt = kNow - 5.5 * kMin, .note = "Save button overlaps the footer\nOnly on "
                             "narrow windows", .priority = CapturePriority::high, .groupID = "g-checkout", .appName = "Editor",
                             .appBundleID = "dev.editor", .windowTitle = " Checkout\n", .url = "https://shop.test/cart",
                             .claimedBy = "claude", .claimedAt = kNow - 4.5 * kMin});
        image(a, "a-1", 40, 30);
        image(a, "a-2", 60, 20, true);
        image(a, "a-3", 0, 0);  // its file is missing
        store.setTags({"UI", " css"}, a);
        store.addComment(test::makeComment(a, "Root cause: z-index", "claude", true, kNow - 4 * kMin));
        store.addComment(test::makeComment(a, "Still broken", "Ada", false, kNow - 3 * kMin));
        file({.id = "bbbb0002", .createdAt = kNow - 2.5 * kHour, .note = "Typed issue\nSteps:\n1. open\n2. click",
              .appName = "Editor"}, false);
        const auto c = file({.id = "cccc0003", .createdAt = kNow - 3.5 * kDay, .note = "Inbox jumps", .status = CaptureStatus::inProgress,
                             .groupID = "g-design", .appName = "Mail", .windowTitle = "MAIL", .url = ""});
        image(c, "c-1", 0, 0);
        store.addComment(test::makeComment(c, "only", "Ada", false, kNow - 3 * kDay));
        const auto d = file({.id = "dddd0004", .createdAt = kNow - 4 * kDay, .note = "Done one", .status = CaptureStatus::resolved,
                             .groupID = "g-checkout", .appName = "Editor", .claimedBy = "claude", .claimedAt = kNow - 2.5 * kDay,
                             .resolvedAt = kNow - 1.5 * kHour, .resolutionRef = "abc123"});
        store.recordActivity(d, "assigned", "bob", "you", "d-1", kNow - 2.5 * kDay, std::nullopt, false);
        store.recordActivity(d, "resolved", " abc123 ", "claude", "d-2", kNow - 1.5 * kHour, std::nullopt, true);
        file({.id = "eeee0005", .createdAt = kNow - 40 * kDay, .note = "Old one", .status = CaptureStatus::archived,
              .priority = CapturePriority::low, .groupID = "g-bin"});
        // A cover without image rows.
        const auto f = file({.id = "ffff0006", .createdAt = kNow - 10 * kDay, .imageBytes = 1000});
        write("2024/05/" + f + ".png", 1600, 800);
    }
    void TearDown() override { Clock::pin(std::nullopt); }

    // Files a capture as the app does, its "created" line at its time; gives the full id.
    std::string file(Capture c, bool withImage = true) {
        c.id = idOf(c.id), c.updatedAt = c.createdAt;
        if (withImage) c.imagePath = *(c.thumbPath = "2024/05/" + c.id + ".png"), c.imageWidth = 800, c.imageHeight = 600;
        if (withImage && !c.imageBytes) c.imageBytes = 12345;
        if (!withImage) c.captureMode = CaptureMode::text;
        Clock::pin(c.createdAt);
        store.insert(c);
        Clock::pin(kNow);
        return c.id;
    }
    // An image row with a quadrant picture of that size on disk (none for 0×0).
    void image(const std::string& captureID, const std::string& id, int width, int height, bool marked = false) {
        CaptureImage row = test::makeImage(captureID, -1);
        row.id = id, row.imagePath = "2024/05/" + id + ".png";
        if (marked) row.annotatedPath = "2024/05/" + id + "-marked.png", row.annotationJSON = kMark;
        if (width > 0) write(row.annotatedPath.value_or(row.imagePath), width, height);
        store.addImage(row);
    }
    // A quadrant picture of that size as a PNG.
    static void write(const std::string& relative, int width, int height) {
        MirelPaths::ensureParentDirectory(MirelPaths::imageURL(relative));
        test::writeImageFile(MirelPaths::imageURL(relative), width, height, test::ImageFileFormat::png);
    }

    ToolResult call(const std::string& tool, const std::string& arguments) {
        return tools.call(tool, Json::parse(arguments));
    }
    static std::string text(const ToolResult& result) {
        std::string out;
        for (const auto& block : result.content) out += block.value("text", "");
        return out;
    }
    // "{home}" stands for the library's folder.
    std::string expand(std::string text) const {
        for (std::size_t at; (at = text.find("{home}")) != std::string::npos;) text.replace(at, 6, library.home());
        return text;
    }
    // The bracketed ids a list reply names, or the whole reply when it names none.
    static std::string listed(const std::string& reply) {
        std::string ids;
        for (std::size_t at = 0; (at = reply.find("\n[", at)) != std::string::npos; at += 2) ids.append(reply, at + 2, 8) += ' ';
        return ids.empty() ? reply : ids.substr(0, ids.size() - 1);
    }

    test::TempLibrary library;
    CaptureStore store{library.databasePath()};
    ToolRegistry tools{store, "agent"};
};

TEST_F(ToolsTest, ListCapturesFiltersForgivinglyAndClampsTheLimit) {
    const char* const active = "aaaa0001 bbbb0002 cccc0003 ffff0006";
    const std::pair<const char*, const char*> rows[] = {
        {R"({})", active}, {R"({"status":["open","nonsense"]})", "aaaa0001 bbbb0002 ffff0006"}, {R"({"status":"archived"})", "eeee0005"},
        {R"({"status":["resolved","archived"]})", "dddd0004 eeee0005"}, {R"({"status":["resolved",3]})", active},
        {R"({"status":"OPEN","unknown":1})", active}, {R"({"limit":0})", "aaaa0001"}, {R"({"limit":-1e300})", "aaaa0001"},
        {R"({"limit":2.0})", "aaaa0001 bbbb0002"}, {R"({"limit":18446744073709551615})", active}, {R"({"group":""})", active},
        {R"({"group":"CHECKOUT flow","status":["open","resolved"]})", "aaaa0001 dddd0004"}, {R"({"tag":"Ui"})", "aaaa0001"},
        {R"({"tag":["ui"]})", active}, {R"({"priority":"low","status":"archived"})", "eeee0005"}, {R"({"priority":"LOW"})", active},
        {R"({"search":"inbox"})", "cccc0003"}, {R"({"search":"shop.test"})", "aaaa0001"}, {R"({"search":"Mail"})", "cccc0003"},
        {R"({"group":"nowhere","status":["archived","open","archived"]})",
         "No captures match (status: Archived / Open / Archived). The board is clear."},
        {R"({"group":"nowhere","status":7})", "No captures match (status: Open / In Progress). The board is clear."},
    };
    for (const auto& [arguments, expected] : rows) EXPECT_EQ(listed(text(call("list_captures", arguments))), expected) << arguments;
}

TEST_F(ToolsTest, RepliesOnTheBoard) {
    const std::tuple<const char*, const char*, std::string> replies[] = {
        {"list_captures", R"({})",
         "4 captures:\n\n[aaaa0001] OPEN !high Save button overlaps the footer\n"
         "    Editor · “Checkout” · https://shop.test/cart · group:checkout flow · tags:css,ui · claimed-by:claude · "
         "3 screenshots · 2 comments · 5m ago\n[bbbb0002] OPEN Typed issue\n    Editor · no screenshot · 2h ago\n"
         "[cccc0003] IN-PROGRESS Inbox jumps\n    Mail · group:design panel · 1 comment · 3d ago\n"
         "[ffff0006] OPEN Untitled capture\n    10d ago\n\nCall get_capture with an id to see the screenshot."},
        {"list_captures", R"({"status":"archived"})",
         "1 capture:\n\n[eeee0005] ARCHIVED Old one\n    group:Empty bin · 1mo ago\n\nCall get_capture with an id to see the screenshot."},
        {"get_capture", R"({"id":" aaaa ","include_image":false})",
         "Capture aaaa0001-0000-4000-8000-000000000000\nStatus: OPEN   Priority: High\n"
         "Captured: 2024-05-29T16:21:10Z (5m ago)\nMode: Region   3 screenshots (1 marked up)\n\n"
         "── Where it was seen ──\nApp: Editor (dev.editor)\nWindow: Checkout\nURL: https://shop.test/cart\n"
         "Group: checkout flow\nTags: css, ui\n\n── Note ──\nSave button overlaps the footer\nOnly on narrow windows\n\n"
         "Claimed by claude 4m ago\n\n── Comments (2) ──\n[4m ago] claude: Root cause: z-index\n[3m ago] Ada: Still broken\n\n"
         "── History ──\n[5m ago] captured by you (Region)\n\nLocal files:\n  1. {home}/captures/2024/05/a-1.png\n"
         "  2. {home}/captures/2024/05/a-2-marked.png  (annotated; original at a-2.png)\n  3. {home}/captures/2024/05/a-3.png"},
        {"get_capture", R"({"ids":["bbbb0002","dddd","nope","%"],"include_image":false})",
         "Capture bbbb0002-0000-4000-8000-000000000000\nStatus: OPEN   Priority: Normal\nCaptured: 2024-05-29T13:56:40Z (2h ago)\n"
         "Mode: Text only   No screenshot — this issue was typed, not captured. Go by the note.\n\n"
         "── Where it was seen ──\nApp: Editor\n\n── Note ──\nTyped issue\nSteps:\n1. open\n2. click\n\n"
         "── History ──\n[2h ago] filed by you without a screenshot\n"
         "Capture dddd0004-0000-4000-8000-000000000000\nStatus: RESOLVED   Priority: Normal\n"
         "Captured: 2024-05-25T16:26:40Z (4d ago)\nMode: Region   Image: 800×600px, 12 KB\n\n"
         "── Where it was seen ──\nApp: Editor\nGroup: checkout flow\n\n── Note ──\nDone one\n\n"
         "Claimed by claude 2d ago\nResolved 1h ago — abc123\n\n── History ──\n[4d ago] captured by you (Region)\n"
         "[2d ago] you assigned: bob\n[1h ago] claude resolved it — abc123\n\n"
         "Local file: {home}/captures/2024/05/dddd0004-0000-4000-8000-000000000000.png"
         "Could not resolve: nope, %. Call list_captures for current ids."},
        {"get_capture", R"({"ids":"ffff0006","id":"ffff0006","include_image":false})",
         "Capture ffff0006-0000-4000-8000-000000000000\nStatus: OPEN   Priority: Normal\n"
         "Captured: 2024-05-19T16:26:40Z (10d ago)\nMode: Region   Image: 800×600px, 1 KB\n\n"
         "── Where it was seen ──\nApp: unknown\n\n── Note ──\n(no note written)\n\n── History ──\n[10d ago] captured by you (Region)\n\n"
         "Local file: {home}/captures/2024/05/ffff0006-0000-4000-8000-000000000000.png"},
        {"get_capture", R"({"ids":["g","h","i"," ","j","k","l"]})",
         "Could not resolve: g, h, i, j, k, l. Call list_captures for current ids."},
        {"list_groups", R"({"ignored":1})",
         "checkout flow — 1 open of 2 · bound to /work/shop\n    ids: aaaa0001\n      [aaaa0001] Save button overlaps the footer\n"
         "design panel — 1 open of 1\n    ids: cccc0003\n      [cccc0003] Inbox jumps\nEmpty bin — 0 open of 1\n"
         "(no group) — 2 open\n    ids: bbbb0002, ffff0006\n\nPass those ids to get_capture to see the screenshots, or call "
         "list_captures with group: \"<name>\" for everything in one group."},
        {"capture_stats", R"({})",
         "Open: 3   In progress: 1   Resolved: 1   Archived: 1\n\nOpen work by app: Editor (2), Mail (1), unknown (1)\n"
         "Oldest still open: [ffff0006] “Untitled capture” — 10d ago\nHigh priority open: 1"},
    };
    for (const auto& [tool, arguments, expected] : replies) {
        const ToolResult result = call(tool, arguments);
        EXPECT_EQ(std::pair(text(result), result.isError), std::pair(expand(expected), false)) << tool << " " << arguments;
    }
    const auto noMatch = [](const std::string& id) {
        return "No capture matches id “" + id + "”. It may have been deleted, or the prefix may match more than one capture — "
                                                 "call list_captures to see current ids.";
    };
    const std::tuple<const char*, const char*, std::string> failures[] = {
        {"get_capture", R"({})", "Pass `id` (one capture) or `ids` (up to 6)."},
        {"get_capture", R"({"ids":[" ","\t"],"id":"aaaa0001"})", "Pass `id` (one capture) or `ids` (up to 6)."},
        {"get_capture", R"({"ids":["a","b","c","d","e","f","g"," "]})", "get_capture takes at most 6 ids at a time; you passed 7."},
        {"claim_capture", R"({"id":5})", "Missing required parameter `id`."}, {"resolve_capture", R"({"id":" zzz "})", noMatch("zzz")},
        {"update_capture", R"({"id":"%"})", noMatch("%")}, {"reopen_capture", R"({})", "Missing required parameter `id`."},
        {"comment_on_capture", R"({"id":"zzz"})", "Missing required parameter `body`."},
        {"comment_on_capture", R"({"id":"aaaa","body":" \n\t"})", "Missing required parameter `body`."},
        {"comment_on_capture", R"({"body":"hi"})", "Missing required parameter `id`."},
    };
    for (const auto& [tool, arguments, expected] : failures) {
        const ToolResult result = call(tool, arguments);
        EXPECT_EQ(std::pair(text(result), result.isError), std::pair(expected, true)) << tool << " " << arguments;
    }
}

TEST_F(ToolsTest, GetCaptureAttachesScreenshotsWithinABudgetOfEight) {
    const std::string ten = file({.id = "1111aaaa", .createdAt = kNow - kHour, .note = "Ten shots"});
    for (int i = 0; i < 10; ++i) image(ten, "t-" + std::to_string(i), i == 1 ? 0 : 8, 8);
    // Each block as one line: a text's first line, or "<image WxH>".
    const auto blocks = [&](const std::string& arguments) {
        std::vector<std::string> out;
        for (const auto& block : call("get_capture", arguments).content) {
            const std::string text = block.value("text", "");
            const auto picture = ImageCodec::decode(test::decodeBase64(block.value("data", "")));
            out.push_back(block["type"] == "text" ? expand(text.substr(0, text.find('\n')))
                          : picture ? "<image " + std::to_string(picture->width) + "x" + std::to_string(picture->height) + ">"
                                    : "<bad image>");
        }
        return out;
    };
    const std::string missing = "\u26A0\uFE0E A screenshot file is missing at {home}/captures/2024/05/";
    EXPECT_EQ(blocks(R"({"ids":["aaaa0001","cccc0003","ffff0006"],"include_image":"false"})"),
              (std::vector<std::string>{"Capture " + idOf("aaaa0001"), "Screenshot 1 of 3", "<image 40x30>",
                                        "Screenshot 2 of 3 — marked up by the user", "<image 60x20>", "Screenshot 3 of 3",
                                        expand(missing + "a-3.png."), "Capture " + idOf("cccc0003"),
                                        expand(missing + "c-1.png."), "Capture " + idOf("ffff0006"), "<image 1400x700>"}));
    // A failed file costs nothing from the budget; a cover without rows is not counted against it.
    std::vector<std::string> expected = {"Capture " + idOf("1111aaaa")};
    for (int i = 1; i <= 9; ++i)
        expected.insert(expected.end(), {"Screenshot " + std::to_string(i) + " of 10",
                                         i == 2 ? expand(missing + "t-1.png.") : "<image 8x8>"});
    expected.insert(expected.end(), {"(1 more screenshot(s) on this capture not attached — ask for this capture on its "
                                     "own to see them.)",
                                     "Capture " + idOf("ffff0006"), "<image 200x100>"});
    EXPECT_EQ(blocks(R"({"ids":["1111aaaa","ffff0006"],"max_image_edge":50})"), expected);
    for (const auto& [edge, size] : {std::pair{"2.5", "1400x700"}, {"\"900\"", "1400x700"}, {"1599", "1599x800"},
                                     {"5000", "1600x800"}})
        EXPECT_EQ(blocks(std::string(R"({"id":"ffff0006","max_image_edge":)") + edge + "}").back(),
                  std::string("<image ") + size + ">") << edge;
}

TEST_F(ToolsTest, AConversationOfWorkToolsAndWhatItLeaves) {
    const std::string b = " [bbbb0002] “Typed issue”", claimed = "Claimed" + b + " as ", inProgress = ". Status is now IN-PROGRESS.";
    const std::tuple<const char*, const char*, std::string> rows[] = {
        {"claim_capture", R"({"id":" bbbb "})", claimed + "agent" + inProgress},
        {"claim_capture", R"({"id":"bbbb0002","agent":" claude "})",
         "Heads up: agent already claimed this. Claiming for claude anyway.\n" + claimed + "claude" + inProgress},
        {"claim_capture", R"({"id":"bbbb0002","agent":"claude"})", claimed + "claude" + inProgress},
        {"comment_on_capture", R"({"id":"BBBB0002","body":" \n Root cause: z-index\n\t"})", "Comment added to" + b + " as agent."},
        {"resolve_capture", R"({"id":"bbbb0002","reference":" abc123 ","comment":"Fixed the footer","agent":"claude"})",
         "Resolved" + b + ". Reference:  abc123 "},
        {"reopen_capture", R"({"id":"bbbb0002","comment":" did not hold \n","agent":"qa"})", "Reopened" + b + ". Status is now OPEN."},
        {"resolve_capture", R"({"id":"bbbb0002","reference":"","comment":""})", "Resolved" + b + "."},
        {"update_capture", R"({"id":"bbbb0002","note":5,"priority":"urgent","status":"resolved","group":"","tags":"ui"})",
         "Nothing to change on [bbbb0002] — the values already match."},
        {"update_capture", R"({"tags":["ui","css"],"status":"in_progress","group":"checkout flow","priority":"high",)"
                           R"("note":"Typed issue\nFooter only","id":"bbbb0002","agent":"claude"})",
         "Updated [bbbb0002]: note, priority → High, group → checkout flow, status → In Progress, tags → ui, css."},
        {"update_capture", R"({"id":"bbbb0002","group":"New area","tags":[]})", "Updated [bbbb0002]: group → New area, tags → (none)."},
        {"claim_capture", R"({"id":"bbbb0002"})", claimed + "agent" + inProgress},
        {"comment_on_capture", R"({"id":"bbbb0002","body":"Thanks","agent":"qa"})", "Comment added to" + b + " as qa."},
    };
    int minute = 0;
    for (const auto& [tool, arguments, expected] : rows) {
        Clock::pin(kNow + ++minute * kMin);
        const ToolResult result = call(tool, arguments);
        EXPECT_EQ(std::pair(text(result), result.isError), std::pair(expected, false)) << tool << " " << arguments;
    }
    // Every comment a tool writes is marked as an agent's.
    for (const Comment& comment : store.comments(idOf("bbbb0002"))) EXPECT_TRUE(comment.isAgent) << comment.body;
    // The oldest of thirteen history lines has dropped out of view.
    Clock::pin(kNow + 13 * kMin);
    EXPECT_EQ(text(call("get_capture", R"({"id":"bbbb0002"})")),
              "Capture bbbb0002-0000-4000-8000-000000000000\nStatus: IN-PROGRESS   Priority: High\n"
              "Captured: 2024-05-29T13:56:40Z (2h ago)\n"
              "Mode: Text only   No screenshot — this issue was typed, not captured. Go by the note.\n\n"
              "── Where it was seen ──\nApp: Editor\nGroup: New area\n\n── Note ──\nTyped issue\nFooter only\n\n"
              "Claimed by agent 2m ago\n\n── Comments (4) ──\n[9m ago] agent: Root cause: z-index\n"
              "[8m ago] claude: Fixed the footer\n[7m ago] qa:  did not hold \n\n[1m ago] qa: Thanks\n\n"
              "── History ──\n[12m ago] agent claimed it\n[11m ago] claude claimed it\n[10m ago] claude claimed it\n"
              "[9m ago] agent commented\n[8m ago] claude resolved it — abc123\n"
              "[7m ago] qa changed status: Resolved → Open\n[6m ago] agent resolved it\n"
              "[4m ago] claude changed status: Resolved → In Progress\n"
              "[4m ago] claude updated note, priority → High, group → checkout flow, status → In Progress, tags → ui, css\n"
              "[3m ago] agent updated group → New area, tags → (none)\n[2m ago] agent claimed it\n[1m ago] qa commented\n");
}

TEST_F(ToolsTest, BoardSummariesCutLongLists) {
    std::vector<std::string> design, loose;
    for (int i = 0; i < 17; ++i) {
        const std::string id = file({.id = std::to_string(10000000 + i), .createdAt = kNow - (i + 1) * kMin,
                                     .note = "More " + std::to_string(i), .groupID = i < 6 ? std::optional<std::string>("g-design") : std::nullopt,
                                     .appName = "App" + std::to_string(6 - i % 7)});
        (i < 6 ? design : loose).push_back(id.substr(0, 8));
    }
    design.push_back("cccc0003");
    loose.push_back("bbbb0002");
    std::string designLines = "design panel — 7 open of 7\n    ids: " + join(design, ", ") + "\n";
    for (int i = 0; i < 6; ++i) designLines += "      [" + design[i] + "] More " + std::to_string(i) + "\n";
    const std::string groups = text(call("list_groups", "{}"));
    EXPECT_NE(groups.find(designLines + "      …and 1 more\nEmpty bin"), std::string::npos) << groups;
    EXPECT_NE(groups.find("(no group) — 13 open\n    ids: " + join(loose, ", ") + "\n\n"), std::string::npos) << groups;
    EXPECT_EQ(text(call("capture_stats", "{}")),
              "Open: 20   In progress: 1   Resolved: 1   Archived: 1\n\n"
              "Open work by app: App4 (3), App5 (3), App6 (3), App0 (2), App1 (2)\n"
              "Oldest still open: [ffff0006] “Untitled capture” — 10d ago\nHigh priority open: 1");
}

TEST_F(ToolsTest, AStoreFailureIsAFailedResultThatChangesNothing) {
    // The ledger cannot merge into malformed JSON: the write fails midway.
    Database(library.databasePath()).execute("UPDATE captures SET workspace_id = 'ws', pending = '{bad' WHERE id = ?;", {idOf("bbbb0002")});
    const ToolResult result = call("resolve_capture", R"({"id":"bbbb0002","reference":"abc"})");
    EXPECT_TRUE(result.isError);
    EXPECT_EQ(text(result).rfind("Mirel failed to run resolve_capture: ", 0), 0u) << text(result);
    const Capture after = *store.capture(idOf("bbbb0002"));
    EXPECT_EQ(std::tuple(after.status, after.resolutionRef, store.activity(after.id).size()), std::tuple(CaptureStatus::open, std::nullopt, 1u));
}

}  // namespace
}  // namespace mirel
