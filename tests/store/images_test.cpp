// Image rows: numbering, tombstones, the cover copy on the capture, and the
// ledger marks each operation leaves.
#include "core/store/capture_store.h"
#include "tests/support/seed.h"
#include "tests/support/store_access.h"
#include "tests/support/store_probe.h"
#include "tests/support/temp_library.h"

#include <gtest/gtest.h>

#include <fstream>

namespace mirel {
namespace {

using test::makeImage;
using Fields = std::set<std::string>;

constexpr Date kNow = 1717000000.25;

class ImagesTest : public ::testing::Test {
protected:
    void SetUp() override {
        Clock::pin(kNow);
        capture = test::makeCapture("shot", test::kSeedDate, false);
        capture.workspaceID = "ws-1";
        capture.syncState = SyncState::synced;
        test::seedCaptureRow(db(), capture);
    }
    void TearDown() override { Clock::pin(std::nullopt); }
    Database& db() { return CaptureStoreTestAccess::database(store); }

    // Images at the given positions, created in order, each as it stands after a sync.
    std::vector<CaptureImage> seedImages(std::initializer_list<std::int64_t> positions,
                                         SyncState state = SyncState::synced) {
        std::vector<CaptureImage> made;
        Date at = test::kSeedDate;
        for (std::int64_t position : positions) {
            CaptureImage image = makeImage(capture.id, position, at++);
            image.syncState = state;
            test::seedImageRow(db(), image);
            made.push_back(image);
        }
        return made;
    }

    std::vector<std::string> liveIDs() {
        std::vector<std::string> ids;
        for (const auto& image : store.images(capture.id)) ids.push_back(image.id);
        return ids;
    }

    test::TempLibrary library;
    CaptureStore store{library.databasePath()};
    Capture capture;
};

TEST_F(ImagesTest, AddingAtTheEndContinuesAfterTheHighestNumber) {
    CaptureImage first = makeImage(capture.id, -1);
    EXPECT_EQ(store.addImage(first).position, 0);
    CaptureImage gap = makeImage(capture.id, 3);
    EXPECT_EQ(store.addImage(gap).position, 3);
    CaptureImage next = makeImage(capture.id, -1);
    EXPECT_EQ(store.addImage(next).position, 4);
    EXPECT_EQ(liveIDs(), (std::vector<std::string>{first.id, gap.id, next.id}));
}

TEST_F(ImagesTest, TombstonesKeepTheirNumbers) {
    auto images = seedImages({0});
    test::setColumn(db(), "capture_images", images[0].id, "deleted_at", SQLValue(1.0));
    EXPECT_EQ(store.addImage(makeImage(capture.id, -1)).position, 1);
}

TEST_F(ImagesTest, AddImageStoresTheRowMarksItWholeAndMakesTheCover) {
    CaptureImage image = makeImage(capture.id, -1, test::kSeedDate + 1);
    image.originalSHA256 = "aa";
    image.markedSHA256 = "bb";
    image.thumbSHA256 = "cc";
    image.annotationJSON = "{\"shapes\":[]}";
    const CaptureImage stored = store.addImage(image);
    image.position = 0;
    EXPECT_EQ(stored, image);
    // The ledger moved the stored row of this shared capture to pendingPush.
    image.syncState = SyncState::pendingPush;
    EXPECT_EQ(store.image(image.id), image);
    EXPECT_EQ(test::pendingKeys(db(), "capture_images", image.id), Fields{"*"});

    const Capture after = *store.capture(capture.id);
    EXPECT_EQ(after.imagePath, image.imagePath);
    EXPECT_EQ(after.thumbPath, image.thumbPath);
    EXPECT_EQ(after.imageWidth, 800);
    EXPECT_EQ(after.imageBytes, 12345);
    EXPECT_EQ(after.updatedAt, kNow);
    EXPECT_TRUE(after.dirty);
    // touch and the cover make no ledger entry on the capture.
    EXPECT_TRUE(test::pendingKeys(db(), "captures", capture.id).empty());
}

TEST_F(ImagesTest, AddImageToAnUnknownCaptureFailsAtTheForeignKey) {
    EXPECT_THROW(store.addImage(makeImage("no-such-capture", -1)), DatabaseError);
}

TEST_F(ImagesTest, CoverIsTheFirstImageAndPrefersTheMarkedUpFile) {
    auto images = seedImages({0, 1});
    images[1].annotatedPath = "2024/05/marked.png";
    store.updateImage(images[1]);
    EXPECT_EQ(store.capture(capture.id)->imagePath, images[0].imagePath);

    images[0].annotatedPath = "2024/05/first-marked.png";
    images[0].width = 10;
    store.updateImage(images[0]);
    const Capture after = *store.capture(capture.id);
    EXPECT_EQ(after.imagePath, "2024/05/first-marked.png");
    EXPECT_EQ(after.imageWidth, 10);
}

TEST_F(ImagesTest, EqualPositionsAreOrderedByCreation) {
    auto images = seedImages({1, 1, 0});
    EXPECT_EQ(liveIDs(), (std::vector<std::string>{images[2].id, images[0].id, images[1].id}));
}

TEST_F(ImagesTest, UpdateImageMarksTheMarkUpFieldsAndKeepsHashes) {
    auto images = seedImages({0});
    CaptureImage changed = images[0];
    changed.annotationJSON = "{}";
    changed.originalSHA256 = "ignored";
    store.updateImage(changed);
    EXPECT_EQ(test::pendingKeys(db(), "capture_images", changed.id),
              (Fields{"annotation_json", "marked_sha256", "thumb_sha256"}));
    EXPECT_EQ(store.image(changed.id)->annotationJSON, "{}");
    EXPECT_FALSE(store.image(changed.id)->originalSHA256);
    EXPECT_TRUE(store.image(changed.id)->dirty);
}

TEST_F(ImagesTest, DeletingTheMiddleImageRenumbersOnlyTheOneThatMoved) {
    auto images = seedImages({0, 1, 2});
    EXPECT_TRUE(store.deleteImage(images[1].id));

    const auto live = store.images(capture.id);
    ASSERT_EQ(live.size(), 2u);
    EXPECT_EQ(live[0].id, images[0].id);
    EXPECT_EQ(live[0].position, 0);
    EXPECT_EQ(live[1].id, images[2].id);
    EXPECT_EQ(live[1].position, 1);
    EXPECT_TRUE(test::pendingKeys(db(), "capture_images", images[0].id).empty());
    EXPECT_EQ(test::syncStateOf(db(), "capture_images", images[0].id), "synced");
    EXPECT_EQ(test::pendingKeys(db(), "capture_images", images[1].id), Fields{"delete"});
    EXPECT_EQ(test::pendingKeys(db(), "capture_images", images[2].id), Fields{"position"});
}

TEST_F(ImagesTest, SyncedImageLeavesATombstoneLocalImageLeavesNothing) {
    auto synced = seedImages({0});
    auto local = seedImages({1}, SyncState::local);

    // The local one first: renumbering would mark it and so take it out of the local state.
    EXPECT_TRUE(store.deleteImage(local[0].id));
    EXPECT_TRUE(store.deleteImage(synced[0].id));

    EXPECT_FALSE(test::rowExists(db(), "capture_images", local[0].id));
    ASSERT_TRUE(test::rowExists(db(), "capture_images", synced[0].id));
    EXPECT_EQ(test::readColumn(db(), "capture_images", synced[0].id, "deleted_at"), SQLValue(kNow));
    EXPECT_EQ(test::readText(db(), "capture_images", synced[0].id, "image_path"), "");
    EXPECT_FALSE(test::readText(db(), "capture_images", synced[0].id, "thumb_path"));
    EXPECT_FALSE(store.image(synced[0].id));
    EXPECT_EQ(store.imageCounts()[capture.id], 1);
}

TEST_F(ImagesTest, DeletingTheLastImageLeavesNoCover) {
    auto images = seedImages({0});
    store.refreshCover(capture.id);
    ASSERT_TRUE(store.capture(capture.id)->hasImage());
    store.deleteImage(images[0].id);
    const Capture after = *store.capture(capture.id);
    EXPECT_FALSE(after.hasImage());
    EXPECT_FALSE(after.thumbPath);
    EXPECT_EQ(after.imageWidth, 0);
    EXPECT_EQ(after.imageHeight, 0);
    EXPECT_EQ(after.imageBytes, 0);
}

TEST_F(ImagesTest, DeleteImageRemovesItsFilesOnly) {
    auto images = seedImages({0, 1});
    images[0].annotatedPath = "2024/05/marked.png";
    store.updateImage(images[0]);
    for (const auto& path : {images[0].originalURL(), images[0].displayURL(), *images[0].thumbURL(),
                             images[1].originalURL()}) {
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path) << "x";
    }
    store.deleteImage(images[0].id);
    EXPECT_FALSE(std::filesystem::exists(images[0].originalURL()));
    EXPECT_FALSE(std::filesystem::exists(images[0].displayURL()));
    EXPECT_FALSE(std::filesystem::exists(*images[0].thumbURL()));
    EXPECT_TRUE(std::filesystem::exists(images[1].originalURL()));
}

TEST_F(ImagesTest, DeleteImageOfUnknownOrDeletedIdIsFalse) {
    auto images = seedImages({0});
    test::setColumn(db(), "capture_images", images[0].id, "deleted_at", SQLValue(1.0));
    EXPECT_FALSE(store.deleteImage("no-such-image"));
    EXPECT_FALSE(store.deleteImage(images[0].id));
    EXPECT_EQ(store.capture(capture.id)->updatedAt, capture.updatedAt);
}

TEST_F(ImagesTest, SetCaptureModeMarksTheMode) {
    store.setCaptureMode(CaptureMode::window, capture.id);
    const Capture after = *store.capture(capture.id);
    EXPECT_EQ(after.captureMode, CaptureMode::window);
    EXPECT_EQ(after.updatedAt, kNow);
    EXPECT_TRUE(after.dirty);
    EXPECT_EQ(test::pendingKeys(db(), "captures", capture.id), Fields{"capture_mode"});
}

}  // namespace
}  // namespace mirel
