#pragma once
#include <string_view>

namespace mirel {

// Writes all of `bytes` to `fd`, finishing writes that a signal cut short.
// False when the descriptor refuses them (a closed pipe, a full disk): callers
// that write logs or protocol lines have no one to tell, so they drop the rest.
bool writeAll(int fd, std::string_view bytes);

}  // namespace mirel
