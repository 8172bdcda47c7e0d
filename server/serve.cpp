#include "server/serve.h"

#include "server/api.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <thread>

namespace mirel::server {

namespace {

// Threads beyond the event streams, for ordinary requests.
constexpr std::size_t kRequestThreads = 16;
constexpr std::chrono::seconds kStreamGrace{3};

bool isLoopback(const std::string& host) {
    return host == "localhost" || host == "::1" || host.rfind("127.", 0) == 0;
}

std::string urlHost(const std::string& host) { return host.find(':') != std::string::npos ? "[" + host + "]" : host; }

}  // namespace

int serve(const std::filesystem::path& data, const ServeOptions& options) {
    // Signals are taken by one thread with sigwait; every thread started from
    // here on inherits the mask.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    ::signal(SIGPIPE, SIG_IGN);

    Storage storage(std::filesystem::absolute(data));
    httplib::Server server;
    const std::size_t threads = options.maxEventStreams + kRequestThreads;
    server.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
    server.set_payload_max_length(std::max(options.maxJSONBytes, options.maxBlobBytes));
    server.set_read_timeout(30);
    server.set_write_timeout(30);
    server.set_keep_alive_max_count(1000);
    // Headers and body go out in separate writes; Nagle would hold the body
    // back until the client's delayed acknowledgement.
    server.set_tcp_nodelay(true);

    int port = options.port;
    if (port == 0) {
        port = server.bind_to_any_port(options.host);
    } else if (!server.bind_to_port(options.host, port)) {
        port = -1;
    }
    if (port <= 0) {
        std::fprintf(stderr, "mirel-server: can't listen on %s:%d: %s\n", options.host.c_str(), options.port,
                     std::strerror(errno));
        return 1;
    }
    const std::string address = "http://" + urlHost(options.host) + ":" + std::to_string(port);
    const std::string publicURL = options.publicURL.value_or(address);

    BlobStore blobs(storage, BlobSettings{publicURL, options.urlLifetime, options.maxBlobBytes});
    EventHub events(options.maxEventStreams);
    Api api(storage, blobs, events, ApiSettings{publicURL, options.uploads, options.maxJSONBytes});
    api.install(server);

    std::printf("mirel-server listening on %s (data: %s)\n", address.c_str(), storage.folder().c_str());
    std::fflush(stdout);
    if (!isLoopback(options.host)) {
        std::fprintf(stderr, "mirel-server: serving plain HTTP beyond this machine; put a TLS proxy in front "
                             "and set --public-url to its https:// address\n");
    }

    std::atomic<bool> listening{true};
    std::thread stopper([&] {
        int signal = 0;
        sigwait(&stopSignals, &signal);
        if (!listening) return;
        std::fprintf(stderr, "[mirel-server] stopping\n");
        events.stop(kStreamGrace);
        // A signal may come before the accept loop runs; stop() only works once it does.
        while (listening && !server.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        server.stop();
    });
    const bool clean = server.listen_after_bind();
    listening = false;
    pthread_kill(stopper.native_handle(), SIGTERM);
    stopper.join();
    std::fprintf(stderr, "[mirel-server] stopped\n");
    return clean ? 0 : 1;
}

}  // namespace mirel::server
