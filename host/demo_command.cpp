// `mirel demo`: a small, believable board for a newcomer to look at.
#include "core/platform/clock.h"
#include "core/store/mirel_paths.h"
#include "host/arguments.h"
#include "host/capture_filing.h"
#include "host/commands.h"
#include "host/demo_pictures.h"
#include "host/progress.h"

#include <functional>
#include <iostream>

namespace mirel::host {

const char* const demoUsage =
    "usage: mirel demo\n"
    "\n"
    "Fills the library with a demo board: three groups and a dozen captures with\n"
    "drawn screenshots, tags, comments and history, among them a marked-up one,\n"
    "one with several screenshots, a text-only one, a resolved and an archived one.\n"
    "Running it again adds another set of captures to the same groups.\n"
    "\n"
    "options:\n"
    "  -h, --help          show this help\n";

namespace {

constexpr double minute = 60, hour = 3600, day = 86400;

PreparedImage png(const Image& image) {
    auto bytes = ImageCodec::encodePNG(image);
    if (!bytes) throw FilingError("could not encode a demo screenshot");
    return prepareImageBytes(std::move(*bytes), "a demo screenshot");
}

// WebP where the encoder works, so the board holds more than one kind.
PreparedImage webp(const Image& image) {
    if (auto bytes = DemoPictures::encodeWebP(image)) return prepareImageBytes(std::move(*bytes), "a demo screenshot");
    return png(image);
}

AnnotationShape shape(AnnotationTool tool, const std::string& color, double width, std::vector<AnnotationPoint> points) {
    return AnnotationShape{newID(), tool, color, width, std::move(points)};
}

struct DemoCapture {
    std::string note;
    double age;  // seconds before now
    std::optional<std::string> group;
    std::vector<std::string> tags;
    std::function<std::vector<PreparedImage>()> images;
    std::function<void(Capture&)> details;
    std::optional<Annotation> annotation;
    // What happened after filing: comments, claims, resolution.
    std::function<void(CaptureStore&, const std::string& id, Date filed)> afterwards;
};

void comment(CaptureStore& store, const std::string& captureID, const std::string& author, bool isAgent,
             const std::string& body, Date at) {
    store.addComment(Comment::written(captureID, author, isAgent, body, at));
}

std::vector<DemoCapture> board() {
    using namespace DemoPictures;
    std::vector<DemoCapture> captures;

    Annotation payButton;
    payButton.shapes = {
        shape(AnnotationTool::rectangle, "#FF3B30", 0.005, {{0.6, 0.74}, {0.94, 0.87}}),
        shape(AnnotationTool::arrow, "#FF3B30", 0.005, {{0.4, 0.6}, {0.59, 0.76}}),
        shape(AnnotationTool::highlight, "#FFCC00", 0.02, {{0.05, 0.86}, {0.56, 0.86}}),
    };
    captures.push_back({"Pay button overlaps the cookie banner on narrow windows\n"
                        "Below about 900px the banner slides over the lower half of the Pay button, "
                        "and clicks on the covered half do nothing.",
                        2 * hour, "Checkout flow", {"ui", "css"},
                        [] { return std::vector{png(checkoutPage(1280, 800))}; },
                        [](Capture& c) {
                            c.priority = CapturePriority::high;
                            c.appName = "Firefox";
                            c.appBundleID = "org.mozilla.firefox";
                            c.windowTitle = "Checkout — Acme Store";
                            c.url = "https://shop.example.com/checkout";
                            c.displayName = "Built-in Display";
                            c.displayScale = 2;
                        },
                        payButton,
                        [](CaptureStore& store, const std::string& id, Date filed) {
                            comment(store, id, "Ada", false, "Also on the order summary page.", filed + 20 * minute);
                        }});
    captures.push_back({"Coupon field rejects codes pasted with a trailing space", 5 * hour, "Checkout flow",
                        {"forms"},
                        [] { return std::vector{webp(couponField(640, 360))}; },
                        [](Capture& c) {
                            c.appName = "Chromium";
                            c.windowTitle = "Acme Store";
                            c.url = "https://shop.example.com/cart";
                        },
                        std::nullopt,
                        [](CaptureStore& store, const std::string& id, Date filed) {
                            comment(store, id, "Ada", false, "Codes copied from the newsletter all have one.",
                                    filed + hour);
                            comment(store, id, "claude", true, "The validator compares before trimming; a fix is small.",
                                    filed + 2 * hour);
                        }});
    captures.push_back({"Card form loses focus after a validation error\n"
                        "1. Type a short card number. 2. Press Pay. 3. The error shows, and typing goes nowhere.",
                        1 * day, "Checkout flow", {"forms", "a11y"},
                        [] {
                            return std::vector{png(cardForm(900, 600, 0)), png(cardForm(900, 600, 1)),
                                               png(cardForm(900, 600, 2))};
                        },
                        [](Capture& c) {
                            c.captureMode = CaptureMode::window;
                            c.appName = "Firefox";
                            c.windowTitle = "Payment — Acme Store";
                            c.url = "https://shop.example.com/checkout/card";
                        },
                        std::nullopt, nullptr});
    captures.push_back({"Settings toggles drift out of line in dark mode", 3 * day, "Design panel",
                        {"ui", "dark-mode"},
                        [] { return std::vector{png(settingsDark(1440, 900))}; },
                        [](Capture& c) {
                            c.captureMode = CaptureMode::window;
                            c.appName = "Mirel";
                            c.windowTitle = "Settings";
                        },
                        std::nullopt,
                        [](CaptureStore& store, const std::string& id, Date) { store.claim(id, "claude"); }});
    captures.push_back({"Colour swatches look blurry on HiDPI displays", 6 * day, "Design panel", {"ui", "hidpi"},
                        [] { return std::vector{png(colorPicker(600, 300))}; },
                        [](Capture& c) {
                            c.appName = "Mirel";
                            c.windowTitle = "Colour";
                            c.displayName = "DELL U2720Q";
                            c.displayScale = 2;
                        },
                        std::nullopt,
                        [](CaptureStore& store, const std::string& id, Date filed) {
                            comment(store, id, "claude", true, "Swatches were drawn at 1x and scaled up.", filed + day);
                            store.resolve(id, "4e1d2a7 draw swatches at the backing scale", "claude");
                        }});
    captures.push_back({"Sidebar icons have no tooltips", 20 * day, "Design panel", {"a11y"},
                        [] { return std::vector{png(sidebar(1024, 640))}; },
                        [](Capture& c) {
                            c.priority = CapturePriority::low;
                            c.appName = "Mirel";
                        },
                        std::nullopt,
                        [](CaptureStore& store, const std::string& id, Date) {
                            store.setStatus(id, CaptureStatus::archived, "you");
                        }});
    captures.push_back({"Welcome tour skips step 3 on small phones", 40 * minute, "Onboarding", {"mobile"},
                        [] { return std::vector{png(phoneTour(390, 844))}; },
                        [](Capture& c) {
                            c.captureMode = CaptureMode::fullscreen;
                            c.appName = "Simulator";
                            c.windowTitle = "iPhone SE — iOS 17";
                        },
                        std::nullopt, nullptr});
    captures.push_back({"Say “Team” instead of “Workspace” in the first-run screens\n"
                        "Marketing asked for the new word everywhere a newcomer sees it before signing in.",
                        2 * day, "Onboarding", {"copy"}, nullptr, nullptr, std::nullopt,
                        [](CaptureStore& store, const std::string& id, Date filed) {
                            comment(store, id, "Ada", false, "The e-mail templates too, please.", filed + 3 * hour);
                        }});
    captures.push_back({"Chart labels overlap when there are more than 12 bars", 9 * hour, std::nullopt, {"charts"},
                        [] { return std::vector{png(barChart(1600, 1000))}; },
                        [](Capture& c) {
                            c.appName = "Grafana";
                            c.windowTitle = "Orders per day";
                            c.url = "http://localhost:3000/d/orders";
                        },
                        std::nullopt, nullptr});
    captures.push_back({"Export dialog puts the default button on the left", 4 * day, std::nullopt, {"ui", "linux"},
                        [] { return std::vector{png(dialog(480, 300))}; },
                        [](Capture& c) {
                            c.captureMode = CaptureMode::window;
                            c.appName = "Mirel";
                            c.windowTitle = "Export";
                        },
                        std::nullopt, nullptr});
    captures.push_back({"Editor froze after pasting a large table", 30 * minute, std::nullopt, {"crash"},
                        [] { return std::vector{png(desktop(1920, 1080))}; },
                        [](Capture& c) {
                            c.priority = CapturePriority::high;
                            c.captureMode = CaptureMode::fullscreen;
                            c.appName = "Code";
                            c.windowTitle = "report.md — notes";
                            c.displayName = "HDMI-1";
                            c.displayScale = 1;
                        },
                        std::nullopt, nullptr});
    captures.push_back({"Search results flicker while typing", 12 * day, std::nullopt, {"perf"},
                        [] { return std::vector{webp(searchResults(1024, 640))}; },
                        [](Capture& c) {
                            c.appName = "Firefox";
                            c.url = "https://shop.example.com/search?q=lamp";
                        },
                        std::nullopt, nullptr});
    return captures;
}

}  // namespace

int runDemo(const Arguments& arguments) {
    const ParsedArguments parsed = parseArguments(arguments, {});
    if (parsed.help) {
        std::cout << demoUsage;
        return exitOK;
    }
    if (!parsed.operands.empty()) throw UsageError("unexpected argument \"" + parsed.operands.front() + "\"");

    CaptureStore store(MirelPaths::databaseURL());
    const struct {
        const char* name;
        const char* color;
    } groups[] = {{"Checkout flow", "#FF9F0A"}, {"Design panel", "#AF52DE"}, {"Onboarding", "#34C759"}};
    for (const auto& group : groups) {
        bool created = false;
        CaptureGroup stored = store.findOrCreateGroup(group.name, store.defaultWorkspaceID(), &created);
        if (created) {
            stored.colorHex = group.color;
            store.upsertGroup(stored);
        }
    }

    const Date now = Clock::now();
    const std::vector<DemoCapture> demos = board();
    Progress progress;
    int filed = 0;
    for (const DemoCapture& demo : demos) {
        progress.count("Filing demo captures", filed + 1, demos.size());
        FilingRequest request;
        request.capture.note = demo.note;
        request.capture.createdAt = now - demo.age;
        if (demo.details) demo.details(request.capture);
        request.groupName = demo.group;
        request.tags = demo.tags;
        if (demo.images) request.images = demo.images();
        request.annotation = demo.annotation;
        // The store dates its writes by the clock; the demo's history should
        // start when its capture was filed.
        std::string id;
        Clock::pin(request.capture.createdAt);
        try {
            id = fileCapture(store, request);
        } catch (...) {
            Clock::pin(std::nullopt);
            throw;
        }
        Clock::pin(std::nullopt);
        if (demo.afterwards) demo.afterwards(store, id, request.capture.createdAt);
        ++filed;
    }
    progress.clear();
    std::cout << "Filed " << filed << " demo captures in " << std::size(groups) << " groups into "
              << MirelPaths::support().string() << ".\nRun 'mirel list --status all' to see them.\n";
    return exitOK;
}

}  // namespace mirel::host
