#include "host/capture_filing.h"

#include "core/annotation/annotation_renderer.h"
#include "core/platform/clock.h"
#include "core/platform/text.h"
#include "core/platform/file_descriptor.h"
#include "core/store/mirel_paths.h"
#include "host/temporary_files.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <system_error>

namespace fs = std::filesystem;

namespace mirel::host {

namespace {

std::string extensionOf(ImageCodec::Format format) {
    switch (format) {
        case ImageCodec::Format::jpeg: return "jpg";
        case ImageCodec::Format::webp: return "webp";
        default: return "png";
    }
}

std::string kindName(ImageCodec::Format format) {
    switch (format) {
        case ImageCodec::Format::jpeg: return "JPEG";
        case ImageCodec::Format::webp: return "WebP";
        default: return "PNG";
    }
}

// The files of one filing. Each is written whole as a temporary file first;
// place() moves them all into the library, and unless keep() is called they
// are removed again, wherever they are.
class WrittenFiles {
public:
    WrittenFiles() = default;
    WrittenFiles(const WrittenFiles&) = delete;
    WrittenFiles& operator=(const WrittenFiles&) = delete;
    ~WrittenFiles() { removeAll(); }

    void write(const fs::path& file, const std::vector<std::uint8_t>& bytes) {
        const fs::path temporary = TemporaryFiles::make();
        staged_.push_back({temporary, file});
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        out.close();
        if (!out) throw FilingError("could not write " + file.string() + ": " + std::strerror(errno));
    }

    // Renames every file into its place, so a reader never sees half an image.
    void place() {
        for (auto& [temporary, file] : staged_) {
            rememberMissingFolders(file.parent_path());
            MirelPaths::ensureParentDirectory(file);
            std::error_code error;
            fs::rename(temporary, file, error);
            if (error) throw FilingError("could not write " + file.string() + ": " + error.message());
            placed_.push_back(file);
        }
    }

    // The filing succeeded: the files stay.
    void keep() {
        staged_.clear();
        placed_.clear();
        folders_.clear();
    }

    void removeAll() noexcept {
        std::error_code ignored;
        for (const auto& staged : staged_) fs::remove(staged.temporary, ignored);
        for (const auto& file : placed_) fs::remove(file, ignored);
        // Deepest first; a folder that holds anything else stays.
        for (auto folder = folders_.rbegin(); folder != folders_.rend(); ++folder) fs::remove(*folder, ignored);
        keep();
    }

private:
    void rememberMissingFolders(fs::path folder) {
        std::vector<fs::path> missing;
        std::error_code error;
        while (!folder.empty() && !fs::exists(folder, error) && folder != folder.parent_path()) {
            missing.push_back(folder);
            folder = folder.parent_path();
        }
        folders_.insert(folders_.end(), missing.rbegin(), missing.rend());
    }

    struct Staged {
        fs::path temporary;
        fs::path file;
    };
    std::vector<Staged> staged_;
    std::vector<fs::path> placed_;
    std::vector<fs::path> folders_;  // created by this filing, outermost first
};

// Thumbnails and marked-up copies stay on disk, so they are worth the
// slower, smaller encoding.
std::vector<std::uint8_t> encodePNG(const Image& image, const std::string& what) {
    auto png = ImageCodec::encodePNG(image, ImageCodec::PNGCompression::small);
    if (!png) throw FilingError("could not encode " + what + " as PNG");
    return std::move(*png);
}

Image thumbnail(const Image& image) {
    const auto size = ImageCodec::fitWithin(image.width, image.height, thumbnailEdge);
    if (!size) return image;
    auto small = ImageCodec::resample(image, size->first, size->second);
    if (!small) throw FilingError("could not make a thumbnail");
    return std::move(*small);
}

// One image row with the files that go with it, all made before any write.
struct PlannedImage {
    CaptureImage row;
    const std::vector<std::uint8_t>* original = nullptr;
    std::vector<std::uint8_t> thumbPNG;
    std::optional<std::vector<std::uint8_t>> markedPNG;
};

std::vector<PlannedImage> planImages(const FilingRequest& request, const std::string& captureID, Date date) {
    std::vector<PlannedImage> planned;
    for (std::size_t i = 0; i < request.images.size(); ++i) {
        const PreparedImage& prepared = request.images[i];
        PlannedImage plan;
        plan.original = &prepared.bytes;
        CaptureImage& row = plan.row;
        row.id = newID();
        row.captureID = captureID;
        row.position = -1;
        row.createdAt = date;
        row.imagePath = MirelPaths::relativeImagePath(row.id, date, prepared.ext);
        row.width = prepared.image.width;
        row.height = prepared.image.height;
        row.bytes = static_cast<std::int64_t>(prepared.bytes.size());

        const Image* shown = &prepared.image;
        std::optional<Image> marked;
        if (i == 0 && request.annotation) {
            marked = AnnotationRenderer::render(*request.annotation, prepared.image);
            if (!marked) throw FilingError("could not draw the annotation onto the first image");
            plan.markedPNG = encodePNG(*marked, "the marked-up image");
            row.annotatedPath = MirelPaths::relativeImagePath(row.id + "-marked", date, "png");
            row.annotationJSON = request.annotation->encoded();
            if (!row.annotationJSON) throw FilingError("could not write the annotation as JSON");
            shown = &*marked;  // the list shows the marked-up file, so its thumbnail does too
        }
        plan.thumbPNG = encodePNG(thumbnail(*shown), "a thumbnail");
        row.thumbPath = MirelPaths::relativeImagePath(row.id, date, "png");
        planned.push_back(std::move(plan));
        if (request.onImageReady) request.onImageReady(planned.size());
    }
    return planned;
}

}  // namespace

PreparedImage prepareImageBytes(std::vector<std::uint8_t> bytes, const std::string& label) {
    const auto format = ImageCodec::sniff(bytes.data(), bytes.size());
    if (format == ImageCodec::Format::unknown) throw FilingError(label + " is not a PNG, JPEG or WebP image");
    auto image = ImageCodec::decode(bytes);
    if (!image || image->width <= 0 || image->height <= 0) {
        throw FilingError(label + " could not be decoded as " + kindName(format) + " (damaged, or too large)");
    }
    return PreparedImage{std::move(bytes), std::move(*image), extensionOf(format)};
}

PreparedImage prepareImageFile(const fs::path& path) {
    try {
        return prepareImageBytes(readRegularFile(path, ImageCodec::maxFileBytes), path.string());
    } catch (const FileReadError& error) {
        throw FilingError(error.what());
    }
}

std::string fileCapture(CaptureStore& store, const FilingRequest& request) {
    Capture capture = request.capture;
    capture.id = newID();
    const Date now = Clock::now();
    if (capture.createdAt == 0) capture.createdAt = now;
    capture.updatedAt = now;
    if (request.images.empty()) capture.captureMode = CaptureMode::text;

    std::vector<PlannedImage> planned = planImages(request, capture.id, capture.createdAt);
    if (!planned.empty()) {
        // The cover, so that the "created" history line names the mode; the
        // image rows below keep it current.
        const CaptureImage& first = planned.front().row;
        capture.imagePath = first.imagePath;
        capture.thumbPath = first.thumbPath;
        capture.imageWidth = first.width;
        capture.imageHeight = first.height;
        capture.imageBytes = first.bytes;
    }

    // What an earlier, killed filing left behind.
    TemporaryFiles::sweep();
    WrittenFiles files;
    for (const PlannedImage& plan : planned) {
        files.write(MirelPaths::imageURL(plan.row.imagePath), *plan.original);
        files.write(MirelPaths::thumbURL(*plan.row.thumbPath), plan.thumbPNG);
        if (plan.markedPNG) files.write(MirelPaths::imageURL(*plan.row.annotatedPath), *plan.markedPNG);
    }
    // All rows in one transaction, the group among them: a failure, or a kill
    // at any moment, leaves no row and no empty group behind.
    store.transaction([&] {
        if (request.groupName) {
            capture.groupID = store.findOrCreateGroup(*request.groupName, store.defaultWorkspaceID()).id;
        }
        store.insert(capture);
        for (const PlannedImage& plan : planned) {
            CaptureImage plain = plan.row;
            plain.annotatedPath.reset();
            plain.annotationJSON.reset();
            CaptureImage stored = store.addImage(plain);
            if (plan.markedPNG) {
                CaptureImage marked = plan.row;
                marked.position = stored.position;
                store.updateImage(marked);
            }
        }
        if (!request.tags.empty()) store.setTags(request.tags, capture.id);
        // Last, under the write lock: `mirel doctor` never sees these files
        // without their rows, except after a kill right here.
        files.place();
    });
    files.keep();
    return capture.id;
}

}  // namespace mirel::host
