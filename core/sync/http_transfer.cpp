#include "core/sync/http_transfer.h"

#include "core/sync/sync_error.h"

#include <curl/curl.h>

#include <algorithm>
#include <memory>
#include <mutex>

namespace mirel::Http {

namespace {

struct EasyDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct MultiDeleter {
    void operator()(CURLM* handle) const { curl_multi_cleanup(handle); }
};
struct ListDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
struct URLDeleter {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
struct CurlTextDeleter {
    void operator()(char* text) const { curl_free(text); }
};
using URLHandle = std::unique_ptr<CURLU, URLDeleter>;
using CurlText = std::unique_ptr<char, CurlTextDeleter>;

constexpr std::size_t maxLine = 1u << 20;
constexpr long maxRedirects = 10;

void initializeOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

bool equalsIgnoringASCIICase(std::string_view a, std::string_view b) {
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [&](char x, char y) { return lower(x) == lower(y); });
}

// The header lines for libcurl. Headers libcurl would add on its own ("Accept",
// a form "Content-Type", "Expect") are suppressed unless the request names them.
curl_slist* headerList(const HttpRequest& request) {
    curl_slist* list = nullptr;
    auto append = [&](const std::string& line) {
        curl_slist* grown = curl_slist_append(list, line.c_str());
        if (!grown) {
            curl_slist_free_all(list);
            throw std::bad_alloc();
        }
        list = grown;
    };
    for (const auto& [name, value] : request.headers) {
        // An empty value is written "Name;" for libcurl; "Name:" would remove the header.
        append(value.empty() ? name + ";" : name + ": " + value);
    }
    for (const char* builtIn : {"Accept", "Content-Type", "Expect"}) {
        const bool named = std::any_of(request.headers.begin(), request.headers.end(), [&](const auto& header) {
            return equalsIgnoringASCIICase(header.first, builtIn);
        });
        if (!named) append(std::string(builtIn) + ":");
    }
    return list;
}

using DataHandler = std::function<bool(long status, std::string_view data)>;

struct Reader {
    CURL* easy;
    const DataHandler* onData;
    bool stopped = false;
};

size_t receive(char* data, size_t size, size_t count, void* user) {
    auto* reader = static_cast<Reader*>(user);
    long status = 0;
    curl_easy_getinfo(reader->easy, CURLINFO_RESPONSE_CODE, &status);
    if (!(*reader->onData)(status, std::string_view(data, size * count))) {
        reader->stopped = true;
        return 0;  // anything short of the full count aborts the transfer
    }
    return size * count;
}

void configure(CURL* easy, const HttpRequest& request, curl_slist* headers, Reader& reader, char* errorText) {
    const TransferLimits& limits = request.limits;
    const long silenceSeconds = std::max<long>(1, static_cast<long>(limits.silence.count()));
    curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, maxRedirects);
    curl_easy_setopt(easy, CURLOPT_UNRESTRICTED_AUTH, 0L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, silenceSeconds * 1000);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, silenceSeconds);
    curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(limits.whole.count()));
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errorText);
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &receive);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &reader);
    if (request.hasBody) {
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.body.data());
        if (request.method != "POST") curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    } else if (request.method == "HEAD") {
        curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else if (request.method != "GET") {
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    }
}

// The calling thread's multi handle, made on first use. Its connection cache
// outlives a call, so the next call to the same origin reuses the open
// connection instead of a new TCP (and TLS) handshake. One cache per thread:
// libcurl does not support one connection cache shared by concurrent threads.
// Nothing else is kept: no cookies, and each call sets all its options anew.
CURLM* threadConnections() {
    thread_local const std::unique_ptr<CURLM, MultiDeleter> multi(curl_multi_init());
    if (!multi) throw std::bad_alloc();
    return multi.get();
}

// Runs the exchange on the thread's multi handle, so that a cancellation from
// another thread can wake the wait at once. `onData` gets the final response's
// status and body piece by piece; returning false stops the transfer, which is then no
// failure. Returns the response status.
long run(const HttpRequest& request, const DataHandler& onData, const Cancellation& cancel) {
    initializeOnce();
    if (!isToken(request.method)) throw TransferError(TransferError::Kind::failed, "Invalid request method.");
    std::unique_ptr<CURL, EasyDeleter> easy(curl_easy_init());
    CURLM* const multi = threadConnections();
    if (!easy) throw std::bad_alloc();
    std::unique_ptr<curl_slist, ListDeleter> headers(headerList(request));
    Reader reader{easy.get(), &onData};
    char errorText[CURL_ERROR_SIZE] = {};
    configure(easy.get(), request, headers.get(), reader, errorText);

    curl_multi_add_handle(multi, easy.get());
    CURLcode result = CURLE_OK;
    bool cancelled = false;
    {
        const auto registration = cancel.onCancel([multi] { curl_multi_wakeup(multi); });
        for (;;) {
            if (cancel.isCancelled()) {
                cancelled = true;
                break;
            }
            int running = 0;
            if (curl_multi_perform(multi, &running) != CURLM_OK) {
                result = CURLE_OUT_OF_MEMORY;
                break;
            }
            if (running == 0) {
                int left = 0;
                while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
                    if (message->msg == CURLMSG_DONE) result = message->data.result;
                }
                break;
            }
            curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
        }
    }
    curl_multi_remove_handle(multi, easy.get());

    if (cancelled) throw TransferError(TransferError::Kind::cancelled, "The request was cancelled.");
    long status = 0;
    curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
    if (reader.stopped) return status;
    if (result == CURLE_WEIRD_SERVER_REPLY)
        throw TransferError(TransferError::Kind::notHTTP, "The server's reply is not HTTP.");
    if (result != CURLE_OK) {
        throw TransferError(TransferError::Kind::failed, errorText[0] ? errorText : curl_easy_strerror(result));
    }
    if (status == 0) throw TransferError(TransferError::Kind::notHTTP, "The server's reply is not HTTP.");
    return status;
}

std::string megabytes(std::size_t bytes) {
    return std::to_string(bytes >> 20) + " MB";
}

}  // namespace

HttpResponse perform(const HttpRequest& request, std::size_t maxBody, const Cancellation& cancel) {
    HttpResponse response;
    bool tooLarge = false;
    response.status = run(
        request,
        [&](long, std::string_view data) {
            if (data.size() > maxBody - response.body.size()) {
                tooLarge = true;
                return false;
            }
            response.body.append(data);
            return true;
        },
        cancel);
    if (tooLarge)
        throw TransferError(TransferError::Kind::tooLarge, "The reply is larger than " + megabytes(maxBody) + ".");
    return response;
}

long streamLines(const HttpRequest& request, const std::function<void(std::string_view)>& onLine,
                 const Cancellation& cancel) {
    std::string line;
    bool afterCR = false;  // a LF right after a CR ends no second line
    bool lineTooLong = false;
    const long status = run(
        request,
        [&](long code, std::string_view data) {
            if (code != 200) return false;
            for (char c : data) {
                if (c == '\n' && afterCR) {
                    afterCR = false;
                    continue;
                }
                afterCR = c == '\r';
                if (c == '\n' || c == '\r') {
                    onLine(line);
                    line.clear();
                } else if (line.size() < maxLine) {
                    line += c;
                } else {
                    lineTooLong = true;
                    return false;
                }
            }
            return true;
        },
        cancel);
    if (lineTooLong) throw TransferError(TransferError::Kind::tooLarge, "A line of the stream is longer than 1 MB.");
    // The last line counts even without a line ending.
    if (status == 200 && !line.empty()) onLine(line);
    return status;
}

std::optional<std::string> webURL(std::string_view text) {
    initializeOnce();
    URLHandle url(curl_url());
    if (!url || text.find('\0') != std::string_view::npos) return std::nullopt;
    if (curl_url_set(url.get(), CURLUPART_URL, std::string(text).c_str(), 0) != CURLUE_OK) return std::nullopt;
    char* part = nullptr;
    if (curl_url_get(url.get(), CURLUPART_SCHEME, &part, 0) != CURLUE_OK) return std::nullopt;
    const CurlText scheme(part);
    if (std::string_view(scheme.get()) != "http" && std::string_view(scheme.get()) != "https") return std::nullopt;
    if (curl_url_get(url.get(), CURLUPART_HOST, &part, 0) != CURLUE_OK) return std::nullopt;
    const CurlText host(part);
    if (!*host) return std::nullopt;
    if (curl_url_get(url.get(), CURLUPART_URL, &part, 0) != CURLUE_OK) return std::nullopt;
    const CurlText whole(part);
    return std::string(whole.get());
}

std::optional<std::string> appendingPath(std::string_view base, std::string_view path) {
    const auto normal = webURL(base);
    if (!normal) return std::nullopt;
    URLHandle url(curl_url());
    if (!url || curl_url_set(url.get(), CURLUPART_URL, normal->c_str(), 0) != CURLUE_OK) return std::nullopt;
    char* part = nullptr;
    std::string joined;
    if (curl_url_get(url.get(), CURLUPART_PATH, &part, 0) == CURLUE_OK) {
        const CurlText basePath(part);
        joined = basePath.get();
    }
    while (!joined.empty() && joined.back() == '/') joined.pop_back();
    joined += path;
    if (curl_url_set(url.get(), CURLUPART_PATH, joined.c_str(), 0) != CURLUE_OK) return std::nullopt;
    if (curl_url_get(url.get(), CURLUPART_URL, &part, 0) != CURLUE_OK) return std::nullopt;
    const CurlText whole(part);
    return std::string(whole.get());
}

std::string escapeComponent(std::string_view text) {
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(text.size());
    for (unsigned char c : text) {
        if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '_' ||
            c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 0x0f];
        }
    }
    return out;
}

bool isSafeHeaderValue(std::string_view value) {
    return value.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

bool isToken(std::string_view text) {
    static constexpr std::string_view symbols = "!#$%&'*+-.^_`|~";
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               symbols.find(c) != std::string_view::npos;
    });
}

}  // namespace mirel::Http
