// A whole library through a real mirel-server: the "laptop" pushes N captures
// with one small PNG each, then the "desktop" pulls them all, images included,
// into an empty library. Both sides are the built `mirel sync`, run as a child
// process until nothing is left (a run stops after its cycle limit), and the
// children's wall time is what counts. Targets for 10,000: push ≤ 15 s,
// pull ≤ 10 s. Seeding the laptop happens in process and is not timed.
//
//   cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DMIREL_BUILD_BENCH=ON -DMIREL_BUILD_TESTS=OFF
//   ninja -C build-bench sync_push_pull_bench mirel mirel-server
//   build-bench/bench/sync_push_pull_bench [captures]    (default 10000)
#include "bench/mirel_devices.h"
#include "core/image/image.h"
#include "core/platform/clock.h"
#include "core/store/capture_store.h"
#include "core/store/mirel_paths.h"
#include "tests/support/server_process.h"


#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using mirel::test::ServerProcess;
using bench::Device;
using bench::Ran;
using bench::kEmail;
using bench::runMirel;
using bench::signIn;

constexpr int kMaxRuns = 5000;  // a stalled run ends the loop long before
constexpr int kImageEdge = 48;

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// A PNG of its own for capture `n`, so that no two blobs are the same.
std::vector<std::uint8_t> smallPNG(int n) {
    mirel::Image image;
    image.width = kImageEdge;
    image.height = kImageEdge;
    image.pixels.resize(static_cast<std::size_t>(kImageEdge * kImageEdge));
    for (int y = 0; y < kImageEdge; ++y) {
        for (int x = 0; x < kImageEdge; ++x) {
            const auto r = static_cast<std::uint32_t>((n * 7 + x * 5) & 0xFF);
            const auto g = static_cast<std::uint32_t>((n >> 8) + y * 3) & 0xFF;
            const auto b = static_cast<std::uint32_t>(n & 0xFF);
            image.pixels[static_cast<std::size_t>(y * kImageEdge + x)] = 0xFF000000u | r << 16 | g << 8 | b;
        }
    }
    auto png = mirel::ImageCodec::encodePNG(image, mirel::ImageCodec::PNGCompression::fast);
    if (!png) throw std::runtime_error("could not encode a PNG");
    return std::move(*png);
}

void writeFile(const fs::path& path, const std::vector<std::uint8_t>& bytes) {
    mirel::MirelPaths::ensureParentDirectory(path);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("could not write " + path.string());
}

// Files `count` captures in the default workspace, as `mirel add` would: the
// image is small, so it is its own thumbnail.
void seed(int count) {
    mirel::CaptureStore store(mirel::MirelPaths::databaseURL());
    if (!store.defaultWorkspaceID()) throw std::runtime_error("the laptop has no default workspace");
    const mirel::Date base = mirel::Clock::now() - count;
    constexpr int batch = 500;
    for (int first = 0; first < count; first += batch) {
        store.transaction([&] {
            for (int n = first; n < std::min(count, first + batch); ++n) {
                const std::vector<std::uint8_t> png = smallPNG(n);
                mirel::Capture capture;
                capture.id = mirel::newID();
                capture.createdAt = capture.updatedAt = base + n;
                capture.note = "Checkout button overlaps the total #" + std::to_string(n);
                capture.captureMode = mirel::CaptureMode::region;
                mirel::CaptureImage image;
                image.id = mirel::newID();
                image.captureID = capture.id;
                image.position = -1;
                image.createdAt = capture.createdAt;
                image.imagePath = mirel::MirelPaths::relativeImagePath(image.id, image.createdAt, "png");
                image.thumbPath = image.imagePath;
                image.width = image.height = kImageEdge;
                image.bytes = static_cast<std::int64_t>(png.size());
                capture.imagePath = image.imagePath;
                capture.thumbPath = image.thumbPath;
                capture.imageWidth = capture.imageHeight = kImageEdge;
                capture.imageBytes = image.bytes;
                writeFile(mirel::MirelPaths::imageURL(image.imagePath), png);
                writeFile(mirel::MirelPaths::thumbURL(*image.thumbPath), png);
                store.insert(capture);
                store.addImage(image);
            }
        });
    }
}

// How far the desktop has got: captures, and images whose original and
// thumbnail are both here.
struct Arrived {
    std::int64_t captures = 0;
    std::int64_t imageFiles = 0;
};

Arrived arrived() {
    mirel::CaptureStore store(mirel::MirelPaths::databaseURL());
    Arrived counts;
    for (const auto& [status, n] : store.countsByStatus()) counts.captures += n;
    for (const mirel::CaptureImage& image : store.liveImages()) {
        const auto thumb = image.thumbURL();
        if (!image.imagePath.empty() && fs::exists(image.originalURL()) && thumb && fs::exists(*thumb)) {
            ++counts.imageFiles;
        }
    }
    return counts;
}

// The children's time and the number of runs.
struct Timed {
    double seconds = 0;
    int runs = 0;
    bool finished = false;
};

// Runs `mirel sync` until `remaining` gives an empty text after a run, or a
// run changes nothing.
Timed syncUntilDone(const Device& device, const std::string& url, const fs::path& scratch,
                    const std::function<std::string(const Ran&, const Timed&)>& remaining) {
    Timed timed;
    std::string before;
    while (timed.runs < kMaxRuns) {
        const auto start = Clock::now();
        const Ran ran = runMirel(device, url, {"sync"}, scratch / (device.name + "-sync"));
        timed.seconds += seconds(Clock::now() - start);
        ++timed.runs;
        if (ran.status != 0) {
            std::fprintf(stderr, "%s: mirel sync exited with %d: %s%s\n", device.name.c_str(), ran.status,
                         ran.out.c_str(), ran.err.c_str());
            return timed;
        }
        const std::string left = remaining(ran, timed);
        if (left.empty()) {
            timed.finished = true;
            return timed;
        }
        if (left == before) {
            std::fprintf(stderr, "%s: a run of mirel sync made no progress; left: %s\n", device.name.c_str(),
                         left.c_str());
            return timed;
        }
        before = left;
    }
    return timed;
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // lines show as they come, also in a log file
    const int count = argc > 1 ? std::atoi(argv[1]) : 10000;
    if (count <= 0) {
        std::fprintf(stderr, "usage: sync_push_pull_bench [captures]\n");
        return 2;
    }
    std::string pattern = (fs::temp_directory_path() / "mirel-push-pull-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    const fs::path scratch = pattern;
    int result = 1;
    bool finished = false;
    {
        ServerProcess server;
        server.addUser(kEmail, "Ada");
        server.addWorkspace("team", "Team", {kEmail});
        const Device laptop{"laptop", scratch / "laptop", scratch / "laptop-config"};
        const Device desktop{"desktop", scratch / "desktop", scratch / "desktop-config"};
        signIn(server, laptop, scratch);
        signIn(server, desktop, scratch);

        laptop.enter(server.url());
        const auto seedStart = Clock::now();
        seed(count);
        std::printf("seeded %d captures with one %dx%d PNG each on the laptop in %.1f s (not timed)\n", count,
                    kImageEdge, kImageEdge, seconds(Clock::now() - seedStart));

        const Timed push = syncUntilDone(laptop, server.url(), scratch, [](const Ran& ran, const Timed&) {
            const auto at = ran.out.find("Still waiting to be sent");
            return at == std::string::npos ? std::string() : ran.out.substr(at, ran.out.find('\n', at) - at);
        });
        const Ran status = runMirel(laptop, server.url(), {"status"}, scratch / "laptop-status");
        const bool pushed = push.finished && status.out.find("Waiting to be sent: nothing") != std::string::npos;

        desktop.enter(server.url());
        Arrived got;
        std::optional<Timed> recordsIn;  // when the last capture row had come
        const Timed pull = syncUntilDone(desktop, server.url(), scratch, [&](const Ran&, const Timed& sofar) {
            got = arrived();
            if (got.captures >= count && !recordsIn) recordsIn = sofar;
            if (got.captures >= count && got.imageFiles >= count) return std::string();
            return std::to_string(got.captures) + " captures, " + std::to_string(got.imageFiles) + " image files";
        });

        std::printf("push: %.2f s in %d run%s of `mirel sync` (target ≤ 15 s for 10,000)%s\n", push.seconds, push.runs,
                    push.runs == 1 ? "" : "s", pushed ? "" : "  NOT FINISHED");
        std::printf("pull: %.2f s in %d run%s of `mirel sync`, %lld captures and %lld image files arrived "
                    "(target ≤ 10 s for 10,000)%s\n",
                    pull.seconds, pull.runs, pull.runs == 1 ? "" : "s", static_cast<long long>(got.captures),
                    static_cast<long long>(got.imageFiles), pull.finished ? "" : "  NOT FINISHED");
        if (recordsIn) {
            std::printf("      all %d captures were in after %.2f s and %d run%s; the rest is image downloads\n", count,
                        recordsIn->seconds, recordsIn->runs, recordsIn->runs == 1 ? "" : "s");
        }
        if (!pushed) std::printf("laptop status:\n%s", status.out.c_str());
        const bool inTime = count < 10000 || (push.seconds <= 15 && pull.seconds <= 10);
        finished = pushed && pull.finished;
        result = finished && inTime ? 0 : 1;
        server.stop();
    }
    // A failed run leaves its libraries and the children's output for a look.
    if (finished) {
        std::error_code ignored;
        fs::remove_all(scratch, ignored);
    } else {
        std::fprintf(stderr, "libraries and logs kept in %s\n", scratch.c_str());
    }
    return result;
}
