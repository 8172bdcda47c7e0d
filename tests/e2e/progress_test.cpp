// The progress line of `mirel add` of many images (as of `mirel demo`): drawn
// on a terminal, cleared before the command's own output, and absent when
// standard output is not a terminal. script(1) gives the child a terminal.
#include "tests/support/image_files.h"
#include "tests/support/temp_library.h"

#include <sys/wait.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace mirel::test {
namespace {

TEST(Progress, DrawsOnATerminalOnlyAndClearsItsLine) {
    TempLibrary library;
    std::string add = "'" MIREL_HOST_BINARY "' add --note 'four screens'";
    for (int i = 0; i < 4; ++i) {
        const auto image = library.home() / ("shot" + std::to_string(i) + ".png");
        writeImageFile(image, 64, 48, ImageFileFormat::png);
        add.append(1, ' ').append(image.string());
    }
    const auto onTerminal = [&](const std::string& command) {
        const auto typescript = library.home() / "typescript";
        const int status = std::system(("script -qec \"" + command + "\" /dev/null >" + typescript.string()).c_str());
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        return readBytes(typescript);
    };

    const std::string shown = onTerminal(add);
    EXPECT_EQ(shown.find("\r\033[KReading images 1/4\r\033[KReading images 2/4"), 0u) << shown;
    const std::string last = "\r\033[KMaking thumbnails 4/4\r\033[K";
    ASSERT_NE(shown.find(last), std::string::npos) << shown;
    EXPECT_EQ(shown.size() - shown.find(last) - last.size(), 36u + 2) << "only the id and a line end: " << shown;

    EXPECT_EQ(onTerminal(add + " >/dev/null"), "");
}

}  // namespace
}  // namespace mirel::test
