// The `mirel` command line as a child process on a temporary library: what
// it files, what it lists and shows, and failures that change nothing.
#include "core/platform/file_descriptor.h"
#include "core/platform/text.h"
#include "core/store/capture_store.h"
#include "core/store/mirel_paths.h"
#include "tests/support/image_files.h"
#include "tests/e2e/run_mirel.h"
#include "tests/support/temp_library.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

namespace mirel::test {
namespace {

namespace fs = std::filesystem;

class CliTest : public ::testing::Test {
protected:
    Ran run(const std::vector<std::string>& arguments, const std::string& input = "") { return runMirel(library.home(), arguments, input); }
    // Files a capture and gives its id.
    std::string add(std::vector<std::string> arguments, const std::string& input = "") {
        arguments.insert(arguments.begin(), "add");
        const Ran result = run(arguments, input);
        EXPECT_EQ(result.status, 0) << result.err;
        return trimWhitespaceAndNewlines(result.out);
    }
    std::string image(const std::string& name, int width, int height, ImageFileFormat format = ImageFileFormat::png) {
        writeImageFile(library.home() / name, width, height, format);
        return (library.home() / name).string();
    }
    // The change stamp, the rows of each table and the files of the library.
    std::string state() {
        std::string out = CaptureStore(library.databasePath()).changeStamp();
        Database db(library.databasePath());
        for (const char* table : {"captures", "capture_images", "groups", "capture_tags", "activity"})
            out.append(" ").append(std::to_string(*db.query(std::string("SELECT COUNT(*) AS n FROM ") + table).at(0).intValue("n")));
        for (const auto& entry : fs::recursive_directory_iterator(library.home()))
            if (entry.is_regular_file() && entry.path().parent_path() != library.home()) out.append(" ").append(entry.path().filename());
        return out;
    }
    TempLibrary library;
};

TEST_F(CliTest, FilesImagesAndNoteAndShowsThemAsTheAgentWould) {
    const std::string first = image("first.png", 40, 30), second = image("second.jpg", 64, 48, ImageFileFormat::jpeg);
    const std::string id = add({first, second, "--note", "Save button is clipped\nOn the settings page", "--app", "Editor",
                                "--bundle-id=com.example.editor", "--window", "Settings", "--url", "https://example.com/s",
                                "--display", "DELL U2720Q", "--scale", "2", "--mode", "window", "--group", "Checkout flow",
                                "--tag", "UI", "--tag=css", "--priority", "high"});
    const auto images = CaptureStore(library.databasePath()).images(id);
    ASSERT_EQ(images.size(), 2u);
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(readBytes(images[i].originalURL()), readBytes(i ? second : first));  // copied as they are
        EXPECT_EQ(fs::path(images[i].imagePath).extension(), i ? ".jpg" : ".png");
        EXPECT_TRUE(fs::is_regular_file(images[i].thumbURL().value()));
    }
    EXPECT_EQ(std::to_string(images[1].position) + " " + std::to_string(images[1].width) + "x" + std::to_string(images[1].height),
              "1 64x48");
    const Ran shown = run({"show", id.substr(0, 5)});
    for (const std::string& line : std::vector<std::string>{"Capture " + id + "\nStatus: OPEN   Priority: High", "Mode: Window   2 screenshots",
                                                           "App: Editor (com.example.editor)\nWindow: Settings\nURL: https://example.com/s\n"
                                                           "Display: DELL U2720Q\nGroup: Checkout flow\nTags: css, ui\n\n── Note ──\n"
                                                           "Save button is clipped\nOn the settings page\n", "captured by you (Window)"})
        EXPECT_NE(shown.out.find(line), std::string::npos) << line << "\n" << shown.out;
    const std::string entry = std::string("[") + id.substr(0, 8) + "] OPEN !high Save button is clipped\n    Editor · “Settings” · "
                              "https://example.com/s · group:Checkout flow · tags:css,ui · 2 screenshots · ";
    EXPECT_EQ(run({"list", "--tag", "ui"}).out.substr(0, entry.size()), entry);

    const std::string typed = add({"--app", "Notes"}, "Rename “Workspace”\nEverywhere.\n\n");
    const Ran text = run({"show", typed, "ffffffff"});
    EXPECT_EQ(text.status, 1);
    EXPECT_NE(text.out.find("── Note ──\nRename “Workspace”\nEverywhere.\n"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("filed by you without a screenshot"), std::string::npos) << text.out;
    EXPECT_EQ(text.err, "mirel show: no capture matches \"ffffffff\" (unknown, or the beginning of more than one id)\n");
}

TEST_F(CliTest, ListFiltersByStatusGroupTagAndLimit) {
    add({"--note", "Open one", "--group", "Design"});
    const std::string b = add({"--note", "Done one", "--tag", "ui"});
    add({"--note", "Other", "--group", "design"});
    CaptureStore(library.databasePath()).resolve(b, std::nullopt, "you");
    const std::pair<std::vector<std::string>, std::string> rows[] = {
        {{"list"}, "Other,Open one"}, {{"list", "--status", "resolved"}, "Done one"}, {{"list", "--status=all"}, "Other,Done one,Open one"},
        {{"list", "--status", "open", "--status", "resolved", "--limit", "2"}, "Other,Done one"},
        {{"list", "--group", "DESIGN", "--limit=1"}, "Other"}, {{"list", "--tag", "UI", "--status", "all"}, "Done one"},
        {{"list", "--search", "nothing"}, "No captures match (status: Open / In Progress)."},
    };
    for (const auto& [arguments, titles] : rows) {
        const Ran result = run(arguments);
        std::vector<std::string> found;
        for (std::size_t at = 0; (at = result.out.find("] ", at)) != std::string::npos; at += 2) {
            const std::size_t title = result.out.find(' ', at + 2) + 1;
            found.push_back(result.out.substr(title, result.out.find('\n', title) - title));
        }
        EXPECT_EQ(found.empty() ? trimWhitespaceAndNewlines(result.out) : join(found, ","), titles) << join(arguments, " ");
    }
    EXPECT_EQ(CaptureStore(library.databasePath()).groups().size(), 1u);  // "design" is the group "Design"
}

TEST_F(CliTest, AnAnnotationIsBurnedIntoAMarkedCopyOfTheFirstImage) {
    const std::string shot = image("shot.png", 200, 100);
    writeBytes(library.home() / "shapes.json", R"({"shapes":[{"id":"a1","tool":"rectangle","colorHex":"#0A84FF",)"
                                               R"("lineWidth":0.02,"points":[{"x":0.1,"y":0.1},{"x":0.9,"y":0.9}]}]})");
    const std::string id = add({shot, "--annotate", (library.home() / "shapes.json").string(), "--note", "Marked"});
    CaptureStore store(library.databasePath());
    const auto row = store.images(id).at(0);
    EXPECT_TRUE(row.hasAnnotations());
    EXPECT_EQ(readBytes(row.originalURL()), readBytes(shot));
    EXPECT_EQ(store.capture(id)->imagePath, row.annotatedPath);  // lists show the marked copy
    const auto marked = ImageCodec::decode(readRegularFile(row.displayURL(), ImageCodec::maxFileBytes));
    ASSERT_TRUE(marked);
    EXPECT_TRUE(near(colorAt(*marked, 20, 30), RGBA{10, 132, 255}, 40));  // the box's left edge, over the red quadrant
}

TEST_F(CliTest, AFailedAddLeavesTheLibraryAsItWas) {
    const std::string good = image("good.png", 40, 30), webp = image("other.webp", 50, 20, ImageFileFormat::webp);
    writeBytes(library.home() / "notes.txt", "not an image at all");
    writeBytes(library.home() / "cut.png", readBytes(good).substr(0, 60));
    writeBytes(library.home() / "bad.json", "{\"shapes\": [");
    ASSERT_EQ(mkfifo((library.home() / "pipe.png").c_str(), 0600), 0);  // opening it must not wait for a writer
    add({good, "--note", "Already here", "--group", "Existing", "--tag", "old"});
    const auto in = [&](const char* name) { return (library.home() / name).string(); };
    const std::tuple<std::vector<std::string>, int, std::string, const char*> rows[] = {  // arguments, status, error, trigger
        {{good, in("notes.txt"), "--group", "New"}, 1, "notes.txt is not a PNG, JPEG or WebP image", nullptr},
        {{good, in("gone.png")}, 1, "cannot read " + in("gone.png"), nullptr},
        {{webp, in("cut.png")}, 1, "cut.png could not be decoded as PNG", nullptr},
        {{good, "--colour", "red"}, 2, "unknown option --colour", nullptr}, {{good, "--tag"}, 2, "--tag needs a value", nullptr},
        {{good, "--priority=urgent"}, 2, "--priority takes low, normal or high", nullptr},
        {{good, "--mode", "text"}, 2, "--mode takes region", nullptr}, {{good, "--scale", "-1"}, 2, "--scale takes a positive", nullptr},
        {{"--note", "a", "--note-file", in("notes.txt")}, 2, "not both", nullptr}, {{}, 2, "nothing to file", nullptr},
        {{good, "--scale", "nan"}, 2, "--scale takes a positive", nullptr},
        {{good, "--annotate", in("bad.json")}, 1, "bad.json is not valid JSON", nullptr},
        {{in("pipe.png")}, 1, "pipe.png is not a regular file", nullptr}, {{"/dev/zero"}, 1, "/dev/zero is not a regular file", nullptr},
        {{"--note-file", "/dev/zero"}, 1, "note file: /dev/zero is not a regular", nullptr},
        {{"--note-file", in("pipe.png")}, 1, "pipe.png is not a regular file", nullptr},
        {{good, webp, "--group", "Fresh", "--tag", "new"}, 1, "tags are frozen",
         "CREATE TRIGGER no_tags BEFORE INSERT ON capture_tags BEGIN SELECT RAISE(ABORT, 'tags are frozen'); END;"},
        {{good, webp}, 1, "one image only", "CREATE TRIGGER one_image BEFORE INSERT ON capture_images WHEN NEW.position > 0 "
                                           "BEGIN SELECT RAISE(ABORT, 'one image only'); END;"},
    };
    for (auto [arguments, status, message, trigger] : rows) {
        if (trigger) Database(library.databasePath()).executeRaw(trigger);
        const std::string before = state();
        arguments.insert(arguments.begin(), "add");
        const Ran result = run(arguments);
        EXPECT_EQ(result.status, status) << message << "\n" << result.err;
        EXPECT_EQ(result.out, "") << message;
        EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
        EXPECT_EQ(result.err.find("usage: mirel add") != std::string::npos, status == 2) << message;
        EXPECT_EQ(state(), before) << message;
    }
    // A file where the thumbnails' folder goes: the original, placed just before, is taken away again.
    fs::remove_all(MirelPaths::thumbsRoot()), writeBytes(MirelPaths::thumbsRoot(), "not a folder");
    const std::string before = state();
    EXPECT_EQ(run({"add", good}).status, 1);
    EXPECT_EQ(state(), before);
}

TEST_F(CliTest, ExitStatusesUsageAndTheDemoBoard) {
    const std::tuple<std::vector<std::string>, int, const char*, const char*> rows[] = {  // arguments, status, output, error
        {{}, 2, "", "usage: mirel COMMAND"}, {{"--help"}, 0, "usage: mirel COMMAND", ""},
        {{"frobnicate"}, 2, "", "mirel: unknown command \"frobnicate\""}, {{"add", "--help"}, 0, "usage: mirel add", ""},
        {{"list", "-h"}, 0, "usage: mirel list", ""}, {{"list", "--limit=0"}, 2, "", "--limit takes a whole number from 1"},
        {{"list", "--status", "done"}, 2, "", "--status takes open, in_progress"}, {{"list", "x"}, 2, "", "unexpected argument"},
        {{"show"}, 2, "", "usage: mirel show"}, {{"demo", "extra"}, 2, "", "unexpected argument"},
        {{"sync", "--help"}, 0, "usage: mirel sync", ""}, {{"path"}, 0, "/mirel.sqlite\n", ""},
        {{"demo"}, 0, "", ""}, {{"demo"}, 0, "", ""},
    };
    for (const auto& [arguments, status, out, err] : rows) {
        const Ran result = run(arguments);
        EXPECT_EQ(result.status, status) << join(arguments, " ") << "\n" << result.err;
        EXPECT_NE(result.out.find(out), std::string::npos) << join(arguments, " ") << ": " << result.out;
        EXPECT_TRUE(*err ? result.err.find(err) != std::string::npos : result.err.empty()) << join(arguments, " ") << ": " << result.err;
        EXPECT_FALSE(result.err.ends_with("\n\n")) << join(arguments, " ") << ": usage ends in a blank line";
    }
    // Two demo runs: the second reuses the groups and files every capture again.
    Database db(library.databasePath());
    const auto count = [&](const std::string& table, const std::string& what = "*") {
        return *db.query("SELECT COUNT(" + what + ") AS n FROM " + table).at(0).intValue("n");
    };
    EXPECT_EQ(count("groups") * 100 + count("captures", "DISTINCT status"), 304);
    EXPECT_GE(count("captures"), 20);
    EXPECT_GT(count("comments"), 0);
}

}  // namespace
}  // namespace mirel::test
