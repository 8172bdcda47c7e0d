// list_captures with limit 200 on a library of 10,000 captures with groups,
// tags, comments and image rows. Target: median at most 15 ms.
//
// Two measurements, printed side by side:
//   in-process  ToolRegistry::call on an open CaptureStore: the handler and
//               its store reads alone;
//   over pipes  the real mirel-mcp, started once, one tools/call line written
//               and its reply line read back per run: what an agent waits for.
//
// Run it from a Release build with the benchmarks switched on:
//   cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DMIREL_BUILD_BENCH=ON
//   ninja -C build-bench list_captures_bench && build-bench/bench/list_captures_bench [runs]
#include "bench/piped_child.h"
#include "core/platform/json.h"
#include "core/store/capture_store.h"
#include "mcp/tools/tool_registry.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>


namespace {

namespace fs = std::filesystem;
using Steady = std::chrono::steady_clock;

constexpr int kCaptures = 10000;
constexpr int kGroups = 12;
constexpr int kTags = 24;

std::string idOf(const char* kind, int i) {
    char id[40];
    std::snprintf(id, sizeof id, "%08x-%s-4000-8000-%012d", i, kind, i);
    return id;
}

// Raw rows in one transaction: the store's own write path is not measured.
void seedLibrary(const fs::path& database) {
    { mirel::CaptureStore migrated(database); }
    mirel::Database db(database);
    db.transaction([&] {
        const double base = 1714521600.0;
        for (int g = 0; g < kGroups; ++g)
            db.execute("INSERT INTO groups (id, name, created_at, updated_at) VALUES (?, ?, ?, ?)",
                       {idOf("9999", g), "group " + std::to_string(g), base, base});
        for (int t = 0; t < kTags; ++t)
            db.execute("INSERT INTO tags (id, name, created_at) VALUES (?, ?, ?)",
                       {idOf("8888", t), "tag" + std::to_string(t), base});
        const char* statuses[] = {"open", "in_progress", "resolved", "archived"};
        const char* priorities[] = {"normal", "normal", "high", "low"};
        for (int i = 0; i < kCaptures; ++i) {
            const std::string id = idOf("0000", i);
            const double created = base + i * 60.0;
            db.execute(
                "INSERT INTO captures (id, created_at, updated_at, note, status, priority, group_id, image_path, "
                "thumb_path, image_width, image_height, image_bytes, capture_mode, app_name, window_title, url, "
                "claimed_by) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, 1600, 1000, 245000, 'region', 'Safari', ?, "
                "'https://example.com/checkout', ?)",
                {id, created, created, "Button " + std::to_string(i) + " is clipped on the right\nSteps follow.",
                 statuses[i % 4], priorities[i % 7 % 4],
                 i % 5 == 0 ? mirel::SQLValue() : mirel::SQLValue(idOf("9999", i % kGroups)),
                 i % 9 == 0 ? std::string() : "2024/05/" + id + ".png", "2024/05/" + id + ".jpg",
                 "Checkout " + std::to_string(i % 3), i % 6 == 0 ? mirel::SQLValue("claude") : mirel::SQLValue()});
            const int images = i % 9 == 0 ? 0 : 1 + i % 3;  // text-only captures have none
            for (int k = 0; k < images; ++k)
                db.execute(
                    "INSERT INTO capture_images (id, capture_id, position, image_path, width, height, bytes, "
                    "created_at) VALUES (?, ?, ?, ?, 1600, 1000, 245000, ?)",
                    {idOf("7777", i * 4 + k), id, k, "2024/05/" + id + "-" + std::to_string(k) + ".png", created});
            for (int k = 0; k < 2 + i % 2; ++k)
                db.execute("INSERT INTO capture_tags (capture_id, tag_id) VALUES (?, ?)",
                           {id, idOf("8888", (i + k * 7) % kTags)});
            for (int k = 0; k < i % 4; ++k)
                db.execute(
                    "INSERT INTO comments (id, capture_id, author, is_agent, body, created_at, kind, sync_state) "
                    "VALUES (?, ?, 'Ada', 0, 'Seen it again', ?, 'comment', 'local')",
                    {idOf("6666", i * 4 + k), id, created + k});
        }
    });
}

// CPU time of this thread: on a busy machine it shows the cost apart from
// the wait for a core.
double threadCPUms() {
    timespec t{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

struct Figures {
    double median, p90, min;
};

Figures summarize(std::vector<double> ms) {
    std::sort(ms.begin(), ms.end());
    return {ms[ms.size() / 2], ms[std::min(ms.size() - 1, ms.size() * 9 / 10)], ms.front()};
}

// The real server on pipes, kept alive across runs.
class Server {
public:
    explicit Server(const char* program) {
        const PipedChild child = spawnPiped(program);
        pid_ = child.pid;
        input_ = child.input;
        output_ = child.output;
    }
    ~Server() {
        ::close(input_);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        ::close(output_);
    }
    std::string exchange(const std::string& line) {
        const std::string framed = line + "\n";
        for (std::size_t sent = 0; sent < framed.size();) {
            const ssize_t n = ::write(input_, framed.data() + sent, framed.size() - sent);
            if (n <= 0) throw std::runtime_error("write");
            sent += static_cast<std::size_t>(n);
        }
        for (;;) {
            if (const auto end = buffer_.find('\n'); end != std::string::npos) {
                std::string reply = buffer_.substr(0, end);
                buffer_.erase(0, end + 1);
                return reply;
            }
            char chunk[65536];
            const ssize_t n = ::read(output_, chunk, sizeof chunk);
            if (n <= 0) throw std::runtime_error("the server closed its output");
            buffer_.append(chunk, static_cast<std::size_t>(n));
        }
    }

private:
    pid_t pid_ = -1;
    int input_ = -1, output_ = -1;
    std::string buffer_;
};

}  // namespace

int main(int argc, char** argv) {
    const int runs = argc > 1 ? std::max(5, std::atoi(argv[1])) : 100;
    char pattern[] = "/tmp/mirel-list-bench-XXXXXX";
    if (!::mkdtemp(pattern)) return 1;
    const fs::path home = pattern;
    ::setenv("MIREL_HOME", home.c_str(), 1);

    const auto seedStart = Steady::now();
    seedLibrary(home / "mirel.sqlite");
    std::printf("seeded %d captures in %.0f ms\n", kCaptures,
                std::chrono::duration<double, std::milli>(Steady::now() - seedStart).count());

    const mirel::Json arguments = {{"limit", 200}};
    std::size_t replyBytes = 0;

    std::vector<double> inProcess, inProcessCPU;
    {
        mirel::CaptureStore store(home / "mirel.sqlite");
        mirel::ToolRegistry tools(store, "agent");
        for (int i = 0; i < runs + 5; ++i) {
            const double cpuStart = threadCPUms();
            const auto start = Steady::now();
            const auto result = tools.call("list_captures", arguments);
            const double ms = std::chrono::duration<double, std::milli>(Steady::now() - start).count();
            const double cpu = threadCPUms() - cpuStart;
            if (result.isError || result.content.empty()) {
                std::fprintf(stderr, "list_captures failed\n");
                return 1;
            }
            replyBytes = result.content.front().value("text", "").size();
            if (i >= 5) {  // the first runs warm the page cache
                inProcess.push_back(ms);
                inProcessCPU.push_back(cpu);
            }
        }
    }

    // Where the time goes: the store calls the handler makes, one by one.
    {
        mirel::CaptureStore store(home / "mirel.sqlite");
        mirel::CaptureQuery query;
        query.statuses = mirel::CaptureStatuses::active;
        query.limit = 200;
        std::vector<double> captures, groups, comments, images, tags;
        const auto time = [](std::vector<double>& into, auto&& body) {
            const auto start = Steady::now();
            body();
            into.push_back(std::chrono::duration<double, std::milli>(Steady::now() - start).count());
        };
        for (int i = 0; i < std::min(runs, 30); ++i) {
            std::vector<mirel::Capture> found;
            time(captures, [&] { found = store.captures(query); });
            std::vector<std::string> ids;
            for (const auto& capture : found) ids.push_back(capture.id);
            time(groups, [&] { store.groups(); });
            time(comments, [&] { store.commentCounts(ids); });
            time(images, [&] { store.imageCounts(ids); });
            time(tags, [&] { store.tagsByCapture(ids); });
        }
        std::printf("store calls (median): captures %.2f ms, groups %.2f ms, commentCounts %.2f ms, "
                    "imageCounts %.2f ms, tags of 200 %.2f ms\n",
                    summarize(captures).median, summarize(groups).median, summarize(comments).median,
                    summarize(images).median, summarize(tags).median);
    }

    std::vector<double> overPipes;
    {
        Server server(MIREL_MCP_BINARY);
        const std::string request = R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":)" +
                                    mirel::writeJSON({{"name", "list_captures"}, {"arguments", arguments}}) + "}";
        for (int i = 0; i < runs + 5; ++i) {
            const auto start = Steady::now();
            const std::string reply = server.exchange(request);
            const double ms = std::chrono::duration<double, std::milli>(Steady::now() - start).count();
            if (reply.find(R"("isError":false)") == std::string::npos) {
                std::fprintf(stderr, "unexpected reply: %.200s\n", reply.c_str());
                return 1;
            }
            if (i >= 5) overPipes.push_back(ms);
        }
    }

    const auto a = summarize(inProcess);
    const auto b = summarize(overPipes);
    std::printf("list_captures limit 200, %d captures, reply text %zu bytes, %d runs\n", kCaptures, replyBytes, runs);
    std::printf("  in-process   median %6.2f ms   p90 %6.2f ms   min %6.2f ms\n", a.median, a.p90, a.min);
    std::printf("  in-process   median %6.2f ms of CPU time\n", summarize(inProcessCPU).median);
    std::printf("  over pipes   median %6.2f ms   p90 %6.2f ms   min %6.2f ms\n", b.median, b.p90, b.min);
    std::printf("  target: median <= 15 ms -> %s\n", b.median <= 15.0 ? "met" : "NOT met");

    std::error_code ignored;
    fs::remove_all(home, ignored);
    return 0;
}
