#include "core/platform/file_io.h"

#include "core/platform/clock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

namespace mirel {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void fail(const char* what, const fs::path& file, int code) {
    throw fs::filesystem_error(what, file, std::error_code(code, std::generic_category()));
}

struct Descriptor {
    int fd;
    ~Descriptor() {
        if (fd >= 0) ::close(fd);
    }
};

}  // namespace

std::string readFile(const fs::path& file) {
    Descriptor in{::open(file.c_str(), O_RDONLY | O_CLOEXEC)};
    if (in.fd < 0) fail("cannot read", file, errno);
    struct stat info {};
    if (::fstat(in.fd, &info) != 0) fail("cannot read", file, errno);
    if (!S_ISREG(info.st_mode)) fail("cannot read", file, EISDIR);
    std::string bytes;
    bytes.resize(static_cast<std::size_t>(info.st_size));
    std::size_t got = 0;
    for (;;) {
        if (got == bytes.size()) bytes.resize(bytes.size() + 65536);  // the file grew
        const ssize_t n = ::read(in.fd, bytes.data() + got, bytes.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) fail("cannot read", file, errno);
        if (n == 0) break;
        got += static_cast<std::size_t>(n);
    }
    bytes.resize(got);
    return bytes;
}

void writeFileAtomically(const fs::path& file, std::string_view bytes) {
    const fs::path temporary = file.string() + ".tmp-" + newID().substr(0, 8);
    {
        Descriptor out{::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644)};
        if (out.fd < 0) fail("cannot write", file, errno);
        std::size_t written = 0;
        while (written < bytes.size()) {
            const ssize_t n = ::write(out.fd, bytes.data() + written, bytes.size() - written);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                const int code = errno;
                ::unlink(temporary.c_str());
                fail("cannot write", file, code);
            }
            written += static_cast<std::size_t>(n);
        }
    }
    if (::rename(temporary.c_str(), file.c_str()) != 0) {
        const int code = errno;
        ::unlink(temporary.c_str());
        fail("cannot write", file, code);
    }
}

}  // namespace mirel
