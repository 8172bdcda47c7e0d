// ImageEncoder on screenshots and photos: its parts with Google Benchmark,
// then the whole encode side by side with Pillow and libvips, then the peak
// memory of whole get_capture-like calls in fresh processes.
//
// Targets: a realistic 2880×1800 PNG screenshot to a 1400-px PNG and base64
// in a median of at most 60 ms, at least 5× faster than Pillow and 3× faster
// than `vips thumbnail` (its start-up subtracted), in no more bytes than
// Pillow's PNG; a 4032×3024 JPEG photo at edge 1400 in at most 40 ms; peak
// memory of eight screenshots at most 100 MB, and of any one 10000×10000
// image at most 150 MB.
//
// Run it from a Release build with the benchmarks switched on:
//   cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DMIREL_BUILD_BENCH=ON
//   cmake --build build --target image_encoder_bench && build/bench/image_encoder_bench
// Options: --rounds=N (side-by-side rounds of 3 runs each, default 5),
// --skip-parts (no Google Benchmark part), --skip-peers (no Pillow or vips),
// --skip-memory, --inputs=DIR (where the generated inputs are kept and reused,
// default /tmp/mirel-image-bench-inputs; the large ones take a minute to
// make), and the usual --benchmark_* flags. The comparison needs
// /usr/bin/python3 with Pillow (Debian python3-pil) and `vips` (Debian
// libvips-tools).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench/bench_images.h"
#include "core/image/image.h"
#include "core/platform/file_descriptor.h"
#include "mcp/tools/image_encoder.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using mirel::Image;
namespace ImageCodec = mirel::ImageCodec;

constexpr int kWidth = 2880, kHeight = 1800, kEdge = 1400, kScreenshots = 8;
constexpr int kBig = 10000;

// ---- inputs, made once and kept ----

struct Inputs {
    fs::path folder;
    fs::path synthetic, realistic, photo, tiny;
    std::vector<fs::path> synthetics, realistics;  // eight of each, for one get_capture
    fs::path bigPNG, bigJPEG, bigProgressive, bigProgressive444, bigWebP, claimJPEG, tallPNG;
};

Inputs gInputs;

bool make(const fs::path& path, const std::function<void(const fs::path&)>& write) {
    if (fs::exists(path)) return false;
    const fs::path partial = path.string() + ".partial";
    write(partial);
    fs::rename(partial, path);
    return true;
}

void makeInputs(const fs::path& folder, bool big) {
    fs::create_directories(folder);
    Inputs& in = gInputs;
    in.folder = folder;
    auto pngOf = [](const Image& image) { return [image](const fs::path& p) { bench::writeFile(p, bench::savedPNG(image)); }; };
    for (int i = 0; i < kScreenshots; ++i) {
        const fs::path synthetic = folder / ("synthetic-" + std::to_string(i) + ".png");
        const fs::path realistic = folder / ("realistic-" + std::to_string(i) + ".png");
        if (!fs::exists(synthetic)) make(synthetic, pngOf(bench::syntheticScreenshot(kWidth, kHeight, 1234 + i)));
        if (!fs::exists(realistic)) make(realistic, pngOf(bench::realisticScreenshot(kWidth, kHeight, 4321 + i)));
        in.synthetics.push_back(synthetic);
        in.realistics.push_back(realistic);
    }
    in.synthetic = in.synthetics[0];
    in.realistic = in.realistics[0];
    in.tiny = folder / "tiny.png";
    make(in.tiny, pngOf(bench::blankImage(16, 16, bench::rgb(10, 20, 30))));
    in.photo = folder / "photo.jpg";
    make(in.photo, [](const fs::path& p) {
        const Image picture = bench::photo(4032, 3024, 77);
        bench::writeJPEG(p, picture.width, picture.height,
                         [&](int y, std::uint32_t* row) {
                             std::copy_n(&picture.pixels[std::size_t(y) * picture.width], picture.width, row);
                         },
                         {});
    });
    if (!big) return;

    // Large files: the realistic screenshot repeated over 10000×10000.
    std::printf("Making the large inputs in %s (once)...\n", folder.c_str());
    std::fflush(stdout);
    const Image tile = bench::realisticScreenshot(kWidth, kHeight, 99);
    Image opaqueTile = tile;
    for (std::uint32_t& p : opaqueTile.pixels) p |= 0xff000000u;  // JPEG has no alpha
    in.bigPNG = folder / "big-10000.png";
    make(in.bigPNG, [&](const fs::path& p) { bench::writeLargePNG(p, kBig, kBig, false, bench::tiled(tile, kBig)); });
    in.bigJPEG = folder / "big-10000-baseline.jpg";
    make(in.bigJPEG, [&](const fs::path& p) { bench::writeJPEG(p, kBig, kBig, bench::tiled(opaqueTile, kBig), {}); });
    in.bigProgressive = folder / "big-10000-progressive.jpg";
    make(in.bigProgressive, [&](const fs::path& p) {
        bench::writeJPEG(p, kBig, kBig, bench::tiled(opaqueTile, kBig), {90, true, false});
    });
    in.bigProgressive444 = folder / "big-10000-progressive-444.jpg";
    make(in.bigProgressive444, [&](const fs::path& p) {
        bench::writeJPEG(p, kBig, kBig, bench::tiled(opaqueTile, kBig), {90, true, true});
    });
    in.bigWebP = folder / "big-10000.webp";
    make(in.bigWebP, [&](const fs::path& p) { bench::writeWebP(p, kBig, kBig, bench::tiled(opaqueTile, kBig)); });
    // A small baseline JPEG whose frame header claims 10000×10000.
    in.claimJPEG = folder / "claims-10000.jpg";
    make(in.claimJPEG, [&](const fs::path& p) {
        bench::writeJPEG(p, 16, 16, [](int, std::uint32_t* row) { std::fill_n(row, 16, bench::rgb(200, 60, 20)); }, {});
        std::vector<std::uint8_t> bytes;
        {
            std::ifstream f(p, std::ios::binary);
            bytes.assign(std::istreambuf_iterator<char>(f), {});
        }
        for (std::size_t i = 2; i + 9 < bytes.size(); ++i) {
            if (bytes[i] == 0xff && bytes[i + 1] == 0xc0) {  // SOF0: length, precision, height, width
                bytes[i + 5] = kBig >> 8, bytes[i + 6] = kBig & 0xff, bytes[i + 7] = kBig >> 8, bytes[i + 8] = kBig & 0xff;
                break;
            }
        }
        bench::writeFile(p, bytes);
    });
    in.tallPNG = folder / "tall-100x1000000.png";
    make(in.tallPNG, [&](const fs::path& p) { bench::writeLargePNG(p, 100, 1'000'000, true, bench::tiled(opaqueTile, 100)); });
}

// ---- measurements ----

double milliseconds(std::chrono::steady_clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

double cpuMilliseconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return now.tv_sec * 1e3 + now.tv_nsec / 1e6;
}

std::string loadAverage() {
    std::ifstream in("/proc/loadavg");
    std::string one, five;
    in >> one >> five;
    return one + " / " + five;
}

long vmHWMKilobytes() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
    }
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// ---- the parts ----

const fs::path& inputFor(int which) { return which == 0 ? gInputs.synthetic : gInputs.realistic; }
std::vector<std::uint8_t> readAll(const fs::path& path) {
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), {}};
}

void BM_EncodeWhole(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(mirel::ImageEncoder::encode(inputFor(int(state.range(0))), kEdge));
}
void BM_Decode(benchmark::State& state) {
    const auto bytes = readAll(inputFor(int(state.range(0))));
    for (auto _ : state) benchmark::DoNotOptimize(ImageCodec::decode(bytes));
}
void BM_Resample(benchmark::State& state) {
    const Image image = *ImageCodec::decode(readAll(inputFor(int(state.range(0)))));
    for (auto _ : state) benchmark::DoNotOptimize(ImageCodec::resample(image, kEdge, 875));
}
void BM_EncodePNG(benchmark::State& state) {
    const Image image = *ImageCodec::resample(*ImageCodec::decode(readAll(inputFor(int(state.range(0))))), kEdge, 875);
    const auto compression = static_cast<ImageCodec::PNGCompression>(state.range(1));
    std::size_t bytes = 0;
    for (auto _ : state) {
        auto png = ImageCodec::encodePNG(image, compression);
        bytes = png->size();
        benchmark::DoNotOptimize(png);
    }
    state.counters["png_bytes"] = double(bytes);
}
void BM_Base64(benchmark::State& state) {
    const auto png = *ImageCodec::encodePNG(*ImageCodec::resample(*ImageCodec::decode(readAll(gInputs.realistic)), kEdge, 875));
    for (auto _ : state) benchmark::DoNotOptimize(ImageCodec::base64(png));
}
// Argument 0 is the synthetic screenshot, 1 the realistic one.
BENCHMARK(BM_EncodeWhole)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Decode)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Resample)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EncodePNG)
    ->Args({0, int(ImageCodec::PNGCompression::fast)})
    ->Args({1, int(ImageCodec::PNGCompression::fast)})
    ->Args({1, int(ImageCodec::PNGCompression::small)})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Base64)->Unit(benchmark::kMillisecond);

// ---- side by side with Pillow and vips ----

// Wall milliseconds of running a program to its end, its output discarded; -1 if it failed.
double runProgram(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    for (const auto& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    const auto start = std::chrono::steady_clock::now();
    pid_t pid = -1;
    const int failed = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) return -1;
    int status = 0;
    waitpid(pid, &status, 0);
    const double ms = milliseconds(std::chrono::steady_clock::now() - start);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? ms : -1;
}

// Runs the Pillow script for `iterations` encodes; appends its per-run wall and CPU times.
bool runPillow(const fs::path& image, int iterations, std::size_t* base64Bytes, std::vector<double>* wall,
               std::vector<double>* cpu) {
    const std::string command = "/usr/bin/python3 '" MIREL_SOURCE_DIR "/bench/pillow_reference.py' '" +
                                image.string() + "' " + std::to_string(kEdge) + " " + std::to_string(iterations);
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return false;
    char line[256];
    bool any = false;
    while (std::fgets(line, sizeof line, pipe)) {
        double ms = 0, cpuMs = 0;
        std::size_t bytes = 0;
        if (std::sscanf(line, "ms=%lf cpu_ms=%lf bytes=%zu", &ms, &cpuMs, &bytes) == 3) {
            wall->push_back(ms);
            cpu->push_back(cpuMs);
            *base64Bytes = bytes;
            any = true;
        }
    }
    pclose(pipe);
    return any;
}

std::vector<std::string> vipsThumbnail(const fs::path& in, const fs::path& out) {
    return {"vips", "thumbnail", in.string(), out.string(), std::to_string(kEdge), "--height", std::to_string(kEdge),
            "--size", "down"};
}

void compareWithPeers(const char* name, const fs::path& input, int rounds, bool peers) {
    constexpr int perRound = 3;
    std::vector<double> ours, oursCPU, pillow, pillowCPU, vips, vipsStart;
    std::size_t ourBytes = 0, pillowBytes = 0, vipsBytes = 0;
    const fs::path vipsOut = gInputs.folder / "vips-out.png";
    const std::string loadBefore = loadAverage();
    for (int round = 0; round < rounds; ++round) {
        for (int i = 0; i < perRound; ++i) {
            const auto start = std::chrono::steady_clock::now();
            const double startCPU = cpuMilliseconds();
            const auto text = mirel::ImageEncoder::encode(input, kEdge);
            ours.push_back(milliseconds(std::chrono::steady_clock::now() - start));
            oursCPU.push_back(cpuMilliseconds() - startCPU);
            ourBytes = text ? text->size() : 0;
        }
        if (!peers) continue;
        runPillow(input, perRound, &pillowBytes, &pillow, &pillowCPU);
        for (int i = 0; i < perRound; ++i) {
            const double started = runProgram(vipsThumbnail(gInputs.tiny, vipsOut));
            const double whole = runProgram(vipsThumbnail(input, vipsOut));
            if (started >= 0 && whole >= 0) {
                vipsStart.push_back(started);
                vips.push_back(whole);
                // vips writes raw PNG; count it as base64 for a like comparison.
                vipsBytes = (fs::file_size(vipsOut) + 2) / 3 * 4;
            }
        }
    }
    std::printf("\n== %s: %.2f MB to edge %d, %zu runs each (load %s → %s) ==\n", name, fs::file_size(input) / 1e6,
                kEdge, ours.size(), loadBefore.c_str(), loadAverage().c_str());
    // CPU time is printed too: on a busy machine wall time mostly measures the wait.
    std::printf("  mirel  median %7.1f ms wall (min %6.1f), %7.1f ms CPU   base64 %8zu bytes\n", median(ours),
                *std::min_element(ours.begin(), ours.end()), median(oursCPU), ourBytes);
    if (!peers) return;
    if (pillow.empty()) {
        std::printf("  Pillow could not be run (needs /usr/bin/python3 with python3-pil)\n");
    } else {
        std::printf("  Pillow median %7.1f ms wall (min %6.1f), %7.1f ms CPU   base64 %8zu bytes\n", median(pillow),
                    *std::min_element(pillow.begin(), pillow.end()), median(pillowCPU), pillowBytes);
        std::printf("         mirel is %.2f× faster by wall time, %.2f× by CPU time; bytes %.3f of Pillow's\n",
                    median(pillow) / median(ours), median(pillowCPU) / median(oursCPU),
                    double(ourBytes) / double(pillowBytes));
    }
    if (vips.empty()) {
        std::printf("  vips could not be run (needs `vips` from libvips-tools)\n");
    } else {
        const double net = median(vips) - median(vipsStart);
        std::printf("  vips   median %7.1f ms wall net of %.1f ms start-up (%.1f whole)   base64 %8zu bytes\n", net,
                    median(vipsStart), median(vips), vipsBytes);
        std::printf("         mirel is %.2f× faster by wall time\n", net / median(ours));
    }
}

// ---- peak memory ----

// In a fresh process: encode every file once, in sequence, as one get_capture
// does, and report the high-water mark.
int peakMemoryChild(int edge, char** paths, int count) {
    const long before = vmHWMKilobytes();
    std::size_t total = 0;
    int failed = 0;
    for (int i = 0; i < count; ++i) {
        const auto text = mirel::ImageEncoder::encode(paths[i], edge);
        total += text ? text->size() : 0;
        failed += text ? 0 : 1;
    }
    std::printf("%ld %ld %zu %d\n", before, vmHWMKilobytes(), total, failed);
    return 0;
}

void measurePeakMemory(const char* name, const std::vector<fs::path>& files, int edge, double targetMB) {
    std::string command = "'/proc/" + std::to_string(getpid()) + "/exe' --peak-memory " + std::to_string(edge) +
                          " 2>/dev/null";
    for (const auto& path : files) command += " '" + path.string() + "'";
    FILE* pipe = popen(command.c_str(), "r");
    long before = 0, after = 0;
    std::size_t total = 0;
    int failed = 0;
    const bool read = pipe && std::fscanf(pipe, "%ld %ld %zu %d", &before, &after, &total, &failed) == 4;
    if (pipe) pclose(pipe);
    if (!read) {
        std::printf("  %-46s the child process failed\n", name);
        return;
    }
    std::printf("  %-46s %7.1f MB  (target ≤ %3.0f MB: %-7s) %zu base64 bytes%s\n", name, after / 1024.0, targetMB,
                after / 1024.0 <= targetMB ? "met" : "NOT met", total,
                failed ? (", " + std::to_string(failed) + " image(s) refused").c_str() : "");
}

void measurePeakMemories() {
    std::printf("\n== Peak memory (VmHWM of a fresh process; load %s) ==\n", loadAverage().c_str());
    measurePeakMemory("8 synthetic screenshots at edge 1400", gInputs.synthetics, kEdge, 100);
    measurePeakMemory("8 realistic screenshots at edge 1400", gInputs.realistics, kEdge, 100);
    measurePeakMemory("10000×10000 PNG at edge 1400", {gInputs.bigPNG}, kEdge, 150);
    measurePeakMemory("10000×10000 baseline JPEG at edge 1400", {gInputs.bigJPEG}, kEdge, 150);
    measurePeakMemory("10000×10000 progressive JPEG at edge 1400", {gInputs.bigProgressive}, kEdge, 150);
    measurePeakMemory("10000×10000 progressive 4:4:4 JPEG at edge 1400", {gInputs.bigProgressive444}, kEdge, 150);
    measurePeakMemory("10000×10000 WebP at edge 1400", {gInputs.bigWebP}, kEdge, 150);
    measurePeakMemory("small JPEG claiming 10000×10000", {gInputs.claimJPEG}, kEdge, 150);
    measurePeakMemory("100×1000000 PNG at edge 1400", {gInputs.tallPNG}, kEdge, 150);
    measurePeakMemory("10000×10000 PNG at edge 4000", {gInputs.bigPNG}, 4000, 150);
    measurePeakMemory("six 10000×10000 images at edge 4000, one call",
                      {gInputs.bigPNG, gInputs.bigJPEG, gInputs.bigProgressive, gInputs.bigProgressive444,
                       gInputs.bigWebP, gInputs.bigPNG},
                      4000, 150);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 3 && std::strcmp(argv[1], "--peak-memory") == 0) {
        return peakMemoryChild(std::atoi(argv[2]), argv + 3, argc - 3);
    }

    int rounds = 5;
    bool parts = true, peers = true, memory = true;
    fs::path inputs = "/tmp/mirel-image-bench-inputs";
    std::vector<char*> rest;
    for (int i = 0; i < argc; ++i) {
        if (std::strncmp(argv[i], "--rounds=", 9) == 0) rounds = std::max(1, std::atoi(argv[i] + 9));
        else if (std::strcmp(argv[i], "--skip-parts") == 0) parts = false;
        else if (std::strcmp(argv[i], "--skip-peers") == 0) peers = false;
        else if (std::strcmp(argv[i], "--skip-memory") == 0) memory = false;
        else if (std::strncmp(argv[i], "--inputs=", 9) == 0) inputs = argv[i] + 9;
        else rest.push_back(argv[i]);
    }
    int restCount = int(rest.size());
    benchmark::Initialize(&restCount, rest.data());
    makeInputs(inputs, memory);

    if (parts) benchmark::RunSpecifiedBenchmarks();
    compareWithPeers("synthetic 2880×1800 PNG screenshot", gInputs.synthetic, rounds, peers);
    compareWithPeers("realistic 2880×1800 PNG screenshot", gInputs.realistic, rounds, peers);
    compareWithPeers("4032×3024 JPEG photo", gInputs.photo, rounds, peers);
    if (memory) measurePeakMemories();
    benchmark::Shutdown();
    return 0;
}
