#include "core/store/mirel_paths.h"
#include "tests/support/scoped_env.h"

#include <gtest/gtest.h>

#include <ctime>
#include <fstream>
#include <iterator>
#include <limits>

namespace fs = std::filesystem;

namespace mirel {
namespace {

// A private HOME and XDG_DATA_HOME, with MIREL_HOME unset: the default library
// of this fixture lies in data()/Mirel.
class PathsTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "mirel-paths-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root_ = pattern;
        fs::create_directories(home());
        fs::create_directories(data());
        env_.set("HOME", home().string());
        env_.set("XDG_DATA_HOME", data().string());
        env_.unset("MIREL_HOME");
    }
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(root_, ignored);
    }

    fs::path home() const { return root_ / "home"; }
    fs::path data() const { return root_ / "data"; }
    fs::path defaultSupport() const { return data() / "Mirel"; }
    fs::path former() const { return data() / "Lumeto"; }

    static void write(const fs::path& file, const std::string& contents) {
        fs::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << contents;
    }
    static std::string read(const fs::path& file) {
        std::ifstream in(file, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    // A former library: its database with a WAL beside it but no -shm file,
    // and one image in each tree.
    void makeFormerLibrary() {
        write(former() / "lumeto.sqlite", "db");
        write(former() / "lumeto.sqlite-wal", "wal");
        write(former() / "captures/2025/11/a.png", "png");
        write(former() / "thumbs/2025/11/a.png", "thumb");
        fs::create_directories(former() / "logs");
    }

    fs::path root_;
    test::ScopedEnv env_;
};

TEST_F(PathsTest, SupportFollowsMirelHome) {
    const fs::path cwd = fs::current_path();
    struct Case {
        std::string value;
        fs::path expected;
    };
    const Case cases[] = {
        {"/srv/library", "/srv/library"},
        {"~/lib", home() / "lib"},
        {"~", home()},
        {"relative/lib", cwd / "relative/lib"},
        // Only the blank test trims; the path keeps its blanks.
        {"  lib", cwd / "  lib"},
        {"/srv/lib \t", "/srv/lib \t"},
        // A line break is no blank.
        {"\n", cwd / "\n"},
        // Blanks only, including Unicode spaces (Zs): the default location.
        {"", defaultSupport()},
        {" \t ", defaultSupport()},
        {"\u00A0\u3000", defaultSupport()},
    };
    for (const Case& c : cases) {
        env_.set("MIREL_HOME", c.value);
        EXPECT_EQ(MirelPaths::support(), c.expected) << "MIREL_HOME=\"" << c.value << "\"";
    }
    env_.unset("MIREL_HOME");
    EXPECT_EQ(MirelPaths::support(), defaultSupport());
}

TEST_F(PathsTest, DerivedLocationsReadTheEnvironmentAtEachUse) {
    env_.set("MIREL_HOME", "/one");
    EXPECT_EQ(MirelPaths::databaseURL(), fs::path("/one/mirel.sqlite"));
    EXPECT_EQ(MirelPaths::capturesRoot(), fs::path("/one/captures"));
    EXPECT_EQ(MirelPaths::thumbsRoot(), fs::path("/one/thumbs"));
    EXPECT_EQ(MirelPaths::logsRoot(), fs::path("/one/logs"));
    env_.set("MIREL_HOME", "/two");
    EXPECT_EQ(MirelPaths::imageURL("2026/05/a.png"), fs::path("/two/captures/2026/05/a.png"));
    EXPECT_EQ(MirelPaths::thumbURL("2026/05/a.png"), fs::path("/two/thumbs/2026/05/a.png"));
}

TEST_F(PathsTest, ApplicationSupportUsesAnAbsoluteXdgDataHomeElseHome) {
    EXPECT_EQ(MirelPaths::applicationSupport(), data());
    for (const char* unusable : {"", "relative/data"}) {
        env_.set("XDG_DATA_HOME", unusable);
        EXPECT_EQ(MirelPaths::applicationSupport(), home() / ".local/share") << unusable;
    }
    env_.unset("XDG_DATA_HOME");
    EXPECT_EQ(MirelPaths::support(), home() / ".local/share/Mirel");
}

TEST_F(PathsTest, NoHomeIsAnOrderlyError) {
    env_.unset("XDG_DATA_HOME");
    for (bool emptyHome : {false, true}) {
        if (emptyHome) env_.set("HOME", "");
        else env_.unset("HOME");
        EXPECT_THROW(MirelPaths::support(), std::runtime_error);
        EXPECT_FALSE(MirelPaths::ensureDirectories());
        EXPECT_NO_THROW(MirelPaths::migrateLegacyLibraryIfNeeded());
        // A chosen library needs no home.
        env_.set("MIREL_HOME", "/srv/lib");
        EXPECT_EQ(MirelPaths::support(), fs::path("/srv/lib"));
        env_.unset("MIREL_HOME");
    }
}

TEST_F(PathsTest, RelativeImagePathUsesTheLocalMonth) {
    // UTC+3 without needing zone files: midnight local on 1 May is still
    // 30 April in UTC.
    env_.set("TZ", "XYZ-3");
    tzset();
    std::tm utc{};
    utc.tm_year = 2026 - 1900;
    utc.tm_mon = 3;
    utc.tm_mday = 30;
    utc.tm_hour = 21;
    utc.tm_min = 30;
    const Date justAfterMidnight = static_cast<Date>(timegm(&utc)) + 0.25;
    EXPECT_EQ(MirelPaths::relativeImagePath("abc", justAfterMidnight, "png"), "2026/05/abc.png");
    EXPECT_EQ(MirelPaths::relativeImagePath("abc", justAfterMidnight - 3600, "jpg"), "2026/04/abc.jpg");
    // Not a date the calendar can place.
    EXPECT_EQ(MirelPaths::relativeImagePath("x", std::numeric_limits<double>::quiet_NaN(), "png"),
              "0000/00/x.png");
    env_.unset("TZ");
    tzset();
}

TEST_F(PathsTest, EnsureDirectoriesMakesTheFourFolders) {
    env_.set("MIREL_HOME", (root_ / "lib/nested").string());
    EXPECT_TRUE(MirelPaths::ensureDirectories());
    for (const char* name : {"", "captures", "thumbs", "logs"}) {
        EXPECT_TRUE(fs::is_directory(root_ / "lib/nested" / name)) << name;
    }
    EXPECT_TRUE(MirelPaths::ensureDirectories());  // existing folders are no failure

    write(root_ / "file", "x");
    env_.set("MIREL_HOME", (root_ / "file").string());
    EXPECT_FALSE(MirelPaths::ensureDirectories());
}

TEST_F(PathsTest, EnsureParentDirectoryPassesTheFileSystemErrorOn) {
    MirelPaths::ensureParentDirectory(root_ / "a/b/c/file.png");
    EXPECT_TRUE(fs::is_directory(root_ / "a/b/c"));
    write(root_ / "plain", "x");
    EXPECT_THROW(MirelPaths::ensureParentDirectory(root_ / "plain/sub/file.png"), fs::filesystem_error);
}

TEST_F(PathsTest, FormerLibraryMovesIntoPlace) {
    makeFormerLibrary();
    MirelPaths::migrateLegacyLibraryIfNeeded();

    EXPECT_FALSE(fs::exists(former()));
    EXPECT_EQ(read(defaultSupport() / "mirel.sqlite"), "db");
    EXPECT_EQ(read(defaultSupport() / "mirel.sqlite-wal"), "wal");
    EXPECT_FALSE(fs::exists(defaultSupport() / "mirel.sqlite-shm"));
    EXPECT_FALSE(fs::exists(defaultSupport() / "lumeto.sqlite"));
    EXPECT_FALSE(fs::exists(defaultSupport() / "lumeto.sqlite-wal"));
    EXPECT_EQ(read(defaultSupport() / "captures/2025/11/a.png"), "png");
    EXPECT_EQ(read(defaultSupport() / "thumbs/2025/11/a.png"), "thumb");
    EXPECT_TRUE(fs::is_directory(defaultSupport() / "logs"));

    // Nothing left to move: a second call changes nothing.
    MirelPaths::migrateLegacyLibraryIfNeeded();
    EXPECT_EQ(read(defaultSupport() / "mirel.sqlite"), "db");
}

TEST_F(PathsTest, SupportFolderWithoutDatabaseMakesWay) {
    makeFormerLibrary();
    write(defaultSupport() / "captures/stale.png", "stale");
    write(defaultSupport() / "mirel.sqlite-shm", "stale shm");
    MirelPaths::migrateLegacyLibraryIfNeeded();
    EXPECT_EQ(read(defaultSupport() / "mirel.sqlite"), "db");
    EXPECT_FALSE(fs::exists(defaultSupport() / "captures/stale.png"));
    EXPECT_FALSE(fs::exists(defaultSupport() / "mirel.sqlite-shm"));
    EXPECT_FALSE(fs::exists(former()));
}

TEST_F(PathsTest, FormerLibraryStaysWhereNothingMayMove) {
    // Without its database the former folder is no library.
    write(former() / "captures/a.png", "png");
    MirelPaths::migrateLegacyLibraryIfNeeded();
    EXPECT_EQ(read(former() / "captures/a.png"), "png");
    EXPECT_FALSE(fs::exists(defaultSupport()));

    // A present library is never overwritten.
    makeFormerLibrary();
    write(defaultSupport() / "mirel.sqlite", "current");
    MirelPaths::migrateLegacyLibraryIfNeeded();
    EXPECT_EQ(read(defaultSupport() / "mirel.sqlite"), "current");
    EXPECT_EQ(read(former() / "lumeto.sqlite"), "db");
    fs::remove_all(defaultSupport());

    // MIREL_HOME set at all, even blank, keeps the move away.
    const std::string chosen = (root_ / "chosen").string();
    for (const std::string& value : {std::string(), std::string("  "), chosen}) {
        env_.set("MIREL_HOME", value);
        MirelPaths::migrateLegacyLibraryIfNeeded();
        EXPECT_EQ(read(former() / "lumeto.sqlite"), "db") << "MIREL_HOME=\"" << value << "\"";
        EXPECT_FALSE(fs::exists(defaultSupport()));
        EXPECT_FALSE(fs::exists(root_ / "chosen"));
    }
}

}  // namespace
}  // namespace mirel
