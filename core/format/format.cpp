#include "core/format/format.h"

#include "core/platform/clock.h"
#include "core/platform/text.h"
#include "core/store/mirel_paths.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <limits>

namespace mirel::Format {

namespace {

// Whole seconds from `date` to now, cut towards zero; saturates instead of
// overflowing on absurd stored dates.
std::int64_t secondsSince(Date date) {
    const double seconds = std::trunc(Clock::now() - date);
    if (std::isnan(seconds)) return 0;
    constexpr double bound = 9.0e18;
    if (seconds >= bound) return static_cast<std::int64_t>(bound);
    if (seconds <= -bound) return -static_cast<std::int64_t>(bound);
    return static_cast<std::int64_t>(seconds);
}

// A number with at most `decimals` places, trailing zeros dropped.
std::string decimalText(double value, int decimals) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.*f", decimals, value);
    std::string text = buffer;
    if (text.find('.') != std::string::npos) {
        while (!text.empty() && text.back() == '0') text.pop_back();
        if (!text.empty() && text.back() == '.') text.pop_back();
    }
    return text;
}

// Groups the digits before the decimal point by thousands: "1,000".
std::string withThousands(const std::string& number) {
    const std::size_t point = std::min(number.find('.'), number.size());
    const std::size_t start = (!number.empty() && number[0] == '-') ? 1 : 0;
    std::string out = number.substr(0, start);
    for (std::size_t i = start; i < point; ++i) {
        out += number[i];
        const std::size_t left = point - i - 1;
        if (left > 0 && left % 3 == 0) out += ',';
    }
    out += number.substr(point);
    return out;
}

// "[text]", built by appending: g++ 12 warns falsely (-Wrestrict) on a
// one-character literal put in front of a temporary string.
std::string bracketed(const std::string& text) {
    std::string out = "[";
    out += text;
    out += ']';
    return out;
}

std::string modeLine(const Capture& capture, const std::vector<CaptureImage>& images) {
    if (images.empty() && capture.imagePath.empty())
        return "Mode: Text only   No screenshot \u2014 this issue was typed, not captured. Go by the note.";
    const std::string mode = "Mode: " + std::string(displayName(capture.captureMode));
    if (images.size() >= 2) {
        const auto marked = std::count_if(images.begin(), images.end(),
                                          [](const CaptureImage& image) { return image.hasAnnotations(); });
        std::string line = mode + "   " + std::to_string(images.size()) + " screenshots";
        if (marked > 0) line += " (" + std::to_string(marked) + " marked up)";
        return line;
    }
    std::string line = mode + "   Image: " + std::to_string(capture.imageWidth) + "\u00D7" +
                       std::to_string(capture.imageHeight) + "px, " + byteCount(capture.imageBytes);
    if (images.size() == 1 && images.front().hasAnnotations()) line += "   (marked up by the user)";
    return line;
}

}  // namespace

std::string idPrefix(const std::string& id) { return id.substr(0, std::min<std::size_t>(8, id.size())); }

std::string statusWord(CaptureStatus status) {
    switch (status) {
        case CaptureStatus::open: return "OPEN";
        case CaptureStatus::inProgress: return "IN-PROGRESS";
        case CaptureStatus::resolved: return "RESOLVED";
        case CaptureStatus::archived: return "ARCHIVED";
    }
    return "OPEN";
}

std::string quoted(const std::string& text) { return "\u201C" + text + "\u201D"; }

std::string noCapturesMatch(const std::vector<CaptureStatus>& statuses) {
    std::vector<std::string> names;
    for (const auto status : statuses) names.emplace_back(displayName(status));
    return "No captures match (status: " + join(names, " / ") + ").";
}

std::string listLine(const Capture& capture, const std::optional<std::string>& groupName,
                     const std::vector<std::string>& tags, std::int64_t comments, std::int64_t images) {
    std::vector<std::string> first = {bracketed(idPrefix(capture.id)), statusWord(capture.status)};
    if (capture.priority == CapturePriority::high) first.push_back("!high");
    first.push_back(capture.title());

    std::vector<std::string> second;
    if (capture.appName) second.push_back(*capture.appName);
    if (const auto window = distinctWindowTitle(capture)) second.push_back(quoted(*window));
    if (capture.url && !capture.url->empty()) second.push_back(*capture.url);
    if (groupName) second.push_back("group:" + *groupName);
    if (!tags.empty()) second.push_back("tags:" + join(tags, ","));
    if (capture.claimedBy) second.push_back("claimed-by:" + *capture.claimedBy);
    if (images >= 2) second.push_back(std::to_string(images) + " screenshots");
    if (images == 0 && capture.imagePath.empty()) second.push_back("no screenshot");
    if (comments == 1) second.push_back("1 comment");
    else if (comments > 1) second.push_back(std::to_string(comments) + " comments");
    second.push_back(relative(capture.createdAt));

    return join(first, " ") + "\n    " + join(second, " \u00B7 ");
}

std::string relative(Date date) {
    const std::int64_t s = secondsSince(date);
    if (s < 0) return "just now";
    if (s < 60) return std::to_string(std::max<std::int64_t>(s, 1)) + "s ago";
    if (s < 3600) return std::to_string(s / 60) + "m ago";
    if (s < 86400) return std::to_string(s / 3600) + "h ago";
    if (s < 2592000) return std::to_string(s / 86400) + "d ago";
    return std::to_string(s / 2592000) + "mo ago";
}

std::optional<std::string> distinctWindowTitle(const Capture& capture) {
    if (!capture.windowTitle) return std::nullopt;
    std::string title = trimWhitespaceAndNewlines(*capture.windowTitle);
    if (title.empty()) return std::nullopt;
    if (equalsIgnoringCase(title, capture.appName.value_or(""))) return std::nullopt;
    return title;
}

std::string iso(Date date) {
    // Whole seconds, cut towards the past; out-of-range dates are pinned to
    // what gmtime can still write.
    double seconds = std::isnan(date) ? 0 : std::floor(date);
    seconds = std::clamp(seconds, -62135596800.0, 253402300799.0);  // years 1 to 9999
    const std::time_t t = static_cast<std::time_t>(seconds);
    std::tm parts{};
    gmtime_r(&t, &parts);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return buffer;
}

std::string byteCount(std::int64_t bytes) {
    if (bytes == 0) return "Zero KB";
    const bool negative = bytes < 0;
    // Magnitude as a double: exact enough for display, and safe for INT64_MIN.
    const double magnitude = negative ? -static_cast<double>(bytes) : static_cast<double>(bytes);
    const std::string sign = negative ? "-" : "";
    if (magnitude < 1000) {
        const auto whole = static_cast<std::int64_t>(magnitude);
        return sign + std::to_string(whole) + (whole == 1 ? " byte" : " bytes");
    }
    struct Unit {
        const char* name;
        int decimals;
    };
    static const Unit units[] = {{"KB", 0}, {"MB", 1}, {"GB", 2}, {"TB", 2}, {"PB", 2}, {"EB", 2}};
    constexpr int last = static_cast<int>(std::size(units)) - 1;
    int index = 0;
    double value = magnitude / 1000;
    while (index < last && value >= 1000) {
        value /= 1000;
        ++index;
    }
    // Halves round away from zero; rounding may carry into the next unit, so
    // 999,999 bytes reads "1 MB".
    const auto rounded = [&] {
        const double scale = std::pow(10.0, units[index].decimals);
        return std::round(value * scale) / scale;
    };
    if (index < last && rounded() >= 1000) {
        value /= 1000;
        ++index;
    }
    return sign + withThousands(decimalText(rounded(), units[index].decimals)) + " " + units[index].name;
}

std::string detail(const Capture& capture, const std::optional<std::string>& groupName,
                   const std::vector<std::string>& tags, const std::vector<Comment>& comments,
                   const std::vector<ActivityEvent>& activity, const std::vector<CaptureImage>& images) {
    std::vector<std::string> lines;
    lines.push_back("Capture " + capture.id);
    lines.push_back("Status: " + statusWord(capture.status) + "   Priority: " +
                    std::string(displayName(capture.priority)));
    lines.push_back("Captured: " + iso(capture.createdAt) + " (" + relative(capture.createdAt) + ")");
    lines.push_back(modeLine(capture, images));
    lines.push_back("");

    lines.push_back("\u2500\u2500 Where it was seen \u2500\u2500");
    std::string app = "App: " + capture.appName.value_or("unknown");
    if (capture.appBundleID) app += " (" + *capture.appBundleID + ")";
    lines.push_back(app);
    if (const auto window = distinctWindowTitle(capture)) lines.push_back("Window: " + *window);
    if (capture.url && !capture.url->empty()) lines.push_back("URL: " + *capture.url);
    if (capture.displayName) lines.push_back("Display: " + *capture.displayName);
    if (groupName) lines.push_back("Group: " + *groupName);
    if (!tags.empty()) lines.push_back("Tags: " + join(tags, ", "));
    lines.push_back("");

    lines.push_back("\u2500\u2500 Note \u2500\u2500");
    lines.push_back(capture.note.empty() ? "(no note written)" : capture.note);
    if (capture.claimedBy) {
        lines.push_back("");
        std::string claim = "Claimed by " + *capture.claimedBy;
        if (capture.claimedAt) claim += " " + relative(*capture.claimedAt);
        lines.push_back(claim);
    }
    if (capture.status == CaptureStatus::resolved) {
        std::string resolved = "Resolved";
        if (capture.resolvedAt) resolved += " " + relative(*capture.resolvedAt);
        if (capture.resolutionRef && !capture.resolutionRef->empty()) resolved += " \u2014 " + *capture.resolutionRef;
        lines.push_back(resolved);
    }
    if (!comments.empty()) {
        lines.push_back("");
        lines.push_back("\u2500\u2500 Comments (" + std::to_string(comments.size()) + ") \u2500\u2500");
        for (const auto& comment : comments)
            lines.push_back(bracketed(relative(comment.createdAt)) + " " + comment.author + ": " + comment.body);
    }
    if (!activity.empty()) {
        lines.push_back("");
        lines.push_back("\u2500\u2500 History \u2500\u2500");
        const std::size_t from = activity.size() > 12 ? activity.size() - 12 : 0;
        for (std::size_t i = from; i < activity.size(); ++i)
            lines.push_back(bracketed(relative(activity[i].createdAt)) + " " + describe(activity[i]));
    }
    lines.push_back("");

    if (!images.empty()) {
        lines.push_back("Local files:");
        for (std::size_t i = 0; i < images.size(); ++i) {
            const auto& image = images[i];
            std::string line = "  " + std::to_string(i + 1) + ". " + image.displayURL().string();
            if (image.hasAnnotations())
                line += "  (annotated; original at " +
                        std::filesystem::path(image.imagePath).filename().string() + ")";
            lines.push_back(line);
        }
    } else if (!capture.imagePath.empty()) {
        lines.push_back("Local file: " + MirelPaths::imageURL(capture.imagePath).string());
    }
    return join(lines, "\n");
}

std::string describe(const ActivityEvent& event) {
    const std::string detail = trimBlanks(event.detail);
    const std::string& actor = event.actor;
    const std::string& kind = event.kind;
    if (kind == "created") {
        if (detail == "no screenshot") return "filed by " + actor + " without a screenshot";
        if (detail.empty()) return "captured by " + actor;
        return "captured by " + actor + " (" + detail + ")";
    }
    if (kind == "claimed") return actor + " claimed it";
    if (kind == "resolved") return detail.empty() ? actor + " resolved it" : actor + " resolved it \u2014 " + detail;
    if (kind == "commented") return actor + " commented";
    if (kind == "status_changed") return actor + " changed status: " + detail;
    if (kind == "updated") return actor + " updated " + detail;
    return detail.empty() ? actor + " " + kind : actor + " " + kind + ": " + detail;
}

}  // namespace mirel::Format
