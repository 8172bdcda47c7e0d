// Blob transfer: the API server hands out a storage URL and the bytes go to or
// from it directly, without the bearer token.
#include "core/sync/sync_client.h"

#include "core/sync/content_hash.h"
#include "core/sync/reply_fields.h"
#include "core/sync/wire.h"

namespace mirel {

namespace {

// The storage URL of a reply: a string that is an http or https URL.
std::optional<std::string> storageURL(const Json& reply) {
    const Json& url = Wire::field(reply, "url");
    if (!url.is_string()) return std::nullopt;
    return Http::webURL(url.get_ref<const std::string&>());
}

// The headers storage asked for: an object of strings, or none at all.
// Entries that could break the request are left out.
std::vector<std::pair<std::string, std::string>> storageHeaders(const Json& reply) {
    std::vector<std::pair<std::string, std::string>> headers;
    const Json& given = Wire::field(reply, "headers");
    if (!given.is_object()) return headers;
    for (const auto& [name, value] : given.items()) {
        if (!value.is_string()) return {};
        const auto& text = value.get_ref<const std::string&>();
        if (Http::isToken(name) && Http::isSafeHeaderValue(text)) headers.emplace_back(name, text);
    }
    return headers;
}

}  // namespace

HttpResponse SyncClient::transferWithStorage(HttpRequest request, std::size_t maxBody, const std::string& refusal,
                                             const Cancellation& cancel) const {
    request.limits = limits_;
    HttpResponse response;
    try {
        response = Http::perform(request, maxBody, cancel);
    } catch (const TransferError& failure) {
        // An answer that isn't HTTP is a refusal with no status; a broken transfer passes on as it is.
        if (failure.kind() == TransferError::Kind::notHTTP) throw SyncError::server(0, refusal);
        throw;
    }
    if (response.status < 200 || response.status > 299) throw SyncError::server(response.status, refusal);
    return response;
}

void SyncClient::ensureUploaded(const std::string& workspaceID, std::span<const std::uint8_t> data,
                                const std::string& sha, const std::string& contentType,
                                const Cancellation& cancel) const {
    const Json announcement = {{"workspace_id", workspaceID},
                               {"sha256", sha},
                               {"bytes", static_cast<std::int64_t>(data.size())},
                               {"content_type", contentType}};
    const Json reply = replyObject(request("POST", "/v1/uploads", announcement, true, false, cancel));
    if (stringAt(reply, "status") == "exists") return;

    if (const auto url = storageURL(reply)) {
        HttpRequest upload;
        upload.url = *url;
        upload.method = stringAt(reply, "method").value_or("PUT");
        if (!Http::isToken(upload.method)) throw SyncError::decode();
        upload.headers = storageHeaders(reply);
        upload.body.assign(reinterpret_cast<const char*>(data.data()), data.size());
        upload.hasBody = true;
        // Storage answers are not read; a small cap keeps a chatty one harmless.
        transferWithStorage(std::move(upload), 1u << 20, "storage refused the upload", cancel);
        request("POST", "/v1/uploads/complete", announcement, true, false, cancel);
        return;
    }
    if (saysUploadsDisabled(reply)) throw SyncError::uploadsDisabled();
    throw SyncError::decode();
}

std::vector<std::uint8_t> SyncClient::downloadBlob(const std::string& workspaceID, const std::string& sha,
                                                   const Cancellation& cancel) const {
    const SyncError mismatch = SyncError::server(0, "downloaded bytes don't match their hash");
    // A name that isn't a lower-case digest could never match, and must not reach the path.
    if (!ContentHash::isHexDigest(sha)) throw mismatch;
    const std::string path = "/v1/blobs/" + Http::escapeComponent(workspaceID) + "/" + sha;
    const auto url = storageURL(replyObject(request("GET", path, std::nullopt, true, false, cancel)));
    if (!url) throw SyncError::decode();

    HttpRequest fetch;
    fetch.url = *url;
    const HttpResponse blob =
        transferWithStorage(std::move(fetch), Http::maxBlobBytes, "storage refused the download", cancel);
    if (ContentHash::sha256(blob.body) != sha) throw mismatch;
    return std::vector<std::uint8_t>(blob.body.begin(), blob.body.end());
}

}  // namespace mirel
