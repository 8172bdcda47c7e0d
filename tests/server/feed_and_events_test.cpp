// The change feed in pages, the live event stream, and a clean stop with
// streams open.
#include "tests/server/two_teams.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

namespace mirel::test {
namespace {

// One /v1/events stream read on its own thread.
class EventStream {
public:
    EventStream(const ServerProcess& server, const std::string& token) : client_("127.0.0.1", server.port()) {
        client_.set_read_timeout(60);
        reader_ = std::thread([this, token] {
            auto result = client_.Get("/v1/events", {{"Authorization", "Bearer " + token}, {"Accept", "text/event-stream"}},
                                      [this](const char* data, std::size_t length) {
                                          std::lock_guard<std::mutex> guard(mutex_);
                                          text_.append(data, length);
                                          arrived_.notify_all();
                                          return true;
                                      });
            std::lock_guard<std::mutex> guard(mutex_);
            endedCleanly_ = result && result->status == 200;
            ended_ = true;
            arrived_.notify_all();
        });
    }
    ~EventStream() {
        client_.stop();
        reader_.join();
    }

    // True once the stream holds `text`.
    bool waitFor(const std::string& text, std::chrono::seconds timeout = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> lock(mutex_);
        return arrived_.wait_for(lock, timeout, [&] { return text_.find(text) != std::string::npos || ended_; }) &&
               text_.find(text) != std::string::npos;
    }
    bool waitForEnd(std::chrono::seconds timeout = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> lock(mutex_);
        return arrived_.wait_for(lock, timeout, [&] { return ended_; }) && endedCleanly_;
    }
    std::string text() {
        std::lock_guard<std::mutex> guard(mutex_);
        return text_;
    }

private:
    httplib::Client client_;
    std::thread reader_;
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::string text_;
    bool ended_ = false;
    bool endedCleanly_ = false;
};

class FeedAndEventsTest : public TwoTeamsTest {
protected:
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

    const Json tooMany = server.call("POST", "/v1/sync",
                                     Json{{"device_id", "desktop"}, {"cursor", 0}, {"changes", newCaptures(acme, 0, 501)}},
                                     ann).body;
    EXPECT_EQ(tooMany["error"]["code"], "invalid_request");
}

TEST_F(FeedAndEventsTest, StreamsHearTheirOwnWorkspacesAndCloseCleanlyWhenTheServerStops) {
    EventStream annStream(server, ann);
    EventStream bobStream(server, bob);
    ASSERT_TRUE(annStream.waitFor(": connected"));
    ASSERT_TRUE(bobStream.waitFor(": connected"));

    server.sync(ann, 0, newCaptures(acme, 0, 2));  // two events at once: both go out
    server.sync(bob, 0, newCaptures(server.workspaceID(bob, "bobs"), 100, 1));
    EXPECT_TRUE(annStream.waitFor("\"id\":\"c1\""));
    EXPECT_NE(annStream.text().find("event: change\ndata: {\"cursor\":1,\"id\":\"c0\",\"table\":\"captures\""), std::string::npos);
    ASSERT_TRUE(bobStream.waitFor("\"id\":\"c100\""));
    EXPECT_EQ(bobStream.text().find("\"c0\""), std::string::npos) << "Bob heard of Ann's workspace";

    EXPECT_EQ(server.stop(), 0);
    EXPECT_TRUE(annStream.waitForEnd()) << "the stream must end with its last chunk";
    EXPECT_TRUE(bobStream.waitForEnd());
}

}  // namespace
}  // namespace mirel::test
