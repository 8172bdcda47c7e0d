// Memory of `mirel watch` while 10,000 change events arrive on its stream.
// A real mirel-server; the watcher is the built `mirel watch`, signed in like
// a user would; a second device pushes new captures straight to /v1/sync in
// batches, and each accepted change is one event on the watcher's stream.
// The watcher's VmRSS and VmHWM (/proc/PID/status) are printed at the start,
// and after every 2,000 events once the watcher has pulled them in: flat
// figures mean that nothing grows with the events. Takes a minute or two.
//
//   cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DMIREL_BUILD_BENCH=ON -DMIREL_BUILD_TESTS=OFF
//   ninja -C build-bench watch_memory_bench mirel mirel-server
//   build-bench/bench/watch_memory_bench [events]    (default 10000)
#include "bench/mirel_devices.h"
#include "core/store/capture_store.h"
#include "core/store/mirel_paths.h"
#include "tests/support/server_process.h"

#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using mirel::Json;
using mirel::test::ServerProcess;

constexpr int kBatch = 100;            // changes per exchange of the pushing device
constexpr int kReportEvery = 2000;     // events between two readings
constexpr auto kCatchUp = std::chrono::seconds(60);

struct Memory {
    long rssKB = -1, peakKB = -1;
};

Memory memoryOf(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    Memory memory;
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) memory.rssKB = std::atol(line.c_str() + 6);
        if (line.rfind("VmHWM:", 0) == 0) memory.peakKB = std::atol(line.c_str() + 6);
    }
    return memory;
}

void report(const char* when, int events, pid_t pid) {
    const Memory memory = memoryOf(pid);
    std::printf("%-24s %6d events   VmRSS %6.1f MB   VmHWM %6.1f MB\n", when, events, memory.rssKB / 1024.0,
                memory.peakKB / 1024.0);
}

std::int64_t capturesIn(const bench::Device& device, const std::string& url) {
    device.enter(url);
    mirel::CaptureStore store(mirel::MirelPaths::databaseURL());
    std::int64_t count = 0;
    for (const auto& [status, n] : store.countsByStatus()) count += n;
    return count;
}

Json newCaptures(const std::string& workspaceID, int first, int count) {
    Json changes = Json::array();
    for (int n = first; n < first + count; ++n) {
        char id[37];
        std::snprintf(id, sizeof id, "00000000-0000-4000-8000-%012d", n);
        changes.push_back({{"table", "captures"},
                           {"id", id},
                           {"base_version", 0},
                           {"patch",
                            {{"workspace_id", workspaceID},
                             {"note", "Event #" + std::to_string(n) + ": the total overlaps the button"},
                             {"status", "open"},
                             {"priority", "normal"},
                             {"capture_mode", "region"},
                             {"created_at", "2026-05-01T10:00:00.000Z"}}}});
    }
    return changes;
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const int events = argc > 1 ? std::atoi(argv[1]) : 10000;
    if (events <= 0) {
        std::fprintf(stderr, "usage: watch_memory_bench [events]\n");
        return 2;
    }
    std::string pattern = (fs::temp_directory_path() / "mirel-watch-memory-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    const fs::path scratch = pattern;
    int result = 1;
    {
        ServerProcess server;
        server.addUser(bench::kEmail, "Ada");
        server.addWorkspace("team", "Team", {bench::kEmail});
        const bench::Device watcher{"watcher", scratch / "watcher", scratch / "watcher-config"};
        bench::signIn(server, watcher, scratch);
        const std::string token = server.signIn(bench::kEmail);  // the pushing device
        const std::string workspaceID = server.workspaceID(token, "team");

        // A run 200 ms after an event instead of 2 s: the same work, sooner.
        const pid_t pid =
            bench::spawnMirel(watcher, server.url(), {"watch", "--intervals", "30000,200,1000"}, scratch / "watch");
        std::this_thread::sleep_for(std::chrono::seconds(2));  // started, first run over, stream open
        report("start", 0, pid);

        std::int64_t cursor = 0;
        int sent = 0;
        bool caughtUp = true;
        while (sent < events && caughtUp) {
            const int count = std::min(kBatch, events - sent);
            const Json reply = server.sync(token, cursor, newCaptures(workspaceID, sent, count), "pusher");
            cursor = reply.value("cursor", cursor);
            sent += count;
            // Waiting for each batch to be pulled in keeps the stream's queue
            // far below the server's limit (1,000), past which it would merge
            // events: so every one of them reaches the watcher.
            const auto deadline = Clock::now() + kCatchUp;
            while (capturesIn(watcher, server.url()) < sent && Clock::now() < deadline) {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            caughtUp = capturesIn(watcher, server.url()) >= sent;
            if (!caughtUp || sent % kReportEvery == 0 || sent == events) {
                report(caughtUp ? "pulled in" : "NOT CAUGHT UP", sent, pid);
            }
        }
        ::kill(pid, SIGINT);
        int status = 0;
        ::waitpid(pid, &status, 0);
        server.stop();
        result = caughtUp && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
        if (result != 0) std::fprintf(stderr, "mirel watch's output: %s.out / .err\n", (scratch / "watch").c_str());
    }
    if (result == 0) {
        std::error_code ignored;
        fs::remove_all(scratch, ignored);
    }
    return result;
}
