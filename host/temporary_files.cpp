#include "host/temporary_files.h"

#include "core/platform/clock.h"
#include "core/store/mirel_paths.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <optional>
#include <string>
#include <system_error>

namespace fs = std::filesystem;

namespace mirel::host::TemporaryFiles {

namespace {

constexpr std::string_view prefix = "add-";

// "add-{pid}-{random}"; the process id, or nothing for another name.
std::optional<pid_t> writerOf(const std::string& name) {
    if (name.compare(0, prefix.size(), prefix) != 0) return std::nullopt;
    const char* first = name.data() + prefix.size();
    const char* last = name.data() + name.size();
    pid_t pid = 0;
    const auto [end, error] = std::from_chars(first, last, pid);
    if (error != std::errc() || end == first || end == last || *end != '-' || pid <= 0) return std::nullopt;
    return pid;
}

bool isRunning(pid_t pid) { return ::kill(pid, 0) == 0 || errno == EPERM; }

}  // namespace

fs::path make() {
    const fs::path folder = MirelPaths::temporaryRoot();
    fs::create_directories(folder);
    return folder / (std::string(prefix) + std::to_string(::getpid()) + "-" + newID());
}

std::vector<fs::path> stale() {
    std::vector<fs::path> found;
    std::error_code error;
    for (fs::directory_iterator it(MirelPaths::temporaryRoot(), error), end; !error && it != end;
         it.increment(error)) {
        const auto pid = writerOf(it->path().filename().string());
        if (!pid || !isRunning(*pid)) found.push_back(it->path());
    }
    return found;
}

void sweep() noexcept {
    try {
        std::error_code ignored;
        for (const fs::path& file : stale()) fs::remove(file, ignored);
    } catch (...) {
    }
}

}  // namespace mirel::host::TemporaryFiles
