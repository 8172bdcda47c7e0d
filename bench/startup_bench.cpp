// Start-up latency of mirel-mcp: from spawning the process to reading its
// reply to `initialize`, on a library of 10,000 captures. Target: median at
// most 5 ms.
//
// Run it from a Release build with the benchmarks switched on:
//   cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DMIREL_BUILD_BENCH=ON
//   ninja -C build-bench startup_bench && build-bench/bench/startup_bench [runs]
//
// It prints the median and p90 over the runs (default 50), after a few
// warm-up runs, next to the cost of spawning a trivial program for scale.
#include "bench/piped_child.h"
#include "core/store/capture_store.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>


namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kCaptures = 10000;

// Seeds the library with raw rows in one transaction: the store's own write
// path (ledger, activity, change signal) is not what is measured here.
void seedLibrary(const fs::path& database) {
    { mirel::CaptureStore migrated(database); }
    mirel::Database db(database);
    db.transaction([&] {
        const char* statuses[] = {"open", "open", "in_progress", "resolved", "archived"};
        for (int i = 0; i < kCaptures; ++i) {
            char id[40];
            std::snprintf(id, sizeof id, "%08x-0000-4000-8000-%012d", i, i);
            const double created = 1714521600.0 + i * 60.0;
            db.execute(
                "INSERT INTO captures (id, created_at, updated_at, note, status, priority, image_path, "
                "thumb_path, image_width, image_height, image_bytes, capture_mode, app_name, window_title, url) "
                "VALUES (?, ?, ?, ?, ?, 'normal', ?, ?, 1600, 1000, 245000, 'region', 'Safari', 'Checkout', "
                "'https://example.com/checkout')",
                {std::string(id), created, created, "Button " + std::to_string(i) + " is clipped on the right",
                 statuses[i % 5], "2024/05/" + std::string(id) + ".png", "2024/05/" + std::string(id) + ".jpg"});
            db.execute(
                "INSERT INTO capture_images (id, capture_id, position, image_path, thumb_path, width, height, "
                "bytes, created_at) VALUES (?, ?, 0, ?, ?, 1600, 1000, 245000, ?)",
                {"img-" + std::string(id), std::string(id), "2024/05/" + std::string(id) + ".png",
                 "2024/05/" + std::string(id) + ".jpg", created});
        }
    });
}

// Spawns `program` with stdin and stdout on pipes, writes `input`, and gives
// the time until the first line arrives on its stdout (or until it exits when
// `input` is empty).
double timeOneRun(const char* program, const std::string& input) {
    const auto start = Clock::now();
    const PipedChild child = spawnPiped(program);
    if (!input.empty() && ::write(child.input, input.data(), input.size()) != static_cast<ssize_t>(input.size()))
        throw std::runtime_error("write");
    std::string reply;
    char buffer[8192];
    while (reply.find('\n') == std::string::npos) {
        const ssize_t n = ::read(child.output, buffer, sizeof buffer);
        if (n <= 0) break;
        reply.append(buffer, static_cast<std::size_t>(n));
    }
    const auto end = Clock::now();

    ::close(child.input);
    ::close(child.output);
    int status = 0;
    ::waitpid(child.pid, &status, 0);
    if (!input.empty() && reply.find("\"protocolVersion\":\"2025-06-18\"") == std::string::npos)
        throw std::runtime_error("no initialize reply: " + reply);
    return std::chrono::duration<double, std::milli>(end - start).count();
}

struct Figures {
    double median, p90, minimum;
};

Figures measure(int runs, const char* program, const std::string& input) {
    for (int i = 0; i < 5; ++i) timeOneRun(program, input);  // warm the page cache
    std::vector<double> times;
    for (int i = 0; i < runs; ++i) times.push_back(timeOneRun(program, input));
    std::sort(times.begin(), times.end());
    return {times[times.size() / 2], times[std::min(times.size() - 1, times.size() * 9 / 10)], times.front()};
}

}  // namespace

int main(int argc, char** argv) {
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 50;
    char pattern[] = "/tmp/mirel-bench-XXXXXX";
    if (!::mkdtemp(pattern)) return 1;
    const fs::path home = pattern;
    ::setenv("MIREL_HOME", home.c_str(), 1);
    ::unsetenv("MIREL_AGENT");

    int status = 0;
    try {
        seedLibrary(home / "mirel.sqlite");
        const std::string initialize =
            R"({"jsonrpc":"2.0","id":0,"method":"initialize","params":{"protocolVersion":"2025-06-18",)"
            R"("capabilities":{},"clientInfo":{"name":"bench","version":"1"}}})"
            "\n";
        const Figures baseline = measure(runs, "/bin/true", "");
        const Figures server = measure(runs, MIREL_MCP_BINARY, initialize);
        std::printf("spawn of /bin/true:              median %6.2f ms   p90 %6.2f ms   min %6.2f ms\n",
                    baseline.median, baseline.p90, baseline.minimum);
        std::printf("mirel-mcp to initialize reply:   median %6.2f ms   p90 %6.2f ms   min %6.2f ms"
                    "   (%d runs, %d captures; target median <= 5 ms)\n",
                    server.median, server.p90, server.minimum, runs, kCaptures);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "startup_bench: %s\n", error.what());
        status = 1;
    }
    std::error_code ignored;
    fs::remove_all(home, ignored);
    return status;
}
