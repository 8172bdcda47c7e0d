#pragma once
// The fixture of the tool tests: a temporary library seeded with plain SQL,
// real image files on disk, and the built mirel-mcp answering over its pipes.
// Ages in the replies come from the server's real clock, so captures are
// seeded in the middle of an age step ("5m ago" is 330 seconds back).
#include "core/platform/clock.h"
#include "core/platform/text.h"
#include "core/store/capture_store.h"
#include "core/store/mirel_paths.h"
#include "core/format/format.h"
#include "tests/support/image_files.h"
#include "tests/support/mcp_process.h"
#include "tests/support/seed.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <utility>

namespace mirel::test {

inline constexpr double kMinute = 60, kHour = 3600, kDay = 86400;

// Width and height from the IHDR chunk of a base64 PNG; {0, 0} if it is none.
inline std::pair<std::uint32_t, std::uint32_t> pngSize(const std::string& base64) {
    const auto bytes = decodeBase64(base64);
    static const std::uint8_t signature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    if (bytes.size() < 24 || !std::equal(signature, signature + 8, bytes.begin()) ||
        std::string(bytes.begin() + 12, bytes.begin() + 16) != "IHDR")
        return {0, 0};
    const auto be32 = [&](std::size_t at) {
        return std::uint32_t(bytes[at]) << 24 | std::uint32_t(bytes[at + 1]) << 16 |
               std::uint32_t(bytes[at + 2]) << 8 | std::uint32_t(bytes[at + 3]);
    };
    return {be32(16), be32(20)};
}

class ToolsTest : public ::testing::Test {
protected:
    ToolsTest() : store_(std::make_unique<CaptureStore>(library_.databasePath())) {}

    Database& db() { return store_->database(); }
    CaptureStore& store() { return *store_; }

    McpProcess& server() {
        if (!server_) server_ = std::make_unique<McpProcess>(library_.home(), serverEnv_);
        return *server_;
    }
    Json call(const std::string& name, const Json& arguments = Json::object()) {
        return server().callTool(name, arguments);
    }
    std::string reply(const std::string& name, const Json& arguments = Json::object()) {
        return McpProcess::text(call(name, arguments));
    }
    // The server's log after it has exited.
    std::string finishAndReadLog() {
        server().closeInput();
        EXPECT_EQ(server().waitForExit(), 0);
        return server().standardError();
    }

    static Date ago(double seconds) { return Clock::now() - seconds; }

    // A capture filed `age` seconds ago, inserted as it stands.
    Capture seed(const std::string& note, double age = 5.5 * kMinute, bool withImage = true) {
        auto capture = makeCapture(note, ago(age), withImage);
        seedCaptureRow(db(), capture);
        return capture;
    }
    Capture seed(Capture capture) {
        seedCaptureRow(db(), capture);
        return capture;
    }
    // An image row at `position` with a real quadrant file of the given size.
    CaptureImage seedImage(const Capture& capture, std::int64_t position, int width = 40, int height = 30,
                           ImageFileFormat format = ImageFileFormat::png) {
        auto image = makeImage(capture.id, position, capture.createdAt);
        image.width = width;
        image.height = height;
        writeFile(image.imagePath, width, height, format);
        seedImageRow(db(), image);
        return image;
    }
    // A marked-up image: the annotated file is the one that travels.
    CaptureImage seedMarkedImage(const Capture& capture, std::int64_t position, int width = 40, int height = 30) {
        auto image = makeImage(capture.id, position, capture.createdAt);
        image.annotatedPath = "2024/05/" + image.id + "-annotated.png";
        image.annotationJSON =
            R"({"shapes":[{"id":"a1","tool":"rectangle","colorHex":"#FF3B30","lineWidth":0.005,)"
            R"("points":[{"x":0.1,"y":0.1},{"x":0.5,"y":0.5}]}]})";
        writeFile(image.imagePath, width, height, ImageFileFormat::png);
        writeFile(*image.annotatedPath, width, height, ImageFileFormat::png);
        seedImageRow(db(), image);
        return image;
    }
    static void writeFile(const std::string& relative, int width, int height, ImageFileFormat format) {
        const auto path = MirelPaths::imageURL(relative);
        MirelPaths::ensureParentDirectory(path);
        writeImageFile(path, width, height, format);
    }
    CaptureGroup seedGroup(const std::string& name, const std::optional<std::string>& path = std::nullopt) {
        auto group = makeGroup(name);
        group.path = path;
        seedGroupRow(db(), group);
        return group;
    }

    TempLibrary library_;
    std::unique_ptr<CaptureStore> store_;
    std::map<std::string, std::string> serverEnv_;
    std::unique_ptr<McpProcess> server_;
};

}  // namespace mirel::test
