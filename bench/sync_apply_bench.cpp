// Applying remote changes as a sync cycle does: 20 replies of 500 capture
// objects with tags and 500 image objects each, row by row through
// applyRemoteCapture and applyRemoteImage, to an empty library; then the same
// 10,000 + 10,000 again, as unchanged echoes.
// Targets: at most 2 s for the first pass, at most 1.5 s for the echoes.
//
// Run it from a Release build with the benchmarks switched on:
//   cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DMIREL_BUILD_BENCH=ON
//   ninja -C build sync_apply_bench && build/bench/sync_apply_bench
#include "core/platform/json.h"
#include "core/store/capture_store.h"
#include "core/sync/wire.h"

#include <unistd.h>

#include <chrono>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Steady = std::chrono::steady_clock;

constexpr int kReplies = 20;
constexpr int kPerReply = 500;

std::string idOf(const char* kind, int i) {
    char id[40];
    std::snprintf(id, sizeof id, "%08x-%s-4000-8000-%012d", i, kind, i);
    return id;
}

std::string hashOf(int i, char salt) {
    std::string hash(64, salt);
    const std::string digits = std::to_string(i);
    return hash.replace(0, digits.size(), digits);
}

// One reply's rows: captures, then their images, as the server sends them.
std::vector<mirel::Json> reply(int r) {
    std::vector<mirel::Json> rows;
    rows.reserve(2 * kPerReply);
    for (int k = 0; k < kPerReply; ++k) {
        const int i = r * kPerReply + k;
        rows.push_back({{"id", idOf("cccc", i)},
                        {"workspace_id", "ws-bench"},
                        {"author_id", "user-1"},
                        {"note", "Capture " + std::to_string(i) + "\nThe button is clipped on the settings page"},
                        {"status", i % 3 ? "open" : "in_progress"},
                        {"priority", "normal"},
                        {"app_name", "Firefox"},
                        {"url", "https://example.test/page/" + std::to_string(i)},
                        {"display_scale", 2.0},
                        {"capture_mode", "region"},
                        {"tags", {"ui", "tag-" + std::to_string(i % 40), "release-" + std::to_string(i % 7)}},
                        {"version", 3},
                        {"created_at", "2024-05-01T10:00:00.000Z"},
                        {"updated_at", "2024-05-02T10:00:00.000Z"}});
    }
    for (int k = 0; k < kPerReply; ++k) {
        const int i = r * kPerReply + k;
        rows.push_back({{"id", idOf("1111", i)},
                        {"capture_id", idOf("cccc", i)},
                        {"position", 0},
                        {"original_sha256", hashOf(i, 'a')},
                        {"marked_sha256", hashOf(i, 'b')},
                        {"thumb_sha256", hashOf(i, 'c')},
                        {"width", 1600},
                        {"height", 1000},
                        {"bytes", 250000},
                        {"annotation_json", mirel::Json::array({{{"tool", "arrow"}}})},
                        {"version", 2},
                        {"created_at", "2024-05-01T10:00:00.000Z"}});
    }
    return rows;
}

struct Seconds {
    double wall;
    double cpu;
};

double cpuNow() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return t.tv_sec + t.tv_nsec / 1e9;
}

Seconds applyAll(mirel::CaptureStore& store, const std::vector<std::vector<mirel::Json>>& replies) {
    const auto start = Steady::now();
    const double cpuStart = cpuNow();
    for (const auto& rows : replies) {
        for (const mirel::Json& row : rows) {
            if (row.contains("capture_id")) store.applyRemoteImage(row);
            else store.applyRemoteCapture(row);
        }
    }
    return {std::chrono::duration<double>(Steady::now() - start).count(), cpuNow() - cpuStart};
}

// CPU time beside wall time: on a busy machine the wall clock also counts
// other processes' turns.
void report(const char* pass, Seconds s, double target, std::size_t rows) {
    std::printf("%-18s wall %7.3f s, CPU %7.3f s  %8.0f rows/s of CPU  (target %.1f s: %s)\n", pass, s.wall, s.cpu,
                rows / s.cpu, target, s.cpu <= target ? "met" : "MISSED");
}

}  // namespace

int main() {
    const fs::path home = fs::temp_directory_path() / ("mirel-sync-bench-" + std::to_string(getpid()));
    fs::create_directories(home);
    setenv("MIREL_HOME", home.c_str(), 1);
    int status = 0;
    {
        std::vector<std::vector<mirel::Json>> replies;
        for (int r = 0; r < kReplies; ++r) replies.push_back(reply(r));
        const std::size_t rows = static_cast<std::size_t>(kReplies) * 2 * kPerReply;

        mirel::CaptureStore store(home / "mirel.sqlite");
        const Seconds first = applyAll(store, replies);
        const Seconds echo = applyAll(store, replies);
        std::printf("%d replies of %d captures (3 tags each) and %d images: %zu rows\n", kReplies, kPerReply,
                    kPerReply, rows);
        report("empty library", first, 2.0, rows);
        report("unchanged echoes", echo, 1.5, rows);
        if (store.imagesAwaitingDownload(100000).size() != static_cast<std::size_t>(kReplies * kPerReply)) {
            std::fprintf(stderr, "unexpected library state after the run\n");
            status = 1;
        }
    }
    fs::remove_all(home);
    return status;
}
