#pragma once
#include <filesystem>
#include <optional>
#include <string>

namespace mirel::ImageEncoder {

// Base64 of a PNG of the file, scaled so its longest edge is at most
// `maxEdge` (never scaled up). Nothing if the file cannot be read (with the log
// line "could not read image at {path}") or the PNG cannot be made (no log).
std::optional<std::string> encode(const std::filesystem::path& url, int maxEdge);

}  // namespace mirel::ImageEncoder
