#pragma once
// How records read as text, wherever they are shown: the agent's tools and
// resources and the `mirel` command line. These formatters touch neither the
// store nor the disk (paths are computed, not opened); pages.h reads what they
// need from the store.
#include "core/store/records.h"

#include <optional>
#include <string>
#include <vector>

namespace mirel::Format {

// First 8 characters of the id (all of it if shorter).
std::string idPrefix(const std::string& id);
// "OPEN", "IN-PROGRESS", "RESOLVED", "ARCHIVED".
std::string statusWord(CaptureStatus status);
// The text in curly double quotes: “text”.
std::string quoted(const std::string& text);
// "No captures match (status: Open / In Progress)." for an empty list.
std::string noCapturesMatch(const std::vector<CaptureStatus>& statuses);

// Two lines: "[prefix] STATUS [!high] title" and "    app · “window” · …".
std::string listLine(const Capture& capture, const std::optional<std::string>& groupName,
                     const std::vector<std::string>& tags, std::int64_t comments, std::int64_t images);
// "just now", "5s ago", "3m ago", "2h ago", "4d ago", "1mo ago" against Clock::now().
std::string relative(Date date);
std::optional<std::string> distinctWindowTitle(const Capture& capture);
// "2026-03-14T09:26:53Z"
std::string iso(Date date);
// Decimal file size: "Zero KB", "345 bytes", "345 KB", "1.2 MB".
std::string byteCount(std::int64_t bytes);

std::string detail(const Capture& capture, const std::optional<std::string>& groupName,
                   const std::vector<std::string>& tags, const std::vector<Comment>& comments,
                   const std::vector<ActivityEvent>& activity, const std::vector<CaptureImage>& images);
std::string describe(const ActivityEvent& event);

}  // namespace mirel::Format
