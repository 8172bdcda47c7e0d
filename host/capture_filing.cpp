#include "host/capture_filing.h"

#include "core/annotation/annotation_renderer.h"
#include "core/platform/clock.h"
#include "core/platform/text.h"
#include "core/store/mirel_paths.h"

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

// The files one filing wrote, removed again unless the filing succeeds.
class WrittenFiles {
public:
    WrittenFiles() = default;
    WrittenFiles(const WrittenFiles&) = delete;
    WrittenFiles& operator=(const WrittenFiles&) = delete;
    ~WrittenFiles() { removeAll(); }

    // Writes the whole file beside its place, then renames it into place, so
    // a reader never sees half an image.
    void write(const fs::path& file, const std::vector<std::uint8_t>& bytes) {
        rememberMissingFolders(file.parent_path());
        MirelPaths::ensureParentDirectory(file);
        const fs::path temporary = file.string() + ".tmp-" + newID().substr(0, 8);
        {
            std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
            out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
            out.close();
            if (!out) {
                const int code = errno;
                std::error_code ignored;
                fs::remove(temporary, ignored);
                throw FilingError("could not write " + file.string() + ": " + std::strerror(code));
            }
        }
        std::error_code error;
        fs::rename(temporary, file, error);
        if (error) {
            std::error_code ignored;
            fs::remove(temporary, ignored);
            throw FilingError("could not write " + file.string() + ": " + error.message());
        }
        files_.push_back(file);
    }

    // The filing succeeded: the files stay.
    void keep() {
        files_.clear();
        folders_.clear();
    }

    void removeAll() noexcept {
        std::error_code ignored;
        for (const auto& file : files_) fs::remove(file, ignored);
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

    std::vector<fs::path> files_;
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
    const int longest = std::max(image.width, image.height);
    if (longest <= thumbnailEdge) return image;
    const double scale = static_cast<double>(thumbnailEdge) / longest;
    const int width = std::max(1, static_cast<int>(std::lround(image.width * scale)));
    const int height = std::max(1, static_cast<int>(std::lround(image.height * scale)));
    auto small = ImageCodec::resample(image, width, height);
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

void removeRowQuietly(CaptureStore& store, const std::string& table, const std::string& id) noexcept {
    try {
        // A real DELETE: the rows that hang on a capture go with it.
        store.database().execute("DELETE FROM " + table + " WHERE id = ?;", {SQLValue(id)});
    } catch (...) {
    }
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
    std::error_code error;
    if (fs::is_directory(path, error)) throw FilingError(path.string() + " is a folder, not an image");
    std::ifstream in(path, std::ios::binary);
    if (!in) throw FilingError("cannot read " + path.string() + ": " + std::strerror(errno));
    std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) throw FilingError("cannot read " + path.string());
    return prepareImageBytes(std::move(bytes), path.string());
}

CaptureGroup findOrCreateGroup(CaptureStore& store, const std::string& name, bool* created) {
    if (created) *created = false;
    const std::string trimmed = trimBlanks(name);
    if (auto existing = store.groupNamed(trimmed, store.defaultWorkspaceID())) return *existing;
    CaptureGroup group;
    group.id = newID();
    group.name = trimmed;
    group.createdAt = group.updatedAt = Clock::now();
    CaptureGroup stored = store.upsertGroup(group);
    if (created) *created = stored.id == group.id;
    return stored;
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

    WrittenFiles files;
    std::optional<std::string> createdGroupID;
    bool inserted = false;
    try {
        if (request.groupName) {
            bool created = false;
            capture.groupID = findOrCreateGroup(store, *request.groupName, &created).id;
            if (created) createdGroupID = capture.groupID;
        }
        for (const PlannedImage& plan : planned) {
            files.write(MirelPaths::imageURL(plan.row.imagePath), *plan.original);
            files.write(MirelPaths::thumbURL(*plan.row.thumbPath), plan.thumbPNG);
            if (plan.markedPNG) files.write(MirelPaths::imageURL(*plan.row.annotatedPath), *plan.markedPNG);
        }

        store.insert(capture);
        inserted = true;
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
    } catch (...) {
        if (inserted) removeRowQuietly(store, "captures", capture.id);
        if (createdGroupID) removeRowQuietly(store, "groups", *createdGroupID);
        files.removeAll();
        throw;
    }
    files.keep();
    return capture.id;
}

}  // namespace mirel::host
