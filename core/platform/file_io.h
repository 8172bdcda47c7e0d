#pragma once
// Whole-file writes. A write lands whole or not at all: the bytes
// go to a temporary file beside the target, which is then renamed into place,
// so no reader ever sees half a file.
#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mirel {

// When the bytes of a written file must be on disk.
enum class Durability {
    // Before the file takes its name: a crash leaves the old file or the new one.
    beforeRename,
    // Left to the caller, who makes a batch of files durable at once with
    // syncFileSystems before anything refers to them.
    byCaller,
};

// Replaces `file` with `bytes`, with `mode` when given (else 0644 less the
// umask); the folder must exist. Throws std::filesystem::filesystem_error
// naming the file, and leaves no temporary file behind.
void writeFileAtomically(const std::filesystem::path& file, std::string_view bytes,
                         std::optional<mode_t> mode = std::nullopt, Durability durability = Durability::beforeRename);

// Flushes the file systems holding `folders` (each once) to disk: their files'
// bytes and names. One flush costs about what one fsync does, so it is how many
// small files become durable together. Throws std::filesystem::filesystem_error.
void syncFileSystems(const std::vector<std::filesystem::path>& folders);

}  // namespace mirel
