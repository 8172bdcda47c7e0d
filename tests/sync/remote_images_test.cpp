#include "tests/sync/sync_fixture.h"

#include <fstream>

namespace mirel::test {

namespace {

const std::string kA(64, 'a'), kB(64, 'b'), kC(64, 'c'), kD(64, 'd');

class RemoteImages : public SyncStoreTest {
protected:
    Capture owner = seedShared();

    // An image of `owner` with all three files here and hashes A (original), B (marked), C (thumb).
    CaptureImage seedDownloaded(const std::string& syncState, const std::optional<std::string>& pending,
                                std::int64_t position = 0) {
        CaptureImage image = makeImage(owner.id, position);
        image.annotatedPath = "2024/05/" + image.id + "-marked.png";
        image.originalSHA256 = kA;
        image.markedSHA256 = kB;
        image.thumbSHA256 = kC;
        image.annotationJSON = "[]";
        seedImageRow(db(), image);
        setLedger("capture_images", image.id, syncState, pending);
        return image;
    }

    Json remoteFor(const CaptureImage& image, const std::string& delta) {
        Json remote = object(R"({"original_sha256":")" + kA + R"(","marked_sha256":")" + kB + R"(","thumb_sha256":")" +
                             kC + R"(","version":4,"position":2,"width":10,"height":20,"bytes":30,
                             "annotation_json":[{"b":1,"a":2}]})");
        remote["id"] = image.id;
        remote["capture_id"] = image.captureID;
        remote.merge_patch(object(delta));
        return remote;
    }

    bool awaiting(const std::string& id) {
        for (const auto& item : store.imagesAwaitingDownload(100)) {
            if (item.image.id == id) return true;
        }
        return false;
    }
};

}  // namespace

TEST_F(RemoteImages, StateTable) {
    struct Case {
        const char* name;
        const char* syncState;
        std::optional<std::string> pending;
        std::string delta;
        std::optional<std::string> marked, annotatedPath, thumbPath, annotation;
        std::int64_t position, width;
        const char* stateAfter;
        bool awaiting;
    };
    const std::string path = "here";  // stands for "the path as seeded"
    const Case cases[] = {
        {"same hashes again keep the files", "synced", {}, "{}", kB, path, path, R"([{"a":2,"b":1}])", 2, 10,
         "synced", false},
        {"a new marked hash asks for the file", "synced", {}, R"({"marked_sha256":")" + kD + R"("})", kD,
         std::nullopt, path, R"([{"a":2,"b":1}])", 2, 10, "synced", true},
        {"an absent marked hash clears both", "synced", {}, R"({"marked_sha256":null})", std::nullopt, std::nullopt,
         path, R"([{"a":2,"b":1}])", 2, 10, "synced", false},
        {"a new thumb hash asks for the thumbnail", "synced", {}, R"({"thumb_sha256":")" + kD + R"("})", kB, path,
         std::nullopt, R"([{"a":2,"b":1}])", 2, 10, "synced", true},
        {"pending mark-up fields keep their values", "pendingPush",
         R"({"annotation_json":true,"marked_sha256":true,"thumb_sha256":true})",
         R"({"marked_sha256":")" + kD + R"(","thumb_sha256":")" + kD + R"("})", kB, path, path, "[]", 2, 10,
         "pendingPush", false},
        {"pending position keeps its place", "pendingPush", R"({"position":true})", "{}", kB, path, path,
         R"([{"a":2,"b":1}])", 0, 10, "pendingPush", false},
        {"a pending tombstone wins", "pendingPush", R"({"delete":true})", R"({"marked_sha256":")" + kD + R"("})",
         kB, path, path, "[]", 0, 800, "pendingPush", false},
        {"pendingPush without a ledger becomes synced", "pendingPush", {}, "{}", kB, path, path,
         R"([{"a":2,"b":1}])", 2, 10, "synced", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const CaptureImage image = seedDownloaded(c.syncState, c.pending);
        store.applyRemoteImage(remoteFor(image, c.delta));
        const auto seeded = [&](const std::optional<std::string>& expected, const std::optional<std::string>& was) {
            return expected == path ? was : expected;
        };
        EXPECT_EQ(text("capture_images", image.id, "marked_sha256"), c.marked);
        EXPECT_EQ(text("capture_images", image.id, "annotated_path"), seeded(c.annotatedPath, image.annotatedPath));
        EXPECT_EQ(text("capture_images", image.id, "thumb_path"), seeded(c.thumbPath, image.thumbPath));
        EXPECT_EQ(text("capture_images", image.id, "thumb_sha256"), c.thumbPath ? kC : kD);  // what a fetch asks for
        EXPECT_EQ(text("capture_images", image.id, "annotation_json"), c.annotation);
        EXPECT_EQ(integer("capture_images", image.id, "position"), c.position);
        EXPECT_EQ(integer("capture_images", image.id, "width"), c.width);
        EXPECT_EQ(syncStateOf("capture_images", image.id), c.stateAfter);
        EXPECT_EQ(awaiting(image.id), c.awaiting);
        store.dropImage(image.id);
    }
}

TEST_F(RemoteImages, NewRowsTombstonesAndTheCover) {
    const std::string id = newID();
    store.applyRemoteImage(object(R"({"id":")" + id + R"(","capture_id":")" + owner.id + R"(","original_sha256":")" +
                                  kA + R"(","width":5,"created_at":"2024-06-01T00:00:00Z"})"));
    EXPECT_EQ(text("capture_images", id, "image_path"), "");
    EXPECT_EQ(syncStateOf("capture_images", id), "synced");
    EXPECT_TRUE(awaiting(id));
    EXPECT_EQ(integer("captures", owner.id, "image_width"), 5);  // the cover follows
    EXPECT_EQ(store.imagesAwaitingDownload(1).front().workspaceID, kWorkspace);

    const CaptureImage first = seedDownloaded("synced", {}, 1);
    const CaptureImage second = seedDownloaded("synced", {}, 2);

    // A tombstone removes row and files; the cover moves on, then goes empty.
    std::filesystem::create_directories(first.originalURL().parent_path());
    std::ofstream(first.originalURL()) << "x";
    store.applyRemoteImage(object(R"({"id":")" + id + R"(","capture_id":")" + owner.id +
                                  R"(","deleted_at":1717200000})"));
    EXPECT_FALSE(rowExists("capture_images", id));
    EXPECT_EQ(text("captures", owner.id, "image_path"), first.annotatedPath);
    store.applyRemoteImage(remoteFor(first, R"({"deleted_at":"2024-06-01T00:00:00Z"})"));
    store.applyRemoteImage(remoteFor(second, R"({"deleted_at":"2024-06-01T00:00:00Z"})"));
    EXPECT_FALSE(std::filesystem::exists(first.originalURL()));
    EXPECT_EQ(text("captures", owner.id, "image_path"), "");

    // A pending tombstone keeps the cover as it stands.
    const CaptureImage kept = seedDownloaded("pendingPush", R"({"delete":true})");
    setColumn(db(), "captures", owner.id, "image_path", SQLValue("cover"));
    store.applyRemoteImage(remoteFor(kept, "{}"));
    EXPECT_EQ(text("captures", owner.id, "image_path"), "cover");
}

}  // namespace mirel::test
