// resources/list and resources/read through the built server, with their
// JSON-RPC errors.
#include "tests/e2e/tools_fixture.h"

namespace mirel::test {
namespace {

using Format::idPrefix;

class ResourcesTest : public ToolsTest {
protected:
    Json read(const Json& uri) { return server().request("resources/read", {{"uri", uri}}); }
    static Json invalid(const std::string& message) { return Json{{"code", -32602}, {"message", message}}; }
};

TEST_F(ResourcesTest, ListOnAnEmptyLibrary) {
    EXPECT_EQ(server().request("resources/list")["result"], Json::parse(R"({"resources":[]})"));
}

TEST_F(ResourcesTest, ListEntriesHaveExactlyTheirFourKeys) {
    auto seen = makeCapture("Save button overlaps", ago(kMinute));
    seen.appName = "Editor";
    seen.windowTitle = "  editor ";  // raw: neither trimmed nor compared with the app
    seed(seen);
    auto bare = makeCapture("", ago(2 * kMinute), false);
    bare.status = CaptureStatus::inProgress;
    seed(bare);
    auto done = makeCapture("Done", ago(3 * kMinute));
    done.status = CaptureStatus::resolved;
    seed(done);

    EXPECT_EQ(server().request("resources/list", {{"cursor", "ignored"}})["result"],
              (Json{{"resources",
                     {{{"uri", "mirel://capture/" + seen.id},
                       {"name", "Save button overlaps"},
                       {"description", "Seen in Editor · “  editor ” · OPEN"},
                       {"mimeType", "image/png"}},
                      {{"uri", "mirel://capture/" + bare.id},
                       {"name", "Untitled issue"},
                       {"description", "IN-PROGRESS"},
                       {"mimeType", "text/plain"}}}}}));
}

TEST_F(ResourcesTest, ListStopsAtOneHundred) {
    std::vector<std::string> newest;
    for (int i = 0; i < 101; ++i) {
        const auto capture = seed("Capture " + std::to_string(i), (i + 1) * kMinute);
        if (i < 100) newest.push_back("mirel://capture/" + capture.id);
    }
    std::vector<std::string> listed;
    const Json reply = server().request("resources/list");
    for (const auto& entry : reply["result"]["resources"]) listed.push_back(entry["uri"]);
    EXPECT_EQ(listed, newest);
}

TEST_F(ResourcesTest, ReadGivesTheDetailAndTheUnmarkedCover) {
    auto capture = makeCapture("Clipped label", ago(5.5 * kMinute));
    capture.status = CaptureStatus::resolved;  // readable though not listed
    seed(capture);
    writeFile(capture.imagePath, 1600, 800, ImageFileFormat::png);
    seedMarkedImage(capture, 0);
    seedMarkedImage(capture, 1);
    const std::string detail =
        McpProcess::text(call("get_capture", {{"id", capture.id}, {"include_image", false}}));

    for (const std::string& uri : {"mirel://capture/" + capture.id, capture.id, idPrefix(capture.id),
                                  "mirel://capture/" + idPrefix(capture.id),
                                  "x-mirel://capture/mirel://capture/" + capture.id}) {
        const Json reply = read(uri);
        const Json& contents = reply["result"]["contents"];
        ASSERT_EQ(contents.size(), 2u) << uri << " " << reply.dump().substr(0, 300);
        EXPECT_EQ(contents[0], (Json{{"uri", uri}, {"mimeType", "text/plain"}, {"text", detail}}));
        EXPECT_EQ(contents[1].size(), 3u);
        EXPECT_EQ(contents[1]["uri"], uri);
        EXPECT_EQ(contents[1]["mimeType"], "image/png");
        EXPECT_EQ(pngSize(contents[1]["blob"]), (std::pair<std::uint32_t, std::uint32_t>{1400, 700}));
    }
}

TEST_F(ResourcesTest, ReadErrors) {
    const auto capture = seed("Here");
    const std::pair<Json, Json> cases[] = {
        {"mirel://capture/", invalid("Expected a mirel://capture/<id> uri.")},
        {"", invalid("Expected a mirel://capture/<id> uri.")},
        {"mirel://capture/mirel://capture/", invalid("Expected a mirel://capture/<id> uri.")},
        {5, invalid("Expected a mirel://capture/<id> uri.")},
        {nullptr, invalid("Expected a mirel://capture/<id> uri.")},
        {"mirel://capture/zzz", invalid("No capture at mirel://capture/zzz.")},
        {"mirel://capture/%", invalid("No capture at mirel://capture/%.")},
        {"mirel://capture/" + capture.id + "x", invalid("No capture at mirel://capture/" + capture.id + "x.")},
    };
    seed("There");  // so that "%" is ambiguous
    for (const auto& [uri, error] : cases) {
        const Json reply = read(uri);
        EXPECT_EQ(reply["error"], error) << uri.dump();
        EXPECT_FALSE(reply.contains("result"));
    }
    const Json noURI = server().request("resources/read", Json::object());
    EXPECT_EQ(noURI["error"], invalid("Expected a mirel://capture/<id> uri."));
}

TEST_F(ResourcesTest, TextOnlyAndMissingFilesGiveOneItem) {
    const auto typed = seed("Typed", kMinute, false);
    const auto gone = seed("File gone", kMinute);  // its cover file was never written
    for (const auto& capture : {typed, gone}) {
        const Json contents = read(capture.id)["result"]["contents"];
        ASSERT_EQ(contents.size(), 1u);
        EXPECT_EQ(contents[0]["mimeType"], "text/plain");
    }
    const std::string log = finishAndReadLog();
    const std::string line = "[mirel-mcp] could not read image at " + MirelPaths::imageURL(gone.imagePath).string() + "\n";
    EXPECT_NE(log.find(line), std::string::npos) << log;
    EXPECT_EQ(log.find("could not read image"), log.rfind("could not read image")) << log;
}

}  // namespace
}  // namespace mirel::test
