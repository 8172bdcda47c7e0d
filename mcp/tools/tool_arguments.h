#pragma once
// Readers for tool arguments. The catalogue's schemas are advice only: a value
// of the wrong type reads as absent, never as an error.
#include "core/platform/json.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace mirel::ToolArguments {

// The value under `key` if it is a text.
std::optional<std::string> text(const Json& arguments, const char* key);
// The value under `key` if it is a text that is not empty.
std::optional<std::string> nonEmptyText(const Json& arguments, const char* key);
// The value under `key` if it is a whole number: a JSON integer, or a float
// without fraction (5.0, 1e12). Values beyond 64 bits saturate.
std::optional<std::int64_t> wholeNumber(const Json& arguments, const char* key);
// The value under `key` if it is a boolean.
std::optional<bool> boolean(const Json& arguments, const char* key);
// The value under `key` if it is a list whose elements are all texts.
std::optional<std::vector<std::string>> textList(const Json& arguments, const char* key);

// A whole number clamped to [low, high], or `fallback` when it is absent.
std::int64_t clampedWholeNumber(const Json& arguments, const char* key, std::int64_t fallback,
                                std::int64_t low, std::int64_t high);

}  // namespace mirel::ToolArguments
