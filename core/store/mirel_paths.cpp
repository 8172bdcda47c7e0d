#include "core/store/mirel_paths.h"

#include "core/platform/text.h"

#include <pwd.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <stdexcept>
#include <vector>

namespace fs = std::filesystem;

namespace mirel::MirelPaths {

namespace {

std::optional<std::string> environment(const char* name) {
    const char* value = std::getenv(name);
    if (!value) return std::nullopt;
    return std::string(value);
}

std::optional<std::string> homeFolder() {
    auto home = environment("HOME");
    if (!home || home->empty()) return std::nullopt;
    return home;
}

// "~" and "~/x" take $HOME, "~name/x" that user's home; anything that cannot
// be expanded stays as it is.
std::string expandTilde(const std::string& path) {
    if (path.empty() || path[0] != '~') return path;
    const std::size_t slash = path.find('/');
    const std::string user = path.substr(1, slash == std::string::npos ? std::string::npos : slash - 1);
    const std::string rest = slash == std::string::npos ? "" : path.substr(slash);
    if (user.empty()) {
        const auto home = homeFolder();
        return home ? *home + rest : path;
    }
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found ||
        !found->pw_dir) {
        return path;
    }
    return std::string(found->pw_dir) + rest;
}

bool exists(const fs::path& path, bool& failed) {
    std::error_code error;
    const bool result = fs::exists(path, error);
    if (error) failed = true;
    return result;
}

// Like the platform's move: a target that is already there is a failure, not
// something to overwrite.
bool moveItem(const fs::path& from, const fs::path& to) {
    bool failed = false;
    if (exists(to, failed) || failed) return false;
    std::error_code error;
    fs::rename(from, to, error);
    return !error;
}

}  // namespace

fs::path applicationSupport() {
    if (const auto xdg = environment("XDG_DATA_HOME"); xdg && !xdg->empty() && xdg->front() == '/') {
        return fs::path(*xdg);
    }
    const auto home = homeFolder();
    if (!home) {
        throw std::runtime_error(
            "Could not find the user's data folder: neither HOME nor an absolute XDG_DATA_HOME is set");
    }
    return fs::path(*home) / ".local" / "share";
}

fs::path support() {
    if (const auto value = environment("MIREL_HOME"); value && !trimBlanks(*value).empty()) {
        fs::path chosen(expandTilde(*value));
        if (chosen.is_relative()) {
            std::error_code error;
            fs::path absolute = fs::absolute(chosen, error);
            if (!error) chosen = std::move(absolute);
        }
        return chosen;
    }
    return applicationSupport() / "Mirel";
}

fs::path databaseURL() { return support() / "mirel.sqlite"; }
fs::path capturesRoot() { return support() / "captures"; }
fs::path thumbsRoot() { return support() / "thumbs"; }
fs::path logsRoot() { return support() / "logs"; }
fs::path temporaryRoot() { return support() / "tmp"; }

namespace {

// A stored path names a file inside its root or nothing: an absolute one, or
// one that climbs out with "..", reads as a file that is not there.
fs::path inside(const fs::path& root, const std::string& relative) {
    const fs::path path(relative);
    if (relative.empty() || path.is_absolute()) return {};
    for (const fs::path& part : path) {
        if (part == "..") return {};
    }
    return root / path;
}

}  // namespace

fs::path imageURL(const std::string& relative) { return inside(capturesRoot(), relative); }
fs::path thumbURL(const std::string& relative) { return inside(thumbsRoot(), relative); }

std::string relativeImagePath(const std::string& id, Date date, const std::string& ext) {
    int year = 0;
    int month = 0;
    // Dates outside what the calendar can place count as year and month 0.
    if (std::isfinite(date) && date > -6.7e10 && date < 6.7e10) {
        const std::time_t seconds = static_cast<std::time_t>(std::floor(date));
        std::tm local{};
        if (localtime_r(&seconds, &local)) {
            year = local.tm_year + 1900;
            month = local.tm_mon + 1;
        }
    }
    char prefix[32];
    std::snprintf(prefix, sizeof prefix, "%04d/%02d/", year, month);
    return prefix + id + "." + ext;
}

bool ensureDirectories() {
    try {
        for (const fs::path& folder : {support(), capturesRoot(), thumbsRoot(), logsRoot()}) {
            std::error_code error;
            fs::create_directories(folder, error);
            if (error) return false;
        }
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

void ensureParentDirectory(const fs::path& file) {
    const fs::path parent = file.parent_path();
    if (parent.empty()) return;
    fs::create_directories(parent);
}

void migrateLegacyLibraryIfNeeded() {
    // A library chosen through the environment is never a target.
    if (std::getenv("MIREL_HOME")) return;
    fs::path former;
    fs::path target;
    try {
        former = applicationSupport() / "Lumeto";
        target = support();
    } catch (const std::exception&) {
        return;
    }
    bool failed = false;
    if (!exists(former / "lumeto.sqlite", failed) || failed) return;
    // A present library is never overwritten.
    if (exists(target / "mirel.sqlite", failed) || failed) return;
    // A support folder without a database (the empty folders of an earlier
    // start) makes way for the former library.
    const bool supportExists = exists(target, failed);
    if (failed) return;
    if (supportExists) {
        std::error_code error;
        fs::remove_all(target, error);
        if (error) return;
    }
    if (!moveItem(former, target)) return;
    for (const char* suffix : {"", "-wal", "-shm"}) {
        const fs::path from = target / (std::string("lumeto.sqlite") + suffix);
        const bool present = exists(from, failed);
        if (failed) return;
        if (!present) continue;
        if (!moveItem(from, target / (std::string("mirel.sqlite") + suffix))) return;
    }
}

}  // namespace mirel::MirelPaths
