// Blob transfer: the API hands out signed URLs on this server, and the
// storage routes move the bytes without a bearer token.
#include "server/api.h"
#include "server/refusal.h"

#include "core/sync/content_hash.h"

#include <fstream>

namespace mirel::server {

namespace {

constexpr std::size_t kReadChunk = 64 * 1024;

const char* kWorkspacePattern = "([A-Za-z0-9_-]{1,64})";
const char* kHashPattern = "([0-9a-f]{64})";

struct UploadRequest {
    std::string workspaceID;
    std::string sha;
    std::uint64_t bytes;
    std::string contentType;
};

UploadRequest readUploadRequest(const Json& body) {
    if (!body.is_object()) throw badRequest("the body must be a JSON object");
    const Json ws = body.value("workspace_id", Json());
    const Json sha = body.value("sha256", Json());
    const Json bytes = body.value("bytes", Json());
    if (!ws.is_string()) throw badRequest("workspace_id is missing");
    if (!sha.is_string() || !ContentHash::isHexDigest(sha.get<std::string>())) {
        throw badRequest("sha256 must be 64 lower-case hexadecimal digits");
    }
    if (!bytes.is_number_integer() || bytes.get<std::int64_t>() < 0) throw badRequest("bytes must be a size");
    const Json type = body.value("content_type", Json(""));
    return {ws.get<std::string>(), sha.get<std::string>(), bytes.get<std::uint64_t>(),
            type.is_string() ? type.get<std::string>() : std::string()};
}

void requireUploads(bool enabled) {
    if (!enabled) throw Refusal(403, "uploads_disabled", "Screenshot uploads are switched off on this server.");
}

Refusal storageRefusal(BlobStore::Signature signature) {
    if (signature == BlobStore::Signature::expired) return Refusal(403, "url_expired", "This link has expired.");
    return Refusal(403, "signature_invalid", "This link is not valid.");
}

}  // namespace

void Api::receiveUpload(const httplib::Request& request, httplib::Response& response,
                        const httplib::ContentReader& reader) {
    requireUploads(settings_.uploadsEnabled);
    const std::string ws = request.matches[1];
    const std::string sha = request.matches[2];
    const std::string bytes = request.get_param_value("bytes");
    const auto signature = blobs_.check("PUT", ws, sha, bytes, request.get_param_value("expires"),
                                        request.get_param_value("sig"));
    if (signature != BlobStore::Signature::valid) throw storageRefusal(signature);
    auto db = storage_.connection();
    const auto receipt = blobs_.receive(
        *db, ws, sha, std::stoull(bytes), request.get_header_value("Content-Type"),
        [&](const std::function<bool(const char*, std::size_t)>& sink) {
            return reader([&](const char* data, std::size_t length) { return sink(data, length); });
        });
    switch (receipt) {
        case BlobStore::Receipt::stored:
            return replyJSON(response, Json{{"status", "stored"}});
        case BlobStore::Receipt::tooLarge:
            throw Refusal(413, "too_large", "This file is larger than the server takes.");
        case BlobStore::Receipt::wrongSize:
            throw Refusal(400, "size_mismatch", "The body is not the size that was announced.");
        case BlobStore::Receipt::wrongHash:
            throw Refusal(422, "hash_mismatch", "The body does not match its SHA-256.");
        case BlobStore::Receipt::interrupted:
            throw Refusal(400, "interrupted", "The upload did not arrive whole.");
    }
}

void Api::installBlobs(httplib::Server& server) {
    server.Post("/v1/uploads", [this](const httplib::Request& request, httplib::Response& response) {
        auto db = storage_.connection();
        const User user = authenticate(request, *db);
        requireUploads(settings_.uploadsEnabled);
        const UploadRequest upload = readUploadRequest(jsonBody(request));
        memberWorkspace(*db, user, upload.workspaceID);
        if (upload.bytes > blobs_.settings().maxBytes) {
            throw Refusal(413, "too_large", "This file is larger than the server takes.");
        }
        if (blobs_.has(*db, upload.workspaceID, upload.sha)) return replyJSON(response, Json{{"status", "exists"}});
        replyJSON(response, Json{{"status", "upload"},
                                 {"url", blobs_.uploadURL(upload.workspaceID, upload.sha, upload.bytes)},
                                 {"method", "PUT"},
                                 {"headers", {{"Content-Type", BlobStore::servedType(upload.contentType)}}}});
    });

    server.Post("/v1/uploads/complete", [this](const httplib::Request& request, httplib::Response& response) {
        auto db = storage_.connection();
        const User user = authenticate(request, *db);
        const UploadRequest upload = readUploadRequest(jsonBody(request));
        memberWorkspace(*db, user, upload.workspaceID);
        if (!blobs_.has(*db, upload.workspaceID, upload.sha)) {
            throw Refusal(409, "not_uploaded", "The server has not received this file.");
        }
        replyJSON(response, Json{{"status", "stored"}});
    });

    server.Get(std::string("/v1/blobs/") + kWorkspacePattern + "/" + kHashPattern,
               [this](const httplib::Request& request, httplib::Response& response) {
                   auto db = storage_.connection();
                   const User user = authenticate(request, *db);
                   const std::string ws = memberWorkspace(*db, user, request.matches[1]);
                   const std::string sha = request.matches[2];
                   if (!blobs_.find(*db, ws, sha)) throw Refusal(404, "not_found", "The server has no such file.");
                   replyJSON(response, Json{{"url", blobs_.downloadURL(ws, sha)}});
               });

    server.Put(std::string("/storage/") + kWorkspacePattern + "/" + kHashPattern,
               [this](const httplib::Request& request, httplib::Response& response,
                      const httplib::ContentReader& reader) {
                   try {
                       receiveUpload(request, response, reader);
                   } catch (const Refusal&) {
                       // An unread body can't be left on a kept-alive connection.
                       response.set_header("Connection", "close");
                       throw;
                   }
               });

    server.Get(std::string("/storage/") + kWorkspacePattern + "/" + kHashPattern,
               [this](const httplib::Request& request, httplib::Response& response) {
                   const std::string ws = request.matches[1];
                   const std::string sha = request.matches[2];
                   const auto signature = blobs_.check("GET", ws, sha, "", request.get_param_value("expires"),
                                                       request.get_param_value("sig"));
                   if (signature != BlobStore::Signature::valid) throw storageRefusal(signature);
                   auto db = storage_.connection();
                   auto stored = blobs_.find(*db, ws, sha);
                   if (!stored) throw Refusal(404, "not_found", "The server has no such file.");
                   auto file = std::make_shared<std::ifstream>(stored->path, std::ios::binary);
                   if (!*file) throw Refusal(404, "not_found", "The server has no such file.");
                   response.set_header("X-Content-Type-Options", "nosniff");
                   response.set_header("Content-Security-Policy", "default-src 'none'; sandbox");
                   response.set_header("Cache-Control", "private, max-age=3600");
                   response.set_content_provider(
                       stored->bytes, stored->contentType,
                       [file](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
                           std::string chunk(std::min(length, kReadChunk), '\0');
                           file->seekg(static_cast<std::streamoff>(offset));
                           file->read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
                           const auto got = static_cast<std::size_t>(file->gcount());
                           return got > 0 && sink.write(chunk.data(), got);
                       });
               });
}

}  // namespace mirel::server
