// mirel-server under load: 20 live event streams open while one device pulls
// with /v1/sync (no changes, cursor at the end). Target: median under 20 ms.
// Beside it, the time of a push of 500 new captures, the biggest exchange a
// client makes.
//
// Run it from a Release build with the benchmarks and tests switched on:
//   cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DMIREL_BUILD_BENCH=ON
//   ninja -C build-bench server_sync_bench mirel-server && build-bench/bench/server_sync_bench [pulls]
#include "tests/support/server_process.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using mirel::Json;
using mirel::test::ServerProcess;

constexpr int kStreams = 20;
constexpr int kSeedPushes = 8;  // 4,000 captures with their history lines

double milliseconds(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(p * static_cast<double>(values.size() - 1))];
}

Json newCaptures(const std::string& ws, int batch) {
    Json changes = Json::array();
    for (int i = 0; i < 500; ++i) {
        std::string id = "bench-";
        id += std::to_string(batch * 500 + i);
        changes.push_back({{"table", "captures"}, {"id", id}, {"base_version", 0},
                           {"patch", {{"workspace_id", ws}, {"note", "Checkout button overlaps the total"},
                                      {"status", "open"}, {"priority", "normal"}, {"tags", {"ui", "checkout"}},
                                      {"capture_mode", "region"}, {"created_at", "2024-05-01T10:00:00.000Z"}}}});
    }
    return changes;
}

struct Stream {
    std::unique_ptr<httplib::Client> client;
    std::thread reader;
    std::atomic<bool> connected{false};
};

}  // namespace

int main(int argc, char** argv) {
    const int pulls = argc > 1 ? std::atoi(argv[1]) : 500;
    ServerProcess server;
    server.addUser("ann@example.com", "Ann");
    server.addWorkspace("acme", "Acme", {"ann@example.com"});
    const std::string token = server.signIn("ann@example.com");
    const std::string ws = server.workspaceID(token, "acme");

    httplib::Client api("127.0.0.1", server.port());
    api.set_tcp_nodelay(true);  // as libcurl does, which also keeps the connection
    api.set_keep_alive(true);
    const httplib::Headers headers{{"Authorization", "Bearer " + token}};
    auto sync = [&](std::int64_t cursor, const Json& changes) {
        Json body{{"device_id", "bench"}, {"cursor", cursor}, {"changes", changes}, {"full_groups", Json::array()}};
        auto reply = api.Post("/v1/sync", headers, mirel::writeJSON(body), "application/json");
        if (!reply || reply->status != 200) {
            std::fprintf(stderr, "sync failed\n");
            std::exit(1);
        }
        return mirel::parseJSON(reply->body).value_or(Json::object());
    };

    std::vector<double> pushes;
    std::int64_t cursor = 0;
    for (int batch = 0; batch < kSeedPushes; ++batch) {
        const Json changes = newCaptures(ws, batch);
        const auto start = Clock::now();
        cursor = sync(cursor, changes)["cursor"];
        pushes.push_back(milliseconds(Clock::now() - start));
    }

    // A new device pulls everything, page by page, and is then up to date.
    std::vector<double> pages;
    std::size_t records = 0;
    cursor = 0;
    for (bool more = true; more;) {
        const auto start = Clock::now();
        const Json page = sync(cursor, Json::array());
        pages.push_back(milliseconds(Clock::now() - start));
        records += page["changes"].size();
        cursor = page["cursor"];
        more = page["more"];
    }

    std::vector<Stream> streams(kStreams);
    for (auto& stream : streams) {
        stream.client = std::make_unique<httplib::Client>("127.0.0.1", server.port());
        stream.client->set_read_timeout(600);
        stream.reader = std::thread([&stream, &headers] {
            stream.client->Get("/v1/events", headers, [&stream](const char*, std::size_t) {
                stream.connected = true;
                return true;
            });
        });
    }
    while (!std::all_of(streams.begin(), streams.end(), [](const Stream& s) { return s.connected.load(); })) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }

    for (int i = 0; i < 20; ++i) sync(cursor, Json::array());
    std::vector<double> times;
    for (int i = 0; i < pulls; ++i) {
        const auto start = Clock::now();
        sync(cursor, Json::array());
        times.push_back(milliseconds(Clock::now() - start));
    }

    std::printf("push of 500 new captures: median %.1f ms, max %.1f ms (%d pushes)\n", percentile(pushes, 0.5),
                percentile(pushes, 1.0), kSeedPushes);
    double pullTotal = 0;
    for (double t : pages) pullTotal += t;
    std::printf("full pull of %zu records: %.0f ms in %zu pages (median page %.1f ms)\n", records, pullTotal,
                pages.size(), percentile(pages, 0.5));
    std::printf("%d event streams open, %d captures stored; /v1/sync plain pull: median %.2f ms, p95 %.2f ms, "
                "max %.2f ms (%d pulls)\n",
                kStreams, kSeedPushes * 500, percentile(times, 0.5), percentile(times, 0.95), percentile(times, 1.0),
                pulls);
    const int status = server.stop();
    for (auto& stream : streams) stream.reader.join();
    return status == 0 && percentile(times, 0.5) < 20 ? 0 : 1;
}
