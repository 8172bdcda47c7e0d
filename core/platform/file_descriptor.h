#pragma once
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace mirel {

// Writes all of `bytes` to `fd`, finishing writes that a signal cut short.
// False when the descriptor refuses them (a closed pipe, a full disk): callers
// that write logs or protocol lines have no one to tell, so they drop the rest.
bool writeAll(int fd, std::string_view bytes);

// Why a file could not be read; what() is the whole sentence, naming the file.
class FileReadError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The whole content of a regular file of at most `maxBytes`. The file is
// opened without blocking and checked before any read, so a named pipe, a
// device or a folder is refused at once instead of hanging or filling memory.
// Throws FileReadError.
std::vector<std::uint8_t> readRegularFile(const std::filesystem::path& path, std::uint64_t maxBytes);

}  // namespace mirel
