#include "tests/sync/sync_fixture.h"

namespace mirel::test {

namespace {

class OutgoingChanges : public SyncStoreTest {};

CaptureStore::Pending pendingOf(const std::string& id, std::set<std::string> fields) { return {id, std::move(fields), 3}; }

}  // namespace

TEST_F(OutgoingChanges, CaptureChangesByLedgerAndRow) {
    Capture shared = makeCapture("Title\nBody", kSeedDate);
    shared.workspaceID = kWorkspace, shared.url = std::nullopt, shared.claimedAt = kSeedDate + 1.5;
    Capture local = makeCapture("Local"), gone = makeCapture("Gone");
    gone.deletedAt = kSeedDate;
    for (const Capture* c : {&shared, &local, &gone}) seedCaptureRow(db(), *c);
    const char* tomb = R"({"base_version":3,"delete":true,"id":"ID","table":"captures"})";
    const std::tuple<std::string, std::set<std::string>, std::optional<std::string>> cases[] = {
        // the row, its pending fields, the change ("ID" stands for the id)
        {shared.id, {"note"}, R"({"base_version":3,"id":"ID","patch":{"note":"Title\nBody"},"table":"captures"})"},
        {shared.id, {"tags"}, R"({"base_version":3,"id":"ID","patch":{"tags":[]},"table":"captures"})"},
        {shared.id, {"url", "claimed_at", "claimed_label"},
         R"({"base_version":3,"id":"ID","patch":{"claimed_at":"2024-05-01T00:00:01.500Z","claimed_label":null,"url":null},"table":"captures"})"},
        {shared.id, {"no_such_field"}, std::nullopt},
        {shared.id, {"*", "delete"}, tomb},
        {local.id, {"*"}, std::nullopt},
        {gone.id, {"*"}, tomb},
        {"no-such-row", {"*"}, std::nullopt},
    };
    for (const auto& [id, fields, expected] : cases) {
        std::optional<Json> change = store.captureChange(pendingOf(id, fields));
        if (change) (*change)["id"] = "ID";
        EXPECT_EQ(change ? std::optional(change->dump()) : std::nullopt, expected) << id << " " << fields.size();
    }
}

TEST_F(OutgoingChanges, ImageAndGroupChanges) {
    const Capture owner = seedShared();
    CaptureImage image = makeImage(owner.id), unhashed = makeImage(owner.id, 1);
    image.originalSHA256 = std::string(64, 'a'), image.annotationJSON = R"([{"tool":"arrow"}])";
    CaptureImage broken = image, deleted = unhashed;
    broken.annotationJSON = "{oops", deleted.deletedAt = kSeedDate;
    EXPECT_EQ(store.imageChange(pendingOf(image.id, {"annotation_json", "position"}), image)->at("patch").dump(),
              R"({"annotation_json":[{"tool":"arrow"}],"position":0})");
    EXPECT_EQ(store.imageChange(pendingOf(image.id, {"annotation_json"}), broken)->at("patch").dump(),
              R"({"annotation_json":null})");
    EXPECT_FALSE(store.imageChange(pendingOf(unhashed.id, {"*"}), unhashed));
    EXPECT_EQ(store.imageChange(pendingOf(unhashed.id, {"*"}), deleted)->value("delete", false), true);
    EXPECT_EQ(store.imageChange(pendingOf(image.id, {"delete"}), image)->value("delete", false), true);

    CaptureGroup group = makeGroup("Checkout", std::string(kWorkspace)), open = makeGroup("Open", std::string(kWorkspace));
    CaptureGroup local = makeGroup("Local");
    group.archivedAt = kSeedDate;
    for (const CaptureGroup* g : {&group, &open, &local}) seedGroupRow(db(), *g);
    const auto patch = [&](const CaptureGroup& g, std::set<std::string> fields) {
        const std::optional<Json> change = store.groupChange(pendingOf(g.id, std::move(fields)));
        return change ? change->at("patch").dump() : "none";
    };
    EXPECT_EQ(patch(group, {"*", "archived_at"}),
              R"({"color_hex":"#6E7BF2","name":"Checkout","visibility":"private","workspace_id":"ws-1"})");
    EXPECT_EQ(patch(open, {"archived_at", "visibility"}), R"({"archived_at":null})");
    EXPECT_EQ(patch(group, {"archived_at"}), R"({"archived_at":"2024-05-01T00:00:00.000Z"})");
    EXPECT_EQ(patch(local, {"*"}) + patch(open, {"visibility"}), "nonenone");
}

// Edits in flight are the model test's (remote_captures_test); an edit undone
// before the acknowledgement is too rare there to rely on.
TEST_F(OutgoingChanges, AnEditInFlightUndoneLeavesNothingPending) {
    const Capture row = seedShared("Sent", "pendingPush", R"({"note":true})");
    const CaptureStore::Pending collected{row.id, {"note"}, 0};
    const Json change = *store.captureChange(collected);
    for (const char* note : {"Second", "Sent"}) {
        Capture c = *store.rawCapture(row.id);
        c.note = note;
        store.update(c);
    }
    EXPECT_TRUE(store.markSynced(collected, change, 7));
    EXPECT_EQ(cells("captures", row.id, "sync_state, pending, version"), "synced|{}|7");
}

}  // namespace mirel::test
