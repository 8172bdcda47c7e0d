// The change feed in pages, the live event stream, and a clean stop with
// streams open.
#include "tests/server/two_teams.h"

#include <gtest/gtest.h>

#include <set>

namespace mirel::test {
namespace {

class FeedAndEventsTest : public TwoTeamsTest {
protected:
    // One /v1/events stream, read by curl; it exits 0 only when the stream ends with its last chunk.
    std::unique_ptr<McpProcess> events(const std::string& token) {
        const std::vector<std::string> curl{"/usr/bin/curl", "-sSN", "--noproxy", "*", "-H", "Authorization: Bearer " + token,
                                            "-H", "Accept: text/event-stream", server.url() + "/v1/events"};
        return std::make_unique<McpProcess>(server.data(), std::map<std::string, std::string>{}, curl);
    }
    static Json newCaptures(const std::string& ws, int from, int count) {
        Json changes = Json::array();
        for (int i = from; i < from + count; ++i) {
            std::string id = "c";  // appended: g++ 12 warns falsely on "c" + a temporary
            id += std::to_string(i);
            changes.push_back({{"table", "captures"}, {"id", id}, {"base_version", 0},
                               {"patch", {{"workspace_id", ws}, {"note", "capture " + std::to_string(i)}}}});
        }
        return changes;
    }
};

TEST_F(FeedAndEventsTest, ChangesComeInPagesOf500EachApplicableOnItsOwn) {
    server.sync(ann, 0, newCaptures(acme, 0, 400));
    server.sync(ann, 0, newCaptures(acme, 400, 200));  // 600 captures and their 600 history lines
    // An edit moves c0 behind everything, but its first history line stays in front.
    server.sync(ann, 0, Json::array({{{"table", "captures"}, {"id", "c0"}, {"base_version", 1}, {"patch", {{"note", "edited"}}}}}));

    std::set<std::string> captures;
    std::vector<std::size_t> pages;
    std::int64_t cursor = 0;
    for (bool more = true; more;) {
        const Json page = server.sync(ann, cursor);
        pages.push_back(page["changes"].size());
        for (const auto& change : page["changes"]) {
            if (change["table"] == "captures") captures.insert(change["row"]["id"].get<std::string>());
        }
        for (const auto& change : page["changes"]) {
            if (change["table"] == "activity") {
                EXPECT_TRUE(captures.count(change["row"]["capture_id"])) << change;
            }
        }
        more = page["more"];
        cursor = page["cursor"];
        ASSERT_LT(pages.size(), 5u);
    }
    EXPECT_EQ(pages, (std::vector<std::size_t>{501, 500, 200})) << "c0 rides along with the first page, and comes again";
    EXPECT_EQ(server.sync(ann, cursor)["changes"].size(), 0u) << "a plain pull at the end is empty";

    EXPECT_EQ(server.sync(ann, 0, newCaptures(acme, 0, 501))["error"]["code"], "invalid_request");
}

TEST_F(FeedAndEventsTest, StreamsHearTheirOwnWorkspacesAndCloseCleanlyWhenTheServerStops) {
    const auto annStream = events(ann), bobStream = events(bob);
    ASSERT_NE(annStream->readUntil(": connected"), "");
    ASSERT_NE(bobStream->readUntil(": connected"), "");

    server.sync(ann, 0, newCaptures(acme, 0, 2));  // two events at once: both go out
    server.sync(bob, 0, newCaptures(server.workspaceID(bob, "bobs"), 100, 1));
    const std::string annHeard = annStream->readUntil("\"id\":\"c1\""), bobHeard = bobStream->readUntil("\"id\":\"c100\"");
    EXPECT_NE(annHeard.find("event: change\ndata: {\"cursor\":1,\"id\":\"c0\",\"table\":\"captures\""), std::string::npos)
        << annHeard;
    ASSERT_NE(bobHeard, "");
    EXPECT_EQ(bobHeard.find("\"c0\""), std::string::npos) << "Bob heard of Ann's workspace";

    EXPECT_EQ(server.stop(), 0);
    EXPECT_EQ(annStream->waitForExit(), 0) << annStream->standardError();
    EXPECT_EQ(bobStream->waitForExit(), 0) << bobStream->standardError();
}

}  // namespace
}  // namespace mirel::test
