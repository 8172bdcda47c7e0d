// The secret store of a system without a Secret Service: one file per account
// under $XDG_CONFIG_HOME/mirel, readable by the user alone.
#include "core/sync/keychain_stores.h"

#include "core/platform/file_descriptor.h"
#include "core/platform/text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace mirel::FileSecretStore {

namespace {

// A token is a few hundred bytes; anything near this is not ours.
constexpr off_t maxSecretSize = 64 * 1024;

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }
    // Closes now, reporting whether the data made it.
    bool close() {
        const int fd = fd_;
        fd_ = -1;
        return ::close(fd) == 0;
    }

private:
    int fd_;
};

// $XDG_CONFIG_HOME/mirel, or ~/.config/mirel; read at each use.
std::optional<std::string> folder() {
    const char* config = std::getenv("XDG_CONFIG_HOME");
    // The base directory spec has relative paths ignored.
    if (config && config[0] == '/') return std::string(config) + "/mirel";
    const char* home = std::getenv("HOME");
    if (!home || !*home) return std::nullopt;
    return std::string(home) + "/.config/mirel";
}

// The account names a file in the folder and nothing else.
std::optional<std::string> pathOf(const std::string& account) {
    const bool plain = !account.empty() && account[0] != '.' && std::all_of(account.begin(), account.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
               c == '.';
    });
    const auto base = folder();
    if (!plain || !base) return std::nullopt;
    return *base + "/" + account;
}

// Makes the folder (and a missing $XDG_CONFIG_HOME) private to the user.
bool makePrivateFolder(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0) {
        const std::string parent = path.substr(0, slash);
        struct stat info {};
        if (::stat(parent.c_str(), &info) != 0 && !makePrivateFolder(parent)) return false;
    }
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return false;
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::geteuid()) return false;
    return (info.st_mode & 077) == 0 || ::chmod(path.c_str(), 0700) == 0;
}

}  // namespace

std::optional<std::string> read(const std::string& account) {
    const auto path = pathOf(account);
    if (!path) return std::nullopt;
    FileDescriptor file(::open(path->c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    struct stat info {};
    if (file.get() < 0 || ::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > maxSecretSize) {
        return std::nullopt;
    }
    std::string value(static_cast<std::size_t>(info.st_size), '\0');
    std::size_t done = 0;
    while (done < value.size()) {
        const ssize_t got = ::read(file.get(), value.data() + done, value.size() - done);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return std::nullopt;
        done += static_cast<std::size_t>(got);
    }
    if (repairUTF8(value) != value) return std::nullopt;
    return value;
}

void write(const std::string& value, const std::string& account) {
    const auto path = pathOf(account);
    const auto base = folder();
    if (!path || !base || !makePrivateFolder(*base)) return;
    // A fresh file beside the old one, then one rename: a reader sees the old
    // value or the new one, never a part.
    std::string temporary = *path + ".XXXXXX";
    FileDescriptor file(::mkostemp(temporary.data(), O_CLOEXEC));  // mode 0600
    if (file.get() < 0) return;
    const bool stored = writeAll(file.get(), value) && ::fsync(file.get()) == 0 && file.close() &&
                        ::rename(temporary.c_str(), path->c_str()) == 0;
    if (!stored) {
        ::unlink(temporary.c_str());
        return;
    }
    FileDescriptor directory(::open(base->c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.get() >= 0) ::fsync(directory.get());
}

void remove(const std::string& account) {
    if (const auto path = pathOf(account)) ::unlink(path->c_str());
}

}  // namespace mirel::FileSecretStore
