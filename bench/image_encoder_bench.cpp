// ImageEncoder on screenshot-sized images: its parts with Google Benchmark,
// then the whole encode side by side with the same work in Python and Pillow,
// then the peak memory of encoding eight screenshots in one process.
//
// Targets: a 2880×1800 PNG screenshot encoded at edge 1400 in a median of at
// most 150 ms (the whole get_capture request), at least 2× faster than
// Pillow; peak memory of eight such encodes at most 150 MB.
//
// Run it from a Release build with the benchmarks switched on:
//   cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DMIREL_BUILD_BENCH=ON
//   ninja -C build-bench image_encoder_bench && build-bench/bench/image_encoder_bench
// Options: --rounds=N (side-by-side rounds of 3 runs each, default 5),
// --skip-parts (leave out the Google Benchmark part), and the usual
// --benchmark_* flags. The comparison needs /usr/bin/python3 with Pillow
// (Debian python3-pil).
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "core/image/image.h"
#include "core/platform/file_descriptor.h"
#include "mcp/tools/image_encoder.h"

namespace {

namespace fs = std::filesystem;
using mirel::Image;
namespace ImageCodec = mirel::ImageCodec;

constexpr int kWidth = 2880, kHeight = 1800, kEdge = 1400, kScreenshots = 8;

// ---- a screenshot-like picture: flat panels, text, icons, gradients, a photo ----

struct Painter {
    Image& image;
    std::mt19937& random;

    static std::uint32_t rgb(int r, int g, int b) {
        return 0xff000000u | (std::uint32_t(r) << 16) | (std::uint32_t(g) << 8) | std::uint32_t(b);
    }
    void fill(int x0, int y0, int w, int h, std::uint32_t color) {
        for (int y = std::max(0, y0); y < std::min(image.height, y0 + h); ++y) {
            for (int x = std::max(0, x0); x < std::min(image.width, x0 + w); ++x) {
                image.pixels[std::size_t(y) * image.width + x] = color;
            }
        }
    }
    void verticalGradient(int x0, int y0, int w, int h, std::array<int, 3> top, std::array<int, 3> bottom) {
        for (int y = 0; y < h; ++y) {
            const double t = double(y) / std::max(1, h - 1);
            auto mix = [&](int c) { return int(std::lround(top[c] + (bottom[c] - top[c]) * t)); };
            fill(x0, y0 + y, w, 1, rgb(mix(0), mix(1), mix(2)));
        }
    }
    // A line of "words": glyph cells with strokes and softened edges, as text renders.
    void textLine(int x0, int y0, int width, int size, std::uint32_t ink, std::uint32_t paper) {
        const int inkR = (ink >> 16) & 0xff, inkG = (ink >> 8) & 0xff, inkB = ink & 0xff;
        const int paperR = (paper >> 16) & 0xff, paperG = (paper >> 8) & 0xff, paperB = paper & 0xff;
        auto shade = [&](int level) {  // 0 paper .. 4 ink
            return rgb(paperR + (inkR - paperR) * level / 4, paperG + (inkG - paperG) * level / 4,
                       paperB + (inkB - paperB) * level / 4);
        };
        int x = x0;
        while (x < x0 + width - size) {
            const int letters = 2 + int(random() % 9);
            for (int l = 0; l < letters && x < x0 + width - size; ++l) {
                const int cell = size / 2 + int(random() % (size / 2));
                for (int stroke = 0; stroke < 3; ++stroke) {
                    if (random() % 2) {
                        const int sx = x + int(random() % std::max(1, cell - 2));
                        const int top = y0 + int(random() % (size / 3));
                        fill(sx, top, 2, size - (top - y0), shade(4));
                        fill(sx + 2, top, 1, size - (top - y0), shade(2));
                    } else {
                        const int sy = y0 + int(random() % size);
                        fill(x, sy, cell - 1, 2, shade(4));
                        fill(x, sy + 2, cell - 1, 1, shade(1));
                    }
                }
                x += cell + 1;
            }
            x += size / 2;
        }
    }
    void photo(int x0, int y0, int w, int h) {
        std::normal_distribution<double> noise(0, 4);
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                const double u = double(x) / w, v = double(y) / h;
                const double r = 120 + 90 * std::sin(3 * u + 1) * v + noise(random);
                const double g = 140 + 70 * std::cos(4 * v + u) + noise(random);
                const double b = 170 - 80 * u * v + noise(random);
                auto c = [](double value) { return int(std::clamp(value, 0.0, 255.0)); };
                fill(x0 + x, y0 + y, 1, 1, rgb(c(r), c(g), c(b)));
            }
        }
    }
};

Image screenshot(unsigned seed) {
    Image image;
    image.width = kWidth;
    image.height = kHeight;
    image.pixels.assign(std::size_t(kWidth) * kHeight, Painter::rgb(246, 246, 248));
    std::mt19937 random(seed);
    Painter paint{image, random};

    paint.verticalGradient(0, 0, kWidth, 48, {250, 250, 250}, {228, 228, 230});  // menu bar
    paint.textLine(40, 14, 900, 20, Painter::rgb(20, 20, 20), Painter::rgb(240, 240, 241));
    paint.verticalGradient(0, 48, kWidth, 100, {236, 236, 238}, {214, 214, 218});  // toolbar
    for (int i = 0; i < 12; ++i) {  // toolbar icons
        const std::uint32_t color = Painter::rgb(60 + int(random() % 160), 60 + int(random() % 160), 200);
        paint.fill(60 + i * 110, 72, 56, 56, color);
        paint.fill(72 + i * 110, 84, 32, 32, Painter::rgb(250, 250, 250));
    }
    paint.fill(0, 148, 560, kHeight - 148, Painter::rgb(232, 234, 238));  // sidebar
    for (int row = 0; row < 36; ++row) {
        const int y = 180 + row * 44;
        if (row == 5) paint.fill(12, y - 8, 536, 40, Painter::rgb(10, 100, 230));
        const std::uint32_t paper = row == 5 ? Painter::rgb(10, 100, 230) : Painter::rgb(232, 234, 238);
        const std::uint32_t ink = row == 5 ? Painter::rgb(255, 255, 255) : Painter::rgb(40, 40, 46);
        paint.fill(32, y, 24, 24, Painter::rgb(120, 120, 130));
        paint.textLine(72, y, 200 + int(random() % 260), 22, ink, paper);
    }
    paint.fill(560, 148, 2, kHeight - 148, Painter::rgb(200, 200, 204));  // divider
    for (int line = 0; line < 30; ++line) {  // document text
        paint.textLine(640, 200 + line * 40, 1000 + int(random() % 900), 24, Painter::rgb(28, 28, 30),
                       Painter::rgb(246, 246, 248));
    }
    paint.photo(1780, 220, 960, 600);
    paint.fill(1780, 860, 960, 4, Painter::rgb(210, 210, 214));
    for (int b = 0; b < 4; ++b) {  // buttons
        paint.verticalGradient(1800 + b * 230, 1460, 200, 64, {70, 150, 250}, {20, 100, 220});
        paint.textLine(1830 + b * 230, 1480, 140, 22, Painter::rgb(255, 255, 255), Painter::rgb(45, 125, 235));
    }
    paint.verticalGradient(640, 1600, 2200, 160, {246, 246, 248}, {200, 210, 230});
    return image;
}

// ---- measurements ----

double milliseconds(std::chrono::steady_clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
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

std::vector<fs::path> gScreenshots;

void BM_EncodeWhole(benchmark::State& state) {
    for (auto _ : state) {
        auto text = mirel::ImageEncoder::encode(gScreenshots[0], kEdge);
        benchmark::DoNotOptimize(text);
    }
}
void BM_DecodeFile(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(ImageCodec::decode(mirel::readRegularFile(gScreenshots[0], ImageCodec::maxFileBytes)));
}
void BM_Resample(benchmark::State& state) {
    const Image image = *ImageCodec::decode(mirel::readRegularFile(gScreenshots[0], ImageCodec::maxFileBytes));
    for (auto _ : state) benchmark::DoNotOptimize(ImageCodec::resample(image, kEdge, 875));
}
void BM_EncodePNG(benchmark::State& state) {
    const Image image = *ImageCodec::resample(*ImageCodec::decode(mirel::readRegularFile(gScreenshots[0], ImageCodec::maxFileBytes)), kEdge, 875);
    const auto compression = static_cast<ImageCodec::PNGCompression>(state.range(0));
    std::size_t bytes = 0;
    for (auto _ : state) {
        auto png = ImageCodec::encodePNG(image, compression);
        bytes = png->size();
        benchmark::DoNotOptimize(png);
    }
    state.counters["png_bytes"] = double(bytes);
}
void BM_Base64(benchmark::State& state) {
    const auto png = *ImageCodec::encodePNG(*ImageCodec::resample(*ImageCodec::decode(mirel::readRegularFile(gScreenshots[0], ImageCodec::maxFileBytes)), kEdge, 875));
    for (auto _ : state) benchmark::DoNotOptimize(ImageCodec::base64(png));
}
BENCHMARK(BM_EncodeWhole)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DecodeFile)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Resample)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EncodePNG)->Arg(int(ImageCodec::PNGCompression::fast))->Arg(int(ImageCodec::PNGCompression::small))
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Base64)->Unit(benchmark::kMillisecond);

double cpuMilliseconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return now.tv_sec * 1e3 + now.tv_nsec / 1e6;
}

// Runs the Pillow script for `iterations` encodes; its per-run wall times and
// CPU times, or none if it failed.
std::vector<double> runPillow(const fs::path& image, int iterations, std::size_t* base64Bytes,
                              std::vector<double>* cpuTimes) {
    const std::string command = "/usr/bin/python3 '" MIREL_SOURCE_DIR "/bench/pillow_reference.py' '" +
                                image.string() + "' " + std::to_string(kEdge) + " " + std::to_string(iterations);
    std::vector<double> times;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return times;
    char line[256];
    while (std::fgets(line, sizeof line, pipe)) {
        double ms = 0, cpu = 0;
        std::size_t bytes = 0;
        if (std::sscanf(line, "ms=%lf cpu_ms=%lf bytes=%zu", &ms, &cpu, &bytes) == 3) {
            times.push_back(ms);
            cpuTimes->push_back(cpu);
            *base64Bytes = bytes;
        }
    }
    pclose(pipe);
    return times;
}

void compareWithPillow(int rounds) {
    constexpr int perRound = 3;
    std::vector<double> ours, pillow, oursCPU, pillowCPU;
    std::size_t ourBytes = 0, pillowBytes = 0;
    for (int round = 0; round < rounds; ++round) {
        for (int i = 0; i < perRound; ++i) {
            const auto start = std::chrono::steady_clock::now();
            const double startCPU = cpuMilliseconds();
            const auto text = mirel::ImageEncoder::encode(gScreenshots[0], kEdge);
            ours.push_back(milliseconds(std::chrono::steady_clock::now() - start));
            oursCPU.push_back(cpuMilliseconds() - startCPU);
            ourBytes = text ? text->size() : 0;
        }
        const auto theirs = runPillow(gScreenshots[0], perRound, &pillowBytes, &pillowCPU);
        pillow.insert(pillow.end(), theirs.begin(), theirs.end());
    }
    std::printf("\n== ImageEncoder.encode vs Pillow: %d×%d PNG screenshot (%.2f MB) at edge %d, %zu runs each ==\n",
                kWidth, kHeight, fs::file_size(gScreenshots[0]) / 1e6, kEdge, ours.size());
    // CPU time is printed too: on a busy machine wall time mostly measures the wait.
    std::printf("  mirel  median %8.1f ms wall (min %.1f), %8.1f ms CPU   base64 %zu bytes\n", median(ours),
                *std::min_element(ours.begin(), ours.end()), median(oursCPU), ourBytes);
    if (pillow.empty()) {
        std::printf("  Pillow could not be run (needs /usr/bin/python3 with python3-pil)\n");
        return;
    }
    std::printf("  Pillow median %8.1f ms wall (min %.1f), %8.1f ms CPU   base64 %zu bytes\n", median(pillow),
                *std::min_element(pillow.begin(), pillow.end()), median(pillowCPU), pillowBytes);
    std::printf("  ratio  %.2f× faster than Pillow by wall time, %.2f× by CPU time (target ≥ 2×)\n",
                median(pillow) / median(ours), median(pillowCPU) / median(oursCPU));
    std::printf("  target ≤ 150 ms wall: %s\n", median(ours) <= 150 ? "met" : "NOT met");
}

// In a fresh process: encode every screenshot once, in sequence, as one
// get_capture with eight images does, and report the high-water mark.
int peakMemoryChild(char** paths, int count) {
    const long before = vmHWMKilobytes();
    std::size_t total = 0;
    for (int i = 0; i < count; ++i) {
        const auto text = mirel::ImageEncoder::encode(paths[i], kEdge);
        total += text ? text->size() : 0;
    }
    std::printf("%ld %ld %zu\n", before, vmHWMKilobytes(), total);
    return 0;
}

void measurePeakMemory() {
    std::string command = "'/proc/" + std::to_string(getpid()) + "/exe' --peak-memory";
    for (const auto& path : gScreenshots) command += " '" + path.string() + "'";
    FILE* pipe = popen(command.c_str(), "r");
    long before = 0, after = 0;
    std::size_t total = 0;
    const bool read = pipe && std::fscanf(pipe, "%ld %ld %zu", &before, &after, &total) == 3;
    if (pipe) pclose(pipe);
    if (!read) {
        std::printf("\n== Peak memory: the child process failed ==\n");
        return;
    }
    std::printf("\n== Peak memory, %d screenshots encoded in sequence in a fresh process ==\n", kScreenshots);
    std::printf("  VmHWM %.1f MB (process before encoding: %.1f MB; target ≤ 150 MB: %s); %zu base64 bytes made\n",
                after / 1024.0, before / 1024.0, after / 1024.0 <= 150 ? "met" : "NOT met", total);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && std::strcmp(argv[1], "--peak-memory") == 0) return peakMemoryChild(argv + 2, argc - 2);

    int rounds = 5;
    bool parts = true;
    std::vector<char*> rest;
    for (int i = 0; i < argc; ++i) {
        if (std::strncmp(argv[i], "--rounds=", 9) == 0) rounds = std::max(1, std::atoi(argv[i] + 9));
        else if (std::strcmp(argv[i], "--skip-parts") == 0) parts = false;
        else rest.push_back(argv[i]);
    }
    int restCount = int(rest.size());
    benchmark::Initialize(&restCount, rest.data());

    char folder[] = "/tmp/mirel-image-bench-XXXXXX";
    if (!mkdtemp(folder)) return 1;
    for (int i = 0; i < kScreenshots; ++i) {
        const fs::path path = fs::path(folder) / ("screenshot-" + std::to_string(i) + ".png");
        // Saved as an application saves screenshots: compressed for size.
        const auto png = ImageCodec::encodePNG(screenshot(1234 + i), ImageCodec::PNGCompression::small);
        std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(png->data()), png->size());
        gScreenshots.push_back(path);
    }

    if (parts) benchmark::RunSpecifiedBenchmarks();
    compareWithPillow(rounds);
    measurePeakMemory();
    benchmark::Shutdown();
    fs::remove_all(folder);
    return 0;
}
