#pragma once
// A short human text for an HTTP status code, for error messages.
#include <string>

namespace mirel::HttpStatus {

// The standard reason phrase ("Not Found"); for a code without one, the
// phrase of its class ("Client Error", "Server Error", ...).
std::string reasonPhrase(long code);

}  // namespace mirel::HttpStatus
