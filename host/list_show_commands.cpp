// `mirel list` and `mirel show`: the board as the agent's tools word it.
#include "core/format/format.h"
#include "core/format/pages.h"
#include "core/platform/text.h"
#include "core/store/capture_store.h"
#include "core/store/mirel_paths.h"
#include "host/arguments.h"
#include "host/commands.h"

#include <iostream>

namespace mirel::host {

const char* const listUsage =
    "usage: mirel list [options]\n"
    "\n"
    "Lists captures, high priority first, then newest first, two lines each.\n"
    "\n"
    "options:\n"
    "  --status STATUS     open, in_progress, resolved, archived or all; may be\n"
    "                      given several times (default: open and in_progress)\n"
    "  --group NAME        only captures in this group\n"
    "  --tag TAG           only captures with this tag\n"
    "  --search TEXT       only captures whose note, app, window or URL holds TEXT\n"
    "  --limit N           at most N captures, 1 to 10000 (default: 200)\n"
    "  -h, --help          show this help\n";

const char* const showUsage =
    "usage: mirel show ID...\n"
    "\n"
    "Shows each capture in full: where it was seen, the note, comments, history\n"
    "and its local files. ID is a capture's id or a unique beginning of it.\n"
    "\n"
    "options:\n"
    "  -h, --help          show this help\n";

namespace {

std::vector<CaptureStatus> parseStatuses(const std::vector<std::string>& words) {
    if (words.empty()) return CaptureStatuses::active;
    std::vector<CaptureStatus> statuses;
    for (const std::string& word : words) {
        if (word == "all") return CaptureStatuses::allCases;
        auto status = captureStatusFrom(word);
        if (!status) {
            throw UsageError("--status takes open, in_progress, resolved, archived or all, not \"" + word + "\"");
        }
        statuses.push_back(*status);
    }
    return statuses;
}

std::optional<std::string> nonEmpty(const std::optional<std::string>& text) {
    if (!text || text->empty()) return std::nullopt;
    return text;
}

}  // namespace

int runList(const Arguments& arguments) {
    const ParsedArguments parsed =
        parseArguments(arguments, {{"status", true}, {"group"}, {"tag"}, {"search"}, {"limit"}});
    if (parsed.help) {
        std::cout << listUsage;
        return exitOK;
    }
    if (!parsed.operands.empty()) throw UsageError("unexpected argument \"" + parsed.operands.front() + "\"");

    CaptureQuery query;
    query.statuses = parseStatuses(parsed.values("status"));
    query.groupName = nonEmpty(parsed.value("group"));
    query.tag = nonEmpty(parsed.value("tag"));
    query.search = nonEmpty(parsed.value("search"));
    if (auto limit = parsed.value("limit")) query.limit = parseInteger("limit", *limit, 1, 10000);

    CaptureStore store(MirelPaths::databaseURL());
    const std::vector<Capture> captures = store.captures(query);
    if (captures.empty()) {
        std::cout << Format::noCapturesMatch(*query.statuses) << '\n';
        return exitOK;
    }
    for (const std::string& entry : Pages::listEntries(store, captures)) std::cout << entry << '\n';
    return exitOK;
}

int runShow(const Arguments& arguments) {
    const ParsedArguments parsed = parseArguments(arguments, {});
    if (parsed.help) {
        std::cout << showUsage;
        return exitOK;
    }
    if (parsed.operands.empty()) throw UsageError("name a capture: its id or the beginning of it");

    CaptureStore store(MirelPaths::databaseURL());
    int status = exitOK;
    bool first = true;
    for (const std::string& given : parsed.operands) {
        const std::string text = trimBlanks(given);
        std::optional<Capture> capture;
        if (!text.empty()) {
            if (auto id = store.resolveCaptureID(text)) capture = store.capture(*id);
        }
        if (!capture) {
            std::cerr << "mirel show: no capture matches \"" << given
                      << "\" (unknown, or the beginning of more than one id)\n";
            status = exitFailure;
            continue;
        }
        if (!first) std::cout << '\n';
        first = false;
        const std::string detail = Pages::detail(store, *capture).text;
        std::cout << detail;
        if (detail.empty() || detail.back() != '\n') std::cout << '\n';
    }
    return status;
}

}  // namespace mirel::host
