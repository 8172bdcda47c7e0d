#include "core/platform/file_descriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace mirel {

bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

namespace {

class OpenFile {
public:
    explicit OpenFile(int fd) : fd_(fd) {}
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    ~OpenFile() {
        if (fd_ >= 0) ::close(fd_);
    }
    int get() const { return fd_; }

private:
    int fd_;
};

}  // namespace

std::vector<std::uint8_t> readRegularFile(const std::filesystem::path& path, std::uint64_t maxBytes) {
    const std::string name = path.string();
    auto failure = [&](const std::string& why) { return FileReadError("cannot read " + name + ": " + why); };
    if (path.empty()) throw failure(std::strerror(ENOENT));
    // Without O_NONBLOCK, opening a pipe that nobody writes to never returns.
    const OpenFile file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (file.get() < 0) throw failure(std::strerror(errno));
    struct stat info {};
    if (::fstat(file.get(), &info) != 0) throw failure(std::strerror(errno));
    if (S_ISDIR(info.st_mode)) throw FileReadError(name + " is a folder, not a file");
    if (!S_ISREG(info.st_mode)) throw FileReadError(name + " is not a regular file");
    if (static_cast<std::uint64_t>(info.st_size) > maxBytes) {
        throw FileReadError(name + " is larger than " + std::to_string(maxBytes) + " bytes");
    }
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(info.st_size));
    std::size_t got = 0;
    // The file may change while it is read: stop at its end, or at the cap.
    while (true) {
        if (got == bytes.size()) {
            if (bytes.size() >= maxBytes) break;
            bytes.resize(std::min<std::uint64_t>(maxBytes, bytes.size() + 65536));
        }
        const ssize_t n = ::read(file.get(), bytes.data() + got, bytes.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw failure(std::strerror(errno));
        if (n == 0) break;
        got += static_cast<std::size_t>(n);
    }
    bytes.resize(got);
    return bytes;
}

}  // namespace mirel
