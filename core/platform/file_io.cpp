#include "core/platform/file_io.h"

#include "core/platform/clock.h"
#include "core/platform/file_descriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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

void writeFileAtomically(const fs::path& file, std::string_view bytes, std::optional<mode_t> mode,
                         Durability durability) {
    const fs::path temporary = file.string() + ".tmp-" + newID().substr(0, 8);
    int code = 0;
    {
        Descriptor out{::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644)};
        if (out.fd < 0) fail("cannot write", file, errno);
        // The file lands whole on disk before its name does, and with the
        // mode asked for whatever the umask says.
        if ((mode && ::fchmod(out.fd, *mode) != 0) || !writeAll(out.fd, bytes) ||
            (durability == Durability::beforeRename && ::fsync(out.fd) != 0)) {
            code = errno;
        }
    }
    if (code == 0 && ::rename(temporary.c_str(), file.c_str()) != 0) code = errno;
    if (code != 0) {
        ::unlink(temporary.c_str());
        fail("cannot write", file, code);
    }
}

void syncFileSystems(const std::vector<fs::path>& folders) {
    std::vector<dev_t> flushed;
    for (const fs::path& folder : folders) {
        Descriptor handle{::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
        struct stat status {};
        if (handle.fd < 0 || ::fstat(handle.fd, &status) != 0) fail("cannot flush", folder, errno);
        if (std::find(flushed.begin(), flushed.end(), status.st_dev) != flushed.end()) continue;
        if (::syncfs(handle.fd) != 0) fail("cannot flush", folder, errno);
        flushed.push_back(status.st_dev);
    }
}

}  // namespace mirel
