#include "server/dates.h"

#include <cmath>
#include <cstdio>
#include <ctime>

namespace mirel::server {

namespace {

// Days from 1970-01-01 to a civil date (proleptic Gregorian).
long long daysFromCivil(long long y, unsigned m, unsigned d) {
    y -= m <= 2;
    const long long era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<long long>(doe) - 719468;
}

bool digits(std::string_view text, std::size_t at, std::size_t count, int& value) {
    if (at + count > text.size()) return false;
    value = 0;
    for (std::size_t i = at; i < at + count; ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
        value = value * 10 + (text[i] - '0');
    }
    return true;
}

}  // namespace

std::string isoDate(Date date) {
    double whole = std::floor(date);
    auto millis = static_cast<int>(std::lround((date - whole) * 1000));
    if (millis == 1000) {
        whole += 1;
        millis = 0;
    }
    std::time_t seconds = static_cast<std::time_t>(whole);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", parts.tm_year + 1900, parts.tm_mon + 1,
                  parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, millis);
    return text;
}

std::optional<Date> parseISODate(std::string_view text) {
    int year, month, day, hour, minute, second;
    if (!digits(text, 0, 4, year) || text.size() < 19 || text[4] != '-' || !digits(text, 5, 2, month) ||
        text[7] != '-' || !digits(text, 8, 2, day) || text[10] != 'T' || !digits(text, 11, 2, hour) ||
        text[13] != ':' || !digits(text, 14, 2, minute) || text[16] != ':' || !digits(text, 17, 2, second)) {
        return std::nullopt;
    }
    if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) return std::nullopt;
    std::size_t at = 19;
    double fraction = 0;
    if (at < text.size() && text[at] == '.') {
        double scale = 0.1;
        std::size_t start = ++at;
        while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
            fraction += (text[at] - '0') * scale;
            scale /= 10;
            ++at;
        }
        if (at == start) return std::nullopt;
    }
    int offset = 0;
    if (at < text.size() && text[at] == 'Z') {
        ++at;
    } else if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
        int oh, om;
        if (!digits(text, at + 1, 2, oh) || at + 3 >= text.size() || text[at + 3] != ':' || !digits(text, at + 4, 2, om)) {
            return std::nullopt;
        }
        offset = (oh * 60 + om) * 60 * (text[at] == '-' ? -1 : 1);
        at += 6;
    } else {
        return std::nullopt;
    }
    if (at != text.size()) return std::nullopt;
    double days = static_cast<double>(daysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day)));
    return days * 86400 + hour * 3600 + minute * 60 + second + fraction - offset;
}

}  // namespace mirel::server
