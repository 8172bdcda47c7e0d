#pragma once
// Where the library lives on disk. Nothing is cached: every call reads the
// environment anew.
#include "core/platform/clock.h"

#include <filesystem>
#include <string>

namespace mirel::MirelPaths {

inline constexpr const char* bundleIdentifier = "dev.mirel.Mirel";

// $MIREL_HOME (unless blank), else $XDG_DATA_HOME/Mirel, else ~/.local/share/Mirel.
// Throws std::runtime_error when no home folder can be found.
std::filesystem::path support();
std::filesystem::path databaseURL();
std::filesystem::path capturesRoot();
std::filesystem::path thumbsRoot();
std::filesystem::path logsRoot();
// Where `mirel add` writes files before they take their place.
std::filesystem::path temporaryRoot();
// The file a stored path names; an empty path when it is empty, absolute or
// contains "..", which every reader takes for a missing file.
std::filesystem::path imageURL(const std::string& relative);
std::filesystem::path thumbURL(const std::string& relative);

// "YYYY/MM/{id}.{ext}", by the date's month in the local time zone.
std::string relativeImagePath(const std::string& id, Date date, const std::string& ext);

// Makes support, captures, thumbs and logs; false at the first failure.
bool ensureDirectories();
// Makes the folder that will hold `file`; throws the file system's error.
void ensureParentDirectory(const std::filesystem::path& file);
// Carries a library of the former product name ("Lumeto") into place, once.
void migrateLegacyLibraryIfNeeded();

// The user's application-support folder (XDG data home).
std::filesystem::path applicationSupport();

}  // namespace mirel::MirelPaths
