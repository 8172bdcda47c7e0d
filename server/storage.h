#pragma once
// The data folder: DIR/server.sqlite (WAL), DIR/blobs/ and DIR/url-signing.key.
#include "server/sqlite.h"

#include <filesystem>
#include <string>

namespace mirel::server {

class Storage {
public:
    // Makes the folder and its parts when missing and brings the schema up to
    // date. Throws StorageError or the file system's error.
    explicit Storage(std::filesystem::path folder);

    const std::filesystem::path& folder() const { return folder_; }
    std::filesystem::path blobsFolder() const { return folder_ / "blobs"; }
    ConnectionPool::Lease connection() { return pool_.acquire(); }
    // 32 random bytes, made on first use and kept 0600 in the folder: the key
    // that signs storage URLs.
    const std::string& urlSigningKey() const { return urlSigningKey_; }

    // The global change sequence: the highest number handed out so far.
    static std::int64_t currentSequence(Connection& connection);
    // Hands out the next number; call inside a write transaction.
    static std::int64_t nextSequence(Connection& connection);

private:
    // Constant after construction.
    std::filesystem::path folder_;
    ConnectionPool pool_;
    std::string urlSigningKey_;
};

}  // namespace mirel::server
