// The four work tools and update_capture through the built server: their
// reply texts, and what they leave in the library.
#include "tests/e2e/tools_fixture.h"
#include "tests/support/store_probe.h"

namespace mirel::test {
namespace {

using Format::idPrefix;

const std::string kMissingID = "Missing required parameter `id`.";
const std::string kMissingBody = "Missing required parameter `body`.";

class WorkToolsTest : public ToolsTest {
protected:
    // Title "Save button overlaps", open, one minute old.
    Capture target() {
        if (!target_) target_ = seed("Save button overlaps\nmore detail", kMinute);
        return *target_;
    }
    std::string quoted() { return "[" + idPrefix(target().id) + "] “Save button overlaps”"; }
    Capture reread() { return store().capture(target().id).value(); }
    std::vector<std::string> historyKinds() {
        std::vector<std::string> kinds;
        for (const auto& event : store().activity(target().id)) kinds.push_back(event.kind + ":" + event.detail);
        return kinds;
    }
    void expectFailure(const std::string& tool, const Json& arguments, const std::string& message) {
        const Json result = call(tool, arguments);
        EXPECT_EQ(McpProcess::text(result), message) << tool << " " << arguments.dump();
        EXPECT_EQ(result["isError"], true) << tool << " " << arguments.dump();
    }

    std::optional<Capture> target_;
};

TEST_F(WorkToolsTest, IdsThatFindNothing) {
    seed("Another capture", 2 * kMinute);  // so a bare wildcard is ambiguous
    target();
    const std::string noMatch = "No capture matches id “{id}”. It may have been deleted, or the prefix may match "
                                "more than one capture — call list_captures to see current ids.";
    const auto noMatchFor = [&](const std::string& id) {
        std::string text = noMatch;
        return text.replace(text.find("{id}"), 4, id);
    };
    for (const char* tool : {"claim_capture", "resolve_capture", "reopen_capture", "update_capture"}) {
        for (const Json& id : {Json(), Json(""), Json(" \t "), Json(5), Json::array({"x"})})
            expectFailure(tool, id.is_null() ? Json::object() : Json{{"id", id}}, kMissingID);
        expectFailure(tool, {{"id", " zzz "}}, noMatchFor("zzz"));
        expectFailure(tool, {{"id", "%"}}, noMatchFor("%"));
        expectFailure(tool, {{"id", "________"}}, noMatchFor("________"));
    }
    // body is checked before id.
    expectFailure("comment_on_capture", Json::object(), kMissingBody);
    expectFailure("comment_on_capture", {{"id", target().id}, {"body", " \n\t\r\n"}}, kMissingBody);
    expectFailure("comment_on_capture", {{"id", target().id}, {"body", 5}}, kMissingBody);
    expectFailure("comment_on_capture", {{"body", "hi"}}, kMissingID);
    expectFailure("comment_on_capture", {{"body", "hi"}, {"id", "zzz"}}, noMatchFor("zzz"));
    // A soft-deleted capture is gone for the tools.
    setColumn(db(), "captures", target().id, "deleted_at", SQLValue(ago(1)));
    expectFailure("claim_capture", {{"id", target().id}}, noMatchFor(target().id));
    EXPECT_TRUE(store().comments(target().id).empty());
}

TEST_F(WorkToolsTest, ClaimGivesAHeadsUpOnlyToASecondClaimant) {
    const std::string claimed = "Claimed " + quoted() + " as {who}. Status is now IN-PROGRESS.";
    const auto as = [&](const std::string& who) {
        std::string text = claimed;
        return text.replace(text.find("{who}"), 5, who);
    };
    EXPECT_EQ(reply("claim_capture", {{"id", "  " + idPrefix(target().id) + " "}}), as("agent"));
    EXPECT_EQ(reply("claim_capture", {{"id", target().id}, {"agent", " \t"}}), as("agent"));
    EXPECT_EQ(reply("claim_capture", {{"id", target().id}, {"agent", " claude "}}),
              "Heads up: agent already claimed this. Claiming for claude anyway.\n" + as("claude"));
    EXPECT_EQ(reply("claim_capture", {{"id", target().id}, {"agent", "claude"}}), as("claude"));
    EXPECT_EQ(reply("claim_capture", {{"id", target().id}, {"agent", 7}}),
              "Heads up: claude already claimed this. Claiming for agent anyway.\n" + as("agent"));
    const auto now = reread();
    EXPECT_EQ(now.claimedBy, "agent");
    EXPECT_EQ(now.status, CaptureStatus::inProgress);
}

TEST_F(WorkToolsTest, TheDefaultAgentComesFromTheEnvironment) {
    serverEnv_["MIREL_AGENT"] = "  Claude Code\t";
    EXPECT_EQ(reply("claim_capture", {{"id", target().id}, {"agent", ""}}),
              "Claimed " + quoted() + " as Claude Code. Status is now IN-PROGRESS.");
}

TEST_F(WorkToolsTest, CommentsAreTrimmedAndGoToTheFullID) {
    EXPECT_EQ(reply("comment_on_capture", {{"id", idPrefix(target().id)}, {"body", " \n Root cause: z-index\n\t"}}),
              "Comment added to " + quoted() + " as agent.");
    EXPECT_EQ(reply("comment_on_capture", {{"id", target().id}, {"body", "Second"}, {"agent", "claude"}}),
              "Comment added to " + quoted() + " as claude.");
    const auto comments = store().comments(target().id);
    ASSERT_EQ(comments.size(), 2u);
    EXPECT_EQ(comments[0].body, "Root cause: z-index");
    EXPECT_EQ(comments[0].captureID, target().id);
    EXPECT_EQ(comments[0].author, "agent");
    EXPECT_TRUE(comments[0].isAgent);
    EXPECT_EQ(comments[0].kind, "comment");
    EXPECT_EQ(comments[0].id.size(), 36u);
    EXPECT_EQ(comments[1].author, "claude");
    EXPECT_EQ(historyKinds(), (std::vector<std::string>{"commented:", "commented:"}));
    EXPECT_EQ(reread().status, CaptureStatus::open);  // a comment changes no status
}

TEST_F(WorkToolsTest, ResolveWithAndWithoutReference) {
    EXPECT_EQ(reply("resolve_capture", {{"id", target().id}, {"reference", ""}, {"comment", "  "}}),
              "Resolved " + quoted() + ".");
    auto now = reread();
    EXPECT_EQ(now.status, CaptureStatus::resolved);
    EXPECT_EQ(now.resolutionRef, std::nullopt);
    // A comment of blanks is still a comment, stored as given.
    auto comments = store().comments(target().id);
    ASSERT_EQ(comments.size(), 1u);
    EXPECT_EQ(comments[0].body, "  ");
    EXPECT_TRUE(comments[0].isAgent);

    EXPECT_EQ(reply("resolve_capture", {{"id", target().id}, {"reference", " abc123 "}, {"comment", ""},
                                        {"agent", "claude"}}),
              "Resolved " + quoted() + ". Reference:  abc123 ");
    now = reread();
    EXPECT_EQ(now.resolutionRef, " abc123 ");
    EXPECT_EQ(store().comments(target().id).size(), 1u);
    EXPECT_EQ(reply("resolve_capture", {{"id", target().id}, {"reference", 42}}), "Resolved " + quoted() + ".");
    // Resolving writes no "commented" line of its own.
    for (const auto& kind : historyKinds()) EXPECT_EQ(kind.rfind("commented", 0), std::string::npos) << kind;
}

TEST_F(WorkToolsTest, ReopenStoresItsCommentAsGiven) {
    auto capture = target();
    capture.status = CaptureStatus::resolved;
    capture.resolvedAt = ago(10);
    store().update(capture);
    EXPECT_EQ(reply("reopen_capture", {{"id", capture.id}, {"comment", " did not hold \n"}, {"agent", "qa"}}),
              "Reopened " + quoted() + ". Status is now OPEN.");
    EXPECT_EQ(reread().status, CaptureStatus::open);
    const auto comments = store().comments(capture.id);
    ASSERT_EQ(comments.size(), 1u);
    EXPECT_EQ(comments[0].body, " did not hold \n");
    EXPECT_EQ(comments[0].author, "qa");
    // Reopening what is open is passed on like anything else.
    EXPECT_EQ(reply("reopen_capture", {{"id", capture.id}}), "Reopened " + quoted() + ". Status is now OPEN.");
}

// ---- update_capture ----

TEST_F(WorkToolsTest, UpdateWithNothingToChange) {
    const auto group = seedGroup("checkout flow");
    auto capture = target();
    capture.groupID = group.id;
    capture.priority = CapturePriority::high;
    store().update(capture);
    const std::string nothing = "Nothing to change on [" + idPrefix(capture.id) + "] — the values already match.";
    const Json cases[] = {
        {{"id", capture.id}},
        {{"id", capture.id}, {"note", capture.note}},
        {{"id", capture.id}, {"priority", "high"}},
        {{"id", capture.id}, {"priority", "urgent"}, {"status", "done"}},
        {{"id", capture.id}, {"status", "open"}},
        {{"id", capture.id}, {"group", "checkout flow"}},
        {{"id", capture.id}, {"group", ""}},
        {{"id", capture.id}, {"note", 5}, {"priority", 1}, {"status", true}, {"group", 7}},
        {{"id", capture.id}, {"tags", "ui"}},
        {{"id", capture.id}, {"tags", {"ui", 1}}},
        {{"id", capture.id}, {"unknown", "x"}},
    };
    for (const auto& arguments : cases) {
        const Json result = call("update_capture", arguments);
        EXPECT_EQ(McpProcess::text(result), nothing) << arguments.dump();
        EXPECT_EQ(result["isError"], false);
    }
    EXPECT_EQ(store().groups().size(), 1u);
    EXPECT_TRUE(historyKinds().empty());
}

TEST_F(WorkToolsTest, UpdateListsEveryChangeInItsOwnOrder) {
    seedTag(db(), target().id, "old");
    // Argument order is not the reply's order.
    EXPECT_EQ(reply("update_capture", {{"tags", {"ui", "css"}},
                                       {"status", "in_progress"},
                                       {"group", "checkout flow"},
                                       {"priority", "high"},
                                       {"note", "New note"},
                                       {"id", target().id},
                                       {"agent", "claude"}}),
              "Updated [" + idPrefix(target().id) +
                  "]: note, priority → High, group → checkout flow, status → In Progress, tags → ui, css.");
    const auto now = reread();
    EXPECT_EQ(now.note, "New note");
    EXPECT_EQ(now.priority, CapturePriority::high);
    EXPECT_EQ(now.status, CaptureStatus::inProgress);
    const auto group = store().groupNamed("checkout flow", std::nullopt);
    ASSERT_TRUE(group);
    EXPECT_EQ(now.groupID, group->id);
    EXPECT_EQ(group->colorHex, "#6E7BF2");
    EXPECT_EQ(group->visibility, GroupVisibility::private_);
    EXPECT_EQ(group->workspaceID, std::nullopt);
    EXPECT_EQ(group->path, std::nullopt);
    EXPECT_EQ(store().tags(target().id), (std::vector<std::string>{"css", "ui"}));
    // One "updated" line for all five, beside setStatus's own line.
    const auto events = store().activity(target().id);
    const auto updated = std::count_if(events.begin(), events.end(), [](const auto& e) { return e.kind == "updated"; });
    EXPECT_EQ(updated, 1);
    const auto it = std::find_if(events.begin(), events.end(), [](const auto& e) { return e.kind == "updated"; });
    ASSERT_NE(it, events.end());
    EXPECT_EQ(it->detail, "note, priority → High, group → checkout flow, status → In Progress, tags → ui, css");
    EXPECT_EQ(it->actor, "claude");
    EXPECT_FALSE(it->remote);
    EXPECT_NE(std::find_if(events.begin(), events.end(), [](const auto& e) { return e.kind == "status_changed"; }),
              events.end());
}

TEST_F(WorkToolsTest, UpdateTagsAlwaysCountAndNotesAreTakenAsGiven) {
    seedTag(db(), target().id, "ui");
    const std::string prefix = "Updated [" + idPrefix(target().id) + "]: ";
    EXPECT_EQ(reply("update_capture", {{"id", target().id}, {"tags", {"ui"}}}), prefix + "tags → ui.");
    EXPECT_EQ(reply("update_capture", {{"id", target().id}, {"tags", Json::array()}}), prefix + "tags → (none).");
    EXPECT_TRUE(store().tags(target().id).empty());
    EXPECT_EQ(reply("update_capture", {{"id", target().id}, {"note", "  spaced  "}}), prefix + "note.");
    EXPECT_EQ(reread().note, "  spaced  ");
    EXPECT_EQ(reply("update_capture", {{"id", target().id}, {"note", ""}}), prefix + "note.");
    EXPECT_EQ(reread().note, "");
    EXPECT_EQ(historyKinds().size(), 4u);
}

TEST_F(WorkToolsTest, UpdateStatusGoesThroughSetStatusWithoutReference) {
    const std::string prefix = "Updated [" + idPrefix(target().id) + "]: ";
    EXPECT_EQ(reply("update_capture", {{"id", target().id}, {"status", "resolved"}}), prefix + "status → Resolved.");
    const auto now = reread();
    EXPECT_EQ(now.status, CaptureStatus::resolved);
    EXPECT_EQ(now.resolutionRef, std::nullopt);
    // An existing group of the same name is reused, not duplicated.
    const auto existing = seedGroup("design panel");
    EXPECT_EQ(reply("update_capture", {{"id", target().id}, {"group", "design panel"}}), prefix + "group → design panel.");
    EXPECT_EQ(reread().groupID, existing.id);
    EXPECT_EQ(store().groups().size(), 1u);
}

}  // namespace
}  // namespace mirel::test
