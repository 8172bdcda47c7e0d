// get_capture through the built server: argument errors, the detail text,
// real screenshots scaled and re-encoded as PNG, the budget of 8 images per
// call, files that are missing or bad, and ids that resolve to nothing.
#include "tests/e2e/tools_fixture.h"

#include <array>

namespace mirel::test {
namespace {

using Format::idPrefix;

const std::string kNoID = "Pass `id` (one capture) or `ids` (up to 6).";
const std::string kMore =
    " more screenshot(s) on this capture not attached — ask for this capture on its own to see them.)";

class GetCaptureTest : public ToolsTest {
protected:
    // Each block as one string: a text block's text, or "<image WxH>".
    std::vector<std::string> blocks(const Json& arguments) {
        const Json result = call("get_capture", arguments);
        EXPECT_EQ(result.value("isError", true), false) << result.dump().substr(0, 500);
        std::vector<std::string> out;
        for (const auto& block : result.value("content", Json::array())) {
            if (block.value("type", "") == "image") {
                EXPECT_EQ(block.size(), 3u);
                EXPECT_EQ(block.value("mimeType", ""), "image/png");
                const auto [w, h] = pngSize(block.value("data", ""));
                out.push_back("<image " + std::to_string(w) + "x" + std::to_string(h) + ">");
            } else {
                out.push_back(block.value("text", "<no text>"));
            }
        }
        return out;
    }
    // The blocks after the capture's detail text, or after several of them.
    std::vector<std::string> imageBlocks(const Json& arguments) {
        auto all = blocks(arguments);
        std::vector<std::string> rest;
        for (const auto& block : all)
            if (block.rfind("Capture ", 0) != 0) rest.push_back(block);
        return rest;
    }
    static std::string path(const std::string& relative) { return MirelPaths::imageURL(relative).string(); }
};

TEST_F(GetCaptureTest, ArgumentsThatNameNoCapture) {
    const auto capture = seed("Real");
    const std::string realID = capture.id;
    const std::pair<Json, std::string> failures[] = {
        {Json::object(), kNoID},
        {{{"id", "  \t "}}, kNoID},
        {{{"id", 5}}, kNoID},
        {{{"id", ""}}, kNoID},
        {{{"ids", Json::array()}, {"id", realID}}, kNoID},
        {{{"ids", {" ", "\t"}}, {"id", realID}}, kNoID},
        {{{"ids", {"a", "b", "c", "d", "e", "f", "g"}}}, "get_capture takes at most 6 ids at a time; you passed 7."},
        {{{"ids", {"a", "b", "c", "d", "e", "f", "g", "h", " i "}}, {"id", realID}},
         "get_capture takes at most 6 ids at a time; you passed 9."},
    };
    for (const auto& [arguments, message] : failures) {
        const Json result = call("get_capture", arguments);
        EXPECT_EQ(McpProcess::text(result), message) << arguments.dump();
        EXPECT_EQ(result["isError"], true);
        EXPECT_EQ(result["content"].size(), 1u);
    }
    // Seven entries of which one is blank leave six, and the call goes through.
    // (Letters past "f": no id can start with them.)
    EXPECT_EQ(blocks({{"ids", {"g", "h", "i", " ", "j", "k", "l"}}}),
              std::vector<std::string>{"Could not resolve: g, h, i, j, k, l. Call list_captures for current ids."});
    // A list with a non-text element counts as no list, so `id` is used.
    for (const Json& ids : {Json{"a", 1}, Json("abc"), Json(7)}) {
        const auto found = blocks({{"ids", ids}, {"id", " " + idPrefix(realID) + "\t"}, {"include_image", false}});
        ASSERT_EQ(found.size(), 1u) << ids.dump();
        EXPECT_EQ(found[0].substr(0, 8 + realID.size()), "Capture " + realID);
    }
}

TEST_F(GetCaptureTest, MissingIDsCloseTheReplyWithoutFailing) {
    const auto a = seed("First");
    seed("Second");  // makes a bare wildcard ambiguous
    const auto found = blocks({{"ids", {"nope", idPrefix(a.id), "%", "_"}}, {"include_image", false}});
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].substr(0, 8 + a.id.size()), "Capture " + a.id);
    EXPECT_EQ(found[1], "Could not resolve: nope, %, _. Call list_captures for current ids.");

    EXPECT_EQ(blocks({{"id", "zzzz"}}),
              std::vector<std::string>{"Could not resolve: zzzz. Call list_captures for current ids."});
}

TEST_F(GetCaptureTest, TextOnlyCaptureIsOneTextBlock) {
    auto capture = makeCapture("Typed, not captured\nSteps:\n1. open\n2. click", ago(5.5 * kMinute), false);
    capture.appName = "Editor";
    capture.appBundleID = "dev.editor";
    capture.windowTitle = "editor";
    seed(capture);
    seedTag(db(), capture.id, "ui");
    EXPECT_EQ(blocks({{"id", capture.id}}),
              std::vector<std::string>{
                  "Capture " + capture.id + "\n"
                  "Status: OPEN   Priority: Normal\n"
                  "Captured: " + Format::iso(capture.createdAt) + " (5m ago)\n"
                  "Mode: Text only   No screenshot — this issue was typed, not captured. Go by the note.\n"
                  "\n"
                  "── Where it was seen ──\n"
                  "App: Editor (dev.editor)\n"
                  "Tags: ui\n"
                  "\n"
                  "── Note ──\n"
                  "Typed, not captured\nSteps:\n1. open\n2. click\n"});
}

TEST_F(GetCaptureTest, OneImageHasNoScreenshotHeading) {
    auto capture = makeCapture("Clipped label", ago(2.5 * kHour));
    capture.status = CaptureStatus::resolved;
    capture.resolvedAt = ago(1.5 * kHour);
    capture.resolutionRef = "abc123";
    capture.claimedBy = "claude";
    capture.claimedAt = ago(2.2 * kHour);
    seed(capture);
    const auto image = seedImage(capture, 0, 120, 80);
    ActivityEvent event;
    event.id = newID();
    event.captureID = capture.id;
    event.kind = "resolved";
    event.detail = " abc123 ";
    event.actor = "claude";
    event.createdAt = ago(1.5 * kHour);
    seedActivity(db(), event);

    EXPECT_EQ(blocks({{"id", capture.id}}),
              (std::vector<std::string>{
                  "Capture " + capture.id + "\n"
                  "Status: RESOLVED   Priority: Normal\n"
                  "Captured: " + Format::iso(capture.createdAt) + " (2h ago)\n"
                  "Mode: Region   Image: 800×600px, 12 KB\n"
                  "\n"
                  "── Where it was seen ──\n"
                  "App: unknown\n"
                  "\n"
                  "── Note ──\n"
                  "Clipped label\n"
                  "\n"
                  "Claimed by claude 2h ago\n"
                  "Resolved 1h ago — abc123\n"
                  "\n"
                  "── History ──\n"
                  "[1h ago] claude resolved it — abc123\n"
                  "\n"
                  "Local files:\n"
                  "  1. " + path(image.imagePath),
                  "<image 120x80>"}));
}

TEST_F(GetCaptureTest, SeveralImagesWithMarksAcrossTwoCaptures) {
    const auto first = seed("Two shots");
    seedImage(first, 0);
    const auto marked = seedMarkedImage(first, 1, 60, 20);
    const auto second = seed("Cover only", 6 * kMinute);
    writeFile(second.imagePath, 30, 30, ImageFileFormat::png);

    const auto found = blocks({{"ids", {first.id, second.id}}});
    ASSERT_EQ(found.size(), 7u);
    EXPECT_NE(found[0].find("\nMode: Region   2 screenshots (1 marked up)\n"), std::string::npos) << found[0];
    EXPECT_NE(found[0].find("\n  2. " + path(*marked.annotatedPath) + "  (annotated; original at " +
                            std::filesystem::path(marked.imagePath).filename().string() + ")"),
              std::string::npos);
    EXPECT_EQ(std::vector<std::string>(found.begin() + 1, found.begin() + 5),
              (std::vector<std::string>{"Screenshot 1 of 2", "<image 40x30>",
                                        "Screenshot 2 of 2 — marked up by the user", "<image 60x20>"}));
    EXPECT_EQ(found[5].substr(0, 8 + second.id.size()), "Capture " + second.id);
    EXPECT_NE(found[5].find("\n\nLocal file: " + path(second.imagePath)), std::string::npos);
    EXPECT_EQ(found[6], "<image 30x30>");

    // Without images: the texts alone.
    const auto textOnly = blocks({{"ids", {first.id, second.id}}, {"include_image", false}});
    EXPECT_EQ(textOnly, (std::vector<std::string>{found[0], found[5]}));
    // A wrong-typed include_image means true.
    EXPECT_EQ(blocks({{"ids", {first.id, second.id}}, {"include_image", "false"}}), found);
}

TEST_F(GetCaptureTest, ScreenshotsAreScaledToTheLongestEdgeAndSentAsPNG) {
    const auto wide = seed("Wide");
    writeFile(wide.imagePath, 3000, 1500, ImageFileFormat::png);
    const auto medium = seed("Medium");  // for the argument cases: cheaper than the wide one
    writeFile(medium.imagePath, 1600, 800, ImageFileFormat::png);
    const auto strip = seed("Strip");
    writeFile(strip.imagePath, 4000, 1, ImageFileFormat::png);
    const auto jpeg = seed("Jpeg");  // named .png on purpose: the bytes decide
    writeFile(jpeg.imagePath, 300, 200, ImageFileFormat::jpeg);
    const auto webp = seed("Webp");
    writeFile(webp.imagePath, 4100, 10, ImageFileFormat::webp);

    const struct {
        const Capture& capture;
        Json edge;
        const char* expected;
    } cases[] = {
        {wide, 1500, "<image 1500x750>"},     {medium, nullptr, "<image 1400x700>"},
        {medium, 2.5, "<image 1400x700>"},    {medium, "900", "<image 1400x700>"},
        {medium, 50, "<image 200x100>"},      {medium, 1600, "<image 1600x800>"},
        {medium, 3000, "<image 1600x800>"},   {medium, 1599, "<image 1599x800>"},
        {strip, 200, "<image 200x1>"},     {jpeg, Json(), "<image 300x200>"}, {jpeg, 250, "<image 250x167>"},
        {webp, 9000, "<image 4000x10>"},
    };
    for (const auto& c : cases) {
        Json arguments = {{"id", c.capture.id}};
        if (!c.edge.is_null()) arguments["max_image_edge"] = c.edge;
        EXPECT_EQ(imageBlocks(arguments), std::vector<std::string>{c.expected}) << arguments.dump();
    }
}

TEST_F(GetCaptureTest, TheBudgetOfEightSpansTheWholeCall) {
    const auto ten = seed("Ten");
    for (int i = 0; i < 10; ++i) seedImage(ten, i);
    std::vector<std::string> expected;
    for (int i = 1; i <= 8; ++i) {
        expected.push_back("Screenshot " + std::to_string(i) + " of 10");
        expected.push_back("<image 40x30>");
    }
    expected.push_back("(2" + kMore);
    EXPECT_EQ(imageBlocks({{"id", ten.id}}), expected);

    const auto a = seed("Five A", 10 * kMinute);
    const auto b = seed("Five B", 11 * kMinute);
    for (int i = 0; i < 5; ++i) {
        seedImage(a, i);
        seedImage(b, i);
    }
    const auto late = seed("Late", 12 * kMinute);
    seedImage(late, 0);
    seedImage(late, 1);
    // A record without image rows has its cover attached whatever the budget.
    const auto cover = seed("Cover", 13 * kMinute);
    writeFile(cover.imagePath, 10, 10, ImageFileFormat::png);

    const auto found = blocks({{"ids", {a.id, b.id, late.id, cover.id}}});
    std::vector<std::string> shape;
    for (const auto& block : found) shape.push_back(block.rfind("Capture ", 0) == 0 ? "Capture" : block);
    std::vector<std::string> want = {"Capture"};
    for (int i = 1; i <= 5; ++i) want.insert(want.end(), {"Screenshot " + std::to_string(i) + " of 5", "<image 40x30>"});
    want.push_back("Capture");
    for (int i = 1; i <= 3; ++i) want.insert(want.end(), {"Screenshot " + std::to_string(i) + " of 5", "<image 40x30>"});
    want.insert(want.end(), {"(2" + kMore, "Capture", "(2" + kMore, "Capture", "<image 10x10>"});
    EXPECT_EQ(shape, want);
}

TEST_F(GetCaptureTest, MissingFilesWarnAndCostNothing) {
    const auto capture = seed("Nine rows, one gone");
    std::vector<CaptureImage> rows;
    for (int i = 0; i < 9; ++i) rows.push_back(seedImage(capture, i));
    std::filesystem::remove(MirelPaths::imageURL(rows[1].imagePath));

    const auto found = imageBlocks({{"id", capture.id}});
    ASSERT_EQ(found.size(), 18u);
    EXPECT_EQ(found[2], "Screenshot 2 of 9");
    EXPECT_EQ(found[3], "\u26A0\uFE0E A screenshot file is missing at " + path(rows[1].imagePath) + ".");
    EXPECT_EQ(found[16], "Screenshot 9 of 9");  // the failed row left room for the ninth
    EXPECT_EQ(found[17], "<image 40x30>");

    // A cover that has gone: no block at all, but the log says why.
    const auto cover = seed("Cover gone");
    EXPECT_EQ(imageBlocks({{"id", cover.id}}), std::vector<std::string>{});

    const std::string log = finishAndReadLog();
    const std::string line1 = "[mirel-mcp] could not read image at " + path(rows[1].imagePath) + "\n";
    const std::string line2 = "[mirel-mcp] could not read image at " + path(cover.imagePath) + "\n";
    EXPECT_NE(log.find(line1), std::string::npos) << log;
    EXPECT_EQ(log.find(line1), log.rfind(line1)) << "one log line per failed file";
    EXPECT_NE(log.find(line2), std::string::npos) << log;
}

// CRC-32 of PNG chunks, so a test can write a header that libpng believes.
std::uint32_t crc32(const std::string& bytes) {
    std::uint32_t crc = 0xFFFFFFFFu;
    for (unsigned char byte : bytes) {
        crc ^= byte;
        for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

std::string chunk(const std::string& type, const std::string& data) {
    const auto be32 = [](std::uint32_t v) {
        return std::string{char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
    };
    return be32(static_cast<std::uint32_t>(data.size())) + type + data + be32(crc32(type + data));
}

TEST_F(GetCaptureTest, BadImageFilesTakeTheWarningPath) {
    const std::string signature = "\x89PNG\r\n\x1a\n";
    // IHDR claiming 100000×100000 RGBA, then a scrap of deflate data.
    const std::string bomb = signature +
                             chunk("IHDR", std::string("\x00\x01\x86\xa0\x00\x01\x86\xa0\x08\x06\x00\x00\x00", 13)) +
                             chunk("IDAT", std::string("\x78\x9c\x63\x00\x00\x00\x01\x00\x01", 9)) + chunk("IEND", "");
    const auto goodPath = library_.home() / "good.png";
    writeImageFile(goodPath, 64, 64, ImageFileFormat::png);
    const std::string good = readBytes(goodPath);

    const std::pair<const char*, std::string> files[] = {
        {"empty", ""},
        {"text named .png", "this is not an image\n"},
        {"truncated PNG", good.substr(0, good.size() / 2)},
        {"signature only", signature},
        {"decompression bomb", bomb},
    };
    const auto capture = seed("Bad files");
    std::vector<CaptureImage> rows;
    for (std::size_t i = 0; i < std::size(files); ++i) {
        auto image = makeImage(capture.id, static_cast<std::int64_t>(i));
        const auto file = MirelPaths::imageURL(image.imagePath);
        MirelPaths::ensureParentDirectory(file);
        writeBytes(file, files[i].second);
        seedImageRow(db(), image);
        rows.push_back(image);
    }
    const auto found = imageBlocks({{"id", capture.id}});
    ASSERT_EQ(found.size(), 2 * std::size(files));
    for (std::size_t i = 0; i < std::size(files); ++i)
        EXPECT_EQ(found[2 * i + 1], "\u26A0\uFE0E A screenshot file is missing at " + path(rows[i].imagePath) + ".")
            << files[i].first;
    // The server is still there and answers.
    EXPECT_EQ(server().request("ping")["result"], Json::object());
}

}  // namespace
}  // namespace mirel::test
