#pragma once
// Whole-file writes. A write lands whole or not at all: the bytes
// go to a temporary file beside the target, which is then renamed into place,
// so no reader ever sees half a file.
#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace mirel {

// Replaces `file` with `bytes`, with `mode` when given (else 0644 less the
// umask); the folder must exist. Throws std::filesystem::filesystem_error
// naming the file, and leaves no temporary file behind.
void writeFileAtomically(const std::filesystem::path& file, std::string_view bytes,
                         std::optional<mode_t> mode = std::nullopt);

}  // namespace mirel
