// Image files travel apart from the sync exchange, by content hash: before an
// image row's change goes out its files must be on the server, and after a
// pull the files of images from other devices are fetched.
#include "core/sync/sync_engine.h"

#include "core/platform/change_signal.h"
#include "core/platform/file_descriptor.h"
#include "core/platform/file_io.h"
#include "core/platform/text.h"
#include "core/store/mirel_paths.h"
#include "core/sync/content_hash.h"
#include "core/sync/http_transfer.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <thread>

namespace mirel {

namespace {

constexpr std::int64_t downloadsPerRun = 30;
constexpr std::size_t uploadsAtOnce = 4;

}  // namespace

std::string SyncEngine::contentType(const std::string& path) {
    const std::string ext = asciiLower(std::filesystem::path(path).extension().string());
    if (ext == ".jpg" || ext == ".jpeg") return "image/jpeg";
    if (ext == ".webp") return "image/webp";
    return "image/png";
}

SyncEngine::ImageKind SyncEngine::imageKind(std::span<const std::uint8_t> data) {
    const auto startsWith = [&](std::initializer_list<std::uint8_t> prefix, std::size_t at = 0) {
        return data.size() >= at + prefix.size() && std::equal(prefix.begin(), prefix.end(), data.begin() + at);
    };
    if (startsWith({0x89, 'P', 'N', 'G'})) return {"png", "image/png"};
    if (startsWith({0xFF, 0xD8})) return {"jpg", "image/jpeg"};
    if (data.size() >= 13 && startsWith({'R', 'I', 'F', 'F'}) && startsWith({'W', 'E', 'B', 'P'}, 8)) {
        return {"webp", "image/webp"};
    }
    return {"png", "image/png"};
}

bool SyncEngine::isPlainFileName(std::string_view text) {
    if (text.empty() || text.size() > 64) return false;
    return std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
    });
}

std::optional<SyncEngine::ImageBlobs> SyncEngine::blobsToSend(const CaptureImage& image) {
    const auto capture = store_.rawCapture(image.captureID);
    if (!capture || !capture->workspaceID) return std::nullopt;  // not shared: nothing to send
    using File = ImageBlobs::File;
    ImageBlobs blobs;
    blobs.imageID = image.id;
    blobs.workspaceID = *capture->workspaceID;
    blobs.files = {File{image.imagePath.empty() ? std::nullopt : std::optional(image.imagePath),
                        MirelPaths::imageURL, image.originalSHA256},
                   File{image.annotatedPath, MirelPaths::imageURL, image.markedSHA256},
                   File{image.thumbPath, MirelPaths::thumbURL, image.thumbSHA256}};
    return blobs;
}

void SyncEngine::uploadFilesOf(const SyncClient& client, ImageBlobs& image, const Cancellation& cancel) {
    std::vector<std::string> onServer;  // hashes of this image's files known to be there
    for (ImageBlobs::File& file : image.files) {
        if (!file.path) continue;
        // A stored path that climbs out of the library locates nothing, and
        // reading nothing fails: the image is skipped with a warning.
        const std::vector<std::uint8_t> data = readRegularFile(file.locate(*file.path), Http::maxBlobBytes);
        const std::string sha = ContentHash::sha256(data);
        // A stored hash that matches is on the server already, and so is an
        // earlier file's (a small screenshot is its own thumbnail).
        if (file.hash != sha && std::find(onServer.begin(), onServer.end(), sha) == onServer.end()) {
            client.ensureUploaded(image.workspaceID, data, sha, contentType(*file.path), cancel);
        }
        file.hash = sha;
        onServer.push_back(sha);
    }
}

asio::awaitable<void> SyncEngine::ensureBlobs(std::vector<ImageBlobs>& images) {
    if (images.empty()) co_return;
    co_await call([this, &images](const Cancellation& cancel) {
        // Each upload is a few round trips that mostly wait on the other
        // side, so several images travel side by side. A failure that is not
        // the image's own (the server, the network, the session) stops the
        // taking of further images: the run ends on it.
        std::atomic<std::size_t> next{0};
        std::atomic<bool> stopped{false};
        const auto work = [&] {
            for (std::size_t at; !stopped && (at = next++) < images.size();) {
                ImageBlobs& image = images[at];
                using Outcome = ImageBlobs::Outcome;
                try {
                    uploadFilesOf(client_, image, cancel);
                    image.outcome = Outcome::sent;
                } catch (const SyncError& error) {
                    if (error.kind() == SyncError::Kind::uploadsDisabled) {
                        image.outcome = Outcome::held;
                    } else {
                        image.outcome = Outcome::endsRun;
                        image.runEnding = std::current_exception();
                        stopped = true;
                    }
                } catch (const std::exception& error) {
                    image.outcome = Outcome::skipped;
                    image.skipReason = error.what();
                } catch (...) {
                    image.outcome = Outcome::skipped;
                    image.skipReason = "unexpected failure";
                }
            }
        };
        std::vector<std::jthread> helpers;
        const std::size_t helperCount = std::min<std::size_t>(uploadsAtOnce, images.size()) - 1;
        for (std::size_t i = 0; i < helperCount; ++i) helpers.emplace_back(work);
        work();
    });
}

asio::awaitable<void> SyncEngine::downloadPendingImages() {
    const auto awaiting = store_.imagesAwaitingDownload(downloadsPerRun);
    if (awaiting.empty()) co_return;
    // Files are made durable once for the whole batch, not one fsync each,
    // and a path is stored only after that.
    std::vector<DownloadedImage> downloaded;
    for (const auto& [image, workspaceID] : awaiting) {  // only rows with plain names are offered
        std::optional<std::string> failure;
        try {
            downloaded.push_back(co_await downloadImage(image, workspaceID));
        } catch (const SyncError& error) {
            if (error.kind() == SyncError::Kind::unauthorized || error.kind() == SyncError::Kind::offline) {
                storeDownloadedImages(downloaded);  // what was finished before the run ends
                throw;
            }
            failure = error.what();
        } catch (const std::exception& error) {
            failure = error.what();
        }
        if (failure) store_.log("warn", "Download for image " + id8(image.id) + " failed: " + *failure);
    }
    storeDownloadedImages(downloaded);
    ChangeSignal::post();
}

void SyncEngine::storeDownloadedImages(const std::vector<DownloadedImage>& images) {
    if (images.empty()) return;
    const auto warn = [this](const std::string& id, const char* failure) {
        store_.log("warn", "Download for image " + id8(id) + " failed: " + failure);
    };
    try {
        syncFileSystems({MirelPaths::capturesRoot(), MirelPaths::thumbsRoot()});
        // One commit for the batch; an image that fails takes back only its own writes.
        store_.transaction([&] {
            for (const DownloadedImage& image : images) {
                try {
                    store_.transaction([&] {
                        store_.setImagePaths(image.id, image.imagePath, image.annotatedPath, image.thumbPath);
                        if (const auto stored = store_.rawImage(image.id)) store_.refreshCover(stored->captureID);
                    });
                } catch (const std::exception& error) {
                    warn(image.id, error.what());
                }
            }
        });
    } catch (const std::exception& error) {
        // Nothing of the batch was stored (its warnings included).
        for (const DownloadedImage& image : images) warn(image.id, error.what());
    }
}

asio::awaitable<SyncEngine::DownloadedImage> SyncEngine::downloadImage(const CaptureImage& image,
                                                                       const std::string& workspaceID) {
    DownloadedImage paths{image.id, image.imagePath, image.annotatedPath, image.thumbPath};
    // Named, not temporaries: g++ 12 destroys a temporary argument of a
    // coroutine called in a co_await twice.
    const std::filesystem::path capturesRoot = MirelPaths::capturesRoot(), thumbsRoot = MirelPaths::thumbsRoot();
    const std::string markedID = image.id + "-marked";
    FetchedBlob last;
    if (paths.imagePath.empty() && image.originalSHA256) {
        paths.imagePath =
            co_await fetchImageFile(workspaceID, *image.originalSHA256, image.id, image.createdAt, capturesRoot, last);
    }
    // Equal hashes: the image has no separate marked-up file.
    if (!paths.annotatedPath && image.markedSHA256 && image.markedSHA256 != image.originalSHA256) {
        paths.annotatedPath =
            co_await fetchImageFile(workspaceID, *image.markedSHA256, markedID, image.createdAt, capturesRoot, last);
    }
    if (!paths.thumbPath && image.thumbSHA256) {
        paths.thumbPath =
            co_await fetchImageFile(workspaceID, *image.thumbSHA256, image.id, image.createdAt, thumbsRoot, last);
    }
    co_return paths;
}

asio::awaitable<std::string> SyncEngine::fetchImageFile(const std::string& workspaceID, const std::string& sha,
                                                        const std::string& nameID, Date createdAt,
                                                        const std::filesystem::path& root, FetchedBlob& last) {
    if (last.sha != sha) {
        last = {};  // not held twice while the next one arrives
        last.bytes = co_await call([this, &workspaceID, &sha](const Cancellation& cancel) {
            return client_.downloadBlob(workspaceID, sha, cancel);
        });
        last.sha = sha;
    }
    const std::vector<std::uint8_t>& data = last.bytes;
    // The extension comes from the bytes, never from a stored name.
    const std::string relative = MirelPaths::relativeImagePath(nameID, createdAt, imageKind(data).ext);
    const std::filesystem::path file = root / relative;
    MirelPaths::ensureParentDirectory(file);
    writeFileAtomically(file, std::string_view(reinterpret_cast<const char*>(data.data()), data.size()), std::nullopt,
                        Durability::byCaller);
    co_return relative;
}

}  // namespace mirel
