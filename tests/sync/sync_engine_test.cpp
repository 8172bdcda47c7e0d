// The engine against a scripted API server on 127.0.0.1: the verdicts of the
// cycle, the status after each kind of failure, edits made while their change
// is in flight, and server-given names that must not become paths.
#include "core/sync/content_hash.h"
#include "core/sync/keychain.h"
#include "core/sync/sync_engine.h"
#include "tests/support/api_test_server.h"
#include "tests/support/image_files.h"
#include "tests/support/scoped_env.h"
#include "tests/sync/sync_fixture.h"

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>

#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <thread>

namespace mirel::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kAccount =
    R"({"user":{"id":"u1","name":"Ada","email":"ada@example.com"},"workspaces":[{"id":"ws-1","name":"Team","slug":"team","role":"owner"}]})";

class SyncEngineTest : public SyncStoreTest {
protected:
    SyncEngineTest() {
        env.set("XDG_CONFIG_HOME", (library.home() / "config").string());
        env.unset("DBUS_SESSION_BUS_ADDRESS");
        Keychain::write("token-1", "session");
        server.on("GET /v1/me", ApiTestServer::json(200, kAccount));
        server.on("POST /v1/sync/reconcile", ApiTestServer::json(200, R"({"drop":[],"missing":[]})"));
    }
    ~SyncEngineTest() override { engine.reset(); }

    // Answers each /v1/sync with `reply(body, exchange number from 1)`.
    void onSync(std::function<Json(const Json&, int)> reply) {
        server.on("POST /v1/sync", [this, reply](const httplib::Request& request, httplib::Response& response) {
            const Json body = *parseJSON(request.body);
            std::lock_guard lock(mutex);
            sentBodies.push_back(body);
            response.set_content(reply(body, static_cast<int>(sentBodies.size())).dump(), "application/json");
        });
    }

    SyncEngine& make(const std::string& url = "") {
        engine = SyncEngine::create(io.get_executor(), store, url.empty() ? server.url() : url, "test", "1.0");
        engine->onStatus([this](const SyncStatus& status) { statuses.push_back(std::string(status.name())); });
        return *engine;
    }
    void syncOnce() {
        asio::co_spawn(engine->executor(), engine->syncNow(), asio::detached);
        io.run_for(10s);
        io.restart();
    }
    // How many exchanges carried a change of `id`.
    int timesSent(const std::string& id) {
        int count = 0;
        for (const Json& body : sentBodies) {
            for (const Json& change : body["changes"]) count += change.value("id", "") == id;
        }
        return count;
    }
    std::vector<std::string> logLines() {
        std::vector<std::string> lines;
        for (const auto& line : store.syncLog(100)) lines.insert(lines.begin(), line.level + " " + line.message);
        return lines;
    }

    ScopedEnv env;
    ApiTestServer server;
    asio::io_context io;
    std::shared_ptr<SyncEngine> engine;
    std::vector<std::string> statuses;
    std::mutex mutex;
    std::vector<Json> sentBodies;
};

std::string id8(const std::string& id) { return id.substr(id.size() - 8); }

TEST_F(SyncEngineTest, VerdictsSettleTheLedgerAndRetriedRejectionsStopAtSix) {
    struct Row {
        const char* result;  // "{id}" stands for the row's id
        bool isNew;
        int wantSent;
        const char* wantState;  // sync_state afterwards
        const char* wantLog;    // "" for none; "{id8}" stands for the id's end
    };
    const Row rows[] = {
        {R"({"id":"{id}","status":"applied","version":7})", true, 1, "synced", ""},
        {R"({"id":"{id}","status":"merged","version":3,"conflicts":["note","priority"]})", false, 1, "synced",
         "info captures {id8}: the server's note, priority stood; your version was kept alongside"},
        {R"({"id":"{id}","status":"merged","conflicts":[]})", false, 1, "synced", ""},
        {R"({"id":"{id}","status":"rejected","reason":"too big"})", false, 1, "synced",
         "warn captures {id8} rejected: too big"},
        {R"({"id":"{id}","status":"rejected"})", true, 1, "local", "warn captures {id8} rejected: rejected"},
        {R"({"id":"{id}","status":"rejected","retry":true})", false, 6, "synced",
         "warn captures {id8} rejected: rejected"},
        {R"({"id":"someone-else","status":"applied"})", false, 6, "pendingPush", ""},
    };
    std::map<std::string, const Row*> byID;
    for (const Row& row : rows) {
        const Capture c = seedShared("Note", "pendingPush", row.isNew ? R"({"*":true})" : R"({"note":true})");
        byID[c.id] = &row;
    }
    onSync([&](const Json& body, int) {
        Json results = Json::array();
        for (const Json& change : body["changes"]) {
            const std::string id = change["id"];
            std::string text = byID.at(id)->result;
            if (const auto at = text.find("{id}"); at != std::string::npos) text.replace(at, 4, id);
            results.push_back(*parseJSON(text));
        }
        return Json{{"results", results}, {"cursor", 12}};
    });
    make();
    syncOnce();

    const auto lines = logLines();
    for (const auto& [id, row] : byID) {
        SCOPED_TRACE(row->result);
        EXPECT_EQ(timesSent(id), row->wantSent);
        EXPECT_EQ(text("captures", id, "sync_state"), row->wantState);
        std::string want = row->wantLog;
        if (const auto at = want.find("{id8}"); at != std::string::npos) want.replace(at, 5, id8(id));
        EXPECT_EQ(std::count(lines.begin(), lines.end(), want), want.empty() ? 0 : 1);
    }
    EXPECT_EQ(store.syncMeta("cursor"), "12");
    EXPECT_EQ(sentBodies.size(), 6u);
    EXPECT_EQ(statuses.back(), "idle");
}

TEST_F(SyncEngineTest, EachKindOfFailureGivesItsStatusAndLosesNoEdit) {
    struct Row {
        const char* name;
        std::function<void(httplib::Response&)> reply;  // of the first /v1/sync
        const char* wantStatus;
        const char* wantLog;  // the newest line of the sync log, "" for none
    };
    const Row rows[] = {
        {"500", [](auto& r) { r.status = 500; }, "failed", "error "},
        {"garbage", [](auto& r) { r.set_content("[1,{\"results\":7}", "application/json"); }, "failed", "error "},
        {"wrong shapes", [](auto& r) { r.set_content(R"({"results":{"a":1},"changes":7,"cursor":"x","more":"yes"})", "application/json"); },
         "idle", ""},
        {"dropped mid-reply",
         [](auto& r) {
             r.set_content_provider(1000, "application/json", [](std::size_t, std::size_t, httplib::DataSink& sink) {
                 sink.write("{\"results\":[", 12);
                 return false;
             });
         },
         "offline", ""},
        {"401", [](auto& r) { r.status = 401; }, "sessionExpired", "warn Session rejected by the server; signed out"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const Capture c = seedShared("Local words", "pendingPush", R"({"note":true})");
        std::atomic<bool> failing{true};
        server.on("POST /v1/sync", [&](const httplib::Request& request, httplib::Response& response) {
            if (failing.exchange(false)) return row.reply(response);
            const Json body = *parseJSON(request.body);
            Json results = Json::array();
            for (const Json& change : body["changes"]) {
                results.push_back({{"id", change["id"]}, {"status", "applied"}});
            }
            response.set_content(Json{{"results", results}}.dump(), "application/json");
        });
        statuses.clear();
        make();
        syncOnce();
        EXPECT_EQ(statuses.back(), row.wantStatus);
        const auto log = store.syncLog(1);
        const std::string newest = log.empty() ? "" : log.front().level + " " + log.front().message;
        // Without a line of its own, the newest is the previous row's marker.
        const std::string want = *row.wantLog ? row.wantLog : "info -- ";
        EXPECT_TRUE(newest.starts_with(want) || (!*row.wantLog && newest.empty())) << newest;
        store.log("info", "-- " + std::string(row.name));  // a marker for the next row

        if (std::string(row.wantStatus) != "idle") {
            // Nothing lost: the edit still waits, and the next good run sends it.
            EXPECT_EQ(text("captures", c.id, "note"), "Local words");
            EXPECT_EQ(text("captures", c.id, "sync_state"), "pendingPush");
        }
        if (std::string(row.wantStatus) == "sessionExpired") {
            EXPECT_FALSE(engine->isSignedIn());
            EXPECT_TRUE(engine->status().isSignedIn());
            EXPECT_EQ(Keychain::read("session"), std::nullopt);
            Keychain::write("token-2", "session");
            make();
        }
        syncOnce();
        EXPECT_EQ(statuses.back(), "idle");
        EXPECT_EQ(text("captures", c.id, "sync_state"), "synced");
    }
}

TEST_F(SyncEngineTest, MoreForeverGivesTwentySixExchangesInARun) {
    onSync([](const Json&, int) { return Json{{"more", true}, {"cursor", 1}}; });
    make();
    syncOnce();
    EXPECT_EQ(sentBodies.size(), 26u);
    EXPECT_EQ(statuses.back(), "idle");
}

TEST_F(SyncEngineTest, AnEditMadeWhileItsChangeIsInFlightGoesOutNext) {
    const Capture c = seedShared("First words", "pendingPush", R"({"note":true})");
    onSync([&](const Json& body, int exchange) {
        // The user types on while the first exchange is on the wire.
        if (exchange == 1) {
            Capture edited = *store.rawCapture(c.id);
            edited.note = "Second words";
            store.update(edited);
        }
        Json results = Json::array();
        for (const Json& change : body["changes"]) results.push_back({{"id", change["id"]}, {"status", "applied"}});
        return Json{{"results", results}};
    });
    make();
    syncOnce();
    ASSERT_EQ(sentBodies.size(), 2u);
    EXPECT_EQ(sentBodies[0]["changes"][0]["patch"]["note"], "First words");
    EXPECT_EQ(sentBodies[1]["changes"][0]["patch"]["note"], "Second words");
    EXPECT_EQ(text("captures", c.id, "sync_state"), "synced");
}

TEST_F(SyncEngineTest, ServerGivenNamesThatAreNotPlainFileNamesAreRefused) {
    const Capture c = seedShared("Shared");
    const auto imageRow = [&](const std::string& id, const std::string& sha) {
        return Json{{"table", "capture_images"},
                    {"row",
                     {{"id", id}, {"capture_id", c.id}, {"position", 0}, {"original_sha256", sha},
                      {"created_at", "2024-05-01T00:00:00.000Z"}, {"version", 1}}}};
    };
    onSync([&](const Json&, int) {
        return Json{{"changes", {imageRow("../../outside", "aa11"), imageRow("img-ok", "../../etc/passwd"),
                                 imageRow(std::string(65, 'a'), "bb22")}}};
    });
    server.on("GET /v1/blobs/ws-1/aa11", ApiTestServer::json(500, "{}"));
    make();
    syncOnce();
    const auto lines = logLines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& line) { return line.find("is not a plain file name") != std::string::npos; }),
              3);
    for (const auto& seen : server.seen()) EXPECT_FALSE(seen.target.starts_with("/v1/blobs")) << seen.target;
    EXPECT_FALSE(fs::exists(library.home().parent_path() / "outside.png"));
}

TEST_F(SyncEngineTest, ADownloadCutOffLeavesNoFileAndTheNextRunFetchesIt) {
    const Capture c = seedShared("Shared");
    const std::string png = "\x89PNG\r\n\x1a\n" + std::string(4000, 'x');
    const std::string sha = ContentHash::sha256({reinterpret_cast<const std::uint8_t*>(png.data()), png.size()});
    onSync([&](const Json&, int exchange) {
        if (exchange > 1) return Json::object();
        return Json{{"changes",
                     {{{"table", "capture_images"},
                       {"row",
                        {{"id", "img-1"}, {"capture_id", c.id}, {"position", 0}, {"original_sha256", sha},
                         {"marked_sha256", sha}, {"version", 1}}}}}}};
    });
    server.on("GET /v1/blobs/ws-1/" + sha, ApiTestServer::json(200, Json{{"url", server.url() + "/store/" + sha}}.dump()));
    std::atomic<int> fetches{0};
    server.on("GET /store/" + sha, [&](const httplib::Request&, httplib::Response& response) {
        const bool cut = fetches++ == 0;
        response.set_content_provider(png.size(), "image/png", [&, cut](std::size_t, std::size_t, httplib::DataSink& sink) {
            sink.write(png.data(), cut ? png.size() / 2 : png.size());
            return !cut;
        });
    });
    const auto files = [&] {
        std::vector<std::string> found;
        for (const auto& entry : fs::recursive_directory_iterator(library.home() / "captures")) {
            if (entry.is_regular_file()) found.push_back(entry.path().filename().string());
        }
        return found;
    };
    make();
    syncOnce();
    EXPECT_EQ(statuses.back(), "idle");
    EXPECT_TRUE(files().empty());
    EXPECT_EQ(text("capture_images", "img-1", "image_path"), "");
    EXPECT_TRUE(store.syncLog(1).front().message.starts_with("Download for image img-1 failed: "));

    syncOnce();
    EXPECT_EQ(files(), std::vector<std::string>{"img-1.png"});  // one file: the marked hash is the original's
    EXPECT_EQ(readBytes(library.home() / "captures" / *text("capture_images", "img-1", "image_path")), png);
}

TEST_F(SyncEngineTest, AScreenshotThatIsItsOwnThumbnailTravelsOnceEachWay) {
    const std::string png = "\x89PNG\r\n\x1a\n" + std::string(3000, 'p');
    const std::string sha = ContentHash::sha256({reinterpret_cast<const std::uint8_t*>(png.data()), png.size()});
    // Going up: a local image whose two files hold the same bytes.
    const Capture local = seedShared("Local");
    const CaptureImage up = makeImage(local.id);
    seedImageRow(db(), up);
    setLedger("capture_images", up.id, "pendingPush", R"({"*":true})");
    for (const fs::path& file : {library.home() / "captures" / up.imagePath, library.home() / "thumbs" / *up.thumbPath}) {
        fs::create_directories(file.parent_path());
        writeBytes(file, png);
    }
    // Coming down: a remote image whose screenshot and thumbnail share one hash.
    const Capture shared = seedShared("Shared");
    onSync([&](const Json&, int exchange) {
        if (exchange > 1) return Json::object();
        return Json{{"changes",
                     {{{"table", "capture_images"},
                       {"row",
                        {{"id", "img-down"}, {"capture_id", shared.id}, {"position", 0}, {"original_sha256", sha},
                         {"thumb_sha256", sha}, {"version", 1}}}}}}};
    });
    server.on("POST /v1/uploads", ApiTestServer::json(200, Json{{"url", server.url() + "/put/" + sha}}.dump()));
    server.on("PUT /put/" + sha, ApiTestServer::json(200, "{}"));
    server.on("POST /v1/uploads/complete", ApiTestServer::json(200, "{}"));
    server.on("GET /v1/blobs/ws-1/" + sha, ApiTestServer::json(200, Json{{"url", server.url() + "/store/" + sha}}.dump()));
    server.on("GET /store/" + sha, [&](const httplib::Request&, httplib::Response& response) {
        response.set_content(png, "image/png");
    });
    make();
    syncOnce();
    EXPECT_EQ(statuses.back(), "idle");

    std::map<std::string, int> calls;
    for (const auto& request : server.seen()) ++calls[request.method + " " + request.target];
    EXPECT_EQ(calls["POST /v1/uploads"], 1);
    EXPECT_EQ(calls["PUT /put/" + sha], 1);
    EXPECT_EQ(calls["GET /v1/blobs/ws-1/" + sha], 1);
    EXPECT_EQ(calls["GET /store/" + sha], 1);
    EXPECT_EQ(text("capture_images", up.id, "original_sha256"), sha);
    EXPECT_EQ(text("capture_images", up.id, "thumb_sha256"), sha);
    const auto imagePath = text("capture_images", "img-down", "image_path");
    const auto thumbPath = text("capture_images", "img-down", "thumb_path");
    ASSERT_TRUE(imagePath && thumbPath && !imagePath->empty());
    EXPECT_EQ(readBytes(library.home() / "captures" / *imagePath), png);
    EXPECT_EQ(readBytes(library.home() / "thumbs" / *thumbPath), png);
    EXPECT_EQ(text("captures", shared.id, "image_path"), imagePath);  // the cover follows
}

TEST_F(SyncEngineTest, ABatchCutOffByTheServerKeepsTheImagesFinishedBeforeIt) {
    const Capture c = seedShared("Shared");
    Json rows = Json::array();
    std::vector<std::string> shas;
    for (int n = 0; n < 3; ++n) {
        const std::string png = "\x89PNG\r\n\x1a\n" + std::string(100, static_cast<char>('a' + n));
        shas.push_back(ContentHash::sha256({reinterpret_cast<const std::uint8_t*>(png.data()), png.size()}));
        // Newest first: the last one is fetched last.
        rows.push_back({{"table", "capture_images"},
                        {"row",
                         {{"id", "img-" + std::to_string(n)}, {"capture_id", c.id}, {"position", n},
                          {"original_sha256", shas[n]}, {"version", 1},
                          {"created_at", "2024-06-0" + std::to_string(3 - n) + "T00:00:00Z"}}}});
        server.on("GET /v1/blobs/ws-1/" + shas[n],
                  ApiTestServer::json(200, Json{{"url", server.url() + "/store/" + shas[n]}}.dump()));
        server.on("GET /store/" + shas[n], [png](const httplib::Request&, httplib::Response& response) {
            response.set_content(png, "image/png");
        });
    }
    server.on("GET /v1/blobs/ws-1/" + shas[2], [](const httplib::Request&, httplib::Response& response) {
        response.set_content_provider(100, "application/json", [](std::size_t, std::size_t, httplib::DataSink& sink) {
            sink.write("{\"url\":", 7);
            return false;  // the connection to the API breaks
        });
    });
    onSync([&](const Json&, int exchange) { return exchange > 1 ? Json::object() : Json{{"changes", rows}}; });
    make();
    syncOnce();
    EXPECT_EQ(statuses.back(), "offline");
    for (int n : {0, 1}) EXPECT_NE(text("capture_images", "img-" + std::to_string(n), "image_path"), "") << n;
    EXPECT_EQ(text("capture_images", "img-2", "image_path"), "");
}

TEST_F(SyncEngineTest, ImagesTravelSideBySideAndAFailureHoldsBackOnlyWhatItMust) {
    struct Row {
        const char* name;
        std::function<void(httplib::Response&)> uploads;  // the answer to every upload, if not the usual
        const char* wantStatus;
        int wantSent;  // image rows sent in the first run
    };
    const Row rows[] = {
        {"one image's file gone", nullptr, "idle", 5},
        {"uploads switched off",
         [](auto& r) { r.set_content(R"({"error":{"code":"uploads_disabled"}})", "application/json"); }, "idle", 0},
        {"server failing", [](auto& r) { r.status = 500; }, "failed", 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const Capture c = seedShared("With images");
        std::vector<CaptureImage> images;
        for (int i = 0; i < 6; ++i) {
            CaptureImage image = makeImage(c.id, i);
            image.thumbPath = std::nullopt;
            seedImageRow(db(), image);
            setLedger("capture_images", image.id, "pendingPush", R"({"*":true})");
            if (i > 0) {  // the first image's file is gone
                const fs::path file = library.home() / "captures" / image.imagePath;
                fs::create_directories(file.parent_path());
                const std::string bytes = "\x89PNG\r\n\x1a\n" + image.id;
                writeBytes(file, bytes);
                const std::string sha =
                    ContentHash::sha256({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
                server.on("PUT /put/" + sha, ApiTestServer::json(200, "{}"));
            }
            images.push_back(image);
        }
        int inFlight = 0, mostInFlight = 0;
        std::atomic<bool> failing{true};
        server.on("POST /v1/uploads", [&](const httplib::Request& request, httplib::Response& response) {
            if (row.uploads && failing) return row.uploads(response);
            {
                std::lock_guard lock(mutex);
                mostInFlight = std::max(mostInFlight, ++inFlight);
            }
            std::this_thread::sleep_for(50ms);  // long enough for the others to arrive meanwhile
            {
                std::lock_guard lock(mutex);
                --inFlight;
            }
            const std::string sha = parseJSON(request.body)->value("sha256", "");
            response.set_content(Json{{"url", server.url() + "/put/" + sha}}.dump(), "application/json");
        });
        server.on("POST /v1/uploads/complete", ApiTestServer::json(200, "{}"));
        onSync([](const Json& body, int) {
            Json results = Json::array();
            for (const Json& change : body["changes"]) results.push_back({{"id", change["id"]}, {"status", "applied"}});
            return Json{{"results", results}};
        });
        statuses.clear();
        sentBodies.clear();
        make();
        syncOnce();
        EXPECT_EQ(statuses.back(), row.wantStatus);
        int sent = 0;
        for (const CaptureImage& image : images) sent += timesSent(image.id);
        EXPECT_EQ(sent, row.wantSent);
        if (row.wantSent) EXPECT_GT(mostInFlight, 1);
        // The image that could not be read stays pending, with one warning.
        EXPECT_EQ(text("capture_images", images[0].id, "sync_state"), "pendingPush");
        const auto lines = logLines();
        const std::string skipped = "warn Image " + id8(images[0].id) + " skipped: ";
        EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [&](const std::string& l) { return l.starts_with(skipped); }),
                  1);

        // Once the server takes uploads again, the rest go out; nothing was lost.
        failing = false;
        syncOnce();
        EXPECT_EQ(statuses.back(), "idle");
        for (std::size_t i = 1; i < images.size(); ++i) {
            EXPECT_EQ(text("capture_images", images[i].id, "sync_state"), "synced") << i;
            EXPECT_TRUE(text("capture_images", images[i].id, "original_sha256")) << i;
        }
    }
}

}  // namespace
}  // namespace mirel::test
