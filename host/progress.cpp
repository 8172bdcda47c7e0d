#include "host/progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <iostream>

namespace mirel::host {

namespace {

std::size_t terminalWidth() {
    winsize size{};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    return 80;
}

// At most `columns` characters of UTF-8 text, cut between characters: a line
// that wrapped could not be redrawn in place.
std::string fitted(const std::string& line, std::size_t columns) {
    std::size_t characters = 0;
    for (std::size_t i = 0; i < line.size(); ++i) {
        const bool starts = (static_cast<unsigned char>(line[i]) & 0xC0) != 0x80;
        if (starts && ++characters > columns) return line.substr(0, i);
    }
    return line;
}

}  // namespace

Progress::Progress()
    : Progress(std::cerr, isatty(STDOUT_FILENO) && isatty(STDERR_FILENO), isatty(STDERR_FILENO) ? terminalWidth() : 80) {}

Progress::Progress(std::ostream& out, bool shown, std::size_t width) : out_(&out), shown_(shown), width_(width) {}

Progress::~Progress() { clear(); }

void Progress::count(const std::string& label, std::size_t done, std::size_t total) {
    show(label + ' ' + std::to_string(done) + '/' + std::to_string(total));
}

void Progress::show(const std::string& line) {
    if (!shown_) return;
    // The last column stays free: some terminals wrap as soon as it is written.
    const std::string text = fitted(line, width_ > 1 ? width_ - 1 : 1);
    if (text == drawn_) return;
    *out_ << "\r\033[K" << text << std::flush;
    drawn_ = text;
}

void Progress::clear() {
    if (!shown_ || drawn_.empty()) return;
    *out_ << "\r\033[K" << std::flush;
    drawn_.clear();
}

}  // namespace mirel::host
