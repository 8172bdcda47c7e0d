// Whole-file writes: a write the file system cuts short leaves the old file
// as it was, and nothing beside it.
#include "core/platform/file_io.h"
#include "tests/support/image_files.h"
#include "tests/support/temp_library.h"

#include <sys/resource.h>

#include <gtest/gtest.h>

#include <csignal>

namespace mirel {
namespace {

namespace fs = std::filesystem;

TEST(FileIoTest, AWriteCutShortKeepsTheOldFileAndLeavesNoTemporary) {
    test::TempLibrary folder;
    const fs::path file = folder.home() / "key";
    writeFileAtomically(file, "old", 0600);
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);

    // Past the limit a write fails with EFBIG, as on a full disk.
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
    const rlimit small{4096, saved.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const std::string failure = [&]() -> std::string {
        try {
            writeFileAtomically(file, std::string(10000, 'x'), std::nullopt);
        } catch (const fs::filesystem_error& error) {
            return error.code() == std::errc::file_too_large ? "cut short" : error.what();
        }
        return "written";
    }();
    ::setrlimit(RLIMIT_FSIZE, &saved);
    EXPECT_EQ(failure, "cut short");
    EXPECT_EQ(test::readBytes(file), "old");
    EXPECT_EQ(std::distance(fs::directory_iterator(folder.home()), fs::directory_iterator()), 1);
}

}  // namespace
}  // namespace mirel
