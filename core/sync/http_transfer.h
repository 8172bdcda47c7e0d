#pragma once
// One HTTP exchange on libcurl, with the session's limits, a cap on what is
// kept of a reply, and cancellation from another thread.
//
// The session keeps nothing on disk (no cookie jar, no cache, no .netrc), speaks
// only http and https (also after a redirect), verifies certificates, and sends
// an "Authorization" header to the origin it was given only: libcurl drops it on
// a redirect to another host, port or scheme.
#include "core/sync/cancellation.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace mirel {

// The time limits of a call.
struct TransferLimits {
    // A connection that stays silent this long, in either direction, fails.
    std::chrono::seconds silence{30};
    // The whole call ends after this long; zero leaves it unbounded.
    std::chrono::milliseconds whole{300'000};
};

struct HttpRequest {
    std::string method = "GET";
    std::string url;
    // Sent in this order. Nothing else is added but "Host" and "Content-Length".
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    bool hasBody = false;
    TransferLimits limits;
};

struct HttpResponse {
    long status = 0;
    std::string body;
};

namespace Http {

// Replies to API calls are JSON documents; none is near this size.
inline constexpr std::size_t maxJSONReply = 64u << 20;
// A screenshot blob fetched from storage.
inline constexpr std::size_t maxBlobBytes = 512u << 20;

// Sends `request` and returns the final response, keeping at most `maxBody`
// bytes of its body. Throws TransferError when the exchange fails on the way,
// is cancelled, or the body is larger than `maxBody`.
HttpResponse perform(const HttpRequest& request, std::size_t maxBody, const Cancellation& cancel);

// Opens a stream and hands `onLine` each line as soon as it is complete,
// without its line ending (LF, CRLF or CR), on the calling thread. Lines are
// read only from a 200 response: for another status nothing is read and the
// status comes back at once. Returns 200 when the server ends the stream.
// Throws TransferError when it cannot connect, the connection breaks or falls
// silent past the request's limit, a line exceeds 1 MB, or `cancel` is raised
// (which ends a waiting read at once).
long streamLines(const HttpRequest& request, const std::function<void(std::string_view line)>& onLine,
                 const Cancellation& cancel);

// `text` if it is an absolute http or https URL with a host, in libcurl's
// normal form; nothing otherwise.
std::optional<std::string> webURL(std::string_view text);

// `base` with `path` (which starts with "/") appended to its path.
std::optional<std::string> appendingPath(std::string_view base, std::string_view path);

// Percent-escapes all but letters, digits, "-", "_" and "~", so that the text
// stays one path segment or one query value whatever it holds ("..", "/", "?", "#").
std::string escapeComponent(std::string_view text);

// A header value that would not break the request: no CR, LF or NUL.
bool isSafeHeaderValue(std::string_view value);
// An HTTP token: a method or a header name.
bool isToken(std::string_view text);

}  // namespace Http

}  // namespace mirel
