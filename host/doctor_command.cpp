// `mirel doctor`: finds what interrupted work left in the library, and with
// --fix removes the files among it that nothing needs.
#include "core/format/format.h"
#include "core/store/capture_store.h"
#include "core/store/mirel_paths.h"
#include "host/arguments.h"
#include "host/commands.h"
#include "host/temporary_files.h"

#include <algorithm>
#include <iostream>
#include <system_error>

namespace fs = std::filesystem;

namespace mirel::host {

const char* const doctorUsage =
    "usage: mirel doctor [--fix]\n"
    "\n"
    "Checks the library for what interrupted work can leave behind: image files\n"
    "that no capture names, captures whose files are gone, temporary files of\n"
    "runs of 'mirel add' that did not finish, and groups without any capture.\n"
    "\n"
    "options:\n"
    "  --fix               remove the image files that no capture names and the\n"
    "                      stale temporary files; rows, and files that a row\n"
    "                      names, are never removed\n"
    "  -h, --help          show this help\n";

namespace {

struct Findings {
    std::vector<fs::path> unnamedFiles;
    std::vector<std::string> missingFiles;
    std::vector<fs::path> staleTemporaries;
    std::vector<CaptureGroup> emptyGroups;
};

// Files under `root` whose path relative to it is not in `named`.
void collectUnnamed(const fs::path& root, const std::set<std::string>& named, std::vector<fs::path>& into) {
    std::error_code error;
    for (fs::recursive_directory_iterator it(root, error), end; !error && it != end; it.increment(error)) {
        if (it->is_directory(error)) continue;
        if (!named.count(it->path().lexically_relative(root).generic_string())) into.push_back(it->path());
    }
}

Findings examine(CaptureStore& store) {
    Findings found;
    const CaptureStore::NamedFiles named = store.namedFiles();
    collectUnnamed(MirelPaths::capturesRoot(), named.images, found.unnamedFiles);
    collectUnnamed(MirelPaths::thumbsRoot(), named.thumbs, found.unnamedFiles);
    std::sort(found.unnamedFiles.begin(), found.unnamedFiles.end());
    for (const CaptureImage& image : store.liveImages()) {
        if (image.imagePath.empty()) continue;  // waiting for its download
        std::error_code error;
        if (!fs::is_regular_file(image.originalURL(), error)) {
            found.missingFiles.push_back("[" + Format::idPrefix(image.captureID) + "] screenshot " +
                                         std::to_string(image.position + 1) + ": " + image.imagePath);
        }
    }
    found.staleTemporaries = TemporaryFiles::stale();
    std::sort(found.staleTemporaries.begin(), found.staleTemporaries.end());
    found.emptyGroups = store.groupsWithoutCaptures();
    return found;
}

template <class Items, class Show>
void report(const std::string& heading, const Items& items, Show show) {
    std::cout << heading << ": " << items.size() << '\n';
    for (const auto& item : items) std::cout << "  " << show(item) << '\n';
}

}  // namespace

int runDoctor(const Arguments& arguments) {
    Arguments rest;
    bool fix = false;
    for (const std::string& argument : arguments) {
        if (argument == "--fix") fix = true;
        else rest.push_back(argument);
    }
    const ParsedArguments parsed = parseArguments(rest, {});
    if (parsed.help) {
        std::cout << doctorUsage;
        return exitOK;
    }
    if (!parsed.operands.empty()) throw UsageError("unexpected argument \"" + parsed.operands.front() + "\"");

    CaptureStore store(MirelPaths::databaseURL());
    // Under the write lock: a filing that is under way places its files and
    // commits its rows either wholly before this look or wholly after it.
    store.transaction([&] {
        const Findings found = examine(store);
        const auto path = [](const fs::path& file) { return file.string(); };
        report("Image files without a row", found.unnamedFiles, path);
        report("Rows whose files are gone", found.missingFiles, [](const std::string& line) { return line; });
        report("Stale temporary files", found.staleTemporaries, path);
        report("Groups without captures", found.emptyGroups,
               [](const CaptureGroup& group) { return Format::quoted(group.name); });
        if (!fix) return;
        std::size_t removed = 0;
        for (const auto* files : {&found.unnamedFiles, &found.staleTemporaries}) {
            for (const fs::path& file : *files) {
                std::error_code error;
                if (fs::remove(file, error)) ++removed;
            }
        }
        std::cout << "Removed " << removed << " file" << (removed == 1 ? "" : "s") << ".\n";
    });
    return exitOK;
}

}  // namespace mirel::host
