#pragma once
// The files `mirel add` writes before they take their places in the library.
// They all live in MirelPaths::temporaryRoot(), named after the process that
// writes them, so a later start can tell the leftovers of a process that died
// from the files of one still at work.
#include <filesystem>
#include <vector>

namespace mirel::host::TemporaryFiles {

// A fresh name for this process; makes the folder.
std::filesystem::path make();
// Temporary files whose process is gone (or that follow no known naming).
std::vector<std::filesystem::path> stale();
// Removes stale(); failures are ignored, the next start tries again.
void sweep() noexcept;

}  // namespace mirel::host::TemporaryFiles
