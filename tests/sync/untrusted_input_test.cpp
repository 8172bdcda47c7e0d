// Random JSON, hostile ids and hashes fed to every remote apply. Bounded so it
// runs with the suite (also under AddressSanitizer); MIREL_FUZZ_INPUTS raises
// the count for a longer run, MIREL_FUZZ_SEED picks another fixed seed.
#include "tests/sync/sync_fixture.h"

#include "core/store/mirel_paths.h"
#include "core/store/row_decoding.h"
#include "core/sync/content_hash.h"

#include <cstdlib>
#include <functional>
#include <random>

namespace mirel::test {

namespace {

long fromEnvironment(const char* name, long otherwise) {
    const char* value = std::getenv(name);
    return value ? std::atol(value) : otherwise;
}

class UntrustedInput : public SyncStoreTest {
protected:
    const long seed = fromEnvironment("MIREL_FUZZ_SEED", 20240501);
    std::mt19937_64 random{static_cast<std::uint64_t>(seed)};
    std::vector<std::string> ids;  // ids that name rows here, so that updates happen too

    template <typename T>
    const T& pick(const std::vector<T>& from) {
        return from[random() % from.size()];
    }
    std::size_t pick(std::size_t n) { return static_cast<std::size_t>(random() % n); }

    Json value(int depth) {
        static const std::vector<Json> atoms = {
            nullptr, true, false, 0, 1, -1, 1000000000000, 1000000000001, INT64_MAX, INT64_MIN, UINT64_MAX, 0.5, -0.0,
            1e12, 1e300, -1e300, 4.9e-324, 1714521600.25, "", "..", "../../outside", "/etc/passwd", "a/b",
            std::string("nul\0byte", 8), std::string(10000, 'x'), "\xff\xfe broken utf-8", "ünïcödé",
            "2024-05-01T00:00:00Z", "2024-05-01T00:00:00.123+02:00", "2024-13-45T99:99:99Z", "1714521600", "-7", "+42",
            "1e999", "nan", "#FFFFFF", "https://x.test/a.png", "file:///etc/passwd", "status_changed", "pendingPush",
            std::string(64, 'a'), std::string(64, 'G'), "ws-1", "\u202e\u0301"};
        switch (pick(depth > 2 ? 4 : 6)) {
            case 0:
            case 1: return pick(atoms);
            case 2: return static_cast<std::int64_t>(random());
            case 3: return pick(ids);
            case 4: {
                Json array = Json::array();
                for (std::size_t n = pick(4); n > 0; --n) array.push_back(value(depth + 1));
                return array;
            }
            default: return object(depth + 1);
        }
    }

    Json object(int depth = 0) {
        static const std::vector<std::string> keys = {
            "id", "capture_id", "group_id", "user_id", "workspace_id", "author_id", "actor_id", "assignee_id",
            "deleted_at", "created_at", "updated_at", "removed_at", "archived_at", "claimed_at", "resolved_at", "note",
            "status", "priority", "tags", "url", "display_scale", "capture_mode", "claimed_label", "version",
            "position", "width", "height", "bytes", "original_sha256", "marked_sha256", "thumb_sha256",
            "annotation_json", "name", "color_hex", "visibility", "body", "kind", "actor_label", "detail", "email",
            "image", "image_url", "from", "to", "mode"};
        Json result = Json::object();
        for (const std::string& key : keys) {
            // Nested objects stay small; tombstones stay rare enough for rows to build up.
            const bool tombstone = key == "deleted_at" || key == "removed_at";
            if (depth == 0 ? pick(tombstone ? 6 : 3) == 0 || (tombstone && pick(2)) : pick(10) != 0) continue;
            result[key] = pick(2) ? value(depth) : plausible(key);
        }
        return result;
    }

    // A value of the kind the key usually holds, so that inputs get past the
    // first checks and reach the writes.
    Json plausible(const std::string& key) {
        static const std::vector<std::string> kinds = {"status_changed", "assigned", "commented", "moved",
                                                       "created", "resolved", "claimed", "renamed"};
        if (key == "id" || key.ends_with("_id")) return pick(ids);
        if (key.ends_with("_sha256")) return pick(4) ? Json(std::string(64, "0123456789abcdef"[pick(16)])) : value(3);
        if (key == "kind") return pick(kinds);
        return value(1);
    }

    // The file a download would write for this row stays in a year/month folder under its root.
    static void expectInside(const std::filesystem::path& root, const std::string& relative) {
        const std::filesystem::path file = (root / relative).lexically_normal();
        EXPECT_EQ(file.parent_path().parent_path().parent_path(), root.lexically_normal()) << relative;
    }
};

}  // namespace

TEST_F(UntrustedInput, RandomObjectsApplyOrAreSkippedAndNeverNameAFileOutside) {
    const Capture capture = seedShared();
    const CaptureImage image = makeImage(capture.id);
    seedImageRow(db(), image);
    const CaptureGroup group = makeGroup("G", std::string(kWorkspace));
    seedGroupRow(db(), group);
    ids = {capture.id, image.id, group.id, "ws-1", "../" + capture.id, capture.id + "/..", "me"};
    for (int fresh = 0; fresh < 8; ++fresh) ids.push_back(newID());

    const std::vector<std::pair<const char*, std::function<void(const Json&)>>> operations = {
        {"captures", [&](const Json& o) { store.applyRemoteCapture(o); }},
        {"capture_images", [&](const Json& o) { store.applyRemoteImage(o); }},
        {"groups", [&](const Json& o) { store.applyRemoteGroup(o); }},
        {"group_members", [&](const Json& o) { store.applyRemoteGroupMember(o); }},
        {"comments", [&](const Json& o) { store.applyRemoteComment(o); }},
        {"activity", [&](const Json& o) { store.applyRemoteActivity(o); }},
        {"people", [&](const Json& o) { store.applyRemotePerson(o); }},
    };
    for (long n = fromEnvironment("MIREL_FUZZ_INPUTS", 2000); n > 0; --n) {
        const auto& [table, apply] = pick(operations);
        const Json input = pick(20) ? object() : value(0);
        try {
            apply(input);
        } catch (const DatabaseError&) {
            // A row the schema refuses (a missing parent, say) is reported, not applied.
        } catch (const std::exception& error) {
            FAIL() << "seed " << seed << ": " << table << " threw " << error.what() << " for "
                   << writeJSON(input).substr(0, 2000);
        }
    }

    // Every image row and everything offered for download can only name files
    // inside the library's folders, and only blobs by digest.
    for (const Row& row : db().query("SELECT * FROM capture_images;")) {
        const CaptureImage stored = RowDecoding::decodeImage(row);
        EXPECT_TRUE(stored.imagePath.empty() || stored.imagePath == image.imagePath) << stored.imagePath;
        for (const char* suffix : {"", "-marked"}) {
            expectInside(MirelPaths::capturesRoot(),
                         MirelPaths::relativeImagePath(stored.id + suffix, stored.createdAt, "png"));
        }
        expectInside(MirelPaths::thumbsRoot(), MirelPaths::relativeImagePath(stored.id, stored.createdAt, "png"));
    }
    for (const auto& item : store.imagesAwaitingDownload(100000)) {
        for (const auto& hash : {item.image.originalSHA256, item.image.markedSHA256, item.image.thumbSHA256}) {
            EXPECT_TRUE(!hash || ContentHash::isHexDigest(*hash)) << *hash;
        }
        EXPECT_EQ(item.workspaceID.find_first_of("/.\\%?#"), std::string::npos) << item.workspaceID;
    }
    // The inputs reached the writes, not only the early exits.
    for (const auto& [table, apply] : operations) EXPECT_GT(countRows(table), 1) << table;
}

}  // namespace mirel::test
