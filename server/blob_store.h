#pragma once
// Screenshot files, named by their SHA-256 within a workspace, kept under
// DIR/blobs/{workspace}/{ab}/{sha}. Transfers go to signed URLs on this server,
// so that no bearer token travels with the bytes.
#include "server/sqlite.h"
#include "server/storage.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

namespace mirel::server {

struct BlobSettings {
    std::string publicURL;  // without a trailing "/"
    double urlLifetime = 900;
    std::uint64_t maxBytes = 64ull << 20;
};

class BlobStore {
public:
    BlobStore(Storage& storage, BlobSettings settings);

    const BlobSettings& settings() const { return settings_; }
    bool has(Connection& db, const std::string& workspaceID, const std::string& sha) const;

    std::string uploadURL(const std::string& workspaceID, const std::string& sha, std::uint64_t bytes) const;
    std::string downloadURL(const std::string& workspaceID, const std::string& sha) const;

    enum class Signature { valid, invalid, expired };
    // `bytes` is empty for downloads.
    Signature check(const std::string& method, const std::string& workspaceID, const std::string& sha,
                    const std::string& bytes, const std::string& expires, const std::string& signature) const;

    enum class Receipt { stored, tooLarge, wrongSize, wrongHash, interrupted };
    // Feeds the body through `source` into a temporary file and keeps it only
    // when its size and SHA-256 are the declared ones.
    using ChunkSource = std::function<bool(const std::function<bool(const char*, std::size_t)>&)>;
    Receipt receive(Connection& db, const std::string& workspaceID, const std::string& sha, std::uint64_t bytes,
                    const std::string& contentType, const ChunkSource& source);

    // The stored file and the content type to send it with; absent when missing.
    struct Stored {
        std::filesystem::path path;
        std::string contentType;
        std::uint64_t bytes;
    };
    std::optional<Stored> find(Connection& db, const std::string& workspaceID, const std::string& sha) const;

    // Only image types are served back; anything else goes out as plain bytes.
    static std::string servedType(const std::string& contentType);

private:
    std::filesystem::path pathFor(const std::string& workspaceID, const std::string& sha) const;
    std::string signature(const std::string& method, const std::string& workspaceID, const std::string& sha,
                          const std::string& bytes, const std::string& expires) const;

    // Constant after construction.
    Storage& storage_;
    BlobSettings settings_;
};

}  // namespace mirel::server
