// Where the library lies: the environment read at each use, the fallbacks of
// the home folder, and a former product's library carried into place.
#include "core/store/capture_store.h"
#include "core/store/mirel_paths.h"
#include "tests/support/scoped_env.h"
#include "tests/support/image_files.h"
#include "tests/support/seed.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

#include <cmath>
#include <ctime>
#include <fstream>

namespace fs = std::filesystem;

namespace mirel {
namespace {

// A private HOME and XDG_DATA_HOME with MIREL_HOME unset, so the default
// library lies in data/Mirel.
class PathsTest : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(root / "home");
        env.set("HOME", (root / "home").string());
        env.set("XDG_DATA_HOME", (root / "data").string());
        env.unset("MIREL_HOME");
    }
    test::TempLibrary scratch;
    const fs::path root = scratch.home();
    test::ScopedEnv env;
};

TEST_F(PathsTest, TheLibraryFollowsTheEnvironmentAtEachUse) {
    const fs::path cwd = fs::current_path(), home = root / "home";
    const std::pair<std::string, fs::path> rows[] = {
        {"/srv/library", "/srv/library"}, {"~/lib", home / "lib"}, {"~", home}, {"~root/lib", "/root/lib"}, {"  lib", cwd / "  lib"},
        {"~nosuchuser-mirel/lib", cwd / "~nosuchuser-mirel/lib"}, {"relative/lib", cwd / "relative/lib"}, {"\n", cwd / "\n"},
        {" \t\u00A0\u3000", root / "data/Mirel"}, {"", root / "data/Mirel"},
    };
    for (const auto& [value, expected] : rows) {
        env.set("MIREL_HOME", value);
        EXPECT_EQ(MirelPaths::support(), expected) << '"' << value << '"';
    }
    env.set("MIREL_HOME", "/two");
    EXPECT_EQ(MirelPaths::databaseURL().string() + MirelPaths::logsRoot().string() + MirelPaths::imageURL("a.png").string() +
                  MirelPaths::thumbURL("a.png").string(),
              "/two/mirel.sqlite/two/logs/two/captures/a.png/two/thumbs/a.png");
    env.unset("MIREL_HOME");
    for (const char* unusable : {"", "relative/data"}) {
        env.set("XDG_DATA_HOME", unusable);
        EXPECT_EQ(MirelPaths::support(), home / ".local/share/Mirel") << unusable;
    }
    env.unset("XDG_DATA_HOME");
    EXPECT_EQ(MirelPaths::applicationSupport(), home / ".local/share");
    for (const char* noHome : std::initializer_list<const char*>{"", nullptr}) {
        noHome ? env.set("HOME", noHome) : env.unset("HOME");
        EXPECT_THROW(MirelPaths::support(), std::runtime_error);
        EXPECT_FALSE(MirelPaths::ensureDirectories());
        EXPECT_NO_THROW(MirelPaths::migrateLegacyLibraryIfNeeded());
    }
}

TEST_F(PathsTest, FoldersAndImagePaths) {
    env.set("MIREL_HOME", (root / "lib/nested").string());
    EXPECT_TRUE(MirelPaths::ensureDirectories());
    EXPECT_TRUE(fs::is_directory(root / "lib/nested/captures") && fs::is_directory(root / "lib/nested/thumbs") &&
                fs::is_directory(root / "lib/nested/logs"));
    std::ofstream(root / "file") << "x";
    env.set("MIREL_HOME", (root / "file").string());
    EXPECT_FALSE(MirelPaths::ensureDirectories());
    EXPECT_THROW(MirelPaths::ensureParentDirectory(root / "file/sub/a.png"), fs::filesystem_error);

    env.set("TZ", "XYZ-3");  // UTC+3 without zone files: local midnight of 1 May is 30 April in UTC
    tzset();
    const Date mayFirst = 1777582800 + 0.25;  // 2026-04-30T21:00:00.25Z
    EXPECT_EQ(MirelPaths::relativeImagePath("abc", mayFirst, "png"), "2026/05/abc.png");
    EXPECT_EQ(MirelPaths::relativeImagePath("abc", mayFirst - 1, "jpg"), "2026/04/abc.jpg");
    EXPECT_EQ(MirelPaths::relativeImagePath("x", std::nan(""), "png"), "0000/00/x.png");
    env.unset("TZ");
    tzset();
}

TEST_F(PathsTest, AFormerLibraryMovesIntoTheDefaultPlaceOnly) {
    const fs::path former = root / "data/Lumeto";
    const Capture kept = test::makeCapture("From the former app");
    {
        CaptureStore old(former / "lumeto.sqlite");  // also makes the empty default folders
        old.insert(kept);
    }
    fs::create_directories(former / "captures");
    std::ofstream(former / "captures/a.png") << "png";
    CaptureStore elsewhere(root / "other/mirel.sqlite");
    env.set("MIREL_HOME", "  ");
    MirelPaths::migrateLegacyLibraryIfNeeded();
    env.unset("MIREL_HOME");
    EXPECT_TRUE(fs::exists(former / "lumeto.sqlite"));

    CaptureStore store(MirelPaths::databaseURL());
    EXPECT_EQ(store.capture(kept.id).value_or(Capture{}).note, "From the former app");
    EXPECT_EQ(test::readBytes(root / "data/Mirel/captures/a.png"), "png");
    EXPECT_FALSE(fs::exists(former) || fs::exists(root / "data/Mirel/lumeto.sqlite"));

    // A library in place is never overwritten.
    fs::create_directories(former);
    std::ofstream(former / "lumeto.sqlite") << "older";
    MirelPaths::migrateLegacyLibraryIfNeeded();
    EXPECT_EQ(test::readBytes(former / "lumeto.sqlite"), "older");
    EXPECT_TRUE(CaptureStore(MirelPaths::databaseURL()).capture(kept.id));
}

}  // namespace
}  // namespace mirel
