// The library shared by several processes at once: no acknowledged write is
// lost, first starts race safely, odd files never block a reply, and a killed
// `mirel add` leaves nothing that `mirel doctor --fix` does not clear.
#include "core/store/capture_store.h"
#include "core/store/mirel_paths.h"
#include "tests/support/image_files.h"
#include "tests/e2e/run_mirel.h"
#include "tests/support/seed.h"
#include "tests/support/store_access.h"
#include "tests/support/temp_library.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <thread>

namespace mirel::test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

TEST(Integrity, TwoServersOnOneCaptureLoseNoAcknowledgedWrite) {
    TempLibrary library;
    Capture seeded = makeCapture("start", kSeedDate, false);
    CaptureStore store(library.databasePath());
    store.insert(seeded);

    McpProcess editor(library.home()), worker(library.home());
    std::atomic<bool> stop{false};
    std::atomic<int> workerCalls{0};
    std::thread claiming([&] {
        while (!stop) {
            worker.callTool("claim_capture", {{"id", seeded.id}});
            worker.callTool("reopen_capture", {{"id", seeded.id}});
            workerCalls += 2;
        }
    });

    int acknowledged = 0, reverted = 0;
    const auto end = Clock::now() + std::chrono::seconds(5);
    for (int i = 0; Clock::now() < end; ++i) {
        const std::string note = "note " + std::to_string(i);
        const Json reply = editor.callTool("update_capture", {{"id", seeded.id}, {"note", note}});
        if (McpProcess::text(reply).rfind("Updated [", 0) != 0) continue;
        ++acknowledged;
        // Read back at once, and again once the other process has finished
        // any write it had under way.
        const int seen = workerCalls;
        bool kept = store.capture(seeded.id)->note == note;
        const auto wait = Clock::now() + std::chrono::seconds(2);
        while (workerCalls < seen + 2 && Clock::now() < wait) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        kept = kept && store.capture(seeded.id)->note == note;
        if (!kept) ++reverted;
    }
    stop = true;
    claiming.join();
    EXPECT_GT(acknowledged, 20);
    EXPECT_GT(workerCalls, 20);
    EXPECT_EQ(reverted, 0);
    // Each acknowledged update left its history line.
    int updates = 0;
    for (const ActivityEvent& event : store.activity(seeded.id)) updates += event.kind == "updated";
    EXPECT_EQ(updates, acknowledged);
}

TEST(Integrity, ServersAndAnAddStartingTogetherOnAnEmptyFolderAllSucceed) {
    TempLibrary library;
    constexpr int trials = 5;
    int failures = 0;
    for (int trial = 0; trial < trials; ++trial) {
        const fs::path home = library.home() / ("trial-" + std::to_string(trial));
        const auto add = startMirel(home, {"add", "--note", "first"});
        std::vector<std::unique_ptr<McpProcess>> servers;
        for (int i = 0; i < 4; ++i) servers.push_back(std::make_unique<McpProcess>(home));
        for (auto& server : servers) failures += server->request("ping")["result"] != Json::object();
        failures += add->waitForExit() != 0;
        Database db(home / "mirel.sqlite");
        EXPECT_EQ(db.query("PRAGMA user_version")[0].intValue("user_version"), 5);
        EXPECT_TRUE(db.query("SELECT name FROM sqlite_master WHERE name = 'projects'").empty());
        EXPECT_EQ(db.query("SELECT count(*) AS n FROM captures")[0].intValue("n"), 1);
    }
    EXPECT_EQ(failures, 0) << "of " << trials * 5 << " processes";
}

TEST(Integrity, OddScreenshotFilesAreAnsweredAsMissingAtOnce) {
    TempLibrary library;
    CaptureStore store(library.databasePath());
    (void)MirelPaths::ensureDirectories();
    const fs::path fifo = MirelPaths::capturesRoot() / "fifo.png";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    writeImageFile(library.home() / "outside.png", 40, 30, ImageFileFormat::png);
    // A named pipe, an absolute path and one that climbs out of the library.
    for (const std::string& stored : {std::string("fifo.png"), (library.home() / "outside.png").string(),
                                     std::string("../outside.png")}) {
        Capture capture = makeCapture("Odd file");
        capture.imagePath = stored;
        seedCaptureRow(CaptureStoreTestAccess::database(store), capture);
        CaptureImage image = makeImage(capture.id);
        image.imagePath = stored;
        image.thumbPath.reset();
        seedImageRow(CaptureStoreTestAccess::database(store), image);
    }
    McpProcess server(library.home());
    for (const Capture& capture : store.captures({})) {
        SCOPED_TRACE(capture.imagePath);
        const auto started = Clock::now();
        const Json reply = server.callTool("get_capture", {{"ids", Json::array({capture.id})}});
        EXPECT_NE(McpProcess::text(reply).find("A screenshot file is missing at"), std::string::npos);
        const Json resource = server.request("resources/read", {{"uri", "mirel://capture/" + capture.id}});
        EXPECT_TRUE(resource.contains("result"));
        EXPECT_LT(Clock::now() - started, std::chrono::seconds(1));
        for (const Json& block : reply["content"]) EXPECT_NE(block["type"], "image");
    }
    EXPECT_EQ(server.request("ping")["result"], Json::object());
}

TEST(Integrity, KilledAddsLeaveNothingThatDoctorFixDoesNotClear) {
    TempLibrary library;
    std::vector<std::string> arguments = {"add", "--note", "Killed", "--group", "Group", "--tag", "t"};
    for (int i = 0; i < 3; ++i) {
        const fs::path shot = library.home() / ("shot" + std::to_string(i) + ".png");
        writeImageFile(shot, 1200, 800, ImageFileFormat::png);
        arguments.push_back(shot.string());
    }
    // How long one whole filing takes: the kills fall anywhere within it.
    const auto started = Clock::now();
    ASSERT_EQ(runMirel(library.home(), arguments).status, 0);
    const auto whole = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - started);

    std::mt19937 random(20261123);
    constexpr int kills = 15;
    for (int i = 0; i < kills; ++i) {
        arguments[4] = "Group " + std::to_string(i);
        const auto add = startMirel(library.home(), arguments);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % whole.count()));
        add->terminate(SIGKILL);
        add->waitForExit();
    }

    writeBytes(MirelPaths::capturesRoot() / "orphan.png", "no row names it");
    const Ran before = runMirel(library.home(), {"doctor"}), after = runMirel(library.home(), {"doctor", "--fix"});
    ASSERT_EQ(before.status + after.status, 0);
    std::cout << "[ figures ] " << kills << " kills within " << whole.count() / 1000 << " ms; doctor found:\n" << before.out;

    CaptureStore store(library.databasePath());
    const CaptureStore::NamedFiles named = store.namedFiles();
    for (const auto& [root, names] : {std::pair{MirelPaths::capturesRoot(), named.images},
                                      std::pair{MirelPaths::thumbsRoot(), named.thumbs}}) {
        for (const auto& entry : fs::recursive_directory_iterator(root)) {
            if (entry.is_regular_file()) {
                EXPECT_TRUE(names.count(entry.path().lexically_relative(root).string())) << entry.path();
            }
        }
    }
    for (const CaptureImage& image : store.liveImages()) EXPECT_TRUE(fs::exists(image.originalURL()));
    EXPECT_TRUE(!fs::exists(MirelPaths::temporaryRoot()) || fs::is_empty(MirelPaths::temporaryRoot()));
    EXPECT_TRUE(store.groupsWithoutCaptures().empty());
    EXPECT_NE(before.out.find((MirelPaths::capturesRoot() / "orphan.png").string()), std::string::npos) << before.out;
}

TEST(Integrity, AnAddSweepsTheTemporaryFilesOfDeadWritersOnly) {
    TempLibrary library;
    const fs::path folder = MirelPaths::temporaryRoot();
    fs::create_directories(folder);
    const std::string live = "add-" + std::to_string(::getpid()) + "-x";  // this test is its writer
    for (const std::string& name : {live, std::string("add-999999999-x"), std::string("add-12"), std::string("stray"),
                                     "add-" + std::to_string(::getpid()) + "x"}) {
        writeBytes(folder / name, "partial");
    }
    ASSERT_EQ(runMirel(library.home(), {"add", "--note", "Sweeps"}).status, 0);
    std::vector<std::string> left;
    for (const auto& entry : fs::directory_iterator(folder)) left.push_back(entry.path().filename().string());
    EXPECT_EQ(left, std::vector<std::string>{live});
}

}  // namespace
}  // namespace mirel::test
