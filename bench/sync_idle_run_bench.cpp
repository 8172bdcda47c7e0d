// A run with nothing to do against a local API server, next to the bare HTTP
// round trip of the same exchange: the difference is what the engine adds
// (ledger reads, the cursor, the download and reconcile checks, statuses).
#include "core/store/capture_store.h"
#include "core/sync/keychain.h"
#include "core/sync/sync_engine.h"

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>
#include <benchmark/benchmark.h>
#include <httplib.h>

#include <cstdlib>
#include <filesystem>
#include <thread>

namespace {

namespace fs = std::filesystem;

struct LocalServer {
    httplib::Server server;
    int port = 0;
    std::thread thread;
    LocalServer() {
        const auto reply = [](const char* body) {
            return [body](const httplib::Request&, httplib::Response& response) {
                response.set_content(body, "application/json");
            };
        };
        server.Get("/v1/me", reply(R"({"user":{"id":"u1","name":"Ada"},"workspaces":[]})"));
        server.Post("/v1/sync", reply(R"({"results":[],"changes":[],"cursor":42,"more":false})"));
        server.Post("/v1/sync/reconcile", reply(R"({"drop":[],"missing":[]})"));
        // As mirel-server does: headers and body go out in two writes, and on
        // a kept connection Nagle would hold the body for the delayed ACK.
        server.set_tcp_nodelay(true);
        port = server.bind_to_any_port("127.0.0.1");
        thread = std::thread([this] { server.listen_after_bind(); });
    }
    ~LocalServer() {
        server.stop();
        thread.join();
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port); }
};

struct Library {
    fs::path home;
    Library() {
        std::string pattern = (fs::temp_directory_path() / "mirel-bench-XXXXXX").string();
        home = mkdtemp(pattern.data());
        setenv("MIREL_HOME", home.c_str(), 1);
        setenv("XDG_CONFIG_HOME", (home / "config").c_str(), 1);
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
        mirel::Keychain::write("bench-token", "session");
    }
    ~Library() { fs::remove_all(home); }
};

void BM_IdleRun(benchmark::State& state) {
    Library library;
    LocalServer server;
    mirel::CaptureStore store(library.home / "mirel.sqlite");
    asio::io_context io;
    auto engine = mirel::SyncEngine::create(io.get_executor(), store, server.url(), "bench", "1.0");
    for (auto _ : state) {
        asio::co_spawn(engine->executor(), engine->syncNow(), asio::detached);
        io.run();
        io.restart();
        if (!engine->status().is<mirel::SyncStatus::Idle>()) state.SkipWithError("the run did not end idle");
    }
}
BENCHMARK(BM_IdleRun)->Unit(benchmark::kMillisecond);

void BM_BareRoundTrip(benchmark::State& state) {
    LocalServer server;
    mirel::SyncClient client(server.url(), "bench-token");
    const mirel::Json body = {{"device_id", "d"}, {"cursor", 42}, {"changes", mirel::Json::array()},
                              {"full_groups", mirel::Json::array()}};
    for (auto _ : state) benchmark::DoNotOptimize(client.sync(body, mirel::Cancellation()));
}
BENCHMARK(BM_BareRoundTrip)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
