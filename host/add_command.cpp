// `mirel add`: files screenshots and a note as one capture.
#include "core/platform/file_descriptor.h"
#include "core/platform/json.h"
#include "core/platform/text.h"
#include "core/store/mirel_paths.h"
#include "host/arguments.h"
#include "host/capture_filing.h"
#include "host/commands.h"
#include "host/progress.h"

#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

namespace mirel::host {

const char* const addUsage =
    "usage: mirel add [IMAGE...] [options]\n"
    "\n"
    "Files one capture into the library and prints its id. Each IMAGE (PNG, JPEG\n"
    "or WebP) becomes one screenshot, in the order given; without an image the\n"
    "capture is a text-only issue. The note comes from --note, from --note-file,\n"
    "or else from standard input when that is not a terminal.\n"
    "\n"
    "options:\n"
    "  --note TEXT         the note; its first line is the title\n"
    "  --note-file FILE    read the note from FILE (\"-\" for standard input)\n"
    "  --app NAME          application the problem was seen in\n"
    "  --bundle-id ID      that application's identifier\n"
    "  --window TITLE      title of the window\n"
    "  --url URL           address of the page\n"
    "  --display NAME      display the screenshot was taken on\n"
    "  --scale N           that display's scale factor, such as 2\n"
    "  --mode MODE         region, fullscreen or window (default: region)\n"
    "  --group NAME        file it in this group, made if there is none\n"
    "  --tag TAG           tag it; may be given several times\n"
    "  --priority LEVEL    low, normal or high (default: normal)\n"
    "  --annotate FILE     draw the shapes of this annotation JSON onto the first\n"
    "                      image, as {\"shapes\":[...]} with relative coordinates\n"
    "  -h, --help          show this help\n";

namespace {

const std::vector<OptionDefinition> addOptions = {
    {"note"},   {"note-file"}, {"app"},  {"bundle-id"}, {"window"},   {"url"},      {"display"},
    {"scale"},  {"mode"},      {"group"}, {"tag", true}, {"priority"}, {"annotate"},
};

// Far more than any note or annotation; what is longer is a mistake, such as
// a device or a log file given by accident.
constexpr std::size_t maxTextBytes = std::size_t{1} << 20;

std::string readStream(std::istream& in, const std::string& what) {
    std::string text(maxTextBytes + 1, '\0');
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(in.gcount()));
    if (text.size() > maxTextBytes) {
        throw FilingError(what + " is larger than " + std::to_string(maxTextBytes) + " bytes");
    }
    return text;
}

std::string readTextFile(const std::string& path, const std::string& what) {
    if (path == "-") return readStream(std::cin, "standard input");
    try {
        const std::vector<std::uint8_t> bytes = readRegularFile(path, maxTextBytes);
        return std::string(bytes.begin(), bytes.end());
    } catch (const FileReadError& error) {
        throw FilingError(what + ": " + error.what());
    }
}

std::string readNote(const ParsedArguments& parsed) {
    std::string text;
    if (auto note = parsed.value("note")) {
        text = *note;
    } else if (auto file = parsed.value("note-file")) {
        text = readTextFile(*file, "note file");
    } else if (!isatty(STDIN_FILENO)) {
        text = readStream(std::cin, "standard input");
    }
    return trimWhitespaceAndNewlines(repairUTF8(text));
}

// A text field: trimmed, and absent when nothing is left.
std::optional<std::string> textField(const ParsedArguments& parsed, const std::string& name) {
    auto value = parsed.value(name);
    if (!value) return std::nullopt;
    std::string trimmed = trimWhitespaceAndNewlines(repairUTF8(*value));
    if (trimmed.empty()) return std::nullopt;
    return trimmed;
}

double parseScale(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const double scale = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno == ERANGE || !std::isfinite(scale) || scale <= 0 || scale > 100) {
        throw UsageError("--scale takes a positive number such as 2, not \"" + text + "\"");
    }
    return scale;
}

Annotation readAnnotation(const std::string& path) {
    const std::string text = readTextFile(path, "annotation file");
    if (!parseJSON(text)) throw FilingError(path + " is not valid JSON");
    Annotation annotation = Annotation::decode(text);
    if (annotation.isEmpty()) {
        throw FilingError(path + " holds no annotation shapes; expected {\"shapes\":[{\"id\",\"tool\",\"colorHex\","
                                 "\"lineWidth\",\"points\":[{\"x\",\"y\"}]}]}");
    }
    return annotation;
}

}  // namespace

int runAdd(const Arguments& arguments) {
    const ParsedArguments parsed = parseArguments(arguments, addOptions);
    if (parsed.help) {
        std::cout << addUsage;
        return exitOK;
    }
    if (parsed.has("note") && parsed.has("note-file")) throw UsageError("give --note or --note-file, not both");

    FilingRequest request;
    Capture& capture = request.capture;
    capture.appName = textField(parsed, "app");
    capture.appBundleID = textField(parsed, "bundle-id");
    capture.windowTitle = textField(parsed, "window");
    capture.url = textField(parsed, "url");
    capture.displayName = textField(parsed, "display");
    if (auto scale = parsed.value("scale")) capture.displayScale = parseScale(*scale);
    if (auto mode = parsed.value("mode")) {
        auto parsedMode = captureModeFrom(*mode);
        if (!parsedMode || *parsedMode == CaptureMode::text) {
            throw UsageError("--mode takes region, fullscreen or window, not \"" + *mode + "\"");
        }
        if (parsed.operands.empty()) throw UsageError("--mode describes a screenshot, and no image was given");
        capture.captureMode = *parsedMode;
    }
    if (auto priority = parsed.value("priority")) {
        auto parsedPriority = capturePriorityFrom(*priority);
        if (!parsedPriority) throw UsageError("--priority takes low, normal or high, not \"" + *priority + "\"");
        capture.priority = *parsedPriority;
    }
    if (auto group = parsed.value("group")) {
        if (trimBlanks(*group).empty()) throw UsageError("--group needs a name");
        request.groupName = trimBlanks(*group);
    }
    request.tags = parsed.values("tag");
    if (parsed.has("annotate") && parsed.operands.empty()) {
        throw UsageError("--annotate draws onto the first image, and no image was given");
    }

    capture.note = readNote(parsed);
    if (parsed.operands.empty() && capture.note.empty()) {
        throw UsageError("nothing to file: give an image, a note, or both");
    }
    if (auto file = parsed.value("annotate")) request.annotation = readAnnotation(*file);

    // Every image is read before the library is touched, so a bad one
    // changes nothing. A few images are quick; many get a progress line.
    const std::size_t total = parsed.operands.size();
    Progress progress;
    const bool counting = total >= 4;
    for (const std::string& path : parsed.operands) {
        if (counting) progress.count("Reading images", request.images.size() + 1, total);
        request.images.push_back(prepareImageFile(path));
    }
    if (counting) request.onImageReady = [&](std::size_t ready) { progress.count("Making thumbnails", ready, total); };

    CaptureStore store(MirelPaths::databaseURL());
    const std::string id = fileCapture(store, request);
    progress.clear();
    std::cout << id << '\n';
    return exitOK;
}

}  // namespace mirel::host
