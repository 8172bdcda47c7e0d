// The `mirel` command line, driven as a child process against a temporary
// library and read back through the built mirel-mcp, as an agent would see it.
#include "core/annotation/annotation.h"
#include "core/platform/file_descriptor.h"
#include "core/platform/text.h"
#include "core/store/capture_store.h"
#include "core/store/mirel_paths.h"
#include "tests/support/image_files.h"
#include "tests/support/mcp_process.h"
#include "tests/support/store_access.h"
#include "tests/support/store_probe.h"
#include "tests/support/temp_library.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

namespace mirel::test {
namespace {

namespace fs = std::filesystem;

struct RunResult {
    int status = -1;
    std::string out;
    std::string err;
};

// What a failed `mirel add` must leave exactly as it was.
struct LibraryState {
    std::string changeStamp;
    std::set<std::string> files;  // under captures/ and thumbs/
    std::int64_t captures = 0, images = 0, groups = 0, tags = 0, activity = 0;
};

class CliTest : public ::testing::Test {
protected:
    CliTest() {
        std::string pattern = (fs::temp_directory_path() / "mirel-cli-XXXXXX").string();
        if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        scratch_ = pattern;
    }
    ~CliTest() override {
        std::error_code ignored;
        fs::remove_all(scratch_, ignored);
    }

    // Runs the built `mirel` with the library as MIREL_HOME, in the scratch
    // folder, with `input` (or nothing) on standard input.
    RunResult run(const std::vector<std::string>& arguments, const std::string& input = "") {
        const fs::path in = scratch_ / "stdin", out = scratch_ / "stdout", err = scratch_ / "stderr";
        writeBytes(in, input);
        std::vector<std::string> env = {"MIREL_HOME=" + library_.home().string(), "PATH=/usr/bin:/bin"};
        if (const char* home = std::getenv("HOME")) env.push_back(std::string("HOME=") + home);
        std::vector<std::string> argv = {MIREL_HOST_BINARY};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        std::vector<char*> argp, envp;
        for (auto& a : argv) argp.push_back(a.data());
        argp.push_back(nullptr);
        for (auto& e : env) envp.push_back(e.data());
        envp.push_back(nullptr);

        const pid_t pid = fork();
        if (pid == 0) {
            // Only async-signal-safe calls between fork and exec.
            const int i = open(in.c_str(), O_RDONLY), o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600),
                      e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            if (i < 0 || o < 0 || e < 0 || chdir(scratch_.c_str()) != 0) _exit(127);
            dup2(i, 0);
            dup2(o, 1);
            dup2(e, 2);
            execve(argp[0], argp.data(), envp.data());
            _exit(127);
        }
        RunResult result;
        int status = 0;
        if (pid > 0 && waitpid(pid, &status, 0) == pid) {
            result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        result.out = readBytes(out);
        result.err = readBytes(err);
        return result;
    }

    // Files a capture and gives its id, failing the test if that fails.
    std::string add(std::vector<std::string> arguments, const std::string& input = "") {
        arguments.insert(arguments.begin(), "add");
        const RunResult result = run(arguments, input);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.out.size(), 37u) << result.out;
        return trimWhitespaceAndNewlines(result.out);
    }

    fs::path image(const std::string& name, int width, int height, ImageFileFormat format = ImageFileFormat::png) {
        writeImageFile(scratch_ / name, width, height, format);
        return scratch_ / name;
    }

    LibraryState state() {
        CaptureStore store(library_.databasePath());
        LibraryState s;
        s.changeStamp = store.changeStamp();
        for (const char* tree : {"captures", "thumbs"}) {
            const fs::path root = library_.home() / tree;
            if (!fs::exists(root)) continue;
            for (const auto& entry : fs::recursive_directory_iterator(root)) {
                if (entry.is_regular_file()) s.files.insert(fs::relative(entry.path(), library_.home()).string());
            }
        }
        Database& db = CaptureStoreTestAccess::database(store);
        s.captures = countRows(db, "SELECT COUNT(*) FROM captures;");
        s.images = countRows(db, "SELECT COUNT(*) FROM capture_images;");
        s.groups = countRows(db, "SELECT COUNT(*) FROM groups;");
        s.tags = countRows(db, "SELECT COUNT(*) FROM capture_tags;");
        s.activity = countRows(db, "SELECT COUNT(*) FROM activity;");
        return s;
    }

    static void expectSame(const LibraryState& before, const LibraryState& after) {
        EXPECT_EQ(after.changeStamp, before.changeStamp);
        EXPECT_EQ(after.files, before.files);
        EXPECT_EQ(after.captures, before.captures);
        EXPECT_EQ(after.images, before.images);
        EXPECT_EQ(after.groups, before.groups);
        EXPECT_EQ(after.tags, before.tags);
        EXPECT_EQ(after.activity, before.activity);
    }

    TempLibrary library_;
    fs::path scratch_;
};

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::size_t start = 0;
    while (start <= text.size()) {
        const std::size_t end = text.find('\n', start);
        result.push_back(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
        if (end == std::string::npos) break;
        start = end + 1;
    }
    return result;
}

std::pair<std::uint32_t, std::uint32_t> pngSize(const std::vector<std::uint8_t>& bytes) {
    if (bytes.size() < 24) return {0, 0};
    auto be32 = [&](std::size_t at) {
        return std::uint32_t(bytes[at]) << 24 | std::uint32_t(bytes[at + 1]) << 16 | std::uint32_t(bytes[at + 2]) << 8 |
               std::uint32_t(bytes[at + 3]);
    };
    return {be32(16), be32(20)};
}

TEST_F(CliTest, CaptureWithTwoImagesAndAGroupReachesTheToolsAsFiled) {
    const fs::path first = image("first.png", 40, 30);
    const fs::path second = image("second.jpg", 64, 48, ImageFileFormat::jpeg);
    const std::string id = add({first.string(), second.string(), "--note", "Save button is clipped\nOn the settings page",
                                "--app", "Editor", "--bundle-id=com.example.editor", "--window", "Settings", "--url",
                                "https://example.com/settings", "--display", "DELL U2720Q", "--scale", "2", "--mode",
                                "window", "--group", "Checkout flow", "--tag", "UI", "--tag=css", "--priority", "high"});
    ASSERT_EQ(id.size(), 36u);

    // The originals are copied byte for byte under their real kind, with a
    // thumbnail each, in the order given.
    CaptureStore store(library_.databasePath());
    const auto images = store.images(id);
    ASSERT_EQ(images.size(), 2u);
    EXPECT_EQ(images[0].position, 0);
    EXPECT_EQ(images[1].position, 1);
    EXPECT_TRUE(images[0].imagePath.ends_with(images[0].id + ".png")) << images[0].imagePath;
    EXPECT_TRUE(images[1].imagePath.ends_with(images[1].id + ".jpg")) << images[1].imagePath;
    EXPECT_EQ(readBytes(images[0].originalURL()), readBytes(first));
    EXPECT_EQ(readBytes(images[1].originalURL()), readBytes(second));
    EXPECT_EQ(images[1].width, 64);
    EXPECT_EQ(images[1].height, 48);
    EXPECT_EQ(images[1].bytes, static_cast<std::int64_t>(fs::file_size(second)));
    for (const auto& row : images) {
        ASSERT_TRUE(row.thumbURL());
        EXPECT_TRUE(fs::is_regular_file(*row.thumbURL()));
    }

    McpProcess server(library_.home());
    const auto list = lines(McpProcess::text(server.callTool("list_captures")));
    ASSERT_GE(list.size(), 4u);
    EXPECT_EQ(list[0], "1 capture:");
    EXPECT_EQ(list[2], "[" + id.substr(0, 8) + "] OPEN !high Save button is clipped");
    EXPECT_TRUE(list[3].starts_with("    Editor · “Settings” · https://example.com/settings · group:Checkout flow · "
                                    "tags:css,ui · 2 screenshots · "))
        << list[3];

    const Json result = server.callTool("get_capture", {{"id", id.substr(0, 8)}});
    const std::string text = McpProcess::text(result);
    for (const std::string& expected :
         {"Capture " + id, std::string("Status: OPEN   Priority: High"), std::string("Mode: Window   2 screenshots"),
          std::string("App: Editor (com.example.editor)"), std::string("Window: Settings"),
          std::string("URL: https://example.com/settings"), std::string("Display: DELL U2720Q"),
          std::string("Group: Checkout flow"), std::string("Tags: css, ui"),
          std::string("── Note ──\nSave button is clipped\nOn the settings page\n"),
          std::string("captured by you (Window)")}) {
        EXPECT_NE(text.find(expected), std::string::npos) << "missing: " << expected << "\n" << text;
    }
    std::vector<std::pair<std::uint32_t, std::uint32_t>> sizes;
    for (const auto& block : result["content"]) {
        if (block["type"] == "image") sizes.push_back(pngSize(decodeBase64(block["data"].get<std::string>())));
    }
    EXPECT_EQ(sizes, (std::vector<std::pair<std::uint32_t, std::uint32_t>>{{40, 30}, {64, 48}}));
}

TEST_F(CliTest, TextOnlyNoteFromStandardInputAndShowByPrefix) {
    const std::string id = add({"--app", "Notes"}, "Rename “Workspace” to “Team”\nEverywhere in onboarding.\n\n");
    CaptureStore store(library_.databasePath());
    const auto capture = store.capture(id);
    ASSERT_TRUE(capture);
    EXPECT_EQ(capture->note, "Rename “Workspace” to “Team”\nEverywhere in onboarding.");
    EXPECT_EQ(capture->captureMode, CaptureMode::text);
    EXPECT_FALSE(capture->hasImage());

    const RunResult shown = run({"show", id.substr(0, 5)});
    EXPECT_EQ(shown.status, 0) << shown.err;
    EXPECT_TRUE(shown.out.starts_with("Capture " + id + "\n")) << shown.out;
    EXPECT_NE(shown.out.find("Mode: Text only   No screenshot"), std::string::npos) << shown.out;
    EXPECT_NE(shown.out.find("filed by you without a screenshot"), std::string::npos) << shown.out;

    const RunResult missing = run({"show", "ffffffff"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.out, "");
    EXPECT_NE(missing.err.find("no capture matches \"ffffffff\""), std::string::npos) << missing.err;
}

TEST_F(CliTest, AnnotationIsBurnedIntoAMarkedUpCopyOfTheFirstImage) {
    const fs::path shot = image("shot.png", 200, 100);
    const std::string shapes =
        R"({"shapes":[{"id":"a1","tool":"rectangle","colorHex":"#0A84FF","lineWidth":0.02,)"
        R"("points":[{"x":0.1,"y":0.1},{"x":0.9,"y":0.9}]}]})";
    writeBytes(scratch_ / "shapes.json", shapes);
    const std::string id = add({shot.string(), "--annotate", "shapes.json", "--note", "Marked"});

    CaptureStore store(library_.databasePath());
    const auto images = store.images(id);
    ASSERT_EQ(images.size(), 1u);
    ASSERT_TRUE(images[0].annotatedPath);
    EXPECT_TRUE(images[0].hasAnnotations());
    EXPECT_EQ(images[0].annotation(), Annotation::decode(shapes));
    EXPECT_EQ(readBytes(images[0].originalURL()), readBytes(shot));  // the original stays untouched
    const auto marked = ImageCodec::decode(readRegularFile(images[0].displayURL(), ImageCodec::maxFileBytes));
    ASSERT_TRUE(marked);
    EXPECT_EQ(marked->width, 200);
    // The rectangle's edge at 10% of the width is drawn in blue over the red quadrant.
    EXPECT_TRUE(near(colorAt(*marked, 20, 30), RGBA{10, 132, 255}, 40));
    EXPECT_EQ(store.capture(id)->imagePath, *images[0].annotatedPath);  // the list shows the marked-up file
}

// Each case starts from a library with one capture in it and must leave it
// exactly as it was: same change stamp, same files, same rows.
struct FailingAdd {
    const char* name;
    std::vector<std::string> arguments;
    int status;
    const char* message;
    const char* trigger = nullptr;  // SQL that makes a later write fail
};

void PrintTo(const FailingAdd& c, std::ostream* out) { *out << c.name; }

class FailingAddTest : public CliTest, public ::testing::WithParamInterface<FailingAdd> {};

TEST_P(FailingAddTest, LeavesTheLibraryUnchanged) {
    const FailingAdd& c = GetParam();
    image("good.png", 40, 30);
    image("other.webp", 50, 20, ImageFileFormat::webp);
    writeBytes(scratch_ / "notes.txt", "not an image at all");
    writeBytes(scratch_ / "cut.png", readBytes(scratch_ / "good.png").substr(0, 60));
    writeBytes(scratch_ / "bad.json", "{\"shapes\": [");
    add({"good.png", "--note", "Already here", "--group", "Existing", "--tag", "old"});
    if (c.trigger) {
        CaptureStore store(library_.databasePath());
        CaptureStoreTestAccess::database(store).executeRaw(c.trigger);
    }

    const LibraryState before = state();
    const RunResult result = run(c.arguments);
    EXPECT_EQ(result.status, c.status) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find(c.message), std::string::npos) << result.err;
    if (c.status == 2) {
        EXPECT_NE(result.err.find("usage: mirel add"), std::string::npos) << result.err;
    }
    expectSame(before, state());
}

INSTANTIATE_TEST_SUITE_P(
    Cli, FailingAddTest,
    ::testing::Values(
        FailingAdd{"SecondImageIsNoImage", {"add", "good.png", "notes.txt", "--group", "New"}, 1,
                   "notes.txt is not a PNG, JPEG or WebP image"},
        FailingAdd{"SecondImageMissing", {"add", "good.png", "gone.png"}, 1, "cannot read gone.png"},
        FailingAdd{"TruncatedImage", {"add", "other.webp", "cut.png"}, 1, "cut.png could not be decoded as PNG"},
        FailingAdd{"UnknownFlag", {"add", "good.png", "--colour", "red"}, 2, "unknown option --colour"},
        FailingAdd{"FlagWithoutValue", {"add", "good.png", "--tag"}, 2, "--tag needs a value"},
        FailingAdd{"BadPriority", {"add", "good.png", "--priority=urgent"}, 2, "--priority takes low, normal or high"},
        FailingAdd{"TextIsNoScreenshotMode", {"add", "good.png", "--mode", "text"}, 2, "--mode takes region"},
        FailingAdd{"BadScale", {"add", "good.png", "--scale", "-1"}, 2, "--scale takes a positive number"},
        FailingAdd{"TwoNoteSources", {"add", "--note", "a", "--note-file", "notes.txt"}, 2, "not both"},
        FailingAdd{"NothingToFile", {"add"}, 2, "nothing to file"},
        FailingAdd{"AnnotationWithoutImage", {"add", "--note", "x", "--annotate", "bad.json"}, 2, "no image was given"},
        FailingAdd{"AnnotationNotJSON", {"add", "good.png", "--annotate", "bad.json"}, 1, "bad.json is not valid JSON"},
        FailingAdd{"DatabaseFailsAfterTheRowIsIn",
                   {"add", "good.png", "other.webp", "--group", "Fresh", "--tag", "new"}, 1, "tags are frozen",
                   "CREATE TRIGGER no_tags BEFORE INSERT ON capture_tags BEGIN SELECT RAISE(ABORT, 'tags are frozen'); END;"},
        FailingAdd{"DatabaseFailsAtTheSecondImage",
                   {"add", "good.png", "other.webp", "--note", "two"}, 1, "one image only",
                   "CREATE TRIGGER one_image BEFORE INSERT ON capture_images WHEN NEW.position > 0 "
                   "BEGIN SELECT RAISE(ABORT, 'one image only'); END;"}),
    [](const ::testing::TestParamInfo<FailingAdd>& info) { return std::string(info.param.name); });

TEST_F(CliTest, ExitStatusesAndUsage) {
    struct Case {
        std::vector<std::string> arguments;
        int status;
        const char* outContains;  // "" for an empty standard output
        const char* errContains;  // "" for an empty standard error
    };
    const std::string home = library_.home().string();
    const std::vector<Case> cases = {
        {{}, 2, "", "usage: mirel COMMAND"},
        {{"--help"}, 0, "usage: mirel COMMAND", ""},
        {{"frobnicate"}, 2, "", "mirel: unknown command \"frobnicate\""},
        {{"add", "--help"}, 0, "usage: mirel add", ""},
        {{"list", "-h"}, 0, "usage: mirel list", ""},
        {{"list", "--bogus"}, 2, "", "usage: mirel list"},
        {{"list", "--limit=0"}, 2, "", "--limit takes a whole number from 1"},
        {{"list", "--status", "done"}, 2, "", "--status takes open, in_progress"},
        {{"list"}, 0, "No captures match (status: Open / In Progress).", ""},
        {{"show"}, 2, "", "usage: mirel show"},
        {{"demo", "extra"}, 2, "", "unexpected argument"},
        {{"path"}, 0, "", ""},
    };
    for (const Case& c : cases) {
        const RunResult result = run(c.arguments);
        const std::string shown = c.arguments.empty() ? "(none)" : join(c.arguments, " ");
        EXPECT_EQ(result.status, c.status) << shown << "\n" << result.err;
        if (*c.outContains) {
            EXPECT_NE(result.out.find(c.outContains), std::string::npos) << shown << ": " << result.out;
        }
        if (*c.errContains) {
            EXPECT_NE(result.err.find(c.errContains), std::string::npos) << shown << ": " << result.err;
        } else {
            EXPECT_EQ(result.err, "") << shown;
        }
    }
    EXPECT_EQ(run({"path"}).out, home + "\n" + (library_.home() / "mirel.sqlite").string() + "\n");
}

TEST_F(CliTest, DoubleDashEndsOptionsAndListFilters) {
    image("-dash.png", 30, 30);
    const std::string first = add({"--note=Dashed name", "--tag", "ui", "--", "-dash.png"});
    const std::string second = add({"--note", "Second", "--group", "Design"});
    ASSERT_EQ(run({"show", first}).status, 0);

    RunResult byTag = run({"list", "--tag", "UI"});
    EXPECT_EQ(byTag.status, 0);
    EXPECT_NE(byTag.out.find("[" + first.substr(0, 8) + "] OPEN Dashed name\n"), std::string::npos) << byTag.out;
    EXPECT_EQ(byTag.out.find(second.substr(0, 8)), std::string::npos) << byTag.out;

    // A group named in another case is the same group.
    add({"--note", "Third", "--group", "design"});
    CaptureStore store(library_.databasePath());
    EXPECT_EQ(store.groups().size(), 1u);
    const RunResult byGroup = run({"list", "--group", "DESIGN", "--limit", "5"});
    EXPECT_EQ(lines(byGroup.out).size(), 5u) << byGroup.out;  // two entries of two lines and the end
}

TEST_F(CliTest, DemoSeedsABoardAndCanRunTwice) {
    const RunResult once = run({"demo"});
    ASSERT_EQ(once.status, 0) << once.err;
    const RunResult twice = run({"demo"});
    ASSERT_EQ(twice.status, 0) << twice.err;

    CaptureStore store(library_.databasePath());
    EXPECT_EQ(store.groups().size(), 3u);  // the second run reuses them
    CaptureQuery all;
    all.statuses = CaptureStatuses::allCases;
    const auto captures = store.captures(all);
    ASSERT_EQ(captures.size() % 2, 0u);
    EXPECT_GE(captures.size() / 2, 10u);

    std::set<CaptureStatus> statuses;
    std::set<std::string> kinds;
    bool textOnly = false, several = false, marked = false, commented = false;
    const auto comments = store.commentCounts();
    for (const Capture& capture : captures) {
        statuses.insert(capture.status);
        textOnly |= capture.captureMode == CaptureMode::text;
        commented |= comments.count(capture.id) != 0;
        const auto images = store.images(capture.id);
        several |= images.size() > 1;
        for (const auto& row : images) {
            marked |= row.hasAnnotations() && fs::is_regular_file(row.displayURL());
            kinds.insert(fs::path(row.imagePath).extension().string());
            EXPECT_TRUE(fs::is_regular_file(row.originalURL())) << row.imagePath;
        }
    }
    EXPECT_EQ(statuses.size(), 4u);
    EXPECT_TRUE(textOnly);
    EXPECT_TRUE(several);
    EXPECT_TRUE(marked);
    EXPECT_TRUE(commented);
    EXPECT_GE(kinds.size(), 2u);

    McpProcess server(library_.home());
    EXPECT_NE(McpProcess::text(server.callTool("list_groups")).find("Checkout flow"), std::string::npos);
}

}  // namespace
}  // namespace mirel::test
