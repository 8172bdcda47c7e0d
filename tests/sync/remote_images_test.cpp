#include "tests/sync/sync_fixture.h"

#include <algorithm>
#include <fstream>

namespace mirel::test {

namespace {

class RemoteImages : public SyncStoreTest {
protected:
    Capture owner = seedShared();

    // An image of `owner` with all three files here and hashes a… (original), b… (marked), c… (thumb).
    CaptureImage seedDownloaded(const std::string& syncState, const std::optional<std::string>& pending,
                                std::int64_t position = 0) {
        CaptureImage image = makeImage(owner.id, position);
        image.annotatedPath = "2024/05/" + image.id + "-marked.png";
        image.originalSHA256 = std::string(64, 'a'), image.markedSHA256 = std::string(64, 'b');
        image.thumbSHA256 = std::string(64, 'c'), image.annotationJSON = "[]";
        seedImageRow(db(), image);
        setLedger("capture_images", image.id, syncState, pending);
        return image;
    }
    // The server's object for `image`; a hash written as one digit stands for 64 of it.
    Json remoteFor(const CaptureImage& image, const std::string& delta) {
        Json remote = object(R"({"original_sha256":"a","marked_sha256":"b","thumb_sha256":"c","version":4,"position":2,
            "width":10,"height":20,"bytes":30,"annotation_json":[{"b":1,"a":2}]})");
        remote.merge_patch(object(delta));
        remote["id"] = image.id, remote["capture_id"] = image.captureID;
        for (const char* key : {"original_sha256", "marked_sha256", "thumb_sha256"}) {
            if (remote.contains(key)) remote[key] = std::string(64, remote[key].get<std::string>()[0]);
        }
        return remote;
    }
    bool awaiting(const std::string& id) {
        return std::ranges::any_of(store.imagesAwaitingDownload(100), [&](const auto& item) { return item.image.id == id; });
    }
};

}  // namespace

// A path is cleared, and the file asked for, exactly when its hash changes.
TEST_F(RemoteImages, StateTable) {
    const std::tuple<const char*, std::optional<std::string>, const char*, const char*> cases[] = {
        // sync_state, pending, merged into the remote object; the row after and whether a download waits
        {"pendingPush", {}, "{}", R"(b|1|1|c|[{"a":2,"b":1}]|2|10|synced|0)"},
        {"synced", {}, R"({"marked_sha256":"d"})", R"(d|0|1|c|[{"a":2,"b":1}]|2|10|synced|1)"},
        {"synced", {}, R"({"marked_sha256":null})", R"(NULL|0|1|c|[{"a":2,"b":1}]|2|10|synced|0)"},
        {"synced", {}, R"({"thumb_sha256":"d"})", R"(b|1|0|d|[{"a":2,"b":1}]|2|10|synced|1)"},
        {"pendingPush", R"({"annotation_json":true,"marked_sha256":true,"thumb_sha256":true,"position":true})",
         R"({"marked_sha256":"d","thumb_sha256":"d"})", "b|1|1|c|[]|0|10|pendingPush|0"},
        {"pendingPush", R"({"delete":true})", R"({"marked_sha256":"d"})", "b|1|1|c|[]|0|800|pendingPush|0"},
    };
    for (const auto& [syncState, pending, delta, expected] : cases) {
        const CaptureImage image = seedDownloaded(syncState, pending);
        store.applyRemoteImage(remoteFor(image, delta));
        EXPECT_EQ(cells("capture_images", image.id, "substr(marked_sha256, 1, 1) AS m, annotated_path IS NOT NULL AS a, thumb_path "
                        "IS NOT NULL AS t, substr(thumb_sha256, 1, 1) AS th, annotation_json, position, width, sync_state") +
                      "|" + std::to_string(awaiting(image.id)), expected) << delta;
        store.dropImage(image.id);
    }
}

TEST_F(RemoteImages, NewRowsTombstonesAndTheCover) {
    const CaptureImage fresh = makeImage(owner.id);  // never stored here: the server's
    store.applyRemoteImage(remoteFor(fresh, R"({"width":5,"marked_sha256":null,"thumb_sha256":null})"));
    EXPECT_EQ(cells("capture_images", fresh.id, "image_path, sync_state"), "|synced");
    EXPECT_EQ(cells("captures", owner.id, "image_width"), "5");  // the cover follows

    // A tombstone removes row and files, and the cover moves on.
    const CaptureImage first = seedDownloaded("synced", {}, 1);
    std::filesystem::create_directories(first.originalURL().parent_path());
    std::ofstream(first.originalURL()) << "x";
    const std::string gone = R"({"deleted_at":"2024-06-01T00:00:00Z"})";
    store.applyRemoteImage(remoteFor(fresh, gone));
    EXPECT_FALSE(rowExists("capture_images", fresh.id));
    EXPECT_EQ(text("captures", owner.id, "image_path"), first.annotatedPath);
    store.applyRemoteImage(remoteFor(first, gone));
    EXPECT_FALSE(std::filesystem::exists(first.originalURL()));
}

}  // namespace mirel::test
