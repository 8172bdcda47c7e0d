// A capture's screenshots: numbering, the cover the capture row keeps, and
// what each change leaves for the server.
#include "tests/store/store_fixture.h"

namespace mirel::test {
namespace {

class ImagesTest : public StoreTest {
protected:
    // "position:id-suffix" of each live image, then the cover and its size.
    std::string layout() {
        std::string out;
        for (const auto& image : store.images(shot.id)) out += std::to_string(image.position) + ":" + image.id + " ";
        const Capture c = *store.capture(shot.id);
        return out + "| " + (c.imagePath.empty() ? "-" : c.imagePath) + " " + std::to_string(c.imageWidth);
    }
    CaptureImage add(const std::string& id, std::int64_t position, SyncState state = SyncState::synced) {
        CaptureImage image = makeImage(shot.id, position, kSeedDate + static_cast<double>(id[0]));
        image.id = id;
        image.imagePath = id + ".png";
        image.width = static_cast<std::int64_t>(id[0]);
        image.syncState = state;
        return store.addImage(image);
    }
    Capture shot = filed("shot", true);
};

TEST_F(ImagesTest, NumbersCoverModeAndLedgerFollowEachChange) {
    EXPECT_EQ(add("a", -1).position, 0);
    add("b", 3);
    EXPECT_EQ(add("c", -1).position, 4);
    EXPECT_EQ(layout(), "0:a 3:b 4:c | a.png 97");
    EXPECT_EQ(pending("capture_images", "c"), "pendingPush {*}");

    // Marking up the first image puts the marked copy on the cover.
    CaptureImage first = *store.image("a");
    first.annotatedPath = "a-marked.png";
    store.markSynced("capture_images", "a", 1);
    store.updateImage(first);
    EXPECT_EQ(layout(), "0:a 3:b 4:c | a-marked.png 97");
    EXPECT_EQ(pending("capture_images", "a"), "pendingPush {annotation_json marked_sha256 thumb_sha256}");

    // A synced image leaves a tombstone that keeps its number; the rest close up.
    store.markSynced("capture_images", "c", 1);
    EXPECT_TRUE(store.deleteImage("a"));
    EXPECT_EQ(layout(), "0:b 1:c | b.png 98");
    EXPECT_EQ(pending("capture_images", "a") + " " + cell("capture_images", "a", "image_path"), "pendingPush {annotation_json delete marked_sha256 thumb_sha256} ");
    EXPECT_EQ(pending("capture_images", "c"), "pendingPush {position}");
    EXPECT_EQ(add("d", -1).position, 2);
    EXPECT_FALSE(store.deleteImage("a"));

    // The last image takes the cover with it.
    for (const char* id : {"b", "c", "d"}) store.deleteImage(id);
    EXPECT_EQ(layout(), "| - 0");
    EXPECT_EQ(cell("captures", shot.id, "thumb_path"), "NULL");
    // Images at the same number lie in the order they were made.
    add("z", 0);
    add("y", 0);
    EXPECT_EQ(layout(), "0:y 0:z | y.png 121");
    store.setCaptureMode(CaptureMode::window, shot.id);
    EXPECT_EQ(store.capture(shot.id)->captureMode, CaptureMode::window);
    EXPECT_EQ(pending("captures", shot.id), "pendingPush {capture_mode}");
    // In a capture that is not shared, an image goes without trace.
    const CaptureImage lone = store.addImage(makeImage(filed("local").id));
    EXPECT_TRUE(store.deleteImage(lone.id));
    EXPECT_EQ(cell("capture_images", lone.id, "id"), "NULL");
    EXPECT_FALSE(store.deleteImage("no-such-image"));
    EXPECT_THROW(store.addImage(makeImage("no-such-capture")), DatabaseError);
}

}  // namespace
}  // namespace mirel::test
