// The engine against a scripted API server on 127.0.0.1: the verdicts of the
// cycle, the status after each kind of failure, edits made while their change
// is in flight, server-given names that must not become paths, images both
// ways, the daily reconcile; and the status lines people read.
#include "core/sync/content_hash.h"
#include "core/sync/keychain.h"
#include "core/sync/sync_engine.h"
#include "tests/support/api_test_server.h"
#include "tests/support/dbus_session.h"
#include "tests/support/image_files.h"
#include "tests/sync/sync_fixture.h"

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>

#include <array>
#include <ctime>
#include <mutex>
#include <set>
#include <thread>

namespace mirel::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

TEST(SyncStatus, OneLineForPeopleInEachCase) {
    ScopedEnv env;
    env.set("TZ", "UTC");
    tzset();
    const std::pair<SyncStatus, const char*> cases[] = {
        {SyncStatus::idle(std::nullopt), "Up to date"},
        {SyncStatus::idle(1714566600.75), "Up to date (last sync 2024-05-01 12:30:00)"},
        {SyncStatus::offline("Couldn't connect to server"), "Offline: Couldn't connect to server"},
        {SyncStatus::failed("Server error 500"), "Sync failed: Server error 500"},
        {SyncStatus::signedOut(), "Signed out"},
        {SyncStatus::sessionExpired(), "Your session has expired. Sign in again to keep syncing."},
    };
    for (const auto& [status, expected] : cases) EXPECT_EQ(status.description(), expected) << status.name();
}

class SyncEngineTest : public SyncStoreTest {
protected:
    SyncEngineTest() {
        env.set("XDG_CONFIG_HOME", (library.home() / "config").string());
        env.unset("DBUS_SESSION_BUS_ADDRESS");
        Keychain::write("token-1", "session");
        server.on("GET /v1/me", ApiTestServer::json(200, R"({"user":{"id":"u1"}})"));
        server.on("POST /v1/sync/reconcile", ApiTestServer::json(200, R"({"drop":[],"missing":[]})"));
    }
    ~SyncEngineTest() override { engine.reset(); }

    // Answers each /v1/sync with `reply(body, exchange number from 1)`.
    void onSync(std::function<Json(const Json&, int)> reply) {
        server.on("POST /v1/sync", [reply, n = std::make_shared<std::atomic<int>>(0)](const httplib::Request& request,
                                                                                      httplib::Response& response) {
            response.set_content(reply(*parseJSON(request.body), ++*n).dump(), "application/json");
        });
    }
    // The changes of the first exchange; later ones bring nothing.
    void onFirstSync(Json changes) {
        onSync([changes](const Json&, int n) { return n > 1 ? Json::object() : Json{{"changes", changes}}; });
    }
    // A reply that takes every change of `body`.
    static Json applied(const Json& body) {
        Json results = Json::array();
        for (const Json& change : body["changes"]) results.push_back({{"id", change["id"]}, {"status", "applied"}});
        return {{"results", results}};
    }
    void make(SyncIntervals intervals = {}) {
        statuses.clear();
        engine = SyncEngine::create(io.get_executor(), store, server.url(), "test", "1.0", intervals);
        engine->onStatus([this](const SyncStatus& status) { statuses.push_back(std::string(status.name())); });
    }
    // One run asked for; or, `started` as the host starts it, the engine's timer and event stream until they end.
    void syncOnce(bool started = false) {
        if (started) engine->start();
        else asio::co_spawn(engine->executor(), engine->syncNow(), asio::detached);
        io.run_for(10s);
        io.restart();
    }
    // The bodies of the exchanges, in order.
    std::vector<Json> sentBodies() {
        std::vector<Json> bodies;
        for (const auto& request : server.seen()) {
            if (request.target == "/v1/sync") bodies.push_back(*parseJSON(request.body));
        }
        return bodies;
    }
    // How many exchanges carried a change of `id`.
    int timesSent(const std::string& id) {
        int count = 0;
        for (const Json& body : sentBodies()) {
            for (const Json& change : body["changes"]) count += change.value("id", "") == id;
        }
        return count;
    }
    static Json remoteImage(const std::string& id, const std::string& captureID, Json row) {
        row.update({{"id", id}, {"capture_id", captureID}, {"version", 1}});
        return {{"table", "capture_images"}, {"row", row}};
    }
    struct Blob { std::string bytes, sha; };
    static Blob blob(char fill, std::size_t size = 100) {
        const std::string bytes = "\x89PNG\r\n\x1a\n" + std::string(size, fill);
        return {bytes, ContentHash::sha256(std::string_view(bytes))};
    }
    // The blob API points at /store/{sha}, which answers with the bytes.
    std::string locator(const Blob& blob) { return Json{{"url", server.url() + "/store/" + blob.sha}}.dump(); }
    void serve(const Blob& blob) {
        server.on("GET /v1/blobs/ws-1/" + blob.sha, ApiTestServer::json(200, locator(blob)));
        server.on("GET /store/" + blob.sha, ApiTestServer::json(200, blob.bytes));
    }
    // A reply that breaks off after `head`.
    static void breakOff(httplib::Response& response, std::string head) {
        response.set_content_provider(head.size() + 1, "image/png", [head](std::size_t, std::size_t, auto& sink) {
            return sink.write(head.data(), head.size()) && false;
        });
    }
    // The names of the screenshot files in the library.
    std::set<std::string> files() {
        std::set<std::string> found;
        std::error_code none;
        for (const auto& entry : fs::recursive_directory_iterator(library.home() / "captures", none)) {
            if (entry.is_regular_file()) found.insert(entry.path().filename().string());
        }
        return found;
    }
    // The sync log's lines as "level message", newest first.
    std::vector<std::string> log() {
        std::vector<std::string> lines;
        for (const auto& line : store.syncLog(1000)) lines.push_back(line.level + " " + line.message);
        return lines;
    }
    // How many lines of the sync log hold `part`.
    long logged(const std::string& part) {
        const auto lines = log();
        return std::count_if(lines.begin(), lines.end(), [&](auto& line) { return line.find(part) != line.npos; });
    }
    // How many requests for `target` the server saw.
    long requests(const std::string& target) {
        const auto seen = server.seen();
        return std::count_if(seen.begin(), seen.end(), [&](const auto& request) { return request.target == target; });
    }

    ScopedEnv env;
    ApiTestServer server;
    asio::io_context io;
    std::shared_ptr<SyncEngine> engine;
    std::vector<std::string> statuses;
};

std::string id8(const std::string& id) { return id.substr(id.size() - 8); }

TEST_F(SyncEngineTest, VerdictsSettleTheLedgerAndRetriedRejectionsStopAtSix) {
    const std::tuple<const char*, bool, const char*, const char*> rows[] = {
        // the verdict, whether the row is new, how often it went and its state after, and the log ("%" for the id's end)
        {R"({"status":"applied","version":7})", true, "1 synced", ""},
        {R"({"status":"merged","version":3,"conflicts":["note","priority"]})", false, "1 synced",
         "info captures %: the server's note, priority stood; your version was kept alongside"},
        {R"({"status":"merged","conflicts":[]})", false, "1 synced", ""},
        {R"({"status":"rejected","reason":"too big"})", false, "1 synced", "warn captures % rejected: too big"},
        {R"({"status":"rejected"})", true, "1 local", "warn captures % rejected: rejected"},
        {R"({"status":"rejected","retry":true})", false, "6 synced", "warn captures % rejected: rejected"},
        {R"({"id":"someone-else","status":"applied"})", false, "6 pendingPush", ""},  // no more exchanges than six
    };
    std::map<std::string, int> rowOf;
    for (int i = 0; i < 7; ++i) {
        rowOf[seedShared("Note", "pendingPush", std::get<1>(rows[i]) ? R"({"*":true})" : R"({"note":true})").id] = i;
    }
    onSync([&](const Json& body, int) {
        Json results = Json::array();
        for (const Json& change : body["changes"]) {
            results.push_back(Json{{"id", change["id"]}});
            results.back().update(*parseJSON(std::get<0>(rows[rowOf.at(change["id"])])));
        }
        return Json{{"results", results}, {"cursor", 12}};
    });
    make();
    syncOnce();
    for (const auto& [id, i] : rowOf) {
        const auto& [verdict, isNew, wantSentAndState, wantLog] = rows[i];
        SCOPED_TRACE(verdict);
        EXPECT_EQ(std::to_string(timesSent(id)) + " " + cells("captures", id, "sync_state"), wantSentAndState);
        std::string line = wantLog;
        if (const auto at = line.find('%'); at != std::string::npos) line.replace(at, 1, id8(id));
        if (!line.empty()) { EXPECT_EQ(logged(line), 1); }
    }
    EXPECT_EQ(store.syncMeta("cursor"), "12");
    // A rejected new capture stays here and asks for no second exchange.
    const long before = requests("/v1/sync");
    rowOf[seedShared("Late", "pendingPush", R"({"*":true})").id] = 4;
    syncOnce();
    EXPECT_EQ(requests("/v1/sync") - before, 1);
}

TEST_F(SyncEngineTest, EachKindOfFailureGivesItsStatusAndLosesNoEdit) {
    const std::tuple<int, const char*, const char*, const char*> rows[] = {
        // the first /v1/sync's status (0: the reply breaks off) and body, the status after, and the one line it logs
        {500, "", "failed", "error Server error 500: Internal Server Error"},
        {200, "[1,{\"results\":7}", "failed", "error Unexpected reply from the server."},
        {200, R"({"results":{"a":1},"changes":7,"cursor":"x","more":"yes"})", "idle", ""},
        {0, "{\"results\":[", "offline", ""},
        {401, "", "sessionExpired", "warn Session rejected by the server; signed out"},
    };
    for (const auto& [status, body, wantStatus, wantLog] : rows) {
        SCOPED_TRACE(body);
        const Capture c = seedShared("Local words", "pendingPush", R"({"note":true})");
        std::atomic<bool> failing{true};
        server.on("POST /v1/sync", [&](const httplib::Request& request, httplib::Response& response) {
            if (!failing.exchange(false)) return response.set_content(applied(*parseJSON(request.body)).dump(), "");
            if (status == 0) return breakOff(response, body);
            response.status = status;
            response.set_content(body, "application/json");
        });
        const auto before = log();
        make({.reconnect = 20ms});
        syncOnce(status == 401);
        EXPECT_EQ(statuses.back(), wantStatus);
        auto added = log();
        added.resize(added.size() - before.size());
        EXPECT_EQ(added, *wantLog ? std::vector<std::string>{wantLog} : std::vector<std::string>{});
        if (std::string(wantStatus) != "idle") {  // nothing lost: the edit still waits
            EXPECT_EQ(cells("captures", c.id, "note, sync_state"), "Local words|pendingPush");
        }
        if (std::string(wantStatus) == "sessionExpired") {
            EXPECT_FALSE(engine->isSignedIn());
            EXPECT_TRUE(engine->status().isSignedIn()) << "an expired session still counts as signed in";
            EXPECT_EQ(Keychain::read("session"), std::nullopt);
            // The server hears nothing more once the session is gone: no timer-driven run, no reconnecting stream.
            const auto seen = server.seen();
            const auto expiry = std::find_if(seen.rbegin(), seen.rend(), [](auto& r) { return r.target == "/v1/sync"; });
            EXPECT_LE(std::count_if(seen.rbegin(), expiry, [](auto& r) { return r.target.starts_with("/v1/events"); }), 1);
            Keychain::write("token-2", "session");
            make();
        }
        syncOnce();  // the next good run sends it
        EXPECT_EQ(statuses.back(), "idle");
        EXPECT_EQ(cells("captures", c.id, "sync_state"), "synced");
    }
}

// An edit made while its change is on the wire goes out in a further exchange;
// a server that always has more gets twenty-six exchanges and no more.
TEST_F(SyncEngineTest, ARunExchangesAgainForEditsInFlightAndMoreUpToTwentySixTimes) {
    const Capture c = seedShared("First words", "pendingPush", R"({"note":true})");
    onSync([&](const Json& body, int exchange) {
        if (exchange == 1) {  // the user types on while the first exchange is on the wire
            Capture edited = *store.rawCapture(c.id);
            edited.note = "Second words";
            store.update(edited);
        }
        Json reply = applied(body);
        reply["more"] = exchange > 1;  // only the edit can bring on the second exchange
        return reply;
    });
    make();
    syncOnce();
    ASSERT_EQ(sentBodies().size(), 26u);
    EXPECT_EQ(sentBodies()[1]["changes"][0]["patch"]["note"], "Second words");
    EXPECT_EQ(cells("captures", c.id, "sync_state"), "synced");
}

// A backlog drains thirty images a run; server-given names that are not plain
// file names never become rows, paths or requests.
TEST_F(SyncEngineTest, ARunFetchesAtMostThirtyImagesAndOnlyByPlainNames) {
    const Capture c = seedShared("Shared");
    const Blob shot = blob('a');
    serve(shot);
    Json changes = {remoteImage("../../outside", c.id, {{"original_sha256", "aa11"}}),
                    remoteImage("img-bad", c.id, {{"original_sha256", "../../etc/passwd"}}),
                    remoteImage(std::string(65, 'a'), c.id, {{"original_sha256", "bb22"}})};
    for (int n = 0; n < 31; ++n) {
        changes.push_back(remoteImage("img_azAZ09-" + std::to_string(n), c.id,
                                      {{"original_sha256", shot.sha}, {"position", n}, {"created_at", 1717400000 - n}}));
    }
    onFirstSync(changes);
    make();
    // An image whose row refuses its paths is named and holds back no other.
    db().execute("CREATE TEMP TRIGGER refuse BEFORE UPDATE OF image_path ON capture_images WHEN NEW.id = 'img_azAZ09-5' "
                 "BEGIN SELECT RAISE(ABORT, 'refused'); END;");
    syncOnce();
    EXPECT_EQ(logged("Download for image azAZ09-5 failed: SQL execution failed: refused"), 1);
    EXPECT_EQ(logged("is not a plain file name"), 3);
    EXPECT_EQ(countRows("capture_images"), 31);
    for (const auto& seen : server.seen()) {
        if (seen.target.starts_with("/v1/blobs")) {
            EXPECT_EQ(seen.target, "/v1/blobs/ws-1/" + shot.sha);
        }
    }
    EXPECT_EQ(files().size(), 30u);
    db().execute("DROP TRIGGER refuse;");
    syncOnce();
    EXPECT_EQ(files().size(), 31u);
}

// Fetched newest first: a screenshot that is its own thumbnail comes once, an
// image the server refuses is skipped, one cut off mid-file leaves no file, and
// a broken API connection ends the run keeping what came before it. The next
// run fetches the rest.
TEST_F(SyncEngineTest, DownloadsSkipFailedImagesStopWhenTheServerIsGoneAndFinishNextRun) {
    const Capture c = seedShared("Shared");
    const Blob fine = blob('a'), refused = blob('b'), cut = blob('c', 4000), broken = blob('d');
    Json changes = Json::array();
    for (const Blob* image : {&fine, &refused, &cut, &broken}) {
        const int n = static_cast<int>(changes.size());
        Json row = {{"original_sha256", image->sha}, {"marked_sha256", image->sha}, {"position", n},
                    {"created_at", 1717400000 - n}};
        if (n == 0) row["thumb_sha256"] = fine.sha;
        changes.push_back(remoteImage("img-" + std::to_string(n), c.id, row));
        serve(*image);
    }
    onFirstSync(changes);
    server.on("GET /v1/blobs/ws-1/" + refused.sha, ApiTestServer::json(500, "{}"));
    std::atomic<int> cutFetches{0}, brokenFetches{0};
    server.on("GET /store/" + cut.sha, [&](const httplib::Request&, httplib::Response& response) {
        if (cutFetches++ == 0) return breakOff(response, cut.bytes.substr(0, 2000));
        response.set_content(cut.bytes, "image/png");
    });
    server.on("GET /v1/blobs/ws-1/" + broken.sha, [&](const httplib::Request&, httplib::Response& response) {
        if (brokenFetches++ == 0) return breakOff(response, "{\"url\":");
        response.set_content(locator(broken), "application/json");
    });
    make();
    syncOnce();
    EXPECT_EQ(statuses.back(), "offline");
    EXPECT_EQ(files(), std::set<std::string>{"img-0.png"});
    EXPECT_EQ(readBytes(library.home() / "thumbs" / *text("capture_images", "img-0", "thumb_path")), fine.bytes);
    // The capture's cover, thumbnail included, is its first image.
    EXPECT_EQ(cells("captures", c.id, "image_path, thumb_path"), cells("capture_images", "img-0", "image_path, thumb_path"));
    EXPECT_EQ(logged("Download for image img-1 failed: ") + logged("Download for image img-2 failed: "), 2);

    syncOnce();
    EXPECT_EQ(statuses.back(), "idle");
    // One file each: the marked hash is the original's.
    EXPECT_EQ(files(), (std::set<std::string>{"img-0.png", "img-2.png", "img-3.png"}));
    EXPECT_EQ(readBytes(library.home() / "captures" / *text("capture_images", "img-2", "image_path")), cut.bytes);
    EXPECT_EQ(requests("/store/" + fine.sha), 1);
}

// A failing server ends the run, switched-off uploads hold the images back, and
// then they travel side by side; an image whose file is gone stays pending.
TEST_F(SyncEngineTest, ImagesTravelSideBySideAndAFailureHoldsBackOnlyWhatItMust) {
    const Capture c = seedShared("With images");
    std::vector<std::string> images;
    for (int i = 0; i < 6; ++i) {
        CaptureImage image = makeImage(c.id, i);
        image.thumbPath = std::nullopt;
        image.imagePath.replace(image.imagePath.size() - 4, 4, std::array{".png", ".png", ".jpg", ".JPEG", ".webp", ".png"}[i]);
        seedImageRow(db(), image);
        setLedger("capture_images", image.id, "pendingPush", R"({"*":true})");
        if (i > 0) {  // the first image's file is gone
            const fs::path file = library.home() / "captures" / image.imagePath;
            fs::create_directories(file.parent_path());
            writeBytes(file, blob(static_cast<char>('a' + i)).bytes);
        }
        images.push_back(image.id);
    }
    server.on("PUT /put", ApiTestServer::json(200, "{}"));
    server.on("POST /v1/uploads/complete", ApiTestServer::json(200, "{}"));
    onSync([](const Json& body, int) { return applied(body); });
    std::atomic<int> inFlight{0}, mostInFlight{0};
    std::mutex typesLock;
    std::multiset<std::string> types;  // as announced for each upload
    const std::tuple<int, const char*, const char*, int> runs[] = {
        // the answer to uploads, the status after, and how many image rows went out
        {500, "{}", "failed", 0}, {200, R"({"error":{"code":"uploads_disabled"}})", "idle", 0}, {200, "", "idle", 5}};
    make();
    for (const auto& [status, reply, wantStatus, wantSent] : runs) {
        SCOPED_TRACE(reply);
        server.on("POST /v1/uploads", [&](const httplib::Request& request, httplib::Response& response) {
            if (*reply) return ApiTestServer::json(status, reply)({}, response);
            {
                const std::lock_guard lock(typesLock);
                types.insert(Json::parse(request.body).value("content_type", ""));
            }
            const int now = ++inFlight;
            for (int most = mostInFlight; now > most && !mostInFlight.compare_exchange_weak(most, now);) {
            }
            std::this_thread::sleep_for(50ms);  // long enough for the others to arrive meanwhile
            --inFlight;
            response.set_content(Json{{"url", server.url() + "/put"}}.dump(), "application/json");
        });
        syncOnce();
        EXPECT_EQ(statuses.back(), wantStatus);
        EXPECT_EQ(countRows("capture_images WHERE sync_state = 'synced'"), wantSent);  // never the image without its file
    }
    EXPECT_GT(mostInFlight, 1);
    EXPECT_EQ(types, (std::multiset<std::string>{"image/jpeg", "image/jpeg", "image/png", "image/png", "image/webp"}));
    EXPECT_EQ(logged("warn Image " + id8(images[0]) + " skipped: "), 3);
    EXPECT_EQ(countRows("capture_images WHERE length(original_sha256) = 64"), 5);
}

TEST_F(SyncEngineTest, TheDailyReconcileDropsWhatTheServerLostAndRefetchesWhatIsMissingHere) {
    DBusSession bus;
    const Capture kept = seedShared("Kept"), lost = seedShared("Lost");
    onSync([](const Json& body, int) {
        Json reply = applied(body);
        reply["cursor"] = 7;
        return reply;
    });
    make();
    ChangeSignalListener listener;
    syncOnce();
    EXPECT_EQ(listener.settle(0), 0) << "nothing dropped: nothing for other programs to re-read";
    syncOnce();
    EXPECT_EQ(requests("/v1/sync/reconcile"), 1) << "once a day";

    store.setSyncMeta("last_reconcile", "2000-01-01T00:00:00Z");
    const Json reply = {{"drop", {lost.id}}, {"missing", {"elsewhere"}}};
    server.on("POST /v1/sync/reconcile", ApiTestServer::json(200, reply.dump()));
    syncOnce();
    EXPECT_GE(listener.settle(1), 1);
    EXPECT_EQ(store.syncedCaptureIDs(), std::vector<std::string>{kept.id});
    EXPECT_EQ(logged("1 captures missing locally; pulling everything again"), 1);
    EXPECT_EQ(sentBodies().back()["cursor"], 0) << "a whole pull follows at once";
}

}  // namespace
}  // namespace mirel::test
