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
#include "core/sync/side_by_side.h"

#include <algorithm>
#include <array>

namespace mirel {

namespace {

constexpr std::int64_t downloadsPerRun = 30;
// Uploads and downloads each go this many side by side; eight measured
// slower than four.
constexpr std::size_t transfersAtOnce = 4;

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
        // A failure that is not the image's own (the server, the network,
        // the session) stops the taking of further images: the run ends on it.
        sideBySide(images, transfersAtOnce, [&](ImageBlobs& image) {
            using Outcome = ImageBlobs::Outcome;
            try {
                uploadFilesOf(client_, image, cancel);
                image.outcome = Outcome::sent;
            } catch (const SyncError& error) {
                if (error.kind() != SyncError::Kind::uploadsDisabled) {
                    image.outcome = Outcome::endsRun;
                    image.runEnding = std::current_exception();
                    return false;
                }
                image.outcome = Outcome::held;
            } catch (const std::exception& error) {
                image.outcome = Outcome::skipped;
                image.skipReason = error.what();
            } catch (...) {
                image.outcome = Outcome::skipped;
                image.skipReason = "unexpected failure";
            }
            return true;
        });
    });
}

asio::awaitable<void> SyncEngine::downloadPendingImages() {
    std::vector<ImageDownload> batch;
    for (auto& wanted : store_.imagesAwaitingDownload(downloadsPerRun)) {  // only plain names are offered
        batch.emplace_back(std::move(wanted));
    }
    if (batch.empty()) co_return;
    co_await call([this, &batch](const Cancellation& cancel) {
        // Losing the session or the network ends the run; any other failure
        // is the image's own, and the others go on.
        sideBySide(batch, transfersAtOnce, [&](ImageDownload& download) {
            try {
                download.files = fetchFilesOf(client_, download.wanted.image, download.wanted.workspaceID, cancel);
            } catch (const SyncError& error) {
                if (error.kind() == SyncError::Kind::unauthorized || error.kind() == SyncError::Kind::offline) {
                    download.runEnding = std::current_exception();
                    return false;
                }
                download.failure = error.what();
            } catch (const std::exception& error) {
                download.failure = error.what();
            } catch (...) {
                download.failure = "unexpected failure";
            }
            return true;
        });
    });
    // Files are made durable once for the whole batch, not one fsync each,
    // and a path is stored only after that; on a run-ending failure, what
    // was finished before it is kept.
    std::vector<DownloadedImage> downloaded;
    std::exception_ptr runEnding;
    for (ImageDownload& download : batch) {
        if (download.files) downloaded.push_back(std::move(*download.files));
        if (download.failure) {
            store_.log("warn", "Download for image " + id8(download.wanted.image.id) + " failed: " + *download.failure);
        }
        if (download.runEnding && !runEnding) runEnding = download.runEnding;
    }
    storeDownloadedImages(downloaded);
    if (runEnding) std::rethrow_exception(runEnding);
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

SyncEngine::DownloadedImage SyncEngine::fetchFilesOf(const SyncClient& client, const CaptureImage& image,
                                                    const std::string& workspaceID, const Cancellation& cancel) {
    DownloadedImage paths{image.id, image.imagePath, image.annotatedPath, image.thumbPath};
    // The last blob fetched, so that a file with the same hash (a small
    // screenshot is its own thumbnail) is not fetched twice.
    std::string lastSHA;
    std::vector<std::uint8_t> last;
    const auto fetch = [&](const std::string& sha, const std::string& nameID, const std::filesystem::path& root) {
        if (lastSHA != sha) {
            last = {};  // not held twice while the next one arrives
            last = client.downloadBlob(workspaceID, sha, cancel);
            lastSHA = sha;
        }
        // The extension comes from the bytes, never from a stored name.
        const std::string relative = MirelPaths::relativeImagePath(nameID, image.createdAt, imageKind(last).ext);
        const std::filesystem::path file = root / relative;
        MirelPaths::ensureParentDirectory(file);
        writeFileAtomically(file, std::string_view(reinterpret_cast<const char*>(last.data()), last.size()),
                            std::nullopt, Durability::byCaller);
        return relative;
    };
    if (image.isAwaitingDownload()) {
        paths.imagePath = fetch(*image.originalSHA256, image.id, MirelPaths::capturesRoot());
    }
    // Equal hashes: the image has no separate marked-up file.
    if (!paths.annotatedPath && image.markedSHA256 && image.markedSHA256 != image.originalSHA256) {
        paths.annotatedPath = fetch(*image.markedSHA256, image.id + "-marked", MirelPaths::capturesRoot());
    }
    if (!paths.thumbPath && image.thumbSHA256) {
        paths.thumbPath = fetch(*image.thumbSHA256, image.id, MirelPaths::thumbsRoot());
    }
    return paths;
}

}  // namespace mirel
