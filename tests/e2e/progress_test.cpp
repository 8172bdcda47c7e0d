// The progress line of `mirel add` of many images (as of `mirel demo`): drawn
// on a terminal, cleared before the command's own output, and absent when
// standard output is not a terminal.
#include "tests/support/image_files.h"
#include "tests/support/temp_library.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

namespace mirel::test {
namespace {

// Runs `mirel add` of four images on a new terminal and gives all it wrote
// there. With `redirectOutput`, standard output goes to /dev/null and only
// standard error stays on the terminal.
std::string addOnTerminal(const TempLibrary& library, bool redirectOutput) {
    std::vector<std::string> images;
    for (int i = 0; i < 4; ++i) {
        images.push_back((library.home() / ("shot" + std::to_string(i) + ".png")).string());
        writeImageFile(images.back(), 64, 48, ImageFileFormat::png);
    }
    int terminal = -1;
    const pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (pid == 0) {
        if (redirectOutput) {
            const int null = open("/dev/null", O_WRONLY);
            if (null < 0 || dup2(null, STDOUT_FILENO) < 0) _exit(127);
        }
        execl(MIREL_HOST_BINARY, MIREL_HOST_BINARY, "add", images[0].c_str(), images[1].c_str(), images[2].c_str(),
              images[3].c_str(), "--note", "four screens", static_cast<char*>(nullptr));
        _exit(127);
    }
    std::string written;
    if (pid < 0) return written;
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(terminal, buffer, sizeof buffer);
        if (n > 0) written.append(buffer, static_cast<std::size_t>(n));
        else if (n < 0 && errno == EINTR) continue;
        else break;  // EIO once the child has gone
    }
    close(terminal);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << written;
    return written;
}

TEST(Progress, DrawsOnATerminalAndClearsItsLine) {
    TempLibrary library;
    const std::string shown = addOnTerminal(library, false);
    EXPECT_EQ(shown.find("\r\033[KReading images 1/4\r\033[KReading images 2/4"), 0u) << shown;
    const std::string last = "\r\033[KMaking thumbnails 4/4\r\033[K";
    const std::size_t end = shown.find(last);
    ASSERT_NE(end, std::string::npos) << shown;
    EXPECT_EQ(shown.size() - end - last.size(), 36u + 2) << "the id and a line end: " << shown;

    const std::string quiet = addOnTerminal(library, true);
    EXPECT_EQ(quiet.find('\033'), std::string::npos) << quiet;
}

}  // namespace
}  // namespace mirel::test
