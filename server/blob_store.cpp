#include "server/blob_store.h"

#include "server/crypto.h"
#include "server/record_schema.h"
#include "server/unique_fd.h"

#include "core/platform/clock.h"
#include "core/platform/file_descriptor.h"
#include "core/sync/content_hash.h"

#include <fcntl.h>
#include <unistd.h>

#include <cmath>
#include <stdexcept>

namespace mirel::server {

namespace {

// Removes the temporary file unless it was moved into place.
struct TemporaryFile {
    std::filesystem::path path;
    bool kept = false;
    ~TemporaryFile() {
        std::error_code ignored;
        if (!kept) std::filesystem::remove(path, ignored);
    }
};

}  // namespace

BlobStore::BlobStore(Storage& storage, BlobSettings settings) : storage_(storage), settings_(std::move(settings)) {}

std::filesystem::path BlobStore::pathFor(const std::string& workspaceID, const std::string& sha) const {
    // Both parts are checked here once more: nothing else ever names a file.
    if (!isRecordID(workspaceID) || workspaceID.find('.') != std::string::npos || !ContentHash::isHexDigest(sha)) {
        throw std::invalid_argument("not a blob name");
    }
    return storage_.blobsFolder() / workspaceID / sha.substr(0, 2) / sha;
}

bool BlobStore::has(Connection& db, const std::string& workspaceID, const std::string& sha) const {
    return db.integer("SELECT 1 FROM blobs WHERE workspace_id = ? AND sha256 = ?;", {workspaceID, sha}).has_value();
}

std::string BlobStore::signature(const std::string& method, const std::string& workspaceID, const std::string& sha,
                                 const std::string& bytes, const std::string& expires) const {
    return hmacHex(storage_.urlSigningKey(), method + "\n" + workspaceID + "\n" + sha + "\n" + bytes + "\n" + expires);
}

std::string BlobStore::uploadURL(const std::string& workspaceID, const std::string& sha, std::uint64_t bytes) const {
    const std::string expires = std::to_string(static_cast<std::int64_t>(std::ceil(Clock::now() + settings_.urlLifetime)));
    const std::string size = std::to_string(bytes);
    return settings_.publicURL + "/storage/" + workspaceID + "/" + sha + "?bytes=" + size + "&expires=" + expires +
           "&sig=" + signature("PUT", workspaceID, sha, size, expires);
}

std::string BlobStore::downloadURL(const std::string& workspaceID, const std::string& sha) const {
    const std::string expires = std::to_string(static_cast<std::int64_t>(std::ceil(Clock::now() + settings_.urlLifetime)));
    return settings_.publicURL + "/storage/" + workspaceID + "/" + sha + "?expires=" + expires +
           "&sig=" + signature("GET", workspaceID, sha, "", expires);
}

BlobStore::Signature BlobStore::check(const std::string& method, const std::string& workspaceID, const std::string& sha,
                                      const std::string& bytes, const std::string& expires,
                                      const std::string& given) const {
    if (!constantTimeEquals(signature(method, workspaceID, sha, bytes, expires), given)) return Signature::invalid;
    // The signature covers `expires`, so it parses: it was written by this server.
    if (static_cast<double>(std::stoll(expires)) < Clock::now()) return Signature::expired;
    return Signature::valid;
}

BlobStore::Receipt BlobStore::receive(Connection& db, const std::string& workspaceID, const std::string& sha,
                                      std::uint64_t bytes, const std::string& contentType, const ChunkSource& source) {
    if (bytes > settings_.maxBytes) return Receipt::tooLarge;
    const std::filesystem::path target = pathFor(workspaceID, sha);
    TemporaryFile temporary{storage_.blobsFolder() / "incoming" / (randomToken() + ".part")};
    UniqueFD fd(::open(temporary.path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (fd.get() < 0) throw std::runtime_error("can't write " + temporary.path.string());

    Sha256Stream digest;
    std::uint64_t received = 0;
    bool tooMuch = false;
    bool writeFailed = false;
    const bool complete = source([&](const char* data, std::size_t length) {
        received += length;
        if (received > bytes) {
            tooMuch = true;
            return false;
        }
        digest.update(data, length);
        if (!writeAll(fd.get(), std::string_view(data, length))) {
            writeFailed = true;
            return false;
        }
        return true;
    });
    if (writeFailed) throw std::runtime_error("can't write " + temporary.path.string());
    if (tooMuch) return Receipt::wrongSize;
    if (!complete) return Receipt::interrupted;
    if (received != bytes) return Receipt::wrongSize;
    if (digest.hexDigest() != sha) return Receipt::wrongHash;
    if (::fsync(fd.get()) != 0) throw std::runtime_error("can't write " + temporary.path.string());

    std::filesystem::create_directories(target.parent_path());
    std::filesystem::rename(temporary.path, target);
    temporary.kept = true;
    db.run("INSERT INTO blobs (workspace_id, sha256, bytes, content_type, stored_at) VALUES (?,?,?,?,?) "
           "ON CONFLICT(workspace_id, sha256) DO NOTHING;",
           {workspaceID, sha, static_cast<std::int64_t>(bytes), servedType(contentType), Clock::now()});
    return Receipt::stored;
}

std::optional<BlobStore::Stored> BlobStore::find(Connection& db, const std::string& workspaceID,
                                                 const std::string& sha) const {
    auto s = db.prepare("SELECT bytes, content_type FROM blobs WHERE workspace_id = ? AND sha256 = ?;");
    s.bind(1, workspaceID).bind(2, sha);
    if (!s.step()) return std::nullopt;
    Stored stored{pathFor(workspaceID, sha), s.text(1), static_cast<std::uint64_t>(s.integer(0))};
    std::error_code error;
    if (std::filesystem::file_size(stored.path, error) != stored.bytes || error) return std::nullopt;
    return stored;
}

std::string BlobStore::servedType(const std::string& contentType) {
    for (const char* type : {"image/png", "image/jpeg", "image/webp", "image/gif"}) {
        if (contentType == type) return type;
    }
    return "application/octet-stream";
}

}  // namespace mirel::server
